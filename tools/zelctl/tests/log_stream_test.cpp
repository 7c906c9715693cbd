// One process's lines through a fixed buffer (log_stream): files in queue
// order, last lines without a newline, empty files, long lines in pieces of
// the buffer's size, bytes passed through, files that cannot be read, and the
// live file of follow mode (held-back half lines, rotation, truncation).
#include "log_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "temp_files.h"

namespace zelctl {
namespace {

using zelctltest::AppendFile;
using zelctltest::TempDir;
using zelctltest::WriteFile;

// The read buffer the tool gives every stream.
constexpr size_t kToolBufferSize = 1 << 16;

// A line or a piece of one as NextLine hands it out: its bytes, and whether
// more of the same line follows.
using Piece = std::pair<std::string, bool>;
Piece Whole(const std::string& text) { return {text, false}; }
Piece Partial(const std::string& text) { return {text, true}; }

class LineStreamTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return temp_.base() + name; }
  // Writes `content` to a file named `name` and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    WriteFile(Path(name), content);
    return Path(name);
  }
  LineStream& Make(size_t buffer_size = kToolBufferSize) {
    stream_ = std::make_unique<LineStream>(
        buffer_size, [this](const std::string& path, const std::string& reason) {
          errors_.push_back(path + ": " + reason);
        });
    return *stream_;
  }
  // Every piece until NextLine answers something else, which goes to `last_`.
  std::vector<Piece> ReadAvailable() {
    std::vector<Piece> pieces;
    LineView line;
    while ((last_ = stream_->NextLine(&line)) == LineStream::Result::kLine) {
      pieces.emplace_back(std::string(line.data, line.size), line.partial);
    }
    return pieces;
  }
  std::vector<Piece> ReadAll() {
    std::vector<Piece> pieces = ReadAvailable();
    EXPECT_EQ(LineStream::Result::kEnd, last_);
    return pieces;
  }

  TempDir temp_;
  std::unique_ptr<LineStream> stream_;
  std::vector<std::string> errors_;
  LineStream::Result last_ = LineStream::Result::kLine;
};

TEST_F(LineStreamTest, LinesComeWithoutNewlinesFileAfterFileInQueueOrder) {
  LineStream& lines = Make();
  // As the tool queues a stream: rotated files oldest first, then the current.
  lines.AddFinalFile(Write("zel.log.a-1.000000.255", "one\ntwo\n"));
  lines.AddFinalFile(Write("zel.log.a-1.000000.0", "three\n"));
  lines.AddFinalFile(Write("zel.log.a-1.000000.txt", "four\n"));
  EXPECT_EQ((std::vector<Piece>{Whole("one"), Whole("two"), Whole("three"), Whole("four")}),
            ReadAll());
  LineView line;
  EXPECT_EQ(LineStream::Result::kEnd, lines.NextLine(&line));  // and stays at the end
  EXPECT_TRUE(errors_.empty());
}

TEST_F(LineStreamTest, ALastLineWithoutNewlineIsALineOfItsOwnFile) {
  LineStream& lines = Make();
  lines.AddFinalFile(Write("a", "one\ntw"));
  lines.AddFinalFile(Write("b", "o\n"));
  EXPECT_EQ((std::vector<Piece>{Whole("one"), Whole("tw"), Whole("o")}), ReadAll());
}

TEST_F(LineStreamTest, EmptyFilesGiveNoLines) {
  LineStream& lines = Make();
  lines.AddFinalFile(Write("a", ""));
  lines.AddFinalFile(Write("b", "x\n"));
  lines.AddFinalFile(Write("c", ""));
  EXPECT_EQ(std::vector<Piece>{Whole("x")}, ReadAll());
  Make().AddFinalFile(Write("d", ""));
  EXPECT_TRUE(ReadAll().empty());
  Make();
  EXPECT_TRUE(ReadAll().empty());  // nothing queued at all
}

TEST_F(LineStreamTest, EmptyLinesAndCarriageReturnsAreKept) {
  Make().AddFinalFile(Write("a", "\n\nx\r\n\r\n"));
  EXPECT_EQ((std::vector<Piece>{Whole(""), Whole(""), Whole("x\r"), Whole("\r")}), ReadAll());
}

TEST_F(LineStreamTest, EveryByteButTheNewlinePassesThroughUnchanged) {
  std::string binary;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') binary.push_back(static_cast<char>(byte));
  }
  Make().AddFinalFile(Write("a", binary + "\n" + binary));
  EXPECT_EQ((std::vector<Piece>{Whole(binary), Whole(binary)}), ReadAll());
}

