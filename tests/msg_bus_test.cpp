#include "utils/msg_bus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/clock.h"
#include "support/start_stop_race.h"
#include "support/sync.h"

namespace {

using namespace std::chrono_literals;

constexpr int kType = 1;
constexpr int kOtherType = 2;

using zeltest::HoldingGate;
using zeltest::WaitUntil;
using zeltest::WallMs;

// A message with an id. `on_destroy` runs in the destructor, which happens on
// the bus thread when the bus held the last reference.
struct TestMsg : zel::BaseMsg {
  explicit TestMsg(int type, int msg_id = 0, std::function<void()> destroy_hook = nullptr)
      : BaseMsg(type), id(msg_id), on_destroy(std::move(destroy_hook)) {}
  ~TestMsg() override {
    if (on_destroy) on_destroy();
  }
  int id;
  std::function<void()> on_destroy;
};

struct Delivery {
  std::string subscriber;
  int id;
  long long when;
  std::thread::id thread;
  long long at_ms;
};

// Every delivery seen by the subscribers of one test, in arrival order.
class DeliveryLog : public zeltest::Collected<Delivery> {
 public:
  std::vector<std::string> Names() {
    std::vector<std::string> out;
    for (const auto& d : All()) out.push_back(d.subscriber + ":" + std::to_string(d.id));
    return out;
  }
};

// Records each delivery in a DeliveryLog; `during` runs first, inside OnMsg.
class Recorder : public zel::MsgSubscriber {
 public:
  Recorder(std::string name, DeliveryLog& log, std::function<void()> during = nullptr)
      : name_(std::move(name)), log_(log), during_(std::move(during)) {}
  void OnMsg(int msg_type, std::shared_ptr<zel::BaseMsg> msg) override {
    if (during_) during_();
    EXPECT_EQ(msg->msg_type, msg_type);
    const auto* m = static_cast<const TestMsg*>(msg.get());
    log_.Add({name_, m->id, m->when, std::this_thread::get_id(), WallMs()});
  }

 private:
  std::string name_;
  DeliveryLog& log_;
  std::function<void()> during_;
};

std::shared_ptr<Recorder> MakeRecorder(const std::string& name, DeliveryLog& log,
                                       std::function<void()> during = nullptr) {
  return std::make_shared<Recorder>(name, log, std::move(during));
}

constexpr int kGateType = 99;
constexpr int kGateId = -1;

// Starts a delivery that holds the bus thread (a subscriber of kGateType
// whose body is gate.Holder()) until gate.Open(), so that later publications
// pile up in the queue.
void BlockBus(zel::MsgBus& bus, HoldingGate& gate) {
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kGateType, kGateId)));
  gate.WaitEntered();
}

TEST(MsgBus, StartTwiceReturnsMinusOne) {
  zel::MsgBus bus;
  EXPECT_EQ(0, bus.Start());
  EXPECT_EQ(-1, bus.Start());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, StopTwiceReturnsMinusOneAndPrintsAlreadyStoped) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  EXPECT_EQ(0, bus.Stop());
  testing::internal::CaptureStdout();
  const int second = bus.Stop();
  std::fflush(stdout);
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(-1, second);
}

TEST(MsgBus, StopOnNeverStartedBusPrintsAlreadyStoped) {
  zel::MsgBus bus;
  testing::internal::CaptureStdout();
  const int result = bus.Stop();
  std::fflush(stdout);
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(-1, result);
}

TEST(MsgBus, PublishOnNeverStartedBusIsRefused) {
  zel::MsgBus bus;
  auto msg = std::make_shared<TestMsg>(kType);
  EXPECT_EQ(-1, bus.PublishMsg(msg));
  EXPECT_EQ(-1, bus.PublishMsg(msg, 100));
  EXPECT_EQ(1, msg.use_count());
}

