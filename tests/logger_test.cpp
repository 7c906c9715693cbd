#include "utils/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "fuzz/support/private_root.h"
#include "support/child_run.h"
#include "support/log_files.h"
#include "utils/process_info.h"
#include "utils/zel_log.h"

namespace {

using zeltest::FileNames;
using zeltest::kCutReport;
using zeltest::kMaxFileSize;
using zeltest::MarkedLine;
using zeltest::Range;
using zeltest::ReadFile;

// Every test starts a fresh process: the base is set before the singleton
// exists, so it computes its day directory under the scratch folder.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel_set_log_path(base.path().c_str());
    tagBefore = zeltest::TimeTagNow();
    logger = zel::Logger::GetInstance();
    tagAfter = zeltest::TimeTagNow();
    dayDir = base.path() + zeltest::TodayText();
    procTag = get_process_name() + "-" + std::to_string(getpid());
  }

  // Name of the current file once the writer opened it ("" on time-out).
  std::string CurrentName() { return zeltest::WaitForCurrentFile(dayDir); }
  // "zel.log.<proc>-<pid>.<tag>." of this process's files.
  std::string Stem() {
    const std::string current = CurrentName();
    return current.substr(0, current.size() - 3);
  }

  zeltest::TempDir base;
  zel::Logger* logger = nullptr;
  std::string dayDir;
  std::string procTag;
  std::string tagBefore;
  std::string tagAfter;
};

TEST_F(LoggerTest, FilesGoToFixedBasePlusDateDirectory) {
  ASSERT_EQ(0, logger->Log("hello\n"));
  const std::string name = CurrentName();
  ASSERT_FALSE(name.empty());
  EXPECT_TRUE(zeltest::WaitForText(dayDir + name, "hello\n"));
  EXPECT_EQ("hello\n", ReadFile(dayDir + name));
  EXPECT_EQ(std::vector<std::string>{zeltest::TodayText().substr(0, 8)}, [&] {
    std::vector<std::string> dirs;
    for (const auto& e : std::filesystem::directory_iterator(base.path()))
      dirs.push_back(e.path().filename().string());
    return dirs;
  }());
}

TEST_F(LoggerTest, CurrentFileIsNamedByProcessPidAndTimeTag) {
  logger->Log("x\n");
  const std::string name = CurrentName();
  std::smatch match;
  ASSERT_TRUE(std::regex_match(name, match, std::regex(R"(zel\.log\.(.*)\.(\d{6})\.txt)"))) << name;
  EXPECT_EQ(procTag, match[1].str());
  // The time tag is the local time the day directory was computed.
  EXPECT_LE(tagBefore, match[2].str());
  EXPECT_GE(tagAfter, match[2].str());
}

TEST(LoggerPrefix, FixedBasePrintsPrefixLine) {
  zeltest::TempDir base;
  zel_set_log_path(base.path().c_str());
  zeltest::StdoutCapture capture;
  zel::Logger::GetInstance();
  const std::string out = capture.Take();
  EXPECT_NE(std::string::npos,
            out.find("getPrefix 183: prefix[" + base.path() + zeltest::TodayText() + "]\n"))
      << out;
}

TEST_F(LoggerTest, GetPrefixReturnsDayDirectoryUnderFixedBase) {
  EXPECT_EQ(dayDir, zel::Logger::mDirPrefix);
  EXPECT_TRUE(std::filesystem::is_directory(dayDir));
}

TEST_F(LoggerTest, FixedBaseSetLaterAppliesOnlyFromNextDateChange) {
  logger->Log("first\n");
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + name, "first\n"));
  zeltest::TempDir other;
  zel_set_log_path(other.path().c_str());
  logger->Log("second\n");
  ASSERT_TRUE(zeltest::WaitForText(dayDir + name, "second\n"));
  EXPECT_EQ("first\nsecond\n", ReadFile(dayDir + name));
  EXPECT_TRUE(FileNames(other.path()).empty());
  EXPECT_FALSE(zeltest::Exists(other.path() + zeltest::TodayText()));
}