TEST_F(LineStreamTest, LinesThatStraddleTwoReadsComeWhole) {
  // With 8 bytes of buffer "defgh" arrives as "defg" and "h\n".
  Make(8).AddFinalFile(Write("a", "abc\ndefgh\nij\n"));
  EXPECT_EQ((std::vector<Piece>{Whole("abc"), Whole("defgh"), Whole("ij")}), ReadAll());
}

TEST_F(LineStreamTest, ALineLongerThanTheBufferComesInPiecesOfTheBuffersSize) {
  Make(8).AddFinalFile(Write("a", "abcdefghijklmnopqrs\nz\n"));
  EXPECT_EQ(
      (std::vector<Piece>{Partial("abcdefgh"), Partial("ijklmnop"), Whole("qrs"), Whole("z")}),
      ReadAll());
}

TEST_F(LineStreamTest, WithTheToolsBufferALongLineComesIn64KiBPieces) {
  std::string long_line;
  for (size_t i = 0; i < 200000; ++i) long_line.push_back(static_cast<char>('a' + i % 26));
  Make().AddFinalFile(Write("a", long_line + "\nnext\n"));
  const std::vector<Piece> pieces = ReadAll();
  ASSERT_EQ(5u, pieces.size());
  std::string joined;
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(kToolBufferSize, pieces[i].first.size()) << i;
    EXPECT_TRUE(pieces[i].second) << i;
    joined += pieces[i].first;
  }
  EXPECT_EQ(200000 - 3 * kToolBufferSize, pieces[3].first.size());
  EXPECT_FALSE(pieces[3].second);
  joined += pieces[3].first;
  EXPECT_EQ(long_line, joined);
  EXPECT_EQ(Whole("next"), pieces[4]);
}

TEST_F(LineStreamTest, ALineOfExactlyTheBuffersSizeEndsWithAnEmptyLastPiece) {
  Make(8).AddFinalFile(Write("a", "abcdefgh\nx\n"));
  EXPECT_EQ((std::vector<Piece>{Partial("abcdefgh"), Whole(""), Whole("x")}), ReadAll());
}

TEST_F(LineStreamTest, ALongLastLineWithoutNewlineEndsWithAWholePiece) {
  Make(8).AddFinalFile(Write("a", "abcdefghij"));
  EXPECT_EQ((std::vector<Piece>{Partial("abcdefgh"), Whole("ij")}), ReadAll());
  Make(8).AddFinalFile(Write("b", "abcdefgh"));
  EXPECT_EQ((std::vector<Piece>{Partial("abcdefgh"), Whole("")}), ReadAll());
}

TEST_F(LineStreamTest, ALongLineDoesNotRunIntoTheNextFile) {
  LineStream& lines = Make(8);
  lines.AddFinalFile(Write("a", "abcdefghij"));
  lines.AddFinalFile(Write("b", "next\n"));
  EXPECT_EQ((std::vector<Piece>{Partial("abcdefgh"), Whole("ij"), Whole("next")}), ReadAll());
}

TEST_F(LineStreamTest, AFileThatIsGoneIsSkippedWithoutAComplaint) {
  LineStream& lines = Make();
  lines.AddFinalFile(Path("rotated-away"));
  lines.AddFinalFile(Write("b", "still here\n"));
  EXPECT_EQ(std::vector<Piece>{Whole("still here")}, ReadAll());
  EXPECT_TRUE(errors_.empty());
}

TEST_F(LineStreamTest, AFolderIsReportedAndSkipped) {
  const std::string folder = Path("zel.log.a-1.000000.txt");
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  LineStream& lines = Make();
  lines.AddFinalFile(folder);
  lines.AddFinalFile(Write("b", "after\n"));
  EXPECT_EQ(std::vector<Piece>{Whole("after")}, ReadAll());
  EXPECT_EQ(std::vector<std::string>{folder + ": Is a directory"}, errors_);
}

TEST_F(LineStreamTest, AFifoIsReportedWithoutWaitingForAWriter) {
  const std::string fifo = Path("zel.log.a-1.000000.0");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  LineStream& lines = Make();
  lines.AddFinalFile(fifo);
  lines.AddFinalFile(Write("b", "after\n"));
  alarm(20);  // a blocking open would wait for ever: end the test instead
  EXPECT_EQ(std::vector<Piece>{Whole("after")}, ReadAll());
  alarm(0);
  EXPECT_EQ(std::vector<std::string>{fifo + ": not a regular file"}, errors_);
}

