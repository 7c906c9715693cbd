#include "utils/loop_thread.h"

#include <chrono>
#include <cstdio>

#include "utils/looper.h"

namespace zel {

LoopThread::LoopThread(std::mutex& mutex, std::condition_variable& wake)
    : mutex(mutex), wake(wake) {}

int LoopThread::Start(std::function<void()> body) {
  WaitForDetachedThread();
  std::lock_guard<std::mutex> lock(mutex);
  if (!stopped) return -1;
  stopped = false;
  // Set before the thread exists: it clears the flag as its very last step.
  in_body = true;
  try {
    thread = std::make_unique<std::thread>([this, body = std::move(body)] {
      body();
      in_body = false;  // the last touch of this object by the thread
    });
  } catch (...) {
    in_body = false;  // no thread to wait for; `stopped` stays false until a Stop
    throw;
  }
  text = ThreadIdString(thread->native_handle());
  current = thread->get_id();
  return 0;
}

LoopThread::StopResult LoopThread::Stop(std::string* joined_text) {
  std::unique_lock<std::mutex> lock(mutex);
  if (IsCurrent()) {
    // The thread cannot join itself: it is let go, and leaves its body once
    // the step in progress is done.
    stopped = true;
    wake.notify_all();
    if (thread && thread->joinable()) thread->detach();
    return StopResult::kLetGo;
  }
  lock.unlock();
  lock.lock();
  if (stopped) {
    std::puts("already stoped ");
    return StopResult::kAlreadyStopped;
  }
  stopped = true;
  wake.notify_all();
  lock.unlock();

  if (thread && thread->joinable()) thread->join();
  lock.lock();
  if (joined_text) *joined_text = text;
  text.clear();
  current = std::thread::id();
  return StopResult::kJoined;
}

void LoopThread::WaitForDetachedThread() {
  while (in_body && stopped && !IsCurrent()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string LoopThread::Text() {
  std::lock_guard<std::mutex> lock(mutex);
  return text;
}

}  // namespace zel
