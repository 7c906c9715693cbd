// Reading a staging file back: what a dead process staged, and nothing a
// damaged or planted file does not add up to.
#include "utils/staging_format.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "utils/staging_area.h"

namespace {

using zel::logdetail::StagingArea;
namespace staging = zel::logdetail::staging;

// The bytes of a staging file written through the writer's own ring.
class StagingBytes : public ::testing::Test {
 protected:
  void SetUp() override {
    area_ = std::make_unique<StagingArea>(dir_.path() + "f.stage", staging::kNamedLog, "agent",
                                          StagingArea::Sizes{4, 32});
    area_->SetTarget("/logs/x.txt");
  }
  void Append(const std::string& line) { area_->AppendLocked(line.data(), line.size(), false); }
  // The file as the ring left it.
  std::vector<unsigned char> Bytes() {
    const std::string text = zeltest::ReadFile(dir_.path() + "f.stage");
    return std::vector<unsigned char>(text.begin(), text.end());
  }
  template <typename T>
  static void Set(std::vector<unsigned char>& bytes, size_t offset, T value) {
    memcpy(bytes.data() + offset, &value, sizeof(value));
  }
  static bool Parse(const std::vector<unsigned char>& bytes, staging::Contents* out) {
    return staging::Parse(bytes.data(), bytes.size(), out);
  }

  zeltest::TempDir dir_;
  std::unique_ptr<StagingArea> area_;
};

TEST_F(StagingBytes, GiveBackTheUnwrittenLinesTheirProcessAndTarget) {
  Append("one\n");
  Append("two\n");
  staging::Contents contents;
  ASSERT_TRUE(Parse(Bytes(), &contents));
  EXPECT_EQ(staging::kNamedLog, contents.kind);
  EXPECT_EQ(getpid(), contents.pid);
  EXPECT_EQ("agent", contents.process);
  EXPECT_EQ("/logs/x.txt", contents.target);
  EXPECT_EQ((std::vector<std::string>{"one\n", "two\n"}), contents.lines);
  EXPECT_EQ(0u, contents.writingLines);
}

TEST_F(StagingBytes, LinesReleasedAsWrittenAreNotGivenBackAcrossManyWraps) {
  for (int i = 0; i < 100; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    ASSERT_TRUE(area_->HasRoomLocked(line.size()));
    Append(line);
    if (i >= 2) area_->ReleaseLocked(area_->TailLocked() + 1);  // two stay staged
  }
  staging::Contents contents;
  ASSERT_TRUE(Parse(Bytes(), &contents));
  EXPECT_EQ((std::vector<std::string>{"line 98\n", "line 99\n"}), contents.lines);
}

TEST_F(StagingBytes, AnInterruptedWriteSaysHowManyLinesItCoveredAndFromWhichSize) {
  Append("one\n");
  Append("two\n");
  Append("three\n");
  area_->BeginWrite(area_->TailLocked() + 2, 1234);
  staging::Contents contents;
  ASSERT_TRUE(Parse(Bytes(), &contents));
  EXPECT_EQ(2u, contents.writingLines);
  EXPECT_EQ(1234u, contents.writingFromSize);
}

TEST_F(StagingBytes, AFileThatIsNotOneIsRefused) {
  Append("one\n");
  const std::vector<unsigned char> good = Bytes();
  staging::Contents contents;
  std::vector<unsigned char> bytes = good;
  bytes[0] = 'X';
  EXPECT_FALSE(Parse(bytes, &contents)) << "magic";
  bytes = good;
  Set<uint32_t>(bytes, offsetof(staging::Header, version), 2);
  EXPECT_FALSE(Parse(bytes, &contents)) << "version";
  bytes = good;
  bytes.resize(bytes.size() - 1);
  EXPECT_FALSE(Parse(bytes, &contents)) << "short";
  bytes.resize(100);
  EXPECT_FALSE(Parse(bytes, &contents)) << "shorter than the header";
}

TEST_F(StagingBytes, SizesThatDoNotAddUpAreRefused) {
  Append("one\n");
  const std::vector<unsigned char> good = Bytes();
  staging::Contents contents;
  struct Field {
    size_t offset;
    uint64_t value;
    const char* why;
  };
  for (const Field& field : {
           Field{offsetof(staging::Header, slots), 0, "no slots"},
           Field{offsetof(staging::Header, slots), uint64_t{1} << 40, "slots past the file"},
           Field{offsetof(staging::Header, dataBytes), 0, "no data"},
           Field{offsetof(staging::Header, dataBytes), ~uint64_t{0}, "data overflowing"},
           Field{offsetof(staging::Header, tailSeq), 5, "tail past head"},
           Field{offsetof(staging::Header, headSeq), 100, "more records than slots"},
           Field{offsetof(staging::Header, dataTail), 100, "data tail past head"},
           Field{offsetof(staging::Header, dataHead), 1000, "more data than the ring"},
       }) {
    std::vector<unsigned char> bytes = good;
    Set(bytes, field.offset, field.value);
    EXPECT_FALSE(Parse(bytes, &contents)) << field.why;
  }
}

TEST_F(StagingBytes, RecordsThatDoNotAddUpAreSkippedAndTheRestKept) {
  Append("one\n");
  Append("two\n");
  Append("three\n");
  const std::vector<unsigned char> good = Bytes();
  const size_t slot1 = staging::kHeaderBytes + sizeof(staging::Slot);
  staging::Contents contents;
  struct Field {
    size_t offset;
    uint64_t value;
    bool wide;
    const char* why;
  };
  for (const Field& field : {
           Field{slot1 + offsetof(staging::Slot, seq), 7, true, "torn"},
           Field{slot1 + offsetof(staging::Slot, dataPos), 1000, true, "data past the head"},
           Field{slot1 + offsetof(staging::Slot, length), 1000, false, "longer than the ring"},
           Field{slot1 + offsetof(staging::Slot, length), 20, false, "past the head"},
       }) {
    std::vector<unsigned char> bytes = good;
    if (field.wide) {
      Set<uint64_t>(bytes, field.offset, field.value);
    } else {
      Set<uint32_t>(bytes, field.offset, static_cast<uint32_t>(field.value));
    }
    ASSERT_TRUE(Parse(bytes, &contents)) << field.why;
    EXPECT_EQ((std::vector<std::string>{"one\n", "three\n"}), contents.lines) << field.why;
  }
}

TEST_F(StagingBytes, ARecordThatWouldWrapIsSkipped) {
  Append("one\n");
  std::vector<unsigned char> bytes = Bytes();
  // Record 0 claims to start 2 bytes before the ring's end.
  Set<uint64_t>(bytes, offsetof(staging::Header, dataHead), 32 + 30 + 4);
  Set<uint64_t>(bytes, offsetof(staging::Header, dataTail), 32 + 30);
  Set<uint64_t>(bytes, staging::kHeaderBytes + offsetof(staging::Slot, dataPos), 32 + 30);
  staging::Contents contents;
  ASSERT_TRUE(Parse(bytes, &contents));
  EXPECT_TRUE(contents.lines.empty());
}

TEST_F(StagingBytes, TheProcessNameKeepsNoControlCharacter) {
  std::vector<unsigned char> bytes = Bytes();
  const char planted[] = "ev\nil\x1b[2J";
  memcpy(bytes.data() + offsetof(staging::Header, process), planted, sizeof(planted));
  staging::Contents contents;
  ASSERT_TRUE(Parse(bytes, &contents));
  EXPECT_EQ("ev?il?[2J", contents.process);
}

}  // namespace