TEST_F(LineStreamTest, ALiveFileHoldsBackAHalfWrittenLineUntilItsNewline) {
  const std::string current = Write("current", "one\ntw");
  LineStream& lines = Make();
  ASSERT_TRUE(lines.AddLiveFile(current));
  EXPECT_TRUE(lines.has_live_file());
  EXPECT_EQ(std::vector<Piece>{Whole("one")}, ReadAvailable());
  EXPECT_EQ(LineStream::Result::kNoMoreNow, last_);
  EXPECT_TRUE(ReadAvailable().empty());
  EXPECT_EQ(LineStream::Result::kNoMoreNow, last_);
  AppendFile(current, "o\nthr");
  EXPECT_EQ(std::vector<Piece>{Whole("two")}, ReadAvailable());
  EXPECT_EQ(LineStream::Result::kNoMoreNow, last_);
}

TEST_F(LineStreamTest, ALiveFileMarkedFinalGivesItsLastLineAndEnds) {
  const std::string current = Write("current", "one\ntw");
  LineStream& lines = Make();
  ASSERT_TRUE(lines.AddLiveFile(current));
  EXPECT_EQ(std::vector<Piece>{Whole("one")}, ReadAvailable());
  lines.MarkLiveFileFinal();
  EXPECT_FALSE(lines.has_live_file());
  EXPECT_EQ(std::vector<Piece>{Whole("tw")}, ReadAll());
}

TEST_F(LineStreamTest, RotatedFilesQueuedBehindTheLiveFileComeAfterIt) {
  // Follow mode after a rotation: the old live file to its end, then what
  // was rotated after it, then the new current file, live again.
  const std::string current = Write("zel.log.a-1.000000.txt", "old current\n");
  LineStream& lines = Make();
  ASSERT_TRUE(lines.AddLiveFile(current));
  EXPECT_EQ(std::vector<Piece>{Whole("old current")}, ReadAvailable());
  ASSERT_EQ(0, std::rename(current.c_str(), Path("zel.log.a-1.000000.0").c_str()));
  AppendFile(Path("zel.log.a-1.000000.0"), "last before rotation\n");
  lines.MarkLiveFileFinal();
  lines.AddFinalFile(Write("zel.log.a-1.000000.1", "rotated next\n"));
  ASSERT_TRUE(lines.AddLiveFile(Write("zel.log.a-1.000000.txt", "new current\n")));
  EXPECT_EQ((std::vector<Piece>{Whole("last before rotation"), Whole("rotated next"),
                                Whole("new current")}),
            ReadAvailable());
  EXPECT_EQ(LineStream::Result::kNoMoreNow, last_);
}

TEST_F(LineStreamTest, TheLiveFilesIdentityStaysThatOfTheFileOpened) {
  const std::string current = Write("current", "one\n");
  struct stat info = {};
  ASSERT_EQ(0, stat(current.c_str(), &info));
  LineStream& lines = Make();
  EXPECT_EQ(0u, lines.live_inode());
  ASSERT_TRUE(lines.AddLiveFile(current));
  // Renamed away and replaced before the first read, then after it.
  ASSERT_EQ(0, std::rename(current.c_str(), Path("rotated").c_str()));
  Write("current", "other\n");
  EXPECT_EQ(info.st_ino, lines.live_inode());
  EXPECT_EQ(info.st_dev, lines.live_device());
  EXPECT_EQ(std::vector<Piece>{Whole("one")}, ReadAvailable());
  EXPECT_EQ(info.st_ino, lines.live_inode());
  EXPECT_EQ(info.st_dev, lines.live_device());
  lines.MarkLiveFileFinal();
  EXPECT_EQ(0u, lines.live_inode());
}

TEST_F(LineStreamTest, AddingALiveFileThatCannotBeOpenedFails) {
  LineStream& lines = Make();
  EXPECT_FALSE(lines.AddLiveFile(Path("missing")));
  EXPECT_FALSE(lines.has_live_file());
  EXPECT_TRUE(errors_.empty());  // gone: nothing to report
  const std::string folder = Path("folder");
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  EXPECT_FALSE(lines.AddLiveFile(folder));
  EXPECT_EQ(std::vector<std::string>{folder + ": Is a directory"}, errors_);
}

TEST_F(LineStreamTest, ACutLiveFileIsReadAgainFromItsStartOnlyWhenAsked) {
  const std::string current = Write("current", "first content\n");
  LineStream& lines = Make();
  ASSERT_TRUE(lines.AddLiveFile(current));
  EXPECT_EQ(std::vector<Piece>{Whole("first content")}, ReadAvailable());
  WriteFile(current, "anew\n");  // shorter than what was read
  EXPECT_TRUE(ReadAvailable().empty());
  EXPECT_EQ(LineStream::Result::kNoMoreNow, last_);
  lines.RestartIfTruncated();
  EXPECT_EQ(std::vector<Piece>{Whole("anew")}, ReadAvailable());
  lines.RestartIfTruncated();  // not shorter now: nothing read twice
  EXPECT_TRUE(ReadAvailable().empty());
}

}  // namespace
}  // namespace zelctl
