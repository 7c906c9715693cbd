#include "utils/file_operation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/diag_capture.h"
#include "support/files.h"
#include "utils/key_store.h"

namespace {

using Bytes = std::vector<unsigned char>;
using zeltest::DiagCapture;
using zeltest::ReadFile;
using zeltest::WriteFile;

// Diagnostics of this test only, also when several tests share a process.
struct Diagnostics : DiagCapture {
  Diagnostics() { Clear(); }
};

// A name no other test (or process) uses.
std::string UniqueName(const std::string& stem) {
  static std::atomic<int> counter{0};
  return "zel_" + stem + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

void PutLittleEndian(Bytes& out, uint64_t value, int size) {
  for (int i = 0; i < size; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

// One chunk as the peer lays it out.
Bytes Chunk(uint16_t id1, uint16_t id2, const std::string& path, uint64_t file_size,
            uint64_t offset, const std::string& data) {
  Bytes out;
  PutLittleEndian(out, id1, 2);
  PutLittleEndian(out, id2, 2);
  out.push_back(static_cast<unsigned char>(path.size()));
  out.insert(out.end(), path.begin(), path.end());
  PutLittleEndian(out, file_size, 8);
  PutLittleEndian(out, offset, 8);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

int Save(Bytes chunk, const std::string& label, std::string& local_name) {
  return zel::SavePrinterFile(static_cast<unsigned int>(chunk.size()), chunk.data(), label,
                              local_name);
}

// "file_operation.cpp SavePrinterFile(<line>): \"<kind>:\" \"<message>\""
bool IsDiagLine(const std::string& text, const std::string& kind, const std::string& message) {
  const std::string head = "file_operation.cpp SavePrinterFile(";
  const std::string tail = "): \"" + kind + ":\" \"" + message + "\"";
  if (text.size() <= head.size() + tail.size()) return false;
  const std::string line = text.substr(head.size(), text.size() - head.size() - tail.size());
  return text.rfind(head, 0) == 0 &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0 &&
         line.find_first_not_of("0123456789") == std::string::npos;
}

bool IsSymlink(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Each test runs in its own scratch folder, which is also the working
// directory (as root with no "orvane" process the local name is relative).
// As an ordinary user the application folder is redirected into it too.
class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (getuid() != 0) setenv("XDG_DATA_HOME", (scratch_ + "/data").c_str(), 1);
    ASSERT_EQ(0, chdir(scratch_.c_str()));
  }
  void TearDown() override {
    for (const std::string& path : cleanup_) unlink(path.c_str());
    ASSERT_EQ(0, chdir("/"));
    EXPECT_TRUE(dir_.Remove());
  }
  // A unique file name (stem + number + suffix) whose "/tmp/" file is
  // removed after the test.
  std::string TmpFileName(const std::string& stem, const std::string& suffix = "",
                          const std::string& prefix = "") {
    const std::string name = prefix + UniqueName(stem) + suffix;
    cleanup_.push_back("/tmp/" + name);
    return name;
  }

  // In /tmp itself: some tests need the scratch folder on /tmp's file system.
  zeltest::TempDir dir_{"zel_fileop", "/tmp"};
  // The scratch folder, without a trailing slash.
  const std::string scratch_ = dir_.path().substr(0, dir_.path().size() - 1);
  std::vector<std::string> cleanup_;
};

using FileOperation = FileTest;
using PrinterFile = FileTest;

// Printer-file tests that put a file at the local name: the application
// folder must exist, and where it belongs to a running client's user (root
// with an "orvane" process) it is not for tests to write.
class PrinterFileLocalCopy : public FileTest {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    if (HasFatalFailure()) return;
    folder_ = GetAppDataPath();
    if (getuid() == 0 && !folder_.empty()) {
      GTEST_SKIP() << "a process named orvane runs: its user's folder " << folder_
                   << " is not for tests to write";
    }
    if (!folder_.empty()) {
      ASSERT_EQ(0, std::system(("mkdir -p '" + folder_ + "'").c_str()));
    }
  }

  std::string folder_;
};

// --- small helpers ---

TEST_F(FileOperation, GetFileSizeGivesByteCount) {
  WriteFile(scratch_ + "/five", "12345");
  EXPECT_EQ(5, zel::getFileSize((scratch_ + "/five").c_str()));
}

TEST_F(FileOperation, GetFileSizeOfMissingFileIsZero) {
  EXPECT_EQ(0, zel::getFileSize((scratch_ + "/missing").c_str()));
}

TEST_F(FileOperation, GetFileSizeOfSymlinkIsTheLinksOwnSize) {
  const std::string target = scratch_ + "/target-with-a-long-name";
  WriteFile(target, std::string(1000, 'x'));
  ASSERT_EQ(0, symlink(target.c_str(), (scratch_ + "/link").c_str()));
  EXPECT_EQ(static_cast<long long>(target.size()), zel::getFileSize((scratch_ + "/link").c_str()));
}

TEST_F(FileOperation, FileExistsTellsPresence) {
  WriteFile(scratch_ + "/here", "x");
  EXPECT_TRUE(zel::fileExists((scratch_ + "/here").c_str()));
  EXPECT_FALSE(zel::fileExists((scratch_ + "/gone").c_str()));
}

TEST_F(FileOperation, DeleteFileRemovesOnceThenFails) {
  const std::string path = scratch_ + "/doomed";
  WriteFile(path, "x");
  EXPECT_TRUE(zel::deleteFile(path.c_str()));
  EXPECT_FALSE(zel::fileExists(path.c_str()));
  EXPECT_FALSE(zel::deleteFile(path.c_str()));
}

// --- SavePrinterFile: refusals ---

TEST_F(PrinterFile, BufferOf19BytesIsTooLittle) {
  Diagnostics diag;
  Bytes chunk(19, 0);
  std::string local_name = "unchanged";
  EXPECT_EQ(-1, zel::SavePrinterFile(19, chunk.data(), "user_", local_name));
  EXPECT_EQ("unchanged", local_name);
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(7, lines[0].level);
  EXPECT_EQ("ZEL_LOG", lines[0].tag);
  EXPECT_TRUE(IsDiagLine(lines[0].text, "Error", "buffer size too little")) << lines[0].text;
}

TEST_F(PrinterFile, TwentyByteBufferWithEmptyPathIsRefusedForHeaderOf21) {
  Diagnostics diag;
  Bytes chunk(20, 0);  // L = 0: the header alone needs 21 bytes
  std::string local_name = "unchanged";
  EXPECT_EQ(-1, Save(chunk, "user_", local_name));
  EXPECT_EQ("unchanged", local_name);
  EXPECT_EQ(1u, DiagCapture::Count("\"Error:\" \"no buffer to save, len = 21\""));
  EXPECT_EQ(1u, DiagCapture::Count("\"Debug:\" \"file size: 0,  offset:0\""));
  EXPECT_EQ(0u, DiagCapture::Count("save file path"));
}

TEST_F(PrinterFile, TruncatedHeaderIsRefusedWithItsLength) {
  Diagnostics diag;
  const std::string name = TmpFileName("trunc");
  Bytes chunk = Chunk(7, 2, "x/" + name, 100, 0, "data");
  chunk.resize(chunk.size() - 4 - 8);  // offset and data cut off
  std::string local_name = "unchanged";
  EXPECT_EQ(-1, Save(chunk, "user_", local_name));
  EXPECT_EQ("unchanged", local_name);
  const int header = static_cast<int>(("x/" + name).size()) + 21;
  EXPECT_EQ(1u, DiagCapture::Count(
                    "\"Error:\" \"no buffer to save, len = " + std::to_string(header) + "\""));
  EXPECT_FALSE(zel::fileExists(("/tmp/" + name).c_str()));
}

TEST_F(PrinterFile, OversizedPathLengthIsRefused) {
  Diagnostics diag;
  Bytes chunk(40, 'a');
  chunk[4] = 255;  // claims a 255-byte path in a 40-byte buffer
  std::string local_name = "unchanged";
  EXPECT_EQ(-1, Save(chunk, "user_", local_name));
  EXPECT_EQ("unchanged", local_name);
  EXPECT_EQ(1u, DiagCapture::Count("\"Error:\" \"no buffer to save, len = 276\""));
}

TEST_F(PrinterFile, PathWithoutSeparatorFailsToGiveFileName) {
  Diagnostics diag;
  const std::string name = TmpFileName("nosep");
  std::string local_name = "unchanged";
  EXPECT_EQ(-1, Save(Chunk(7, 2, name, 4, 0, "data"), "user_", local_name));
  EXPECT_EQ("unchanged", local_name);
  EXPECT_EQ(1u, DiagCapture::Count("\"Debug:\" \"save file path: " + name + "\""));
  EXPECT_EQ(1u, DiagCapture::Count("\"Error:\" \"get filename failed\""));
  EXPECT_FALSE(zel::fileExists(("/tmp/" + name).c_str()));
}

// --- SavePrinterFile: names ---

TEST_F(PrinterFile, LocalNameJoinsFolderBackslashIdsLabelAndFileName) {
  Diagnostics diag;
  const std::string name = TmpFileName("doc", ".prn");
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(7, 2, "x/" + name, 5, 0, "hello"), "user_", local_name));
  const std::string expected = GetAppDataPath() + "\\7_2_user_" + name;
  EXPECT_EQ(expected, local_name);
  EXPECT_EQ("hello", ReadFile("/tmp/" + name));
  EXPECT_EQ(1u, DiagCapture::Count("\"Debug:\" \"save to local name: " + expected + "\""));
  EXPECT_FALSE(zel::fileExists(local_name.c_str()));  // reported, never written
}

TEST_F(PrinterFile, DiagnosticsOfASuccessfulChunk) {
  Diagnostics diag;
  const std::string name = TmpFileName("diag");
  const std::string path = "spool/" + name;
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(1, 1, path, 1234, 4096, "abc"), "", local_name));
  const int header = static_cast<int>(path.size()) + 21;
  const std::vector<std::string> expected = {
      "file size: 1234,  offset:4096",
      "save file path: " + path,
      "save to local name: " + local_name,
      "file write start:" + std::to_string(header) + ", len: 3,  offset:4096",
  };
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(expected.size(), lines.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(5, lines[i].level);
    EXPECT_EQ("ZEL_LOG", lines[i].tag);
    EXPECT_TRUE(IsDiagLine(lines[i].text, "Debug", expected[i])) << lines[i].text;
  }
}

