// Every clock the library reads, and the rules its due times follow.
// Internal; not installed.
//
// - Loops and the bus: due times are wall-clock milliseconds since the epoch
//   (changing the system time moves them, on purpose); a negative due time
//   means "at once"; now + delay wraps on overflow (the result is then past
//   or negative: due at once).
// - Timer: milliseconds on the monotonic clock since the library was
//   loaded; now + interval saturates (a due time too large is never due).
// - Local time, for the log's line prefix, its date check and its file
//   names: converted at most once a second on each thread.
#pragma once

#include <cstdint>
#include <ctime>

namespace zel {
namespace timing {

// System clock, truncated toward zero. Any thread.
long long WallClockMicros();
long long WallClockMs();

// Whether a message due at `when` is due at `now` (both wall-clock ms).
inline bool IsDue(long long when, long long now) { return when < 0 || when <= now; }
// now + delay for the loops and the bus, wrapping instead of overflowing.
long long DueAfterWrapping(long long now, long long delay);
// now + interval for the Timer, held at LLONG_MAX instead of overflowing.
long long DueAfterSaturating(long long now, long long interval);

// Monotonic milliseconds since the library was loaded (a static
// initialiser takes the base reading). Any thread.
long long SteadyMsSinceLoad();

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
// notices a move at once without localtime_r's lock on every call. Any
// thread; the reference stays valid on the calling thread only, until its
// next call.
const LocalSecond& LocalTimeAt(time_t seconds);
// The local time now, through the same cache. Any thread.
struct tm LocalNow();

}  // namespace timing
}  // namespace zel
