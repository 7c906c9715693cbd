// The process log under load, next to spdlog's asynchronous file logger and a
// plain snprintf + fwrite + fflush loop (the floor). One command:
//   build/bench/log_bench
// For 1 and 4 producer threads and 400,000 ~100-byte lines in all it prints
// the caller's cost per call (median, p99), end-to-end lines per second until
// every line is on disk (counted in the files, rotated ones included), and
// the cost of a call filtered out by the level.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "utils/zel_log.h"

#if defined(ZEL_BENCH_HAVE_SPDLOG)
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTotalLines = 400000;
constexpr long long kFilteredCalls = 20000000;
// With the prefix the line comes to about 100 bytes.
constexpr const char* kFormat = "bench line %07d from producer %d payload abcdefghijklmnopqrstu";

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Counts the newlines written into the files of a directory, reading only what
// is new since the last call. Files are tracked by inode and birth time, so a
// rotated file (renamed, same inode) is not counted twice, and a new file that
// reuses the inode of a deleted one is counted from its start.
class LineCounter {
 public:
  explicit LineCounter(std::string dir) : dir_(std::move(dir)) {}
  // Marks everything on disk now as already counted.
  void Baseline() {
    Scan();
    lines_ = 0;
  }
  long long Scan() {
    std::error_code ec;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_, ec)) {
      if (!entry.is_regular_file()) continue;
      struct statx st;
      if (statx(AT_FDCWD, entry.path().c_str(), 0, STATX_INO | STATX_SIZE | STATX_BTIME, &st) != 0)
        continue;
      const long long born = (st.stx_mask & STATX_BTIME) != 0
                                 ? st.stx_btime.tv_sec * 1000000000LL + st.stx_btime.tv_nsec
                                 : 0;
      off_t& done = offsets_[{st.stx_ino, born}];
      const off_t size = static_cast<off_t>(st.stx_size);
      if (size <= done) continue;
      const int fd = open(entry.path().c_str(), O_RDONLY);
      if (fd < 0) continue;
      char buf[1 << 16];
      while (done < size) {
        const ssize_t n = pread(fd, buf, sizeof(buf), done);
        if (n <= 0) break;
        lines_ += std::count(buf, buf + n, '\n');
        done += n;
      }
      close(fd);
    }
    return lines_;
  }

 private:
  std::string dir_;
  std::map<std::pair<uint64_t, long long>, off_t> offsets_;
  long long lines_ = 0;
};

struct Result {
  double medianNs = 0;
  double p99Ns = 0;
  double linesPerSecond = 0;
};

