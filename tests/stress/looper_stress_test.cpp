// Looper under many threads: posters against Stop/Start cycles, and Start
// racing Stop. Every message is destroyed exactly once and run at most once,
// and never two at a time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/start_stop_race.h"
#include "support/sync.h"
#include "utils/looper.h"

namespace {

using namespace std::chrono_literals;

constexpr int kPosters = 8;
constexpr int kPostsPerPoster = 20000 / ZEL_STRESS_DIVISOR;
constexpr int kCycles = 200;

// Per-message counts, and how many messages run at once.
struct Ledger {
  explicit Ledger(int size) : created(size), runs(size), destroyed(size) {}
  std::vector<std::atomic<int>> created;  // posters may stop before their last ids
  std::vector<std::atomic<int>> runs;
  std::vector<std::atomic<int>> destroyed;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
};

class Tracked : public zel::Message {
 public:
  Tracked(Ledger* ledger, int id) : ledger_(ledger), id_(id) { ++ledger_->created[id_]; }
  ~Tracked() override { ++ledger_->destroyed[id_]; }
  void Run() override {
    if (++ledger_->inside > 1) ++ledger_->overlaps;
    ++ledger_->runs[id_];
    --ledger_->inside;
  }

 private:
  Ledger* ledger_;
  int id_;
};

void ExpectEachDestroyedOnceRunAtMostOnce(const Ledger& ledger) {
  int ran = 0;
  for (size_t id = 0; id < ledger.runs.size(); ++id) {
    ASSERT_EQ(ledger.created[id].load(), ledger.destroyed[id].load()) << "message " << id;
    ASSERT_LE(ledger.runs[id].load(), 1) << "message " << id;
    ran += ledger.runs[id].load();
  }
  EXPECT_GT(ran, 0);
  EXPECT_EQ(0, ledger.overlaps.load());
}

// Posts from `kPosters` threads, paced, while `going` holds (each at most
// its share of the ledger).
std::vector<std::thread> StartPosters(zel::Looper& looper, Ledger& ledger,
                                      std::atomic<int>& accepted, const std::atomic<bool>& going) {
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < kPostsPerPoster && going; ++i) {
        const int id = p * kPostsPerPoster + i;
        if (looper.PostMessageAAA(std::make_unique<Tracked>(&ledger, id)) == 0) ++accepted;
        if (i % 16 == 15) std::this_thread::sleep_for(100us);
      }
    });
  }
  return posters;
}

TEST(LooperStress, EightPostersAgainst200StopStartCycles) {
  Ledger ledger(kPosters * kPostsPerPoster);
  std::atomic<int> accepted{0};
  std::atomic<int> cycles{0};
  {
    zel::Looper looper;
    ASSERT_EQ(0, looper.Start());
    std::atomic<bool> cycling{true};
    std::vector<std::thread> posters = StartPosters(looper, ledger, accepted, cycling);
    for (; cycles < kCycles; ++cycles) {
      std::this_thread::sleep_for(1ms);
      ASSERT_EQ(0, looper.Stop());
      ASSERT_EQ(0, looper.Start());
    }
    cycling = false;
    for (auto& poster : posters) poster.join();
    // What is still queued runs now; the destructor frees the rest.
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_EQ(kCycles, cycles.load());
  ExpectEachDestroyedOnceRunAtMostOnce(ledger);
  EXPECT_GT(accepted.load(), 0);
}

TEST(LooperStress, StartRacingStopFromTwoThreadsWhilePostersPost) {
  constexpr int kRounds = 2000 / ZEL_STRESS_DIVISOR;
  Ledger ledger(kPosters * kPostsPerPoster);
  std::atomic<int> accepted{0};
  {
    zel::Looper looper;
    std::atomic<bool> racing{true};
    std::vector<std::thread> posters = StartPosters(looper, ledger, accepted, racing);
    zeltest::RaceStartAgainstStop(looper, kRounds, 100);
    racing = false;
    for (auto& poster : posters) poster.join();
  }
  ExpectEachDestroyedOnceRunAtMostOnce(ledger);
}

// Re-posts a copy of itself from the loop thread, with a delay of 0, until the
// chain is `length` long: a periodic task re-arming itself.
class SelfReposting : public zel::Message {
 public:
  SelfReposting(zel::Looper* looper, std::atomic<int>* links, int length)
      : looper_(looper), links_(links), length_(length) {}
  void Run() override {
    if (++*links_ < length_) {
      looper_->PostDelayMessage(std::make_unique<SelfReposting>(looper_, links_, length_), 0);
    }
  }

 private:
  zel::Looper* looper_;
  std::atomic<int>* links_;
  const int length_;
};

class Nothing : public zel::Message {
 public:
  explicit Nothing(std::atomic<int>* ran) : ran_(ran) {}
  void Run() override { ++*ran_; }

 private:
  std::atomic<int>* ran_;
};

TEST(LooperStress, SelfRepostingChainLosesNoLinkWhileTwoThreadsPostAMillionEach) {
  constexpr int kChain = 2000000 / ZEL_STRESS_DIVISOR;
  constexpr int kPerPoster = 1000000 / ZEL_STRESS_DIVISOR;
  std::atomic<int> links{0};
  std::atomic<int> ran{0};
  zel::Looper looper;
  ASSERT_EQ(0, looper.Start());
  ASSERT_EQ(0, looper.PostMessageAAA(std::make_unique<SelfReposting>(&looper, &links, kChain)));
  std::vector<std::thread> posters;
  for (int p = 0; p < 2; ++p) {
    posters.emplace_back([&] {
      for (int i = 0; i < kPerPoster; ++i) looper.PostMessageAAA(std::make_unique<Nothing>(&ran));
    });
  }
  for (auto& poster : posters) poster.join();
  zeltest::WaitUntil([&] { return links >= kChain && ran >= 2 * kPerPoster; }, 60s, 10ms);
  EXPECT_EQ(kChain, links.load());
  EXPECT_EQ(2 * kPerPoster, ran.load());
  EXPECT_EQ(0, looper.Stop());
}

}  // namespace
