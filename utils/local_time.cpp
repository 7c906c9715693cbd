#include "utils/local_time.h"

#include <atomic>

namespace zel {
namespace logdetail {

namespace {

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

struct Cache {
  time_t second = -1;
  ZoneStamp zone{};
  LocalSecond value{};
};
thread_local Cache tCache;

}  // namespace

const LocalSecond& LocalTimeAt(time_t seconds) {
  Cache& cache = tCache;
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

}  // namespace logdetail
}  // namespace zel
