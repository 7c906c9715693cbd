#include "utils/logger_file.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/log_files.h"

#if defined(__linux__)
// statx as the C library has it, unless a test makes it look absent
// (ENOSYS), as on kernels and sandboxes without it.
std::atomic<bool> gStatxMissing{false};

extern "C" int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* out) {
  if (gStatxMissing) {
    errno = ENOSYS;
    return -1;
  }
  using Statx = int (*)(int, const char*, int, unsigned int, struct statx*);
  static const Statx system = reinterpret_cast<Statx>(dlsym(RTLD_NEXT, "statx"));
  return system(dirfd, path, flags, mask, out);
}
#endif

namespace {

using zeltest::FileNames;
using zeltest::kCutReport;
using zeltest::kMaxFileSize;
using zeltest::MarkedLine;
using zeltest::OpenDescriptorCount;
using zeltest::ReadFile;

// Name of the only ".txt" file in `dir` once it exists ("" on time-out).
std::string CurrentName(const std::string& dir) { return zeltest::WaitForCurrentFile(dir); }

TEST(LoggerFile, EmptyStemNamesFileDotTimeTagDotTxt) {
  zeltest::TempDir dir;
  const std::string before = zeltest::TimeTagNow();
  zel::LoggerFile file(dir.path());
  const std::string after = zeltest::TimeTagNow();
  file.Log("line\n");
  const std::string name = CurrentName(dir.path());
  std::smatch match;
  ASSERT_TRUE(std::regex_match(name, match, std::regex(R"(\.(\d{6})\.txt)"))) << name;
  EXPECT_LE(before, match[1].str());
  EXPECT_GE(after, match[1].str());
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "line\n"));
  EXPECT_EQ("line\n", ReadFile(dir.path() + name));
}

TEST(LoggerFile, OpeningPrintsCreatfileLineWithEmptyTag) {
  zeltest::TempDir dir;
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir.path());
  file.Log("x\n");
  const std::string name = CurrentName(dir.path());
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "x\n"));
  const std::string tag = name.substr(1, 6);
  EXPECT_EQ(1u,
            zeltest::StdoutCapture::Count(capture.Take(), "mCurFp is null, creatfile [] [" + tag +
                                                              "] [" + dir.path() + name + "]\n"));
}

TEST(LoggerFile, SetNameGivesTheStem) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.SetName("scanner");
  file.Log("named\n");
  const std::string name = CurrentName(dir.path());
  EXPECT_TRUE(std::regex_match(name, std::regex(R"(scanner\.\d{6}\.txt)"))) << name;
}

TEST(LoggerFile, GetPrefixReturnsTheDirectoryAsGiven) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path() + "nested/deeper/");
  EXPECT_EQ(dir.path() + "nested/deeper/", file.getPrefix());
  // The whole chain is created at construction.
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "nested/deeper/"));
}

TEST(LoggerFile, LinesAreWrittenInPostingOrderAsIs) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  for (int i = 0; i < 100; ++i) file.Log(std::to_string(i) + ",", i % 8, i % 2 == 0);
  std::string expected;
  for (int i = 0; i < 100; ++i) expected += std::to_string(i) + ",";
  const std::string name = CurrentName(dir.path());
  ASSERT_TRUE(zeltest::WaitForSize(dir.path() + name, expected.size()));
  EXPECT_EQ(expected, ReadFile(dir.path() + name));
}

TEST(LoggerFile, FileAtExactlyMaxSizeIsStillWrittenTo) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  for (char mark = 'a'; mark < 'f'; ++mark) file.Log(MarkedLine(mark, kMaxFileSize / 5));
  file.Log("A");
  const std::string name = CurrentName(dir.path());
  ASSERT_TRUE(zeltest::WaitForSize(dir.path() + name, kMaxFileSize + 1));
  EXPECT_EQ(std::vector<std::string>{name}, FileNames(dir.path()));
}

