#include <atomic>
#include <chrono>
#include <thread>

#include "demo.h"
#include "utils/looper.h"
#include "utils/timer.h"
#include "utils/worker.h"

namespace {
void Greet(void* arg) {
  demo::Say("  task ran on the loop with arg \"%s\"", static_cast<const char*>(arg));
}
}  // namespace

void demo::Loops() {
  Section("Looper, Worker, Timer");
  zel::Looper looper;
  looper.Start();

  zel::Callback<void (*)()> task;
  static char word[] = "hello";
  task.arg = word;
  task.func = reinterpret_cast<void (*)()>(&Greet);
  looper.PostTask(task);

  zel::Worker worker(&looper);
  worker.DoAsync([] { Say("  DoAsync closure ran on the loop thread"); });
  int answer = 0;
  worker.DoSync([&answer] { answer = 42; });
  Say("  DoSync returned after its closure ran: answer=%d", answer);
  Say("  Stop returned %d: the loop thread has ended", looper.Stop());
  const int again = looper.Stop();
  Say("  a second Stop printed the line above and returned %d", again);

  zel::Timer timer;
  std::atomic<int> ticks{0};
  const auto id = timer.Start(
      100, [&ticks](unsigned long long, void*) { ++ticks; }, true, nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(650));
  timer.Stop(id);
  Say("  repeating 100 ms timer %llu fired %d times in 650 ms (the timer thread scans every 100 "
      "ms)",
      id, ticks.load());
}
