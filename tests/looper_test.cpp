#include "utils/looper.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/clock.h"
#include "support/diag_capture.h"
#include "support/start_stop_race.h"
#include "support/sync.h"
#include "utils/timer.h"

// Interposed for this program (definition at the end): while set, every
// thread creation fails as if the system had no threads left.
std::atomic<bool> gFailThreadCreation{false};
// Interposed too: while set, CLOCK_REALTIME reads gFrozenWallClock.
std::atomic<bool> gWallClockFrozen{false};
timespec gFrozenWallClock{};

namespace {

using Clock = std::chrono::steady_clock;
using zeltest::Gate;
using zeltest::MsSince;
using zeltest::WaitUntil;
using zeltest::WallMs;

// Records runs and destructions, so a test can tell run/dropped/leaked apart.
struct Tally {
  std::atomic<int> runs{0};
  std::atomic<int> destroyed{0};
};

class CountingMessage : public zel::Message {
 public:
  CountingMessage(Tally* tally, std::function<void()> body = {})
      : tally_(tally), body_(std::move(body)) {}
  ~CountingMessage() override { ++tally_->destroyed; }
  void Run() override {
    ++tally_->runs;
    if (body_) body_();
  }

 private:
  Tally* tally_;
  std::function<void()> body_;
};

std::unique_ptr<zel::Message> Counting(Tally* tally, std::function<void()> body = {}) {
  return std::make_unique<CountingMessage>(tally, std::move(body));
}

// A message that only runs a closure.
class FnMessage : public zel::Message {
 public:
  explicit FnMessage(std::function<void()> fn) : fn_(std::move(fn)) {}
  void Run() override { fn_(); }

 private:
  std::function<void()> fn_;
};

// Waits until a Stop from another thread has marked `looper` stopped, seen
// as the refusal of an empty probe message (accepted probes run as no-ops).
bool WaitUntilPostsAreRefused(zel::Looper& looper) {
  return WaitUntil([&] { return looper.PostMessageAAA(std::make_unique<FnMessage>([] {})) != 0; });
}

// Runs `fn` on the loop and waits until it has run.
void RunOnLoop(zel::Looper& looper, std::function<void()> fn) {
  auto done = std::make_shared<Gate>();
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([done, fn] {
    fn();
    done->Open();
  })));
  ASSERT_TRUE(done->WaitFor(std::chrono::seconds(10)));
}

struct Record {
  explicit Record(std::atomic<int>* freed) : freed(freed) {}
  ~Record() { ++*freed; }
  std::atomic<int>* freed;
};

// While one exists, the wall clock (CLOCK_REALTIME) stands still at the
// moment it was made; the monotonic clock the loop's waits use goes on.
class FrozenWallClock {
 public:
  FrozenWallClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    gFrozenWallClock = now;
    gWallClockFrozen = true;
  }
  ~FrozenWallClock() { gWallClockFrozen = false; }
  FrozenWallClock(const FrozenWallClock&) = delete;
  FrozenWallClock& operator=(const FrozenWallClock&) = delete;
};

// ---- messages ----

TEST(HandlerMessage, RefusedByStoppedLooperStillFreesItsRecordOnce) {
  std::atomic<int> freed{0};
  std::atomic<int> handled{0};
  zel::Looper looper;
  auto msg = std::make_unique<zel::HandlerMessage<Record>>(new Record(&freed),
                                                           [&](Record*) { ++handled; });
  EXPECT_EQ(-1, looper.PostMessageAAA(std::move(msg)));
  EXPECT_EQ(1, freed.load());
  EXPECT_EQ(0, handled.load());
}

TEST(HandlerMessage, RunHandsTheRecordToTheHandlerThenFreesItWithTheMessage) {
  std::atomic<int> freed{0};
  Record* seen = nullptr;
  auto* record = new Record(&freed);
  {
    zel::HandlerMessage<Record> msg(record, [&](Record* r) { seen = r; });
    EXPECT_EQ(-1, msg.when);
    msg.Run();
    EXPECT_EQ(record, seen);
    EXPECT_EQ(0, freed.load());
  }
  EXPECT_EQ(1, freed.load());
}

TEST(HandlerMessage, HandlerIsDestroyedBeforeTheRecord) {
  std::atomic<int> freed{0};
  int freedWhenHandlerDied = -1;
  struct OnDestroy {
    std::function<void()> fn;
    ~OnDestroy() { fn(); }
  };
  auto witness = std::make_shared<OnDestroy>();
  witness->fn = [&] { freedWhenHandlerDied = freed.load(); };
  {
    zel::HandlerMessage<Record> msg(new Record(&freed), [witness](Record*) {});
    witness.reset();
  }
  EXPECT_EQ(0, freedWhenHandlerDied);
  EXPECT_EQ(1, freed.load());
}

TEST(HandlerMessage, EmptyFunctionIsAcceptedAndThrowsOnlyWhenRun) {
  std::atomic<int> freed{0};
  zel::HandlerMessage<Record> msg(new Record(&freed), std::function<void(Record*)>());
  EXPECT_FALSE(static_cast<bool>(msg.handler));
  EXPECT_THROW(msg.Run(), std::bad_function_call);
}