TEST_F(PrinterFile, BackslashPathGivesNameAfterLastBackslash) {
  const std::string name = TmpFileName("bs", ".prn");
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(3, 4, "C:\\spool\\" + name, 2, 0, "ok"), "job_", local_name));
  EXPECT_EQ(GetAppDataPath() + "\\3_4_job_" + name, local_name);
  EXPECT_EQ("ok", ReadFile("/tmp/" + name));
}

TEST_F(PrinterFile, SlashAnywhereWinsOverBackslashes) {
  const std::string name = TmpFileName("mixed", ".prn", "b\\");
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(3, 4, "a/" + name, 2, 0, "ok"), "", local_name));
  EXPECT_EQ(GetAppDataPath() + "\\3_4_" + name, local_name);
  EXPECT_EQ("ok", ReadFile("/tmp/" + name));
}

TEST_F(PrinterFile, HeaderIsLittleEndianAtAnyAlignment) {
  Diagnostics diag;
  const std::string name = TmpFileName("endian");
  Bytes chunk = Chunk(0x0102, 0x0304, "p/" + name, 0x0102030405060708ull, 3, "xyz");
  chunk.insert(chunk.begin(), 0xEE);  // odd start address
  std::string local_name;
  ASSERT_EQ(0, zel::SavePrinterFile(static_cast<unsigned int>(chunk.size() - 1), chunk.data() + 1,
                                    "", local_name));
  EXPECT_EQ(GetAppDataPath() + "\\258_772_" + name, local_name);
  EXPECT_EQ(1u, DiagCapture::Count("file size: 72623859790382856,  offset:3\""));
  EXPECT_EQ(std::string(3, '\0') + "xyz", ReadFile("/tmp/" + name));
}

