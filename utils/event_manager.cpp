#include "utils/event_manager.h"

#include <algorithm>
#include <chrono>

namespace zel {

namespace {
constexpr auto kRunningRecheck = std::chrono::milliseconds(100);
}  // namespace

EventManager& EventManager::getInstance() {
  static EventManager instance;
  return instance;
}

EventManager::EventManager() { thread = std::thread(&EventManager::processEvents, this); }

EventManager::~EventManager() { stop(); }

void EventManager::registerEvent(const std::string& name, EventCallback callback, void* arg) {
  MutexLock lock(mutex);
  events[name].emplace_back(callback, arg);
}

void EventManager::unregisterEvent(const std::string& name, EventCallback callback) {
  MutexLock lock(mutex);
  auto entry = events.find(name);
  if (entry == events.end()) return;
  auto& pairs = entry->second;
  pairs.erase(std::remove_if(pairs.begin(), pairs.end(),
                             [callback](const Entry& e) { return e.first == callback; }),
              pairs.end());
  if (pairs.empty()) events.erase(entry);
}

void EventManager::sendEvent(const std::string& name) {
  MutexLock lock(mutex);
  auto entry = events.find(name);
  // Copies: what is registered now is what this sending calls.
  if (entry != events.end()) queue.insert(queue.end(), entry->second.begin(), entry->second.end());
  cond.notify_one();
}

void EventManager::processEvents() {
  while (running) {
    MutexLock lock(mutex);
    // stop() notifies without the lock: a notification lost between the
    // test and the wait must not leave this thread (and the process's exit)
    // waiting for ever, so `running` is looked at again every 100 ms.
    while (queue.empty() && running) cond.wait_for(lock.native(), kRunningRecheck);
    while (!queue.empty() && running) {
      const Entry entry = queue.front();
      queue.pop_front();
      // Outside the lock, so that a callback may register, unregister or send.
      lock.Unlock();
      if (running) entry.first(entry.second);
      lock.Lock();
    }
  }
}

void EventManager::stop() {
  // Without the mutex on purpose: a store and a single notification.
  running = false;
  cond.notify_one();
  if (thread.joinable()) thread.join();
}

}  // namespace zel