TEST(LoggerFile, RotationRenamesPastMaxSizeAndPrintsIt) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.Log(MarkedLine('a', kMaxFileSize + 1));
  const std::string name = CurrentName(dir.path());
  const std::string stem = name.substr(0, name.size() - 3);
  ASSERT_TRUE(zeltest::WaitForSize(dir.path() + name, kMaxFileSize + 1));
  zeltest::StdoutCapture capture;
  file.Log("B");
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "B"));
  EXPECT_EQ("B", ReadFile(dir.path() + name));
  EXPECT_EQ(kMaxFileSize + 1, ReadFile(dir.path() + stem + "0").size());
  const std::string out = capture.Take();
  EXPECT_EQ(1u,
            zeltest::StdoutCapture::Count(out, "update loggerfile ,rename  [" + dir.path() + name +
                                                   "] to [" + dir.path() + stem + "0] ...... \n"))
      << out;
  EXPECT_EQ(std::string::npos, out.find("rename error"));
}

TEST(LoggerFile, TwelveRotationsLeaveNumbersThreeToEleven) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.SetName("pen");
  for (char mark = 'a'; mark <= 'm'; ++mark) file.Log(MarkedLine(mark, kMaxFileSize + 1));
  const std::string name = CurrentName(dir.path());
  const std::string stem = name.substr(0, name.size() - 3);
  ASSERT_TRUE(zeltest::WaitForLogs([&] {
    const std::string current = ReadFile(dir.path() + name);
    return current.size() == kMaxFileSize + 1 && current.front() == 'm';
  }));
  std::vector<std::string> expected{name};
  for (int n = 3; n <= 11; ++n) expected.push_back(stem + std::to_string(n));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, FileNames(dir.path()));
  for (int n = 3; n <= 11; ++n) {
    EXPECT_EQ(static_cast<char>('a' + n), ReadFile(dir.path() + stem + std::to_string(n)).front());
  }
}

TEST(LoggerFile, DeletedFileMakesNextWriteRotateWithRenameError) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.Log("one\n");
  const std::string name = CurrentName(dir.path());
  const std::string stem = name.substr(0, name.size() - 3);
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "one\n"));
  ASSERT_EQ(0, std::remove((dir.path() + name).c_str()));
  zeltest::StdoutCapture capture;
  file.Log("two\n");
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "two\n"));
  const std::string out = capture.Take();
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, "getFile 328,rename error\n")) << out;
  // The rotation message is printed after a failed rename too.
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, "update loggerfile ,rename  [")) << out;
  EXPECT_EQ("two\n", ReadFile(dir.path() + name));
  EXPECT_EQ(std::vector<std::string>{name}, FileNames(dir.path()));
}

// The size rule reads the position of the writer's own stream: bytes that
// someone else appends count only once the writer's next line lands after them.
TEST(LoggerFile, BytesAppendedByAnotherWriterRotateFromTheLineAfterThem) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.Log("one\n");
  const std::string name = CurrentName(dir.path());
  const std::string stem = name.substr(0, name.size() - 3);
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "one\n"));
  {
    std::ofstream other(dir.path() + name, std::ios::app | std::ios::binary);
    other << std::string(kMaxFileSize, 'x');
  }
  file.Log("two\n");
  file.Log("three\n");
  ASSERT_TRUE(zeltest::WaitForLogs([&] { return ReadFile(dir.path() + name) == "three\n"; }));
  EXPECT_EQ("one\n" + std::string(kMaxFileSize, 'x') + "two\n", ReadFile(dir.path() + stem + "0"));
}

TEST(LoggerFile, FileCutByAnotherWriterStillRotatesAtTheStreamsPosition) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.Log(MarkedLine('a', kMaxFileSize + 1));
  const std::string name = CurrentName(dir.path());
  const std::string stem = name.substr(0, name.size() - 3);
  ASSERT_TRUE(zeltest::WaitForSize(dir.path() + name, kMaxFileSize + 1));
  ASSERT_EQ(0, truncate((dir.path() + name).c_str(), 0));
  file.Log("B");
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "B"));
  EXPECT_EQ("B", ReadFile(dir.path() + name));
  EXPECT_EQ("", ReadFile(dir.path() + stem + "0"));
}

