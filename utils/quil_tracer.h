// The backend and hooks of the observability service. This library does not
// implement that service: every operation here is inert and keeps no state.
#pragma once

#include <map>
#include <string>

#include "utils/export.h"
#include "utils/zel_tracer.h"

namespace zel {

// A backend that accepts every record and does nothing with it.
class ZEL_API QuilTracer : public TracerBackend {
 public:
  ~QuilTracer() override;
  // Returns "".
  std::string CreateTraceId() override;
  // Returns 1.
  int PostTrace(const std::string& content) override;
  // Returns 1.
  int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                      const std::string& event, const std::string& content,
                      const std::string& parentSpan) override;
  // Returns at once.
  void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                     const std::string& event, std::map<std::string, std::string>& attrs,
                     const std::string& parentSpan) override;
};

}  // namespace zel

ZEL_BEGIN_C_LINKAGE
// Returns "" and prints "quil create traceId:%s spanId:%s\n" to standard
// output; `spanId` is left unchanged. The tracer calls it when it is built.
ZEL_API std::string quil_create_traceId(std::string& spanId);
// Do nothing.
ZEL_API void post_trace_by_quil(void);
ZEL_API void register_tavagent_handler(void);
ZEL_END_C_LINKAGE
