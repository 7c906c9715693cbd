// The working trace backend: forwards every record to the client's tracing
// library (class Tracer). Registered by the client with
// ZelTracer::RegisterBackend and owned by it; unregister before destroying.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "utils/export.h"
#include "utils/zel_tracer.h"

namespace zel {

class ZEL_API ZelClientTracker : public TracerBackend {
 public:
  // Returns "".
  std::string CreateTraceId() override;
  // Tracer::post(content, "zelModule"); returns its result. Not serialised.
  int PostTrace(const std::string& content) override;
  // Debug diagnostic, then Tracer::traceRaw(content, "zel", ...); returns its
  // result. Not serialised; exceptions reach the caller.
  int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                      const std::string& event, const std::string& content,
                      const std::string& parentSpan) override;
  // Turns `attrs` (read only) plus "event" into styled JSON and hands it to
  // Tracer::traceRaw with module "zel". One call at a time; any exception is
  // caught and reported as an error diagnostic, never rethrown.
  void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                     const std::string& event, std::map<std::string, std::string>& attrs,
                     const std::string& parentSpan) override;

 private:
  std::mutex mutex;
};

}  // namespace zel
