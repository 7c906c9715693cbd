// Single-thread message loop and the messages that travel through it.
//
// A Looper owns one thread (started by Start) that runs posted messages one
// after another in FIFO order. Any thread may post, start or stop. Posted
// messages belong to the loop from the moment the post succeeds; a refused
// post leaves the message in the caller's unique_ptr, which deletes it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "utils/export.h"
#include "utils/loop_thread.h"

namespace zel {

// Text of a thread handle as an output stream prints a pointer ("0x7f...");
// the loops' diagnostics name their threads by it.
ZEL_API std::string ThreadIdString(pthread_t handle);

// Base of everything a Looper runs. `when` is the due time in wall-clock
// milliseconds since the epoch, stamped by the Looper at post time; a
// negative value means "due at once".
class ZEL_API Message {
 public:
  virtual void Run() = 0;
  virtual ~Message() = default;

  long long when = -1;
};

// Hands one heap object to a callback on the loop thread. The message owns
// `data`: it is freed after the handler ran, or when the message is dropped
// unrun. An empty handler is accepted and throws std::bad_function_call when run.
template <typename T>
class HandlerMessage : public Message {
 public:
  HandlerMessage(T* record, std::function<void(T*)> fn) : data(record), handler([](T*) {}) {
    when = -1;
    handler = std::move(fn);
  }
  void Run() override { handler(data.get()); }

  // Declared in this order so that `handler` is destroyed before `data`.
  std::unique_ptr<T> data;
  std::function<void(T*)> handler;
};

// A plain function plus a context word, run by InerTaskMessage as func(arg).
template <typename F>
struct Callback {
  void* arg = nullptr;
  F func = nullptr;
};

// Runs a Callback<void (*)()>: the function is called with `arg` as its one
// argument; a function declared without parameters simply ignores it.
class ZEL_API InerTaskMessage : public Message {
 public:
  explicit InerTaskMessage(const Callback<void (*)()>& cb) : callback(cb) { when = -1; }
  void Run() override;

  Callback<void (*)()> callback;
};

// The loop. States: stopped (initial), running, destroying. Results are 0 for
// success and -1 for refusal.
class Looper {
 public:
  ZEL_API Looper();
  // Stops a running loop (joining its thread) and drops queued messages unrun.
  // A loop thread that stopped itself is waited for until it has let go.
  ZEL_API ~Looper();
  Looper(const Looper&) = delete;
  Looper& operator=(const Looper&) = delete;

  // Starts the loop thread; -1 if already running or being destroyed. After
  // a stop from the loop's own thread, first waits until that thread has left.
  ZEL_API int Start();
  // Stops the loop. From another thread: joins the loop thread (waiting for
  // the running message), -1 with "already stoped " on stdout if it was not
  // running. From the loop's own thread: detaches it, the rest of the current
  // batch is dropped, returns 0. Queued messages stay for the next Start.
  ZEL_API int Stop();
  // Body of the loop thread; only Start runs it.
  ZEL_API void process();

  // Posts for running as soon as possible. From another thread, refused (-1)
  // while stopped; from the loop thread always accepted.
  ZEL_API int PostMessageAAA(std::unique_ptr<Message> msg);
  // Posts for running no earlier than delay_ms from now. The queue is FIFO and
  // only its front is inspected, so a delayed message holds back every later one.
  ZEL_API int PostDelayMessage(std::unique_ptr<Message> msg, long long delay_ms);
  // Wrap a copy of `cb` in an InerTaskMessage and post it; always return 0,
  // even when the post is refused (the task is then dropped).
  ZEL_API int PostTask(Callback<void (*)()>& cb);
  ZEL_API int PostDelayTask(Callback<void (*)()>& cb, long long delay_ms);

 private:
  // One contiguous FIFO: posting costs no allocation of its own.
  using Queue = std::deque<std::unique_ptr<Message>>;

  // Moves the whole queue into `batch` once its front is due at `now`, or
  // waits up to a second for a post; false if there is nothing to run.
  bool TakeQueue(Queue& batch, long long& now);
  // Runs the due front of `batch` (the messages due at `now`, in order), then
  // puts the rest back at the head of the queue.
  void RunBatch(Queue& batch, long long now);
  // Waits on `cond` for up to a second, saying so in `waiting`.
  void WaitLocked(std::unique_lock<std::mutex>& lock);
  // Appends `msg` for another thread; -1 while stopped. Wakes the loop
  // thread only if it waits, after the lock is released.
  int PostFromOtherThread(std::unique_ptr<Message> msg);

  std::condition_variable cond;
  std::mutex mutex;
  // The loop thread: its start, stop and identity (for "am I the loop
  // thread?" and the diagnostics).
  LoopThread loop;
  // Posted messages not yet taken by the loop. Guarded by mutex, except for
  // the loop thread's own delayed posts.
  std::unique_ptr<Queue> queue;
  // The loop thread waits on `cond`: a post must wake it. Guarded by mutex.
  bool waiting = false;
  std::atomic<bool> destroying{false};
};

// A loop dedicated to one kind of record: `handler` runs on the loop thread
// for every record posted. The owner starts `looper` and may stop it.
template <typename T>
class Handler {
 public:
  explicit Handler(std::function<void(T*)> fn) : handler([](T*) {}) {
    handler = std::move(fn);
    looper = std::make_unique<Looper>();
  }

  // Wraps `record` (taken over) with a copy of `handler` and posts it.
  // Returns the post's result; on -1 the record is already freed.
  int Post(T* record) {
    return looper->PostMessageAAA(std::make_unique<HandlerMessage<T>>(record, handler));
  }

  // Declared in this order so that `handler` is destroyed before the Looper.
  std::unique_ptr<Looper> looper;
  std::function<void(T*)> handler;
};

}  // namespace zel