// Runs `threads` producers, `kTotalLines` in all, each call timed; then waits
// until `counter` sees every line on disk.
Result RunProducers(int threads, LineCounter& counter,
                    const std::function<void(int line, int producer)>& logLine) {
  counter.Baseline();
  const int perThread = kTotalLines / threads;
  std::vector<std::vector<float>> costs(threads, std::vector<float>(perThread));
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> producers;
  for (int t = 0; t < threads; ++t) {
    producers.emplace_back([&, t] {
      ++ready;
      while (!go) std::this_thread::yield();
      for (int i = 0; i < perThread; ++i) {
        const auto start = Clock::now();
        logLine(i, t);
        costs[t][i] = static_cast<float>((Clock::now() - start).count());
      }
    });
  }
  while (ready < threads) std::this_thread::yield();
  const auto start = Clock::now();
  go = true;
  for (auto& p : producers) p.join();
  while (counter.Scan() < kTotalLines) {
    if (Clock::now() - start > std::chrono::minutes(2)) {
      fprintf(stderr, "only %lld of %d lines reached the disk\n", counter.Scan(), kTotalLines);
      exit(1);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  const double elapsed = Seconds(Clock::now() - start);

  std::vector<float> all;
  for (auto& c : costs) all.insert(all.end(), c.begin(), c.end());
  std::sort(all.begin(), all.end());
  const double nsPerTick = 1e9 * Clock::period::num / Clock::period::den;
  return {all[all.size() / 2] * nsPerTick, all[all.size() * 99 / 100] * nsPerTick,
          kTotalLines / elapsed};
}

// The caller's share that no change can remove: printf-style formatting of
// the text into a buffer, timed like a log_print call.
double FormatMedianNs() {
  std::vector<float> costs(kTotalLines);
  char line[256];
  for (int i = 0; i < kTotalLines; ++i) {
    const auto start = Clock::now();
    snprintf(line, sizeof(line), kFormat, i, 0);
    costs[i] = static_cast<float>((Clock::now() - start).count());
  }
  std::sort(costs.begin(), costs.end());
  return costs[costs.size() / 2] * 1e9 * Clock::period::num / Clock::period::den;
}

// A template, not a std::function: the loop times the call itself.
template <typename Call>
double FilteredNs(const Call& call) {
  const auto start = Clock::now();
  for (long long i = 0; i < kFilteredCalls; ++i) call(i);
  return Seconds(Clock::now() - start) * 1e9 / kFilteredCalls;
}

// Looks the path up as the process log's per-line check does (on Linux
// statx without timestamps, as the library asks); false if not a regular file.
bool PathNamesRegularFile(const char* path) {
#if defined(__linux__)
  struct statx sx;
  return statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, STATX_TYPE | STATX_INO | STATX_SIZE, &sx) ==
             0 &&
         S_ISREG(sx.stx_mode);
#else
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
#endif
}

// One thread: format, write and flush each line itself; with `statPath`
// also the process log's per-line check that the path names a regular file.
double FloorLinesPerSecond(const std::string& dir, bool statPath) {
  const std::string path = dir + "floor.txt";
  FILE* fp = fopen(path.c_str(), "a");
  if (fp == nullptr) return 0;
  char line[256];
  const auto start = Clock::now();
  for (int i = 0; i < kTotalLines; ++i) {
    const int n = snprintf(line, sizeof(line), "[11-21 09:30:15.042][tid:140737351481152] ");
    const int m = snprintf(line + n, sizeof(line) - n, kFormat, i, 0);
    line[n + m] = '\n';
    fwrite(line, 1, n + m + 1, fp);
    fflush(fp);
    if (statPath && !PathNamesRegularFile(path.c_str())) break;
  }
  const double elapsed = Seconds(Clock::now() - start);
  fclose(fp);
  return kTotalLines / elapsed;
}

std::string MakeTempDir(const char* name) {
  std::string pattern = (std::filesystem::temp_directory_path() / name).string() + "_XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("mkdtemp");
    exit(1);
  }
  return pattern + "/";
}

// "RESULT <key> <value>" lines, which bench/run.sh gathers into its table.
void PrintResult(const std::string& who, int threads, const Result& r) {
  const std::string key = who + "." + std::to_string(threads);
  printf("RESULT %s.median_ns %.0f\nRESULT %s.p99_ns %.0f\nRESULT %s.lines_per_s %.0f\n",
         key.c_str(), r.medianNs, key.c_str(), r.p99Ns, key.c_str(), r.linesPerSecond);
}

void PrintRow(const char* name, int threads, const Result& r, const Result* base) {
  printf("%-28s %7d %11.0f %10.0f %13.0f", name, threads, r.medianNs, r.p99Ns, r.linesPerSecond);
  if (base != nullptr && base->linesPerSecond > 0) {
    // Ratios >= 1.0 mean log_print does at least as well as this row.
    printf("   median x%.2f  p99 x%.2f  lines/s x%.2f", r.medianNs / base->medianNs,
           r.p99Ns / base->p99Ns, base->linesPerSecond / r.linesPerSecond);
  }
  printf("\n");
}

}  // namespace

