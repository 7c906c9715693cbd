// The file a log writer appends to: when it must be moved aside, how it is
// renamed and cleaned up after, how names longer than a path buffer are cut,
// and the folders made for it.
#include "utils/rotating_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "support/child_run.h"
#include "support/files.h"
#include "support/log_files.h"

namespace {

using zel::logdetail::FileNaming;
using zel::logdetail::RotatingFile;
using zeltest::Exists;
using zeltest::kCutReport;
using zeltest::ReadFile;
using zeltest::WriteFile;
namespace fs = std::filesystem;

// Appends `text` at the end of `path` through a descriptor of its own, as
// another process would.
void AppendElsewhere(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
  close(fd);
}

// A writer's file in a scratch folder, named "<dir>app.120000.txt" and
// rotated to "<dir>app.120000.<n>".
class RotatingFileTest : public ::testing::Test {
 protected:
  void TearDown() override { file.Close(); }

  // Names the current file and opens it.
  void OpenCurrent() {
    file.NameCurrent(naming);
    ASSERT_NE(nullptr, file.Open()) << file.path;
  }
  // Appends `text` as the writer does (through the descriptor) and counts it.
  void Append(const std::string& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fileno(file.fp), text.data(), text.size()));
    file.Advance(text.size());
  }
  // The current file with a line in it, then removed from under the writer.
  void WrittenThenRemoved() {
    OpenCurrent();
    Append("line\n");
    ASSERT_EQ(0, unlink(Current().c_str()));
  }
  // MustRotate's answer for `maxSize`; `position` gets what it reported
  // (-2 when it reported nothing).
  bool MustRotate(int32_t maxSize, long* position) {
    *position = -2;
    return file.MustRotate(maxSize, position);
  }
  bool MustRotate(int32_t maxSize) {
    long position = 0;
    return MustRotate(maxSize, &position);
  }
  std::string Current() const { return dir + "app.120000.txt"; }
  std::string Rotation(int n) const { return dir + "app.120000." + std::to_string(n); }

  zeltest::TempDir scratch;
  const std::string dir = scratch.path();
  const std::string tag = "120000";
  FileNaming naming{dir, dir.size(), "app", tag};
  RotatingFile file;
};

// ---- MustRotate: size ----

TEST_F(RotatingFileTest, AFreshFileIsKeptAndStandsAtZero) {
  OpenCurrent();
  long position = 0;
  EXPECT_FALSE(MustRotate(10, &position));
  EXPECT_EQ(0, position);
}

TEST_F(RotatingFileTest, AFileAtTheLimitIsKeptOneByteMoreRotates) {
  OpenCurrent();
  Append("0123456789");
  long position = 0;
  EXPECT_FALSE(MustRotate(10, &position));
  EXPECT_EQ(10, position);
  Append("x");
  EXPECT_TRUE(MustRotate(10, &position));
  EXPECT_EQ(11, position);
}

TEST_F(RotatingFileTest, APositionPastTwoGibibytesReadsAsANegative32BitIntAsItAlwaysDid) {
  OpenCurrent();
  // Only the descriptor moves: the file stays empty.
  ASSERT_EQ(3000000000L, lseek(fileno(file.fp), 3000000000L, SEEK_SET));
  file.LostTrack();
  long position = 0;
  EXPECT_FALSE(MustRotate(5242880, &position));
  EXPECT_EQ(3000000000L, position);
}

// ---- MustRotate: what the path names ----

TEST_F(RotatingFileTest, AVanishedPathRotates) {
  WrittenThenRemoved();
  EXPECT_TRUE(MustRotate(1000));
}

TEST_F(RotatingFileTest, AFolderUnderTheNameRotates) {
  WrittenThenRemoved();
  ASSERT_EQ(0, mkdir(Current().c_str(), 0755));
  EXPECT_TRUE(MustRotate(1000));
}

TEST_F(RotatingFileTest, AFifoUnderTheNameRotatesWithoutBeingOpened) {
  WrittenThenRemoved();
  ASSERT_EQ(0, mkfifo(Current().c_str(), 0644));
  EXPECT_TRUE(MustRotate(1000));  // opening it would wait for a writer
}

TEST_F(RotatingFileTest, ALinkToTheFileUnderTheNameIsFollowed) {
  OpenCurrent();
  Append("line\n");
  ASSERT_EQ(0, rename(Current().c_str(), (dir + "real").c_str()));
  ASSERT_EQ(0, symlink((dir + "real").c_str(), Current().c_str()));
  long position = 0;
  EXPECT_FALSE(MustRotate(1000, &position));
  EXPECT_EQ(5, position);
  EXPECT_EQ(5, file.KnownSize());
}

