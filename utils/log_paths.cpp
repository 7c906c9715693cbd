#include "utils/log_paths.h"

#include <mutex>

#include "utils/logger.h"

namespace zel {
namespace logdetail {

namespace {
// Guards Logger::mFixedDirPrefix and Logger::mDirPrefix. Never destroyed,
// like them: the writer thread may log while the process exits.
std::mutex& PathsMutex() {
  static std::mutex* const mutex = new std::mutex();
  return *mutex;
}
}  // namespace

void SetFixedBase(const std::string& base) {
  std::lock_guard<std::mutex> lock(PathsMutex());
  Logger::mFixedDirPrefix = base;
}

std::string FixedBase() {
  std::lock_guard<std::mutex> lock(PathsMutex());
  return Logger::mFixedDirPrefix;
}

void SetDayDirectory(const std::string& dir) {
  std::lock_guard<std::mutex> lock(PathsMutex());
  Logger::mDirPrefix = dir;
}

std::string DayDirectory() {
  std::lock_guard<std::mutex> lock(PathsMutex());
  return Logger::mDirPrefix;
}

}  // namespace logdetail
}  // namespace zel