// --- SavePrinterFile: writing ---

TEST_F(PrinterFile, BufferOfExactlyHeaderLengthCreatesEmptyFile) {
  const std::string name = TmpFileName("empty");
  std::string local_name;
  EXPECT_EQ(0, Save(Chunk(7, 2, "x/" + name, 0, 0, ""), "user_", local_name));
  EXPECT_TRUE(zel::fileExists(("/tmp/" + name).c_str()));
  EXPECT_EQ(0, zel::getFileSize(("/tmp/" + name).c_str()));
}

TEST_F(PrinterFile, ChunksInAnyOrderGiveTheSameFile) {
  const std::string first(4096, 'A');
  const std::string second = "tail of the print job";
  const uint64_t total = first.size() + second.size();
  std::string contents[2];
  for (int order = 0; order < 2; ++order) {
    const std::string name = TmpFileName("order");
    std::string local_name;
    const Bytes head = Chunk(7, 2, "x/" + name, total, 0, first);
    const Bytes tail = Chunk(7, 2, "x/" + name, total, 4096, second);
    ASSERT_EQ(0, Save(order == 0 ? head : tail, "user_", local_name));
    ASSERT_EQ(0, Save(order == 0 ? tail : head, "user_", local_name));
    contents[order] = ReadFile("/tmp/" + name);
  }
  EXPECT_EQ(first + second, contents[0]);
  EXPECT_EQ(contents[0], contents[1]);
}

