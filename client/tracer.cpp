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
std::map<std::string, int> gResults;           // by function name; 0 if absent

// Records the call (or throws, if a test asked for it); returns the result
// the call is to give.
int Record(TracerCall call) {
  std::lock_guard<std::mutex> lock(gMutex);
  auto pending = gThrows.find(call.function);
  if (pending != gThrows.end() && pending->second.count > 0) {
    --pending->second.count;
    if (pending->second.nonStandard) throw 42;
    throw std::runtime_error("stand-in Tracer::" + call.function + " failed");
  }
  const int result = gResults[call.function];
  gCalls.push_back(std::move(call));
  return result;
}
}  // namespace

int Tracer::post(const std::string& content, const std::string& module) {
  return Record({"post", {content, module}});
}

int Tracer::traceRaw(const std::string& content, const std::string& module,
                     const std::string& traceId, const std::string& spanId,
                     const std::string& event, const std::string& parentSpan) {
  return Record({"traceRaw", {content, module, traceId, spanId, event, parentSpan}});
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

void TracerSetResult(const std::string& function, int result) {
  std::lock_guard<std::mutex> lock(gMutex);
  gResults[function] = result;
}
