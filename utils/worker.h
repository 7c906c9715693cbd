/// @file
/// The layout of Worker and WorkerMessage is ABI: clients allocate these objects, so their size and
/// the places of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// Worker: runs closures on the thread of a Looper that its owner supplies,
/// starts and stops. It has no thread of its own.
#pragma once

#include <functional>

#include "utils/export.h"
#include "utils/looper.h"

namespace zel {

/// Carries one closure through a Looper; an empty closure throws
/// std::bad_function_call when run.
class ZEL_API WorkerMessage : public Message {
 public:
  /// Takes over `fn`; the message is due at once.
  /// @param fn The closure to run.
  explicit WorkerMessage(std::function<void()> fn) : task(std::move(fn)) { when = -1; }
  /// Calls the closure, on the loop thread.
  void Run() override { task(); }

  /// The closure. Set at construction; the loop thread runs it.
  std::function<void()> task;
};

/// Runs closures on a Looper's thread, returning at once (DoAsync) or once
/// the closure has run (DoSync). Any thread may call DoAsync; DoSync only a
/// thread other than the loop's.
class Worker {
 public:
  /// `looper` is not owned and must outlive the Worker.
  /// @param looper The loop to post to; its owner starts and stops it.
  explicit Worker(Looper* looper) : looper(looper) {}

  /// Posts a copy of `fn` and returns at once. On a stopped Looper the closure
  /// is dropped silently.
  /// @param fn The closure to run on the loop thread.
  ZEL_API void DoAsync(const std::function<void()>& fn);
  /// Posts a copy of `fn` and returns once it has run on the loop thread,
  /// polling every 10 ms. Never returns on a stopped Looper, or when called
  /// from the loop's own thread.
  /// @param fn The closure to run on the loop thread.
  ZEL_API void DoSync(const std::function<void()>& fn);

  /// The loop given to the constructor; not owned. Not guarded: set once.
  Looper* looper;
};

}  // namespace zel
