#include "utils/worker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/clock.h"

namespace {

// DoSync's completion flag is deliberately unsynchronised, so results handed
// from a closure back to the test go through atomics or a mutex.
using Clock = std::chrono::steady_clock;

TEST(Worker, DoSyncReturnsOnlyAfterItsClosureRanBehindEarlierMessages) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  zel::Worker worker(&looper);
  std::mutex mutex;
  std::vector<int> order;
  auto note = [&](int n) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(n);
  };
  worker.DoAsync([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    note(1);
  });
  worker.DoAsync([&] { note(2); });
  worker.DoSync([&] { note(3); });
  // DoSync returned: everything queued before it has run, in order.
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((std::vector<int>{1, 2, 3}), order);
  looper.Stop();
}

TEST(Worker, DoSyncReturnsWithinAboutTenMillisecondsOfItsClosure) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  zel::Worker worker(&looper);
  std::vector<long long> lagsMs;
  for (int i = 0; i < 9; ++i) {
    std::atomic<Clock::rep> ranAt{0};
    worker.DoSync([&] { ranAt = Clock::now().time_since_epoch().count(); });
    lagsMs.push_back(zeltest::MsSince(Clock::time_point(Clock::duration(ranAt.load()))));
  }
  // The median, so that one late wake-up on a loaded machine does not count;
  // polling once a second instead of every 10 ms would put it near 1000.
  std::sort(lagsMs.begin(), lagsMs.end());
  EXPECT_LT(lagsMs[lagsMs.size() / 2], 150);
  looper.Stop();
}

TEST(Worker, ClosuresRunOnTheLoopThreadNotTheCallers) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  zel::Worker worker(&looper);
  std::atomic<std::thread::id> syncThread, asyncThread;
  worker.DoAsync([&] { asyncThread = std::this_thread::get_id(); });
  worker.DoSync([&] { syncThread = std::this_thread::get_id(); });
  EXPECT_NE(std::this_thread::get_id(), syncThread.load());
  EXPECT_EQ(syncThread.load(), asyncThread.load());
  looper.Stop();
}

TEST(Worker, DoAsyncOnAStoppedLooperReturnsAndTheClosureNeverRuns) {
  zel::Looper looper;
  zel::Worker worker(&looper);
  std::atomic<bool> ran{false};
  worker.DoAsync([&] { ran = true; });
  ASSERT_EQ(0, looper.Start());
  worker.DoSync([] {});
  looper.Stop();
  EXPECT_FALSE(ran.load());
}

TEST(Worker, RefusedDoAsyncFreesItsCopyOfTheClosure) {
  zel::Looper looper;  // never started: every post is refused
  zel::Worker worker(&looper);
  auto captured = std::make_shared<int>(0);
  worker.DoAsync([captured] { ++*captured; });
  EXPECT_EQ(1, captured.use_count());  // the refused message took its copy with it
  EXPECT_EQ(0, *captured);
}

TEST(Worker, DoSyncOnAStoppedLooperNeverReturns) {
  // Never destroyed: the blocked caller keeps polling it for the rest of the process.
  static zel::Looper* looper = new zel::Looper();
  static zel::Worker* worker = new zel::Worker(looper);
  static std::atomic<bool> returned{false};
  std::thread caller([] {
    worker->DoSync([] {});
    returned = true;
  });
  caller.detach();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_FALSE(returned.load());
}

TEST(Worker, FirstMemberIsTheLooperItWasGiven) {
  zel::Looper looper;
  zel::Worker worker(&looper);
  EXPECT_EQ(&looper, worker.looper);
  EXPECT_EQ(static_cast<void*>(&worker), static_cast<void*>(&worker.looper));
}

TEST(WorkerMessage, EmptyClosureThrowsBadFunctionCallWhenRun) {
  zel::WorkerMessage msg{std::function<void()>()};
  EXPECT_EQ(-1, msg.when);
  EXPECT_THROW(msg.Run(), std::bad_function_call);
}

}  // namespace
