/// @file
/// The layout of Message, HandlerMessage, Handler, InerTaskMessage and Looper is ABI: clients
/// allocate these objects, so their size and the places of their public members stay
/// (abi/libzel_utils.abi; docs/architecture.md).
///
/// Single-thread message loop and the messages that travel through it.
///
/// A Looper owns one thread (started by Start) that runs posted messages one
/// after another in FIFO order. Any thread may post, start or stop. Posted
/// messages belong to the loop from the moment the post succeeds; a refused
/// post leaves the message in the caller's unique_ptr, which deletes it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "utils/export.h"
#include "utils/loop_thread.h"
#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

/// Text of a thread handle as an output stream prints a pointer ("0x7f...");
/// the loops' diagnostics name their threads by it. Any thread.
/// @param handle The thread handle.
/// @return The handle's text.
ZEL_API std::string ThreadIdString(pthread_t handle);

/// Base of everything a Looper runs. `when` is the due time in wall-clock
/// milliseconds since the epoch, stamped by the Looper at post time; a
/// negative value means "due at once".
class ZEL_API Message {
 public:
  /// Does the message's work; called once, on the loop thread.
  virtual void Run() = 0;
  /// Frees the message: after it ran, or unrun when it is dropped.
  virtual ~Message() = default;

  /// Due time (ms since the epoch; negative: at once). Stamped by the posting
  /// thread before the message is queued, then read by the loop thread only.
  long long when = -1;
};

/// Hands one heap object to a callback on the loop thread. The message owns
/// `data`: it is freed after the handler ran, or when the message is dropped
/// unrun. An empty handler is accepted and throws std::bad_function_call when run.
/// @tparam T Type of the record.
template <typename T>
class HandlerMessage : public Message {
 public:
  /// Takes over `record`; the message is due at once.
  /// @param record Heap object (new T), owned by the message from here on.
  /// @param fn Called with `record` on the loop thread.
  HandlerMessage(T* record, std::function<void(T*)> fn) : data(record), handler([](T*) {}) {
    when = -1;
    handler = std::move(fn);
  }
  /// Calls handler(data), on the loop thread.
  void Run() override { handler(data.get()); }

  // Declared in this order so that `handler` is destroyed before `data`.
  /// The record, owned. Set at construction; used by the loop thread.
  std::unique_ptr<T> data;
  /// The callback. Set at construction; called by the loop thread.
  std::function<void(T*)> handler;
};

/// A plain function plus a context word, run by InerTaskMessage as func(arg).
/// Plain data: the Looper posts a copy.
/// @tparam F Function pointer type; the Looper takes void (*)().
template <typename F>
struct Callback {
  void* arg = nullptr;  ///< Context word handed to `func`; not owned.
  F func = nullptr;     ///< The function; must not be null when run.
};

/// Runs a Callback<void (*)()>: the function is called with `arg` as its one
/// argument; a function declared without parameters simply ignores it.
class ZEL_API InerTaskMessage : public Message {
 public:
  /// Copies `cb`; the message is due at once.
  /// @param cb The function and its context word.
  explicit InerTaskMessage(const Callback<void (*)()>& cb) : callback(cb) { when = -1; }
  /// Calls callback.func(callback.arg), on the loop thread.
  void Run() override;

  /// The copied callback. Set at construction; used by the loop thread.
  Callback<void (*)()> callback;
};

/// The loop. States: stopped (initial), running, destroying. Results are 0 for
/// success and -1 for refusal.
class Looper {
 public:
  /// A stopped loop with an empty queue; no thread until Start.
  ZEL_API Looper();
  /// Stops a running loop (joining its thread) and drops queued messages unrun.
  /// A loop thread that stopped itself is waited for until it has let go. May
  /// be run by a message of this very loop: its thread then leaves without
  /// touching the loop again.
  ZEL_API ~Looper();
  Looper(const Looper&) = delete;
  Looper& operator=(const Looper&) = delete;

  /// Starts the loop thread and returns at once. When an earlier loop thread
  /// is still finishing a message (it stopped itself, or a Stop is joining
  /// it), the new thread runs nothing until that one has left; the old thread
  /// hands the rest of its batch back to the head of the queue for it. Any
  /// thread.
  /// @return 0; -1 if already running or being destroyed, or when called on
  ///   the loop thread while another thread's Stop is joining it.
  ZEL_API int Start() ZEL_EXCLUDES(mutex);
  /// Stops the loop. From another thread: joins the loop thread (waiting for
  /// the running message). From the loop's own thread: detaches it, and the
  /// rest of the current batch is dropped (unless the loop is started again
  /// before that thread gets to it). Queued messages stay for the next Start.
  /// Any thread.
  /// @return 0; -1 with "already stoped " on stdout if it was not running.
  ZEL_API int Stop() ZEL_EXCLUDES(mutex);
  /// Body of the loop thread; only Start runs it.
  ZEL_API void process() ZEL_EXCLUDES(mutex);

