#include "utils/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "support/clock.h"
#include "support/sync.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using zeltest::MsSince;
using zeltest::WaitUntil;

TEST(Timer, OneShotFiresOnceAfterItsIntervalWithItsIdAndUserPointer) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  std::atomic<long long> firedAfter{-1};
  std::atomic<unsigned long long> seenId{0};
  std::atomic<void*> seenUser{nullptr};
  int user = 0;
  const auto start = Clock::now();
  const auto id = timer.Start(
      250,
      [&](unsigned long long i, void* u) {
        if (++calls == 1) firedAfter = MsSince(start);
        seenId = i;
        seenUser = u;
      },
      false, &user);
  ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(1, calls.load());
  EXPECT_GE(firedAfter.load(), 250);
  EXPECT_LT(firedAfter.load(), 250 + 1000);  // about 100 ms late at most; generous here
  EXPECT_EQ(id, seenId.load());
  EXPECT_EQ(&user, seenUser.load());
}

TEST(Timer, IdsStartAtOneAndGrowByOnePerTimerObject) {
  zel::Timer first;
  auto noop = [](unsigned long long, void*) {};
  EXPECT_EQ(1u, first.Start(60000, noop, false, nullptr));
  EXPECT_EQ(2u, first.Start(60000, noop, false, nullptr));
  EXPECT_EQ(3u, first.Start(60000, noop, true, nullptr));
  zel::Timer second;
  EXPECT_EQ(1u, second.Start(60000, noop, false, nullptr));
}

TEST(Timer, TimersWithEqualDueTimesFireInStartOrder) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    zel::Timer timer;
    std::mutex mutex;
    std::vector<unsigned long long> fired;
    auto record = [&](unsigned long long id, void*) {
      std::lock_guard<std::mutex> lock(mutex);
      fired.push_back(id);
    };
    // Started in the same millisecond, so their due times are equal; a later
    // timer with a shorter interval proves the list is ordered by due time.
    const long long before = zel::TimerNowMs();
    const auto a = timer.Start(300, record, false, nullptr);
    const auto b = timer.Start(300, record, false, nullptr);
    const auto c = timer.Start(300, record, false, nullptr);
    if (zel::TimerNowMs() != before) continue;
    const auto early = timer.Start(150, record, false, nullptr);
    ASSERT_TRUE(WaitUntil([&] {
      std::lock_guard<std::mutex> lock(mutex);
      return fired.size() == 4;
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ((std::vector<unsigned long long>{early, a, b, c}), fired);
    return;
  }
  FAIL() << "could not start three timers within one millisecond";
}

TEST(Timer, RepeatingZeroIntervalFiresAboutOncePerScan) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  timer.Start(
      0, [&](unsigned long long, void*) { ++calls; }, true, nullptr);
  std::this_thread::sleep_for(1000ms);
  const int seen = calls.load();
  // One scan every ~100 ms: about 10 calls, a few more when a scan crosses a
  // millisecond boundary, fewer on a loaded machine.
  EXPECT_GE(seen, 3);
  EXPECT_LE(seen, 30);
}

TEST(Timer, RepeatingTimerIsReArmedFromTheScanThatFiredIt) {
  zel::Timer timer;
  std::mutex mutex;
  std::vector<long long> at;
  timer.Start(
      100,
      [&](unsigned long long, void*) {
        bool first;
        {
          std::lock_guard<std::mutex> lock(mutex);
          at.push_back(zel::TimerNowMs());
          first = at.size() == 1;
        }
        // A slow first call makes the timer miss periods; re-arming from the
        // previous due time would then fire it twice in one scan to catch up.
        if (first) std::this_thread::sleep_for(250ms);
      },
      true, nullptr);
  ASSERT_TRUE(WaitUntil([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return at.size() >= 4;
  }));
  std::lock_guard<std::mutex> lock(mutex);
  // Each call reads the clock a little after the scan that re-armed it did,
  // hence the slack below the 100 ms interval.
  for (size_t i = 1; i < at.size(); ++i) EXPECT_GE(at[i] - at[i - 1], 80) << i;
}

TEST(Timer, StopWithAnIdThatWasNeverReturnedChangesNothing) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  timer.Start(
      100, [&](unsigned long long, void*) { ++calls; }, false, nullptr);
  timer.Stop(42);
  timer.Stop(0);
  ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
  EXPECT_EQ(1, calls.load());
}

TEST(Timer, StoppedTimerIsNeverCalled) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  const auto id = timer.Start(
      500, [&](unsigned long long, void*) { ++calls; }, false, nullptr);
  timer.Stop(id);
  timer.Stop(id);  // already gone: ignored
  std::this_thread::sleep_for(900ms);
  EXPECT_EQ(0, calls.load());
}

