#include "utils/worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

TEST(Worker, DoSyncReturnsOnlyAfterItsClosureRanBehindEarlierMessages) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  zel::Worker worker(&looper);
  std::vector<int> order;
  worker.DoAsync([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    order.push_back(1);
  });
  worker.DoAsync([&] { order.push_back(2); });
  worker.DoSync([&] { order.push_back(3); });
  // DoSync returned: everything queued before it has run, in order.
  EXPECT_EQ((std::vector<int>{1, 2, 3}), order);
  looper.Stop();
}

TEST(Worker, DoSyncReturnsWithinAboutTenMillisecondsOfItsClosure) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  zel::Worker worker(&looper);
  Clock::time_point ranAt;
  worker.DoSync([&] { ranAt = Clock::now(); });
  const auto returnedAt = Clock::now();
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(returnedAt - ranAt).count(), 500);
  looper.Stop();
}

TEST(Worker, ClosuresRunOnTheLoopThreadNotTheCallers) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  zel::Worker worker(&looper);
  std::thread::id syncThread, asyncThread;
  worker.DoAsync([&] { asyncThread = std::this_thread::get_id(); });
  worker.DoSync([&] { syncThread = std::this_thread::get_id(); });
  EXPECT_NE(std::this_thread::get_id(), syncThread);
  EXPECT_EQ(syncThread, asyncThread);
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
