// Helper for the tests of a changing local date, run under faketime.
// Started shortly before midnight, the first three modes write a line before
// and a line after the local date changes, then wait until the second line is
// on disk:
//
//   log_midnight_child logger     <base/>            process log via log_print
//   log_midnight_child relocated  <base/> <base2/>   switches the base while running
//   log_midnight_child loggerfile <dir/>             a LoggerFile
//
// Under a frozen clock, the fourth moves the time zone (as a travelling
// laptop does) just before the process log passes its size limit:
//
//   log_midnight_child zonejump   <base/>            lines "zone NNNNN" 0..kZoneLines-1
//
// Exit status 0 once the last line was written, 2 on a time-out, 1 on bad use.
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/sync.h"
#include "utils/logger_file.h"
#include "utils/zel_log.h"

namespace {

int Today() {
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  return local.tm_mday;
}

bool WaitForDateChange() {
  const int start = Today();
  return zeltest::WaitUntil([&] { return Today() != start; }, zeltest::kWaitLimit,
                            std::chrono::milliseconds(50));
}

// True once some regular file under `dir` (recursively) contains `needle`.
bool SomeFileContains(const std::string& dir, const std::string& needle) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir, ec)) {
    if (!entry.is_regular_file()) continue;
    if (zeltest::ReadFile(entry.path()).find(needle) != std::string::npos) return true;
  }
  return false;
}

// 0 once some file under `dir` contains `needle`, 2 on a time-out.
int WaitForLine(const std::string& dir, const std::string& needle) {
  return zeltest::WaitUntil([&] { return SomeFileContains(dir, needle); }, zeltest::kWaitLimit,
                            std::chrono::milliseconds(25))
             ? 0
             : 2;
}

// Lines of about 990 bytes with their prefix: the first kZoneLinesBefore stay
// just under the size limit, the zone moves 26 hours, then the rest would
// cross the limit.
constexpr int kZoneLinesBefore = 5200;
constexpr int kZoneLines = 5600;

std::string ZoneLine(int i) {
  char head[32];
  snprintf(head, sizeof(head), "zone %05d ", i);
  return std::string(head) + std::string(950 - strlen(head), 'z');
}

int ZoneJump(const std::string& base) {
  setenv("TZ", "AAA12", 1);
  tzset();
  zel_set_log_path(base.c_str());
  for (int i = 0; i < kZoneLines; ++i) {
    if (i == kZoneLinesBefore) {
      if (WaitForLine(base, ZoneLine(i - 1).substr(0, 11)) != 0) return 2;
      setenv("TZ", "BBB-14", 1);  // 26 hours east: another date, whatever the time
      tzset();
    }
    log_print(3, 0, "%s", ZoneLine(i).c_str());
  }
  return WaitForLine(base, ZoneLine(kZoneLines - 1).substr(0, 11));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 1;
  const std::string mode = argv[1];
  const std::string base = argv[2];
  if (mode == "loggerfile") {
    static zel::LoggerFile file(base);  // left alive: its thread may still run at exit
    file.Log("before midnight\n");
    if (WaitForLine(base, "before midnight") != 0 || !WaitForDateChange()) return 2;
    file.Log("after midnight\n");
    return WaitForLine(base, "after midnight");
  }
  if (mode == "zonejump") return ZoneJump(base);
  if (mode == "logger" || (mode == "relocated" && argc == 4)) {
    zel_set_log_path(base.c_str());
    log_print(3, 0, "before midnight");
    if (WaitForLine(base, "before midnight") != 0) return 2;
    // Takes effect only when the Logger next computes its day directory.
    if (mode == "relocated") zel_set_log_path(argv[3]);
    if (!WaitForDateChange()) return 2;
    log_print(3, 0, "after midnight");
    return WaitForLine(mode == "relocated" ? argv[3] : base, "after midnight");
  }
  return 1;
}
