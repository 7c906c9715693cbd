// Process-wide table of named events. Code registers plain C callbacks (each
// with a context pointer) under a name; any thread sends an event by name, and
// one event thread calls that name's callbacks, one at a time, in registration
// order. Sending only queues: it never waits for the callbacks.
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

namespace zel {

class EventManager {
 public:
  using EventCallback = void (*)(void*);

  // The one instance, created (and its event thread started) on first use and
  // destroyed at process exit.
  ZEL_API static EventManager& getInstance();

  EventManager(const EventManager&) = delete;
  EventManager& operator=(const EventManager&) = delete;

  // Appends (callback, arg) to the callbacks of `name`. Duplicates are kept
  // and called once per appearance. The manager never touches `arg`.
  ZEL_API void registerEvent(const std::string& name, EventCallback callback, void* arg);
  // Removes every pair of `name` whose function is `callback`, whatever its
  // argument; the name is forgotten once its last pair is gone. Unknown
  // names are ignored.
  ZEL_API void unregisterEvent(const std::string& name, EventCallback callback);
  // Queues a copy of each pair registered under `name` now and wakes the event
  // thread; returns at once. Unknown names queue nothing.
  ZEL_API void sendEvent(const std::string& name);
  // Body of the event thread; only the constructor runs it.
  ZEL_API void processEvents();
  // Ends the event thread (joining it); there is no restart. Events sent
  // afterwards are queued but never called. Must not be called from a
  // callback. May block for the running callback, plus up to 100 ms.
  ZEL_API void stop();

 private:
  using Entry = std::pair<EventCallback, void*>;

  ZEL_API EventManager();
  ZEL_API ~EventManager();

  std::thread thread;
  std::mutex mutex;
  std::condition_variable cond;
  std::deque<Entry> queue;
  std::unordered_map<std::string, std::vector<Entry>> events;
  std::atomic<bool> running{true};
};

}  // namespace zel
