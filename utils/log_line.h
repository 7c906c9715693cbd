// The process log's line: the prefix every line from log_print carries (its
// layout is in log_format.h). The library's own
// report lines use it too. Internal; not installed.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

namespace zel {
namespace logdetail {

// Longest prefix the format can give, terminator included.
constexpr size_t kPrefixSize = 64;

// Writes the prefix of a line logged at `micros` (system clock, microseconds
// since the epoch; the milliseconds come from it) and `seconds` (time(); the
// date and time come from it: the two are not reconciled) by the calling
// thread into `out` (kPrefixSize bytes); returns its length. Local time is
// converted at most once a second per thread. Any thread.
size_t FormatPrefix(char* out, long long micros, time_t seconds);
// The prefix of a line logged now, then `text`. Any thread.
std::string LineNow(const std::string& text);

}  // namespace logdetail
}  // namespace zel
