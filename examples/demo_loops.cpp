#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "demo.h"
#include "utils/looper.h"
#include "utils/timer.h"
#include "utils/worker.h"

namespace {
void Greet(void* arg) {
  std::printf("  task ran on the loop with arg \"%s\"\n", static_cast<const char*>(arg));
}
}  // namespace

void demo::Loops() {
  std::printf("-- Looper, Worker, Timer --\n");
  zel::Looper looper;
  looper.Start();

  zel::Callback<void (*)()> task;
  static char word[] = "hello";
  task.arg = word;
  task.func = reinterpret_cast<void (*)()>(&Greet);
  looper.PostTask(task);

  zel::Worker worker(&looper);
  worker.DoAsync([] { std::printf("  DoAsync closure ran on the loop thread\n"); });
  int answer = 0;
  worker.DoSync([&answer] { answer = 42; });
  std::printf("  DoSync returned after its closure ran: answer=%d\n", answer);
  looper.Stop();
  std::printf("  a second Stop prints and returns %d\n", looper.Stop());

  zel::Timer timer;
  std::atomic<int> ticks{0};
  const auto id = timer.Start(
      100, [&ticks](unsigned long long, void*) { ++ticks; }, true, nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(650));
  timer.Stop(id);
  std::printf("  repeating 100 ms timer %llu fired %d times in 650 ms\n", id, ticks.load());
}
