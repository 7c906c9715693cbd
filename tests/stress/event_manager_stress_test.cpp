// EventManager under many threads: senders, and registrations changing
// meanwhile; every queued callback is called exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "utils/event_manager.h"

namespace {

using namespace std::chrono_literals;

constexpr int kSenders = 8;
constexpr int kSendsPerSender = 5000 / ZEL_STRESS_DIVISOR;

std::atomic<long> gFirst{0}, gSecond{0}, gChurn{0};
void First(void*) { ++gFirst; }
void Second(void*) { ++gSecond; }
void Churn(void*) { ++gChurn; }

TEST(EventManagerStress, ManySendersWhileOthersRegisterEveryCallbackOnce) {
  zel::EventManager& events = zel::EventManager::getInstance();
  events.registerEvent("stable", &First, nullptr);
  events.registerEvent("stable", &Second, nullptr);
  std::atomic<bool> sending{true};
  // Registrations of another name come and go all the while.
  std::thread churner([&] {
    while (sending) {
      events.registerEvent("churn", &Churn, nullptr);
      events.sendEvent("churn");
      events.unregisterEvent("churn", &Churn);
      events.sendEvent("churn");  // nothing registered: queues nothing
    }
  });
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&] {
      for (int i = 0; i < kSendsPerSender; ++i) events.sendEvent("stable");
    });
  }
  for (auto& t : senders) t.join();
  sending = false;
  churner.join();
  const long expected = static_cast<long>(kSenders) * kSendsPerSender;
  zeltest::WaitUntil([&] { return gFirst >= expected && gSecond >= expected; }, 60s, 10ms);
  std::this_thread::sleep_for(100ms);  // nothing more may come
  EXPECT_EQ(expected, gFirst.load());
  EXPECT_EQ(expected, gSecond.load());
  events.stop();
}

}  // namespace
