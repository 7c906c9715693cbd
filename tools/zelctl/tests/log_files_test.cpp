// The names of the process log's files and what zelctl makes of them
// (log_files): the name parser, rotation order, the listing of a day
// directory into streams, the stream order, day texts and the default base.
#include "log_files.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "log_prefix.h"
#include "temp_files.h"

namespace zelctl {
namespace {

using zelctltest::TempDir;
using zelctltest::WriteFile;

class LogFileNameTest : public ::testing::Test {
 protected:
  bool Parse(const std::string& name) {
    parsed_ = LogFileName();
    return ParseLogFileName(name, &parsed_);
  }
  LogFileName parsed_;
};

TEST_F(LogFileNameTest, CurrentFileGivesTagProcessPidAndTimeTag) {
  ASSERT_TRUE(Parse("zel.log.agent-4211.093015.txt"));
  EXPECT_EQ("agent-4211", parsed_.tag);
  EXPECT_EQ("agent", parsed_.process);
  EXPECT_EQ(4211, parsed_.pid);
  EXPECT_EQ("093015", parsed_.time_tag);
  EXPECT_TRUE(parsed_.current);
  EXPECT_EQ(0u, parsed_.rotation);
}

TEST_F(LogFileNameTest, RotatedFilesCarryTheirNumberFrom0To255) {
  ASSERT_TRUE(Parse("zel.log.agent-4211.093015.0"));
  EXPECT_FALSE(parsed_.current);
  EXPECT_EQ(0u, parsed_.rotation);
  EXPECT_EQ("agent-4211", parsed_.tag);
  ASSERT_TRUE(Parse("zel.log.agent-4211.093015.17"));
  EXPECT_EQ(17u, parsed_.rotation);
  ASSERT_TRUE(Parse("zel.log.agent-4211.093015.255"));
  EXPECT_EQ(255u, parsed_.rotation);
  EXPECT_FALSE(Parse("zel.log.agent-4211.093015.256"));
}

TEST_F(LogFileNameTest, RotationNumbersOfUpToThreeDigitsMayHaveLeadingZeros) {
  ASSERT_TRUE(Parse("zel.log.agent-4211.093015.007"));
  EXPECT_EQ(7u, parsed_.rotation);
  EXPECT_FALSE(Parse("zel.log.agent-4211.093015.0007"));
}

TEST_F(LogFileNameTest, OtherEndingsAreNotLogFiles) {
  for (const char* name : {"zel.log.agent-4211.093015.TXT", "zel.log.agent-4211.093015.log",
                           "zel.log.agent-4211.093015.", "zel.log.agent-4211.093015.-1",
                           "zel.log.agent-4211.093015.1a", "zel.log.agent-4211.093015.txt.1",
                           "zel.log.agent-4211.093015.txt~"}) {
    EXPECT_FALSE(Parse(name)) << name;
  }
}

TEST_F(LogFileNameTest, TheTimeTagIsSixDigits) {
  EXPECT_TRUE(Parse("zel.log.a-1.999999.txt"));  // digits, not a checked time
  for (const char* name : {"zel.log.a-1.09301.txt", "zel.log.a-1.0930150.txt",
                           "zel.log.a-1.09301x.txt", "zel.log.a-1.txt", "zel.log.a-1-093015.txt"}) {
    EXPECT_FALSE(Parse(name)) << name;
  }
}

TEST_F(LogFileNameTest, TheNameMustStartWithTheLogsPrefixAndHaveATag) {
  for (const char* name : {"zel.log..093015.txt", "zel.log.093015.txt", "zel.log.", "zel.log", "",
                           "ZEL.log.a-1.093015.txt", "zel.logs.a-1.093015.txt",
                           "xzel.log.a-1.093015.txt", "unrelated.txt"}) {
    EXPECT_FALSE(Parse(name)) << name;
  }
}

TEST_F(LogFileNameTest, ThePidIsTheDigitsAfterTheLastDash) {
  ASSERT_TRUE(Parse("zel.log.my-helper-2-77.000000.txt"));
  EXPECT_EQ("my-helper-2", parsed_.process);
  EXPECT_EQ(77, parsed_.pid);
  ASSERT_TRUE(Parse("zel.log.name.with.dots-7.000000.txt"));
  EXPECT_EQ("name.with.dots", parsed_.process);
  EXPECT_EQ(7, parsed_.pid);
  ASSERT_TRUE(Parse("zel.log.-12.000000.txt"));
  EXPECT_EQ("", parsed_.process);
  EXPECT_EQ(12, parsed_.pid);
}

TEST_F(LogFileNameTest, ATagWithoutPidIsAllProcessName) {
  for (const char* tag : {"agent", "agent-", "agent-x12", "agent-12x", "agent_12"}) {
    ASSERT_TRUE(Parse(std::string("zel.log.") + tag + ".000000.txt")) << tag;
    EXPECT_EQ(tag, parsed_.tag);
    EXPECT_EQ(tag, parsed_.process);
    EXPECT_EQ(-1, parsed_.pid) << tag;
  }
}

TEST_F(LogFileNameTest, PidsOfUpTo18DigitsAreRead) {
  ASSERT_TRUE(Parse("zel.log.a-123456789012345678.000000.txt"));
  EXPECT_EQ("a", parsed_.process);
  EXPECT_EQ(123456789012345678LL, parsed_.pid);
  ASSERT_TRUE(Parse("zel.log.a-1234567890123456789.000000.txt"));
  EXPECT_EQ("a-1234567890123456789", parsed_.process);
  EXPECT_EQ(-1, parsed_.pid);
}

TEST_F(LogFileNameTest, ARefusedNameLeavesTheResultAlone) {
  LogFileName kept;
  kept.tag = "kept";
  kept.pid = 5;
  EXPECT_FALSE(ParseLogFileName("zel.log.a-1.093015.256", &kept));
  EXPECT_EQ("kept", kept.tag);
  EXPECT_EQ(5, kept.pid);
}

TEST_F(LogFileNameTest, NamesAsTheLibraryMakesThemParseBackToTheirParts) {
  // "zel.log." + process + "-" + pid + "." + hhmmss + (".txt" or "." + n)
  for (const std::string process :
       {"agent", "usb-redirector", "name.with.dots", "worker-2", "with space", "x", "ünïcode"}) {
    for (const long long pid : {1LL, 4211LL, 4194304LL}) {
      for (const std::string last : {"txt", "0", "9", "255"}) {
        std::string name = "zel.log." + process;
        name += "-" + std::to_string(pid) + ".235959." + last;
        ASSERT_TRUE(Parse(name)) << name;
        EXPECT_EQ(process + "-" + std::to_string(pid), parsed_.tag) << name;
        EXPECT_EQ(process, parsed_.process) << name;
        EXPECT_EQ(pid, parsed_.pid) << name;
        EXPECT_EQ("235959", parsed_.time_tag) << name;
        EXPECT_EQ(last == "txt", parsed_.current) << name;
        EXPECT_EQ(last == "txt" ? 0u : std::stoul(last), parsed_.rotation) << name;
      }
    }
  }
}

TEST(RotationsOldestFirst, NoneOrOneNumberIsAsGiven) {
  EXPECT_EQ(std::vector<unsigned>{}, RotationsOldestFirst({}));
  EXPECT_EQ(std::vector<unsigned>{7}, RotationsOldestFirst({7}));
}

TEST(RotationsOldestFirst, NumbersThatDidNotWrapAscend) {
  EXPECT_EQ((std::vector<unsigned>{0, 1, 2, 3}), RotationsOldestFirst({3, 1, 0, 2}));
  EXPECT_EQ((std::vector<unsigned>{5, 6, 7, 8, 9, 10, 11, 12, 13}),
            RotationsOldestFirst({13, 12, 11, 10, 9, 8, 7, 6, 5}));
}

TEST(RotationsOldestFirst, NumbersThatWrappedPast255StartAfterTheWidestGap) {
  EXPECT_EQ((std::vector<unsigned>{254, 255, 0, 1}), RotationsOldestFirst({0, 1, 254, 255}));
  EXPECT_EQ((std::vector<unsigned>{250, 251, 252, 253, 254, 255, 0, 1, 2}),
            RotationsOldestFirst({2, 1, 0, 255, 254, 253, 252, 251, 250}));
  EXPECT_EQ((std::vector<unsigned>{255, 0}), RotationsOldestFirst({0, 255}));
}

TEST(RotationsOldestFirst, AHoleInTheWindowDoesNotMoveTheStart) {
  EXPECT_EQ((std::vector<unsigned>{200, 0, 1, 2}), RotationsOldestFirst({0, 1, 2, 200}));
  EXPECT_EQ((std::vector<unsigned>{10, 12, 15}), RotationsOldestFirst({15, 10, 12}));
}

TEST(RotationsOldestFirst, OfTwoEqualGapsTheFirstFromZeroWins) {
  EXPECT_EQ((std::vector<unsigned>{128, 0}), RotationsOldestFirst({0, 128}));
}

TEST(RotationsOldestFirst, RepeatedNumbersCountOnce) {
  EXPECT_EQ((std::vector<unsigned>{3, 4}), RotationsOldestFirst({4, 3, 4, 3}));
}

// A day directory under a temporary base.
class ListLogStreamsTest : public ::testing::Test {
 protected:
  ListLogStreamsTest() : dir_(temp_.base() + "20261115/") { mkdir(dir_.c_str(), 0755); }
  void Touch(const std::string& name) { WriteFile(dir_ + name, "x\n"); }
  std::vector<std::string> Tags() const {
    std::vector<std::string> tags;
    for (const LogStreamFiles& stream : streams_) tags.push_back(stream.tag);
    return tags;
  }
  TempDir temp_;
  std::string dir_;
  std::vector<LogStreamFiles> streams_;
};

TEST_F(ListLogStreamsTest, OneStreamHasItsRotatedFilesOldestFirstThenItsCurrentFile) {
  for (const char* name : {"zel.log.agent-10.093015.1", "zel.log.agent-10.093015.txt",
                           "zel.log.agent-10.093015.255", "zel.log.agent-10.093015.0"}) {
    Touch(name);
  }
  ASSERT_EQ(0, ListLogStreams(dir_, &streams_));
  ASSERT_EQ(1u, streams_.size());
  const LogStreamFiles& stream = streams_[0];
  EXPECT_EQ("agent-10", stream.tag);
  EXPECT_EQ("agent", stream.process);
  EXPECT_EQ(10, stream.pid);
  EXPECT_EQ("093015", stream.time_tag);
  EXPECT_EQ((std::vector<unsigned>{255, 0, 1}), stream.rotations);
  EXPECT_EQ((std::vector<std::string>{dir_ + "zel.log.agent-10.093015.255",
                                      dir_ + "zel.log.agent-10.093015.0",
                                      dir_ + "zel.log.agent-10.093015.1"}),
            stream.rotated_paths);
  EXPECT_EQ(dir_ + "zel.log.agent-10.093015.txt", stream.current_path);
}

TEST_F(ListLogStreamsTest, EachTagAndTimeTagIsAStreamOfItsOwn) {
  Touch("zel.log.agent-10.093015.txt");
  Touch("zel.log.agent-10.120000.txt");  // the same process after midnight, say
  Touch("zel.log.bus-22.093020.txt");
  ASSERT_EQ(0, ListLogStreams(dir_, &streams_));
  ASSERT_EQ(3u, streams_.size());
  EXPECT_EQ("093015", streams_[0].time_tag);
  EXPECT_EQ("120000", streams_[1].time_tag);
  EXPECT_EQ("bus-22", streams_[2].tag);
}

TEST_F(ListLogStreamsTest, StreamsGoByProcessNameThenPidAsANumberThenTimeTag) {
  for (const char* name :
       {"zel.log.b-1.000000.txt", "zel.log.a-10.000000.txt", "zel.log.a-9.120000.txt",
        "zel.log.a-9.080000.txt", "zel.log.a.000000.txt", "zel.log.a-b-1.000000.txt"}) {
    Touch(name);
  }
  ASSERT_EQ(0, ListLogStreams(dir_, &streams_));
  EXPECT_EQ((std::vector<std::string>{"a", "a-9", "a-9", "a-10", "a-b-1", "b-1"}), Tags());
  ASSERT_EQ(6u, streams_.size());
  EXPECT_EQ("080000", streams_[1].time_tag);
  EXPECT_EQ("120000", streams_[2].time_tag);
}

TEST_F(ListLogStreamsTest, AStreamOfRotatedFilesOnlyHasNoCurrentPath) {
  Touch("zel.log.gone-3.000000.4");
  Touch("zel.log.gone-3.000000.5");
  ASSERT_EQ(0, ListLogStreams(dir_, &streams_));
  ASSERT_EQ(1u, streams_.size());
  EXPECT_EQ("", streams_[0].current_path);
  EXPECT_EQ((std::vector<unsigned>{4, 5}), streams_[0].rotations);
}

TEST_F(ListLogStreamsTest, OtherNamesAreLeftOutButFoldersWithALogsNameAreListed) {
  Touch("unrelated.txt");
  Touch("zel.log.a-1.000000.bak");
  Touch(".zel.log.a-1.000000.txt");
  const std::string folder = dir_ + "zel.log.d-4.000000.txt";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));  // reading it is LineStream's to report
  ASSERT_EQ(0, ListLogStreams(dir_, &streams_));
  ASSERT_EQ(1u, streams_.size());
  EXPECT_EQ(folder, streams_[0].current_path);
}