TEST_F(RotatingFileTest, BytesAppendedByAnotherWriterCountFromTheWritersNextLine) {
  OpenCurrent();
  Append("one\n");
  AppendElsewhere(Current(), std::string(20, 'x'));
  long position = 0;
  // Until its next write the stream stands where it stopped...
  EXPECT_FALSE(MustRotate(10, &position));
  EXPECT_EQ(4, position);
  EXPECT_EQ(24, file.KnownSize());
  // ...which then lands after the other writer's bytes.
  Append("two\n");
  EXPECT_TRUE(MustRotate(10, &position));
  EXPECT_EQ(28, position);
  EXPECT_EQ("one\n" + std::string(20, 'x') + "two\n", ReadFile(Current()));
}

TEST_F(RotatingFileTest, AFileCutByAnotherWriterRotatesAtTheStreamsPosition) {
  OpenCurrent();
  Append(std::string(20, 'a'));
  ASSERT_EQ(0, truncate(Current().c_str(), 0));
  long position = 0;
  EXPECT_TRUE(MustRotate(10, &position));
  EXPECT_EQ(20, position);
  EXPECT_EQ(0, file.KnownSize());  // the same file: its size is known again
}

TEST_F(RotatingFileTest, AFileMovedInUnderTheNameGoesByTheDescriptorAndItsSizeIsUnknown) {
  OpenCurrent();
  Append("12345");
  WriteFile(dir + "other", "abc");
  ASSERT_EQ(0, rename((dir + "other").c_str(), Current().c_str()));
  long position = 0;
  EXPECT_FALSE(MustRotate(10, &position));
  EXPECT_EQ(5, position);
  EXPECT_EQ(-1, file.KnownSize());
  Append("678901");
  EXPECT_TRUE(MustRotate(10, &position));
  EXPECT_EQ(11, position);
}

// ---- Advance, LostTrack, Open ----

TEST_F(RotatingFileTest, AdvanceCountsWhatTheWriterAppends) {
  OpenCurrent();
  EXPECT_EQ(0, file.KnownSize());
  file.Advance(5);
  file.Advance(7);
  EXPECT_EQ(12, file.KnownSize());
}

TEST_F(RotatingFileTest, OpenAppendsToAnExistingFileAndKnowsItsSize) {
  WriteFile(Current(), "seven!\n");
  OpenCurrent();
  EXPECT_EQ(7, file.KnownSize());
  long position = 0;
  EXPECT_TRUE(MustRotate(6, &position));
  EXPECT_EQ(7, position);
  Append("more\n");
  EXPECT_EQ("seven!\nmore\n", ReadFile(Current()));
}

TEST_F(RotatingFileTest, AfterLostTrackTheSizeIsUnknownUntilTheNextCheckAsksTheDescriptor) {
  OpenCurrent();
  Append("1234");
  file.LostTrack();
  EXPECT_EQ(-1, file.KnownSize());
  file.Advance(3);  // not counted onto an unknown size
  EXPECT_EQ(-1, file.KnownSize());
  long position = 0;
  EXPECT_FALSE(MustRotate(100, &position));
  EXPECT_EQ(4, position);
  EXPECT_EQ(4, file.KnownSize());
}

TEST_F(RotatingFileTest, AFailedOpenGivesNullAndAnUnknownSize) {
  const std::string missing = dir + "missing/";
  const FileNaming elsewhere{missing, missing.size(), "app", tag};
  file.NameCurrent(elsewhere);
  EXPECT_EQ(nullptr, file.Open());
  EXPECT_EQ(-1, file.KnownSize());
}

// ---- RotateOut ----

TEST_F(RotatingFileTest, RotateOutClosesAndRenamesToTheNextNumberInTurn) {
  OpenCurrent();
  Append("one\n");
  char rotated[zel::logdetail::kPathSize] = {};
  file.RotateOut(naming, 328, rotated);
  EXPECT_EQ(nullptr, file.fp);
  EXPECT_EQ(Rotation(0), std::string(rotated));
  EXPECT_EQ(1, file.index);
  EXPECT_EQ("one\n", ReadFile(Rotation(0)));
  EXPECT_FALSE(Exists(Current()));

  OpenCurrent();
  Append("two\n");
  file.RotateOut(naming, 328, rotated);
  EXPECT_EQ(Rotation(1), std::string(rotated));
  EXPECT_EQ(2, file.index);
  EXPECT_EQ("two\n", ReadFile(Rotation(1)));
}

