/// @file
/// The layout of BaseMsg and MsgBus is ABI: clients allocate these objects, so their size and the
/// places of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
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
#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

/// @cond internal
// The process-wide stamp lock (msg_bus.cpp): every bus stamps and reads
// BaseMsg::when under it, and counts under it which messages it holds.
// Declared here to name it in the lock rules; not exported.
Mutex& BusStampLock();
/// @endcond

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
  /// Due time. Stamped by PublishMsg and read by every bus under one
  /// process-wide lock, so a message may be shared by several buses.
  ZEL_GUARDED_BY(BusStampLock())
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
  /// A bus thread that stopped itself is waited for until it has let go. May
  /// run on the bus thread (a released message destroying its bus): that
  /// thread then leaves without touching the bus again.
  ZEL_API ~MsgBus();
  MsgBus(const MsgBus&) = delete;
  MsgBus& operator=(const MsgBus&) = delete;

  /// Appends a weak reference to `s` to the subscribers of `msg_type`, in
  /// registration order. Any thread; a message already being delivered goes
  /// to the subscribers it was delivered with.
  /// @param msg_type The routing type to receive.
  /// @param s The subscriber; held weakly, the caller keeps it alive.
  /// @return Always 0.
  ZEL_API int Subscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s) ZEL_EXCLUDES(mutex);
  /// Removes every reference to `s` under `msg_type`. Any thread, as Subscribe.
  /// @param msg_type The routing type.
  /// @param s The subscriber to remove.
  /// @return 0, or -1 if there was none.
  ZEL_API int Unsubscribe(int msg_type, const std::shared_ptr<MsgSubscriber>& s)
      ZEL_EXCLUDES(mutex);

  /// Starts the bus thread and returns at once. Whatever is still queued from
  /// an earlier run is delivered by the new thread. When an earlier bus
  /// thread is still busy (it stopped itself, or a Stop is joining it), the
  /// new thread delivers nothing until that one has left; the old thread
  /// hands the rest of its batch back to the head of the queue. Any thread.
  /// @return 0; -1 if already running, or while another thread's Stop is
  ///   joining the bus thread when called from the bus thread or from a
  ///   subscriber's delivery (the join waits for the caller).
  ZEL_API int Start() ZEL_EXCLUDES(mutex);
  /// Stops the bus. From another thread: joins the bus thread (waiting for the
  /// delivery in progress). From the bus thread itself: detaches it. Queued
  /// messages stay for the next Start. Any thread but a delivery of this bus
  /// (that Stop would wait for itself for ever).
  /// @return 0; -1 with "already stoped " on stdout if it was not running.
  ZEL_API int Stop() ZEL_EXCLUDES(mutex);

  /// Publishes for delivery as soon as possible. From another thread, refused
  /// (-1) while stopped; `when` is overwritten even then. From the bus thread
  /// always accepted. Any thread. Every publication sorts the queue again by
  /// each message's `when`, however a publication on any bus changed it.
  /// @param msg The message; the bus shares it while it is queued.
  /// @return 0, or -1 when refused or when `msg` is null.
  ZEL_API int PublishMsg(std::shared_ptr<BaseMsg> msg) ZEL_EXCLUDES(mutex);
  /// Publishes for delivery `delay` ms from now; zero or negative is due at
  /// once. Refused as the immediate form.
  /// @param msg The message; the bus shares it while it is queued.
  /// @param delay Delay in milliseconds.
  /// @return 0, or -1 when refused or when `msg` is null.
  ZEL_API int PublishMsg(std::shared_ptr<BaseMsg> msg, long long delay) ZEL_EXCLUDES(mutex);

  /// Body of the bus thread; only Start runs it.
  ZEL_API void process() ZEL_EXCLUDES(mutex);

 private:
  // Pending messages by due time; equal times in publication order (a
  // multimap inserts after its equal keys). A key is the message's `when` as
  // of the last sort; a message re-stamped since keeps its place until the
  // next publication sorts the whole queue again, as a list sorted at every
  // publication would.
  using Queue = std::multimap<long long, std::shared_ptr<BaseMsg>>;
  using Batch = std::vector<std::shared_ptr<BaseMsg>>;

  // Stamps `when` and queues the message (see PublishMsg).
  int Publish(std::shared_ptr<BaseMsg> msg, long long when) ZEL_EXCLUDES(mutex, BusStampLock());
  // Sets msg.when under the stamp lock, and marks every bus that holds `msg`
  // queued for a full sort at its next publication.
  static void Stamp(BaseMsg& msg, long long when) ZEL_EXCLUDES(BusStampLock());
  // Queues `msg` where a stable sort by `when` puts it; sorts everything when
  // a queued message was re-stamped. Requires mutex and the stamp lock.
  void EnqueueLockedStamped(std::shared_ptr<BaseMsg> msg) ZEL_REQUIRES(mutex, BusStampLock());
  // Sorts the whole queue and `msg` by each message's current `when`
  // (stably, from the queue's order). Requires mutex and the stamp lock.
  void ResortLockedStamped(std::shared_ptr<BaseMsg> msg) ZEL_REQUIRES(mutex, BusStampLock());
  // Moves the messages due at `now` from the front of the queue into `batch`.
  // Requires mutex; takes the stamp lock.
  void TakeDueLocked(long long now, Batch& batch) ZEL_REQUIRES(mutex) ZEL_EXCLUDES(BusStampLock());
  // Puts batch[from...] back at the head of the queue, in order. Requires
  // mutex; takes the stamp lock.
  void PutBackAtHeadLocked(Batch& batch, size_t from) ZEL_REQUIRES(mutex)
      ZEL_EXCLUDES(BusStampLock());
  // Waits on `cond` for up to a second; `lock` holds mutex.
  void WaitUpToOneSecondLocked(MutexLock& lock) ZEL_REQUIRES(mutex);
  // Delivers the batch while the bus should run, then puts the rest back (a
  // restart) or releases it (a stop). False when releasing a message
  // destroyed this bus: nothing of it may be touched then. Bus thread only.
  bool Deliver(Batch& batch) ZEL_EXCLUDES(mutex);
  // Hands `msg` to each live subscriber of its type, one delivery thread at a
  // time. Bus thread only.
  void DeliverToSubscribers(const std::shared_ptr<BaseMsg>& msg) ZEL_EXCLUDES(mutex);

  // What the bus thread waits on; notified by publications from other threads.
  std::condition_variable cond;
  // Guards queue, subscribers and the state of `loop`.
  Mutex mutex;
  // The bus thread: its start, stop and identity (for "am I the bus thread?").
  LoopThread loop;
  // Pending messages. The pointer is immutable; the queue is guarded by mutex.
  std::unique_ptr<Queue> queue ZEL_PT_GUARDED_BY(mutex);
  // How many entries of `queue` each message has. Guarded by the
  // process-wide stamp lock (and changed with mutex held too), so that a
  // publication on any bus can tell which buses hold the message it stamps.
  std::unordered_map<const BaseMsg*, size_t> queued ZEL_GUARDED_BY(BusStampLock());
  // A queued message was re-stamped (by a publication here or on another
  // bus, accepted or refused): the next publication sorts everything.
  bool resortPending ZEL_GUARDED_BY(BusStampLock()) = false;
  // Subscribers by routing type.
  std::map<int, std::list<std::weak_ptr<MsgSubscriber>>> subscribers ZEL_GUARDED_BY(mutex);
};

}  // namespace zel
