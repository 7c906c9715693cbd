/// @file
/// The layout of the tracer's classes is ABI: clients allocate these objects, so their size and the
/// places of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// The process-wide tracer: it owns the process's trace and span ids, builds
/// trace records from caller data and a process context, and hands every
/// record to the registered backends in registration order. It sends nothing
/// itself; what leaves the process is the backends' business.
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "utils/export.h"
#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

/// A receiver of trace records. Backends are owned by the client, registered
/// by plain pointer, and called concurrently from every thread that sends a
/// record (under the tracer's shared lock): they must be thread-safe and must
/// not register or unregister backends from inside a call.
class ZEL_API TracerBackend {
 public:
  /// Destroys the backend; unregister it from the tracer first.
  virtual ~TracerBackend() = default;
  /// A trace id of the backend's own. The tracer never calls it.
  /// @return The id.
  virtual std::string CreateTraceId() = 0;
  /// A finished record text. The tracer ignores the result.
  /// @param content The record text.
  /// @return The backend's own result.
  virtual int PostTrace(const std::string& content) = 0;
  /// One span event with its content text. The tracer ignores the result.
  /// @param traceId Trace id of the event.
  /// @param spanId Span id of the event.
  /// @param event Event name.
  /// @param content The event's content text.
  /// @param parentSpan Span id of the parent.
  /// @return The backend's own result.
  virtual int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                              const std::string& event, const std::string& content,
                              const std::string& parentSpan) = 0;
  /// One attribute record.
  /// @param traceId Trace id of the record.
  /// @param spanId Span id of the record.
  /// @param event Event name.
  /// @param attrs The attributes; they belong to the caller, and other backends
  ///   receive the same map after this one.
  /// @param parentSpan Span id of the parent.
  virtual void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                             const std::string& event, std::map<std::string, std::string>& attrs,
                             const std::string& parentSpan) = 0;
};

/// What trace records read about the running process. Clients may supply
/// their own through ZelTracer::SetZelProcessContext. The record builders call
/// the getters from any thread that sends a record.
class ZEL_API ZelProcessContextBase {
 public:
  /// Destroyed when the tracer and every other holder let go of it.
  virtual ~ZelProcessContextBase() = default;
  /// @return The "zelVersion" of step and generic records.
  virtual std::string GetZelVersion() = 0;
  /// @return The "flowLevel" of server-flow records.
  virtual std::string GetFlowLevel() = 0;
  /// @return The "flowName" of server-flow records.
  virtual std::string GetFlowName() = 0;
  /// Also the default trace id of server-flow records.
  /// @return The "zelContext" of generic records.
  virtual std::string GetZelContext() = 0;
  /// @return The "processId" of server-flow records.
  virtual uint32_t GetProcessId() = 0;
  /// @return The "desktopId" of server-flow records.
  virtual std::string GetDesktopId() = 0;
  /// Added to records only when not empty.
  /// @return The "imageVersion" of server-flow and generic records.
  virtual std::string GetImageVersion() = 0;
};

/// The default process context, made by ZelTracer::Init. "desktopId" and
/// "imageVersion" come from the ZelEnv table at construction ("" when unset).
/// Immutable once built, so any thread may read it.
class ZEL_API ZelProcessContext : public ZelProcessContextBase {
 public:
  /// Keeps the given values and reads "desktopId" and "imageVersion" from
  /// ZelEnv now.
  /// @param zelVersion Returned by GetZelVersion.
  /// @param flowLevel Returned by GetFlowLevel.
  /// @param flowName Returned by GetFlowName.
  /// @param zelContext Returned by GetZelContext.
  /// @param processId Returned by GetProcessId.
  ZelProcessContext(const std::string& zelVersion, const std::string& flowLevel,
                    const std::string& flowName, const std::string& zelContext, uint32_t processId);

  /// @return The constructor's `zelVersion`.
  std::string GetZelVersion() override;
  /// @return The constructor's `flowLevel`.
  std::string GetFlowLevel() override;
  /// @return The constructor's `flowName`.
  std::string GetFlowName() override;
  /// @return The constructor's `zelContext`.
  std::string GetZelContext() override;
  /// @return The constructor's `processId`.
  uint32_t GetProcessId() override;
  /// @return ZelEnv's "desktopId" at construction ("" when unset).
  std::string GetDesktopId() override;
  /// @return ZelEnv's "imageVersion" at construction ("" when unset).
  std::string GetImageVersion() override;

