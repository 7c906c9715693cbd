// Recovery of what dead processes left staged: in order, exactly once, and
// never outside the log's own folders, whatever the staging file says.
#include "utils/log_recovery.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/child_run.h"
#include "support/log_files.h"
#include "utils/staging_area.h"

namespace {

using zel::logdetail::StagingArea;
namespace staging = zel::logdetail::staging;
using zeltest::ReadFile;

constexpr StagingArea::Sizes kSizes{8, 64};

// Staging files left by "dead" processes: made with the writer's own ring,
// then let go (unmapped and unlocked) without being removed.
class Recovery : public ::testing::Test {
 protected:
  // A dead process's staging file in `folder` whose lines were for `target`.
  std::string LeaveStaged(const std::string& folder, staging::Kind kind, const std::string& target,
                          const std::vector<std::string>& lines) {
    const std::string path = folder + "dead." + std::to_string(made_++) + ".stage";
    StagingArea area(path, kind, "agent", kSizes);
    EXPECT_TRUE(area.FileBacked());
    area.SetTarget(target.c_str());
    for (const std::string& line : lines) area.AppendLocked(line.data(), line.size(), false);
    return path;
  }
  // The report a recovery of `count` lines from this process appends.
  std::string Report(size_t count) const {
    return "zel log: recovered " + std::to_string(count) + " lines that agent (pid " +
           std::to_string(getpid()) + ") had not written when it ended\n";
  }
  // `text` is `lines` and then exactly one report of `count` lines.
  void ExpectLinesThenReport(const std::string& text, const std::string& lines, size_t count) {
    ASSERT_GE(text.size(), lines.size());
    EXPECT_EQ(lines, text.substr(0, lines.size()));
    const std::string report = text.substr(lines.size());
    EXPECT_TRUE(std::regex_match(
        report, std::regex(R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d{3}\]\[tid:\d+\] )" +
                           std::regex_replace(Report(count), std::regex(R"([()])"), R"(\$&)"))))
        << report;
  }
  // Changes a field of a staging file's header, as a corrupt file would have it.
  template <typename T>
  void Poke(const std::string& path, size_t offset, T value) {
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(sizeof(value)), pwrite(fd, &value, sizeof(value), offset));
    close(fd);
  }

  zeltest::TempDir dir;

 private:
  int made_ = 0;
};

TEST_F(Recovery, LinesAreAppendedInOrderToTheTargetThenOneReport) {
  zeltest::WriteFile(dir.path() + "log.txt", "old\n");
  const std::string staged =
      LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt", {"a\n", "b\n", "c\n"});
  zel::logdetail::RecoverNamedLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "log.txt"), "old\na\nb\nc\n", 3);
  EXPECT_FALSE(zeltest::Exists(staged));
}

TEST_F(Recovery, AMissingTargetIsMade) {
  LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt", {"a\n"});
  zel::logdetail::RecoverNamedLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "log.txt"), "a\n", 1);
}

TEST_F(Recovery, ALiveWritersFileIsLeftAlone) {
  StagingArea live(dir.path() + "live.stage", staging::kNamedLog, "agent", kSizes);
  live.SetTarget((dir.path() + "log.txt").c_str());
  live.AppendLocked("a\n", 2, false);
  zel::logdetail::RecoverNamedLog(dir.path());
  EXPECT_FALSE(zeltest::Exists(dir.path() + "log.txt"));
  EXPECT_TRUE(zeltest::Exists(dir.path() + "live.stage"));
}

TEST_F(Recovery, ATornRecordIsSkippedAndNothingElseIsLost) {
  const std::string staged =
      LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt", {"a\n", "b\n", "c\n"});
  // Record 1's slot never got its sequence number: its writer died there.
  Poke<uint64_t>(staged, staging::kHeaderBytes + 1 * sizeof(staging::Slot), 99);
  zel::logdetail::RecoverNamedLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "log.txt"), "a\nc\n", 2);
}

