/// @file
/// The layout of Timer and TimerMsg is ABI: clients allocate these objects, so their size and the
/// places of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// Timer: a self-contained timer service. Each Timer owns one thread that
/// every 100 ms fires the timers whose due time has passed, calling
/// callback(id, user_data) on that thread, outside the lock.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "utils/export.h"
#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

/// Milliseconds on the monotonic clock since the library was loaded; every
/// timer due time is counted on this scale. Any thread.
/// @return The milliseconds elapsed.
ZEL_API long long TimerNowMs();

/// One scheduled timer. Inside a Timer, records are guarded by the Timer's
/// mutex until the timer thread takes the due ones out to fire them.
struct TimerMsg {
  /// Every field zero, null or false; the default callback does nothing.
  TimerMsg() : callback([](unsigned long long, void*) {}) {}

  long long due = 0;          ///< ms since the library's load (TimerNowMs)
  long long interval = 0;     ///< ms, as given to Start
  unsigned long long id = 0;  ///< The id Start returned for this timer.
  /// Called as callback(id, user_data) on the timer thread.
  std::function<void(unsigned long long, void*)> callback;
  bool repeat = false;        ///< Re-armed after each firing when true.
  void* user_data = nullptr;  ///< Handed to the callback; not owned.
};

/// The timer service: one thread, and the timers started on it. Start and
/// Stop may be called from any thread, callbacks included.
class Timer {
 public:
  /// Starts the timer thread (std::system_error if it cannot be created).
  ZEL_API Timer();
  /// Waits for the thread's current sleep and callbacks; pending timers are
  /// dropped uncalled.
  ZEL_API ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  /// Schedules `callback` after interval_ms, then every interval_ms when
  /// `repeat` (re-armed from the scan that fired it). A due time too large to
  /// represent means "never": the timer stays scheduled (and stoppable) but
  /// does not fire. Any thread, callbacks too.
  /// @param interval_ms Delay, and the period of a repeating timer, in ms. A
  ///   repeating interval must not be negative.
  /// @param callback Called as callback(id, user_data) on the timer thread;
  ///   copied.
  /// @param repeat Whether the timer fires again after each interval.
  /// @param user_data Handed to `callback`; not owned.
  /// @return The timer's id: 1, 2, 3... per Timer object.
  ZEL_API unsigned long long Start(long long interval_ms,
                                   const std::function<void(unsigned long long, void*)>& callback,
                                   bool repeat, void* user_data) ZEL_EXCLUDES(mutex);
  /// Cancels the timer `id`; unknown ids are ignored. May be called from a callback.
  /// @param id An id returned by Start.
  ZEL_API void Stop(unsigned long long id) ZEL_EXCLUDES(mutex);

 private:
  void Run() ZEL_EXCLUDES(mutex);
  void InsertSortedLocked(TimerMsg record) ZEL_REQUIRES(mutex);
  std::list<TimerMsg> CollectDueLocked() ZEL_REQUIRES(mutex);

  // The timer thread. Set by the constructor, joined by the destructor.
  std::unique_ptr<std::thread> thread;
  // By due time; equal times in starting order (a multimap inserts after
  // its equal keys).
  std::multimap<long long, TimerMsg> timers ZEL_GUARDED_BY(mutex);
  // Guards timers and next_id.
  Mutex mutex;
  // Immutable: the steady-clock time of construction.
  std::chrono::steady_clock::time_point created;
  // Id of the next Start.
  unsigned long long next_id ZEL_GUARDED_BY(mutex) = 1;
  // Set once by the destructor, polled between scans. Atomic: read unlocked.
  std::atomic<bool> quit{false};
};

}  // namespace zel
