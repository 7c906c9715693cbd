#include "utils/msg_bus.h"

#include <algorithm>
#include <chrono>
#include <future>

namespace zel {

namespace {

long long WallClockMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

bool IsDue(const BaseMsg& msg, long long now) { return msg.when < 0 || msg.when <= now; }

bool EarlierDue(const std::shared_ptr<BaseMsg>& a, const std::shared_ptr<BaseMsg>& b) {
  return a->when < b->when;
}

}  // namespace

MsgBus::MsgBus() : loop(mutex, cond), queue(std::make_unique<Queue>()) {}

MsgBus::~MsgBus() {
  if (!loop.Stopped()) Stop();
  loop.WaitForDetachedThread();
}

int MsgBus::Subscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s) {
  std::lock_guard<std::mutex> lock(mutex);
  subscribers[msg_type].push_back(s);
  return 0;
}

int MsgBus::Unsubscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s) {
  std::lock_guard<std::mutex> lock(mutex);
  auto entry = subscribers.find(msg_type);
  if (entry == subscribers.end()) return -1;
  // Same subscriber = same owner; expired references never match a live one.
  auto& list = entry->second;
  const auto before = list.size();
  list.remove_if([&s](const std::weak_ptr<MsgSubscriber>& w) {
    return !w.owner_before(s) && !s.owner_before(w);
  });
  const bool removed = list.size() != before;
  if (list.empty()) subscribers.erase(entry);
  return removed ? 0 : -1;
}

int MsgBus::Start() {
  return loop.Start([this] { process(); });
}

int MsgBus::Stop() { return loop.Stop() == LoopThread::StopResult::kAlreadyStopped ? -1 : 0; }

int MsgBus::PublishMsg(std::shared_ptr<BaseMsg> msg) {
  if (!msg) return -1;
  msg->when = WallClockMs();
  if (loop.IsCurrent()) {
    // From the bus thread: locked, but accepted even when stopped and without
    // a wake-up (the bus sees it on its next cycle).
    std::lock_guard<std::mutex> lock(mutex);
    EnqueueSorted(std::move(msg));
    return 0;
  }
  return EnqueueFromOtherThread(std::move(msg));
}

int MsgBus::PublishMsg(std::shared_ptr<BaseMsg> msg, long long delay) {
  if (!msg) return -1;
  // Unsigned arithmetic: an overflowing sum wraps instead of being undefined.
  msg->when = static_cast<long long>(static_cast<unsigned long long>(WallClockMs()) +
                                     static_cast<unsigned long long>(delay));
  if (loop.IsCurrent()) {
    EnqueueWithoutLock(std::move(msg));
    return 0;
  }
  return EnqueueFromOtherThread(std::move(msg));
}

int MsgBus::EnqueueFromOtherThread(std::shared_ptr<BaseMsg> msg) {
  std::lock_guard<std::mutex> lock(mutex);
  if (loop.Stopped()) {
    // Its new `when` still counts at the next publication's sort.
    if (queued.count(msg.get()) != 0) resortPending = true;
    return -1;
  }
  EnqueueSorted(std::move(msg));
  cond.notify_one();
  return 0;
}

void MsgBus::EnqueueSorted(std::shared_ptr<BaseMsg> msg) {
  const bool alreadyQueued = queued[msg.get()]++ > 0;
  if (alreadyQueued || resortPending) {
    ResortLocked(std::move(msg));
    return;
  }
  // Logarithmic and stable: the place a full stable sort would give it.
  const long long when = msg->when;
  queue->emplace(when, std::move(msg));
}

void MsgBus::ResortLocked(std::shared_ptr<BaseMsg> msg) {
  Batch all;
  all.reserve(queue->size() + 1);
  for (auto& entry : *queue) all.push_back(std::move(entry.second));
  all.push_back(std::move(msg));
  std::stable_sort(all.begin(), all.end(), EarlierDue);
  queue->clear();
  for (auto& entry : all) {
    const long long when = entry->when;
    queue->emplace_hint(queue->end(), when, std::move(entry));
  }
  resortPending = false;
}

void MsgBus::EnqueueWithoutLock(std::shared_ptr<BaseMsg> msg) {
  // Deliberately unlocked (unlike the immediate form from the bus thread).
  EnqueueSorted(std::move(msg));
}

void MsgBus::WaitUpToOneSecond(std::unique_lock<std::mutex>& lock) {
  cond.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(1));
}

void MsgBus::process() {
  while (loop.ShouldRun()) {
    Batch batch;
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (queue->empty()) {
        WaitUpToOneSecond(lock);
        if (queue->empty()) continue;
      }
      TakeDueLocked(WallClockMs(), batch);
    }
    if (batch.empty()) {
      // The head lies in the future: sleep until a publication or a second passed.
      std::unique_lock<std::mutex> lock(mutex);
      WaitUpToOneSecond(lock);
      continue;
    }
    Deliver(batch);
  }
}

void MsgBus::TakeDueLocked(long long now, Batch& batch) {
  while (!queue->empty() && IsDue(*queue->begin()->second, now)) {
    const auto front = queue->begin();
    const auto entries = queued.find(front->second.get());
    if (--entries->second == 0) queued.erase(entries);
    batch.push_back(std::move(front->second));
    queue->erase(front);
  }
}

void MsgBus::Deliver(Batch& batch) {
  for (std::shared_ptr<BaseMsg>& slot : batch) {
    std::shared_ptr<BaseMsg> msg = std::move(slot);
    // After a Stop (or a restart on a newer thread) the rest of the batch is
    // released undelivered.
    if (!loop.ShouldRun() || !msg || subscribers.empty()) continue;
    const auto entry = subscribers.find(msg->msg_type);
    if (entry == subscribers.end()) continue;
    const std::list<std::weak_ptr<MsgSubscriber>> receivers = entry->second;
    for (const auto& receiver : receivers) {
      std::shared_ptr<MsgSubscriber> subscriber = receiver.lock();
      if (!subscriber) continue;
      // One thread per delivery, waited for: deliveries never overlap and
      // never run on the bus thread.
      const int type = msg->msg_type;
      std::async(std::launch::async, [type, msg, subscriber] {
        subscriber->OnMsg(type, msg);
      }).get();
    }
  }
}

}  // namespace zel
