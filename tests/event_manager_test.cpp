#include "utils/event_manager.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/sync.h"
// Interposed for this program (definition at the end): while set,
// notify_one of every condition variable does nothing, as if the
// notification had been lost.
std::atomic<bool> gLoseNotifications{false};

// Each test case runs in its own process, so every test gets a fresh manager.
namespace {

using namespace std::chrono_literals;

// What the callbacks did, in call order.
using CallLog = zeltest::Collected<std::string>;

// The context word handed to a callback: where to record, under which label.
struct Tag {
  CallLog* log;
  std::string label;
};

void Record(void* arg) {
  auto* tag = static_cast<Tag*>(arg);
  tag->log->Add(tag->label);
}

// A second function, so that unregistering one leaves the other.
void RecordToo(void* arg) {
  auto* tag = static_cast<Tag*>(arg);
  tag->log->Add(tag->label + "'");
}

// Holds the event thread inside a callback registered under "gate" until
// gate.Open(), so that later sendings pile up in the queue; returns once the
// event thread is inside it.
void HoldEventThread(zeltest::HoldingGate& gate) {
  zel::EventManager::getInstance().registerEvent(
      "gate", [](void* arg) { static_cast<zeltest::HoldingGate*>(arg)->Hold(); }, &gate);
  zel::EventManager::getInstance().sendEvent("gate");
  gate.WaitEntered();
}

zel::EventManager& Events() { return zel::EventManager::getInstance(); }

TEST(EventManager, GetInstanceReturnsTheSameObject) {
  EXPECT_EQ(&zel::EventManager::getInstance(), &zel::EventManager::getInstance());
}

TEST(EventManager, SendEventOfUnknownNameDoesNothing) {
  CallLog log;
  Tag tag{&log, "known"};
  Events().registerEvent("known", &Record, &tag);
  Events().sendEvent("unknown");
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(log.All().empty());
  Events().sendEvent("known");
  ASSERT_TRUE(log.WaitForCount(1));
  EXPECT_EQ((std::vector<std::string>{"known"}), log.All());
}

TEST(EventManager, CallbacksRunInRegistrationOrderWithTheirArguments) {
  CallLog log;
  Tag a{&log, "a"}, b{&log, "b"}, c{&log, "c"};
  Events().registerEvent("e", &Record, &a);
  Events().registerEvent("e", &RecordToo, &b);
  Events().registerEvent("e", &Record, &c);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(3));
  EXPECT_EQ((std::vector<std::string>{"a", "b'", "c"}), log.All());
}

TEST(EventManager, SameFunctionWithTwoArgumentsIsCalledTwicePerSending) {
  CallLog log;
  Tag first{&log, "first"}, second{&log, "second"};
  Events().registerEvent("e", &Record, &first);
  Events().registerEvent("e", &Record, &second);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(2));
  EXPECT_EQ((std::vector<std::string>{"first", "second"}), log.All());
}

TEST(EventManager, DuplicatePairIsCalledOncePerAppearance) {
  CallLog log;
  Tag tag{&log, "dup"};
  Events().registerEvent("e", &Record, &tag);
  Events().registerEvent("e", &Record, &tag);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(2));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"dup", "dup"}), log.All());
}

TEST(EventManager, UnregisterRemovesEveryPairOfThatFunctionWhateverItsArgument) {
  CallLog log;
  Tag first{&log, "first"}, other{&log, "other"}, second{&log, "second"};
  Events().registerEvent("e", &Record, &first);
  Events().registerEvent("e", &RecordToo, &other);
  Events().registerEvent("e", &Record, &second);
  Events().unregisterEvent("e", &Record);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(1));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"other'"}), log.All());
}

TEST(EventManager, UnregisterOfUnknownNameOrFunctionChangesNothing) {
  CallLog log;
  Tag tag{&log, "kept"};
  Events().registerEvent("e", &Record, &tag);
  Events().unregisterEvent("nobody", &Record);
  Events().unregisterEvent("e", &RecordToo);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(1));
  EXPECT_EQ((std::vector<std::string>{"kept"}), log.All());
}

TEST(EventManager, AfterLastUnregisterNameIsUnknownAndStartsAFreshList) {
  CallLog log;
  Tag old_tag{&log, "old"}, new_tag{&log, "new"};
  Events().registerEvent("e", &Record, &old_tag);
  Events().unregisterEvent("e", &Record);
  Events().sendEvent("e");
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(log.All().empty());

  Events().registerEvent("e", &RecordToo, &new_tag);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(1));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"new'"}), log.All());
}

