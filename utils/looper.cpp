#include "utils/looper.h"

#include <chrono>
#include <cstdio>
#include <sstream>

#include "utils/diag.h"

namespace zel {

namespace {

constexpr auto kIdleWait = std::chrono::seconds(1);

long long WallClockMs() {
  using namespace std::chrono;
  return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count() / 1000;
}

bool IsDue(const Message& msg, long long now) { return msg.when < 0 || msg.when <= now; }

}  // namespace

std::string ThreadIdString(pthread_t handle) {
  std::ostringstream out;
  // A C-style cast: pthread_t is an integer on Linux and a pointer on macOS.
  out << (const void*)handle;
  return out.str();
}

void InerTaskMessage::Run() {
  // The stored function may or may not declare its one pointer argument.
  auto fn = reinterpret_cast<void (*)(void*)>(callback.func);
  fn(callback.arg);
}

Looper::Looper() : queue(std::make_unique<Queue>()) {}

Looper::~Looper() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    destroying = true;
  }
  if (!stopped) Stop();
  WaitForDetachedLoop();
}

void Looper::WaitForDetachedLoop() {
  // A loop stopped from its own thread was detached and may still be leaving
  // process(); it must be gone before this object is reused or freed. (From
  // that very thread there is nothing to wait for.)
  while (in_process && stopped && !CalledFromLoopThread()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

bool Looper::CalledFromLoopThread() const {
  return loop_thread.load() == std::this_thread::get_id();
}

std::string Looper::LoopThreadText() {
  std::lock_guard<std::mutex> lock(mutex);
  return thread_id;
}

int Looper::Start() {
  WaitForDetachedLoop();
  std::lock_guard<std::mutex> lock(mutex);
  if (!stopped || destroying) return -1;
  stopped = false;
  in_process = true;
  thread = std::make_unique<std::thread>(&Looper::process, this);
  thread_id = ThreadIdString(thread->native_handle());
  loop_thread = thread->get_id();
  return 0;
}

int Looper::Stop() {
  ZEL_DEBUG_AT(151, "Looper::Stop called in thread %s\n", LoopThreadText().c_str());
  std::unique_lock<std::mutex> lock(mutex);
  if (CalledFromLoopThread()) {
    // Stopping from a message: the thread cannot join itself, so it is let go
    // and leaves process() once the current batch step is done.
    stopped = true;
    cond.notify_all();
    if (thread && thread->joinable()) thread->detach();
    return 0;
  }
  lock.unlock();
  lock.lock();
  if (stopped) {
    std::puts("already stoped ");
    return -1;
  }
  stopped = true;
  cond.notify_all();
  lock.unlock();

  if (thread && thread->joinable()) {
    if (CalledFromLoopThread()) {
      thread->detach();
    } else {
      thread->join();
    }
  }
  ZEL_DEBUG_AT(179, "Looper::Stop exited in thread %s\n", LoopThreadText().c_str());
  lock.lock();
  thread_id.clear();
  loop_thread = std::thread::id();
  return 0;
}

void Looper::process() {
  const std::string self = ThreadIdString(pthread_self());
  ZEL_DEBUG_AT(193, "looper process started in thread %s\n", self.c_str());
  while (!stopped && !destroying) {
    Queue batch;
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (queue->empty()) {
        cond.wait_for(lock, kIdleWait);
        if (queue->empty()) continue;
      }
      const long long now = WallClockMs();
      while (!queue->empty() && queue->front() && IsDue(*queue->front(), now)) {
        batch.splice(batch.end(), *queue, queue->begin());
      }
    }
    if (batch.empty()) {
      // Head of line not due yet: sleep until a post wakes us or a second passed.
      std::unique_lock<std::mutex> lock(mutex);
      cond.wait_for(lock, kIdleWait);
      continue;
    }
    RunBatch(batch);
  }
  ZEL_DEBUG_AT(240, "looper process exit, threadID %s\n", self.c_str());
  in_process = false;  // the last touch of this object by the loop thread
}

void Looper::RunBatch(Queue& batch) {
  while (!batch.empty()) {
    std::unique_ptr<Message> msg = std::move(batch.front());
    batch.pop_front();
    // A Stop while the batch runs drops the rest of it unrun.
    if (!stopped && msg) msg->Run();
  }
}

int Looper::PostMessageAAA(std::unique_ptr<Message> msg) {
  msg->when = WallClockMs();
  const bool fromLoop = CalledFromLoopThread();
  std::lock_guard<std::mutex> lock(mutex);
  if (fromLoop) {
    // The loop sees it on its next scan; no wake-up needed.
    queue->push_back(std::move(msg));
    return 0;
  }
  if (stopped) return -1;
  queue->push_back(std::move(msg));
  cond.notify_one();
  return 0;
}

int Looper::PostDelayMessage(std::unique_ptr<Message> msg, long long delay_ms) {
  // Unsigned arithmetic: an overflowing sum wraps instead of being undefined.
  msg->when = static_cast<long long>(static_cast<unsigned long long>(WallClockMs()) +
                                     static_cast<unsigned long long>(delay_ms));
  if (CalledFromLoopThread()) {
    // Deliberately unlocked, unlike PostMessageAAA from the loop thread.
    queue->push_back(std::move(msg));
    return 0;
  }
  std::lock_guard<std::mutex> lock(mutex);
  if (stopped) return -1;
  queue->push_back(std::move(msg));
  cond.notify_one();
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