TEST_F(Recovery, AnInterruptedWriteIsCompletedNotRepeated) {
  const std::string staged =
      LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt", {"a1\n", "b2\n", "c3\n"});
  // The write of all three began on a file of 4 bytes and got 4 more out.
  zeltest::WriteFile(dir.path() + "log.txt", "old\na1\nb");
  Poke<uint64_t>(staged, offsetof(staging::Header, writingFromSize), 4);
  Poke<uint64_t>(staged, offsetof(staging::Header, writingEndSeq), 3);
  zel::logdetail::RecoverNamedLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "log.txt"), "old\na1\nb2\nc3\n", 2);
}

TEST_F(Recovery, LinesCutAtTheirFirstNulAsTheWriterWritesThem) {
  LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt",
              {std::string("a\0hidden\n", 9), std::string("\0", 1), "b\n"});
  zel::logdetail::RecoverNamedLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "log.txt"), "ab\n", 2);
}

TEST_F(Recovery, ATargetThatIsALinkIsNotFollowed) {
  zeltest::TempDir elsewhere;
  zeltest::WriteFile(elsewhere.path() + "victim", "untouched");
  ASSERT_EQ(0, symlink((elsewhere.path() + "victim").c_str(), (dir.path() + "log.txt").c_str()));
  const std::string staged =
      LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt", {"a\n"});
  zel::logdetail::RecoverNamedLog(dir.path());
  EXPECT_EQ("untouched", ReadFile(elsewhere.path() + "victim"));
  EXPECT_TRUE(zeltest::Exists(staged));  // left for zelctl to show
}

TEST_F(Recovery, ATargetOutsideTheFolderIsRefused) {
  zeltest::TempDir elsewhere;
  for (const std::string& target :
       {elsewhere.path() + "log.txt", dir.path() + "../log.txt", dir.path() + "sub/log.txt",
        dir.path() + "..", dir.path() + ".", dir.path(), std::string("")}) {
    const std::string staged = LeaveStaged(dir.path(), staging::kNamedLog, target, {"a\n"});
    zel::logdetail::RecoverNamedLog(dir.path());
    EXPECT_TRUE(zeltest::Exists(staged)) << target;
  }
  EXPECT_TRUE(zeltest::FileNames(elsewhere.path()).empty());
  EXPECT_TRUE(zeltest::FileNames(dir.path()).empty());
}

TEST_F(Recovery, ATargetThatIsAFifoAFolderOrHardLinkedIsRefused) {
  ASSERT_EQ(0, mkfifo((dir.path() + "fifo").c_str(), 0644));
  ASSERT_EQ(0, mkdir((dir.path() + "folder").c_str(), 0755));
  zeltest::WriteFile(dir.path() + "linked", "one");
  ASSERT_EQ(0, link((dir.path() + "linked").c_str(), (dir.path() + "second").c_str()));
  for (const char* name : {"fifo", "folder", "linked"}) {
    const std::string staged =
        LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + name, {"a\n"});
    zel::logdetail::RecoverNamedLog(dir.path());
    EXPECT_TRUE(zeltest::Exists(staged)) << name;
  }
  EXPECT_EQ("one", ReadFile(dir.path() + "linked"));
}

TEST_F(Recovery, ATargetOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
  uid_t uid = 0;
  gid_t gid = 0;
  ASSERT_TRUE(zeltest::NobodyIds(&uid, &gid));
  zeltest::WriteFile(dir.path() + "log.txt", "theirs");
  ASSERT_EQ(0, chown((dir.path() + "log.txt").c_str(), uid, gid));
  const std::string staged =
      LeaveStaged(dir.path(), staging::kNamedLog, dir.path() + "log.txt", {"a\n"});
  zel::logdetail::RecoverNamedLog(dir.path());
  EXPECT_EQ("theirs", ReadFile(dir.path() + "log.txt"));
  EXPECT_TRUE(zeltest::Exists(staged));
}