TEST(EventManager, SendEventReturnsWithoutWaitingForCallbacks) {
  zeltest::HoldingGate gate;
  HoldEventThread(gate);
  // The event thread is held inside the gate callback; sending does not wait for it.
  CallLog log;
  Tag tag{&log, "queued"};
  Events().registerEvent("e", &Record, &tag);
  Events().sendEvent("e");
  EXPECT_TRUE(log.All().empty());
  gate.Open();
  ASSERT_TRUE(log.WaitForCount(1));
}

TEST(EventManager, CallbacksRunOnTheEventThreadOneAtATime) {
  struct Probe {
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};
    std::mutex mutex;
    std::vector<std::thread::id> threads;
  } probe;
  auto callback = [](void* arg) {
    auto* p = static_cast<Probe*>(arg);
    if (p->inside.fetch_add(1) != 0) p->overlap = true;
    std::this_thread::sleep_for(2ms);
    p->inside.fetch_sub(1);
    // Last step: once the count is complete the test may end.
    std::lock_guard<std::mutex> lock(p->mutex);
    p->threads.push_back(std::this_thread::get_id());
  };
  Events().registerEvent("e", callback, &probe);

  constexpr int kSenders = 2, kSends = 20;
  std::vector<std::thread> senders;
  std::vector<std::thread::id> sender_ids;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([] {
      for (int i = 0; i < kSends; ++i) Events().sendEvent("e");
    });
    sender_ids.push_back(senders.back().get_id());
  }
  for (auto& t : senders) t.join();
  zeltest::WaitUntil(
      [&] {
        std::lock_guard<std::mutex> lock(probe.mutex);
        return probe.threads.size() >= kSenders * kSends;
      },
      10s, 10ms);

  std::lock_guard<std::mutex> lock(probe.mutex);
  ASSERT_EQ(static_cast<size_t>(kSenders * kSends), probe.threads.size());
  EXPECT_FALSE(probe.overlap);
  for (const auto& id : probe.threads) {
    EXPECT_EQ(probe.threads.front(), id);
    EXPECT_NE(std::this_thread::get_id(), id);
    for (const auto& sender : sender_ids) EXPECT_NE(sender, id);
  }
}

TEST(EventManager, CallbackUnregisteredAfterSendingIsStillCalledForThatSending) {
  zeltest::HoldingGate gate;
  HoldEventThread(gate);
  CallLog log;
  Tag tag{&log, "late"};
  Events().registerEvent("e", &Record, &tag);
  Events().sendEvent("e");
  Events().unregisterEvent("e", &Record);
  gate.Open();
  ASSERT_TRUE(log.WaitForCount(1));
  Events().sendEvent("e");
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ((std::vector<std::string>{"late"}), log.All());
}

TEST(EventManager, CallbackRegisteredAfterSendingIsNotCalledForIt) {
  zeltest::HoldingGate gate;
  HoldEventThread(gate);
  CallLog log;
  Tag early{&log, "early"}, late{&log, "late"};
  Events().registerEvent("e", &Record, &early);
  Events().sendEvent("e");
  Events().registerEvent("e", &Record, &late);
  gate.Open();
  ASSERT_TRUE(log.WaitForCount(1));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"early"}), log.All());

  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(3));
  EXPECT_EQ((std::vector<std::string>{"early", "early", "late"}), log.All());
}

TEST(EventManager, SendingTwiceCallsAllOfTheFirstSendingThenAllOfTheSecond) {
  zeltest::HoldingGate gate;
  HoldEventThread(gate);
  CallLog log;
  Tag a{&log, "a"}, b{&log, "b"};
  Events().registerEvent("e", &Record, &a);
  Events().registerEvent("e", &Record, &b);
  Events().sendEvent("e");
  Events().sendEvent("e");
  gate.Open();
  ASSERT_TRUE(log.WaitForCount(4));
  EXPECT_EQ((std::vector<std::string>{"a", "b", "a", "b"}), log.All());
}

// Context of a callback that sends another event from the event thread.
struct Chain {
  CallLog* log;
  std::string next;
};

void SendNextThenRecord(void* arg) {
  auto* chain = static_cast<Chain*>(arg);
  chain->log->Add("relay start");
  Events().sendEvent(chain->next);
  // The event just sent must not run before this callback returned.
  std::this_thread::sleep_for(50ms);
  chain->log->Add("relay end");
}

TEST(EventManager, EventSentFromACallbackRunsAfterItAndAfterWhatWasQueued) {
  CallLog log;
  Chain chain{&log, "second"};
  Tag queued{&log, "queued"}, second{&log, "second"};
  Events().registerEvent("first", &SendNextThenRecord, &chain);
  Events().registerEvent("first", &Record, &queued);
  Events().registerEvent("second", &Record, &second);
  Events().sendEvent("first");
  ASSERT_TRUE(log.WaitForCount(4));
  EXPECT_EQ((std::vector<std::string>{"relay start", "relay end", "queued", "second"}), log.All());
}