 private:
  // All immutable: set by the constructor.
  std::string zelVersion;
  std::string flowLevel;
  std::string flowName;
  std::string zelContext;
  std::string desktopId;
  std::string imageVersion;
  uint32_t processId;
};

/// The tracer. Expected order of use: GetInstance, RegisterBackend for each
/// backend, Init (or SetZelProcessContext), then records from any thread.
/// The record builders (SendTracerStep, SendServerFlowWithAttr,
/// SendGTraceWithAttr) need a context and do not check for one.
class ZEL_API ZelTracer {
 public:
  /// The one instance, created on first call and never destroyed. Any thread.
  /// @return The tracer.
  static ZelTracer* GetInstance();

  /// Use GetInstance; a tracer of one's own is for tests and special setups.
  /// Takes its trace id from quil_create_traceId ("") and prints both ids to
  /// standard output; no context, no backends.
  ZelTracer();
  /// Releases its reference to the context; backends are not touched.
  virtual ~ZelTracer();
  ZelTracer(const ZelTracer&) = delete;
  ZelTracer& operator=(const ZelTracer&) = delete;

  /// Installs the default context: the given names, the trace id (created now
  /// if needed) as zelContext, and this process's id. Not locked: call once,
  /// before records are sent from other threads.
  /// @param zelVersion The context's "zelVersion".
  /// @param flowLevel The context's "flowLevel".
  /// @param flowName The context's "flowName".
  void Init(const std::string& zelVersion, const std::string& flowLevel,
            const std::string& flowName);
  /// Does nothing: backends and context stay as they are.
  void Uninit();

  /// Appends `backend` (no check for null or duplicates: a backend registered
  /// twice receives every record twice). Prints the count before the change.
  /// Takes the tracer's lock exclusively. Any thread, but not from a backend.
  /// @param backend The backend; not owned, must stay alive until unregistered.
  void RegisterBackend(TracerBackend* backend) ZEL_EXCLUDES(rwlock);
  /// Removes the first entry equal to `backend`; unknown pointers are ignored.
  /// Prints the count before the change. Takes the tracer's lock exclusively,
  /// so it waits for records being dispatched. Any thread, but not from a
  /// backend.
  /// @param backend The backend to remove.
  void UnregisterBackend(TracerBackend* backend) ZEL_EXCLUDES(rwlock);

  /// Replaces the context (null allowed). Not locked, like Init.
  /// @param ctx The new context; shared with the caller.
  void SetZelProcessContext(std::shared_ptr<ZelProcessContextBase> ctx);
  /// The current context. Not locked, like Init.
  /// @return The context, shared; null before Init or SetZelProcessContext.
  std::shared_ptr<ZelProcessContextBase> GetZelProcessContext();

  /// The process trace id, made on first call (under the tracer's lock,
  /// exclusively). Any thread.
  /// @return 32 lower-case hex digits.
  virtual std::string GetTraceId() ZEL_EXCLUDES(rwlock);
  /// The process span id, made on first call (under the tracer's lock,
  /// exclusively). Any thread.
  /// @return 16 lower-case hex digits.
  virtual std::string GetSpanId() ZEL_EXCLUDES(rwlock);
  /// A new session id; nothing stored. Any thread.
  /// @return A fresh 16-digit span id, "-", and the local time text.
  std::string NewSessionId();

  /// Hands `content` to every backend's PostTrace, in registration order. An
  /// exception from a backend stops the dispatch and reaches the caller.
  /// @param content The record text.
  void PostTrace(const std::string& content) ZEL_EXCLUDES(rwlock);
  /// Hands the arguments unchanged to every backend's PostTraceWithId.
  /// @param traceId Trace id of the event.
  /// @param spanId Span id of the event.
  /// @param event Event name.
  /// @param content The event's content text.
  /// @param parentSpan Span id of the parent.
  void PostTraceWithId(const std::string& traceId, const std::string& spanId,
                       const std::string& event, const std::string& content,
                       const std::string& parentSpan) ZEL_EXCLUDES(rwlock);

