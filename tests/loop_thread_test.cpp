// The thread behind a Looper or a MsgBus, on its own: Start and Stop from
// any thread, the thread's identity, stops from the thread itself, restarts
// while the old thread is still busy, and an owner destroyed by its thread.
#include "utils/loop_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/sync.h"
#include "utils/looper.h"

namespace zel {
class Mutex;
}  // namespace zel

namespace {

using namespace std::chrono_literals;
using StopResult = zel::LoopThread::StopResult;
using Events = std::vector<std::string>;

// The owner's lock as LoopThread takes it: a std::mutex, or the library's
// annotated wrapper of one (zel::Mutex) where LoopThread asks for that.
using OwnerMutex = std::conditional_t<
    std::is_constructible_v<zel::LoopThread, std::mutex&, std::condition_variable&>, std::mutex,
    zel::Mutex>;
// The std::mutex inside the owner's lock, for the wake-up's waits.
template <typename Lock>
std::mutex& Native(Lock& mutex) {
  if constexpr (std::is_same_v<Lock, std::mutex>) {
    return mutex;
  } else {
    return mutex.native();
  }
}

// What an owner holds: its lock, the wake-up its loop body waits on, and the
// loop thread.
struct Owner {
  OwnerMutex mutex;
  std::condition_variable wake;
  zel::LoopThread loop{mutex, wake};
};

// A tiny owner whose bodies say when they enter and leave, and wait on the
// owner's wake-up in between for as long as the loop should run.
class LoopThreadTest : public ::testing::Test {
 protected:
  // Nothing may outlive the test: the current thread is joined, any let-go
  // thread waited for.
  void TearDown() override {
    if (!loop.Stopped()) loop.Stop();
    loop.WaitForDetachedThread();
  }
  // For a body: waits on the wake-up until the loop should no longer run.
  void WaitWhileItShouldRun() {
    std::unique_lock<std::mutex> lock(Native(owner.mutex));
    while (loop.ShouldRun()) owner.wake.wait_for(lock, 100ms);
  }
  // A body named `name`: "<name> in", waiting while it should run, "<name> out".
  std::function<void()> Body(const std::string& name) {
    return [this, name] {
      events.Add(name + " in");
      WaitWhileItShouldRun();
      events.Add(name + " out");
    };
  }
  // Starts a body that stops the loop from its own thread (which is then
  // let go) and goes on with `then`.
  void StartSelfStopping(std::function<void()> then) {
    ASSERT_EQ(0, loop.Start([this, then] {
      loop.Stop();
      then();
    }));
  }
  // The first `count` events, once there are that many.
  Events FirstEvents(size_t count) {
    EXPECT_TRUE(events.WaitForCount(count));
    Events all = events.All();
    if (all.size() > count) all.resize(count);
    return all;
  }