TEST(Timer, StopFromItsOwnCallbackEndsARepeatingTimer) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  timer.Start(
      0,
      [&](unsigned long long id, void*) {
        ++calls;
        timer.Stop(id);
      },
      true, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
  // A 0 ms timer may be collected twice by the scan that fires it (when the
  // millisecond count moves on mid-scan), and both collected calls run; what
  // Stop ends is every later scan.
  std::this_thread::sleep_for(300ms);
  const int afterFirstScan = calls.load();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(afterFirstScan, calls.load());
}

TEST(Timer, StopFromItsOwnCallbackLeavesASlowerRepeatingTimerCalledOnce) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  timer.Start(
      50,
      [&](unsigned long long id, void*) {
        ++calls;
        timer.Stop(id);
      },
      true, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(1, calls.load());
}

TEST(Timer, CallbacksRunOnTheTimerThread) {
  zel::Timer timer;
  std::atomic<bool> done{false};
  std::thread::id seen;
  timer.Start(
      0,
      [&](unsigned long long, void*) {
        seen = std::this_thread::get_id();
        done = true;
      },
      false, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return done.load(); }));
  EXPECT_NE(std::this_thread::get_id(), seen);
}

TEST(Timer, DestructionDropsPendingTimersUncalled) {
  std::atomic<int> pendingCalls{0};
  std::atomic<int> repeatingCalls{0};
  {
    zel::Timer timer;
    timer.Start(
        60000, [&](unsigned long long, void*) { ++pendingCalls; }, false, nullptr);
    timer.Start(
        0, [&](unsigned long long, void*) { ++repeatingCalls; }, true, nullptr);
    std::this_thread::sleep_for(50ms);
  }
  const int atDestruction = repeatingCalls.load();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(0, pendingCalls.load());  // not fired on the way out
  EXPECT_EQ(atDestruction, repeatingCalls.load());
}

TEST(Timer, DestructorWaitsForTheRunningCallback) {
  std::atomic<bool> running{false};
  std::atomic<bool> finished{false};
  {
    zel::Timer timer;
    timer.Start(
        0,
        [&](unsigned long long, void*) {
          running = true;
          std::this_thread::sleep_for(200ms);
          finished = true;
        },
        false, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return running.load(); }));
  }
  EXPECT_TRUE(finished.load());
}

TEST(Timer, StartFromACallbackSchedulesAnotherTimer) {
  zel::Timer timer;
  std::atomic<unsigned long long> startedId{0};
  std::atomic<unsigned long long> firedId{0};
  timer.Start(
      0,
      [&](unsigned long long, void*) {
        startedId = timer.Start(
            0, [&](unsigned long long id, void*) { firedId = id; }, false, nullptr);
      },
      false, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return firedId.load() != 0; }));
  EXPECT_EQ(2u, startedId.load());
  EXPECT_EQ(2u, firedId.load());
}

TEST(Timer, IntervalTooLargeToRepresentMeansNeverButStaysStoppable) {
  // Some milliseconds past the library's load, so that the sums do overflow.
  ASSERT_TRUE(WaitUntil([] { return zel::TimerNowMs() >= 5; }));
  zel::Timer timer;
  std::atomic<int> calls{0};
  auto count = [&](unsigned long long, void*) { ++calls; };
  const auto oneShot = timer.Start(LLONG_MAX, count, false, nullptr);
  const auto repeating = timer.Start(LLONG_MAX - 1, count, true, nullptr);
  // A later, ordinary timer still fires: the "never" ones sort behind it.
  std::atomic<bool> ordinary{false};
  timer.Start(
      50, [&](unsigned long long, void*) { ordinary = true; }, false, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return ordinary.load(); }));
  std::this_thread::sleep_for(400ms);
  EXPECT_EQ(0, calls.load());
  timer.Stop(oneShot);
  timer.Stop(repeating);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(0, calls.load());
}

TEST(Timer, IntervalTooNegativeToRepresentIsDueAtOnce) {
  zel::Timer timer;
  std::atomic<int> calls{0};
  timer.Start(
      LLONG_MIN, [&](unsigned long long, void*) { ++calls; }, false, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(1, calls.load());
}

TEST(TimerDeathTest, EmptyCallbackEndsTheProcessWhenDue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        zel::Timer timer;
        timer.Start(0, std::function<void(unsigned long long, void*)>(), false, nullptr);
        std::this_thread::sleep_for(5s);
      },
      "");
}

TEST(Timer, ClockCountsMillisecondsSinceTheLibraryWasLoaded) {
  const long long first = zel::TimerNowMs();
  EXPECT_GE(first, 0);
  std::this_thread::sleep_for(50ms);
  EXPECT_GE(zel::TimerNowMs() - first, 50);
}

}  // namespace
