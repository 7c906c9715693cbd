// What the process log costs in memory, and what a crash costs the next
// process:
//   build/bench/memory_bench [flood seconds]      (default 10)
// - resident size of a process before and after it started the log (the
//   staging area is made and touched then);
// - heap bytes per staged line (glibc's malloc statistics, so every
//   allocation counts), with the writer held inside a sink so that the lines
//   stay staged;
// - 4 threads calling log_print as fast as they can for the flood seconds:
//   lines accepted, peak resident size above the idle process, and how long
//   the last of them took to reach the disk after the flood ended;
// - recovery of a full staging file (32,768 lines of 64 bytes) that a dead
//   process left: how long the next process takes to write it.
// With "flood" as the only argument it floods only (for strace -f -c).
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "utils/log_recovery.h"
#include "utils/logger.h"
#include "utils/staging_area.h"
#include "utils/zel_log.h"

namespace {

using Clock = std::chrono::steady_clock;

// Fewer than the process log's staging area holds: 32,768 lines, 2 MiB of
// text (these lines are about 107 bytes).
constexpr int kStagedLines = 15000;
constexpr int kFlooders = 4;
constexpr const char* kFormat = "bench line %07d from producer %d payload abcdefghijklmnopqrstu";

// Blocks the writer inside the first line handed to it until Release().
class HoldingSink : public zel::LogBackend {
 public:
  int Log(const std::string&) override {
    std::unique_lock<std::mutex> lock(mutex_);
    held_ = true;
    cond_.notify_all();
    cond_.wait(lock, [this] { return released_; });
    return 0;
  }
  void WaitHeld() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return held_; });
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    cond_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool held_ = false;
  bool released_ = false;
};

size_t HeapInUse() { return mallinfo2().uordblks; }

// Resident set size in KiB, from /proc (Linux).
long ResidentKiB() {
  FILE* statm = fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  long pages = 0, resident = 0;
  const int read = fscanf(statm, "%ld %ld", &pages, &resident);
  fclose(statm);
  return read == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

std::string MakeTempDir(const char* name) {
  std::string dir = (std::filesystem::temp_directory_path() / name).string() + "_XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) exit(1);
  return dir + "/";
}

// Returns once every line logged before the call is on disk: the writer
// hands a line to the sinks only after every earlier one was written.
void WaitUntilWritten() {
  HoldingSink last;
  zel::Logger::GetInstance()->AddBackend(&last);
  log_print(3, 1, "written up to here");
  last.WaitHeld();
  last.Release();
  zel::Logger::GetInstance()->RemoveBackend(&last);
}

struct Flood {
  long long lines = 0;
  long peakKiB = 0;
  double drainSeconds = 0;
};

Flood FloodFor(int seconds) {
  std::atomic<bool> going{true};
  std::atomic<long long> lines{0};
  std::atomic<long> peak{ResidentKiB()};
  std::thread sampler([&] {
    while (going) {
      peak = std::max(peak.load(), ResidentKiB());
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  std::vector<std::thread> flooders;
  for (int t = 0; t < kFlooders; ++t) {
    flooders.emplace_back([&, t] {
      long long mine = 0;
      while (going) log_print(3, 0, kFormat, static_cast<int>(mine++), t);
      lines += mine;
    });
  }
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  going = false;
  for (auto& flooder : flooders) flooder.join();
  sampler.join();
  const auto ended = Clock::now();
  WaitUntilWritten();
  return {lines.load(), peak.load(), std::chrono::duration<double>(Clock::now() - ended).count()};
}

// Milliseconds the next process takes to write a full staging file.
double RecoveryMs() {
  const std::string base = MakeTempDir("zel_recovery_bench");
  const std::string day = base + "20301231/";
  std::filesystem::create_directory(day);
  {
    zel::logdetail::StagingArea area(day + "zel.dead-1.0.stage",
                                     zel::logdetail::staging::kProcessLog, "dead",
                                     {32768, 2 * 1024 * 1024});
    const std::string target = day + "zel.log.dead-1.000000.txt";
    area.SetTarget(target.c_str());
    std::string line(63, 'x');
    line += '\n';
    for (int i = 0; i < 32768; ++i) area.AppendLocked(line.data(), line.size(), false);
  }  // the process "dies": its lock goes, its file stays
  const auto start = Clock::now();
  zel::logdetail::RecoverProcessLog(base);
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  std::filesystem::remove_all(base);
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  const bool floodOnly = argc == 2 && std::strcmp(argv[1], "flood") == 0;
  const int floodSeconds = floodOnly ? 3 : (argc > 1 ? std::atoi(argv[1]) : 10);
  const std::string dir = MakeTempDir("zel_memory_bench");
  const long residentBefore = ResidentKiB();
  zel_set_log_path(dir.c_str());
  log_print(3, 0, "started");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const long residentIdle = ResidentKiB();
  if (floodOnly) {
    const Flood flood = FloodFor(floodSeconds);
    printf("flood: %lld lines in %d s\n", flood.lines, floodSeconds);
    std::filesystem::remove_all(dir);
    return 0;
  }

  HoldingSink sink;
  zel::Logger::GetInstance()->AddBackend(&sink);
  log_print(3, 1, "hold the writer");
  sink.WaitHeld();
  const size_t heapBefore = HeapInUse();
  for (int i = 0; i < kStagedLines; ++i) log_print(3, 0, kFormat, i, 0);
  const size_t heapStaged = HeapInUse();
  const long residentStaged = ResidentKiB();
  sink.Release();
  zel::Logger::GetInstance()->RemoveBackend(&sink);
  WaitUntilWritten();

  const Flood flood = FloodFor(floodSeconds);
  const double recoveryMs = RecoveryMs();

  const double perLine = static_cast<double>(heapStaged - heapBefore) / kStagedLines;
  printf("heap bytes per staged line: %.1f\n", perLine);
  printf(
      "resident size: %ld KiB before the log, %ld KiB idle after starting it (+%ld KiB), "
      "%ld KiB with %d lines staged\n",
      residentBefore, residentIdle, residentIdle - residentBefore, residentStaged, kStagedLines);
  printf(
      "flood, %d threads for %d s: %lld lines accepted (%.0f/s), peak resident %ld KiB "
      "(+%ld KiB over idle), the last on disk %.3f s after the flood\n",
      kFlooders, floodSeconds, flood.lines, flood.lines / static_cast<double>(floodSeconds),
      flood.peakKiB, flood.peakKiB - residentIdle, flood.drainSeconds);
  printf("recovery of a full staging file (32,768 lines, 2 MiB): %.1f ms\n", recoveryMs);
  printf(
      "RESULT memory.heap_per_staged_line %.1f\nRESULT memory.idle_rss_kib %ld\n"
      "RESULT memory.idle_rss_added_kib %ld\nRESULT memory.flood_peak_added_kib %ld\n"
      "RESULT memory.flood_lines_per_s %.0f\nRESULT memory.flood_drain_s %.3f\n"
      "RESULT memory.recovery_ms %.1f\n",
      perLine, residentIdle, residentIdle - residentBefore, flood.peakKiB - residentIdle,
      flood.lines / static_cast<double>(floodSeconds), flood.drainSeconds, recoveryMs);
  std::filesystem::remove_all(dir);
  return 0;
}