TEST_F(ListLogStreamsTest, AListingReplacesWhatTheVectorHeld) {
  Touch("zel.log.a-1.000000.txt");
  streams_.resize(3);
  ASSERT_EQ(0, ListLogStreams(dir_, &streams_));
  EXPECT_EQ(std::vector<std::string>{"a-1"}, Tags());
  const std::string empty = temp_.base() + "20261116/";
  ASSERT_EQ(0, mkdir(empty.c_str(), 0755));
  ASSERT_EQ(0, ListLogStreams(empty, &streams_));
  EXPECT_TRUE(streams_.empty());
}

TEST_F(ListLogStreamsTest, AMissingDirectoryOrAFileIsAnErrnoValue) {
  EXPECT_EQ(ENOENT, ListLogStreams(temp_.base() + "20261116/", &streams_));
  WriteFile(temp_.base() + "plain", "");
  EXPECT_EQ(ENOTDIR, ListLogStreams(temp_.base() + "plain/", &streams_));
}

TEST(StreamOrderLess, ProcessNameThenPidThenTimeTagThenTag) {
  const auto stream = [](const std::string& process, long long pid, const std::string& time_tag,
                         const std::string& tag) {
    LogStreamFiles files;
    files.process = process;
    files.pid = pid;
    files.time_tag = time_tag;
    files.tag = tag;
    return files;
  };
  EXPECT_TRUE(StreamOrderLess(stream("a", 99, "235959", "a-99"), stream("b", 1, "000000", "b-1")));
  EXPECT_TRUE(StreamOrderLess(stream("a", 9, "235959", "a-9"), stream("a", 10, "000000", "a-10")));
  EXPECT_TRUE(StreamOrderLess(stream("a", -1, "235959", "a"), stream("a", 0, "000000", "a-0")));
  EXPECT_TRUE(StreamOrderLess(stream("a", 9, "080000", "a-9"), stream("a", 9, "120000", "a-9")));
  EXPECT_TRUE(StreamOrderLess(stream("a", 1, "000000", "a-01"), stream("a", 1, "000000", "a-1")));
  EXPECT_FALSE(StreamOrderLess(stream("a", 1, "000000", "a-1"), stream("a", 1, "000000", "a-1")));
  EXPECT_FALSE(StreamOrderLess(stream("b", 1, "000000", "b-1"), stream("a", 9, "000000", "a-9")));
}