TEST(LoggerFile, LargeFileMovedInUnderTheCurrentNameIsNotRotatedForItsSize) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.Log("one\n");
  const std::string name = CurrentName(dir.path());
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "one\n"));
  ASSERT_EQ(0, std::rename((dir.path() + name).c_str(), (dir.path() + "moved").c_str()));
  zeltest::WriteFile(dir.path() + name, std::string(kMaxFileSize + 1, 'x'));
  file.Log("two\n");
  // The line follows the open stream into the moved file; nothing rotates.
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + "moved", "two\n"));
  EXPECT_EQ("one\ntwo\n", ReadFile(dir.path() + "moved"));
  EXPECT_EQ(kMaxFileSize + 1, ReadFile(dir.path() + name).size());
  std::vector<std::string> expected{"moved", name};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, FileNames(dir.path()));
}

#if defined(__linux__)
TEST(LoggerFile, WithoutStatxTheChecksFallBackToStat) {
  gStatxMissing = true;
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.Log("one\n");
  file.Log("two\n");
  const std::string name = CurrentName(dir.path());
  const std::string stem = name.substr(0, name.size() - 3);
  ASSERT_TRUE(zeltest::WaitForLogs([&] { return ReadFile(dir.path() + name) == "one\ntwo\n"; }));
  EXPECT_EQ(std::vector<std::string>{name}, FileNames(dir.path()));

  file.Log(MarkedLine('a', kMaxFileSize + 1));
  file.Log("B");
  ASSERT_TRUE(zeltest::WaitForLogs([&] { return ReadFile(dir.path() + name) == "B"; }));
  EXPECT_EQ(kMaxFileSize + 1 + 8, ReadFile(dir.path() + stem + "0").size());
  ASSERT_EQ(0, std::remove((dir.path() + name).c_str()));
  file.Log("C");
  ASSERT_TRUE(zeltest::WaitForText(dir.path() + name, "C"));
  EXPECT_EQ("C", ReadFile(dir.path() + name));
  gStatxMissing = false;
}
#endif

TEST(LoggerFile, EmptyMessagePrintsWriteError) {
  zeltest::TempDir dir;
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir.path());
  file.Log("");
  EXPECT_TRUE(capture.WaitForCount("zel log write error,ret[0] \n", 1)) << capture.Text();
}

TEST(LoggerFile, UncreatableDirectoryDropsLinesWithFpIsNull) {
  zeltest::TempDir scratch;
  zeltest::WriteFile(scratch.path() + "blocker", "x");
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(scratch.path() + "blocker/logs/");
  file.Log("lost\n");
  EXPECT_TRUE(capture.WaitForCount("operator() 201: fp is null \n", 1)) << capture.Text();
  EXPECT_NE(std::string::npos,
            capture.Take().find("mkdir error,[" + scratch.path() + "blocker]\n"));
}

TEST(LoggerFile, DestroyedLoggerFileClosesItsFile) {
  zeltest::TempDir dir;
  const size_t before = OpenDescriptorCount();
  for (int i = 0; i < 50; ++i) {
    zel::LoggerFile file(dir.path());
    file.SetName("n" + std::to_string(i));
    file.Log("line\n");
    ASSERT_TRUE(
        zeltest::WaitForLogs([&] { return FileNames(dir.path()).size() == size_t(i + 1); }));
  }
  EXPECT_EQ(before, OpenDescriptorCount());
}

TEST(LoggerFile, LogFileInitAndGetLogFpGiveTheCurrentFile) {
  zeltest::TempDir dir;
  zel::LoggerFile file(dir.path());
  file.SetName("direct");
  EXPECT_EQ(0, file.logFileInit());
  FILE* fp = file.getLogFp();  // opens the current file, as the first line would
  ASSERT_NE(nullptr, fp);
  ASSERT_EQ(1u, FileNames(dir.path()).size());
  EXPECT_TRUE(std::regex_match(FileNames(dir.path())[0], std::regex(R"(direct\.\d{6}\.txt)")));
  EXPECT_EQ(fp, file.getLogFp());
}

