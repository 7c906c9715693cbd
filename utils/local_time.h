// Local time for the log's hot paths: the line prefix on every caller thread
// and the writer's date check. Internal; not installed.
#pragma once

#include <cstdint>
#include <ctime>

namespace zel {
namespace logdetail {

// One second's local time and the conversion that produced it.
struct LocalSecond {
  struct tm local;
  // Unique across threads and conversions: a cache keyed on it is stale
  // exactly when `local` was converted anew.
  uint64_t conversion;
};

// The local time of `seconds` (localtime_r), converted at most once per
// second and time zone on each thread. tzset() rewrites timezone, daylight
// and tzname when the rules change (a laptop that travels), so comparing them
// notices a move at once without localtime_r's lock on every call.
// Any thread; the reference stays valid on the calling thread only, until its
// next call.
const LocalSecond& LocalTimeAt(time_t seconds);

}  // namespace logdetail
}  // namespace zel
