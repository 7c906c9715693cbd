#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "demo.h"
#include "utils/logger_file.h"
#include "utils/zel_log.h"

namespace {

// A log file proper: "<...>.txt" (the writer keeps other files of its own
// beside them).
bool IsLogFile(const std::filesystem::directory_entry& entry) {
  return entry.is_regular_file() && entry.path().extension() == ".txt";
}

// Lines in every log file below `dir` (the writer threads get there shortly).
int CountLines(const std::string& dir) {
  int lines = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir, ec)) {
    if (!IsLogFile(entry)) continue;
    std::ifstream in(entry.path());
    for (std::string line; std::getline(in, line);) ++lines;
  }
  return lines;
}

void WaitForLines(const std::string& dir, int lines) {
  for (int i = 0; i < 200 && CountLines(dir) < lines; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace

void demo::Logging() {
  Section("process log and named log files");
  const std::string logBase = WorkDir() + "/log/";
  zel_set_log_path(logBase.c_str());  // before the first line

  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 2; ++i) log_print(3, 0, "worker %d says hello (%d)", t, i);
    });
  }
  for (auto& thread : threads) thread.join();
  log_print(5, 0, "a debug line: filtered out at the default level %d", zel_log_level());
  Say("  3 threads logged 2 lines each; a debug line (level 5) was filtered out at level %d",
      zel_log_level());
  WaitForLines(logBase, 6);

  char dir[512] = {};
  zel_get_log_path(dir, sizeof(dir));
  Say("  the log's writer thread put them in %s", dir);
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (!IsLogFile(entry)) continue;
    Say("  file %s:", entry.path().filename().c_str());
    std::ifstream in(entry.path());
    for (std::string line; std::getline(in, line);) Say("    %s", line.c_str());
  }

  const std::string named = WorkDir() + "/named/";
  static zel::LoggerFile file(named);  // lives as long as the process, like a client's
  file.SetName("scanner");
  file.Log("a line of the scanner's own log\n");
  WaitForLines(named, 1);
  for (const auto& entry : std::filesystem::directory_iterator(named)) {
    if (!IsLogFile(entry)) continue;
    Say("  a LoggerFile named \"scanner\" wrote %s", entry.path().c_str());
  }
}