TEST_F(LoggerTest, FileAtExactlyMaxSizeIsStillWrittenTo) {
  for (char mark = 'a'; mark < 'f'; ++mark) logger->Log(MarkedLine(mark, kMaxFileSize / 5));
  logger->Log("A");
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForSize(dayDir + name, kMaxFileSize + 1));
  EXPECT_EQ(std::vector<std::string>{name}, FileNames(dayDir));
  EXPECT_EQ('A', ReadFile(dayDir + name).back());
}

TEST_F(LoggerTest, LineAfterPassingMaxSizeGoesToFreshFile) {
  for (char mark = 'a'; mark < 'f'; ++mark) logger->Log(MarkedLine(mark, kMaxFileSize / 5));
  logger->Log("A");
  logger->Log("B");
  const std::string stem = Stem();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + stem + "txt", "B"));
  EXPECT_EQ("B", ReadFile(dayDir + stem + "txt"));
  const std::string rotated = ReadFile(dayDir + stem + "0");
  ASSERT_EQ(kMaxFileSize + 1, rotated.size());
  EXPECT_EQ('a', rotated.front());
  EXPECT_EQ('A', rotated.back());
  EXPECT_EQ((std::vector<std::string>{stem + "0", stem + "txt"}), FileNames(dayDir));
}

TEST_F(LoggerTest, TwelveRotationsLeaveNumbersThreeToEleven) {
  // Each line alone passes the size limit, so every later line rotates.
  for (char mark = 'a'; mark <= 'm'; ++mark) logger->Log(MarkedLine(mark, kMaxFileSize + 1));
  const std::string stem = Stem();
  // Every file reaches that size: wait for the last line's to be complete.
  ASSERT_TRUE(zeltest::WaitForLogs([&] {
    const std::string current = ReadFile(dayDir + stem + "txt");
    return current.size() == kMaxFileSize + 1 && current.front() == 'm';
  }));
  std::vector<std::string> expected;
  for (int n = 3; n <= 11; ++n) expected.push_back(stem + std::to_string(n));
  expected.push_back(stem + "txt");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, FileNames(dayDir));
  // Rotated file n holds the (n+1)-th line.
  for (int n = 3; n <= 11; ++n) {
    EXPECT_EQ(static_cast<char>('a' + n), ReadFile(dayDir + stem + std::to_string(n)).front());
  }
  EXPECT_EQ('m', ReadFile(dayDir + stem + "txt").front());
}

TEST_F(LoggerTest, DeletedCurrentFileMakesNextWriteRotateWithRenameError) {
  logger->Log("one\n");
  const std::string stem = Stem();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + stem + "txt", "one\n"));
  ASSERT_EQ(0, std::remove((dayDir + stem + "txt").c_str()));

  zeltest::StdoutCapture capture;
  logger->Log("two\n");
  ASSERT_TRUE(zeltest::WaitForText(dayDir + stem + "txt", "two\n"));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(capture.Take(), "getFile 556,rename error\n"));
  EXPECT_EQ("two\n", ReadFile(dayDir + stem + "txt"));

  // The failed rotation still used number 0: the next one is number 1.
  logger->Log(MarkedLine('b', kMaxFileSize + 1));
  logger->Log("three\n");
  ASSERT_TRUE(zeltest::WaitForText(dayDir + stem + "txt", "three\n"));
  EXPECT_EQ((std::vector<std::string>{stem + "1", stem + "txt"}), FileNames(dayDir));
  EXPECT_EQ(0u, ReadFile(dayDir + stem + "1").rfind("two\nb", 0));
}

TEST_F(LoggerTest, LevelIsIgnoredByTheWriter) {
  logger->Log("same line\n", 7, false);
  logger->Log("same line\n", 0, false);
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForSize(dayDir + name, 20));
  EXPECT_EQ("same line\nsame line\n", ReadFile(dayDir + name));
}

TEST_F(LoggerTest, OneArgumentLogWritesTheTextAsIs) {
  logger->Log("no newline added");
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + name, "added"));
  EXPECT_EQ("no newline added", ReadFile(dayDir + name));
}

