// MsgBus under many publishing threads: every message reaches every live
// subscriber exactly once, in due order; across Stop/Start cycles every
// message is delivered at most once and released exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "utils/msg_bus.h"

namespace {

using namespace std::chrono_literals;

constexpr int kPublishers = 8;
constexpr int kPerPublisher = 1000 / ZEL_STRESS_DIVISOR;
constexpr int kType = 1;

struct Ledger {
  explicit Ledger(int size) : released(size) {}
  std::vector<std::atomic<int>> released;
};

struct Numbered : zel::BaseMsg {
  Numbered(Ledger* ledger, int id) : BaseMsg(kType), ledger(ledger), id(id) {}
  ~Numbered() override { ++ledger->released[id]; }
  Ledger* ledger;
  int id;
};

// Records (when, id) of every delivery.
class Counter : public zel::MsgSubscriber {
 public:
  void OnMsg(int, std::shared_ptr<zel::BaseMsg> msg) override {
    const auto* m = static_cast<const Numbered*>(msg.get());
    seen_.Add({m->when, m->id});
  }
  std::vector<std::pair<long long, int>> Seen() { return seen_.All(); }
  size_t Count() const { return seen_.Size(); }

 private:
  zeltest::Collected<std::pair<long long, int>> seen_;
};

TEST(MsgBusStress, EightPublishersEveryMessageOnceToEachSubscriberInDueOrder) {
  const int total = kPublishers * kPerPublisher;
  Ledger ledger(total);
  std::vector<std::shared_ptr<Counter>> subscribers{std::make_shared<Counter>(),
                                                    std::make_shared<Counter>()};
  {
    zel::MsgBus bus;
    for (const auto& s : subscribers) bus.Subscribe(kType, s);
    ASSERT_EQ(0, bus.Start());
    std::vector<std::thread> publishers;
    for (int p = 0; p < kPublishers; ++p) {
      publishers.emplace_back([&, p] {
        for (int i = 0; i < kPerPublisher; ++i) {
          auto msg = std::make_shared<Numbered>(&ledger, p * kPerPublisher + i);
          // Immediate and delayed (up to 50 ms) publications interleave.
          const int result = i % 3 == 0 ? bus.PublishMsg(msg) : bus.PublishMsg(msg, i % 50);
          EXPECT_EQ(0, result);
        }
      });
    }
    for (auto& t : publishers) t.join();
    zeltest::WaitUntil([&] { return subscribers.back()->Count() >= static_cast<size_t>(total); },
                       120s, 10ms);
    EXPECT_EQ(0, bus.Stop());
  }
  for (const auto& s : subscribers) {
    const auto seen = s->Seen();
    ASSERT_EQ(static_cast<size_t>(total), seen.size());
    std::vector<int> position(total, -1);
    std::vector<long long> when(total);
    for (size_t i = 0; i < seen.size(); ++i) {
      ASSERT_EQ(-1, position[seen[i].second]) << "delivered twice: " << seen[i].second;
      position[seen[i].second] = static_cast<int>(i);
      when[seen[i].second] = seen[i].first;
    }
    // Of two messages of one publisher, the earlier one, if not due later,
    // is delivered first (the queue is kept sorted, stably).
    for (int p = 0; p < kPublishers; ++p) {
      for (int i = p * kPerPublisher; i < (p + 1) * kPerPublisher; ++i) {
        for (int j = i + 1; j < (p + 1) * kPerPublisher; ++j) {
          if (when[i] <= when[j]) {
            ASSERT_LT(position[i], position[j]) << i << " before " << j;
          }
        }
      }
    }
  }
  for (int id = 0; id < total; ++id) ASSERT_EQ(1, ledger.released[id].load()) << id;
}

TEST(MsgBusStress, PublishersAgainstStopStartCyclesDeliverAtMostOnceAndReleaseOnce) {
  const int total = kPublishers * kPerPublisher;
  Ledger ledger(total);
  auto subscriber = std::make_shared<Counter>();
  {
    zel::MsgBus bus;
    bus.Subscribe(kType, subscriber);
    ASSERT_EQ(0, bus.Start());
    std::atomic<bool> publishing{true};
    std::thread toggler([&] {
      for (int cycle = 0; cycle < 100 && publishing; ++cycle) {
        std::this_thread::sleep_for(2ms);
        EXPECT_EQ(0, bus.Stop());
        EXPECT_EQ(0, bus.Start());
      }
    });
    std::vector<std::thread> publishers;
    for (int p = 0; p < kPublishers; ++p) {
      publishers.emplace_back([&, p] {
        for (int i = 0; i < kPerPublisher; ++i) {
          bus.PublishMsg(std::make_shared<Numbered>(&ledger, p * kPerPublisher + i), i % 5);
          if (i % 16 == 15) std::this_thread::sleep_for(200us);
        }
      });
    }
    for (auto& t : publishers) t.join();
    publishing = false;
    toggler.join();
  }
  std::vector<int> deliveries(total, 0);
  for (const auto& entry : subscriber->Seen()) ++deliveries[entry.second];
  for (int id = 0; id < total; ++id) {
    ASSERT_LE(deliveries[id], 1) << id;
    ASSERT_EQ(1, ledger.released[id].load()) << id;
  }
}

// Released on the bus thread (nobody subscribes to its type, and nobody else
// holds it): its destructor publishes the next link with a delay of 0.
struct ChainLink : zel::BaseMsg {
  ChainLink(zel::MsgBus* bus, std::atomic<int>* links, int length)
      : BaseMsg(kChainType), bus(bus), links(links), length(length) {}
  ~ChainLink() override {
    if (++*links < length) bus->PublishMsg(std::make_shared<ChainLink>(bus, links, length), 0);
  }
  static constexpr int kChainType = 7;
  zel::MsgBus* bus;
  std::atomic<int>* links;
  int length;
};

TEST(MsgBusStress, BusThreadsDelayedSelfPublicationsLoseNoLinkWhileTwoThreadsPublish) {
  constexpr int kChain = 1000000 / ZEL_STRESS_DIVISOR;
  constexpr int kPerThread = 1000000 / ZEL_STRESS_DIVISOR;
  std::atomic<int> links{0};
  zel::MsgBus bus;
  ASSERT_EQ(0, bus.Start());
  ASSERT_EQ(0, bus.PublishMsg(std::make_shared<ChainLink>(&bus, &links, kChain)));
  std::vector<std::thread> publishers;
  for (int p = 0; p < 2; ++p) {
    publishers.emplace_back([&] {
      for (int i = 0; i < kPerThread; ++i) bus.PublishMsg(std::make_shared<zel::BaseMsg>(kType));
    });
  }
  for (auto& t : publishers) t.join();
  zeltest::WaitUntil([&] { return links >= kChain; }, 60s, 10ms);
  EXPECT_EQ(kChain, links.load());
  EXPECT_EQ(0, bus.Stop());
}

}  // namespace