TEST_F(Recovery, NotAStagingFileOrAnotherKindIsLeftAlone) {
  zeltest::WriteFile(dir.path() + "garbage.stage", std::string(10000, 'x'));
  ASSERT_EQ(0, mkfifo((dir.path() + "fifo.stage").c_str(), 0644));
  zeltest::WriteFile(dir.path() + "huge.stage", "");
  ASSERT_EQ(0, truncate((dir.path() + "huge.stage").c_str(), 65 * 1024 * 1024));
  const std::string other =
      LeaveStaged(dir.path(), staging::kProcessLog, dir.path() + "log.txt", {"a\n"});
  zel::logdetail::RecoverNamedLog(dir.path());
  EXPECT_TRUE(zeltest::Exists(dir.path() + "garbage.stage"));
  EXPECT_TRUE(zeltest::Exists(dir.path() + "fifo.stage"));
  EXPECT_TRUE(zeltest::Exists(dir.path() + "huge.stage"));
  EXPECT_TRUE(zeltest::Exists(other));
  EXPECT_FALSE(zeltest::Exists(dir.path() + "log.txt"));
}

TEST_F(Recovery, AStagingFileWithNothingLeftIsRemovedAndNothingWritten) {
  const std::string staged = LeaveStaged(dir.path(), staging::kNamedLog, "", {});
  zel::logdetail::RecoverNamedLog(dir.path());
  EXPECT_FALSE(zeltest::Exists(staged));
  EXPECT_TRUE(zeltest::FileNames(dir.path()).empty());
}

// ---- the process log: staging files and targets in day directories ----

TEST_F(Recovery, ProcessLogLinesGoToTheirFileInADayDirectoryEvenADoubledSlashOne) {
  ASSERT_EQ(0, mkdir((dir.path() + "20301231").c_str(), 0755));
  ASSERT_EQ(0, mkdir((dir.path() + "20310101").c_str(), 0755));
  // Staged in one day, for a file of the next (the process lived past midnight).
  LeaveStaged(dir.path() + "20301231/", staging::kProcessLog,
              dir.path() + "20310101//zel.log.agent-1.000000.txt", {"a\n"});
  zel::logdetail::RecoverProcessLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "20310101/zel.log.agent-1.000000.txt"), "a\n", 1);
  EXPECT_TRUE(zeltest::FileNames(dir.path() + "20301231/").empty());
}

TEST_F(Recovery, ProcessLogTargetInADayDirectoryThatWasRemovedMakesItAgain) {
  ASSERT_EQ(0, mkdir((dir.path() + "20301231").c_str(), 0755));
  LeaveStaged(dir.path() + "20301231/", staging::kProcessLog,
              dir.path() + "20310101/zel.log.agent-1.000000.txt", {"a\n"});
  zel::logdetail::RecoverProcessLog(dir.path());
  ExpectLinesThenReport(ReadFile(dir.path() + "20310101/zel.log.agent-1.000000.txt"), "a\n", 1);
}

TEST_F(Recovery, ProcessLogTargetsThatAreNotLogFilesOfADayDirectoryAreRefused) {
  ASSERT_EQ(0, mkdir((dir.path() + "20301231").c_str(), 0755));
  zeltest::TempDir elsewhere;
  // A day directory that is a link to somewhere else.
  ASSERT_EQ(0, symlink(elsewhere.path().c_str(), (dir.path() + "20310101").c_str()));
  for (const std::string& target :
       {dir.path() + "20310101/zel.log.agent-1.000000.txt", dir.path() + "20301231/other.txt",
        dir.path() + "2030123/zel.log.agent-1.000000.txt", dir.path() + "zel.log.agent-1.txt",
        dir.path() + "2030123x/zel.log.agent-1.000000.txt", dir.path() + "20301231//",
        dir.path() + "2030"}) {
    const std::string staged =
        LeaveStaged(dir.path() + "20301231/", staging::kProcessLog, target, {"a\n"});
    zel::logdetail::RecoverProcessLog(dir.path());
    EXPECT_TRUE(zeltest::Exists(staged)) << target;
  }
  EXPECT_TRUE(zeltest::FileNames(elsewhere.path()).empty());
}

}  // namespace