TEST_F(PrinterFileLocalCopy, FirstChunkRemovesLocalNameFileNotTmpFile) {
  const std::string name = TmpFileName("remove");
  const std::string expected_local = folder_ + "\\7_2_user_" + name;
  WriteFile(expected_local, "stale local copy");
  WriteFile("/tmp/" + name, "0123456789");
  ASSERT_TRUE(zel::fileExists(expected_local.c_str()));

  Diagnostics diag;
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(7, 2, "x/" + name, 2, 0, "ab"), "user_", local_name));
  EXPECT_EQ(expected_local, local_name);
  EXPECT_FALSE(zel::fileExists(expected_local.c_str()));
  EXPECT_EQ(1u, DiagCapture::Count("\"Debug:\" \"" + expected_local + " exist, delete\""));
  // The /tmp file was neither removed nor truncated.
  EXPECT_EQ("ab23456789", ReadFile("/tmp/" + name));
}

TEST_F(PrinterFileLocalCopy, LaterChunkLeavesLocalNameFile) {
  const std::string name = TmpFileName("keep");
  const std::string local = folder_ + "\\7_2_user_" + name;
  WriteFile(local, "kept");
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(7, 2, "x/" + name, 4, 2, "cd"), "user_", local_name));
  EXPECT_EQ("kept", ReadFile(local));
  unlink(local.c_str());
}

TEST_F(PrinterFile, ExistingTmpFileIsNotTruncated) {
  const std::string name = TmpFileName("notrunc");
  WriteFile("/tmp/" + name, "XXXXXXXXXX");
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(1, 1, "x/" + name, 10, 2, "ab"), "", local_name));
  EXPECT_EQ("XXabXXXXXX", ReadFile("/tmp/" + name));
}

TEST_F(PrinterFile, FailedWriteReturnsItsNegativeResult) {
  const std::string name = TmpFileName("badoffset");
  std::string local_name;
  // An offset past the largest off_t makes pwrite fail with -1.
  EXPECT_EQ(-1, Save(Chunk(1, 1, "x/" + name, 1, 0x8000000000000000ull, "z"), "", local_name));
  EXPECT_EQ(0, zel::getFileSize(("/tmp/" + name).c_str()));
}

// Whether one byte at `offset` fits in a fresh file on /tmp's file system:
// ext4 ends files at 16 TiB, tmpfs just short of 2^63.
bool TmpTakesOneByteAt(uint64_t offset) {
  char probe[] = "/tmp/zel_fileop_probe_XXXXXX";
  const int fd = mkstemp(probe);
  if (fd < 0) {
    ADD_FAILURE() << "mkstemp: " << errno;
    return false;
  }
  const bool taken = pwrite(fd, "z", 1, static_cast<off_t>(offset)) == 1;
  close(fd);
  unlink(probe);
  return taken;
}