TEST(MsgBus, PublishAfterStopIsRefusedButWhenIsOverwritten) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.Stop());

  auto now_msg = std::make_shared<TestMsg>(kType);
  now_msg->when = 12345;
  const long long before = WallMs();
  EXPECT_EQ(-1, bus.PublishMsg(now_msg));
  EXPECT_GE(now_msg->when, before);
  EXPECT_LE(now_msg->when, WallMs());

  auto later_msg = std::make_shared<TestMsg>(kType);
  later_msg->when = 12345;
  const long long before_delayed = WallMs();
  EXPECT_EQ(-1, bus.PublishMsg(later_msg, 60000));
  EXPECT_GE(later_msg->when, before_delayed + 60000);
  EXPECT_LE(later_msg->when, WallMs() + 60000);
}

TEST(MsgBus, PublishStampsWhenWithNowPlusDelay) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  auto msg = std::make_shared<TestMsg>(kType);
  const long long before = WallMs();
  ASSERT_EQ(0, bus.PublishMsg(msg, 30000));
  const long long after = WallMs();
  EXPECT_GE(msg->when, before + 30000);
  EXPECT_LE(msg->when, after + 30000);
  EXPECT_EQ(0, bus.Stop());
}

// Publishing a queued message again gives it a new due time, and the sort
// that follows moves its earlier entry along: both are delivered now, ahead
// of a message due in between.
TEST(MsgBus, MessagePublishedAgainWhileQueuedMovesItsEarlierEntryToo) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1), 3000));
  auto again = std::make_shared<TestMsg>(kType, 2);
  ASSERT_EQ(0, bus.PublishMsg(again, 60000));
  ASSERT_EQ(0, bus.PublishMsg(again));
  ASSERT_TRUE(log.WaitForCount(2, 2500ms));
  EXPECT_EQ((std::vector<std::string>{"s:2", "s:2"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

// A refused publication still stamps the message; the next accepted one
// sorts the queue by the stamped times.
TEST(MsgBus, RefusedPublicationOfAQueuedMessageCountsAtTheNextSort) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1), 3000));
  auto again = std::make_shared<TestMsg>(kType, 2);
  ASSERT_EQ(0, bus.PublishMsg(again, 60000));
  ASSERT_EQ(0, bus.Stop());
  EXPECT_EQ(-1, bus.PublishMsg(again));
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 3)));
  ASSERT_TRUE(log.WaitForCount(2, 2500ms));
  EXPECT_EQ((std::vector<std::string>{"s:2", "s:3"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, NullMessageIsRefused) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  EXPECT_EQ(-1, bus.PublishMsg(nullptr));
  EXPECT_EQ(-1, bus.PublishMsg(nullptr, 10));
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, EqualDueTimesAreDeliveredInPublicationOrder) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());

  // Aim every message at one of two due times; the clock may tick between
  // publications, so the expectation is computed from the stamped times.
  const long long target = WallMs() + 300;
  std::vector<std::shared_ptr<TestMsg>> published;
  for (int i = 0; i < 12; ++i) {
    auto msg = std::make_shared<TestMsg>(kType, i);
    const long long aim = target + (i % 3 == 0 ? 50 : 0);
    ASSERT_EQ(0, bus.PublishMsg(msg, aim - WallMs()));
    published.push_back(msg);
  }
  std::vector<std::shared_ptr<TestMsg>> expected = published;
  std::stable_sort(expected.begin(), expected.end(),
                   [](const auto& a, const auto& b) { return a->when < b->when; });
  int ties = 0;
  for (size_t i = 1; i < published.size(); ++i)
    ties += published[i]->when == published[i - 1]->when;
  EXPECT_GT(ties, 0) << "no two messages got the same due time";

  ASSERT_TRUE(log.WaitForCount(published.size()));
  std::vector<int> delivered;
  for (const auto& d : log.All()) delivered.push_back(d.id);
  std::vector<int> expected_ids;
  for (const auto& m : expected) expected_ids.push_back(m->id);
  EXPECT_EQ(expected_ids, delivered);
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, ShorterDelayPublishedLaterIsDeliveredFirst) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1000), 1000));
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 500), 500));
  ASSERT_TRUE(log.WaitForCount(2));
  EXPECT_EQ((std::vector<std::string>{"s:500", "s:1000"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, DelayedMessageOnIdleBusIsDeliveredNoEarlierThanDueAndWithinAboutASecond) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  auto msg = std::make_shared<TestMsg>(kType, 7);
  ASSERT_EQ(0, bus.PublishMsg(msg, 200));
  ASSERT_TRUE(log.WaitForCount(1, 5s));
  const Delivery d = log.All().at(0);
  EXPECT_GE(d.at_ms, msg->when);
  // Noticed at the latest after one more one-second wait (plus slack for a busy machine).
  EXPECT_LE(d.at_ms, msg->when + 2500);
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, PublicationInBetweenMakesDueMessageNoticedAtOnce) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  std::this_thread::sleep_for(100ms);
  // The bus wakes for the delayed message, finds it not due and sleeps up to a second.
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1), 300));
  std::this_thread::sleep_for(400ms);
  ASSERT_TRUE(log.All().empty()) << "delivered before the bus's one-second wait ended";
  const long long nudge_at = WallMs();
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kOtherType, 2)));
  ASSERT_TRUE(log.WaitForCount(1, 5s));
  // Without the wake-up it would have waited for the rest of the second (600 ms or more).
  EXPECT_LT(log.All().at(0).at_ms - nudge_at, 400);
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, NegativeWhenIsDueAtOnce) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  HoldingGate gate;
  auto gate_sub = MakeRecorder("gate", log, gate.Holder());
  bus.Subscribe(kGateType, gate_sub);
  BlockBus(bus, gate);

  auto now_msg = std::make_shared<TestMsg>(kType, 1);
  ASSERT_EQ(0, bus.PublishMsg(now_msg, 0));
  auto past_msg = std::make_shared<TestMsg>(kType, 2);
  ASSERT_EQ(0, bus.PublishMsg(past_msg, -(WallMs() + 10000)));
  EXPECT_LT(past_msg->when, 0);
  gate.Open();

  ASSERT_TRUE(log.WaitForCount(3, 5s));
  // Sorted ahead of the message due now, and delivered with it.
  EXPECT_EQ((std::vector<std::string>{"gate:-1", "s:2", "s:1"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, MessageOfUnsubscribedTypeIsDropped) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  auto orphan = std::make_shared<TestMsg>(kOtherType, 1);
  std::weak_ptr<TestMsg> orphan_ref = orphan;
  ASSERT_EQ(0, bus.PublishMsg(std::move(orphan)));
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 2)));
  ASSERT_TRUE(log.WaitForCount(1));
  EXPECT_EQ((std::vector<std::string>{"s:2"}), log.Names());
  EXPECT_TRUE(orphan_ref.expired()) << "the bus still holds the dropped message";
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, BusWithoutSubscribersReleasesEveryMessage) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  std::promise<void> released;
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1, [&] { released.set_value(); })));
  EXPECT_EQ(std::future_status::ready, released.get_future().wait_for(5s));
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, DestroyedSubscriberIsSkippedOthersReceiveInRegistrationOrder) {
  DeliveryLog log;
  auto first = MakeRecorder("first", log);
  auto doomed = MakeRecorder("doomed", log);
  auto third = MakeRecorder("third", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, first);
  bus.Subscribe(kType, doomed);
  bus.Subscribe(kType, third);
  doomed.reset();
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1)));
  ASSERT_TRUE(log.WaitForCount(2));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"first:1", "third:1"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, SecondSubscriberStartsOnlyAfterFirstReturnedAndNeitherRunsOnBusThread) {
  DeliveryLog log;
  std::atomic<bool> first_running{false};
  std::atomic<bool> first_done{false};
  std::atomic<bool> overlap{false};
  auto first = MakeRecorder("first", log, [&] {
    first_running = true;
    std::this_thread::sleep_for(150ms);
    first_running = false;
    first_done = true;
  });
  auto second = MakeRecorder("second", log, [&] {
    if (first_running || !first_done) overlap = true;
  });
  zel::MsgBus bus;
  bus.Subscribe(kType, first);
  bus.Subscribe(kType, second);
  ASSERT_EQ(0, bus.Start());

  // The bus drops the last reference, so the destructor names the bus thread.
  std::promise<std::thread::id> bus_thread;
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(
                   kType, 1, [&] { bus_thread.set_value(std::this_thread::get_id()); })));
  auto bus_thread_id = bus_thread.get_future();
  ASSERT_EQ(std::future_status::ready, bus_thread_id.wait_for(5s));
  const std::thread::id bus_id = bus_thread_id.get();

  const auto deliveries = log.All();
  ASSERT_EQ(2u, deliveries.size());
  EXPECT_EQ("first", deliveries[0].subscriber);
  EXPECT_EQ("second", deliveries[1].subscriber);
  EXPECT_FALSE(overlap) << "second OnMsg started before the first returned";
  EXPECT_NE(bus_id, deliveries[0].thread);
  EXPECT_NE(bus_id, deliveries[1].thread);
  EXPECT_NE(std::this_thread::get_id(), bus_id);
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, StopThenStartDeliversMessagesQueuedForTheFuture) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1), 300));
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 2), 400));
  ASSERT_EQ(0, bus.Stop());
  std::this_thread::sleep_for(500ms);
  EXPECT_TRUE(log.All().empty());
  ASSERT_EQ(0, bus.Start());
  ASSERT_TRUE(log.WaitForCount(2, 5s));
  EXPECT_EQ((std::vector<std::string>{"s:1", "s:2"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, ConcurrentStartAndStopFromTwoThreadsReturnAndLeaveOneBusThread) {
  constexpr int kRounds = 2000;
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  DeliveryLog traffic;
  auto busy = MakeRecorder("busy", traffic);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  bus.Subscribe(kOtherType, busy);
  std::atomic<bool> done{false};
  std::thread publisher([&] {
    while (!done) {
      bus.PublishMsg(std::make_shared<TestMsg>(kOtherType));
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  zeltest::RaceStartAgainstStop(bus, kRounds, 50);
  done = true;
  publisher.join();
  bus.Start();
  for (int id = 1; id <= 3; ++id)
    ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, id)));
  ASSERT_TRUE(log.WaitForCount(3));
  EXPECT_EQ((std::vector<std::string>{"s:1", "s:2", "s:3"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, UnsubscribedSubscriberReceivesNothing) {
  DeliveryLog log;
  auto gone = MakeRecorder("gone", log);
  auto kept = MakeRecorder("kept", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, gone);
  bus.Subscribe(kType, kept);
  EXPECT_EQ(0, bus.Unsubscribe(kType, gone));
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1)));
  ASSERT_TRUE(log.WaitForCount(1));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"kept:1"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, UnsubscribeOfUnknownSubscriberReturnsMinusOne) {
  DeliveryLog log;
  auto known = MakeRecorder("known", log);
  auto stranger = MakeRecorder("stranger", log);
  zel::MsgBus bus;
  EXPECT_EQ(-1, bus.Unsubscribe(kType, known));
  EXPECT_EQ(0, bus.Subscribe(kType, known));
  EXPECT_EQ(-1, bus.Unsubscribe(kType, stranger));
  EXPECT_EQ(-1, bus.Unsubscribe(kOtherType, known));
  EXPECT_EQ(0, bus.Unsubscribe(kType, known));
  EXPECT_EQ(-1, bus.Unsubscribe(kType, known));
}

TEST(MsgBus, SubscriberMayPublishFromOnMsg) {
  DeliveryLog log;
  zel::MsgBus bus;
  auto relay = MakeRecorder("relay", log, [&] {
    EXPECT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kOtherType, 2)));
  });
  auto sink = MakeRecorder("sink", log);
  bus.Subscribe(kType, relay);
  bus.Subscribe(kOtherType, sink);
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1)));
  ASSERT_TRUE(log.WaitForCount(2, 5s));
  EXPECT_EQ((std::vector<std::string>{"relay:1", "sink:2"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

// Code that runs on the bus thread: the destructor of a message the bus
// releases. The test must not hold a reference of its own.
void RunOnBusThread(zel::MsgBus& bus, std::function<void()> fn) {
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kOtherType, 0, std::move(fn)), 50));
}

