// Timer with a thousand timers started and stopped from several threads and
// from callbacks: the ones left alone fire exactly once, stopped ones never.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "utils/timer.h"

namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 4;
constexpr int kPerThread = 250;

// Long timers waiting to be stopped, by whoever comes first.
class Parked {
 public:
  void Add(unsigned long long id) {
    std::lock_guard<std::mutex> lock(mutex_);
    ids_.push_back(id);
  }
  // Stops one parked timer, if any is left.
  void StopOne(zel::Timer& timer) {
    unsigned long long id = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (ids_.empty()) return;
      id = ids_.back();
      ids_.pop_back();
    }
    timer.Stop(id);
  }
  void StopAll(zel::Timer& timer) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto id : ids_) timer.Stop(id);
    ids_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<unsigned long long> ids_;
};

TEST(TimerStress, ThousandTimersFromThreadsAndCallbacksFireExactlyAsLeft) {
  zel::Timer timer;
  // Calls per id: ids are 1, 2, 3..., three per round at most.
  std::vector<std::atomic<int>> calls(4 * kThreads * kPerThread);
  std::atomic<int> followUps{0};
  Parked parked;
  auto count = [&](unsigned long long id, void*) { ++calls[id]; };
  // Fires once: starts a 0 ms follow-up and stops a parked timer.
  auto chain = [&](unsigned long long id, void*) {
    ++calls[id];
    timer.Start(
        0,
        [&](unsigned long long followUp, void*) {
          ++calls[followUp];
          ++followUps;
        },
        false, nullptr);
    parked.StopOne(timer);
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPerThread; ++i) {
        // Never due within the test; half stopped at once, the rest later.
        const auto longId = timer.Start(600000, count, i % 4 < 2, nullptr);
        if (i % 2 == 0) {
          timer.Stop(longId);
        } else {
          parked.Add(longId);
        }
        timer.Start((i % 20) * 10, chain, false, nullptr);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const int rounds = kThreads * kPerThread;
  zeltest::WaitUntil([&] { return followUps >= rounds; }, 60s, 10ms);
  parked.StopAll(timer);
  std::this_thread::sleep_for(300ms);  // anything wrongly due fires by now

  int fired = 0;
  for (size_t id = 0; id < calls.size(); ++id) {
    ASSERT_LE(calls[id].load(), 1) << "timer " << id;
    fired += calls[id].load();
  }
  EXPECT_EQ(rounds, followUps.load());
  EXPECT_EQ(2 * rounds, fired);  // every chained one-shot and its follow-up, no parked timer
}

}  // namespace
