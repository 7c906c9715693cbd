#include "utils/quil_tracer.h"

#include <cstdio>

namespace zel {

QuilTracer::~QuilTracer() {}

std::string QuilTracer::CreateTraceId() { return ""; }

int QuilTracer::PostTrace(const std::string& /*content*/) { return 1; }

int QuilTracer::PostTraceWithId(const std::string& /*traceId*/, const std::string& /*spanId*/,
                                const std::string& /*event*/, const std::string& /*content*/,
                                const std::string& /*parentSpan*/) {
  return 1;
}

void QuilTracer::SendTraceAttr(const std::string& /*traceId*/, const std::string& /*spanId*/,
                               const std::string& /*event*/,
                               std::map<std::string, std::string>& /*attrs*/,
                               const std::string& /*parentSpan*/) {}

}  // namespace zel

extern "C" std::string quil_create_traceId(std::string& spanId) {
  std::string traceId;
  std::printf("quil create traceId:%s spanId:%s\n", traceId.c_str(), spanId.c_str());
  return traceId;
}

extern "C" void post_trace_by_quil(void) {}

extern "C" void register_tavagent_handler(void) {}