// A bus stopped from its own thread detaches it; give it time to leave.
void LetDetachedBusThreadExit() { std::this_thread::sleep_for(300ms); }

TEST(MsgBus, StopFromBusThreadReturnsZeroAndLaterStopPrintsAlreadyStoped) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  std::promise<int> stop_result;
  RunOnBusThread(bus, [&] { stop_result.set_value(bus.Stop()); });
  auto result = stop_result.get_future();
  ASSERT_EQ(std::future_status::ready, result.wait_for(5s));
  EXPECT_EQ(0, result.get());
  LetDetachedBusThreadExit();

  testing::internal::CaptureStdout();
  const int second = bus.Stop();
  std::fflush(stdout);
  EXPECT_EQ("already stoped \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(-1, second);
}

TEST(MsgBus, RepeatedStopOnTheBusThreadReturnsZeroWithoutPrinting) {
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  std::promise<std::pair<int, int>> results;
  testing::internal::CaptureStdout();
  RunOnBusThread(bus, [&] {
    const int first = bus.Stop();
    const int second = bus.Stop();  // the bus thread never asks "already stopped?"
    results.set_value({first, second});
  });
  auto done = results.get_future();
  ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
  LetDetachedBusThreadExit();
  std::fflush(stdout);
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ((std::pair<int, int>{0, 0}), done.get());
}

