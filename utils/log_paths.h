// The process log's fixed base (set by zel_set_log_path) and the day
// directory it last computed (read by zel_get_log_path). Callers' threads
// and the writer thread both touch them, so they are read and written under
// one lock; the strings themselves are Logger::mFixedDirPrefix and
// Logger::mDirPrefix. Internal; not installed.
#pragma once

#include <string>

#include "utils/logger.h"  // the strings, and LogPathsMutex(), the lock
#include "utils/thread_annotations.h"

namespace zel {
namespace logdetail {

// Each of these takes the lock; any thread.
void SetFixedBase(const std::string& base) ZEL_EXCLUDES(LogPathsMutex());
std::string FixedBase() ZEL_EXCLUDES(LogPathsMutex());
void SetDayDirectory(const std::string& dir) ZEL_EXCLUDES(LogPathsMutex());
std::string DayDirectory() ZEL_EXCLUDES(LogPathsMutex());

}  // namespace logdetail
}  // namespace zel
