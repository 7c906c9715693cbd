#include "utils/zel_log.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "support/log_files.h"
#include "utils/logger.h"

namespace {

using zeltest::FileNames;
using zeltest::ReadFile;

// Sets the base to a scratch folder before the first line (each test case
// runs in its own process, so the Logger is created fresh under it).
class ZelLog : public ::testing::Test {
 protected:
  void SetUp() override {
    zel_set_log_path(base.path().c_str());
    dayDir = base.path() + zeltest::TodayText();
  }

  // Every regular file of the day directory, concatenated in name order
  // (the current ".txt" file sorts after the numbered rotated ones).
  std::string AllText() {
    std::string text;
    for (const auto& name : FileNames(dayDir)) text += ReadFile(dayDir + name);
    return text;
  }
  bool WaitForText(const std::string& needle) {
    return zeltest::WaitForLogs([&] { return AllText().find(needle) != std::string::npos; });
  }
  // Logs a marker at level 0 and waits for it: everything queued before is on
  // disk. Each call's marker is its own ("drain-marker" and a number).
  std::string Drain() {
    const std::string marker = "drain-marker " + std::to_string(drains++) + "\n";
    log_print(0, 0, "%s", marker.c_str());
    EXPECT_TRUE(WaitForText(marker));
    return AllText();
  }
  int drains = 0;

