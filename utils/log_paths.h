// The process log's fixed base (set by zel_set_log_path) and the day
// directory it last computed (read by zel_get_log_path). Callers' threads
// and the writer thread both touch them, so they are read and written under
// one lock; the strings themselves are Logger::mFixedDirPrefix and
// Logger::mDirPrefix. Internal; not installed.
#pragma once

#include <string>

namespace zel {
namespace logdetail {

// Each of these takes the lock; any thread.
void SetFixedBase(const std::string& base);
std::string FixedBase();
void SetDayDirectory(const std::string& dir);
std::string DayDirectory();

}  // namespace logdetail
}  // namespace zel