TEST_F(RotatingFileTest, RotationNumbersWrapAfter255) {
  OpenCurrent();
  file.index = 255;
  char rotated[zel::logdetail::kPathSize] = {};
  file.RotateOut(naming, 328, rotated);
  EXPECT_EQ(Rotation(255), std::string(rotated));
  EXPECT_EQ(0, file.index);
  EXPECT_TRUE(fs::is_regular_file(Rotation(255)));
}

TEST_F(RotatingFileTest, AFailedRenamePrintsGetFileWithTheCallersLineAndStillCounts) {
  OpenCurrent();
  ASSERT_EQ(0, unlink(Current().c_str()));
  char rotated[zel::logdetail::kPathSize] = {};
  testing::internal::CaptureStdout();
  file.RotateOut(naming, 556, rotated);
  EXPECT_EQ("getFile 556,rename error\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(1, file.index);
  EXPECT_EQ(Rotation(0), std::string(rotated));
}

// ---- RemoveExpired ----

TEST_F(RotatingFileTest, RemoveExpiredDeletesOnlyTheRotationThatLeftTheWindow) {
  for (int n = 0; n <= 10; ++n) WriteFile(Rotation(n), "r");
  file.RemoveExpired(naming, 10, 10);
  EXPECT_FALSE(Exists(Rotation(0)));
  for (int n = 1; n <= 10; ++n) EXPECT_TRUE(Exists(Rotation(n))) << n;
  file.RemoveExpired(naming, 11, 10);
  EXPECT_FALSE(Exists(Rotation(1)));
  EXPECT_TRUE(Exists(Rotation(2)));
}

TEST_F(RotatingFileTest, TheWindowWrapsAt256) {
  WriteFile(Rotation(249), "r");
  WriteFile(Rotation(250), "r");
  file.RemoveExpired(naming, 3, 10);  // 3 - 10 is 249 in eight bits
  EXPECT_FALSE(Exists(Rotation(249)));
  EXPECT_TRUE(Exists(Rotation(250)));
}

TEST_F(RotatingFileTest, AFolderOrAMissingRotationIsLeftAloneWithoutAWord) {
  ASSERT_EQ(0, mkdir(Rotation(0).c_str(), 0755));
  testing::internal::CaptureStdout();
  file.RemoveExpired(naming, 10, 10);  // rotation 0: a folder
  file.RemoveExpired(naming, 11, 10);  // rotation 1: nothing there
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(fs::is_directory(Rotation(0)));
}

TEST(RotatingFile, ARefusedDeletionPrintsDeleteFileFailed) {
  // In /tmp itself, where an ordinary user's child can reach it.
  zeltest::TempDir scratch("zel_rotating", "/tmp");
  const std::string locked = scratch.path() + "locked/";
  ASSERT_EQ(0, mkdir(locked.c_str(), 0755));
  WriteFile(locked + "app.120000.0", "r");
  ASSERT_EQ(0, chmod(locked.c_str(), 0555));  // nobody may remove what is in it
  ASSERT_EQ(0, chmod(scratch.path().c_str(), 0755));
  const zeltest::ChildResult child = zeltest::RunAsOrdinaryUser([&locked] {
    const std::string tag = "120000";
    RotatingFile file;
    testing::internal::CaptureStdout();
    file.RemoveExpired({locked, locked.size(), "app", tag}, 10, 10);
    return testing::internal::GetCapturedStdout();
  });
  ASSERT_EQ(0, chmod(locked.c_str(), 0755));
  EXPECT_TRUE(child.ExitedWith(0)) << child.status;
  EXPECT_EQ("delete file: " + locked + "app.120000.0 failed\n", child.output);
  EXPECT_TRUE(Exists(locked + "app.120000.0"));
}

// ---- names cut to 255 characters ----

// A folder of `length` characters (the last a "/") inside the scratch folder.
class LongNames : public RotatingFileTest {
 protected:
  void UseFolderOf(size_t length) {
    longDir = zeltest::PathOfLength(dir, length);
    ASSERT_EQ(0, mkdir(longDir.c_str(), 0755));
  }
  FileNaming LongNaming() const { return {longDir, longDir.size(), "app", tag}; }
  // In a folder of 250 characters, opens the current file, whose name (and
  // every rotation's) is cut to "<folder>app.1"; the cut's report is swallowed.
  void OpenCutFile() {
    UseFolderOf(250);
    testing::internal::CaptureStdout();
    file.NameCurrent(LongNaming());
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(longDir + "app.1", std::string(file.path));
    ASSERT_NE(nullptr, file.Open());
  }

  std::string longDir;
};

TEST_F(LongNames, ANameCutTo255CharactersIsReportedOnceByEachFile) {
  UseFolderOf(250);
  const std::string cut = longDir + "app.1";  // "app.120000.txt" cut to 255
  testing::internal::CaptureStdout();
  file.NameCurrent(LongNaming());
  file.NameCurrent(LongNaming());
  file.RemoveExpired(LongNaming(), 10, 10);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::string(kCutReport) + cut + "]\n", out);
  EXPECT_EQ(cut, std::string(file.path));
  EXPECT_EQ(255u, std::string(file.path).size());
  // Another writer's file says so again, once.
  RotatingFile other;
  testing::internal::CaptureStdout();
  other.NameCurrent(LongNaming());
  other.NameCurrent(LongNaming());
  EXPECT_EQ(std::string(kCutReport) + cut + "]\n", testing::internal::GetCapturedStdout());
}

