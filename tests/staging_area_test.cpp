// The ring a writer stages lines in: room, wrap-around, release, and the
// file it lives in.
#include "utils/staging_area.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include "support/log_files.h"

namespace {

using zel::logdetail::StagingArea;
namespace staging = zel::logdetail::staging;

class Ring : public ::testing::Test {
 protected:
  zeltest::TempDir dir;  // first: the ring lives in it
  // 4 records, 16 bytes of text.
  StagingArea area{dir.path() + "ring.stage", staging::kNamedLog, "agent", {4, 16}};
  void Append(const std::string& text, bool toBackends = false) {
    ASSERT_TRUE(area.HasRoomLocked(text.size())) << text;
    area.AppendLocked(text.data(), text.size(), toBackends);
  }
  std::string TextAt(uint64_t seq) const {
    const StagingArea::Record record = area.At(seq);
    return std::string(record.text, record.length);
  }
};

TEST_F(Ring, RecordsComeBackInOrderWithTheirSinkFlag) {
  Append("ab");
  Append("cde", true);
  EXPECT_EQ(0u, area.TailLocked());
  EXPECT_EQ(2u, area.HeadLocked());
  EXPECT_EQ("ab", TextAt(0));
  EXPECT_EQ("cde", TextAt(1));
  EXPECT_FALSE(area.At(0).toBackends);
  EXPECT_TRUE(area.At(1).toBackends);
}

TEST_F(Ring, IsFullBySlotsOrByTextAndHasRoomOnceReleased) {
  Append("a");
  Append("b");
  Append("c");
  Append("d");
  EXPECT_FALSE(area.HasRoomLocked(1)) << "every slot taken";
  area.ReleaseLocked(4);
  Append("0123456789");  // bytes 4-13 in use
  EXPECT_FALSE(area.HasRoomLocked(5)) << "wrapped to the start, it would reach byte 4";
  EXPECT_TRUE(area.HasRoomLocked(4));
}

TEST_F(Ring, ARecordThatWouldWrapStartsAtTheRingsBeginning) {
  Append("0123456789");  // 10 of 16
  area.ReleaseLocked(1);
  Append("abcdefgh");  // 8 do not fit before the end: they start at 0
  EXPECT_EQ("abcdefgh", TextAt(1));
  EXPECT_EQ(area.At(0).text, area.At(1).text);  // both at the ring's first byte
  EXPECT_FALSE(area.HasRoomLocked(9));
}

TEST_F(Ring, FitsOnlyLinesNoLongerThanTheWholeRing) {
  EXPECT_TRUE(area.Fits(16));
  EXPECT_FALSE(area.Fits(17));
}

TEST_F(Ring, LivesInALockedFileUntilRemoved) {
  EXPECT_TRUE(area.FileBacked());
  EXPECT_EQ(dir.path() + "ring.stage", area.Path());
  const int other = open(area.Path().c_str(), O_RDONLY);
  ASSERT_GE(other, 0);
  EXPECT_NE(0, flock(other, LOCK_SH | LOCK_NB)) << "the writer holds its lock";
  close(other);
  EXPECT_FALSE(zeltest::Exists(dir.path() + "ring.stage.new"));
  area.RemoveFile();
  EXPECT_FALSE(zeltest::Exists(area.Path()));
}

TEST(StagingArea, WithoutAFileItStagesInMemory) {
  zeltest::TempDir dir;
  for (const std::string& path : {std::string(), dir.path() + "missing/ring.stage"}) {
    StagingArea area(path, staging::kNamedLog, "agent", {4, 16});
    EXPECT_FALSE(area.FileBacked());
    EXPECT_EQ("", area.Path());
    area.AppendLocked("ab", 2, false);
    EXPECT_EQ(1u, area.HeadLocked());
    area.RemoveFile();  // nothing to remove
  }
  EXPECT_TRUE(zeltest::FileNames(dir.path()).empty());
}

TEST(StagingArea, AnExistingFileIsNeverTakenOver) {
  zeltest::TempDir dir;
  zeltest::WriteFile(dir.path() + "ring.stage.new", "someone's");
  StagingArea area(dir.path() + "ring.stage", staging::kNamedLog, "agent", {4, 16});
  EXPECT_FALSE(area.FileBacked());
  EXPECT_EQ("someone's", zeltest::ReadFile(dir.path() + "ring.stage.new"));
}

}  // namespace