// ---- the directory as given ----

TEST(LoggerFileDirectory, WithoutFinalSlashIsMadeAndTheNameFollowsItDirectly) {
  zeltest::TempDir scratch;
  zel::LoggerFile file(scratch.path() + "logs");
  file.SetName("n");
  EXPECT_TRUE(std::filesystem::is_directory(scratch.path() + "logs"));
  file.Log("joined\n");
  // No separator is added between the directory and the name.
  ASSERT_TRUE(zeltest::WaitForLogs([&] { return FileNames(scratch.path()).size() == 1; }));
  EXPECT_TRUE(std::regex_match(FileNames(scratch.path())[0], std::regex(R"(logsn\.\d{6}\.txt)")));
}

TEST(LoggerFileDirectory, BackslashesSeparateFoldersToo) {
  zeltest::TempDir scratch;
  zel::LoggerFile file(scratch.path() + "a\\b/");
  // Made at every separator: "a", then "a\b" (one name, on this system).
  EXPECT_TRUE(std::filesystem::is_directory(scratch.path() + "a"));
  EXPECT_TRUE(std::filesystem::is_directory(scratch.path() + "a\\b"));
}

TEST(LoggerFileDirectory, EmptyDirectoryWritesIntoTheWorkingDirectory) {
  zeltest::TempDir scratch;
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof(saved)));
  ASSERT_EQ(0, chdir(scratch.path().c_str()));
  {
    zel::LoggerFile file("");
    file.SetName("here");
    file.Log("cwd\n");
    ASSERT_TRUE(zeltest::WaitForLogs([&] { return FileNames(scratch.path()).size() == 1; }));
  }
  EXPECT_EQ(0, chdir(saved));
  EXPECT_TRUE(std::regex_match(FileNames(scratch.path())[0], std::regex(R"(here\.\d{6}\.txt)")));
}

TEST(LoggerFileDirectory, Of255CharactersWithoutFinalSlashIsMadeButCannotHoldAFile) {
  zeltest::TempDir scratch;
  std::string dir = zeltest::PathOfLength(scratch.path(), 256);
  dir.pop_back();  // 255 characters, the last folder's name at the very end
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  EXPECT_TRUE(std::filesystem::is_directory(dir));
  // The file's path is the directory's own 255 characters: nothing to open.
  file.Log("lost\n");
  const bool dropped = capture.WaitForCount("operator() 201: fp is null \n", 1);
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_TRUE(dropped) << out;
  EXPECT_TRUE(FileNames(dir).empty());
}

// ---- names at the 255-character limit of a path ----

// Name of the one file in `dir` once it exists: a name cut to 5 characters
// has no ".txt" to be recognised by.
std::string CurrentNameCutTo5(const std::string& dir) {
  std::string found;
  zeltest::WaitForLogs([&] {
    const auto names = FileNames(dir);
    if (names.size() == 1) found = names[0];
    return !found.empty();
  });
  EXPECT_EQ(5u, found.size());
  return found;
}

// Writes `count` numbered lines and waits until the files below `dir` hold
// them all; returns their numbers as read back, in order.
std::vector<int> WriteNumbered(zel::LoggerFile& file, const std::string& dir, int count) {
  for (int i = 0; i < count; ++i) file.Log(zeltest::NumberedLine(i));
  std::vector<std::string> lines;
  zeltest::WaitForLogs([&] {
    lines = zeltest::LinesBelow(dir);
    return lines.size() >= static_cast<size_t>(count);
  });
  return zeltest::LineNumbers(lines);
}

