// Stand-in for the client's closed tracing library. Each call is recorded,
// with all its arguments in order, so that tests and the demo can read back
// what reached the tracing library, and returns 0 unless a test set another
// result.
#pragma once

#include <string>
#include <vector>

class Tracer {
 public:
  static int post(const std::string& content, const std::string& module);
  static int traceRaw(const std::string& content, const std::string& module,
                      const std::string& traceId, const std::string& spanId,
                      const std::string& event, const std::string& parentSpan);
};

// One recorded call: `function` is "post" or "traceRaw", `args` its arguments in order.
struct TracerCall {
  std::string function;
  std::vector<std::string> args;
};

// Test access to the stand-in (thread-safe).
std::vector<TracerCall> TracerRecordedCalls();
void TracerClearRecordedCalls();
// Test hook: the next `count` calls of `function` ("post" or "traceRaw")
// throw instead of recording (std::runtime_error, or a plain int when
// `nonStandard` is set); 0 ends it.
void TracerThrowFromNextCalls(const std::string& function, int count, bool nonStandard = false);
// Test hook: what `function` ("post" or "traceRaw") returns from now on;
// 0 until set.
void TracerSetResult(const std::string& function, int result);
