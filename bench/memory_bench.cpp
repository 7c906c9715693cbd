// What the process log costs in memory: heap bytes per line waiting in its
// queue (glibc's malloc statistics, so every allocation and its overhead
// counts) and the resident size of an idle process that has started the log.
//   build/bench/memory_bench
// The writer is held inside an attached sink while the lines are queued, so
// that they all wait in memory at once.
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "utils/logger.h"
#include "utils/zel_log.h"

namespace {

constexpr int kQueuedLines = 100000;
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

}  // namespace

int main() {
  std::string dir = (std::filesystem::temp_directory_path() / "zel_memory_bench_XXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) return 1;
  dir += "/";
  const long residentBefore = ResidentKiB();
  zel_set_log_path(dir.c_str());
  log_print(3, 0, "started");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const long residentIdle = ResidentKiB();

  HoldingSink sink;
  zel::Logger::GetInstance()->AddBackend(&sink);
  log_print(3, 1, "hold the writer");
  sink.WaitHeld();

  // The same line as log_print makes it: prefix, text and newline.
  char text[256];
  const int textLength = snprintf(text, sizeof(text), kFormat, 0, 0);
  const size_t lineLength = strlen("[11-22 09:30:15.042][tid:140737351481152] ") + textLength + 1;
  const size_t heapBefore = HeapInUse();
  for (int i = 0; i < kQueuedLines; ++i) log_print(3, 0, kFormat, i, 0);
  const size_t heapQueued = HeapInUse();
  const long residentQueued = ResidentKiB();
  sink.Release();
  zel::Logger::GetInstance()->RemoveBackend(&sink);
  // The writer passes a line to the sinks once every earlier one is written:
  // when this one is held, the directory can go.
  HoldingSink last;
  zel::Logger::GetInstance()->AddBackend(&last);
  log_print(3, 1, "last line");
  last.WaitHeld();
  last.Release();
  zel::Logger::GetInstance()->RemoveBackend(&last);

  const double perLine = static_cast<double>(heapQueued - heapBefore) / kQueuedLines;
  printf(
      "heap bytes per queued line: %.1f for a line of %zu bytes (line + %.1f; target line + 96)\n",
      perLine, lineLength, perLine - static_cast<double>(lineLength));
  printf(
      "resident size: %ld KiB before the log, %ld KiB idle after starting it (+%ld KiB), "
      "%ld KiB with %d lines queued\n",
      residentBefore, residentIdle, residentIdle - residentBefore, residentQueued, kQueuedLines);
  printf("RESULT memory.line_overhead_bytes %.1f\nRESULT memory.idle_rss_kib %ld\n",
         perLine - static_cast<double>(lineLength), residentIdle);
  std::filesystem::remove_all(dir);
  return 0;
}