TEST(HandlerMessage, EmptyFunctionIsPostedNormally) {
  std::atomic<int> freed{0};
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Tally blocker;
  // A far-off message at the head keeps the loop from ever running the next one.
  ASSERT_EQ(0, looper.PostDelayMessage(Counting(&blocker), 60000));
  auto msg = std::make_unique<zel::HandlerMessage<Record>>(new Record(&freed),
                                                           std::function<void(Record*)>());
  EXPECT_EQ(0, looper.PostMessageAAA(std::move(msg)));
  EXPECT_EQ(0, looper.Stop());
  EXPECT_EQ(0, freed.load());  // still queued
}

TEST(HandlerMessageDeathTest, EmptyFunctionThrowingOnTheLoopThreadEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        zel::Looper looper;
        looper.Start();
        std::atomic<int> freed{0};
        looper.PostMessageAAA(std::make_unique<zel::HandlerMessage<Record>>(
            new Record(&freed), std::function<void(Record*)>()));
        std::this_thread::sleep_for(std::chrono::seconds(5));
      },
      "");
}

TEST(InerTaskMessage, RunCallsTheFunctionOnceWithTheContextWord) {
  static std::atomic<int> calls{0};
  static void* seenArg = nullptr;
  struct Fn {
    static void Call(void* arg) {
      ++calls;
      seenArg = arg;
    }
  };
  int context = 7;
  zel::Callback<void (*)()> cb;
  cb.arg = &context;
  cb.func = reinterpret_cast<void (*)()>(&Fn::Call);
  zel::InerTaskMessage msg(cb);
  EXPECT_EQ(-1, msg.when);
  msg.Run();
  EXPECT_EQ(1, calls.load());
  EXPECT_EQ(&context, seenArg);
}

TEST(TimerMsg, DefaultConstructedCallbackIsACallableNoOp) {
  zel::TimerMsg msg;
  ASSERT_TRUE(static_cast<bool>(msg.callback));
  msg.callback(1, nullptr);
}

TEST(Handler, RunsPostedRecordsInOrderOnItsLoopThread) {
  std::atomic<int> freed{0};
  std::vector<int> order;
  std::set<std::thread::id> threads;
  Gate done;
  struct Numbered : Record {
    Numbered(std::atomic<int>* f, int n) : Record(f), n(n) {}
    int n;
  };
  zel::Handler<Numbered> handler([&](Numbered* r) {
    order.push_back(r->n);
    threads.insert(std::this_thread::get_id());
    if (r->n == 99) done.Open();
  });
  EXPECT_EQ(-1, handler.Post(new Numbered(&freed, 0)));  // not started yet
  EXPECT_EQ(1, freed.load());
  ASSERT_EQ(0, handler.looper->Start());
  for (int i = 1; i <= 99; ++i) ASSERT_EQ(0, handler.Post(new Numbered(&freed, i)));
  ASSERT_TRUE(done.WaitFor(std::chrono::seconds(10)));
  EXPECT_EQ(0, handler.looper->Stop());
  ASSERT_EQ(99u, order.size());
  for (int i = 0; i < 99; ++i) EXPECT_EQ(i + 1, order[i]);
  EXPECT_EQ(1u, threads.size());
  EXPECT_EQ(0u, threads.count(std::this_thread::get_id()));
  EXPECT_EQ(100, freed.load());
}

// ---- ThreadIdString ----

TEST(ThreadIdString, IsTheHandleInHexadecimalWithPrefix) {
  const std::string text = zel::ThreadIdString(pthread_self());
  ASSERT_GT(text.size(), 2u);
  EXPECT_EQ("0x", text.substr(0, 2));
  EXPECT_EQ(std::string::npos, text.find_first_not_of("0123456789abcdef", 2)) << text;
  std::thread other([&] { EXPECT_NE(text, zel::ThreadIdString(pthread_self())); });
  other.join();
}

// ---- Start / Stop ----

TEST(Looper, StartTwiceReturnsMinusOneTheSecondTime) {
  zel::Looper looper;
  EXPECT_EQ(0, looper.Start());
  EXPECT_EQ(-1, looper.Start());
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, StopTwicePrintsAlreadyStopedAndReturnsMinusOne) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, looper.Stop());
  EXPECT_EQ(-1, looper.Stop());
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
}

TEST(Looper, StopOnANeverStartedLooperPrintsAlreadyStoped) {
  zel::Looper looper;
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, looper.Stop());
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
}

TEST(Looper, RunsMessagesInPostingOrderOnItsOwnThread) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  std::vector<int> order;
  std::set<std::thread::id> threads;
  Tally tally;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&, i] {
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
    })));
  }
  RunOnLoop(looper, [] {});
  EXPECT_EQ(0, looper.Stop());
  ASSERT_EQ(50u, order.size());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(i, order[i]);
  EXPECT_EQ(1u, threads.size());
  EXPECT_EQ(0u, threads.count(std::this_thread::get_id()));
  EXPECT_EQ(50, tally.destroyed.load());
}