TEST(LoggerFileLongNames, NamesCutToTheSameTextRotateWithoutLosingALine) {
  zeltest::TempDir scratch;
  // "n.hhmmss.txt" and "n.hhmmss.<n>" both cut to "n.hhm" behind 250 characters.
  const std::string dir = zeltest::PathOfLength(scratch.path(), 250);
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  file.SetName("n");
  const std::vector<int> numbers = WriteNumbered(file, dir, 6000);
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_EQ(zeltest::Sequence(6000), numbers);
  const std::vector<std::string> names = FileNames(dir);
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ(5u, names[0].size());
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, kCutReport));
  EXPECT_EQ(1u,
            zeltest::StdoutCapture::Count(out, std::string(kCutReport) + dir + names[0] + "]\n"));
}

TEST(LoggerFileLongNames, VanishedFileWhoseCutNamesCoincideStillReportsTheRenameError) {
  zeltest::TempDir scratch;
  const std::string dir = zeltest::PathOfLength(scratch.path(), 250);  // names cut to "n.hhm"
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  file.SetName("n");
  file.Log("first\n");
  const std::string current = dir + CurrentNameCutTo5(dir);
  ASSERT_TRUE(zeltest::WaitForText(current, "first\n"));
  ASSERT_EQ(0, unlink(current.c_str()));
  file.Log("second\n");
  ASSERT_TRUE(zeltest::WaitForText(current, "second\n"));
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, "getFile 328,rename error\n")) << out;
  EXPECT_EQ("second\n", ReadFile(current));
}

TEST(LoggerFileLongNames, CurrentPathOf254Or255CharactersIsKeptWholeAndNotReported) {
  for (const size_t length : {254u, 255u}) {
    zeltest::TempDir scratch;
    // "<name>.hhmmss.txt" brings the path to `length` characters.
    const std::string name(length - scratch.path().size() - 11, 'n');
    zeltest::StdoutCapture capture;
    zel::LoggerFile file(scratch.path());
    file.SetName(name);
    const std::vector<int> numbers = WriteNumbered(file, scratch.path(), 10);
    const std::string out = capture.Take();  // gtest reports on stdout too
    EXPECT_EQ(zeltest::Sequence(10), numbers);
    const std::vector<std::string> names = FileNames(scratch.path());
    ASSERT_EQ(1u, names.size());
    EXPECT_EQ(length, scratch.path().size() + names[0].size());
    EXPECT_EQ(".txt", names[0].substr(names[0].size() - 4));
    EXPECT_EQ(0u, zeltest::StdoutCapture::Count(out, kCutReport)) << length;
  }
}

TEST(LoggerFileLongNames, CurrentPathOf256CharactersLosesItsLastCharacterOnce) {
  zeltest::TempDir scratch;
  const std::string dir = scratch.path() + "logs/";
  const std::string name(256 - dir.size() - 11, 'n');
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  file.SetName(name);
  const std::vector<int> numbers = WriteNumbered(file, dir, 6000);
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_EQ(zeltest::Sequence(6000), numbers);
  const std::vector<std::string> names = FileNames(dir);
  ASSERT_EQ(2u, names.size());  // the rotated file and the current one
  const std::string current = names[0].back() == 'x' ? names[0] : names[1];
  EXPECT_EQ(name.size() + 10, current.size());
  EXPECT_EQ(".tx", current.substr(current.size() - 3));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, kCutReport));
  EXPECT_EQ(1u,
            zeltest::StdoutCapture::Count(out, std::string(kCutReport) + dir + current + "]\n"));
}

TEST(LoggerFileLongNames, DirectoryOf254CharactersHoldsAFileNamedByTheCutPath) {
  zeltest::TempDir scratch;
  const std::string dir = zeltest::PathOfLength(scratch.path(), 254);
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  file.SetName("n");
  const std::vector<int> numbers = WriteNumbered(file, dir, 10);
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_EQ(zeltest::Sequence(10), numbers);
  EXPECT_EQ(std::vector<std::string>{"n"}, FileNames(dir));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, std::string(kCutReport) + dir + "n]\n"));
}