class RecordingBackend : public zel::LogBackend {
 public:
  int Log(const std::string& msg) override {
    lines.Add(msg);
    return 0;
  }
  std::vector<std::string> Lines() { return lines.All(); }

 private:
  zeltest::Collected<std::string> lines;
};

TEST_F(LoggerTest, AttachedBackendGetsOnlyFlaggedLines) {
  RecordingBackend backend;
  logger->AddBackend(&backend);
  logger->Log("to sinks\n", 3, true);
  logger->Log("file only\n", 3, false);
  logger->Log("to sinks too\n", 5, true);
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + name, "to sinks too\n"));
  logger->RemoveBackend(&backend);
  EXPECT_EQ((std::vector<std::string>{"to sinks\n", "to sinks too\n"}), backend.Lines());
  EXPECT_EQ("to sinks\nfile only\nto sinks too\n", ReadFile(dayDir + name));
}

TEST_F(LoggerTest, RemovedBackendGetsNothingMore) {
  RecordingBackend backend;
  logger->AddBackend(&backend);
  logger->RemoveBackend(&backend);
  logger->Log("after removal\n", 3, true);
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + name, "after removal\n"));
  EXPECT_TRUE(backend.Lines().empty());
}

// Sees each line on the writer thread, before that line is written, and
// records how much of the file is on disk by then.
class FileSizeProbe : public zel::LogBackend {
 public:
  explicit FileSizeProbe(std::string dir) : dir_(std::move(dir)) {}
  int Log(const std::string&) override {
    uintmax_t size = 0;
    for (const auto& name : FileNames(dir_)) size += std::filesystem::file_size(dir_ + name);
    std::lock_guard<std::mutex> lock(mutex_);
    sizes_.push_back(size);
    return 0;
  }
  std::vector<uintmax_t> Sizes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sizes_;
  }

 private:
  std::string dir_;
  std::mutex mutex_;
  std::vector<uintmax_t> sizes_;
};

TEST_F(LoggerTest, EveryLineIsOnDiskBeforeTheNextOneIsTaken) {
  FileSizeProbe probe(dayDir);
  logger->AddBackend(&probe);
  constexpr int kLines = 2000;
  const std::string line = MarkedLine('x', 64);
  // Posted in one burst, so the writer always has more lines waiting.
  for (int i = 0; i < kLines; ++i) logger->Log(line, 3, true);
  ASSERT_TRUE(zeltest::WaitForSize(dayDir + CurrentName(), kLines * line.size()));
  logger->RemoveBackend(&probe);
  const auto sizes = probe.Sizes();
  ASSERT_EQ(static_cast<size_t>(kLines), sizes.size());
  for (int i = 0; i < kLines; ++i) ASSERT_EQ(i * line.size(), sizes[i]) << "line " << i;
}

TEST_F(LoggerTest, EmptyMessagePrintsWriteErrorAndWritesNothing) {
  zeltest::StdoutCapture capture;
  logger->Log("");
  logger->Log("next\n");
  const std::string name = CurrentName();
  ASSERT_TRUE(zeltest::WaitForText(dayDir + name, "next\n"));
  EXPECT_TRUE(capture.WaitForCount("zel log write error,ret[0] \n", 1)) << capture.Text();
  EXPECT_EQ("next\n", ReadFile(dayDir + name));
}

TEST(LoggerBadBase, UncreatableBaseDropsLinesWithFpIsNull) {
  zeltest::TempDir scratch;
  // A regular file where a directory should be: mkdir fails even for root.
  zeltest::WriteFile(scratch.path() + "blocker", "x");
  const std::string base = scratch.path() + "blocker/logs/";
  zel_set_log_path(base.c_str());
  zeltest::StdoutCapture capture;
  zel::Logger* logger = zel::Logger::GetInstance();
  EXPECT_EQ(0, logger->Log("lost\n"));
  EXPECT_EQ(0, logger->Log("lost too\n"));
  EXPECT_TRUE(capture.WaitForCount("operator() 333: fp is null \n", 2));
  const std::string out = capture.Take();
  EXPECT_NE(std::string::npos, out.find("mkdir error,[" + scratch.path() + "blocker]\n")) << out;
  EXPECT_EQ("x", ReadFile(scratch.path() + "blocker"));
}

