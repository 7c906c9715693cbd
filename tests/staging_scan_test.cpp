// Finding dead processes' staging files: by their lock, never through a link.
#include "utils/staging_scan.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "support/files.h"
#include "utils/staging_area.h"

namespace {

using zel::logdetail::StagingArea;
namespace staging = zel::logdetail::staging;

class Scan : public ::testing::Test {
 protected:
  std::unique_ptr<StagingArea> Stage(const std::string& name) {
    auto area = std::make_unique<StagingArea>(dir.path() + name, staging::kProcessLog, "agent",
                                              StagingArea::Sizes{4, 64});
    area->AppendLocked("a\n", 2, false);
    return area;
  }
  // The names of the files visited.
  std::vector<std::string> Visited(bool forWriting) {
    std::vector<std::string> names;
    zel::logdetail::ForEachDeadStaging(
        dir.path(), staging::kProcessLog, forWriting, [&](const zel::logdetail::DeadStaging& dead) {
          EXPECT_EQ(std::vector<std::string>{"a\n"}, dead.contents.lines);
          names.push_back(dead.name);
        });
    return names;
  }
  zeltest::TempDir dir;
};

TEST_F(Scan, VisitsDeadProcessesFilesNotLiveOnesForReadingAndForWriting) {
  Stage("dead.stage");  // let go at once
  const auto live = Stage("live.stage");
  EXPECT_EQ(std::vector<std::string>{"dead.stage"}, Visited(false));
  EXPECT_EQ(std::vector<std::string>{"dead.stage"}, Visited(true));
}

TEST_F(Scan, AReaderKeepsARecoveryOutWhileItLooks) {
  Stage("dead.stage");
  const int reader = open((dir.path() + "dead.stage").c_str(), O_RDONLY);
  ASSERT_GE(reader, 0);
  ASSERT_EQ(0, flock(reader, LOCK_SH));
  EXPECT_EQ(std::vector<std::string>{"dead.stage"}, Visited(false));  // readers share
  EXPECT_TRUE(Visited(true).empty());  // the file looks alive to a recovery
  close(reader);
}

TEST_F(Scan, ALinkNamedLikeAStagingFileIsNotFollowed) {
  zeltest::TempDir elsewhere;
  Stage("dead.stage");
  ASSERT_EQ(0, rename((dir.path() + "dead.stage").c_str(), (elsewhere.path() + "x").c_str()));
  ASSERT_EQ(0, symlink((elsewhere.path() + "x").c_str(), (dir.path() + "link.stage").c_str()));
  EXPECT_TRUE(Visited(true).empty());
}

TEST_F(Scan, AMissingFolderHasNothing) {
  EXPECT_TRUE(Visited(true).empty());
  zel::logdetail::ForEachDeadStaging(dir.path() + "missing/", staging::kProcessLog, true,
                                     [](const zel::logdetail::DeadStaging&) { FAIL(); });
  EXPECT_TRUE(zel::logdetail::DayDirectories(dir.path() + "missing/").empty());
}

TEST(DayDirectories, AreTheEightDigitNamesSorted) {
  zeltest::TempDir base;
  for (const char* name : {"20310101", "20301231", "2030123", "203012310", "2030123x", "zel"}) {
    ASSERT_EQ(0, mkdir((base.path() + name).c_str(), 0755));
  }
  EXPECT_EQ((std::vector<std::string>{"20301231", "20310101"}),
            zel::logdetail::DayDirectories(base.path()));
}

}  // namespace
