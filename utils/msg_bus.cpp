#include "utils/msg_bus.h"

#include <algorithm>
#include <chrono>
#include <future>

#include "utils/clock.h"

namespace zel {

namespace {

using timing::WallClockMs;

bool IsDueStampLocked(const BaseMsg& msg, long long now) ZEL_REQUIRES(BusStampLock()) {
  return timing::IsDue(msg.when, now);
}

bool EarlierDueStampLocked(const std::shared_ptr<BaseMsg>& a, const std::shared_ptr<BaseMsg>& b)
    ZEL_REQUIRES(BusStampLock()) {
  return a->when < b->when;
}

// A message may be queued on several buses, and a publication on any of
// them re-stamps it: one lock guards every bus's `when` stamps, `queued`
// counts and `resortPending` flags. Taken after a bus's own mutex, never
// before it. Never destroyed: buses may outlive static destruction.
struct StampRegistry {
  Mutex mutex;                                                // BusStampLock()
  std::vector<MsgBus*> buses ZEL_GUARDED_BY(BusStampLock());  // every bus alive
};
StampRegistry& Stamps() {
  static StampRegistry* const registry = new StampRegistry();
  return *registry;
}

// The bus whose subscriber runs on this (delivery) thread, if any.
thread_local const MsgBus* tDeliveringFor = nullptr;

}  // namespace

Mutex& BusStampLock() { return Stamps().mutex; }

MsgBus::MsgBus() : loop(mutex, cond), queue(std::make_unique<Queue>()) {
  MutexLock stamps(BusStampLock());
  Stamps().buses.push_back(this);
}

MsgBus::~MsgBus() {
  if (!loop.Stopped()) Stop();
  loop.WaitForDetachedThread();
  MutexLock stamps(BusStampLock());
  auto& buses = Stamps().buses;
  buses.erase(std::find(buses.begin(), buses.end(), this));
}

int MsgBus::Subscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s) {
  MutexLock lock(mutex);
  subscribers[msg_type].push_back(s);
  return 0;
}

int MsgBus::Unsubscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s) {
  MutexLock lock(mutex);
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
  // A subscriber of this bus is waited for by the bus thread, like the bus
  // thread itself: neither may start a successor under a joining Stop.
  return loop.Start([this] { process(); }, tDeliveringFor == this);
}

int MsgBus::Stop() { return loop.Stop() == LoopThread::StopResult::kAlreadyStopped ? -1 : 0; }

int MsgBus::PublishMsg(std::shared_ptr<BaseMsg> msg) {
  if (!msg) return -1;
  return Publish(std::move(msg), WallClockMs());
}

int MsgBus::PublishMsg(std::shared_ptr<BaseMsg> msg, long long delay) {
  if (!msg) return -1;
  return Publish(std::move(msg), timing::DueAfterWrapping(WallClockMs(), delay));
}

int MsgBus::Publish(std::shared_ptr<BaseMsg> msg, long long when) {
  Stamp(*msg, when);  // even when the publication is then refused
  const bool fromBusThread = loop.IsCurrent();
  MutexLock lock(mutex);
  // From the bus thread: accepted even when stopped, and without a wake-up
  // (the bus sees it on its next cycle).
  if (!fromBusThread && loop.Stopped()) return -1;
  {
    MutexLock stamps(BusStampLock());
    EnqueueLockedStamped(std::move(msg));
  }
  if (!fromBusThread) cond.notify_one();
  return 0;
}

void MsgBus::Stamp(BaseMsg& msg, long long when) {
  MutexLock stamps(BusStampLock());
  msg.when = when;
  for (MsgBus* bus : Stamps().buses) {
    if (bus->queued.count(&msg) != 0) bus->resortPending = true;
  }
}

void MsgBus::EnqueueLockedStamped(std::shared_ptr<BaseMsg> msg) {
  ++queued[msg.get()];
  if (resortPending) {
    ResortLockedStamped(std::move(msg));
    return;
  }
  // Logarithmic and stable: the place a full stable sort would give it.
  const long long when = msg->when;
  queue->emplace(when, std::move(msg));
}

