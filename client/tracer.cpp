#include "client/tracer.h"

#include <map>
#include <mutex>
#include <stdexcept>

namespace {
std::mutex gMutex;
std::vector<TracerCall> gCalls;
std::map<std::string, int> gThrowCounts;  // function -> calls left that throw

void Record(TracerCall call) {
  std::lock_guard<std::mutex> lock(gMutex);
  auto pending = gThrowCounts.find(call.function);
  if (pending != gThrowCounts.end() && pending->second > 0) {
    --pending->second;
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

void TracerThrowFromNextCalls(const std::string& function, int count) {
  std::lock_guard<std::mutex> lock(gMutex);
  gThrowCounts[function] = count;
}
