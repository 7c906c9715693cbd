#include "utils/looper.h"

#include <chrono>
#include <sstream>

#include "utils/clock.h"
#include "utils/diag.h"

namespace zel {

namespace {

constexpr auto kIdleWait = std::chrono::seconds(1);

using timing::WallClockMs;

bool IsDue(const Message& msg, long long now) { return timing::IsDue(msg.when, now); }

}  // namespace

std::string ThreadIdString(pthread_t handle) {
  std::ostringstream out;
  // A C-style cast: pthread_t is an integer on Linux and a pointer on macOS.
  out << (const void*)handle;  // NOLINT(performance-no-int-to-ptr)
  return out.str();
}

void InerTaskMessage::Run() {
  // The stored function may or may not declare its one pointer argument.
  auto fn = reinterpret_cast<void (*)(void*)>(callback.func);
  fn(callback.arg);
}

Looper::Looper() : loop(mutex, cond), queue(std::make_unique<Queue>()) {}

Looper::~Looper() {
  {
    MutexLock lock(mutex);
    destroying = true;
  }
  if (!loop.Stopped()) Stop();
  loop.WaitForDetachedThread();
}

int Looper::Start() {
  if (destroying) return -1;
  return loop.Start([this] { process(); });
}

int Looper::Stop() {
  ZEL_DEBUG_AT(151, "Looper::Stop called in thread %s\n", loop.Text().c_str());
  std::string joined;
  switch (loop.Stop(&joined)) {
    case LoopThread::StopResult::kAlreadyStopped:
      return -1;
    case LoopThread::StopResult::kLetGo:
      return 0;  // stopped by a message of its own: no exit line
    case LoopThread::StopResult::kJoined:
      break;
  }
  ZEL_DEBUG_AT(179, "Looper::Stop exited in thread %s\n", joined.c_str());
  return 0;
}

void Looper::process() {
  const std::string self = ThreadIdString(pthread_self());
  ZEL_DEBUG_AT(193, "looper process started in thread %s\n", self.c_str());
  Queue batch;
  long long now = 0;
  while (loop.ShouldRun() && !destroying) {
    if (TakeQueue(batch, now) && !RunBatch(batch, now)) break;  // a message destroyed the loop
  }
  ZEL_DEBUG_AT(240, "looper process exit, threadID %s\n", self.c_str());
}

bool Looper::TakeQueue(Queue& batch, long long& now) {
  MutexLock lock(mutex);
  if (queue->empty()) {
    WaitLocked(lock);
    if (queue->empty()) return false;
  }
  now = WallClockMs();
  if (!IsDue(*queue->front(), now)) {
    // Head of line not due yet: sleep until a post wakes us or a second passed.
    WaitLocked(lock);
    return false;
  }
  // Constant time under the lock, however long the queue: the due front is
  // picked out on the loop thread.
  batch.swap(*queue);
  return true;
}

bool Looper::RunBatch(Queue& batch, long long now) {
  while (!batch.empty() && IsDue(*batch.front(), now) && loop.ShouldRun()) {
    std::unique_ptr<Message> msg = std::move(batch.front());
    batch.pop_front();
    msg->Run();
    msg.reset();
    if (LoopThread::OwnerDestroyed()) return false;
  }
  if (batch.empty()) return true;  // the usual end: no lock to take again
  Dropped dropped = ReturnLeftovers(batch, now);
  dropped.clear();  // their destructors may destroy the loop too
  return !LoopThread::OwnerDestroyed();
}

Looper::Dropped Looper::ReturnLeftovers(Queue& batch, long long now) {
  Dropped dropped;
  MutexLock lock(mutex);
  if (loop.Stopped()) {
    // Stopped while the batch ran: its due rest goes unrun. (Restarted on a
    // newer thread instead, all of it goes back for that thread to run.)
    while (!batch.empty() && IsDue(*batch.front(), now)) {
      dropped.push_back(std::move(batch.front()));
      batch.pop_front();
    }
  }
  // Ahead of everything posted meanwhile, as if it had never left the queue.
  queue->insert(queue->begin(), std::make_move_iterator(batch.begin()),
                std::make_move_iterator(batch.end()));
  batch.clear();
  return dropped;
}

void Looper::WaitLocked(MutexLock& lock) {
  waiting = true;
  cond.wait_for(lock.native(), kIdleWait);
  waiting = false;
}

int Looper::PostMessageAAA(std::unique_ptr<Message> msg) {
  msg->when = WallClockMs();
  if (loop.IsCurrent()) {
    // The loop sees it on its next scan; no wake-up needed.
    MutexLock lock(mutex);
    queue->push_back(std::move(msg));
    return 0;
  }
  return PostFromOtherThread(std::move(msg));
}

int Looper::PostDelayMessage(std::unique_ptr<Message> msg, long long delay_ms) {
  msg->when = timing::DueAfterWrapping(WallClockMs(), delay_ms);
  if (loop.IsCurrent()) {
    // From the loop thread: accepted even when stopped, and no wake-up (the
    // loop sees it on its next scan); locked, since other threads post too.
    MutexLock lock(mutex);
    queue->push_back(std::move(msg));
    return 0;
  }
  return PostFromOtherThread(std::move(msg));
}

int Looper::PostFromOtherThread(std::unique_ptr<Message> msg) {
  bool wake = false;
  {
    MutexLock lock(mutex);
    if (loop.Stopped()) return -1;
    queue->push_back(std::move(msg));
    std::swap(wake, waiting);
  }
  if (wake) cond.notify_one();
  return 0;
}

int Looper::PostTask(Callback<void (*)()>& cb) {
  PostMessageAAA(std::make_unique<InerTaskMessage>(cb));
  return 0;
}

int Looper::PostDelayTask(Callback<void (*)()>& cb, long long delay_ms) {
  PostDelayMessage(std::make_unique<InerTaskMessage>(cb), delay_ms);
  return 0;
}

}  // namespace zel