  zeltest::TempDir base;
  std::string dayDir;
};

TEST_F(ZelLog, DefaultLevelWritesThreeAndFiltersFour) {
  EXPECT_EQ(3, zel_log_level());
  EXPECT_EQ(0, log_print(4, 0, "level four"));
  EXPECT_EQ(0, log_print(3, 0, "level three"));
  const std::string text = Drain();
  EXPECT_EQ(std::string::npos, text.find("level four"));
  EXPECT_NE(std::string::npos, text.find("level three\n"));
}

TEST_F(ZelLog, FilteredLineCreatesNoLogger) {
  EXPECT_EQ(0, log_print(9, 0, "filtered"));
  EXPECT_EQ(nullptr, zel::Logger::sLogger.load());
  char buf[64] = {};
  EXPECT_EQ(-1, zel_get_log_path(buf, sizeof(buf)));
}

TEST_F(ZelLog, LevelSevenLetsLevelsUpToSevenThrough) {
  zel_set_log_level(7);
  EXPECT_EQ(7, zel_log_level());
  log_print(7, 0, "seven");
  log_print(8, 0, "eight");
  const std::string text = Drain();
  EXPECT_NE(std::string::npos, text.find("seven\n"));
  EXPECT_EQ(std::string::npos, text.find("eight"));
}

TEST(ZelLogLevel, KeepsTheLowEightBitsSigned) {
  zel_set_log_level(300);
  EXPECT_EQ(44, zel_log_level());
  zel_set_log_level(255);
  EXPECT_EQ(-1, zel_log_level());
  zel_set_log_level(128);
  EXPECT_EQ(-128, zel_log_level());
  zel_set_log_level(-3);
  EXPECT_EQ(-3, zel_log_level());
}

TEST_F(ZelLog, NegativeStoredLevelFiltersLevelZero) {
  zel_set_log_level(200);  // stored as -56
  log_print(0, 0, "zero");
  log_print(-56, 0, "minus fifty-six");
  zel_set_log_level(3);
  const std::string text = Drain();
  EXPECT_EQ(std::string::npos, text.find("zero\n"));
  EXPECT_NE(std::string::npos, text.find("minus fifty-six\n"));
}

TEST_F(ZelLog, LineCarriesDatePrefixAndCallerThreadId) {
  const auto before = std::chrono::system_clock::now();
  log_print(3, 0, "prefixed %d", 42);
  const std::string text = Drain();
  std::smatch match;
  ASSERT_TRUE(std::regex_search(
      text, match,
      std::regex(
          R"(^\[(\d{1,2})-(\d{1,2}) (\d\d):(\d\d):(\d\d)\.(\d{3})\]\[tid:(\d+)\] prefixed 42\n)")))
      << text;
  const time_t seconds = std::chrono::system_clock::to_time_t(before);
  struct tm local {};
  localtime_r(&seconds, &local);
  EXPECT_EQ(local.tm_mon + 1, std::stoi(match[1].str()));
  EXPECT_EQ(local.tm_mday, std::stoi(match[2].str()));
  EXPECT_EQ(local.tm_hour, std::stoi(match[3].str()));
  EXPECT_EQ(std::to_string((unsigned long long)pthread_self()), match[7].str());
}

TEST_F(ZelLog, FormatEndingInNewlineGetsNoSecondNewline) {
  log_print(3, 0, "one newline\n");
  const std::string text = Drain();
  EXPECT_NE(std::string::npos, text.find("] one newline\n["));
}

TEST_F(ZelLog, EmptyFormatYieldsPrefixAndNewline) {
  const char* empty = "";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat-security"
  log_print(3, 0, empty);
#pragma GCC diagnostic pop
  const std::string text = Drain();
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(^\[[^\n]*\]\[tid:\d+\] \n\[)"))) << text;
}

TEST_F(ZelLog, TextLongerThanTheBufferIsCutToFit) {
  const std::string longText(10000, 'a');
  log_print(3, 0, "%s", longText.c_str());
  const std::string text = Drain();
  const size_t end = text.find('\n');
  ASSERT_NE(std::string::npos, end);
  const std::string line = text.substr(0, end + 1);
  // Prefix + text + newline fill 4094 bytes; with the terminator, 4095 of 4096.
  EXPECT_EQ(4094u, line.size());
  const size_t prefixEnd = line.find("] ") + 2;
  EXPECT_EQ(std::string(4093 - prefixEnd, 'a') + "\n", line.substr(prefixEnd));
}

TEST_F(ZelLog, FormatLongerThanTheBufferIsCutToFit) {
  std::string format(5000, 'f');
  format += "%d";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  log_print(3, 0, format.c_str(), 7);
#pragma GCC diagnostic pop
  const std::string text = Drain();
  const std::string line = text.substr(0, text.find('\n') + 1);
  EXPECT_EQ(4094u, line.size());
  EXPECT_EQ(std::string(4093 - (line.find("] ") + 2), 'f') + "\n",
            line.substr(line.find("] ") + 2));
}

// The prefix's length on this thread today (its digits vary only with the date).
size_t PrefixLength(const std::string& line) { return line.find("] ") + 2; }

// The text after the prefix of each line of `text`, newline included.
std::vector<std::string> Bodies(const std::string& text) {
  std::vector<std::string> bodies;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string line = text.substr(at, end + 1 - at);
    bodies.push_back(line.substr(PrefixLength(line)));
  }
  return bodies;
}

TEST_F(ZelLog, LinesThatNeed4094To4096BytesWithTheirTerminatorAroundTheCut) {
  log_print(3, 0, "measure");
  const size_t prefix = PrefixLength(Drain());
  // Prefix + text + newline + terminator: 4094 and 4095 bytes fit whole;
  // 4096 would, but the text's room ends one byte earlier: it loses a character.
  std::vector<std::string> bodies;
  for (const size_t needed : {4094u, 4095u, 4096u}) {
    const std::string body = std::to_string(needed) + std::string(needed - prefix - 2 - 4, 'b');
    log_print(3, 0, "%s", body.c_str());
    bodies.push_back(body + "\n");
  }
  bodies.back().erase(bodies.back().size() - 2, 1);
  const std::vector<std::string> written = Bodies(Drain());
  ASSERT_EQ(6u, written.size());  // measure, marker, the three, marker
  EXPECT_EQ(bodies, std::vector<std::string>(written.begin() + 2, written.end() - 1));
  EXPECT_EQ(4093 - prefix, written[2].size());
  EXPECT_EQ(4094 - prefix, written[4].size());
}

TEST_F(ZelLog, TextEndingInNewlineAtTheCutLosesItsNewlineAndGetsOneBack) {
  log_print(3, 0, "measure");
  const size_t prefix = PrefixLength(Drain());
  // Fits whole with its own newline: nothing added.
  const std::string fits = std::string(4094 - prefix - 2, 'f') + "\n";
  // One byte more: the cut takes the newline, and one is appended again.
  const std::string over = std::string(4094 - prefix - 1, 'o') + "\n";
  log_print(3, 0, "%s", fits.c_str());
  log_print(3, 0, "%s", over.c_str());
  const std::vector<std::string> written = Bodies(Drain());
  ASSERT_EQ(5u, written.size());
  EXPECT_EQ(fits, written[2]);
  EXPECT_EQ(over, written[3]);
}

TEST_F(ZelLog, PercentSequencesInArgumentsAreWrittenVerbatim) {
  log_print(3, 0, "%s|%d", "%s %d %n %%", 5);
  const std::string text = Drain();
  EXPECT_NE(std::string::npos, text.find("] %s %d %n %%|5\n"));
}

TEST_F(ZelLog, ToBackendsFlagReachesAttachedSinks) {
  struct Sink : zel::LogBackend {
    std::mutex mutex;
    std::vector<std::string> lines;
    int Log(const std::string& msg) override {
      std::lock_guard<std::mutex> lock(mutex);
      lines.push_back(msg);
      return 0;
    }
  } sink;
  zel::Logger::GetInstance()->AddBackend(&sink);
  log_print(3, 1, "to the sink");
  log_print(3, 0, "not to the sink");
  Drain();
  zel::Logger::GetInstance()->RemoveBackend(&sink);
  ASSERT_EQ(1u, sink.lines.size());
  EXPECT_TRUE(std::regex_match(sink.lines[0], std::regex(R"(\[.*\] to the sink\n)")));
}

TEST(ZelLogPath, GetLogPathBeforeAnyLineReturnsMinusOne) {
  char buf[32];
  std::memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(-1, zel_get_log_path(buf, sizeof(buf)));
  EXPECT_EQ(std::string(32, 'X'), std::string(buf, sizeof(buf)));
}

TEST_F(ZelLog, GetLogPathReturnsTheDayDirectory) {
  log_print(3, 0, "first");
  Drain();
  char buf[512] = {};
  EXPECT_EQ(0, zel_get_log_path(buf, sizeof(buf)));
  EXPECT_EQ(dayDir, std::string(buf));
}

TEST_F(ZelLog, GetLogPathCopiesSizeMinusOneWithoutTerminating) {
  log_print(3, 0, "first");
  Drain();
  char buf[8];
  std::memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(0, zel_get_log_path(buf, 5));
  EXPECT_EQ(dayDir.substr(0, 4) + "XXXX", std::string(buf, sizeof(buf)));
}

TEST_F(ZelLog, SetEmptyPathLeavesThePreviousBase) {
  zel_set_log_path("");
  EXPECT_EQ(base.path(), zel::Logger::mFixedDirPrefix);
  log_print(3, 0, "still here");
  EXPECT_NE(std::string::npos, Drain().find("still here\n"));
}

TEST_F(ZelLog, SetNullPathLeavesThePreviousBase) {
  zel_set_log_path(nullptr);
  EXPECT_EQ(base.path(), zel::Logger::mFixedDirPrefix);
}

TEST_F(ZelLog, GetLogPathWithSizeZeroCopiesNothing) {
  log_print(3, 0, "first");
  Drain();
  char buf[4];
  std::memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(0, zel_get_log_path(buf, 0));
  EXPECT_EQ("XXXX", std::string(buf, sizeof(buf)));
}

TEST(ZelLogZoneChange, PrefixFollowsTheTimeZoneAtOnce) {
  zeltest::TempDir base;
  ASSERT_EQ(0, zeltest::RunZoneJump(base.path()));
  const std::vector<std::string> lines = zeltest::LinesBelow(base.path());
  ASSERT_EQ(5600u, lines.size());
  // The clock stands still at 10:00 UTC: 22:00 the day before at UTC-12,
  // midnight the day after at UTC+14, from the first line after the move.
  EXPECT_EQ(0u, lines[5199].rfind("[3-13 22:00:00.000][tid:", 0)) << lines[5199];
  EXPECT_EQ(0u, lines[5200].rfind("[3-15 00:00:00.000][tid:", 0)) << lines[5200];
  EXPECT_EQ(0u, lines[5599].rfind("[3-15 00:00:00.000][tid:", 0)) << lines[5599];
}

TEST(ZelLogTime, CurrentTimeStringHasDateTimeAndThreeDigitMilliseconds) {
  // The clock the function reads: time() runs on a coarser one that may
  // still show the previous second for a few milliseconds.
  using std::chrono::system_clock;
  const time_t before = system_clock::to_time_t(system_clock::now());
  const std::string text = zel::getCurrentTimeString();
  const time_t after = system_clock::to_time_t(system_clock::now());
  ASSERT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3})")))
      << text;
  struct tm local {};
  localtime_r(&before, &local);
  char expected[64];
  strftime(expected, sizeof(expected), "%Y-%m-%d-%H:%M:%S", &local);
  localtime_r(&after, &local);
  char expectedAfter[64];
  strftime(expectedAfter, sizeof(expectedAfter), "%Y-%m-%d-%H:%M:%S", &local);
  const std::string seconds = text.substr(0, 19);
  EXPECT_TRUE(seconds == expected || seconds == expectedAfter) << text;
}

