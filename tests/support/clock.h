// Test helpers for time: what the monotonic clock says has passed, and the
// wall clock as the library's due times count it. Standard library only.
#pragma once

#include <chrono>

namespace zeltest {

// Whole milliseconds on the monotonic clock since `start`.
inline long long MsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

// Seconds, with their fraction, on the monotonic clock since `start`.
inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The wall clock (system_clock) in milliseconds since the epoch.
inline long long WallMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace zeltest
