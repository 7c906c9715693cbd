// The process log on disk, as its writer makes it and zelctl reads it back:
//
//   <base>YYYYMMDD/zel.log.<process>-<pid>.<hhmmss>.txt   the current file
//   <base>YYYYMMDD/zel.log.<process>-<pid>.<hhmmss>.<n>   rotation n (0-255)
//   [M-D hh:mm:ss.mmm][tid:N] <text>\n                    every line of log_print
//
// where <base> is the fixed base (zel_set_log_path) or "/Users/" + $USER +
// "/Library/zel/", and <hhmmss> the local time the process began its day.
// Constants and pure formatting only: nothing here touches the file system.
// Internal; not installed.
#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <string>

namespace zel {
namespace logformat {

// ---- folders ----

// Day directory names: year, month, day ("%04d%02d%02d"), 8 digits.
constexpr size_t kDayNameSize = 8;
// The default base, for a user name: "/Users/<user>/Library/zel/" ("/Users/"
// without one).
inline std::string DefaultBase(const char* user) {
  std::string base = "/Users/";
  if (user != nullptr) {
    base += user;
    base += "/Library/zel/";
  }
  return base;
}
// "YYYYMMDD/" of a local time: what follows the base.
inline std::string DateText(const struct tm& local) {
  char text[32];
  snprintf(text, sizeof(text), "%04d%02d%02d/", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday);
  return text;
}

// ---- file names ----

constexpr char kLogFilePrefix[] = "zel.log.";  // then "<process>-<pid>"
constexpr char kCurrentSuffix[] = "txt";       // the current file's last part
constexpr unsigned kLastRotation = 255;        // rotation numbers wrap after it
constexpr size_t kTimeTagSize = 6;             // "hhmmss"
// "hhmmss" of a local time.
inline std::string TimeTag(const struct tm& local) {
  char text[32];
  snprintf(text, sizeof(text), "%02d%02d%02d", local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

// ---- the line prefix ----

// "[" month "-" day " " hh ":" mm ":" ss "." mmm "][tid:" thread "] ", month
// and day without padding, the thread's handle in decimal.
constexpr char kStampOpen = '[';
constexpr char kMonthDaySeparator = '-';
constexpr char kDateTimeSeparator = ' ';
constexpr char kTimeSeparator = ':';
constexpr char kMillisSeparator = '.';
constexpr char kStampClose = ']';
// The prefix up to the milliseconds, and from them on.
constexpr char kPrefixHeadFormat[] = "[%d-%d %02d:%02d:%02d.";
constexpr char kPrefixTailFormat[] = "][tid:%s] ";

}  // namespace logformat
}  // namespace zel
