// Timer: a self-contained timer service. Each Timer owns one thread that
// every 100 ms fires the timers whose due time has passed, calling
// callback(id, user_data) on that thread, outside the lock.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "utils/export.h"

namespace zel {

// Milliseconds on the monotonic clock since the library was loaded; every
// timer due time is counted on this scale.
ZEL_API long long TimerNowMs();

// One scheduled timer. The default callback does nothing.
struct TimerMsg {
  TimerMsg() : callback([](unsigned long long, void*) {}) {}

  long long due = 0;       // ms since the library's load (TimerNowMs)
  long long interval = 0;  // ms, as given to Start
  unsigned long long id = 0;
  std::function<void(unsigned long long, void*)> callback;
  bool repeat = false;
  void* user_data = nullptr;
};

class Timer {
 public:
  // Starts the timer thread (std::system_error if it cannot be created).
  ZEL_API Timer();
  // Waits for the thread's current sleep and callbacks; pending timers are
  // dropped uncalled.
  ZEL_API ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Schedules `callback` after interval_ms, then every interval_ms when
  // `repeat` (re-armed from the scan that fired it). Returns the timer's id:
  // 1, 2, 3... per Timer object. A repeating interval must not be negative.
  // A due time too large to represent means "never": the timer stays
  // scheduled (and stoppable) but does not fire. Any thread, callbacks too.
  ZEL_API unsigned long long Start(long long interval_ms,
                           const std::function<void(unsigned long long, void*)>& callback,
                           bool repeat, void* user_data);
  // Cancels the timer `id`; unknown ids are ignored. May be called from a callback.
  ZEL_API void Stop(unsigned long long id);

 private:
  void Run();
  void InsertSorted(TimerMsg record);
  std::list<TimerMsg> CollectDue();

  std::unique_ptr<std::thread> thread;
  // By due time; equal times in starting order (a multimap inserts after
  // its equal keys). Guarded by mutex.
  std::multimap<long long, TimerMsg> timers;
  std::mutex mutex;
  std::chrono::steady_clock::time_point created;
  unsigned long long next_id = 1;
  // Plain flag on purpose: written once by the destructor, polled between scans.
  bool quit = false;
};

}  // namespace zel