TEST(MsgBus, DestroyingABusThatStoppedItselfWaitsForItsThreadToLetGo) {
  auto* bus = new zel::MsgBus();
  ASSERT_EQ(0, bus->Start());
  std::atomic<bool> finished{false};
  std::promise<void> stopped;
  RunOnBusThread(*bus, [&] {
    bus->Stop();
    stopped.set_value();
    std::this_thread::sleep_for(300ms);  // the bus thread is slow to leave
    finished = true;
  });
  ASSERT_EQ(std::future_status::ready, stopped.get_future().wait_for(5s));
  delete bus;  // the detached thread must not outlive the object it reads
  EXPECT_TRUE(finished.load());
}

TEST(MsgBus, BusThreadPublicationsAreAcceptedAfterItStoppedTheBus) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  std::promise<std::vector<int>> results;
  RunOnBusThread(bus, [&] {
    const int stop = bus.Stop();
    // Neither form consults `stopped` on the bus thread.
    const int now = bus.PublishMsg(std::make_shared<TestMsg>(kType, 1));
    const int later = bus.PublishMsg(std::make_shared<TestMsg>(kType, 2), 0);
    results.set_value({stop, now, later});
  });
  auto done = results.get_future();
  ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
  EXPECT_EQ((std::vector<int>{0, 0, 0}), done.get());
  LetDetachedBusThreadExit();
  EXPECT_TRUE(log.All().empty());
  // Another thread's publication is refused while stopped.
  EXPECT_EQ(-1, bus.PublishMsg(std::make_shared<TestMsg>(kType, 3)));

  ASSERT_EQ(0, bus.Start());
  ASSERT_TRUE(log.WaitForCount(2, 5s));
  EXPECT_EQ((std::vector<std::string>{"s:1", "s:2"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, BusThreadDelayedPublicationIsDeliveredWhenDue) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  ASSERT_EQ(0, bus.Start());
  std::promise<std::pair<int, long long>> published;
  RunOnBusThread(bus, [&] {
    auto msg = std::make_shared<TestMsg>(kType, 1);
    const int result = bus.PublishMsg(msg, 100);
    published.set_value({result, msg->when});
  });
  auto done = published.get_future();
  ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
  const auto [result, when] = done.get();
  EXPECT_EQ(0, result);
  ASSERT_TRUE(log.WaitForCount(1, 5s));
  EXPECT_GE(log.All().at(0).at_ms, when);
  EXPECT_EQ(0, bus.Stop());
}

// Waits until a Stop from another thread has marked `bus` stopped, seen as
// the refusal of a probe publication.
bool WaitUntilPublicationsAreRefused(zel::MsgBus& bus) {
  return WaitUntil([&] { return bus.PublishMsg(std::make_shared<TestMsg>(kOtherType)) != 0; });
}

TEST(MsgBus, StartAfterItStoppedItselfReturnsAtOnceAndTheNewThreadDeliversTheOldBatch) {
  DeliveryLog log;
  auto sub = MakeRecorder("s", log);
  zel::MsgBus bus;
  bus.Subscribe(kType, sub);
  HoldingGate gate;
  auto gateSub = MakeRecorder("gate", log, gate.Holder());
  bus.Subscribe(kGateType, gateSub);
  ASSERT_EQ(0, bus.Start());
  BlockBus(bus, gate);
  std::promise<void> stopped;
  std::promise<void> started;
  std::shared_future<void> startedFuture = started.get_future().share();
  // One batch: a message whose release stops the bus and then waits for what
  // the caller of Start does once Start returned, and two behind it.
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kOtherType, 0, [&] {
    bus.Stop();
    stopped.set_value();
    startedFuture.wait_for(30s);
  })));
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1)));
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 2)));
  gate.Open();
  ASSERT_EQ(std::future_status::ready, stopped.get_future().wait_for(10s));

  auto start = std::async(std::launch::async, [&] { return bus.Start(); });
  const bool returned = start.wait_for(5s) == std::future_status::ready;
  started.set_value();  // lets a Start that waited for the old thread go on, too
  ASSERT_TRUE(returned) << "Start waited for the old bus thread";
  EXPECT_EQ(0, start.get());
  ASSERT_TRUE(log.WaitForCount(3, 10s));
  EXPECT_EQ((std::vector<std::string>{"gate:-1", "s:1", "s:2"}), log.Names());
  EXPECT_EQ(0, bus.Stop());
}

