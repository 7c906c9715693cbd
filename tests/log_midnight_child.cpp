// Helper for the midnight tests, run under faketime starting shortly before
// midnight: writes a line before and a line after the local date changes,
// then waits until the second line is on disk.
//
//   log_midnight_child logger     <base/>            process log via log_print
//   log_midnight_child relocated  <base/> <base2/>   switches the base while running
//   log_midnight_child loggerfile <dir/>             a LoggerFile
//
// Exit status 0 once the last line was written, 2 on a time-out, 1 on bad use.
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

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
  for (int i = 0; i < 200; ++i) {
    if (Today() != start) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

// True once some regular file under `dir` (recursively) contains `needle`.
bool SomeFileContains(const std::string& dir, const std::string& needle) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir, ec)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path());
    std::ostringstream text;
    text << in.rdbuf();
    if (text.str().find(needle) != std::string::npos) return true;
  }
  return false;
}

int WaitForLine(const std::string& dir, const std::string& needle) {
  for (int i = 0; i < 400; ++i) {
    if (SomeFileContains(dir, needle)) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return 2;
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