TEST(LoggerLongBase, BaseOf220CharactersRotatesWithoutLosingALine) {
  zeltest::TempDir scratch;
  // Behind the day directory (229 characters), "zel.log.<proc>-<pid>.hhmmss."
  // reaches 255 already: the current and every rotated name cut alike.
  const std::string base = zeltest::PathOfLength(scratch.path(), 220);
  zel_set_log_path(base.c_str());
  zeltest::StdoutCapture capture;
  zel::Logger* logger = zel::Logger::GetInstance();
  for (int i = 0; i < 6000; ++i) logger->Log(zeltest::NumberedLine(i));
  std::vector<std::string> lines;
  zeltest::WaitForLogs([&] {
    lines = zeltest::LinesBelow(base);
    return lines.size() >= 6000;
  });
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_EQ(zeltest::Sequence(6000), zeltest::LineNumbers(lines));
  const std::string dayDir = base + zeltest::TodayText();
  const std::vector<std::string> names = FileNames(dayDir);
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ(255u, dayDir.size() + names[0].size());
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, kCutReport));
  EXPECT_EQ(
      1u, zeltest::StdoutCapture::Count(out, std::string(kCutReport) + dayDir + names[0] + "]\n"));
}

TEST(LoggerLongBase, VanishedFileWhoseCutNamesCoincideStillReportsTheRenameError) {
  zeltest::TempDir scratch;
  const std::string base = zeltest::PathOfLength(scratch.path(), 220);  // names cut alike
  zel_set_log_path(base.c_str());
  zeltest::StdoutCapture capture;
  zel::Logger* logger = zel::Logger::GetInstance();
  logger->Log("first\n");
  const std::string dayDir = base + zeltest::TodayText();
  std::string current;
  ASSERT_TRUE(zeltest::WaitForLogs([&] {
    const auto names = FileNames(dayDir);
    if (names.size() == 1) current = dayDir + names[0];
    return !current.empty() && ReadFile(current) == "first\n";
  }));
  ASSERT_EQ(0, unlink(current.c_str()));
  logger->Log("second\n");
  ASSERT_TRUE(zeltest::WaitForText(current, "second\n"));
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, "getFile 556,rename error\n")) << out;
  EXPECT_EQ("second\n", ReadFile(current));
}

TEST(LoggerLongBase, DayDirectoryOf254CharactersHoldsAFileNamedByTheCutPath) {
  zeltest::TempDir scratch;
  const std::string base = zeltest::PathOfLength(scratch.path(), 254 - 9);  // + "YYYYMMDD/"
  zel_set_log_path(base.c_str());
  zeltest::StdoutCapture capture;
  zel::Logger::GetInstance()->Log("inside\n");
  const std::string dayDir = base + zeltest::TodayText();
  const bool written = zeltest::WaitForText(dayDir + "z", "inside\n");  // "zel.log..." cut to "z"
  const std::string out = capture.Take();  // gtest reports on stdout too
  ASSERT_TRUE(written);
  EXPECT_EQ(std::vector<std::string>{"z"}, FileNames(dayDir));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, std::string(kCutReport) + dayDir + "z]\n"));
}

TEST(LoggerLongBase, DayDirectoryOf255CharactersIsCreatedButCannotHoldAFile) {
  zeltest::TempDir scratch;
  const std::string base = zeltest::PathOfLength(scratch.path(), 255 - 9);
  zel_set_log_path(base.c_str());
  zeltest::StdoutCapture capture;
  zel::Logger* logger = zel::Logger::GetInstance();
  logger->Log("lost\n");
  logger->Log("lost too\n");
  const bool dropped = capture.WaitForCount("operator() 333: fp is null \n", 2);
  const std::string out = capture.Take();  // gtest reports on stdout too
  EXPECT_TRUE(dropped) << out;
  const std::string dayDir = base + zeltest::TodayText();
  EXPECT_TRUE(std::filesystem::is_directory(dayDir));
  EXPECT_TRUE(FileNames(dayDir).empty());
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, kCutReport));
}

