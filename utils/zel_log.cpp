#include "utils/zel_log.h"

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "utils/clock.h"
#include "utils/log_line.h"
#include "utils/log_paths.h"
#include "utils/logger.h"

namespace zel {

std::string getCurrentTimeString() {
  const long long micros = timing::WallClockMicros();
  const std::tm local = timing::LocalTimeAt(static_cast<std::time_t>(micros / 1000000)).local;
  std::ostringstream out;
  out << std::put_time(&local, "%Y-%m-%d-%H:%M:%S") << '.' << std::setw(3) << std::setfill('0')
      << (micros / 1000) % 1000;
  return out.str();
}

}  // namespace zel

namespace {

constexpr size_t kLineSize = 4096;

// Signed 8 bits, 3 at load. Read on every log_print without a lock; atomic
// only so that a concurrent zel_set_log_level is not a data race.
std::atomic<signed char> gLogLevel{3};
// The singleton once the first line passed the filter.
std::atomic<zel::Logger*> gLogger{nullptr};

// Everything after the filter, kept out of log_print so that a filtered-out
// call costs only the level test.
__attribute__((noinline)) void FormatAndQueue(int level, int toBackends, const char* format,
                                              va_list args) {
  char line[kLineSize];
  const long long micros = zel::timing::WallClockMicros();
  // The seconds come from time(), the milliseconds from the clock read just
  // before: the two are not reconciled.
  const size_t prefixLen = zel::logdetail::FormatPrefix(line, micros, time(nullptr));
  // Room for the text leaves two bytes for the newline and the terminator.
  vsnprintf(line + prefixLen, kLineSize - 2 - prefixLen, format, args);
  size_t len = prefixLen + strlen(line + prefixLen);
  if (len == prefixLen || line[len - 1] != '\n') {
    line[len++] = '\n';
    line[len] = '\0';
  }
  line[kLineSize - 1] = '\0';

  zel::Logger* logger = gLogger.load(std::memory_order_acquire);
  if (logger == nullptr) {
    logger = zel::Logger::GetInstance();
    if (logger == nullptr) return;
    gLogger.store(logger, std::memory_order_release);
  }
  logger->Log(line, len, level, toBackends != 0);
}

}  // namespace

extern "C" int log_print(int level, int toBackends, const char* format, ...) {
  // The level test comes first: a filtered-out line costs nothing else.
  if (gLogLevel.load(std::memory_order_relaxed) < level) return 0;
  va_list args;
  va_start(args, format);
  FormatAndQueue(level, toBackends, format, args);
  va_end(args);
  return 0;
}

extern "C" void zel_set_log_level(int level) {
  gLogLevel.store(static_cast<signed char>(level & 0xff), std::memory_order_relaxed);
}

extern "C" int zel_log_level() { return gLogLevel.load(std::memory_order_relaxed); }

extern "C" void zel_set_log_path(const char* path) {
  if (path != nullptr && path[0] != '\0') zel::logdetail::SetFixedBase(path);
}

extern "C" int zel_get_log_path(char* buf, int size) {
  const std::string dir = zel::logdetail::DayDirectory();
  if (dir.empty()) return -1;
  strncpy(buf, dir.c_str(), size > 0 ? static_cast<size_t>(size - 1) : 0);
  return 0;
}