// 8 threads x 20,000 lines of ~200 bytes: about 32 MB, six rotations of the
// 5242880-byte file. Six stays below the ten files kept per time tag, so
// nothing has been deleted when the lines are counted.
TEST_F(ZelLog, NoLineLostAcrossRotations) {
  constexpr int kThreads = 8;
  constexpr int kLines = 20000;
  const std::string padding(150, '-');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &padding] {
      for (int i = 0; i < kLines; ++i) log_print(3, 0, "line %d-%d %s", t, i, padding.c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  log_print(3, 0, "last line");

  ASSERT_TRUE(zeltest::WaitForLogs(
      [&] {
        return ReadFile(dayDir + zeltest::CurrentFileIn(dayDir)).find("last line\n") !=
               std::string::npos;
      },
      std::chrono::seconds(90)));
  const auto names = FileNames(dayDir);
  EXPECT_GE(names.size(), 6u);  // several rotations, none deleted
  std::set<std::pair<int, int>> seen;
  size_t lines = 0;
  for (const auto& name : names) {
    std::istringstream in(ReadFile(dayDir + name));
    for (std::string line; std::getline(in, line);) {
      if (line.find("last line") != std::string::npos) continue;
      ++lines;
      // "[M-D hh:mm:ss.mmm][tid:N] line T-I -----..."
      const size_t text = line.find("] line ");
      int thread = -1, index = -1, used = 0;
      ASSERT_TRUE(line.rfind('[', 0) == 0 && line.find("][tid:") < text &&
                  text != std::string::npos &&
                  sscanf(line.c_str() + text + 7, "%d-%d %n", &thread, &index, &used) == 2 &&
                  line.compare(text + 7 + used, std::string::npos, padding) == 0)
          << line;
      EXPECT_TRUE(seen.emplace(thread, index).second) << "duplicate " << line;
    }
  }
  EXPECT_EQ(static_cast<size_t>(kThreads * kLines), lines);
  EXPECT_EQ(static_cast<size_t>(kThreads * kLines), seen.size());
}

}  // namespace
