#include "utils/timer.h"

#include "utils/clock.h"

namespace zel {

namespace {

// now + interval, held at LLONG_MAX: a due time too large to represent is
// never before now.
long long DueAfter(long long interval) {
  return timing::DueAfterSaturating(TimerNowMs(), interval);
}

}  // namespace

long long TimerNowMs() { return timing::SteadyMsSinceLoad(); }

Timer::Timer() : created(std::chrono::steady_clock::now()) {
  thread = std::make_unique<std::thread>(&Timer::Run, this);
}

Timer::~Timer() {
  quit = true;
  thread->join();
  MutexLock lock(mutex);
}

unsigned long long Timer::Start(long long interval_ms,
                                const std::function<void(unsigned long long, void*)>& callback,
                                bool repeat, void* user_data) {
  TimerMsg record;
  record.interval = interval_ms;
  record.due = DueAfter(interval_ms);
  record.callback = callback;
  record.repeat = repeat;
  record.user_data = user_data;

  MutexLock lock(mutex);
  record.id = next_id++;
  const unsigned long long id = record.id;
  InsertSortedLocked(std::move(record));
  return id;
}

void Timer::Stop(unsigned long long id) {
  MutexLock lock(mutex);
  for (auto it = timers.begin(); it != timers.end(); ++it) {
    if (it->second.id == id) {
      timers.erase(it);
      return;
    }
  }
}

// Logarithmic and stable: the place a full stable sort would give it.
void Timer::InsertSortedLocked(TimerMsg record) {
  const long long due = record.due;
  timers.emplace(due, std::move(record));
}

// Takes every timer due strictly before now; a repeating one goes back in,
// re-armed from now.
std::list<TimerMsg> Timer::CollectDueLocked() {
  std::list<TimerMsg> fired;
  while (!timers.empty() && timers.begin()->second.due < TimerNowMs()) {
    fired.push_back(std::move(timers.begin()->second));
    timers.erase(timers.begin());
    if (fired.back().repeat) {
      TimerMsg again = fired.back();
      again.due = DueAfter(again.interval);
      InsertSortedLocked(std::move(again));
    }
  }
  return fired;
}

void Timer::Run() {
  while (!quit) {
    std::list<TimerMsg> fired;
    {
      MutexLock lock(mutex);
      fired = CollectDueLocked();
    }
    while (!fired.empty()) {
      fired.front().callback(fired.front().id, fired.front().user_data);
      fired.pop_front();
    }
    std::this_thread::sleep_for(std::chrono::nanoseconds(100000000));
  }
}

}  // namespace zel
