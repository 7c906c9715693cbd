#include "utils/loop_thread.h"

#include <cstdio>

#include "utils/looper.h"

namespace zel {

LoopThread::LoopThread(std::mutex& mutex, std::condition_variable& wake)
    : mutex(mutex), wake(wake) {}

int LoopThread::Start(std::function<void()> body) {
  std::unique_lock<std::mutex> lock(mutex);
  if (!stopped) return -1;
  if (IsCurrent()) {
    // A Stop on another thread is joining this very thread: it cannot start
    // a successor and still be joined.
    if (joining) return -1;
  } else {
    settled.wait(lock, [this] { return !stopped || (!joining && threads_in_body == 0); });
    if (!stopped) return -1;  // another Start won while we waited
  }
  stopped = false;
  ++threads_in_body;
  try {
    // Replaces a thread object that an earlier Stop joined or detached.
    thread = std::make_unique<std::thread>([this, body = std::move(body)] { RunAlone(body); });
  } catch (...) {
    --threads_in_body;  // no thread; `stopped` stays false until a Stop
    throw;
  }
  text = ThreadIdString(thread->native_handle());
  current = thread->get_id();
  settled.notify_all();  // other Starts waiting here give up
  return 0;
}

void LoopThread::RunAlone(const std::function<void()>& body) {
  {
    // A predecessor that restarted the loop from its own thread may still be
    // finishing its step; it leaves as soon as it sees it is not current.
    // A Stop meanwhile lets it through at once: the body then returns
    // without running anything, and the predecessor may be the stopper.
    std::unique_lock<std::mutex> lock(mutex);
    settled.wait(lock, [this] { return threads_in_body == 1 || stopped; });
  }
  body();
  std::lock_guard<std::mutex> lock(mutex);
  --threads_in_body;
  settled.notify_all();  // the last touch of this object by the thread
}

LoopThread::StopResult LoopThread::Stop(std::string* joined_text) {
  std::unique_lock<std::mutex> lock(mutex);
  if (IsCurrent()) {
    // The thread cannot join itself: it is let go, and leaves its body once
    // the step in progress is done. (Unless another Stop is joining it.)
    stopped = true;
    wake.notify_all();
    if (!joining && thread && thread->joinable()) thread->detach();
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
  settled.notify_all();
  // Start waits while `joining`, so the object stays put outside the lock.
  std::thread* const joined = thread.get();
  joining = true;
  lock.unlock();

  if (joined && joined->joinable()) joined->join();
  lock.lock();
  joining = false;
  if (joined_text) *joined_text = text;
  text.clear();
  current = std::thread::id();
  settled.notify_all();
  return StopResult::kJoined;
}

void LoopThread::WaitForDetachedThread() {
  std::unique_lock<std::mutex> lock(mutex);
  const int own = IsCurrent() ? 1 : 0;
  settled.wait(lock, [this, own] { return threads_in_body <= own; });
}

std::string LoopThread::Text() {
  std::lock_guard<std::mutex> lock(mutex);
  return text;
}

}  // namespace zel