TEST_F(PrinterFile, OffsetsNear2To63AndAboveFailWithTheWritesResult) {
  // The end past 2^63 - 1, or a negative off_t: pwrite fails on any file system.
  for (const uint64_t offset :
       {0x7fffffffffffffffull, 0x8000000000000000ull, 0xffffffffffffffffull}) {
    SCOPED_TRACE(offset);
    const std::string name = TmpFileName("far");
    std::string local_name;
    EXPECT_EQ(-1, Save(Chunk(1, 1, "x/" + name, 1, offset, "z"), "", local_name));
    EXPECT_EQ(0, zel::getFileSize(("/tmp/" + name).c_str()));
  }
  // 2^63 - 2 is the file system's call; the result follows pwrite's either way.
  const uint64_t offset = 0x7ffffffffffffffeull;
  const bool fits = TmpTakesOneByteAt(offset);
  SCOPED_TRACE(fits ? "/tmp takes a byte at 2^63 - 2" : "/tmp refuses a byte at 2^63 - 2");
  const std::string name = TmpFileName("far");
  std::string local_name;
  EXPECT_EQ(fits ? 0 : -1, Save(Chunk(1, 1, "x/" + name, 1, offset, "z"), "", local_name));
  const std::string path = "/tmp/" + name;
  EXPECT_EQ(fits ? static_cast<long long>(offset) + 1 : 0, zel::getFileSize(path.c_str()));
  if (fits) {
    const int fd = open(path.c_str(), O_RDONLY);
    ASSERT_LE(0, fd);
    char byte = 0;
    EXPECT_EQ(1, pread(fd, &byte, 1, static_cast<off_t>(offset)));
    close(fd);
    EXPECT_EQ('z', byte);
  }
}

TEST_F(PrinterFile, HeaderOneByteShortOfPathLengthPlus21IsRefusedAndExactlyItIsAccepted) {
  const std::string name = TmpFileName("edge");
  const std::string path = "x/" + name;
  const int header = static_cast<int>(path.size()) + 21;
  Bytes chunk = Chunk(7, 2, path, 0, 0, "");
  ASSERT_EQ(static_cast<size_t>(header), chunk.size());
  {
    Diagnostics diag;
    std::string local_name = "unchanged";
    Bytes short_by_one(chunk.begin(), chunk.end() - 1);
    EXPECT_EQ(-1, Save(short_by_one, "user_", local_name));
    EXPECT_EQ("unchanged", local_name);
    EXPECT_EQ(1u, DiagCapture::Count(
                      "\"Error:\" \"no buffer to save, len = " + std::to_string(header) + "\""));
    EXPECT_FALSE(zel::fileExists(("/tmp/" + name).c_str()));
  }
  Diagnostics diag;
  std::string local_name;
  EXPECT_EQ(0, Save(chunk, "user_", local_name));
  EXPECT_EQ(1u, DiagCapture::Count("\"Debug:\" \"file write start:" + std::to_string(header) +
                                   ", len: 0,  offset:0\""));
  EXPECT_TRUE(zel::fileExists(("/tmp/" + name).c_str()));
}

// --- SavePrinterFile: hostile paths ---

TEST_F(PrinterFile, SymlinkPlantedAtTmpNameIsRefusedAndTargetUntouched) {
  const std::string name = TmpFileName("planted");
  const std::string target = scratch_ + "/victim";
  WriteFile(target, "precious");
  ASSERT_EQ(0, symlink(target.c_str(), ("/tmp/" + name).c_str()));
  Diagnostics diag;
  std::string local_name;
  EXPECT_EQ(-1, Save(Chunk(7, 2, "x/" + name, 5, 0, "owned"), "user_", local_name));
  EXPECT_EQ(0u, DiagCapture::Count("file write start"));  // refused at open, silently
  EXPECT_EQ(0u, DiagCapture::Count("\"Error:\""));
  EXPECT_EQ("precious", ReadFile(target));
  EXPECT_TRUE(IsSymlink("/tmp/" + name));
}

TEST_F(PrinterFile, HardLinkPlantedAtTmpNameIsRefusedAndTargetUntouched) {
  const std::string name = TmpFileName("hardlink");
  const std::string victim = scratch_ + "/victim";  // same file system as /tmp
  WriteFile(victim, "precious");
  ASSERT_EQ(0, link(victim.c_str(), ("/tmp/" + name).c_str()));
  std::string local_name;
  EXPECT_EQ(-1, Save(Chunk(7, 2, "x/" + name, 5, 0, "owned"), "user_", local_name));
  EXPECT_EQ("precious", ReadFile(victim));
  struct stat st;
  ASSERT_EQ(0, stat(victim.c_str(), &st));
  EXPECT_EQ(2u, st.st_nlink);  // nothing was unlinked either
}