TEST(Looper, PostStampsWhenWithTheWallClock) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  long long seenNow = 0, seenDelayed = 0;
  // Reads its own `when` when it runs.
  struct WhenProbe : zel::Message {
    explicit WhenProbe(long long* out) : out(out) {}
    void Run() override { *out = when; }
    long long* out;
  };
  const long long before = WallMs();
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<WhenProbe>(&seenNow)));
  ASSERT_EQ(0, looper.PostDelayMessage(std::make_unique<WhenProbe>(&seenDelayed), 200));
  const long long after = WallMs();
  RunOnLoop(looper, [] {});
  looper.Stop();
  EXPECT_GE(seenNow, before);
  EXPECT_LE(seenNow, after);
  EXPECT_GE(seenDelayed, before + 200);
  EXPECT_LE(seenDelayed, after + 200);
}

TEST(Looper, PostFromAnotherThreadToANeverStartedLooperIsRefusedAndFreed) {
  zel::Looper looper;
  Tally tally;
  EXPECT_EQ(-1, looper.PostMessageAAA(Counting(&tally)));
  EXPECT_EQ(-1, looper.PostDelayMessage(Counting(&tally), 10));
  EXPECT_EQ(2, tally.destroyed.load());
  EXPECT_EQ(0, tally.runs.load());
}

TEST(Looper, PostTaskReturnsZeroEvenWhenRefused) {
  static std::atomic<int> calls{0};
  struct Fn {
    static void Call() { ++calls; }
  };
  zel::Looper looper;
  zel::Callback<void (*)()> cb;
  cb.func = &Fn::Call;
  EXPECT_EQ(0, looper.PostTask(cb));
  EXPECT_EQ(0, looper.PostDelayTask(cb, 10));
  ASSERT_EQ(0, looper.Start());
  RunOnLoop(looper, [] {});
  looper.Stop();
  EXPECT_EQ(0, calls.load());  // both were dropped, never queued
}

TEST(Looper, PostTaskAndPostDelayTaskRunTheFunctionWithItsContextWord) {
  static std::atomic<int> sum{0};
  struct Fn {
    static void Add(void* arg) { sum += *static_cast<int*>(arg); }
  };
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  int one = 1, ten = 10;
  zel::Callback<void (*)()> now{&one, reinterpret_cast<void (*)()>(&Fn::Add)};
  zel::Callback<void (*)()> later{&ten, reinterpret_cast<void (*)()>(&Fn::Add)};
  EXPECT_EQ(0, looper.PostTask(now));
  EXPECT_EQ(0, looper.PostDelayTask(later, 50));
  RunOnLoop(looper, [] {});
  looper.Stop();
  EXPECT_EQ(11, sum.load());
}

TEST(Looper, DelayedMessageHoldsBackALaterImmediateOne) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate immediateRan;
  std::vector<std::string> order;
  std::mutex orderMutex;
  auto note = [&](const char* what) {
    std::lock_guard<std::mutex> lock(orderMutex);
    order.push_back(what);
  };
  Tally tally;
  const auto start = Clock::now();
  ASSERT_EQ(0, looper.PostDelayMessage(Counting(&tally, [&] { note("delayed"); }), 5000));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    note("immediate");
    immediateRan.Open();
  })));
  ASSERT_TRUE(immediateRan.WaitFor(std::chrono::seconds(15)));
  const long long elapsed = MsSince(start);
  looper.Stop();
  EXPECT_GE(elapsed, 5000);
  EXPECT_LT(elapsed, 5000 + 3000);
  ASSERT_EQ(2u, order.size());
  EXPECT_EQ("delayed", order[0]);
  EXPECT_EQ("immediate", order[1]);
}

TEST(Looper, DelayedMessageOnAnIdleLoopRunsNoEarlierThanDueAndAboutASecondAfterAtMost) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate ran;
  long long ranAtWall = 0;
  Tally tally;
  const long long postedAtWall = WallMs();
  ASSERT_EQ(0, looper.PostDelayMessage(Counting(&tally,
                                                [&] {
                                                  ranAtWall = WallMs();
                                                  ran.Open();
                                                }),
                                       300));
  ASSERT_TRUE(ran.WaitFor(std::chrono::seconds(10)));
  looper.Stop();
  EXPECT_GE(ranAtWall - postedAtWall, 300);
  EXPECT_LT(ranAtWall - postedAtWall, 300 + 1000 + 1000);
}

TEST(Looper, NegativeDelayIsDueAtOnce) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate ran;
  Tally tally;
  const auto start = Clock::now();
  ASSERT_EQ(0, looper.PostDelayMessage(Counting(&tally, [&] { ran.Open(); }), -5000));
  ASSERT_TRUE(ran.WaitFor(std::chrono::seconds(10)));
  EXPECT_LT(MsSince(start), 900);
  looper.Stop();
}