  /// Posts for running as soon as possible. From another thread, refused (-1)
  /// while stopped; from the loop thread always accepted. Any thread.
  /// @param msg The message; the loop owns it once the post succeeds, and a
  ///   refused one is deleted.
  /// @return 0, or -1 when refused.
  ZEL_API int PostMessageAAA(std::unique_ptr<Message> msg) ZEL_EXCLUDES(mutex);
  /// Posts for running no earlier than delay_ms from now. The queue is FIFO and
  /// only its front is inspected, so a delayed message holds back every later
  /// one. Refused as PostMessageAAA. Any thread.
  /// @param msg The message; owned as for PostMessageAAA.
  /// @param delay_ms Delay in milliseconds.
  /// @return 0, or -1 when refused.
  ZEL_API int PostDelayMessage(std::unique_ptr<Message> msg, long long delay_ms)
      ZEL_EXCLUDES(mutex);
  /// Wraps a copy of `cb` in an InerTaskMessage and posts it with
  /// PostMessageAAA.
  /// @param cb The function and its context word; copied.
  /// @return Always 0, even when the post is refused (the task is then dropped).
  ZEL_API int PostTask(Callback<void (*)()>& cb);
  /// Wraps a copy of `cb` in an InerTaskMessage and posts it with
  /// PostDelayMessage.
  /// @param cb The function and its context word; copied.
  /// @param delay_ms Delay in milliseconds.
  /// @return Always 0, even when the post is refused (the task is then dropped).
  ZEL_API int PostDelayTask(Callback<void (*)()>& cb, long long delay_ms);

 private:
  // One contiguous FIFO: posting costs no allocation of its own.
  using Queue = std::deque<std::unique_ptr<Message>>;
  // Messages taken out to be destroyed unrun (empty, it allocates nothing).
  using Dropped = std::vector<std::unique_ptr<Message>>;

  // Moves the whole queue into `batch` once its front is due at `now`, or
  // waits up to a second for a post; false if there is nothing to run.
  bool TakeQueue(Queue& batch, long long& now) ZEL_EXCLUDES(mutex);
  // Runs the due front of `batch` (the messages due at `now`, in order) while
  // the loop should run, then hands the rest back (ReturnLeftovers). False
  // when a message destroyed this Looper: nothing of it may be touched then.
  bool RunBatch(Queue& batch, long long now) ZEL_EXCLUDES(mutex);
  // Puts what `batch` still holds back at the head of the queue, in order;
  // when the loop is stopped (not restarted), its due messages are returned
  // instead, to be dropped unrun. Takes the lock.
  Dropped ReturnLeftovers(Queue& batch, long long now) ZEL_EXCLUDES(mutex);
  // Waits on `cond` for up to a second, saying so in `waiting`; `lock` holds
  // mutex.
  void WaitLocked(MutexLock& lock) ZEL_REQUIRES(mutex);
  // Appends `msg` for another thread; -1 while stopped. Wakes the loop
  // thread only if it waits, after the lock is released.
  int PostFromOtherThread(std::unique_ptr<Message> msg) ZEL_EXCLUDES(mutex);

  // What the loop thread waits on; a post notifies it when `waiting`.
  std::condition_variable cond;
  // Guards queue, waiting and the state of `loop`.
  Mutex mutex;
  // The loop thread: its start, stop and identity (for "am I the loop
  // thread?" and the diagnostics).
  LoopThread loop;
  // Posted messages not yet taken by the loop. The pointer is immutable; the
  // queue is guarded by mutex.
  std::unique_ptr<Queue> queue ZEL_PT_GUARDED_BY(mutex);
  // The loop thread waits on `cond`: a post must wake it.
  bool waiting ZEL_GUARDED_BY(mutex) = false;
  // Set once by the destructor (under mutex); read unlocked (atomic).
  std::atomic<bool> destroying{false};
};

/// A loop dedicated to one kind of record: `handler` runs on the loop thread
/// for every record posted. The owner starts `looper` and may stop it.
/// @tparam T Type of the records.
template <typename T>
class Handler {
 public:
  /// Makes the loop (stopped) and keeps `fn`.
  /// @param fn Called with every record on the loop thread.
  explicit Handler(std::function<void(T*)> fn) : handler([](T*) {}) {
    handler = std::move(fn);
    looper = std::make_unique<Looper>();
  }

  /// Wraps `record` (taken over) with a copy of `handler` and posts it. Any
  /// thread.
  /// @param record Heap object (new T); the loop owns it from here on.
  /// @return The post's result; on -1 the record is already freed.
  int Post(T* record) {
    return looper->PostMessageAAA(std::make_unique<HandlerMessage<T>>(record, handler));
  }

  // Declared in this order so that `handler` is destroyed before the Looper.
  /// The loop, owned. Made by the constructor; start and stop it through here.
  std::unique_ptr<Looper> looper;
  /// The callback. Set at construction; copied by every Post.
  std::function<void(T*)> handler;
};

}  // namespace zel
