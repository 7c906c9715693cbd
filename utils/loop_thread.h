/// @file
/// The one thread behind a Looper or a MsgBus, and the start/stop rules the
/// two share. Used by those classes only; installed because their headers
/// hold one by value.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace zel {

// Starts, stops and identifies the thread that runs an owner's loop body.
// The owner's mutex guards it (and the owner's queue); the owner's condition
// variable is what the body waits on, so Stop notifies it. The body polls
// ShouldRun() and must return soon after it turns false.
//
// Any thread may call Start and Stop, concurrently too: at most one thread
// runs the body at a time, and a thread object is never replaced while
// another call still joins it.
class LoopThread {
 public:
  LoopThread(std::mutex& mutex, std::condition_variable& wake);
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs `body` on a new thread; -1 if already running. From another thread,
  // first waits until an earlier thread has left its body and a Stop in
  // progress has joined it. From the loop thread itself (after it stopped
  // itself) it does not wait: the new thread waits for this one to leave
  // instead. -1 from the loop thread while another thread's Stop joins it.
  int Start(std::function<void()> body);
  // How a Stop went.
  enum class StopResult {
    kJoined,          // from another thread: the thread was woken and joined
    kLetGo,           // from the thread itself: it was detached
    kAlreadyStopped,  // from another thread, when not running
  };
  // Marks the loop stopped and wakes the body. From another thread, joins the
  // thread and forgets it (Text() becomes ""); `joined_text`, if given,
  // receives the text it had. From the thread itself, detaches it instead.
  // Prints "already stoped " on stdout for kAlreadyStopped.
  StopResult Stop(std::string* joined_text = nullptr);
  // Blocks until every thread that stopped itself has left its body; from
  // such a thread, until the others have. Owners call it before they are freed.
  void WaitForDetachedThread();

  bool Stopped() const { return stopped; }
  // For the body: false once the loop was stopped or restarted on a newer
  // thread. Loop thread only.
  bool ShouldRun() const { return !stopped && IsCurrent(); }
  bool IsCurrent() const { return current.load() == std::this_thread::get_id(); }
  // Text of the thread's handle (ThreadIdString): "" before the first Start
  // and after a Stop from another thread; kept after a Stop from itself.
  std::string Text();

 private:
  // Runs on each new thread: waits to be the only one, runs `body`, then
  // says it has left.
  void RunAlone(const std::function<void()>& body);

  std::mutex& mutex;
  std::condition_variable& wake;
  // Signalled whenever what Start and a new thread wait for may have changed:
  // a thread left its body, a Stop began or finished joining, a Start won.
  std::condition_variable settled;
  std::unique_ptr<std::thread> thread;  // guarded by mutex
  std::string text;                     // guarded by mutex
  // The thread again, as an atomic value: callers on any thread ask "am I the
  // loop thread?" without reading a string that another thread may write.
  std::atomic<std::thread::id> current{std::thread::id()};
  std::atomic<bool> stopped{true};
  // Threads started and not yet out of their body; guarded by mutex.
  int threads_in_body = 0;
  // True while a Stop joins `thread` outside the lock; guarded by mutex.
  bool joining = false;
};

}  // namespace zel
