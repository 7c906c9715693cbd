// Test helpers for threads: one-shot gates, values gathered from other
// threads, and polling waits. Limits are generous: the machines that run the
// suite are small and busy. Standard library only (helper programs use it too).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zeltest {

// What a wait gives its condition unless told otherwise.
inline constexpr std::chrono::milliseconds kWaitLimit{10000};

// Polls `done` every `poll` until it holds or `limit` passed; the result of
// the last poll.
template <typename Done>
bool WaitUntil(Done&& done, std::chrono::milliseconds limit = kWaitLimit,
               std::chrono::milliseconds poll = std::chrono::milliseconds(1)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(poll);
  }
  return true;
}

// A one-shot gate: closed until Open() (later calls change nothing); any
// number of threads wait for it.
class Gate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cond_.notify_all();
  }
  bool IsOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }
  // True once open; false when `limit` passed first.
  bool WaitFor(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, limit, [this] { return open_; });
  }
  // Waits as long as it takes (a hang is left to ctest's time-out).
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool open_ = false;
};

// Holds whoever calls Hold() until Open(), and lets the test wait until a
// thread got there: a loop thread kept busy while work queues behind it.
// Both waits are without a limit.
class HoldingGate {
 public:
  void Hold() {
    entered_.Open();
    open_.Wait();
  }
  // Hold() as a callable, for a message's or a subscriber's body.
  std::function<void()> Holder() {
    return [this] { Hold(); };
  }
  void WaitEntered() { entered_.Wait(); }
  void Open() { open_.Open(); }

 private:
  Gate entered_;
  Gate open_;
};

// Values added from any thread, kept in arrival order, for the test to read
// or to wait for.
template <typename T>
class Collected {
 public:
  void Add(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(std::move(value));
    cond_.notify_all();
  }
  std::vector<T> All() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }
  size_t Size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_.size();
  }
  // True once at least `count` values were added; false when `limit` passed first.
  bool WaitForCount(size_t count, std::chrono::milliseconds limit = kWaitLimit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, limit, [&] { return values_.size() >= count; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<T> values_;
};

}  // namespace zeltest
