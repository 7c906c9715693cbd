// A barrier that spins: threads meet at Arrive() before every round, so
// that the calls they make right after overlap as closely as possible.
#pragma once

#include <atomic>
#include <thread>

namespace zeltest {

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

}  // namespace zeltest