// Context of a callback that changes the table from the event thread.
struct Rewire {
  CallLog* log;
  Tag* added;
};

void RegisterAnotherAndUnregisterSelf(void* arg) {
  auto* rewire = static_cast<Rewire*>(arg);
  Events().registerEvent("e", &Record, rewire->added);
  Events().unregisterEvent("e", &RegisterAnotherAndUnregisterSelf);
  rewire->log->Add("rewire");
}

TEST(EventManager, CallbackMayRegisterAndUnregister) {
  CallLog log;
  Tag added{&log, "added"};
  Rewire rewire{&log, &added};
  Events().registerEvent("e", &RegisterAnotherAndUnregisterSelf, &rewire);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(1));
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(2));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ((std::vector<std::string>{"rewire", "added"}), log.All());
}

TEST(EventManager, EventsSentAfterStopAreNeverCalled) {
  CallLog log;
  Tag tag{&log, "e"};
  Events().registerEvent("e", &Record, &tag);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(1));
  Events().stop();
  Events().sendEvent("e");
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ((std::vector<std::string>{"e"}), log.All());
  // The process then exits with the sending still queued, never calling it.
}

TEST(EventManager, StopWhileCallbacksAreQueuedNeverCallsThem) {
  CallLog log;
  Tag tag{&log, "e"};
  zeltest::HoldingGate gate;
  HoldEventThread(gate);  // the event thread is inside a callback now
  Events().registerEvent("e", &Record, &tag);
  Events().sendEvent("e");
  Events().sendEvent("e");
  std::thread stopper([] { Events().stop(); });
  std::this_thread::sleep_for(100ms);  // stop() has stored the flag and waits
  gate.Open();
  stopper.join();
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(log.All().empty());
}

void Throw(void*) { throw std::runtime_error("callback failed"); }

TEST(EventManagerDeathTest, CallbackThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Events().registerEvent("throws", &Throw, nullptr);
        Events().sendEvent("throws");
        std::this_thread::sleep_for(5s);
      },
      "");
}

TEST(EventManager, StopWhoseNotificationIsLostStillEndsTheEventThread) {
  CallLog log;
  Tag tag{&log, "e"};
  Events().registerEvent("e", &Record, &tag);
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(1));  // the event thread is running, about to wait
  std::this_thread::sleep_for(50ms);
  gLoseNotifications = true;
  // Heap state: if stop() never returns, the thread outlives this test.
  auto stopped = std::make_shared<std::atomic<bool>>(false);
  std::thread([stopped] {
    Events().stop();
    *stopped = true;
  }).detach();
  zeltest::WaitUntil([&] { return stopped->load(); }, 5s, 5ms);
  gLoseNotifications = false;
  EXPECT_TRUE(stopped->load()) << "stop() still waits for the event thread";
  while (!*stopped) {  // let a hung stop() finish, so the process can exit
    Events().sendEvent("e");
    std::this_thread::sleep_for(10ms);
  }
}

TEST(EventManager, ATableOfItsOwnHasItsOwnEventThreadAndStopsWhenDestroyed) {
  CallLog log;
  Tag own{&log, "own"};
  Tag shared{&log, "shared"};
  {
    zel::EventManager table;
    EXPECT_NE(&table, &zel::EventManager::getInstance());
    table.registerEvent("e", &Record, &own);
    Events().registerEvent("e", &RecordToo, &shared);
    table.sendEvent("e");
    ASSERT_TRUE(log.WaitForCount(1));
    EXPECT_EQ((std::vector<std::string>{"own"}), log.All());  // tables do not share names
  }
  // Destroyed: its thread was joined, and the process-wide table still works.
  Events().sendEvent("e");
  ASSERT_TRUE(log.WaitForCount(2));
  EXPECT_EQ((std::vector<std::string>{"own", "shared'"}), log.All());
}

TEST(EventManager, SecondStopReturnsAtOnce) {
  Events().stop();
  const auto start = std::chrono::steady_clock::now();
  Events().stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

}  // namespace

// The library's notify_one goes through here (an executable's definition
// comes first in symbol lookup); the real one is libstdc++'s.
namespace std {
void condition_variable::notify_one() noexcept {
  using NotifyOne = void (*)(condition_variable*);
  static const auto real =
      reinterpret_cast<NotifyOne>(dlsym(RTLD_NEXT, "_ZNSt18condition_variable10notify_oneEv"));
  if (!gLoseNotifications) real(this);
}
}  // namespace std
