// The process-wide tracer: it owns the process's trace and span ids, builds
// trace records from caller data and a process context, and hands every
// record to the registered backends in registration order. It sends nothing
// itself; what leaves the process is the backends' business.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "utils/export.h"

namespace zel {

// A receiver of trace records. Backends are owned by the client, registered
// by plain pointer, and called concurrently from every thread that sends a
// record (under the tracer's shared lock): they must be thread-safe and must
// not register or unregister backends from inside a call.
class ZEL_API TracerBackend {
 public:
  virtual ~TracerBackend() = default;
  virtual std::string CreateTraceId() = 0;
  // A finished record text. The tracer ignores the result.
  virtual int PostTrace(const std::string& content) = 0;
  // One span event with its content text. The tracer ignores the result.
  virtual int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                              const std::string& event, const std::string& content,
                              const std::string& parentSpan) = 0;
  // One attribute record; `attrs` belongs to the caller.
  virtual void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                             const std::string& event, std::map<std::string, std::string>& attrs,
                             const std::string& parentSpan) = 0;
};

// What trace records read about the running process. Clients may supply
// their own through ZelTracer::SetZelProcessContext.
class ZEL_API ZelProcessContextBase {
 public:
  virtual ~ZelProcessContextBase() = default;
  virtual std::string GetZelVersion() = 0;
  virtual std::string GetFlowLevel() = 0;
  virtual std::string GetFlowName() = 0;
  // Also the default trace id of server-flow records.
  virtual std::string GetZelContext() = 0;
  virtual uint32_t GetProcessId() = 0;
  virtual std::string GetDesktopId() = 0;
  // Added to records only when not empty.
  virtual std::string GetImageVersion() = 0;
};

// The default process context, made by ZelTracer::Init. "desktopId" and
// "imageVersion" come from the ZelEnv table at construction ("" when unset).
class ZEL_API ZelProcessContext : public ZelProcessContextBase {
 public:
  ZelProcessContext(const std::string& zelVersion, const std::string& flowLevel,
                    const std::string& flowName, const std::string& zelContext, uint32_t processId);

  std::string GetZelVersion() override;
  std::string GetFlowLevel() override;
  std::string GetFlowName() override;
  std::string GetZelContext() override;
  uint32_t GetProcessId() override;
  std::string GetDesktopId() override;
  std::string GetImageVersion() override;

 private:
  std::string zelVersion;
  std::string flowLevel;
  std::string flowName;
  std::string zelContext;
  std::string desktopId;
  std::string imageVersion;
  uint32_t processId;
};

// The tracer. Expected order of use: GetInstance, RegisterBackend for each
// backend, Init (or SetZelProcessContext), then records from any thread.
// The record builders (SendTracerStep, SendServerFlowWithAttr,
// SendGTraceWithAttr) need a context and do not check for one.
class ZEL_API ZelTracer {
 public:
  // The one instance, created on first call and never destroyed.
  static ZelTracer* GetInstance();

  // Use GetInstance; a tracer of one's own is for tests and special setups.
  ZelTracer();
  virtual ~ZelTracer();
  ZelTracer(const ZelTracer&) = delete;
  ZelTracer& operator=(const ZelTracer&) = delete;

  // Installs the default context: the given names, the trace id (created now
  // if needed) as zelContext, and this process's id. Not locked: call once,
  // before records are sent from other threads.
  void Init(const std::string& zelVersion, const std::string& flowLevel,
            const std::string& flowName);
  // Does nothing: backends and context stay as they are.
  void Uninit();

  // Appends `backend` (no check for null or duplicates: a backend registered
  // twice receives every record twice). Prints the count before the change.
  void RegisterBackend(TracerBackend* backend);
  // Removes the first entry equal to `backend`; unknown pointers are ignored.
  // Prints the count before the change.
  void UnregisterBackend(TracerBackend* backend);

  // Replaces the context (null allowed). Not locked, like Init.
  void SetZelProcessContext(std::shared_ptr<ZelProcessContextBase> ctx);
  std::shared_ptr<ZelProcessContextBase> GetZelProcessContext();

  // The process trace id: 32 lower-case hex digits, made on first call.
  virtual std::string GetTraceId();
  // The process span id: 16 lower-case hex digits, made on first call.
  virtual std::string GetSpanId();
  // A fresh 16-digit span id, "-", and the local time text; nothing stored.
  std::string NewSessionId();

  // Hands `content` to every backend's PostTrace, in registration order. An
  // exception from a backend stops the dispatch and reaches the caller.
  void PostTrace(const std::string& content);
  // Hands the arguments unchanged to every backend's PostTraceWithId.
  void PostTraceWithId(const std::string& traceId, const std::string& spanId,
                       const std::string& event, const std::string& content,
                       const std::string& parentSpan);

  // `value` written by a default Json::StreamWriterBuilder ("{}" if the
  // builder yields no writer).
  std::string convertJsonToStr(const Json::Value& value);

  // A step record (JSON text) through PostTrace.
  void SendTracerStep(const std::string& biz, const std::string& step);
  // Adds the flow keys, "processId", "desktopId" (and "imageVersion" when
  // known) to `attrs` and hands them to every backend's SendTraceAttr. The
  // trace id is the context's zelContext or else the process trace id; an
  // empty `spanId` gets a fresh one; the parent span is the stored span id
  // as it stands (empty until GetSpanId has run).
  void SendServerFlowWithAttr(const std::string& spanId, const std::string& event,
                              std::map<std::string, std::string>& attrs);
  // Adds "zelVersion", "zelContext" (and "imageVersion" when known) to
  // `attrs` and hands them to every backend's SendTraceAttr. An empty
  // `traceId` becomes the process trace id, an empty `spanId` a fresh one.
  void SendGTraceWithAttr(const std::string& traceId, const std::string& spanId,
                          const std::string& event, std::map<std::string, std::string>& attrs,
                          const std::string& parentSpan);

  // Device-redirection codes as attribute texts.
  static std::string Uint16ToString(unsigned short v);               // "0x%.4x"
  static std::string RedirtypeToString(unsigned short v);            // redirection type
  static std::string CidsToString(std::vector<unsigned int> codes);  // USB class codes
  static std::string StatusToString(unsigned short v);               // connection state
  static std::string DeviceTypeToString(unsigned short v);           // device type

 private:
  std::string traceId;
  std::string spanId;
  std::shared_ptr<ZelProcessContextBase> context;
  std::shared_timed_mutex rwlock;
  std::vector<TracerBackend*> backends;

  ZEL_INTERNAL static ZelTracer* sZelTracer;
  ZEL_INTERNAL static std::mutex sMutex;
};

}  // namespace zel