TEST_F(LongNames, ANameOfExactly255CharactersIsNeitherCutNorReported) {
  UseFolderOf(255 - 14);  // "app.120000.txt" is 14 characters
  testing::internal::CaptureStdout();
  file.NameCurrent(LongNaming());
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ(longDir + "app.120000.txt", std::string(file.path));
}

TEST_F(LongNames, NamesCutAlikeAreNotRenamedOntoThemselves) {
  OpenCutFile();
  Append("kept\n");
  char rotated[zel::logdetail::kPathSize] = {};
  testing::internal::CaptureStdout();
  file.RotateOut(LongNaming(), 328, rotated);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::string(file.path), std::string(rotated));  // the same cut name
  EXPECT_EQ(std::string::npos, out.find("rename error")) << out;
  EXPECT_EQ("kept\n", ReadFile(file.path));
  EXPECT_EQ(1, file.index);
}

TEST_F(LongNames, NamesCutAlikeWithNothingThereFailAsARenameWould) {
  OpenCutFile();
  ASSERT_EQ(0, unlink(file.path));
  char rotated[zel::logdetail::kPathSize] = {};
  testing::internal::CaptureStdout();
  file.RotateOut(LongNaming(), 328, rotated);
  EXPECT_EQ("getFile 328,rename error\n", testing::internal::GetCapturedStdout());
}

TEST_F(LongNames, RemoveExpiredNeverDeletesTheFileBeingWritten) {
  OpenCutFile();
  Append("kept\n");
  file.RemoveExpired(LongNaming(), 10, 10);  // rotation 0 cuts to the current name
  EXPECT_EQ("kept\n", ReadFile(file.path));
}

// ---- CurrentFileName ----

TEST_F(RotatingFileTest, CurrentFileNameIsTheNameNameCurrentGives) {
  EXPECT_EQ(Current(), zel::logdetail::CurrentFileName(naming));
  file.NameCurrent(naming);
  EXPECT_EQ(zel::logdetail::CurrentFileName(naming), std::string(file.path));
}

TEST_F(LongNames, CurrentFileNameCutsTo255CharactersWithoutReportingIt) {
  UseFolderOf(250);
  testing::internal::CaptureStdout();
  const std::string name = zel::logdetail::CurrentFileName(LongNaming());
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ(longDir + "app.1", name);
  // The cut was not reported: the writer's file still reports its own.
  testing::internal::CaptureStdout();
  file.NameCurrent(LongNaming());
  EXPECT_EQ(std::string(kCutReport) + name + "]\n", testing::internal::GetCapturedStdout());
}

TEST(CurrentFileName, OnlyTheCapturedLengthOfTheFolderIsUsed) {
  const std::string folder = "/a/bb/";
  const std::string tag = "235959";
  EXPECT_EQ("/a/x.235959.txt", zel::logdetail::CurrentFileName({folder, 3, "x", tag}));
}

TEST(CurrentFileName, ACapturedLengthPastTheFolderCutsTheNameOffAtItsEnd) {
  const std::string folder = "/x/";
  const std::string tag = "235959";
  EXPECT_EQ("/x/", zel::logdetail::CurrentFileName({folder, 10, "x", tag}));
}

// ---- MakeDirectoryChain ----

class DirectoryChain : public ::testing::Test {
 protected:
  void SetUp() override { savedMask_ = umask(022); }
  void TearDown() override { umask(savedMask_); }
  static bool IsFolderOfMode755(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 07777) == 0755;
  }

  zeltest::TempDir scratch;
  const std::string dir = scratch.path();

 private:
  mode_t savedMask_ = 0;
};

