// Worker: runs closures on the thread of a Looper that its owner supplies,
// starts and stops. It has no thread of its own.
#pragma once

#include <functional>

#include "utils/export.h"
#include "utils/looper.h"

namespace zel {

// Carries one closure through a Looper; an empty closure throws
// std::bad_function_call when run.
class ZEL_API WorkerMessage : public Message {
 public:
  explicit WorkerMessage(std::function<void()> fn) : task(std::move(fn)) { when = -1; }
  void Run() override { task(); }

  std::function<void()> task;
};

class Worker {
 public:
  // `looper` is not owned and must outlive the Worker.
  explicit Worker(Looper* looper) : looper(looper) {}

  // Posts a copy of `fn` and returns at once. On a stopped Looper the closure
  // is dropped silently.
  ZEL_API void DoAsync(const std::function<void()>& fn);
  // Posts a copy of `fn` and returns once it has run on the loop thread,
  // polling every 10 ms. Never returns on a stopped Looper, or when called
  // from the loop's own thread.
  ZEL_API void DoSync(const std::function<void()>& fn);

  Looper* looper;
};

}  // namespace zel
