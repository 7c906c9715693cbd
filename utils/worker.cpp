#include "utils/worker.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace zel {

void Worker::DoAsync(const std::function<void()>& fn) {
  looper->PostMessageAAA(std::make_unique<WorkerMessage>(fn));
}

void Worker::DoSync(const std::function<void()>& fn) {
  looper->PostMessageAAA(std::make_unique<WorkerMessage>(fn));
  // Set by the loop thread, polled here: the loop runs messages in order, so
  // the marker runs after fn. Atomic: read unlocked.
  std::atomic<bool> done{false};
  looper->PostMessageAAA(std::make_unique<WorkerMessage>([&done] { done = true; }));
  while (!done) std::this_thread::sleep_for(std::chrono::nanoseconds(10000000));
}

}  // namespace zel
