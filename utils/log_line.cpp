#include "utils/log_line.h"

#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "utils/clock.h"
#include "utils/log_format.h"

namespace zel {
namespace logdetail {

namespace {

// The parts of the prefix that change at most once a second (or when the
// zone moves), per thread: "[M-D hh:mm:ss." and "][tid:N] ". The
// milliseconds go in between.
struct PrefixCache {
  uint64_t conversion = 0;  // of the local time `head` was made from
  char head[kPrefixSize] = {};
  size_t headLen = 0;
  char tail[kPrefixSize] = {};
  size_t tailLen = 0;
};
thread_local PrefixCache tPrefix;

}  // namespace

size_t FormatPrefix(char* out, long long micros, time_t seconds) {
  PrefixCache& cache = tPrefix;
  if (cache.tailLen == 0) {
    // A C-style cast: pthread_t is an integer on Linux and a pointer on macOS.
    const std::string tid = std::to_string((unsigned long long)pthread_self());
    cache.tailLen = static_cast<size_t>(
        snprintf(cache.tail, sizeof(cache.tail), logformat::kPrefixTailFormat, tid.c_str()));
  }
  const timing::LocalSecond& now = timing::LocalTimeAt(seconds);
  if (now.conversion != cache.conversion) {
    const struct tm& local = now.local;
    cache.headLen = static_cast<size_t>(
        snprintf(cache.head, sizeof(cache.head), logformat::kPrefixHeadFormat, local.tm_mon + 1,
                 local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec));
    cache.conversion = now.conversion;
  }
  const long millis = static_cast<long>((micros / 1000) % 1000);
  size_t len = cache.headLen;
  memcpy(out, cache.head, len);
  out[len++] = static_cast<char>('0' + millis / 100);
  out[len++] = static_cast<char>('0' + millis / 10 % 10);
  out[len++] = static_cast<char>('0' + millis % 10);
  memcpy(out + len, cache.tail, cache.tailLen + 1);
  return len + cache.tailLen;
}

std::string LineNow(const std::string& text) {
  char prefix[kPrefixSize];
  const long long micros = timing::WallClockMicros();
  const size_t length = FormatPrefix(prefix, micros, time(nullptr));
  return std::string(prefix, length) + text;
}

}  // namespace logdetail
}  // namespace zel