TEST(LoggerLongBase, DayDirectoryOf256CharactersIsNotCreatedAndTheCutPathIsWritten) {
  zeltest::TempDir scratch;
  const std::string base = zeltest::PathOfLength(scratch.path(), 256 - 9);  // + "YYYYMMDD/"
  ASSERT_TRUE(std::filesystem::create_directory(base));
  zel_set_log_path(base.c_str());
  zeltest::StdoutCapture capture;
  zel::Logger::GetInstance()->Log("outside\n");
  const std::string dayDir = base + zeltest::TodayText();
  const std::string cut = dayDir.substr(0, 255);  // the date, as a file in the base
  const bool written = zeltest::WaitForText(cut, "outside\n");
  const std::string out = capture.Take();  // gtest reports on stdout too
  ASSERT_TRUE(written);
  EXPECT_TRUE(std::filesystem::is_regular_file(cut));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, std::string(kCutReport) + cut + "]\n"));
}

// ---- the rest of the interface ----

TEST(LogBackend, ThreeArgumentLogHandsTheTextToTheOneArgumentForm) {
  struct OneForm : zel::LogBackend {
    int Log(const std::string& msg) override {
      texts.push_back(msg);
      return 7;
    }
    using zel::LogBackend::Log;
    std::vector<std::string> texts;
  } sink;
  EXPECT_EQ(7, sink.Log("text\n", 0, true));
  EXPECT_EQ(std::vector<std::string>{"text\n"}, sink.texts);
}

TEST(LoggerStandalone, LogFileInitAndGetLogFpWorkOnALoggerOfItsOwn) {
  zeltest::TempDir base;
  zel_set_log_path(base.path().c_str());
  auto* logger = new zel::Logger();
  EXPECT_EQ(0, logger->logFileInit());
  // getLogFp opens the current file, as the first line would.
  FILE* fp = logger->getLogFp();
  ASSERT_NE(nullptr, fp);
  const std::string dayDir = base.path() + zeltest::TodayText();
  ASSERT_EQ(1u, FileNames(dayDir).size());
  EXPECT_EQ(fp, logger->getLogFp());  // the same file while nothing changed
  // Destroying it stops its writer; the file stays open (it is shared).
  delete logger;
  EXPECT_NE(-1, fcntl(fileno(fp), F_GETFD));
}

TEST(LoggerDefaultBase, WithoutAFixedBaseDaysGoUnderUsersUserLibraryZel) {
  // /Users belongs to the machine: only a private root, which vanishes with
  // the child, may have one written.
  const zeltest::ChildResult child = zeltest::RunInChild([]() -> std::string {
    zelfuzz::EnterPrivateRoot();
    setenv("USER", "zeltest", 1);
    const std::string day = zeltest::TodayText();
    const std::string days = "/Users/zeltest/Library/zel/";
    if (freopen("/tmp/stdout.txt", "w", stdout) == nullptr) return "no stdout";
    log_print(3, 0, "by default");
    const std::string dayDir = days + day + "/";  // BuildLogPath adds a slash to the date's own
    if (!zeltest::WaitForLogs([&] { return !FileNames(dayDir).empty(); }))
      return "no file in " + dayDir;
    const std::string name = FileNames(dayDir)[0];
    if (!zeltest::WaitForText(dayDir + name, "by default\n")) return "no line in " + name;
    fflush(stdout);
    const std::string out = ReadFile("/tmp/stdout.txt");
    // The first day: only the last folder is made at first, and that fails.
    if (out != "mkdir[" + dayDir + "] error[BuildLogPath 630] \n") return "printed: " + out;
    char path[512] = {};
    if (zel_get_log_path(path, sizeof(path)) != 0 || dayDir != path)
      return "log path " + std::string(path);
    // Without a sub-folder, and without USER: the folders exist or are made quietly.
    if (zel::BuildLogPath("") != days) return "BuildLogPath(\"\")";
    unsetenv("USER");
    if (zel::BuildLogPath("x") != "/Users/x/" || !std::filesystem::is_directory("/Users/x/")) {
      return "BuildLogPath without USER";
    }
    fflush(stdout);
    return ReadFile("/tmp/stdout.txt") == out ? "" : "printed more: " + ReadFile("/tmp/stdout.txt");
  });
  if (child.ExitedWith(zelfuzz::kCannotIsolate)) GTEST_SKIP() << "no private root here";
  EXPECT_TRUE(child.ExitedWith(0)) << child.status;
  EXPECT_EQ("", child.output);
}