void MsgBus::ResortLockedStamped(std::shared_ptr<BaseMsg> msg) {
  Batch all;
  all.reserve(queue->size() + 1);
  for (auto& entry : *queue) all.push_back(std::move(entry.second));
  all.push_back(std::move(msg));
  std::stable_sort(all.begin(), all.end(), EarlierDueStampLocked);
  queue->clear();
  for (auto& entry : all) {
    const long long when = entry->when;
    queue->emplace_hint(queue->end(), when, std::move(entry));
  }
  resortPending = false;
}

void MsgBus::TakeDueLocked(long long now, Batch& batch) {
  MutexLock stamps(BusStampLock());
  while (!queue->empty() && IsDueStampLocked(*queue->begin()->second, now)) {
    const auto front = queue->begin();
    const auto entries = queued.find(front->second.get());
    if (--entries->second == 0) queued.erase(entries);
    batch.push_back(std::move(front->second));
    queue->erase(front);
  }
}

void MsgBus::PutBackAtHeadLocked(Batch& batch, size_t from) {
  MutexLock stamps(BusStampLock());
  for (size_t i = batch.size(); i-- > from;) {
    // Keyed like the head, placed before it: the order is kept, and the next
    // publication sorts by `when` again.
    const long long key = queue->empty() ? batch[i]->when : queue->begin()->first;
    ++queued[batch[i].get()];
    queue->emplace_hint(queue->begin(), key, std::move(batch[i]));
  }
  resortPending = true;
}

void MsgBus::WaitUpToOneSecondLocked(MutexLock& lock) {
  cond.wait_until(lock.native(), std::chrono::system_clock::now() + std::chrono::seconds(1));
}

void MsgBus::process() {
  while (loop.ShouldRun()) {
    Batch batch;
    {
      MutexLock lock(mutex);
      if (queue->empty()) {
        WaitUpToOneSecondLocked(lock);
        if (queue->empty()) continue;
      }
      TakeDueLocked(WallClockMs(), batch);
    }
    if (batch.empty()) {
      // The head lies in the future: sleep until a publication or a second passed.
      MutexLock lock(mutex);
      WaitUpToOneSecondLocked(lock);
      continue;
    }
    if (!Deliver(batch)) return;
  }
}

bool MsgBus::Deliver(Batch& batch) {
  size_t next = 0;
  for (; next < batch.size() && loop.ShouldRun(); ++next) {
    std::shared_ptr<BaseMsg> msg = std::move(batch[next]);
    DeliverToSubscribers(msg);
    msg.reset();  // the bus's reference: its release may destroy the bus
    if (LoopThread::OwnerDestroyed()) return false;
  }
  Batch released;
  {
    MutexLock lock(mutex);
    if (loop.Stopped()) {
      // Stopped while delivering: the rest goes undelivered.
      released.assign(std::make_move_iterator(batch.begin() + next),
                      std::make_move_iterator(batch.end()));
    } else if (next < batch.size()) {
      // Restarted on a newer thread: that thread delivers the rest.
      PutBackAtHeadLocked(batch, next);
    }
  }
  released.clear();
  return !LoopThread::OwnerDestroyed();
}

void MsgBus::DeliverToSubscribers(const std::shared_ptr<BaseMsg>& msg) {
  std::list<std::weak_ptr<MsgSubscriber>> receivers;
  {
    MutexLock lock(mutex);
    const auto entry = subscribers.find(msg->msg_type);
    if (entry == subscribers.end()) return;
    receivers = entry->second;
  }
  const int type = msg->msg_type;
  for (const auto& receiver : receivers) {
    std::shared_ptr<MsgSubscriber> subscriber = receiver.lock();
    if (!subscriber) continue;
    // One thread per delivery, waited for: deliveries never overlap and
    // never run on the bus thread.
    std::async(std::launch::async, [this, type, msg, subscriber] {
      tDeliveringFor = this;
      subscriber->OnMsg(type, msg);
    }).get();
  }
}

}  // namespace zel
