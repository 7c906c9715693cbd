#include "utils/clock.h"

#include <atomic>
#include <chrono>
#include <climits>

namespace zel {
namespace timing {

namespace {

// Taken when the library is loaded.
const std::chrono::steady_clock::time_point gLoaded = std::chrono::steady_clock::now();

// Which local time zone is in force, as tzset() last set it.
struct ZoneStamp {
  long offset;
  int daylight;
  const char* standardName;
  const char* summerName;
  bool operator==(const ZoneStamp& other) const {
    return offset == other.offset && daylight == other.daylight &&
           standardName == other.standardName && summerName == other.summerName;
  }
};

ZoneStamp CurrentZone() { return {timezone, daylight, tzname[0], tzname[1]}; }

std::atomic<uint64_t> gConversions{0};

struct LocalCache {
  time_t second = -1;
  ZoneStamp zone{};
  LocalSecond value{};
};
thread_local LocalCache tLocal;

}  // namespace

long long WallClockMicros() {
  using namespace std::chrono;
  return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

long long WallClockMs() { return WallClockMicros() / 1000; }

long long DueAfterWrapping(long long now, long long delay) {
  // Unsigned arithmetic: an overflowing sum wraps instead of being undefined.
  return static_cast<long long>(static_cast<unsigned long long>(now) +
                                static_cast<unsigned long long>(delay));
}

long long DueAfterSaturating(long long now, long long interval) {
  // Now is never negative, so only a positive interval can overflow.
  long long due;
  if (__builtin_add_overflow(now, interval, &due)) due = LLONG_MAX;
  return due;
}

long long SteadyMsSinceLoad() {
  using namespace std::chrono;
  return duration_cast<nanoseconds>(steady_clock::now() - gLoaded).count() / 1000000;
}

const LocalSecond& LocalTimeAt(time_t seconds) {
  LocalCache& cache = tLocal;
  if (seconds != cache.second || !(CurrentZone() == cache.zone)) {
    cache.value.local = {};
    localtime_r(&seconds, &cache.value.local);
    cache.value.conversion = ++gConversions;
    cache.second = seconds;
    // As of this conversion: the first one in the process sets the zone up.
    cache.zone = CurrentZone();
  }
  return cache.value;
}

struct tm LocalNow() {
  return LocalTimeAt(time(nullptr)).local;
}

}  // namespace timing
}  // namespace zel