// ---- faults ----

// Lines of exactly one page: on a tmpfs or under a size limit counted in
// pages, each write then fits whole or fails whole.
constexpr size_t kPage = 4096;

// The numbers of the numbered lines below `dir` (other lines are skipped).
std::vector<int> NumberedLinesBelow(const std::string& dir) {
  std::vector<std::string> numbered;
  for (const auto& line : zeltest::LinesBelow(dir)) {
    if (line.size() == kPage - 1 && line[5] == ' ') numbered.push_back(line);
  }
  return zeltest::LineNumbers(numbered);
}

// A sink that counts the lines handed to it.
class CountingSink : public zel::LogBackend {
 public:
  int Log(const std::string&) override {
    ++count;
    return 0;
  }
  std::atomic<int> count{0};
};

// Returns once the writer has dealt with every line posted before: a marker
// line for the sinks reaches them only after the lines before it were written.
void WaitForWriter(zel::Logger* logger) {
  CountingSink sink;
  logger->AddBackend(&sink);
  logger->Log("-- writer reached --\n", 3, true);
  EXPECT_TRUE(zeltest::WaitForLogs([&] { return sink.count > 0; }));
  logger->RemoveBackend(&sink);  // waits for the writer to let go of it
}

void LogNumbered(zel::Logger* logger, int first, int last) {
  for (int n = first; n <= last; ++n) logger->Log(zeltest::NumberedLine(n, kPage));
}

TEST_F(LoggerTest, DayDirectoryDeletedWhileLoggingIsMadeAgainAndLoggingGoesOn) {
  LogNumbered(logger, 0, 49);
  WaitForWriter(logger);
  std::filesystem::remove_all(dayDir);
  zeltest::StdoutCapture capture;
  LogNumbered(logger, 50, 99);
  WaitForWriter(logger);
  const std::string out = capture.Take();
  // Lines 0-49 went with the deleted directory; the open file was moved on.
  EXPECT_EQ(Range(50, 99), NumberedLinesBelow(dayDir));
  EXPECT_EQ(1u, zeltest::StdoutCapture::Count(out, "getFile 556,rename error\n")) << out;
}

TEST(LoggerFaults, FullDiskLosesLinesAndLoggingResumesWhenSpaceReturns) {
  zeltest::TempDir scratch;
  const std::string base = scratch.path() + "small/";
  ASSERT_EQ(0, mkdir(base.c_str(), 0755));
  ASSERT_TRUE(zeltest::MountPrivateTmpfs(base, 64 * kPage)) << "no private mount namespace";
  const zeltest::UnmountAtEnd unmount(base);
  const std::string filler = base + "filler";
  zeltest::WriteFile(filler, std::string(56 * kPage, 'f'));  // 8 pages stay free
  zel_set_log_path(base.c_str());
  zel::Logger* logger = zel::Logger::GetInstance();
  LogNumbered(logger, 0, 99);
  WaitForWriter(logger);
  ASSERT_EQ(0, unlink(filler.c_str()));  // space returns
  LogNumbered(logger, 100, 149);
  WaitForWriter(logger);
  // The lines that found no room are lost (the flush fails, quietly); the
  // file takes whole lines again as soon as there is room.
  std::vector<int> expected = Range(0, 7);
  for (int n : Range(100, 149)) expected.push_back(n);
  EXPECT_EQ(expected, NumberedLinesBelow(base));
}

