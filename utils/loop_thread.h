// The one thread behind a Looper or a MsgBus, and the start/stop rules the
// two share. Used by those classes only; installed because their headers
// hold one by value.
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
// Stopped() and must return soon after it turns true.
class LoopThread {
 public:
  LoopThread(std::mutex& mutex, std::condition_variable& wake);
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs `body` on a new thread; -1 if already running. After a stop from the
  // thread itself, first waits until that thread has left its body, so that
  // two threads never share one loop.
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
  // Blocks until a thread that stopped itself has left its body; returns at
  // once when called from that thread. Owners call it before they are freed.
  void WaitForDetachedThread();

  bool Stopped() const { return stopped; }
  bool IsCurrent() const { return current.load() == std::this_thread::get_id(); }
  // Text of the thread's handle (ThreadIdString): "" before the first Start
  // and after a Stop from another thread; kept after a Stop from itself.
  std::string Text();

 private:
  std::mutex& mutex;
  std::condition_variable& wake;
  std::unique_ptr<std::thread> thread;
  std::string text;
  // The thread again, as an atomic value: callers on any thread ask "am I the
  // loop thread?" without reading a string that another thread may write.
  std::atomic<std::thread::id> current{std::thread::id()};
  std::atomic<bool> stopped{true};
  // True from Start until the thread has left its body.
  std::atomic<bool> in_body{false};
};

}  // namespace zel