  /// Writes JSON as text. Any thread.
  /// @param value The JSON value.
  /// @return `value` written by a default Json::StreamWriterBuilder ("{}" if
  ///   the builder yields no writer).
  std::string convertJsonToStr(const Json::Value& value);

  /// A step record (JSON text) through PostTrace: the context's "zelVersion",
  /// "eventType" "ZEL_TRACKER_TYPE_STEP", "biz", "step", and "TimeMs" and
  /// "startTs" as the text "0".
  /// @param biz The record's "biz".
  /// @param step The record's "step".
  void SendTracerStep(const std::string& biz, const std::string& step);
  /// Adds the flow keys, "processId", "desktopId" (and "imageVersion" when
  /// known) to `attrs` and hands them to every backend's SendTraceAttr. The
  /// trace id is the context's zelContext or else the process trace id; an
  /// empty `spanId` gets a fresh one; the parent span is the stored span id
  /// as it stands (empty until GetSpanId has run).
  /// @param spanId Span id of the record, or "" for a fresh one.
  /// @param event Event name.
  /// @param attrs The caller's attributes; the keys are added in place,
  ///   replacing values of the same name.
  void SendServerFlowWithAttr(const std::string& spanId, const std::string& event,
                              std::map<std::string, std::string>& attrs) ZEL_EXCLUDES(rwlock);
  /// Adds "zelVersion", "zelContext" (and "imageVersion" when known) to
  /// `attrs` and hands them to every backend's SendTraceAttr. An empty
  /// `traceId` becomes the process trace id, an empty `spanId` a fresh one.
  /// @param traceId Trace id of the record, or "" for the process trace id.
  /// @param spanId Span id of the record, or "" for a fresh one.
  /// @param event Event name.
  /// @param attrs The caller's attributes; the keys are added in place,
  ///   replacing values of the same name.
  /// @param parentSpan Span id of the parent, handed on unchanged.
  void SendGTraceWithAttr(const std::string& traceId, const std::string& spanId,
                          const std::string& event, std::map<std::string, std::string>& attrs,
                          const std::string& parentSpan) ZEL_EXCLUDES(rwlock);

  // Device-redirection codes as attribute texts.
  /// A 16-bit code as "0x%.4x". Any thread.
  /// @param v The code.
  /// @return "0x" and four lower-case hex digits.
  static std::string Uint16ToString(unsigned short v);
  /// A redirection type as its name. Any thread.
  /// @param v The redirection type code.
  /// @return "DEV_REDIRTYPE_..." for known codes, "DEV_REDIRTYPE_UNKNOW" else.
  static std::string RedirtypeToString(unsigned short v);
  /// USB class codes as a list of names. Any thread.
  /// @param codes The class codes; only the low byte of each counts.
  /// @return One entry per code, each ending in ";": the class name (such as
  ///   "AUDIO;") for a named class, else the low byte in decimal.
  static std::string CidsToString(std::vector<unsigned int> codes);
  /// A connection state as its name. Any thread.
  /// @param v The state code.
  /// @return "idea", "connecting", "connected" or "disconnecting" for 0 to 3,
  ///   else the code in decimal.
  static std::string StatusToString(unsigned short v);
  /// A device type as its name. Any thread.
  /// @param v The device type code.
  /// @return The type's name (mostly "DEV_TYPE_..."), "" for unknown codes.
  static std::string DeviceTypeToString(unsigned short v);

 private:
  // The process ids: set by the constructor, then made and read under rwlock.
  std::string traceId ZEL_GUARDED_BY(rwlock);
  std::string spanId ZEL_GUARDED_BY(rwlock);
  // Not locked: set by Init or SetZelProcessContext before records are sent.
  std::shared_ptr<ZelProcessContextBase> context;
  // Exclusive for backend changes and id creation; shared while a record is
  // dispatched.
  SharedMutex rwlock;
  std::vector<TracerBackend*> backends ZEL_GUARDED_BY(rwlock);

  // The instance: set once under sMutex, first read without it (double-checked). Atomic.
  ZEL_INTERNAL static std::atomic<ZelTracer*> sZelTracer;
  // Held by GetInstance while it creates the instance.
  ZEL_INTERNAL static std::mutex sMutex;
};

}  // namespace zel