TEST(LoggerFaults, FileSizeLimitLosesLinesAndLoggingResumesWhenRaised) {
  zeltest::TempDir base;
  signal(SIGXFSZ, SIG_IGN);  // the writes then fail with EFBIG instead
  rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  zel_set_log_path(base.path().c_str());
  zel::Logger* logger = zel::Logger::GetInstance();
  rlimit small = saved;
  small.rlim_cur = 8 * kPage;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  LogNumbered(logger, 0, 99);
  WaitForWriter(logger);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &saved));
  LogNumbered(logger, 100, 149);
  WaitForWriter(logger);
  std::vector<int> expected = Range(0, 7);
  for (int n : Range(100, 149)) expected.push_back(n);
  EXPECT_EQ(expected, NumberedLinesBelow(base.path()));
}

TEST(LoggerFaults, BaseWithoutPermissionDropsLinesWithFpIsNull) {
  zeltest::TempDir scratch;
  // As an ordinary user: root is not held back by permissions.
  ASSERT_EQ(0, chmod(scratch.path().c_str(), 0755));
  const std::string locked = scratch.path() + "locked/";
  const std::string out = scratch.path() + "out/";
  ASSERT_EQ(0, mkdir(locked.c_str(), 0555));
  ASSERT_EQ(0, mkdir(out.c_str(), 0777));
  ASSERT_EQ(0, chmod(out.c_str(), 0777));
  const zeltest::ChildResult child = zeltest::RunAsOrdinaryUser([&]() -> std::string {
    if (freopen((out + "stdout.txt").c_str(), "w", stdout) == nullptr) return "no stdout";
    const std::string base = locked + "logs/";
    zel_set_log_path(base.c_str());
    zel::Logger* logger = zel::Logger::GetInstance();
    logger->Log("lost\n");
    logger->Log("lost too\n");
    const bool dropped = zeltest::WaitForLogs([&] {
      fflush(stdout);
      return zeltest::StdoutCapture::Count(ReadFile(out + "stdout.txt"),
                                           "operator() 333: fp is null \n") == 2;
    });
    if (!dropped) return "lines not dropped";
    if (ReadFile(out + "stdout.txt").find("mkdir error,[" + locked + "logs]\n") ==
        std::string::npos) {
      return "no mkdir error";
    }
    return std::filesystem::exists(base) ? "base created" : "";
  });
  EXPECT_TRUE(child.ExitedWith(0)) << child.status;
  EXPECT_EQ("", child.output) << ReadFile(out + "stdout.txt");
}

TEST(LoggerBuildLogPath, WithUserBuildsLibraryZelPathAndReportsMkdirFailure) {
  // A user that has no folder here: the mkdir of the last component fails.
  const std::string user = "zel-test-no-such-user-" + std::to_string(getpid());
  setenv("USER", user.c_str(), 1);
  zeltest::StdoutCapture capture;
  const std::string path = zel::BuildLogPath("20301231/");
  const std::string expected = "/Users/" + user + "/Library/zel/20301231//";
  EXPECT_EQ(expected, path);
  EXPECT_NE(std::string::npos,
            capture.Take().find("mkdir[" + expected + "] error[BuildLogPath 630] \n"));
  EXPECT_FALSE(zeltest::Exists("/Users/" + user));
}

TEST(LoggerBuildLogPath, WithoutUserStartsAtUsers) {
  unsetenv("USER");
  const std::string sub = "zel-test-missing-" + std::to_string(getpid()) + "/20301231/";
  zeltest::StdoutCapture capture;
  EXPECT_EQ("/Users/" + sub + "/", zel::BuildLogPath(sub));
  EXPECT_NE(std::string::npos, capture.Take().find("error[BuildLogPath 630]"));
}

TEST(LoggerSingleton, GetInstanceCreatesOneLoggerForAllThreads) {
  zeltest::TempDir base;
  zel_set_log_path(base.path().c_str());
  std::vector<std::thread> threads;
  std::vector<zel::Logger*> seen(8, nullptr);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&seen, i] { seen[i] = zel::Logger::GetInstance(); });
  }
  for (auto& t : threads) t.join();
  for (auto* logger : seen) EXPECT_EQ(seen[0], logger);
  EXPECT_EQ(seen[0], zel::Logger::sLogger.load());
  // One Logger, so one day directory.
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(base.path()),
                             std::filesystem::directory_iterator()));
}