TEST(Looper, StopThenStartRunsMessagesQueuedBeforeTheStop) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate blockerRunning, releaseBlocker;
  Tally tally;
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    blockerRunning.Open();
    releaseBlocker.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(blockerRunning.WaitFor(std::chrono::seconds(10)));
  // Queued behind the running blocker, never taken before the stop.
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  std::thread stopper([&] { EXPECT_EQ(0, looper.Stop()); });
  EXPECT_TRUE(WaitUntilPostsAreRefused(looper));  // the stop landed while the blocker runs
  releaseBlocker.Open();
  stopper.join();
  EXPECT_EQ(1, tally.runs.load());
  EXPECT_EQ(1, tally.destroyed.load());

  ASSERT_EQ(0, looper.Start());
  RunOnLoop(looper, [] {});
  looper.Stop();
  EXPECT_EQ(3, tally.runs.load());
}

TEST(Looper, MessageStoppingItsOwnLooperDetachesAndDropsTheRestOfItsBatch) {
  zeltest::DiagCapture diag;
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate blocking;
  Gate release;
  Tally tally;
  std::atomic<int> stopResult{99};
  std::atomic<int> postFromLoopResult{99};
  // Hold the loop so that the next three messages are taken as one batch.
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    blocking.Open();
    release.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(blocking.WaitFor(std::chrono::seconds(10)));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    stopResult = looper.Stop();
    Tally* t = &tally;
    postFromLoopResult = looper.PostMessageAAA(Counting(t));  // loop thread: still accepted
  })));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  release.Open();

  WaitUntil([] { return zeltest::DiagCapture::Count("looper process exit") > 0; },
            zeltest::kWaitLimit, std::chrono::milliseconds(10));
  ASSERT_EQ(1u, zeltest::DiagCapture::Count("looper process exit"));
  EXPECT_EQ(0, stopResult.load());
  EXPECT_EQ(0, postFromLoopResult.load());
  EXPECT_EQ(2, tally.runs.load());       // the blocker and the stopping message
  EXPECT_EQ(4, tally.destroyed.load());  // the two after it were dropped unrun
  // The self-stop wrote no exit line and the Looper counts as stopped.
  EXPECT_EQ(0u, zeltest::DiagCapture::Count("Looper::Stop exited"));
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, looper.Stop());
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
  // The message posted from the loop stays queued for the next start.
  ASSERT_EQ(0, looper.Start());
  RunOnLoop(looper, [] {});
  looper.Stop();
  EXPECT_EQ(3, tally.runs.load());
}

TEST(Looper, StopTwiceFromItsOwnThreadReturnsZeroBothTimesAndPrintsNothing) {
  zeltest::DiagCapture diag;
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  std::atomic<int> first{99}, second{99};
  testing::internal::CaptureStdout();
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    first = looper.Stop();
    second = looper.Stop();  // the loop thread never asks "already stopped?"
  })));
  WaitUntil([] { return zeltest::DiagCapture::Count("looper process exit") > 0; },
            zeltest::kWaitLimit, std::chrono::milliseconds(10));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ(0, first.load());
  EXPECT_EQ(0, second.load());
}

TEST(Looper, StopFromAnotherThreadDropsTheRestOfTheRunningBatch) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate holding, releaseHold, firstRunning, releaseFirst;
  Tally tally;
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    holding.Open();
    releaseHold.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(holding.WaitFor(std::chrono::seconds(10)));
  // Queued behind the held loop, so the next three are taken as one batch.
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    firstRunning.Open();
    releaseFirst.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  releaseHold.Open();
  ASSERT_TRUE(firstRunning.WaitFor(std::chrono::seconds(10)));
  std::thread stopper([&] { EXPECT_EQ(0, looper.Stop()); });
  EXPECT_TRUE(WaitUntilPostsAreRefused(looper));
  releaseFirst.Open();  // Stop was waiting for this message to return
  stopper.join();
  EXPECT_EQ(2, tally.runs.load());       // the holder and the running message
  EXPECT_EQ(4, tally.destroyed.load());  // the last two dropped unrun
}

TEST(Looper, StopCalledInThreadNamesNoThreadOnceStoppedFromOutside) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  ASSERT_EQ(0, looper.Stop());
  zeltest::DiagCapture diag;
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, looper.Stop());
  testing::internal::GetCapturedStdout();
  const auto lines = zeltest::DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("looper.cpp Stop(151): \"Debug:\" \"Looper::Stop called in thread \n\"", lines[0].text);
}

// Dropped unrun after its Looper stopped itself; slow to go, so that the
// loop thread is still busy leaving when the test moves on.
class SlowToDrop : public zel::Message {
 public:
  explicit SlowToDrop(std::atomic<bool>* gone) : gone_(gone) {}
  ~SlowToDrop() override {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    *gone_ = true;
  }
  void Run() override {}

 private:
  std::atomic<bool>* gone_;
};