TEST_F(DirectoryChain, MakesEveryMissingFolderAlongThePath) {
  testing::internal::CaptureStdout();
  zel::logdetail::MakeDirectoryChain(dir + "a/b/c/");
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(IsFolderOfMode755(dir + "a"));
  EXPECT_TRUE(IsFolderOfMode755(dir + "a/b"));
  EXPECT_TRUE(IsFolderOfMode755(dir + "a/b/c"));
}

TEST_F(DirectoryChain, MakesTheLastFolderWithoutATrailingSlashToo) {
  zel::logdetail::MakeDirectoryChain(dir + "a/b");
  EXPECT_TRUE(IsFolderOfMode755(dir + "a/b"));
}

TEST_F(DirectoryChain, LeavesAnExistingFolderAsItIs) {
  ASSERT_EQ(0, mkdir((dir + "kept").c_str(), 0700));
  WriteFile(dir + "kept/file", "x");
  testing::internal::CaptureStdout();
  zel::logdetail::MakeDirectoryChain(dir + "kept/");
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  struct stat st;
  ASSERT_EQ(0, stat((dir + "kept").c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 07777);
  EXPECT_EQ("x", ReadFile(dir + "kept/file"));
}

TEST_F(DirectoryChain, StopsAtTheFirstFailureAndSaysWhere) {
  WriteFile(dir + "blocker", "x");
  testing::internal::CaptureStdout();
  zel::logdetail::MakeDirectoryChain(dir + "blocker/x/y/");
  EXPECT_EQ("mkdir error,[" + dir + "blocker]\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ("x", ReadFile(dir + "blocker"));
}

TEST_F(DirectoryChain, AFolderOf255CharactersIsMadeWithOrWithoutItsSlash) {
  const std::string withSlash = zeltest::PathOfLength(dir + "s/", 255);
  zel::logdetail::MakeDirectoryChain(withSlash);
  EXPECT_TRUE(IsFolderOfMode755(withSlash));
  std::string withoutSlash = zeltest::PathOfLength(dir + "n/", 256);
  withoutSlash.pop_back();
  ASSERT_EQ(255u, withoutSlash.size());
  zel::logdetail::MakeDirectoryChain(withoutSlash);
  EXPECT_TRUE(IsFolderOfMode755(withoutSlash));
}

TEST_F(DirectoryChain, APathOver255CharactersIsLeftAloneWithoutAWord) {
  const std::string tooLong = zeltest::PathOfLength(dir + "t/", 256);
  testing::internal::CaptureStdout();
  zel::logdetail::MakeDirectoryChain(tooLong);
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_FALSE(Exists(dir + "t"));
}

TEST_F(DirectoryChain, BackslashesSeparateFoldersToo) {
  zel::logdetail::MakeDirectoryChain(dir + "win\\sub/leaf");
  EXPECT_TRUE(IsFolderOfMode755(dir + "win"));
  EXPECT_TRUE(IsFolderOfMode755(dir + "win\\sub"));
  EXPECT_TRUE(IsFolderOfMode755(dir + "win\\sub/leaf"));
}

// ---- IsDirectory, IsRegularFile ----

TEST_F(DirectoryChain, IsDirectoryAndIsRegularFileFollowLinks) {
  using zel::logdetail::IsDirectory;
  using zel::logdetail::IsRegularFile;
  ASSERT_EQ(0, mkdir((dir + "folder").c_str(), 0755));
  WriteFile(dir + "file", "x");
  ASSERT_EQ(0, mkfifo((dir + "fifo").c_str(), 0644));
  ASSERT_EQ(0, symlink((dir + "folder").c_str(), (dir + "to-folder").c_str()));
  ASSERT_EQ(0, symlink((dir + "file").c_str(), (dir + "to-file").c_str()));
  ASSERT_EQ(0, symlink((dir + "nothing").c_str(), (dir + "dangling").c_str()));

  EXPECT_TRUE(IsDirectory((dir + "folder").c_str()));
  EXPECT_TRUE(IsDirectory((dir + "to-folder").c_str()));
  EXPECT_FALSE(IsDirectory((dir + "file").c_str()));
  EXPECT_TRUE(IsRegularFile((dir + "file").c_str()));
  EXPECT_TRUE(IsRegularFile((dir + "to-file").c_str()));
  EXPECT_FALSE(IsRegularFile((dir + "folder").c_str()));
  for (const char* other : {"fifo", "dangling", "nothing"}) {
    EXPECT_FALSE(IsDirectory((dir + other).c_str())) << other;
    EXPECT_FALSE(IsRegularFile((dir + other).c_str())) << other;
  }
}

}  // namespace
