/// @file
/// The layout of LoopThread (held by value by Looper and MsgBus) is ABI: clients allocate these
/// objects, so their size and the places of their public members stay (abi/libzel_utils.abi;
/// docs/architecture.md).
///
/// The one thread behind a Looper or a MsgBus, and the start/stop rules the
/// two share. Used by those classes only; installed because their headers
/// hold one by value (its size is part of theirs: ABI).
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

// Starts, stops and identifies the thread that runs an owner's loop body.
// The owner's mutex guards it (and the owner's queue); the owner's condition
// variable is what the body waits on, so Stop notifies it. The body polls
// ShouldRun() and must return soon after it turns false.
//
// Any thread may call Start and Stop, concurrently too. Neither waits for a
// message of another thread, except that Stop from another thread joins the
// loop thread. At most one thread runs the body at a time: a thread started
// while its predecessor is still busy waits until that one has left.
class LoopThread {
 public:
  LoopThread(Mutex& mutex, std::condition_variable& wake);
  // Marks a destruction from the loop thread itself (see OwnerDestroyed).
  ~LoopThread();
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs `body` on a new thread and returns at once: 0, or -1 if already
  // running. -1 as well while a Stop from another thread is joining the loop
  // thread, when the caller is that thread or one it waits for
  // (`loopWaitsForCaller`, e.g. a bus's delivery thread): the join waits for
  // the caller, so the caller cannot start a successor under it.
  // Any thread. Throws std::system_error when no thread can be made.
  int Start(std::function<void()> body, bool loopWaitsForCaller = false) ZEL_EXCLUDES(mutex);
  // How a Stop went.
  enum class StopResult {
    kJoined,          // from another thread: the thread was woken and joined
    kLetGo,           // from the thread itself: it was detached
    kAlreadyStopped,  // from another thread, when not running
  };
  // Marks the loop stopped and wakes the body. From another thread, joins the
  // thread and forgets it (Text() becomes "", unless a Start came meanwhile);
  // `joined_text`, if given, receives the text it had. From the thread
  // itself, detaches it instead. Prints "already stoped " on stdout for
  // kAlreadyStopped. Any thread; from another thread it blocks until the
  // loop thread has finished its current message.
  StopResult Stop(std::string* joined_text = nullptr) ZEL_EXCLUDES(mutex);
  // Blocks until every thread that stopped itself has left its body; from
  // such a thread, until the others have. Owners call it before they are freed.
  void WaitForDetachedThread() ZEL_EXCLUDES(mutex);

  // Atomic: read unlocked.
  bool Stopped() const { return stopped; }
  // For the body: false once the loop was stopped or restarted on a newer
  // thread. Loop thread only.
  bool ShouldRun() const { return !stopped && IsCurrent(); }
  // Whether the caller is the loop thread. Any thread.
  bool IsCurrent() const { return current.load() == std::this_thread::get_id(); }
  // Text of the thread's handle (ThreadIdString): "" before the first Start
  // and after a Stop from another thread; kept after a Stop from itself.
  // Any thread.
  std::string Text() ZEL_EXCLUDES(mutex);

  // True on a loop thread whose owner was destroyed by code that this thread
  // ran (a message deleting its own Looper, say): the body must then return
  // at once without touching the owner again. Loop thread only.
  static bool OwnerDestroyed();

 private:
  // Runs on each new thread: waits to be the only one, runs `body`, then
  // says it has left.
  void RunAlone(const std::function<void()>& body) ZEL_EXCLUDES(mutex);

  Mutex& mutex;                   // the owner's; immutable reference
  std::condition_variable& wake;  // the owner's; immutable reference
  // Signalled whenever what a new thread or WaitForDetachedThread waits for
  // may have changed: a thread left its body, a Stop began or ended.
  std::condition_variable settled;
  // The newest thread object. A Stop from another thread takes it out to
  // join it, so a Start meanwhile can put a new one here.
  std::unique_ptr<std::thread> thread ZEL_GUARDED_BY(mutex);
  std::string text ZEL_GUARDED_BY(mutex);
  // The thread again, as an atomic value: callers on any thread ask "am I the
  // loop thread?" without reading a string that another thread may write.
  // Written under mutex; atomic: read unlocked.
  std::atomic<std::thread::id> current{std::thread::id()};
  // Written under mutex; atomic: read unlocked.
  std::atomic<bool> stopped{true};
  // Threads started and not yet out of their body.
  int threads_in_body ZEL_GUARDED_BY(mutex) = 0;
  // A Stop from another thread is joining the current thread.
  bool joining ZEL_GUARDED_BY(mutex) = false;
};

}  // namespace zel