TEST(LoggerFileLongNames, DirectoryOf255CharactersIsCreatedButCannotHoldAFile) {
  zeltest::TempDir scratch;
  const std::string dir = zeltest::PathOfLength(scratch.path(), 255);
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  EXPECT_TRUE(std::filesystem::is_directory(dir));
  file.Log("lost\n");
  file.Log("lost too\n");
  const bool dropped = capture.WaitForCount("operator() 201: fp is null \n", 2);
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_TRUE(dropped) << out;
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, kCutReport));
  EXPECT_TRUE(FileNames(dir).empty());
}

TEST(LoggerFileLongNames, DirectoryOf256CharactersIsNotCreatedAndTheCutPathIsWritten) {
  zeltest::TempDir scratch;
  const std::string dir = zeltest::PathOfLength(scratch.path(), 256);
  zeltest::StdoutCapture capture;
  zel::LoggerFile file(dir);
  EXPECT_FALSE(std::filesystem::exists(dir));
  file.Log("outside\n");
  // The first 255 characters: the directory's own name, as a file beside it.
  const std::string cut = dir.substr(0, 255);
  const bool written = zeltest::WaitForText(cut, "outside\n");
  const std::string out = capture.Take();  // gtest reports on stdout too
  ASSERT_TRUE(written);
  EXPECT_TRUE(std::filesystem::is_regular_file(cut));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, std::string(kCutReport) + cut + "]\n"));
}

// Bytes of the log files below `dir` (staging files aside).
uintmax_t BytesBelow(const std::string& dir) {
  uintmax_t total = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir, ec)) {
    if (entry.is_regular_file() && !zeltest::IsStagingFile(entry.path().filename().string())) {
      total += entry.file_size();
    }
  }
  return total;
}

TEST(LoggerFileLongNames, DirectoriesOf200To300CharactersRotateWithoutLosingALine) {
  const std::string big = MarkedLine('B', kMaxFileSize + 1);
  for (size_t length = 200; length <= 300; ++length) {
    SCOPED_TRACE(length);
    zeltest::TempDir scratch;
    const std::string dir = zeltest::PathOfLength(scratch.path(), length);
    zeltest::StdoutCapture capture;
    {
      zel::LoggerFile file(dir);
      file.SetName("n");
      // Past the size limit, then three lines that each find a file.
      for (const std::string& line :
           {big, std::string("b1\n"), std::string("b2\n"), std::string("b3\n")}) {
        file.Log(line);
      }
      if (length == 255) {
        // A directory of 255 characters leaves no room for a file name.
        EXPECT_TRUE(capture.WaitForCount("operator() 201: fp is null \n", 4));
        continue;
      }
      // Sizes only while waiting: reading the 5 MiB line on every poll made
      // this test slow on a loaded machine.
      const uintmax_t total = big.size() + 3 * 3;
      ASSERT_TRUE(zeltest::WaitForLogs([&] { return BytesBelow(scratch.path()) == total; }));
    }
    const std::string out = capture.Take();
    const std::vector<std::string> expected{big.substr(0, big.size() - 1), "b1", "b2", "b3"};
    EXPECT_EQ(expected, zeltest::LinesBelow(scratch.path()));
    // Cut names (from 244 characters on) are reported, once.
    EXPECT_EQ(length >= 244 ? 1u : 0u, zeltest::StdoutCapture::Count(out, kCutReport));
  }
}

TEST(LoggerFileMidnight, KeepsWritingTheSameFilePastMidnight) {
  zeltest::TempDir dir;
  ASSERT_EQ(0, zeltest::RunUnderFaketime("2030-03-14 23:59:58", std::string(ZEL_MIDNIGHT_CHILD) +
                                                                    " loggerfile " + dir.path()));
  const auto names = FileNames(dir.path());
  ASSERT_EQ(1u, names.size());
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(\.2359\d\d\.txt)"))) << names[0];
  EXPECT_EQ("before midnight\nafter midnight\n", ReadFile(dir.path() + names[0]));
}

}  // namespace
