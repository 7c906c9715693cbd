#include "utils/loop_thread.h"

#include <cstdio>

#include "utils/looper.h"

namespace zel {

namespace {
// Set on a loop thread when the code it ran destroyed the loop's owner.
thread_local bool tOwnerDestroyed = false;
}  // namespace

LoopThread::LoopThread(Mutex& mutex, std::condition_variable& wake) : mutex(mutex), wake(wake) {}

LoopThread::~LoopThread() {
  if (IsCurrent()) tOwnerDestroyed = true;
}

bool LoopThread::OwnerDestroyed() { return tOwnerDestroyed; }

int LoopThread::Start(std::function<void()> body, bool loopWaitsForCaller) {
  MutexLock lock(mutex);
  if (!stopped) return -1;
  if (joining && (loopWaitsForCaller || IsCurrent())) return -1;
  stopped = false;
  ++threads_in_body;
  try {
    // Replaces a thread object that an earlier Stop detached (a joining Stop
    // took its own out).
    thread = std::make_unique<std::thread>([this, body = std::move(body)] { RunAlone(body); });
  } catch (...) {
    --threads_in_body;  // no thread; `stopped` stays false until a Stop
    throw;
  }
  text = ThreadIdString(thread->native_handle());
  current = thread->get_id();
  joining = false;       // whatever is being joined is no longer the loop thread
  settled.notify_all();  // a waiting predecessor is superseded now
  return 0;
}

void LoopThread::RunAlone(const std::function<void()>& body) {
  {
    // A predecessor may still be finishing its message; it leaves as soon as
    // it sees it is no longer current. A Stop (or a newer Start) meanwhile
    // lets this thread through at once: its body then returns without
    // running anything, and the predecessor may be the very stopper, joining
    // this thread.
    MutexLock lock(mutex);
    settled.wait(lock.native(), [this]() ZEL_REQUIRES(mutex) {
      return threads_in_body == 1 || stopped || !IsCurrent();
    });
  }
  body();
  if (tOwnerDestroyed) return;  // nothing of the owner is left to tell
  MutexLock lock(mutex);
  --threads_in_body;
  settled.notify_all();  // the last touch of this object by the thread
}

LoopThread::StopResult LoopThread::Stop(std::string* joined_text) {
  MutexLock lock(mutex);
  if (IsCurrent()) {
    // The thread cannot join itself: it is let go, and leaves its body once
    // the message in progress is done. (A joining Stop took the object out.)
    stopped = true;
    wake.notify_all();
    if (thread && thread->joinable()) thread->detach();
    return StopResult::kLetGo;
  }
  lock.Unlock();
  lock.Lock();
  if (stopped) {
    std::puts("already stoped ");
    return StopResult::kAlreadyStopped;
  }
  stopped = true;
  wake.notify_all();
  settled.notify_all();
  const std::unique_ptr<std::thread> joined = std::move(thread);
  const std::thread::id joinedId = current;
  const std::string joinedText = text;
  joining = true;
  lock.Unlock();

  if (joined && joined->joinable()) joined->join();
  lock.Lock();
  if (current.load() == joinedId) {
    // Not restarted meanwhile: the loop has no thread now.
    joining = false;
    text.clear();
    current = std::thread::id();
  }
  if (joined_text) *joined_text = joinedText;
  settled.notify_all();
  return StopResult::kJoined;
}

void LoopThread::WaitForDetachedThread() {
  MutexLock lock(mutex);
  const int own = IsCurrent() ? 1 : 0;
  settled.wait(lock.native(), [this, own]() ZEL_REQUIRES(mutex) { return threads_in_body <= own; });
}

std::string LoopThread::Text() {
  MutexLock lock(mutex);
  return text;
}

}  // namespace zel
