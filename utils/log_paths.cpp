#include "utils/log_paths.h"

#include "utils/logger.h"

namespace zel {

// Guards Logger::mFixedDirPrefix and Logger::mDirPrefix. Never destroyed,
// like them: the writer thread may log while the process exits.
Mutex& LogPathsMutex() {
  static Mutex* const mutex = new Mutex();
  return *mutex;
}

namespace logdetail {

void SetFixedBase(const std::string& base) {
  MutexLock lock(LogPathsMutex());
  Logger::mFixedDirPrefix = base;
}

std::string FixedBase() {
  MutexLock lock(LogPathsMutex());
  return Logger::mFixedDirPrefix;
}

void SetDayDirectory(const std::string& dir) {
  MutexLock lock(LogPathsMutex());
  Logger::mDirPrefix = dir;
}

std::string DayDirectory() {
  MutexLock lock(LogPathsMutex());
  return Logger::mDirPrefix;
}

}  // namespace logdetail
}  // namespace zel