TEST(MsgBus, SubscriberStartingTheBusWhileAnotherThreadsStopJoinsItIsRefusedAtOnce) {
  DeliveryLog log;
  zel::MsgBus bus;
  std::promise<void> entered;
  std::promise<void> joining;
  std::shared_future<void> joiningFuture = joining.get_future().share();
  std::atomic<int> startResult{99};
  auto starter = MakeRecorder("starter", log, [&] {
    entered.set_value();
    joiningFuture.wait_for(30s);
    startResult = bus.Start();
  });
  bus.Subscribe(kType, starter);
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, 1)));
  ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(10s));
  auto stop = std::async(std::launch::async, [&] { return bus.Stop(); });
  ASSERT_TRUE(WaitUntilPublicationsAreRefused(bus));  // the Stop is joining the bus thread
  joining.set_value();
  ASSERT_EQ(std::future_status::ready, stop.wait_for(10s)) << "Stop and Start wait for each other";
  EXPECT_EQ(0, stop.get());
  EXPECT_EQ(-1, startResult.load());
  EXPECT_EQ(-1, bus.PublishMsg(std::make_shared<TestMsg>(kType, 2)));  // still stopped
}

TEST(MsgBus, QueueFollowsAMessageReStampedByAnotherBus) {
  DeliveryLog log;
  auto sub = MakeRecorder("a", log);
  zel::MsgBus a;
  zel::MsgBus b;
  a.Subscribe(kType, sub);
  ASSERT_EQ(0, a.Start());
  ASSERT_EQ(0, b.Start());
  auto x = std::make_shared<TestMsg>(kType, 1);
  const long long start = WallMs();
  ASSERT_EQ(0, a.PublishMsg(x, 100));
  ASSERT_EQ(0, a.PublishMsg(std::make_shared<TestMsg>(kType, 2), 400));
  ASSERT_EQ(0, b.PublishMsg(x, 1200));  // x is due later now, on both buses
  ASSERT_EQ(0, a.PublishMsg(std::make_shared<TestMsg>(kType, 3), 600));
  ASSERT_TRUE(log.WaitForCount(3, 10s));
  EXPECT_EQ((std::vector<std::string>{"a:2", "a:3", "a:1"}), log.Names());
  const auto deliveries = log.All();
  EXPECT_GE(deliveries[0].at_ms - start, 400);
  EXPECT_GE(deliveries[2].at_ms - start, 1200);
  EXPECT_EQ(0, a.Stop());
  EXPECT_EQ(0, b.Stop());
}