TEST_F(PrinterFile, FileOfAnotherUserAtTmpNameIsRefusedAndUntouched) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
  const std::string name = TmpFileName("theirs");
  WriteFile("/tmp/" + name, "theirs");
  ASSERT_EQ(0, chown(("/tmp/" + name).c_str(), 65534, 65534));
  std::string local_name;
  EXPECT_EQ(-1, Save(Chunk(7, 2, "x/" + name, 5, 0, "owned"), "user_", local_name));
  EXPECT_EQ("theirs", ReadFile("/tmp/" + name));
}

TEST_F(PrinterFile, FifoOrDirectoryAtTmpNameIsRefused) {
  const std::string fifo = TmpFileName("fifo");
  ASSERT_EQ(0, mkfifo(("/tmp/" + fifo).c_str(), 0600));
  const std::string dir = TmpFileName("dir");
  ASSERT_EQ(0, mkdir(("/tmp/" + dir).c_str(), 0700));
  std::string local_name;
  EXPECT_EQ(-1, Save(Chunk(7, 2, "x/" + fifo, 5, 0, "data"), "user_", local_name));
  EXPECT_EQ(-1, Save(Chunk(7, 2, "x/" + dir, 5, 0, "data"), "user_", local_name));
  rmdir(("/tmp/" + dir).c_str());
}

TEST_F(PrinterFile, DanglingSymlinkIsNotFollowedToCreateItsTarget) {
  const std::string name = TmpFileName("dangling");
  const std::string target = scratch_ + "/created-through-link";
  ASSERT_EQ(0, symlink(target.c_str(), ("/tmp/" + name).c_str()));
  std::string local_name;
  EXPECT_EQ(-1, Save(Chunk(7, 2, "x/" + name, 5, 0, "owned"), "user_", local_name));
  EXPECT_FALSE(zel::fileExists(target.c_str()));
}

TEST_F(PrinterFile, DotDotDotAndEmptyNamesFailCleanly) {
  struct Case {
    const char* path;
    const char* file_name;
  };
  for (const Case& c : {Case{"x/..", ".."}, Case{"x/.", "."}, Case{"x/", ""}, Case{"..\\..\\", ""},
                        Case{"\\", ""}}) {
    SCOPED_TRACE(c.path);
    std::string local_name;
    // Named (an empty name is not refused as such), then /tmp itself fails to open.
    EXPECT_EQ(-1, Save(Chunk(7, 2, c.path, 4, 4, "data"), "user_", local_name));
    EXPECT_EQ(GetAppDataPath() + "\\7_2_user_" + c.file_name, local_name);
  }
  struct stat st;
  ASSERT_EQ(0, lstat("/tmp", &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(PrinterFile, LocalNameIsCutTo259Characters) {
  const std::string name = TmpFileName("long");
  std::string local_name;
  ASSERT_EQ(0, Save(Chunk(7, 2, "x/" + name, 1, 0, "z"), std::string(300, 'L'), local_name));
  const std::string full = GetAppDataPath() + "\\7_2_" + std::string(300, 'L') + name;
  EXPECT_EQ(full.substr(0, 259), local_name);
  EXPECT_EQ("z", ReadFile("/tmp/" + name));
}

TEST_F(PrinterFile, NoSlashSurvivesInTheFileName) {
  const std::string name = TmpFileName("escape");
  const std::string up = "../../../../../../../..";
  for (const std::string& path : {up + scratch_ + "/" + name, "/tmp/.." + scratch_ + "/" + name,
                                  std::string("..\\..\\") + name}) {
    SCOPED_TRACE(path);
    std::string local_name;
    ASSERT_EQ(0, Save(Chunk(7, 2, path, 3, 0, "abc"), "user_", local_name));
    EXPECT_EQ(std::string::npos, local_name.substr(GetAppDataPath().size()).find('/'));
    EXPECT_EQ("abc", ReadFile("/tmp/" + name));
    EXPECT_FALSE(zel::fileExists((scratch_ + "/" + name).c_str()));
    unlink(("/tmp/" + name).c_str());
  }
}

}  // namespace