// Posts a message that stops its own Looper, followed in the same batch by
// a SlowToDrop; returns once the stop happened.
void StopFromOwnThreadLeavingASlowDrop(zel::Looper& looper, std::atomic<bool>* gone) {
  auto blocking = std::make_shared<Gate>();
  auto release = std::make_shared<Gate>();
  auto stopped = std::make_shared<Gate>();
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([blocking, release] {
    blocking->Open();
    release->WaitFor(std::chrono::seconds(30));
  })));
  // The loop is held, so the next two messages are taken as one batch.
  ASSERT_TRUE(blocking->WaitFor(std::chrono::seconds(10)));
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&looper, stopped] {
    looper.Stop();
    stopped->Open();
  })));
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<SlowToDrop>(gone)));
  release->Open();
  ASSERT_TRUE(stopped->WaitFor(std::chrono::seconds(10)));
}

TEST(Looper, DestroyingALooperThatStoppedItselfWaitsForItsThreadToLetGo) {
  std::atomic<bool> gone{false};
  auto* looper = new zel::Looper();
  ASSERT_EQ(0, looper->Start());
  StopFromOwnThreadLeavingASlowDrop(*looper, &gone);
  delete looper;  // the detached thread must not outlive the object it reads
  EXPECT_TRUE(gone.load());
}

TEST(Looper, StartAfterItStoppedItselfReturnsAtOnceAndTheNewThreadRunsTheOldBatch) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate blocking, release, stopped, started;
  std::mutex mutex;
  std::vector<std::string> order;
  std::vector<std::thread::id> threads;
  auto note = [&](const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(what);
    threads.push_back(std::this_thread::get_id());
  };
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    blocking.Open();
    release.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(blocking.WaitFor(std::chrono::seconds(10)));
  // One batch: a message that stops its loop and then waits for what the
  // caller of Start does once Start has returned, and two behind it.
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    looper.Stop();
    stopped.Open();
    started.WaitFor(std::chrono::seconds(30));
    note("stopper");
  })));
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] { note("second"); })));
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] { note("third"); })));
  release.Open();
  ASSERT_TRUE(stopped.WaitFor(std::chrono::seconds(10)));

  auto start = std::async(std::launch::async, [&] { return looper.Start(); });
  const bool returned = start.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  started.Open();  // lets a Start that waited for the old thread go on, too
  ASSERT_TRUE(returned) << "Start waited for the old thread's message";
  EXPECT_EQ(0, start.get());
  RunOnLoop(looper, [] {});
  std::lock_guard<std::mutex> lock(mutex);
  // The old thread's batch was handed back and run, in order, by the new one.
  EXPECT_EQ((std::vector<std::string>{"stopper", "second", "third"}), order);
  ASSERT_EQ(3u, threads.size());
  EXPECT_NE(threads[0], threads[1]);
  EXPECT_EQ(threads[1], threads[2]);
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, RestartedLoopsNewThreadRunsNothingWhileTheOldOneFinishesItsMessage) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate stopped, finish;
  std::atomic<bool> oldFinished{false};
  std::atomic<bool> ranBeforeOldFinished{false};
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    looper.Stop();
    stopped.Open();
    finish.WaitFor(std::chrono::seconds(30));
    oldFinished = true;
  })));
  ASSERT_TRUE(stopped.WaitFor(std::chrono::seconds(10)));
  ASSERT_EQ(0, looper.Start());
  Gate ran;
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    ranBeforeOldFinished = !oldFinished;
    ran.Open();
  })));
  EXPECT_FALSE(ran.WaitFor(std::chrono::milliseconds(500)));  // never two loop threads at once
  finish.Open();
  ASSERT_TRUE(ran.WaitFor(std::chrono::seconds(10)));
  EXPECT_FALSE(ranBeforeOldFinished.load());
  EXPECT_EQ(0, looper.Stop());
}

// Tracks how many messages run at once: above one means two loop threads.
struct OverlapProbe {
  std::atomic<int> inside{0};
  std::atomic<int> maxInside{0};
  std::atomic<int> runs{0};
  void Enter() {
    const int now = ++inside;
    int seen = maxInside.load();
    while (now > seen && !maxInside.compare_exchange_weak(seen, now)) {
    }
    ++runs;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
    --inside;
  }
};