TEST(MsgBus, QueueFollowsAMessageReStampedByAPublicationRefusedElsewhere) {
  DeliveryLog log;
  auto sub = MakeRecorder("a", log);
  zel::MsgBus a;
  zel::MsgBus stopped;
  a.Subscribe(kType, sub);
  ASSERT_EQ(0, a.Start());
  auto x = std::make_shared<TestMsg>(kType, 1);
  ASSERT_EQ(0, a.PublishMsg(x, 100));
  ASSERT_EQ(0, a.PublishMsg(std::make_shared<TestMsg>(kType, 2), 400));
  EXPECT_EQ(-1, stopped.PublishMsg(x, 1200));  // refused, but x is stamped all the same
  ASSERT_EQ(0, a.PublishMsg(std::make_shared<TestMsg>(kType, 3), 600));
  ASSERT_TRUE(log.WaitForCount(3, 10s));
  EXPECT_EQ((std::vector<std::string>{"a:2", "a:3", "a:1"}), log.Names());
  EXPECT_EQ(0, a.Stop());
}

TEST(MsgBus, DestroyedByAMessageItReleasesItsThreadLeavesWithoutTouchingIt) {
  std::atomic<int> released{0};
  auto* bus = new zel::MsgBus();
  DeliveryLog log;
  HoldingGate gate;
  auto gateSub = MakeRecorder("gate", log, gate.Holder());
  bus->Subscribe(kGateType, gateSub);
  ASSERT_EQ(0, bus->Start());
  BlockBus(*bus, gate);
  std::promise<void> deleted;
  // One batch: the message whose release destroys the bus, and one behind it.
  ASSERT_EQ(0, bus->PublishMsg(std::make_shared<TestMsg>(kOtherType, 0, [&] {
    delete bus;
    deleted.set_value();
  })));
  ASSERT_EQ(0, bus->PublishMsg(std::make_shared<TestMsg>(kOtherType, 0, [&] { ++released; })));
  gate.Open();
  ASSERT_EQ(std::future_status::ready, deleted.get_future().wait_for(10s));
  WaitUntil([&] { return released != 0; });
  EXPECT_EQ(1, released.load());  // released once, undelivered
}

