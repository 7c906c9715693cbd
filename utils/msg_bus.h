/// @file
/// Publish/subscribe bus: any thread publishes a shared message, now or after a
/// delay, and one bus thread hands each message, once due, to every live
/// subscriber of its type. Each delivery runs on a fresh thread of its own that
/// the bus thread waits for, so deliveries happen one at a time, in due order,
/// never on the bus thread.
#pragma once

#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "utils/export.h"
#include "utils/loop_thread.h"

namespace zel {

/// A bus message. The bus routes it by `msg_type` and stamps `when` (wall-clock
/// milliseconds since the epoch; negative means due at once) on every
/// publication, whatever the publisher put there. Concrete messages derive from
/// it and add their payload, which the bus never looks at.
class ZEL_API BaseMsg {
 public:
  /// A message of type `type`, due at once.
  /// @param type The routing type, stored in `msg_type`.
  explicit BaseMsg(int type = 0) : msg_type(type) {}
  /// Frees the message once the last shared owner lets go.
  virtual ~BaseMsg() = default;

  /// Routing type: the key subscribers are looked up by. Set by the
  /// publisher; the bus only reads it.
  int msg_type;
  /// Due time. Stamped by PublishMsg on the publishing thread without a lock;
  /// read by the bus under its mutex.
  long long when = -1;
};

/// The receiving side. OnMsg runs on a delivery thread (never the bus thread),
/// one delivery at a time. It must not throw and must not Stop the bus it is
/// called from (Stop would wait for this very delivery).
class ZEL_API MsgSubscriber {
 public:
  /// Receives one due message of a type this subscriber subscribed to.
  /// @param msg_type The message's routing type.
  /// @param msg The message, shared with the bus and other subscribers.
  virtual void OnMsg(int msg_type, std::shared_ptr<BaseMsg> msg) = 0;
  /// The bus holds subscribers weakly: destroying one unsubscribes it in effect.
  virtual ~MsgSubscriber() = default;
};

/// The bus. Results are 0 for success and -1 for refusal. Messages are shared:
/// the bus keeps a reference while they are queued; subscribers are held weakly
/// and skipped once they died.
class MsgBus {
 public:
  /// A stopped bus with no subscribers; no thread until Start.
  ZEL_API MsgBus();
  /// Stops a running bus (joining its thread) and releases queued messages.
  /// A bus thread that stopped itself is waited for until it has let go.
  ZEL_API ~MsgBus();
  MsgBus(const MsgBus&) = delete;
  MsgBus& operator=(const MsgBus&) = delete;

  /// Appends a weak reference to `s` to the subscribers of `msg_type`, in
  /// registration order. The bus thread reads the registry without the lock,
  /// so subscribe before Start (or while the bus is stopped).
  /// @param msg_type The routing type to receive.
  /// @param s The subscriber; held weakly, the caller keeps it alive.
  /// @return Always 0.
  ZEL_API int Subscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s);
  /// Removes every reference to `s` under `msg_type`. Same rule as Subscribe:
  /// not while deliveries may run.
  /// @param msg_type The routing type.
  /// @param s The subscriber to remove.
  /// @return 0, or -1 if there was none.
  ZEL_API int Unsubscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s);

  /// Starts the bus thread. Whatever is still queued from an earlier run is
  /// delivered by the new thread. After a stop from the bus's own thread,
  /// first waits until that thread has left.
  /// @return 0, or -1 if already running.
  ZEL_API int Start();
  /// Stops the bus. From another thread: joins the bus thread (waiting for the
  /// delivery in progress). From the bus thread itself: detaches it. Queued
  /// messages stay for the next Start.
  /// @return 0; -1 with "already stoped " on stdout if it was not running.
  ZEL_API int Stop();

  /// Publishes for delivery as soon as possible. From another thread, refused
  /// (-1) while stopped; `when` is overwritten even then. From the bus thread
  /// always accepted.
  /// @param msg The message; the bus shares it while it is queued.
  /// @return 0, or -1 when refused or when `msg` is null.
  ZEL_API int PublishMsg(std::shared_ptr<BaseMsg> msg);
  /// Publishes for delivery `delay` ms from now; zero or negative is due at
  /// once. Refused as the immediate form.
  /// @param msg The message; the bus shares it while it is queued.
  /// @param delay Delay in milliseconds.
  /// @return 0, or -1 when refused or when `msg` is null.
  ZEL_API int PublishMsg(std::shared_ptr<BaseMsg> msg, long long delay);

  /// Body of the bus thread; only Start runs it.
  ZEL_API void process();

 private:
  // Pending messages by due time; equal times in publication order (a
  // multimap inserts after its equal keys).
  using Queue = std::multimap<long long, std::shared_ptr<BaseMsg>>;
  using Batch = std::vector<std::shared_ptr<BaseMsg>>;

  int EnqueueFromOtherThread(std::shared_ptr<BaseMsg> msg);
  void EnqueueSorted(std::shared_ptr<BaseMsg> msg);
  void EnqueueWithoutLock(std::shared_ptr<BaseMsg> msg);
  // Sorts the whole queue again by each message's `when` (stably), for a
  // message published again while still queued: its earlier entries move too.
  void ResortLocked(std::shared_ptr<BaseMsg> msg);
  // Moves the messages due at `now` from the front of the queue into `batch`.
  void TakeDueLocked(long long now, Batch& batch);
  void WaitUpToOneSecond(std::unique_lock<std::mutex>& lock);
  void Deliver(Batch& batch);

  // What the bus thread waits on; notified by publications from other threads.
  std::condition_variable cond;
  // Guards queue, queued, resortPending, the state of `loop` and the writes to
  // subscribers.
  std::mutex mutex;
  // The bus thread: its start, stop and identity (for "am I the bus thread?").
  LoopThread loop;
  // Pending messages. Guarded by mutex, except for the bus thread's own
  // delayed publications.
  std::unique_ptr<Queue> queue;
  // How many entries of `queue` each message has; guarded like `queue`.
  std::unordered_map<const BaseMsg*, size_t> queued;
  // A queued message got a new `when` without a sort (its publication was
  // refused): the next publication sorts everything. Guarded like `queue`.
  bool resortPending = false;
  // Subscribers by routing type. Written under mutex by Subscribe and
  // Unsubscribe; read by the bus thread without it.
  std::map<int, std::list<std::weak_ptr<MsgSubscriber>>> subscribers;
};

}  // namespace zel
