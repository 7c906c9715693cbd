// log_print from many threads across rotations: every line arrives exactly
// once, in each thread's order, also when the time zone moves half-way.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/log_files.h"
#include "utils/zel_log.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 50000 / ZEL_STRESS_DIVISOR;
constexpr int kTotal = kThreads * kLinesPerThread;

// "s<thread>:<n>:" then dots: about 100 bytes a line with the prefix, so
// that the run passes the 5 MiB limit several times (fewer than the 10
// files kept).
void LogLine(int thread, int n) {
  log_print(3, 0, "s%d:%d:%s", thread, n, "..........................................");
}

// Checks that `lines` hold, for each of `threads` threads, 0..perThread-1 in
// order, and no other line of LogLine's.
void ExpectEveryLineOnceInThreadOrder(const std::vector<std::string>& lines, int threads = kThreads,
                                      int perThread = kLinesPerThread) {
  std::vector<int> next(threads, 0);
  for (const std::string& line : lines) {
    const size_t at = line.find("] s");
    if (at == std::string::npos) continue;
    int thread = -1, n = -1;
    ASSERT_EQ(2, sscanf(line.c_str() + at + 3, "%d:%d:", &thread, &n)) << line;
    ASSERT_GE(thread, 0);
    ASSERT_LT(thread, threads);
    ASSERT_EQ(next[thread], n) << "thread " << thread;
    ++next[thread];
  }
  EXPECT_EQ(std::vector<int>(threads, perThread), next);
}

class LogStress : public ::testing::Test {
 protected:
  void SetUp() override { zel_set_log_path(base.path().c_str()); }

  // Every thread logs its lines; `halfway` runs once half of all were logged.
  void LogFromThreads(const std::function<void()>& halfway) {
    std::atomic<int> logged{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int n = 0; n < kLinesPerThread; ++n) {
          LogLine(t, n);
          ++logged;
        }
      });
    }
    zeltest::WaitForLogs([&] { return logged.load() >= kTotal / 2; });
    halfway();
    for (auto& thread : threads) thread.join();
    log_print(3, 0, "the end");
    ASSERT_TRUE(zeltest::WaitForLastLine(base.path(), "the end\n"));
  }

  zeltest::TempDir base;
};

TEST_F(LogStress, EightThreadsAcrossRotationsEveryLineOnceInOrder) {
  LogFromThreads([] {});
  ExpectEveryLineOnceInThreadOrder(zeltest::LinesBelow(base.path()));
  // About 95 bytes a line: a rotation per 55,000 lines, none deleted yet.
  const auto names = zeltest::FileNames(base.path() + zeltest::TodayText());
  EXPECT_GE(names.size(), 1u + kTotal / 70000);
}

TEST_F(LogStress, TimeZoneMovingHalfWayLosesNothing) {
  // 26 hours apart: the move always changes the local date.
  setenv("TZ", "AAA12", 1);
  tzset();
  LogFromThreads([] {
    setenv("TZ", "BBB-14", 1);
    tzset();
  });
  ExpectEveryLineOnceInThreadOrder(zeltest::LinesBelow(base.path()));
  int dayDirectories = 0;
  for (const auto& entry : std::filesystem::directory_iterator(base.path())) {
    dayDirectories += entry.is_directory();
  }
  EXPECT_EQ(2, dayDirectories);
}

// Resident size of this process, in KiB.
long ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

TEST_F(LogStress, FourThreadsFloodingLoseNothingAndStayInBoundedMemory) {
  constexpr int kFlooders = 4;
  constexpr int kPerFlooder = 100000 / ZEL_STRESS_DIVISOR;  // about 40 MB: nothing rotates out
  log_print(3, 0, "begin");
  ASSERT_TRUE(zeltest::WaitForLastLine(base.path(), "begin\n"));
  const long idle = ResidentKiB();
  std::atomic<bool> flooding{true};
  std::atomic<long> peak{idle};
  std::thread sampler([&] {
    while (flooding) {
      peak = std::max(peak.load(), ResidentKiB());
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  std::vector<std::thread> flooders;
  for (int t = 0; t < kFlooders; ++t) {
    flooders.emplace_back([t] {
      for (int n = 0; n < kPerFlooder; ++n) LogLine(t, n);  // as fast as they can
    });
  }
  for (auto& flooder : flooders) flooder.join();
  flooding = false;
  sampler.join();
  log_print(3, 0, "the end");
  ASSERT_TRUE(zeltest::WaitForLastLine(base.path(), "the end\n"));
  ExpectEveryLineOnceInThreadOrder(zeltest::LinesBelow(base.path()), kFlooders, kPerFlooder);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // The backlog is the staging area: callers waited for room instead.
  EXPECT_LE(peak.load() - idle, 64 * 1024) << "KiB above the idle process";
#endif
}

}  // namespace