TEST(MsgBus, DestroyingRunningBusReleasesQueuedMessages) {
  auto msg = std::make_shared<TestMsg>(kType, 1);
  std::weak_ptr<TestMsg> ref = msg;
  {
    zel::MsgBus bus;
    ASSERT_EQ(0, bus.Start());
    ASSERT_EQ(0, bus.PublishMsg(std::move(msg), 60000));
    EXPECT_FALSE(ref.expired());
  }
  EXPECT_TRUE(ref.expired());
}

// Records message ids and due times; checks that deliveries never overlap.
class StressSubscriber : public zel::MsgSubscriber {
 public:
  explicit StressSubscriber(std::atomic<int>& in_delivery, std::atomic<bool>& overlap)
      : in_delivery_(in_delivery), overlap_(overlap) {}
  void OnMsg(int, std::shared_ptr<zel::BaseMsg> msg) override {
    if (in_delivery_.fetch_add(1) != 0) overlap_ = true;
    received_.Add({static_cast<TestMsg*>(msg.get())->id, msg->when});
    in_delivery_.fetch_sub(1);
  }
  std::vector<std::pair<int, long long>> Received() { return received_.All(); }
  size_t Count() const { return received_.Size(); }

 private:
  std::atomic<int>& in_delivery_;
  std::atomic<bool>& overlap_;
  zeltest::Collected<std::pair<int, long long>> received_;
};