  Owner owner;
  zel::LoopThread& loop = owner.loop;
  zeltest::Collected<std::string> events;
};

// ---- Start and Stop ----

TEST_F(LoopThreadTest, StartRunsTheBodyOnANewThreadAndReturnsZero) {
  std::atomic<std::thread::id> bodyThread{};
  zeltest::Gate ran;
  EXPECT_TRUE(loop.Stopped());
  ASSERT_EQ(0, loop.Start([&] {
    bodyThread = std::this_thread::get_id();
    ran.Open();
    WaitWhileItShouldRun();
  }));
  EXPECT_FALSE(loop.Stopped());
  ASSERT_TRUE(ran.WaitFor(10s));
  EXPECT_NE(std::this_thread::get_id(), bodyThread.load());
}

TEST_F(LoopThreadTest, AStartWhileRunningReturnsMinusOneAndRunsNoSecondBody) {
  ASSERT_EQ(0, loop.Start(Body("first")));
  EXPECT_EQ(-1, loop.Start(Body("second")));
  EXPECT_EQ(StopResult::kJoined, loop.Stop());
  EXPECT_EQ((Events{"first in", "first out"}), events.All());
}

TEST_F(LoopThreadTest, AStopFromAnotherThreadWakesTheBodyAndJoinsIt) {
  ASSERT_EQ(0, loop.Start(Body("body")));
  ASSERT_TRUE(events.WaitForCount(1));
  EXPECT_EQ(StopResult::kJoined, loop.Stop());
  // Joined: the body has left by the time Stop returns.
  EXPECT_EQ((Events{"body in", "body out"}), events.All());
  EXPECT_TRUE(loop.Stopped());
}

TEST_F(LoopThreadTest, AStopWakesABodyThatWaitsWithoutALimit) {
  ASSERT_EQ(0, loop.Start([this] {
    events.Add("in");
    std::unique_lock<std::mutex> lock(Native(owner.mutex));
    owner.wake.wait(lock, [this] { return !loop.ShouldRun(); });
  }));
  ASSERT_TRUE(events.WaitForCount(1));
  zeltest::Gate stopped;
  std::thread stopper([&] {
    loop.Stop();
    stopped.Open();
  });
  const bool woken = stopped.WaitFor(10s);
  if (!woken) {  // wake it here, so that the test ends
    std::lock_guard<std::mutex> lock(Native(owner.mutex));
    owner.wake.notify_all();
  }
  stopper.join();
  EXPECT_TRUE(woken);
}

TEST_F(LoopThreadTest, AStopWhenStoppedPrintsAlreadyStopedAndSaysSo) {
  testing::internal::CaptureStdout();
  const StopResult never = loop.Stop();
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(StopResult::kAlreadyStopped, never);

  ASSERT_EQ(0, loop.Start(Body("body")));
  ASSERT_EQ(StopResult::kJoined, loop.Stop());
  testing::internal::CaptureStdout();
  const StopResult again = loop.Stop();
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(StopResult::kAlreadyStopped, again);
}

TEST_F(LoopThreadTest, AJoinedLoopStartsAgainAndRunsItsBodyAgain) {
  ASSERT_EQ(0, loop.Start(Body("first")));
  ASSERT_EQ(StopResult::kJoined, loop.Stop());
  ASSERT_EQ(0, loop.Start(Body("second")));
  EXPECT_FALSE(loop.Stopped());
  ASSERT_EQ(StopResult::kJoined, loop.Stop());
  EXPECT_EQ((Events{"first in", "first out", "second in", "second out"}), events.All());
}

// ---- the thread's identity ----

TEST_F(LoopThreadTest, TextIsEmptyBeforeTheHandleWhileRunningAndEmptyAgainAfterAJoin) {
  EXPECT_EQ("", loop.Text());
  std::string handle;
  zeltest::Gate named;
  ASSERT_EQ(0, loop.Start([&] {
    handle = zel::ThreadIdString(pthread_self());
    named.Open();
    WaitWhileItShouldRun();
  }));
  ASSERT_TRUE(named.WaitFor(10s));
  EXPECT_EQ(handle, loop.Text());
  EXPECT_EQ(0u, handle.rfind("0x", 0)) << handle;
  std::string joined;
  ASSERT_EQ(StopResult::kJoined, loop.Stop(&joined));
  EXPECT_EQ(handle, joined);
  EXPECT_EQ("", loop.Text());
}

TEST_F(LoopThreadTest, IsCurrentAndShouldRunHoldOnlyOnTheLoopThreadWhileItRuns) {
  std::atomic<bool> currentInside{false}, runInside{false};
  std::atomic<bool> currentAfterStop{false}, runAfterStop{true};
  zeltest::Gate inside;
  ASSERT_EQ(0, loop.Start([&] {
    currentInside = loop.IsCurrent();
    runInside = loop.ShouldRun();
    inside.Open();
    WaitWhileItShouldRun();
    currentAfterStop = loop.IsCurrent();
    runAfterStop = loop.ShouldRun();
  }));
  ASSERT_TRUE(inside.WaitFor(10s));
  EXPECT_FALSE(loop.IsCurrent());
  EXPECT_FALSE(loop.ShouldRun());
  ASSERT_EQ(StopResult::kJoined, loop.Stop());
  EXPECT_TRUE(currentInside.load());
  EXPECT_TRUE(runInside.load());
  // Stopped: still the loop thread until joined, but it should run no more.
  EXPECT_TRUE(currentAfterStop.load());
  EXPECT_FALSE(runAfterStop.load());
  EXPECT_FALSE(loop.IsCurrent());
}

// ---- a stop from the loop thread itself ----

TEST_F(LoopThreadTest, AStopFromTheLoopThreadLetsItGoAndKeepsItsText) {
  std::atomic<StopResult> result{StopResult::kAlreadyStopped};
  std::atomic<bool> runAfter{true};
  std::string handle;
  zeltest::Gate stopped;
  ASSERT_EQ(0, loop.Start([&] {
    handle = zel::ThreadIdString(pthread_self());
    result = loop.Stop();
    runAfter = loop.ShouldRun();
    stopped.Open();
  }));
  ASSERT_TRUE(stopped.WaitFor(10s));
  EXPECT_EQ(StopResult::kLetGo, result.load());
  EXPECT_FALSE(runAfter.load());
  EXPECT_TRUE(loop.Stopped());
  EXPECT_EQ(handle, loop.Text());
  // Let go, not joinable: a later Stop has nothing to join.
  testing::internal::CaptureStdout();
  EXPECT_EQ(StopResult::kAlreadyStopped, loop.Stop());
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
}

TEST_F(LoopThreadTest, AStartWhileALetGoThreadIsInItsBodyReturnsAndTheNewBodyFollowsTheOld) {
  zeltest::HoldingGate oldHeld;
  StartSelfStopping([&] {
    events.Add("old in");
    oldHeld.Hold();
    events.Add("old out");
  });
  oldHeld.WaitEntered();
  // From another thread, so that a Start waiting for the old body fails
  // the test instead of hanging it.
  std::atomic<int> result{99};
  zeltest::Gate returned;
  std::thread starter([&] {
    result = loop.Start(Body("new"));
    returned.Open();
  });
  const bool returnedWhileHeld = returned.WaitFor(10s);
  std::this_thread::sleep_for(200ms);  // time for a new body that would not wait
  const size_t eventsWhileHeld = events.Size();
  oldHeld.Open();
  starter.join();
  EXPECT_TRUE(returnedWhileHeld);
  EXPECT_EQ(0, result.load());
  EXPECT_EQ(1u, eventsWhileHeld);
  EXPECT_EQ((Events{"old in", "old out", "new in"}), FirstEvents(3));
}

TEST_F(LoopThreadTest, WaitForDetachedThreadWaitsUntilALetGoThreadLeftItsBody) {
  zeltest::HoldingGate held;
  StartSelfStopping(held.Holder());
  held.WaitEntered();
  zeltest::Gate waited;
  std::thread waiter([&] {
    loop.WaitForDetachedThread();
    waited.Open();
  });
  const bool returnedWhileHeld = waited.WaitFor(300ms);
  held.Open();
  EXPECT_TRUE(waited.WaitFor(10s));
  waiter.join();
  EXPECT_FALSE(returnedWhileHeld);
}

TEST_F(LoopThreadTest, WaitForDetachedThreadOnTheLetGoThreadDoesNotWaitForItself) {
  zeltest::Gate returned;
  StartSelfStopping([&] {
    loop.WaitForDetachedThread();
    returned.Open();
  });
  EXPECT_TRUE(returned.WaitFor(10s));
}

// ---- a Start while another thread's Stop joins the loop thread ----

TEST_F(LoopThreadTest, AStartFromTheLoopThreadIsRefusedWhileAnotherThreadsStopJoinsIt) {
  std::atomic<int> restart{99};
  ASSERT_EQ(0, loop.Start([&] {
    WaitWhileItShouldRun();  // until the Stop below, which then joins this thread
    restart = loop.Start(Body("never"));
  }));
  EXPECT_EQ(StopResult::kJoined, loop.Stop());
  EXPECT_EQ(-1, restart.load());
  EXPECT_TRUE(loop.Stopped());
  EXPECT_EQ("", loop.Text());
  EXPECT_EQ(0u, events.Size());
}

TEST_F(LoopThreadTest, AStartForWhichTheLoopWaitsIsRefusedWhileAStopJoinsTheLoop) {
  std::atomic<int> restart{99};
  ASSERT_EQ(0, loop.Start([&] {
    WaitWhileItShouldRun();
    // The loop thread waits for this caller, as a bus waits for a delivery.
    std::thread caller([&] { restart = loop.Start(Body("never"), true); });
    caller.join();
  }));
  EXPECT_EQ(StopResult::kJoined, loop.Stop());
  EXPECT_EQ(-1, restart.load());
  EXPECT_TRUE(loop.Stopped());
  EXPECT_EQ(0u, events.Size());
}

TEST_F(LoopThreadTest, AnyOtherThreadsStartDuringTheJoinReturnsAndItsBodyFollowsTheOld) {
  std::atomic<int> restart{99};
  ASSERT_EQ(0, loop.Start([&] {
    events.Add("old in");
    WaitWhileItShouldRun();
    std::thread caller([&] { restart = loop.Start(Body("new")); });
    caller.join();
    std::this_thread::sleep_for(100ms);  // time for a new body that would not wait
    events.Add("old out");
  }));
  EXPECT_EQ(StopResult::kJoined, loop.Stop());
  EXPECT_EQ(0, restart.load());
  EXPECT_EQ((Events{"old in", "old out", "new in"}), FirstEvents(3));
  // The Stop joined the old thread only: the new one runs on.
  EXPECT_FALSE(loop.Stopped());
  EXPECT_NE("", loop.Text());
}

// ---- an owner destroyed by its own loop thread ----

TEST(LoopThreadOwner, OwnerDestroyedHoldsOnTheThreadThatDestroyedItsLoopThread) {
  auto* owner = new Owner;
  std::atomic<int> before{-1}, after{-1};
  zeltest::Gate done;
  ASSERT_EQ(0, owner->loop.Start([owner, &before, &after, &done] {
    owner->loop.Stop();  // let go: the thread outlives its owner
    before = zel::LoopThread::OwnerDestroyed();
    delete owner;
    after = zel::LoopThread::OwnerDestroyed();
    done.Open();
  }));
  ASSERT_TRUE(done.WaitFor(10s));
  EXPECT_EQ(0, before.load());
  EXPECT_EQ(1, after.load());
  EXPECT_FALSE(zel::LoopThread::OwnerDestroyed());  // this thread destroyed nothing
}

TEST(LoopThreadOwner, ALoopThreadDestroyedByAnotherThreadMarksNothing) {
  {
    Owner owner;
    ASSERT_EQ(0, owner.loop.Start([&owner] {
      std::unique_lock<std::mutex> lock(Native(owner.mutex));
      while (owner.loop.ShouldRun()) owner.wake.wait_for(lock, 100ms);
    }));
    ASSERT_EQ(StopResult::kJoined, owner.loop.Stop());
  }
  EXPECT_FALSE(zel::LoopThread::OwnerDestroyed());
}

}  // namespace