TEST(Looper, ConcurrentStartAndStopFromTwoThreadsReturnAndNeverRunTwoLoops) {
  constexpr int kRounds = 400;
  zel::Looper looper;
  OverlapProbe probe;
  std::atomic<bool> done{false};
  std::thread poster([&] {
    while (!done) {
      looper.PostMessageAAA(std::make_unique<FnMessage>([&] { probe.Enter(); }));
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  zeltest::RaceStartAgainstStop(looper, kRounds, 50);
  done = true;
  poster.join();
  EXPECT_LE(probe.maxInside.load(), 1);
  // Whatever the last call was, the loop is in one clean state.
  looper.Start();
  std::set<std::thread::id> threads;
  for (int i = 0; i < 3; ++i)
    RunOnLoop(looper, [&] { threads.insert(std::this_thread::get_id()); });
  EXPECT_EQ(1u, threads.size());
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, RestartFromItsOwnThreadHandsTheOldBatchToTheNewThread) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate blocking, release;
  Tally tally;
  OverlapProbe probe;
  std::atomic<int> restartResult{99};
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    blocking.Open();
    release.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(blocking.WaitFor(std::chrono::seconds(10)));
  // One batch: the restart, then two messages that only the new thread runs.
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] {
    looper.Stop();
    restartResult = looper.Start();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  })));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] { probe.Enter(); })));
  ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally, [&] { probe.Enter(); })));
  release.Open();
  ASSERT_TRUE(WaitUntil([&] { return tally.destroyed.load() == 4; }));
  EXPECT_EQ(0, restartResult.load());
  EXPECT_EQ(4, tally.runs.load());  // the old batch's rest ran, on the new thread
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] { probe.Enter(); })));
  }
  RunOnLoop(looper, [] {});
  EXPECT_EQ(22, probe.runs.load());
  EXPECT_LE(probe.maxInside.load(), 1);
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, StopStartStopFromItsOwnThreadReturnsAndLeavesItStopped) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  std::atomic<int> results[3] = {{99}, {99}, {99}};
  auto done = std::make_shared<Gate>();
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&, done] {
    results[0] = looper.Stop();
    results[1] = looper.Start();
    results[2] = looper.Stop();  // joins the successor: this thread is no longer the loop
    done->Open();
  })));
  ASSERT_TRUE(done->WaitFor(std::chrono::seconds(10)));
  EXPECT_EQ(0, results[0].load());
  EXPECT_EQ(0, results[1].load());
  EXPECT_EQ(0, results[2].load());
  EXPECT_EQ(-1, looper.PostMessageAAA(std::make_unique<FnMessage>([] {})));
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, looper.Stop());
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
}

TEST(Looper, StartFromTheLoopThreadWhileAnotherThreadStopsItIsRefused) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate running, stopping;
  std::atomic<int> startResult{99};
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    running.Open();
    stopping.WaitFor(std::chrono::seconds(30));
    startResult = looper.Start();
  })));
  ASSERT_TRUE(running.WaitFor(std::chrono::seconds(10)));
  std::thread stopper([&] { EXPECT_EQ(0, looper.Stop()); });
  ASSERT_TRUE(WaitUntilPostsAreRefused(looper));  // the stopper is joining now
  stopping.Open();
  stopper.join();
  EXPECT_EQ(-1, startResult.load());
  EXPECT_EQ(-1, looper.PostMessageAAA(std::make_unique<FnMessage>([] {})));
  EXPECT_EQ(0, looper.Start());
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, DelayedPostFromTheLoopThreadIsAcceptedAndRunsWhenDue) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate ran;
  std::atomic<long long> postedAt{0}, ranAt{0};
  std::atomic<int> result{99};
  RunOnLoop(looper, [&] {
    postedAt = WallMs();
    result = looper.PostDelayMessage(std::make_unique<FnMessage>([&] {
                                       ranAt = WallMs();
                                       ran.Open();
                                     }),
                                     200);
  });
  ASSERT_TRUE(ran.WaitFor(std::chrono::seconds(10)));
  EXPECT_EQ(0, result.load());
  EXPECT_GE(ranAt - postedAt, 200);
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, LeftoversNotYetDueStayAheadOfPostsMadeWhileTheirBatchRan) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate blocking, release, firstRunning, posted;
  std::mutex mutex;
  std::vector<std::string> order;
  auto note = [&](const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(what);
  };
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    blocking.Open();
    release.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(blocking.WaitFor(std::chrono::seconds(10)));
  // One batch: a due message, a delayed one that holds back the rest, a due one.
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    note("due");
    firstRunning.Open();
    posted.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_EQ(0, looper.PostDelayMessage(std::make_unique<FnMessage>([&] { note("delayed"); }), 300));
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] { note("behind"); })));
  release.Open();
  ASSERT_TRUE(firstRunning.WaitFor(std::chrono::seconds(10)));
  ASSERT_EQ(0,
            looper.PostMessageAAA(std::make_unique<FnMessage>([&] { note("posted meanwhile"); })));
  posted.Open();
  RunOnLoop(looper, [] {});
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((std::vector<std::string>{"due", "delayed", "behind", "posted meanwhile"}), order);
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, MessageDueExactlyNowIsDue) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate ran;
  {
    // The wall clock stands still: the due time stamped at the post is the
    // loop's "now" from then on.
    const FrozenWallClock frozen;
    ASSERT_EQ(0, looper.PostDelayMessage(std::make_unique<FnMessage>([&] { ran.Open(); }), 0));
    EXPECT_TRUE(ran.WaitFor(std::chrono::seconds(3)));
  }
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, DestroyedByItsOwnMessageItsThreadLeavesWithoutTouchingIt) {
  zeltest::DiagCapture diag;
  Tally tally;
  auto* looper = new zel::Looper();
  ASSERT_EQ(0, looper->Start());
  Gate blocking, release;
  ASSERT_EQ(0, looper->PostMessageAAA(std::make_unique<FnMessage>([&] {
    blocking.Open();
    release.WaitFor(std::chrono::seconds(30));
  })));
  ASSERT_TRUE(blocking.WaitFor(std::chrono::seconds(10)));
  // One batch: the message that destroys the loop, then one it leaves behind.
  ASSERT_EQ(0, looper->PostMessageAAA(Counting(&tally, [looper] { delete looper; })));
  ASSERT_EQ(0, looper->PostMessageAAA(Counting(&tally)));
  release.Open();
  ASSERT_TRUE(WaitUntil([] { return zeltest::DiagCapture::Count("looper process exit") == 1; }));
  EXPECT_EQ(1, tally.runs.load());
  EXPECT_EQ(2, tally.destroyed.load());  // the one behind was dropped unrun
}