// Thread creation under the sanitizers costs about ten times as much; fewer
// messages keep those runs within bounds.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kStressPerPublisher = 2000;
constexpr int kStressPerSecond = 1200;
#else
constexpr int kStressPerPublisher = 10000;
constexpr int kStressPerSecond = 8000;
#endif

TEST(MsgBus, StressFourPublishersThreeSubscribersEachMessageOnceInDueOrder) {
  constexpr int kPublishers = 4;
  constexpr int kPerPublisher = kStressPerPublisher;
  // Publishers keep to a pace the deliveries (one thread each) can follow,
  // so that the test measures the bus rather than an unbounded backlog.
  constexpr auto kInterval = std::chrono::microseconds(1000000LL * kPublishers / kStressPerSecond);
  constexpr int kTotal = kPublishers * kPerPublisher;

  std::atomic<int> in_delivery{0};
  std::atomic<bool> overlap{false};
  std::vector<std::shared_ptr<StressSubscriber>> subs;
  zel::MsgBus bus;
  for (int i = 0; i < 3; ++i) {
    subs.push_back(std::make_shared<StressSubscriber>(in_delivery, overlap));
    bus.Subscribe(kType, subs.back());
  }
  {
    auto dead = std::make_shared<StressSubscriber>(in_delivery, overlap);
    bus.Subscribe(kType, dead);
  }
  ASSERT_EQ(0, bus.Start());

  // Wall-clock millisecond at which each publication had returned.
  std::vector<long long> published_by(kTotal, 0);
  std::vector<std::thread> publishers;
  for (int p = 0; p < kPublishers; ++p) {
    publishers.emplace_back([&, p] {
      std::mt19937 rng(1234u + p);
      std::uniform_int_distribution<int> delay(-50, 200);
      auto next = std::chrono::steady_clock::now();
      for (int i = 0; i < kPerPublisher; ++i) {
        const int id = p * kPerPublisher + i;
        EXPECT_EQ(0, bus.PublishMsg(std::make_shared<TestMsg>(kType, id), delay(rng)));
        published_by[id] = WallMs();
        next += kInterval;
        std::this_thread::sleep_until(next);
      }
    });
  }
  for (auto& t : publishers) t.join();

  WaitUntil(
      [&] {
        for (auto& sub : subs) {
          if (sub->Count() < static_cast<size_t>(kTotal)) return false;
        }
        return true;
      },
      100s, 20ms);
  EXPECT_EQ(0, bus.Stop());
  EXPECT_FALSE(overlap) << "two deliveries ran at the same time";

  for (size_t s = 0; s < subs.size(); ++s) {
    const auto received = subs[s]->Received();
    ASSERT_EQ(static_cast<size_t>(kTotal), received.size()) << "subscriber " << s;
    std::vector<int> times_seen(kTotal, 0);
    for (const auto& r : received) ++times_seen[r.first];
    EXPECT_EQ(kTotal, std::count(times_seen.begin(), times_seen.end(), 1)) << "subscriber " << s;

    // Due order: a message may follow one due later only if it was published
    // after that one had been taken, i.e. not before the later one's due time.
    long long latest_when = LLONG_MIN;
    int out_of_order = 0;
    for (const auto& [id, when] : received) {
      if (latest_when > std::max(when, published_by[id])) ++out_of_order;
      latest_when = std::max(latest_when, when);
    }
    EXPECT_EQ(0, out_of_order) << "subscriber " << s;
  }
}

}  // namespace
