#include "client/tracer.h"

#include <map>
#include <mutex>
#include <stdexcept>

namespace {
std::mutex gMutex;
std::vector<TracerCall> gCalls;
struct PendingThrows {
  int count = 0;
  bool nonStandard = false;
};
std::map<std::string, PendingThrows> gThrows;  // by function name

void Record(TracerCall call) {
  std::lock_guard<std::mutex> lock(gMutex);
  auto pending = gThrows.find(call.function);
  if (pending != gThrows.end() && pending->second.count > 0) {
    --pending->second.count;
    if (pending->second.nonStandard) throw 42;
    throw std::runtime_error("stand-in Tracer::" + call.function + " failed");
  }
  gCalls.push_back(std::move(call));
}
}  // namespace

int Tracer::post(const std::string& content, const std::string& module) {
  Record({"post", {content, module}});
  return 0;
}

int Tracer::traceRaw(const std::string& content, const std::string& module,
                     const std::string& traceId, const std::string& spanId,
                     const std::string& event, const std::string& parentSpan) {
  Record({"traceRaw", {content, module, traceId, spanId, event, parentSpan}});
  return 0;
}

std::vector<TracerCall> TracerRecordedCalls() {
  std::lock_guard<std::mutex> lock(gMutex);
  return gCalls;
}

void TracerClearRecordedCalls() {
  std::lock_guard<std::mutex> lock(gMutex);
  gCalls.clear();
}

void TracerThrowFromNextCalls(const std::string& function, int count, bool nonStandard) {
  std::lock_guard<std::mutex> lock(gMutex);
  gThrows[function] = {count, nonStandard};
}