TEST(Looper, DueTimeFarBeforeTheEpochIsDueAtOnce) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate ran;
  // A negative `when`: due whatever the clock says.
  ASSERT_EQ(
      0, looper.PostDelayMessage(std::make_unique<FnMessage>([&] { ran.Open(); }), -(1LL << 62)));
  EXPECT_TRUE(ran.WaitFor(std::chrono::seconds(10)));
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, OfTwoStartsDuringAStopsJoinOneStartsAtOnceAndRunsOnceTheJoinEnded) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate running, release;
  std::atomic<bool> released{false};
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    running.Open();
    release.WaitFor(std::chrono::seconds(30));
    released = true;
  })));
  ASSERT_TRUE(running.WaitFor(std::chrono::seconds(10)));
  std::thread stopper([&] { EXPECT_EQ(0, looper.Stop()); });
  ASSERT_TRUE(WaitUntilPostsAreRefused(looper));  // the stopper is joining
  std::atomic<int> results[2] = {{99}, {99}};
  std::thread first([&] { results[0] = looper.Start(); });
  std::thread second([&] { results[1] = looper.Start(); });
  // Neither waits for the message the join waits for.
  EXPECT_TRUE(WaitUntil([&] { return results[0] != 99 && results[1] != 99; }));
  EXPECT_EQ(-1, results[0] + results[1]);  // one 0, one -1
  std::atomic<bool> ranAfterRelease{false};
  Gate ran;
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    ranAfterRelease = released.load();
    ran.Open();
  })));
  release.Open();
  stopper.join();
  first.join();
  second.join();
  ASSERT_TRUE(ran.WaitFor(std::chrono::seconds(10)));
  EXPECT_TRUE(ranAfterRelease.load());  // the new thread began once the old one left
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, StopFromTheLoopThreadWhileAnotherThreadJoinsItReturnsZero) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  Gate running, stopping;
  std::atomic<int> selfStop{99};
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<FnMessage>([&] {
    running.Open();
    stopping.WaitFor(std::chrono::seconds(30));
    selfStop = looper.Stop();  // the other Stop is joining: nothing to detach
  })));
  ASSERT_TRUE(running.WaitFor(std::chrono::seconds(10)));
  std::thread stopper([&] { EXPECT_EQ(0, looper.Stop()); });
  ASSERT_TRUE(WaitUntilPostsAreRefused(looper));
  stopping.Open();
  stopper.join();  // returns: the thread was joined, not detached under it
  EXPECT_EQ(0, selfStop.load());
  EXPECT_EQ(0, looper.Start());
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, StartThatCannotCreateItsThreadThrowsAndStartsAgainOnlyAfterAStop) {
  zel::Looper looper;
  gFailThreadCreation = true;
  EXPECT_THROW(looper.Start(), std::system_error);
  gFailThreadCreation = false;
  EXPECT_EQ(-1, looper.Start());  // counts as running until stopped
  EXPECT_EQ(0, looper.Stop());    // no thread to join
  EXPECT_EQ(0, looper.Start());
  RunOnLoop(looper, [] {});
  EXPECT_EQ(0, looper.Stop());
}

TEST(Looper, StartOnALooperBeingDestroyedIsRefused) {
  auto* looper = new zel::Looper();
  ASSERT_EQ(0, looper->Start());
  auto running = std::make_shared<Gate>();
  std::atomic<int> startResult{99};
  ASSERT_EQ(0, looper->PostMessageAAA(std::make_unique<FnMessage>([=, &startResult] {
    running->Open();
    // The destructor is waiting for this message by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    startResult = looper->Start();
  })));
  ASSERT_TRUE(running->WaitFor(std::chrono::seconds(10)));
  delete looper;
  EXPECT_EQ(-1, startResult.load());
}

TEST(Looper, DestroyingALooperWithQueuedMessagesFreesThemUnrun) {
  Tally tally;
  {
    zel::Looper looper;
    ASSERT_EQ(0, looper.Start());
    ASSERT_EQ(0, looper.PostDelayMessage(Counting(&tally), 60000));
    ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
    ASSERT_EQ(0, looper.PostMessageAAA(Counting(&tally)));
  }
  EXPECT_EQ(0, tally.runs.load());
  EXPECT_EQ(3, tally.destroyed.load());
}

