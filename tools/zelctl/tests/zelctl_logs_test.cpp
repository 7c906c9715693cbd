// zelctl log-dir and logs, through the real binary, on synthetic day
// directories under a temporary base.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tool_run.h"
#include "utils/staging_area.h"

namespace {

using zelctltest::AppendFile;
using zelctltest::Lines;
using zelctltest::ParseJson;
using zelctltest::RunningTool;
using zelctltest::RunTool;
using zelctltest::TempDir;
using zelctltest::ToolResult;
using zelctltest::WriteFile;

constexpr char kDay[] = "20261115";

// One line as the process log writes it on 15 November.
std::string LogLine(const std::string& clock, const std::string& text) {
  return "[11-15 " + clock + "][tid:140245] " + text + "\n";
}

// A base with the day directory made.
struct DayFixture {
  TempDir temp;
  std::string dir;
  explicit DayFixture(const std::string& day = kDay) : dir(temp.base() + day + "/") {
    mkdir(dir.c_str(), 0755);
  }
  void Write(const std::string& name, const std::string& content) const {
    WriteFile(dir + name, content);
  }
  std::vector<std::string> Base(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> args = {"logs", "--base", temp.base(), "--day", kDay};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }
};

TEST(Logs, MergesProcessesByTimeStampAndRotatedFilesOldestFirst) {
  DayFixture f;
  f.Write("zel.log.agent-10.093015.0",
          LogLine("10:00:00.000", "a0") + LogLine("10:00:03.000", "a3"));
  f.Write("zel.log.agent-10.093015.1", LogLine("10:00:04.000", "a4"));
  f.Write("zel.log.agent-10.093015.txt", LogLine("10:00:06.000", "a6"));
  f.Write("zel.log.bus-22.093020.txt",
          LogLine("10:00:01.000", "b1") + LogLine("10:00:05.000", "b5"));
  f.Write("zel.log.disk-7.093000.3", LogLine("10:00:02.000", "d2"));
  f.Write("unrelated.txt", LogLine("10:00:00.500", "not a log file of the process log"));
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  const std::vector<std::string> expected = {
      "agent-10 " + LogLine("10:00:00.000", "a0"), "bus-22 " + LogLine("10:00:01.000", "b1"),
      "disk-7 " + LogLine("10:00:02.000", "d2"),   "agent-10 " + LogLine("10:00:03.000", "a3"),
      "agent-10 " + LogLine("10:00:04.000", "a4"), "bus-22 " + LogLine("10:00:05.000", "b5"),
      "agent-10 " + LogLine("10:00:06.000", "a6")};
  std::string joined;
  for (const std::string& line : expected) joined += line;
  EXPECT_EQ(joined, r.out);
}

// Stages `lines` for `target` in `dir`, as a process does; the process
// "dies" with the object (its lock goes, its file stays).
std::unique_ptr<zel::logdetail::StagingArea> Stage(const std::string& dir, const std::string& name,
                                                   const std::string& target,
                                                   const std::vector<std::string>& lines) {
  auto area = std::make_unique<zel::logdetail::StagingArea>(
      dir + name, zel::logdetail::staging::kProcessLog, "agent",
      zel::logdetail::StagingArea::Sizes{16, 4096});
  area->SetTarget(target.c_str());
  for (const std::string& line : lines) area->AppendLocked(line.data(), line.size(), false);
  return area;
}

TEST(Logs, LinesADeadProcessLeftUnwrittenAreInTheTimelineMarkedAndNothingIsWritten) {
  DayFixture f;
  const std::string target = f.dir + "zel.log.agent-10.093015.txt";
  f.Write("zel.log.agent-10.093015.txt",
          LogLine("10:00:00.000", "a0") + LogLine("10:00:02.000", "a2"));
  f.Write("zel.log.bus-22.093020.txt", LogLine("10:00:04.000", "b4"));
  Stage(f.dir, "zel.agent-10.0.stage", target,
        {LogLine("10:00:03.000", "a3"), LogLine("10:00:05.000", "a5")});
  // A live process's staging file: its lines are on their way to its file.
  const auto live = Stage(f.dir, "zel.agent-11.0.stage", f.dir + "zel.log.agent-11.093015.txt",
                          {LogLine("10:00:01.000", "live")});
  const std::string staged = zelctltest::ReadFile(f.dir + "zel.agent-10.0.stage");
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::string dead = "agent-" + std::to_string(getpid()) + "(unwritten) ";
  EXPECT_EQ("agent-10 " + LogLine("10:00:00.000", "a0") + "agent-10 " +
                LogLine("10:00:02.000", "a2") + dead + LogLine("10:00:03.000", "a3") + "bus-22 " +
                LogLine("10:00:04.000", "b4") + dead + LogLine("10:00:05.000", "a5"),
            r.out);
  EXPECT_EQ(staged, zelctltest::ReadFile(f.dir + "zel.agent-10.0.stage"));
  EXPECT_EQ(LogLine("10:00:00.000", "a0") + LogLine("10:00:02.000", "a2"),
            zelctltest::ReadFile(target));
}

TEST(Logs, MoreStreamsThanTheUsualLimitOfOpenFilesAreAllMerged) {
  constexpr int kStreams = 1500;
  rlimit limit = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  if (limit.rlim_max < kStreams + 64) GTEST_SKIP() << "the hard limit is below the test's streams";
  limit.rlim_cur = 1024;  // the common soft limit; the tool inherits it
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
  DayFixture f;
  for (int i = 0; i < kStreams; ++i) {
    const std::string pid = std::to_string(100000 + i);
    f.Write("zel.log.p-" + pid + ".090000.txt", LogLine("10:00:00.000", "p" + pid + " one") +
                                                    LogLine("10:00:01.000", "p" + pid + " two"));
  }
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(static_cast<size_t>(2 * kStreams), lines.size());
  EXPECT_NE(std::string::npos, lines.front().find("p100000 one"));
  EXPECT_NE(std::string::npos, lines[kStreams].find("p100000 two"));
}

TEST(Logs, EqualTimeStampsGoByProcessNameThenPidThenTimeTag) {
  DayFixture f;
  const std::string same = "10:42:00.123";
  f.Write("zel.log.zeta-1.090000.txt", LogLine(same, "z"));
  f.Write("zel.log.alpha-20.090000.txt", LogLine(same, "a20"));
  f.Write("zel.log.alpha-3.120000.txt", LogLine(same, "a3-late"));
  f.Write("zel.log.alpha-3.080000.txt", LogLine(same, "a3-early"));
  f.Write("zel.log.mid-5.090000.txt", LogLine("10:42:00.122", "m"));
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(5u, lines.size()) << r.out;
  EXPECT_NE(std::string::npos, lines[0].find("] m"));
  EXPECT_EQ(0u, lines[1].find("alpha-3 ")) << lines[1];
  EXPECT_NE(std::string::npos, lines[1].find("a3-early"));
  EXPECT_NE(std::string::npos, lines[2].find("a3-late"));
  EXPECT_EQ(0u, lines[3].find("alpha-20 ")) << lines[3];
  EXPECT_EQ(0u, lines[4].find("zeta-1 ")) << lines[4];
}

TEST(Logs, EqualStampsOfMoreThan4096ProcessesStillGoByPid) {
  DayFixture f;
  constexpr int kProcesses = 4200;
  const std::string same = "10:42:00.123";
  for (int pid = kProcesses; pid >= 1; --pid) {
    // No newline at the end: each file is read to its end and closed before
    // its line is merged, so the run needs one descriptor at a time.
    const std::string line = LogLine(same, "n" + std::to_string(pid));
    f.Write("zel.log.p-" + std::to_string(pid) + ".000000.txt", line.substr(0, line.size() - 1));
  }
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(static_cast<size_t>(kProcesses), lines.size());
  for (int pid = 1; pid <= kProcesses; ++pid) {
    const std::string expected =
        "p-" + std::to_string(pid) + " " + LogLine(same, "n" + std::to_string(pid));
    ASSERT_EQ(expected.substr(0, expected.size() - 1), lines[static_cast<size_t>(pid - 1)]);
  }
}

TEST(Logs, RotationNumbersThatWrappedAreReadOldestFirst) {
  DayFixture f;
  // After 256 rotations the numbers wrap: 254, 255, 0, 1 are oldest to newest.
  const std::string same = "11:00:00.000";
  f.Write("zel.log.agent-4.000001.0", LogLine(same, "third"));
  f.Write("zel.log.agent-4.000001.254", LogLine(same, "first"));
  f.Write("zel.log.agent-4.000001.1", LogLine(same, "fourth"));
  f.Write("zel.log.agent-4.000001.255", LogLine(same, "second"));
  f.Write("zel.log.agent-4.000001.txt", LogLine(same, "current"));
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(5u, lines.size()) << r.out;
  const char* order[] = {"first", "second", "third", "fourth", "current"};
  for (size_t i = 0; i < 5; ++i) EXPECT_NE(std::string::npos, lines[i].find(order[i])) << i;
}

TEST(Logs, LinesOfOneFileKeepTheirOrderEvenWhenStampsGoBack) {
  DayFixture f;
  f.Write("zel.log.a-1.000000.txt", LogLine("10:00:05.000", "a5") + LogLine("10:00:01.000", "a1"));
  f.Write("zel.log.b-2.000000.txt", LogLine("10:00:03.000", "b3"));
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(3u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("b3"));
  EXPECT_NE(std::string::npos, lines[1].find("a5"));
  EXPECT_NE(std::string::npos, lines[2].find("a1"));
}

TEST(Logs, UnstampedLinesStayWithTheLineBeforeThem) {
  DayFixture f;
  f.Write("zel.log.a-1.000000.txt", LogLine("10:00:01.000", "head") +
                                        "  continued one\n  continued two\n" +
                                        LogLine("10:00:04.000", "a4"));
  f.Write("zel.log.b-2.000000.txt", LogLine("10:00:02.000", "b2") + LogLine("10:00:03.000", "b3"));
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(6u, lines.size()) << r.out;
  EXPECT_NE(std::string::npos, lines[0].find("head"));
  EXPECT_EQ("a-1   continued one", lines[1]);
  EXPECT_EQ("a-1   continued two", lines[2]);
  EXPECT_NE(std::string::npos, lines[3].find("b2"));
  EXPECT_NE(std::string::npos, lines[4].find("b3"));
  EXPECT_NE(std::string::npos, lines[5].find("a4"));
}

TEST(Logs, SinceAndUntilAreInclusiveAtBothEdges) {
  DayFixture f;
  f.Write("zel.log.a-1.000000.txt",
          LogLine("10:41:59.000", "second-before") + LogLine("10:41:59.999", "just-before") +
              LogLine("10:42:00.000", "at-since") + "  tail of at-since\n" +
              LogLine("10:42:30.500", "inside") + LogLine("10:43:00.000", "at-until") +
              LogLine("10:43:00.999", "end-of-until-second") +
              LogLine("10:43:01.000", "second-after"));
  ToolResult r = RunTool(f.Base({"--since", "10:42:00", "--until", "10:43:00"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(5u, lines.size()) << r.out;
  EXPECT_NE(std::string::npos, lines[0].find("at-since"));
  EXPECT_EQ("a-1   tail of at-since", lines[1]);
  EXPECT_NE(std::string::npos, lines[2].find("inside"));
  EXPECT_NE(std::string::npos, lines[3].find("at-until"));
  EXPECT_NE(std::string::npos, lines[4].find("end-of-until-second"));

  // HH:MM names a whole minute.
  r = RunTool(f.Base({"--since", "10:42", "--until", "10:42"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  lines = Lines(r.out);
  ASSERT_EQ(3u, lines.size()) << r.out;
  EXPECT_NE(std::string::npos, lines[0].find("at-since"));
  EXPECT_NE(std::string::npos, lines[2].find("inside"));

  // One second either side.
  r = RunTool(f.Base({"--since", "10:43:01"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(1u, Lines(r.out).size()) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("second-after"));
  r = RunTool(f.Base({"--until", "10:41:59"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  lines = Lines(r.out);
  ASSERT_EQ(2u, lines.size()) << r.out;
  EXPECT_NE(std::string::npos, lines[0].find("second-before"));
  EXPECT_NE(std::string::npos, lines[1].find("just-before"));

  // Nothing in range: a negative answer.
  r = RunTool(f.Base({"--since", "23:00"}));
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("", r.out);
}

TEST(Logs, LinesOfTheDayBeforeInTheDirectoryComeFirst) {
  DayFixture f;
  // Stamped 23:59:59.990 on the 14th, written after midnight into the 15th.
  f.Write("zel.log.a-1.000000.txt",
          "[11-14 23:59:59.990][tid:1] late\n" + LogLine("00:00:00.010", "a"));
  f.Write("zel.log.b-2.000000.txt", LogLine("00:00:00.000", "b"));
  const ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(3u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("late"));
  EXPECT_NE(std::string::npos, lines[1].find("] b"));
  EXPECT_NE(std::string::npos, lines[2].find("] a"));
  // Before the day's first second.
  const ToolResult since = RunTool(f.Base({"--since", "00:00"}));
  EXPECT_EQ(std::string::npos, since.out.find("late"));
  EXPECT_EQ(2u, Lines(since.out).size());
}

TEST(Logs, GrepIsAPlainSubstringAndProcessPicksStreams) {
  DayFixture f;
  f.Write("zel.log.agent-10.000000.txt",
          LogLine("10:00:00.000", "usb attach vid=0x1234 [x]") + LogLine("10:00:02.000", "idle"));
  f.Write("zel.log.agent-11.000000.txt", LogLine("10:00:03.000", "usb attach again"));
  f.Write("zel.log.printer-12.000000.txt", LogLine("10:00:01.000", "usb attach printer"));
  ToolResult r = RunTool(f.Base({"--grep", "vid=0x1234 [x]"}));  // no pattern syntax
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(1u, Lines(r.out).size()) << r.out;
  EXPECT_EQ(0u, r.out.find("agent-10 "));

  r = RunTool(f.Base({"--grep", "usb attach", "--process", "agent"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(2u, lines.size()) << r.out;
  EXPECT_EQ(0u, lines[0].find("agent-10 "));
  EXPECT_EQ(0u, lines[1].find("agent-11 "));

  r = RunTool(f.Base({"--process", "agent-11", "--process", "printer"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  lines = Lines(r.out);
  ASSERT_EQ(2u, lines.size()) << r.out;
  EXPECT_EQ(0u, lines[0].find("printer-12 "));
  EXPECT_EQ(0u, lines[1].find("agent-11 "));

  r = RunTool(f.Base({"--grep", "no such text"}));
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("", r.out);
}

TEST(Logs, JsonLinesParseBack) {
  DayFixture f;
  f.Write("zel.log.agent-10.000000.txt",
          LogLine("10:42:01.123", "quote \" backslash \\ tab \t done") + "unstamped\n");
  f.Write("zel.log.name.with.dots-7.000000.txt", LogLine("10:42:01.000", "dots"));
  const ToolResult r = RunTool(f.Base({"--json"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(3u, lines.size());
  Json::Value first, second, third;
  ASSERT_TRUE(ParseJson(lines[0], &first)) << lines[0];
  ASSERT_TRUE(ParseJson(lines[1], &second)) << lines[1];
  ASSERT_TRUE(ParseJson(lines[2], &third)) << lines[2];
  EXPECT_EQ("name.with.dots-7", first["tag"].asString());
  EXPECT_EQ("name.with.dots", first["process"].asString());
  EXPECT_EQ(7, first["pid"].asInt());
  EXPECT_EQ("agent", second["process"].asString());
  EXPECT_EQ(10, second["pid"].asInt());
  EXPECT_EQ("10:42:01.123", second["time"].asString());
  EXPECT_EQ("[11-15 10:42:01.123][tid:140245] quote \" backslash \\ tab \t done",
            second["line"].asString());
  EXPECT_EQ("unstamped", third["line"].asString());
  EXPECT_EQ("10:42:01.123", third["time"].asString());
}

TEST(Logs, BinaryGarbageLongLinesAndAMissingNewlineDoNotBreakIt) {
  DayFixture f;
  std::string garbage;
  for (int i = 0; i < 200000; ++i) garbage.push_back(static_cast<char>((i * 7919 + 13) % 256));
  garbage += "\n[99-99 99:99:99.999] not a stamp\n[11-15 1";  // cut stamp
  f.Write("zel.log.junk-1.000000.txt", LogLine("09:00:00.000", "before junk") + garbage + "\n" +
                                           LogLine("09:00:02.000", "after junk"));
  const std::string long_text(size_t{600} * 1024, 'x');  // longer than a read buffer
  f.Write("zel.log.long-2.000000.txt",
          LogLine("09:00:01.000", long_text) +
              LogLine("09:00:03.000", "no newline at the end").substr(0, 50));
  ToolResult r = RunTool(f.Base());
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_NE(std::string::npos, r.out.find("junk-1 " + LogLine("09:00:00.000", "before junk")));
  EXPECT_NE(std::string::npos, r.out.find("long-2 " + LogLine("09:00:01.000", long_text)));
  const size_t after = r.out.find("junk-1 " + LogLine("09:00:02.000", "after junk"));
  const size_t last = r.out.find("long-2 [11-15 09:00:03.000][tid:140245] no newline");
  EXPECT_NE(std::string::npos, after);
  ASSERT_NE(std::string::npos, last);
  EXPECT_LT(after, last);
  EXPECT_EQ('\n', r.out.back());
  // Every output line carries its tag, garbage lines too.
  for (const std::string& line : Lines(r.out)) {
    EXPECT_TRUE(line.rfind("junk-1 ", 0) == 0 || line.rfind("long-2 ", 0) == 0);
  }
  // As JSON every line still parses.
  r = RunTool(f.Base({"--json"}));
  ASSERT_EQ(0, r.exit_code) << r.err;
  for (const std::string& line : Lines(r.out)) {
    Json::Value value;
    ASSERT_TRUE(ParseJson(line, &value)) << line.substr(0, 200);
  }
}

TEST(Logs, MissingDayDirectoryIsAnInputOutputError) {
  TempDir temp;
  const ToolResult r = RunTool({"logs", "--base", temp.base(), "--day", kDay});
  EXPECT_EQ(3, r.exit_code);
  EXPECT_EQ("", r.out);
  EXPECT_EQ(1u, Lines(r.err).size());
  EXPECT_NE(std::string::npos, r.err.find(temp.base() + kDay + "/")) << r.err;
}

TEST(Logs, AnEmptyDayIsANegativeAnswer) {
  DayFixture f;
  const ToolResult r = RunTool(f.Base());
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("", r.out);
}

TEST(Logs, AnUnreadableFileIsNamedAndTheRestStillComes) {
  DayFixture f;
  f.Write("zel.log.good-1.000000.txt", LogLine("10:00:00.000", "readable"));
  // A folder under a log file's name cannot be read as one, by root either.
  const std::string bad = f.dir + "zel.log.bad-2.000000.txt";
  ASSERT_EQ(0, mkdir(bad.c_str(), 0755));
  const ToolResult r = RunTool(f.Base());
  EXPECT_EQ(3, r.exit_code);
  EXPECT_NE(std::string::npos, r.out.find("readable"));
  EXPECT_EQ(1u, Lines(r.err).size()) << r.err;
  EXPECT_NE(std::string::npos, r.err.find(bad)) << r.err;
}

TEST(Logs, BadDayAndTimesAreUsageErrors) {
  DayFixture f;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"logs", "--day", "20261131"},
        {"logs", "--day", "2026-11-15"},
        {"logs", "--since", "24:00"},
        {"logs", "--until", "10:60"},
        {"logs", "--since", "9:00"},
        {"logs", "--until", "10:00:00.5"}}) {
    const ToolResult r = RunTool(args);
    EXPECT_EQ(2, r.exit_code) << args[1] << " " << args[2];
    EXPECT_EQ("", r.out);
    EXPECT_EQ(1u, Lines(r.err).size()) << r.err;
    EXPECT_NE(std::string::npos, r.err.find(args[1])) << r.err;
  }
}

TEST(Logs, DayDefaultsToToday) {
  TempDir temp;
  for (int attempt = 0; attempt < 2; ++attempt) {  // once more if midnight passed
    const std::string today = zelctltest::TodayText();
    const std::string dir = temp.base() + today + "/";
    mkdir(dir.c_str(), 0755);
    WriteFile(dir + "zel.log.a-1.000000.txt", "[1-1 00:00:00.000][tid:1] today's line\n");
    const ToolResult r = RunTool({"logs", "--base", temp.base()});
    if (today != zelctltest::TodayText()) continue;
    EXPECT_EQ(0, r.exit_code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("today's line"));
    return;
  }
}

TEST(LogDir, PrintsTodaysDirectoryUnderTheBase) {
  TempDir temp;
  const std::string before = zelctltest::TodayText();
  ToolResult r = RunTool({"log-dir", "--base", temp.base()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(r.out == temp.base() + before + "/\n" ||
              r.out == temp.base() + zelctltest::TodayText() + "/\n")
      << r.out;

  // A base is taken as zel_set_log_path takes it: no separator is added.
  r = RunTool({"log-dir", "--base", "/var/log/zel-", "--json"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  const std::string day = value["day"].asString();
  EXPECT_EQ(8u, day.size());
  EXPECT_EQ("/var/log/zel-", value["base"].asString());
  EXPECT_EQ("/var/log/zel-" + day + "/", value["dir"].asString());
  EXPECT_FALSE(value["exists"].asBool());
}

TEST(LogDir, DefaultBaseFollowsUser) {
  ToolResult r = RunTool({"log-dir", "--json"}, {"USER=support"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_EQ("/Users/support/Library/zel/", value["base"].asString());
  EXPECT_EQ("/Users/support/Library/zel/" + value["day"].asString() + "/", value["dir"].asString());
  r = RunTool({"log-dir"}, {"USER="});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(0u, r.out.find("/Users/2")) << r.out;
}

// --- follow ---

TEST(LogsFollow, SeesAppendsRotationsAndNewProcessesThenEndsOnSigterm) {
  DayFixture f;
  const std::string current = f.dir + "zel.log.agent-10.093015.txt";
  f.Write("zel.log.agent-10.093015.txt", LogLine("10:00:00.000", "initial"));
  RunningTool tool(f.Base({"--follow"}));
  ASSERT_TRUE(tool.started());
  ASSERT_TRUE(tool.WaitForOutput("initial")) << tool.err();

  AppendFile(current, LogLine("10:00:01.000", "appended"));
  ASSERT_TRUE(tool.WaitForOutput("appended")) << tool.out();

  // Rotation as the writer does it: a last line, rename, a fresh current file.
  AppendFile(current, LogLine("10:00:02.000", "last-before-rotation"));
  ASSERT_EQ(0, std::rename(current.c_str(), (f.dir + "zel.log.agent-10.093015.0").c_str()));
  f.Write("zel.log.agent-10.093015.txt", LogLine("10:00:03.000", "first-after-rotation"));
  ASSERT_TRUE(tool.WaitForOutput("first-after-rotation")) << tool.out();

  // Two rotations between two polls: nothing is lost, nothing read twice.
  AppendFile(current, LogLine("10:00:04.000", "r1"));
  std::rename(current.c_str(), (f.dir + "zel.log.agent-10.093015.1").c_str());
  f.Write("zel.log.agent-10.093015.txt", LogLine("10:00:05.000", "r2"));
  std::rename(current.c_str(), (f.dir + "zel.log.agent-10.093015.2").c_str());
  f.Write("zel.log.agent-10.093015.txt", LogLine("10:00:06.000", "r3"));
  ASSERT_TRUE(tool.WaitForOutput("r3")) << tool.out();

  // A new process's file.
  f.Write("zel.log.newcomer-77.100007.txt", LogLine("10:00:07.000", "hello from newcomer"));
  ASSERT_TRUE(tool.WaitForOutput("newcomer-77 " + LogLine("10:00:07.000", "hello from newcomer")))
      << tool.out();

  const ToolResult r = tool.Finish(SIGTERM, 20);
  EXPECT_EQ(0, r.exit_code) << "signal " << r.signal << " " << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  const char* order[] = {
      "initial", "appended", "last-before-rotation", "first-after-rotation", "r1",
      "r2",      "r3",       "hello from newcomer"};
  ASSERT_EQ(8u, lines.size()) << r.out;
  for (size_t i = 0; i < 8; ++i) EXPECT_NE(std::string::npos, lines[i].find(order[i])) << i;
  EXPECT_EQ("", r.err);
}

TEST(LogsFollow, HoldsAHalfWrittenLineAndAppliesFiltersThenEndsOnSigint) {
  DayFixture f;
  const std::string current = f.dir + "zel.log.agent-10.093015.txt";
  f.Write("zel.log.agent-10.093015.txt", "");
  RunningTool tool(f.Base({"--follow", "--grep", "wanted"}));
  ASSERT_TRUE(tool.started());
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  AppendFile(current, "[11-15 10:00:00.000][tid:1] wan");
  std::this_thread::sleep_for(std::chrono::milliseconds(600));  // several polls
  AppendFile(current, "ted, completed\n" + LogLine("10:00:01.000", "skipped"));
  AppendFile(current, LogLine("10:00:02.000", "wanted too"));
  ASSERT_TRUE(tool.WaitForOutput("wanted too")) << tool.out();
  const ToolResult r = tool.Finish(SIGINT, 20);
  EXPECT_EQ(0, r.exit_code) << "signal " << r.signal;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(2u, lines.size()) << r.out;
  EXPECT_EQ("agent-10 [11-15 10:00:00.000][tid:1] wanted, completed", lines[0]);
  EXPECT_NE(std::string::npos, lines[1].find("wanted too"));
}

TEST(LogsFollow, WaitsForADayDirectoryThatDoesNotExistYet) {
  TempDir temp;
  RunningTool tool({"logs", "--base", temp.base(), "--day", kDay, "--follow"});
  ASSERT_TRUE(tool.started());
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::string dir = temp.base() + kDay + "/";
  ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
  WriteFile(dir + "zel.log.late-1.000000.txt", LogLine("10:00:00.000", "arrived"));
  ASSERT_TRUE(tool.WaitForOutput("arrived")) << tool.err();
  const ToolResult r = tool.Finish(SIGTERM, 20);
  EXPECT_EQ(0, r.exit_code);
  EXPECT_EQ(1u, Lines(r.err).size()) << r.err;  // the one note that it waits
}

TEST(LogsFollow, ACutFileIsReadAgainFromItsStart) {
  DayFixture f;
  const std::string current = f.dir + "zel.log.agent-10.093015.txt";
  f.Write("zel.log.agent-10.093015.txt",
          LogLine("10:00:00.000", "long first content that will be cut away"));
  RunningTool tool(f.Base({"--follow"}));
  ASSERT_TRUE(tool.WaitForOutput("cut away"));
  ASSERT_EQ(0, truncate(current.c_str(), 0));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  AppendFile(current, LogLine("10:00:01.000", "anew"));
  ASSERT_TRUE(tool.WaitForOutput("agent-10 " + LogLine("10:00:01.000", "anew"))) << tool.out();
  EXPECT_EQ(0, tool.Finish(SIGTERM, 20).exit_code);
}

}  // namespace
