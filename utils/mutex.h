/// @file
/// The library's locks: the standard ones, annotated for the compiler's lock
/// checks (utils/thread_annotations.h), which the standard library's own are
/// not. Each wraps exactly one standard lock and is exactly its size, so a
/// class holding one keeps the layout it had with the standard lock (ABI).
#pragma once

#include <mutex>
#include <shared_mutex>

#include "utils/thread_annotations.h"

namespace zel {

/// A std::mutex the lock checks know.
class ZEL_CAPABILITY("mutex") Mutex {
 public:
  /// Unlocked.
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Takes the lock, waiting for it.
  void Lock() ZEL_ACQUIRE() { mutex.lock(); }
  /// Lets go of the lock.
  void Unlock() ZEL_RELEASE() { mutex.unlock(); }
  /// Takes the lock if it is free.
  /// @return Whether it was taken.
  bool TryLock() ZEL_TRY_ACQUIRE(true) { return mutex.try_lock(); }
  /// The standard lock inside, for what needs one (std::unique_lock); the
  /// checks do not see what is done with it.
  /// @return The wrapped std::mutex.
  std::mutex& native() { return mutex; }

 private:
  std::mutex mutex;
};

static_assert(sizeof(Mutex) == sizeof(std::mutex) && alignof(Mutex) == alignof(std::mutex),
              "zel::Mutex takes the place of a std::mutex in installed classes");

/// Holds a Mutex for its scope, through a std::unique_lock: it may let go and
/// take the lock again in between, and hands the unique_lock to a
/// std::condition_variable's waits.
class ZEL_SCOPED_CAPABILITY MutexLock {
 public:
  /// Takes `mutex`, waiting for it.
  /// @param mutex The lock; it must outlive this object.
  explicit MutexLock(Mutex& mutex) ZEL_ACQUIRE(mutex) : lock(mutex.native()) {}
  /// Lets go of the lock if it holds it.
  ~MutexLock() ZEL_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  /// Takes the lock again after Unlock.
  void Lock() ZEL_ACQUIRE() { lock.lock(); }
  /// Lets go of the lock before the end of the scope.
  void Unlock() ZEL_RELEASE() { lock.unlock(); }
  /// The unique_lock inside, for a condition variable's wait (which gives the
  /// lock back before it returns).
  /// @return The unique_lock holding the mutex.
  std::unique_lock<std::mutex>& native() { return lock; }

 private:
  std::unique_lock<std::mutex> lock;
};

/// A std::shared_timed_mutex the lock checks know: one writer, or any number
/// of readers.
class ZEL_CAPABILITY("shared_mutex") SharedMutex {
 public:
  /// Unlocked.
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  /// Takes the lock exclusively, waiting for it.
  void Lock() ZEL_ACQUIRE() { mutex.lock(); }
  /// Lets go of the lock held exclusively.
  void Unlock() ZEL_RELEASE() { mutex.unlock(); }
  /// Takes the lock shared, waiting for a writer to finish.
  void LockShared() ZEL_ACQUIRE_SHARED() { mutex.lock_shared(); }
  /// Lets go of the lock held shared.
  void UnlockShared() ZEL_RELEASE_SHARED() { mutex.unlock_shared(); }
  /// The standard lock inside; the checks do not see what is done with it.
  /// @return The wrapped std::shared_timed_mutex.
  std::shared_timed_mutex& native() { return mutex; }

 private:
  std::shared_timed_mutex mutex;
};

static_assert(sizeof(SharedMutex) == sizeof(std::shared_timed_mutex) &&
                  alignof(SharedMutex) == alignof(std::shared_timed_mutex),
              "zel::SharedMutex takes the place of a std::shared_timed_mutex in installed classes");

/// Holds a SharedMutex exclusively for its scope.
class ZEL_SCOPED_CAPABILITY WriterLock {
 public:
  /// Takes `mutex` exclusively, waiting for it.
  /// @param mutex The lock; it must outlive this object.
  explicit WriterLock(SharedMutex& mutex) ZEL_ACQUIRE(mutex) : held(mutex) { held.Lock(); }
  /// Lets go of the lock.
  ~WriterLock() ZEL_RELEASE() { held.Unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& held;
};

/// Holds a SharedMutex shared for its scope.
class ZEL_SCOPED_CAPABILITY ReaderLock {
 public:
  /// Takes `mutex` shared, waiting for a writer to finish.
  /// @param mutex The lock; it must outlive this object.
  explicit ReaderLock(SharedMutex& mutex) ZEL_ACQUIRE_SHARED(mutex) : held(mutex) {
    held.LockShared();
  }
  /// Lets go of the lock.
  ~ReaderLock() ZEL_RELEASE() { held.UnlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& held;
};

}  // namespace zel