TEST(Looper, DestroyingAStoppedLooperFreesItsQueue) {
  Tally tally;
  {
    zel::Looper looper;
    ASSERT_EQ(0, looper.Start());
    ASSERT_EQ(0, looper.PostDelayMessage(Counting(&tally), 60000));
    ASSERT_EQ(0, looper.Stop());
  }
  EXPECT_EQ(0, tally.runs.load());
  EXPECT_EQ(1, tally.destroyed.load());
}

TEST(Looper, StartAndStopWriteTheirDebugDiagnosticsWithFixedLineNumbers) {
  zeltest::DiagCapture diag;
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  std::string loopId;
  RunOnLoop(looper, [&] { loopId = zel::ThreadIdString(pthread_self()); });
  ASSERT_EQ(0, looper.Stop());

  std::vector<std::string> texts;
  for (const auto& line : zeltest::DiagCapture::Lines()) {
    EXPECT_EQ(5, line.level);
    EXPECT_EQ("ZEL_LOG", line.tag);
    texts.push_back(line.text);
  }
  const std::vector<std::string> expected = {
      "looper.cpp process(193): \"Debug:\" \"looper process started in thread " + loopId + "\n\"",
      "looper.cpp Stop(151): \"Debug:\" \"Looper::Stop called in thread " + loopId + "\n\"",
      "looper.cpp process(240): \"Debug:\" \"looper process exit, threadID " + loopId + "\n\"",
      "looper.cpp Stop(179): \"Debug:\" \"Looper::Stop exited in thread " + loopId + "\n\"",
  };
  EXPECT_EQ(expected, texts);
}

TEST(Looper, AnIdleLoopWakesAboutOncePerSecondAndStillStopsPromptly) {
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto start = Clock::now();
  EXPECT_EQ(0, looper.Stop());  // notify_all wakes the wait at once
  EXPECT_LT(MsSince(start), 900);
}

TEST(Looper, ConcurrentPostersAcrossStopsAndRestartsRunNothingTwiceAndLeakNothing) {
  constexpr int kPosters = 4;
  constexpr int kMaxPerPoster = 100000;
  constexpr int kCycles = 40;
  std::vector<std::atomic<int>> runs(kPosters * kMaxPerPoster);
  std::atomic<int> created{0}, destroyed{0}, accepted{0}, cycles{0}, ranTotal{0};
  std::atomic<int> postersDone{0};
  struct Tracked : zel::Message {
    Tracked(std::atomic<int>* run, std::atomic<int>* ranTotal, std::atomic<int>* destroyed)
        : run(run), ranTotal(ranTotal), destroyed(destroyed) {}
    ~Tracked() override { ++*destroyed; }
    void Run() override {
      ++*run;
      ++*ranTotal;
    }
    std::atomic<int>* run;
    std::atomic<int>* ranTotal;
    std::atomic<int>* destroyed;
  };
  {
    zel::Looper looper;
    ASSERT_EQ(0, looper.Start());
    std::thread toggler([&] {
      for (; cycles < kCycles; ++cycles) {
        // Give each started loop the chance to run something (a loaded
        // machine may not schedule it at all in 2 ms), so that the stops
        // land in the middle of batches.
        const int ranBefore = ranTotal.load();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        WaitUntil([&] { return ranTotal.load() != ranBefore || postersDone >= kPosters; },
                  std::chrono::milliseconds(1000));
        looper.Stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        looper.Start();
      }
    });
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
      posters.emplace_back([&, p] {
        for (int i = 0; i < kMaxPerPoster && cycles < kCycles; ++i) {
          ++created;
          auto& run = runs[p * kMaxPerPoster + i];
          auto msg = std::make_unique<Tracked>(&run, &ranTotal, &destroyed);
          if (looper.PostMessageAAA(std::move(msg)) == 0) ++accepted;
          // Paced, so that posting goes on through every cycle.
          if (i % 32 == 31) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        ++postersDone;
      });
    }
    for (auto& t : posters) t.join();
    toggler.join();
    looper.Start();
    RunOnLoop(looper, [] {});
    looper.Stop();
  }
  int ranOnce = 0;
  for (auto& r : runs) {
    ASSERT_LE(r.load(), 1);
    ranOnce += r.load();
  }
  EXPECT_EQ(created.load(), destroyed.load());
  EXPECT_LE(ranOnce, accepted.load());
  EXPECT_GT(ranOnce, 0);
  EXPECT_LT(accepted.load(), created.load());  // some posts met a stopped loop
  EXPECT_GE(cycles.load(), kCycles);
}

}  // namespace

// std::thread's constructor comes here first (an executable's definition
// comes first in symbol lookup); the real one is the C library's.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                              void* arg) {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  if (gFailThreadCreation) return EAGAIN;
  return real(thread, attr, start, arg);
}

extern "C" int clock_gettime(clockid_t clock, timespec* out) {
  using ClockGettime = int (*)(clockid_t, timespec*);
  static const auto real = reinterpret_cast<ClockGettime>(dlsym(RTLD_NEXT, "clock_gettime"));
  if (clock == CLOCK_REALTIME && gWallClockFrozen) {
    *out = gFrozenWallClock;
    return 0;
  }
  return real(clock, out);
}
