/// @file
/// The layout of ZelClientTracker is ABI: clients allocate these objects, so their size and the
/// places of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// The working trace backend: forwards every record to the client's tracing
/// library (class Tracer). Registered by the client with
/// ZelTracer::RegisterBackend and owned by it; unregister before destroying.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "utils/export.h"
#include "utils/zel_tracer.h"

namespace zel {

/// Forwards trace records to the client's tracing library. Any thread may
/// call it; only SendTraceAttr is serialised.
class ZEL_API ZelClientTracker : public TracerBackend {
 public:
  /// Makes no id.
  /// @return "".
  std::string CreateTraceId() override;
  /// Tracer::post(content, "zelModule"). Not serialised.
  /// @param content The finished record text.
  /// @return Tracer::post's result.
  int PostTrace(const std::string& content) override;
  /// Debug diagnostic, then Tracer::traceRaw(content, "zel", traceId, spanId,
  /// event, parentSpan). Not serialised; exceptions reach the caller.
  /// @param traceId Trace id of the event.
  /// @param spanId Span id of the event.
  /// @param event Event name.
  /// @param content The event's content text.
  /// @param parentSpan Span id of the parent.
  /// @return Tracer::traceRaw's result.
  int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                      const std::string& event, const std::string& content,
                      const std::string& parentSpan) override;
  /// Turns `attrs` plus "event" into styled JSON and hands it to
  /// Tracer::traceRaw with module "zel". One call at a time; any exception is
  /// caught and reported as an error diagnostic, never rethrown.
  /// @param traceId Trace id of the record.
  /// @param spanId Span id of the record.
  /// @param event Event name; it replaces an attribute named "event".
  /// @param attrs The attributes; read only, the caller keeps them.
  /// @param parentSpan Span id of the parent.
  void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                     const std::string& event, std::map<std::string, std::string>& attrs,
                     const std::string& parentSpan) override;

 private:
  // Serialises SendTraceAttr.
  std::mutex mutex;
};

}  // namespace zel
