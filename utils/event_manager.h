/// @file
/// The layout of EventManager is ABI: clients allocate these objects, so their size and the places
/// of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// Process-wide table of named events. Code registers plain C callbacks (each
/// with a context pointer) under a name; any thread sends an event by name, and
/// one event thread calls that name's callbacks, one at a time, in registration
/// order. Sending only queues: it never waits for the callbacks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "utils/export.h"
#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

/// The table of named events and its event thread. Any thread may register,
/// unregister and send; callbacks run on the event thread, outside the lock,
/// so a callback may register, unregister or send too.
class EventManager {
 public:
  /// A callback, called on the event thread with the context pointer it was
  /// registered with.
  using EventCallback = void (*)(void*);

  /// The one instance, created (and its event thread started) on first use and
  /// destroyed at process exit.
  /// @return The instance.
  ZEL_API static EventManager& getInstance();

  /// A table of its own, with its own event thread (started here). Most code
  /// uses getInstance() instead.
  ZEL_API EventManager();
  /// Runs stop() (joining the event thread), then drops what is still queued
  /// uncalled. Not from a callback of this table.
  ZEL_API ~EventManager();
  EventManager(const EventManager&) = delete;
  EventManager& operator=(const EventManager&) = delete;

  /// Appends (callback, arg) to the callbacks of `name`. Duplicates are kept
  /// and called once per appearance.
  /// @param name Event name.
  /// @param callback Function to call.
  /// @param arg Context pointer handed to `callback`; not owned, the manager
  ///   never touches it.
  ZEL_API void registerEvent(const std::string& name, EventCallback callback, void* arg)
      ZEL_EXCLUDES(mutex);
  /// Removes every pair of `name` whose function is `callback`, whatever its
  /// argument; the name is forgotten once its last pair is gone. Unknown
  /// names are ignored.
  /// @param name Event name.
  /// @param callback Function to remove.
  ZEL_API void unregisterEvent(const std::string& name, EventCallback callback) ZEL_EXCLUDES(mutex);
  /// Queues a copy of each pair registered under `name` now and wakes the event
  /// thread; returns at once. Unknown names queue nothing.
  /// @param name Event name.
  ZEL_API void sendEvent(const std::string& name) ZEL_EXCLUDES(mutex);
  /// Body of the event thread; only the constructor runs it.
  ZEL_API void processEvents() ZEL_EXCLUDES(mutex);
  /// Ends the event thread (joining it); there is no restart. Events sent
  /// afterwards are queued but never called. Must not be called from a
  /// callback. May block for the running callback, plus up to 100 ms.
  ZEL_API void stop();

 private:
  using Entry = std::pair<EventCallback, void*>;

  // The event thread. Started by the constructor, joined by stop().
  std::thread thread;
  // Guards queue and events.
  Mutex mutex;
  // Wakes the event thread; notified by sendEvent and stop().
  std::condition_variable cond;
  // Pairs sent and not yet called.
  std::deque<Entry> queue ZEL_GUARDED_BY(mutex);
  // Registered pairs by name.
  std::unordered_map<std::string, std::vector<Entry>> events ZEL_GUARDED_BY(mutex);
  // Cleared by stop() without the lock (atomic); the event thread polls it.
  std::atomic<bool> running{true};
};

}  // namespace zel
