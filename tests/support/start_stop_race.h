// Start racing Stop on a Looper or a MsgBus, from two threads.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace zeltest {

// Threads meet at Arrive() before every round, so that the calls they make
// right after overlap as closely as possible.
class SpinBarrier {
 public:
  explicit SpinBarrier(int parties) : parties_(parties) {}
  void Arrive() {
    const int round = round_.load();
    if (++arrived_ == parties_) {
      arrived_ = 0;
      ++round_;
    } else {
      while (round_.load() == round) std::this_thread::yield();
    }
  }

 private:
  const int parties_;
  std::atomic<int> arrived_{0};
  std::atomic<int> round_{0};
};

// `rounds` rounds, each beginning with `loop` running: one thread stops it
// while the other starts it again after a pause of 0 to `max_pause_us` - 1
// microseconds (varying by round), so that the Start lands anywhere in the
// Stop, often while it joins the loop thread. Returns when both threads are
// done; the "already stoped " lines are swallowed.
template <typename Loop>
void RaceStartAgainstStop(Loop& loop, int rounds, int max_pause_us) {
  SpinBarrier barrier(2);
  testing::internal::CaptureStdout();
  std::thread starter([&] {
    for (int i = 0; i < rounds; ++i) {
      loop.Start();
      barrier.Arrive();
      std::this_thread::sleep_for(std::chrono::microseconds(i % max_pause_us));
      loop.Start();
      barrier.Arrive();
    }
  });
  std::thread stopper([&] {
    for (int i = 0; i < rounds; ++i) {
      barrier.Arrive();
      loop.Stop();
      barrier.Arrive();
    }
  });
  starter.join();
  stopper.join();
  testing::internal::GetCapturedStdout();
}

}  // namespace zeltest
