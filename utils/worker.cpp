#include "utils/worker.h"

#include <chrono>
#include <memory>
#include <thread>

namespace zel {

void Worker::DoAsync(const std::function<void()>& fn) {
  looper->PostMessageAAA(std::make_unique<WorkerMessage>(fn));
}

void Worker::DoSync(const std::function<void()>& fn) {
  looper->PostMessageAAA(std::make_unique<WorkerMessage>(fn));
  // Written by the loop thread and polled here without synchronisation, on
  // purpose: the loop runs messages in order, so the marker runs after fn.
  bool done = false;
  looper->PostMessageAAA(std::make_unique<WorkerMessage>([&done] { done = true; }));
  while (!done) std::this_thread::sleep_for(std::chrono::nanoseconds(10000000));
}

}  // namespace zel