int main() {
  const std::string zelDir = MakeTempDir("zel_log_bench");
  zel_set_log_path(zelDir.c_str());
  LineCounter zelCounter(zelDir);
  // Creates the Logger (its thread and day directory) outside the timing.
  log_print(3, 0, "warm-up");
  while (zelCounter.Scan() < 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  const int threadCounts[] = {1, 4};
  Result zel[2];
  for (int k = 0; k < 2; ++k) {
    zel[k] = RunProducers(threadCounts[k], zelCounter,
                          [](int i, int t) { log_print(3, 0, kFormat, i, t); });
  }
  const double zelFiltered =
      FilteredNs([](long long i) { log_print(7, 0, kFormat, static_cast<int>(i), 0); });

  printf("%d lines of ~100 bytes per run; caller cost in ns; lines/s until all are on disk\n\n",
         kTotalLines);
  printf("%-28s %7s %11s %10s %13s   %s\n", "logger", "threads", "median ns", "p99 ns", "lines/s",
         "log_print vs this row");

#if defined(ZEL_BENCH_HAVE_SPDLOG)
  struct SpdlogCase {
    const char* name;
    size_t queue;
  };
  const SpdlogCase cases[] = {{"spdlog async (big queue)", 1 << 20},
                              {"spdlog async (default q)", 8192}};
  Result spd[2][2];
  double spdFiltered = 0;
  for (int c = 0; c < 2; ++c) {
    for (int k = 0; k < 2; ++k) {
      const std::string dir = MakeTempDir("spdlog_bench");
      spdlog::init_thread_pool(cases[c].queue, 1);
      auto logger =
          spdlog::create_async<spdlog::sinks::basic_file_sink_mt>("bench", dir + "spdlog.txt");
      logger->set_pattern("[%m-%d %H:%M:%S.%e][tid:%t] %v");
      logger->flush_on(spdlog::level::trace);
      LineCounter counter(dir);
      spd[c][k] = RunProducers(threadCounts[k], counter,
                               [&logger](int i, int t) { logger->info(kFormat, i, t); });
      if (c == 0 && k == 1) {
        spdFiltered =
            FilteredNs([&logger](long long i) { logger->debug(kFormat, static_cast<int>(i), 0); });
      }
      spdlog::drop_all();
      std::filesystem::remove_all(dir);
    }
  }
#endif

  for (int k = 0; k < 2; ++k) {
    PrintResult("log_print", threadCounts[k], zel[k]);
#if defined(ZEL_BENCH_HAVE_SPDLOG)
    PrintResult("spdlog", threadCounts[k], spd[0][k]);
#endif
  }
  for (int k = 0; k < 2; ++k) {
    PrintRow("log_print", threadCounts[k], zel[k], nullptr);
#if defined(ZEL_BENCH_HAVE_SPDLOG)
    for (int c = 0; c < 2; ++c) PrintRow(cases[c].name, threadCounts[k], spd[c][k], &zel[k]);
#endif
  }

  const std::string floorDir = MakeTempDir("floor_bench");
  const double floor = FloorLinesPerSecond(floorDir, false);
  const double floorStat = FloorLinesPerSecond(floorDir, true);
  std::filesystem::remove_all(floorDir);
  printf("%-28s %7d %11s %10s %13.0f   lines/s x%.2f (1 thread) x%.2f (4 threads)\n",
         "floor snprintf+fwrite+fflush", 1, "-", "-", floor, zel[0].linesPerSecond / floor,
         zel[1].linesPerSecond / floor);
  printf("%-28s %7d %11s %10s %13.0f   lines/s x%.2f (1 thread) x%.2f (4 threads)\n",
         "floor + path check", 1, "-", "-", floorStat, zel[0].linesPerSecond / floorStat,
         zel[1].linesPerSecond / floorStat);

  printf("RESULT floor.lines_per_s %.0f\nRESULT floor_check.lines_per_s %.0f\n", floor, floorStat);
  const double formatNs = FormatMedianNs();
  printf("RESULT format.median_ns %.0f\nRESULT log_print.filtered_ns %.2f\n", formatNs,
         zelFiltered);
#if defined(ZEL_BENCH_HAVE_SPDLOG)
  printf("RESULT spdlog.filtered_ns %.2f\n", spdFiltered);
#endif
  printf("\nsnprintf of the text alone, timed the same way: median %.0f ns\n", formatNs);
  printf("filtered-out call: log_print %.2f ns", zelFiltered);
#if defined(ZEL_BENCH_HAVE_SPDLOG)
  printf(", spdlog %.2f ns (log_print x%.2f)", spdFiltered, spdFiltered / zelFiltered);
#endif
  printf("\n");
  std::filesystem::remove_all(zelDir);
  return 0;
}