// Runs the helper under a clock that starts two seconds before midnight.
class LoggerMidnight : public ::testing::Test {
 protected:
  int RunChild(const std::string& args) {
    return zeltest::RunUnderFaketime("2030-03-14 23:59:58",
                                     std::string(ZEL_MIDNIGHT_CHILD) + " " + args);
  }
  zeltest::TempDir base;
};

TEST_F(LoggerMidnight, OldFileIsRenamedInOldDayAndNewLineLandsInNewDay) {
  ASSERT_EQ(0, RunChild("logger " + base.path()));
  const std::string oldDay = base.path() + "20300314/";
  const std::string newDay = base.path() + "20300315/";
  const auto oldFiles = FileNames(oldDay);
  const auto newFiles = FileNames(newDay);
  ASSERT_EQ(1u, oldFiles.size());
  ASSERT_EQ(1u, newFiles.size());
  std::smatch oldMatch, newMatch;
  ASSERT_TRUE(std::regex_match(oldFiles[0], oldMatch,
                               std::regex(R"(zel\.log\.log_midnight_child-(\d+)\.(2359\d\d)\.0)")))
      << oldFiles[0];
  ASSERT_TRUE(std::regex_match(
      newFiles[0], newMatch, std::regex(R"(zel\.log\.log_midnight_child-(\d+)\.(0000\d\d)\.txt)")))
      << newFiles[0];
  EXPECT_EQ(oldMatch[1].str(), newMatch[1].str());
  EXPECT_NE(std::string::npos, ReadFile(oldDay + oldFiles[0]).find("before midnight\n"));
  EXPECT_EQ(std::string::npos, ReadFile(oldDay + oldFiles[0]).find("after midnight"));
  const std::string after = ReadFile(newDay + newFiles[0]);
  EXPECT_NE(std::string::npos, after.find("[3-15 00:00:"));
  EXPECT_NE(std::string::npos, after.find("after midnight\n"));
}

TEST_F(LoggerMidnight, BaseOfOtherLengthIsCutToTheCapturedLength) {
  // The second base is one character longer than the first; the captured
  // length of the first day directory then drops the new one's final slash.
  const std::string first = base.path() + "a/";
  const std::string second = base.path() + "bb/";
  ASSERT_EQ(0, RunChild("relocated " + first + " " + second));
  ASSERT_EQ(1u, FileNames(first + "20300314/").size());
  EXPECT_TRUE(std::regex_match(FileNames(first + "20300314/")[0],
                               std::regex(R"(zel\.log\..*\.2359\d\d\.0)")));
  const auto relocated = FileNames(second);
  ASSERT_EQ(1u, relocated.size());
  EXPECT_TRUE(std::regex_match(
      relocated[0], std::regex(R"(20300315zel\.log\.log_midnight_child-\d+\.0000\d\d\.txt)")))
      << relocated[0];
  EXPECT_TRUE(std::filesystem::is_directory(second + "20300315/"));
  EXPECT_TRUE(FileNames(second + "20300315/").empty());
}

TEST(LoggerZoneChange, SizeRotationAfterTheZoneMovedKeepsEveryLine) {
  zeltest::TempDir base;
  // The clock stands still: the zone change and the size rotation fall into
  // one second.
  ASSERT_EQ(0, zeltest::RunZoneJump(base.path()));
  const std::vector<std::string> lines = zeltest::LinesBelow(base.path());
  ASSERT_EQ(5600u, lines.size());
  for (int i = 0; i < 5600; ++i) {
    ASSERT_EQ(i, std::stoi(lines[i].substr(lines[i].find("zone ") + 5, 5))) << "at " << i;
  }
  // Before the move 2030-03-13 (UTC-12), after it 2030-03-15 (UTC+14): the
  // first line after the move rotates by date, so the size limit is never
  // reached.
  EXPECT_EQ(1u, FileNames(base.path() + "20300313/").size());
  EXPECT_EQ(1u, FileNames(base.path() + "20300315/").size());
}

}  // namespace