TEST(DayText, IsYearMonthDayWithZeros) {
  EXPECT_EQ("20261115", DayText(DaysFromCivil(2026, 11, 15)));
  EXPECT_EQ("19700101", DayText(0));
  EXPECT_EQ("20240229", DayText(DaysFromCivil(2024, 2, 29)));
  EXPECT_EQ("00010101", DayText(DaysFromCivil(1, 1, 1)));
}

TEST(DayText, ParsesBackToItsDayNumber) {
  for (int64_t day = DaysFromCivil(1, 1, 1); day <= DaysFromCivil(9999, 12, 31); day += 13) {
    int64_t parsed = -1;
    ASSERT_TRUE(ParseDayText(DayText(day), &parsed)) << DayText(day);
    ASSERT_EQ(day, parsed);
  }
}

TEST(DayText, OnlyEightDigitsOfARealDateParse) {
  int64_t day = 12345;
  for (const char* text : {"20261131", "20260229", "20261301", "20261100", "00000101", "2026111",
                           "202611150", "2026-1115", "2026111x", " 2026111", ""}) {
    EXPECT_FALSE(ParseDayText(text, &day)) << text;
  }
  EXPECT_EQ(12345, day);
}

TEST(DayDirectory, IsTheBaseAndTheDayTextWithNothingInBetween) {
  const int64_t day = DaysFromCivil(2026, 11, 15);
  EXPECT_EQ("/var/log/zel-20261115/", DayDirectory("/var/log/zel-", day));
  EXPECT_EQ("/base/20261115/", DayDirectory("/base/", day));
}

// Sets or removes USER for one test, and puts it back.
class DefaultLogBaseTest : public ::testing::Test {
 protected:
  DefaultLogBaseTest() {
    const char* user = std::getenv("USER");
    had_user_ = user != nullptr;
    if (had_user_) saved_ = user;
  }
  ~DefaultLogBaseTest() override {
    if (had_user_) {
      setenv("USER", saved_.c_str(), 1);
    } else {
      unsetenv("USER");
    }
  }
  bool had_user_ = false;
  std::string saved_;
};

TEST_F(DefaultLogBaseTest, IsTheUsersLibraryFolder) {
  setenv("USER", "anna", 1);
  EXPECT_EQ("/Users/anna/Library/zel/", DefaultLogBase());
}

TEST_F(DefaultLogBaseTest, WithoutUserItIsTheUsersFolder) {
  unsetenv("USER");
  EXPECT_EQ("/Users/", DefaultLogBase());
}

TEST(LocalToday, IsTodaysLocalDate) {
  for (int attempt = 0; attempt < 2; ++attempt) {  // once more if midnight passed
    const time_t before = std::time(nullptr);
    const int64_t today = LocalToday();
    const time_t after = std::time(nullptr);
    struct tm local_before = {}, local = {};
    localtime_r(&before, &local_before);
    localtime_r(&after, &local);
    if (local_before.tm_mday != local.tm_mday) continue;
    EXPECT_EQ(DaysFromCivil(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday), today);
    return;
  }
}

}  // namespace
}  // namespace zelctl
