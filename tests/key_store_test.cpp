#include "utils/key_store.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/child_run.h"
#include "support/files.h"
#include "support/libc_stand_ins.h"
#include "support/sync.h"
#include "utils/process_info.h"

namespace {

namespace fs = std::filesystem;
using zeltest::ChildResult;

using zeltest::ReadFile;
using zeltest::WriteFile;

// Every test of this file uses the one settings file of the login (or the
// process table, for the root case of the paths); ctest runs test cases in
// parallel processes, so they take turns through an exclusive file lock.
// Opened read-only (enough for flock) so that root and ordinary users can
// share a lock file that either of them created.
class SharedFileLock {
 public:
  SharedFileLock() {
    constexpr char kPath[] = "/tmp/zel_key_store_test.lock";
    fd_ = open(kPath, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0 && errno == ENOENT) fd_ = open(kPath, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ >= 0 && flock(fd_, LOCK_EX) != 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~SharedFileLock() {
    if (fd_ >= 0) close(fd_);  // closing releases the lock
  }
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// A file that was at `path` before the test, put back afterwards.
class SavedFile {
 public:
  explicit SavedFile(std::string path) : path_(std::move(path)) {
    std::error_code error;
    existed_ = fs::is_regular_file(path_, error);
    if (existed_) {
      bytes_ = ReadFile(path_);
      mode_ = fs::status(path_, error).permissions();
    }
  }
  ~SavedFile() {
    std::error_code error;
    fs::remove_all(path_, error);
    if (existed_) {
      WriteFile(path_, bytes_);
      fs::permissions(path_, mode_, error);
    }
  }

 private:
  std::string path_;
  bool existed_ = false;
  std::string bytes_;
  fs::perms mode_ = fs::perms::none;
};

std::string LoginName() {
  if (const char* login = getlogin()) return login;
  const passwd* pw = getpwuid(getuid());
  return pw != nullptr ? pw->pw_name : "";
}

std::string ConfigFilePath() {
  char* path = GetConfigFilePath();
  if (path == nullptr) return "<null>";
  std::string text = path;
  std::free(path);
  return text;
}

// The real settings file of this login, saved before and restored after each
// test, with any folders that had to be made for it removed again. Its
// folder lies under /Users, which only root can usually make: a test that
// needs to write the file is skipped when the folder cannot be made.
class KeyStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(lock_.held());
    char* path = GetConfigFilePath();
    ASSERT_NE(nullptr, path);
    path_ = path;
    std::free(path);
    saved_.emplace_back(path_);
    saved_.emplace_back(path_ + ".tmp");
    const bool folder = MakeParentFolders();
    if (NeedsSettingsFolder() && !folder) {
      GTEST_SKIP() << "cannot make or write " << fs::path(path_).parent_path()
                   << " as this user (root can)";
    }
    std::error_code error;
    fs::remove_all(path_, error);
    fs::remove_all(path_ + ".tmp", error);
  }
  void TearDown() override {
    saved_.clear();
    for (auto it = created_.rbegin(); it != created_.rend(); ++it) rmdir(it->c_str());
  }

  virtual bool NeedsSettingsFolder() const { return true; }

  // True when the settings file's folder exists (or was made) and is writable.
  bool MakeParentFolders() {
    const fs::path parent = fs::path(path_).parent_path();
    std::vector<std::string> missing;
    for (fs::path folder = parent; !fs::exists(folder); folder = folder.parent_path()) {
      missing.push_back(folder.string());
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
      if (mkdir(it->c_str(), 0755) != 0) return false;
      created_.push_back(*it);
    }
    return access(parent.c_str(), W_OK | X_OK) == 0;
  }

  void Settings(const std::string& bytes) { WriteFile(path_, bytes); }
  std::string Settings() const { return ReadFile(path_); }

  static std::string Get(const char* section, const char* key) {
    char* value = GetKeyString(section, key);
    EXPECT_NE(nullptr, value);
    if (value == nullptr) return "<null>";
    std::string text = value;
    std::free(value);
    return text;
  }

  SharedFileLock lock_;
  std::string path_;
  std::vector<SavedFile> saved_;
  std::vector<std::string> created_;
};

// The same, for tests that hold whether or not the folder can be made (the
// path, and what happens when there is no settings file).
class KeyStoreAnyUserTest : public KeyStoreTest {
 protected:
  bool NeedsSettingsFolder() const override { return false; }
};

// ---- the path ----

TEST_F(KeyStoreAnyUserTest, ConfigFilePathIsUsersLoginClientConfigIni) {
  EXPECT_EQ("/Users/" + LoginName() + "/client_config.ini", path_);
}

// ---- reading ----

TEST_F(KeyStoreAnyUserTest, MissingFileGivesEmptyValueAndPrintsFopenError) {
  testing::internal::CaptureStderr();
  const std::string value = Get("net", "port");
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_EQ("", value);
  EXPECT_NE(std::string::npos, printed.find("fopen: No such file or directory")) << printed;
}

TEST_F(KeyStoreAnyUserTest, MissingFileGivesIntZero) { EXPECT_EQ(0, GetKeyInt("net", "port")); }

TEST_F(KeyStoreTest, KeyEqualToLineNameIsFound) {
  Settings("[net]\nport=80\n");
  EXPECT_EQ("80", Get("net", "port"));
  EXPECT_EQ(80, GetKeyInt("net", "port"));
}

TEST_F(KeyStoreTest, KeyShorterThanLineNameIsNotFound) {
  Settings("[net]\nport=80\n");
  EXPECT_EQ("", Get("net", "po"));
  EXPECT_EQ(0, GetKeyInt("net", "po"));
}

TEST_F(KeyStoreTest, LineNameThatIsPrefixOfKeyMatches) {
  Settings("[net]\nport=80\n");
  EXPECT_EQ("80", Get("net", "portal"));
}

TEST_F(KeyStoreTest, BlankBeforeEqualsSignIsPartOfTheName) {
  Settings("[net]\nport =80\n");
  EXPECT_EQ("", Get("net", "port"));
  EXPECT_EQ("80", Get("net", "port "));
}

TEST_F(KeyStoreTest, ValuesAreNotTrimmed) {
  Settings("[net]\nhost= local host \n");
  EXPECT_EQ(" local host ", Get("net", "host"));
}

TEST_F(KeyStoreTest, SectionIsNeverLeftOnceEntered) {
  Settings("[a]\nx=1\n[b]\ny=2\n");
  EXPECT_EQ("2", Get("a", "y"));
}

TEST_F(KeyStoreTest, KeysBeforeTheHeaderAreIgnored) {
  Settings("[a]\nx=1\n[b]\ny=2\n");
  EXPECT_EQ("", Get("b", "x"));
}

TEST_F(KeyStoreTest, MissingSectionGivesEmptyValue) {
  Settings("[a]\nx=1\n");
  EXPECT_EQ("", Get("c", "x"));
}

TEST_F(KeyStoreTest, FirstMatchingLineWins) {
  Settings("[a]\nk=1\nk=2\n");
  EXPECT_EQ("1", Get("a", "k"));
}

TEST_F(KeyStoreTest, LastLineWithoutNewlineLosesItsLastCharacter) {
  Settings("[s]\nk=12");
  EXPECT_EQ("1", Get("s", "k"));
  EXPECT_EQ(1, GetKeyInt("s", "k"));
}

TEST_F(KeyStoreTest, LastLineWithOneCharacterValueAndNoNewlineIsEmpty) {
  Settings("[s]\nk=5");
  EXPECT_EQ("", Get("s", "k"));
  EXPECT_EQ(0, GetKeyInt("s", "k"));
}

TEST_F(KeyStoreTest, HashCommentInsideSectionIsSkipped) {
  Settings("[s]\n#k=1\nk=2\n");
  EXPECT_EQ("2", Get("s", "k"));
  EXPECT_EQ("", Get("s", "#k"));
}

TEST_F(KeyStoreTest, SlashCommentInsideSectionIsSkipped) {
  Settings("[s]\n//k=1\nk=2\n");
  EXPECT_EQ("2", Get("s", "k"));
  EXPECT_EQ("", Get("s", "//k"));
}

TEST_F(KeyStoreTest, CommentedHeaderDoesNotOpenTheSection) {
  Settings("#[s]\nk=1\n");
  EXPECT_EQ("", Get("s", "k"));
}

TEST_F(KeyStoreTest, LineWithEmptyNameMatchesEveryKey) {
  Settings("[s]\n=7\nk=1\n");
  EXPECT_EQ("7", Get("s", "k"));
}

TEST_F(KeyStoreTest, LineThatIsTheStartOfTheHeaderOpensTheSection) {
  Settings("[ne\nport=80\n");
  EXPECT_EQ("80", Get("net", "port"));
}

TEST_F(KeyStoreTest, HeaderWithTrailingTextDoesNotOpenTheSection) {
  Settings("[net] ; comment\nport=80\n");
  EXPECT_EQ("", Get("net", "port"));
}

TEST_F(KeyStoreTest, SectionNameOf29CharactersMatchesItsHeader) {
  const std::string section(29, 's');
  Settings("[" + section + "]\nk=1\n");
  EXPECT_EQ("1", Get(section.c_str(), "k"));
}

TEST_F(KeyStoreTest, LongSectionNameIsComparedAsItsCutHeader) {
  const std::string section(40, 's');
  Settings("[" + section + "]\nk=1\n");
  EXPECT_EQ("", Get(section.c_str(), "k"));
  // The header kept in 32 bytes is "[" and the first 30 characters.
  Settings("[" + section.substr(0, 30) + "\nk=1\n");
  EXPECT_EQ("1", Get(section.c_str(), "k"));
}

TEST_F(KeyStoreTest, EmptyValueGivesIntZero) {
  Settings("[s]\nk=\nn=abc\nm=12abc\n");
  EXPECT_EQ("", Get("s", "k"));
  EXPECT_EQ(0, GetKeyInt("s", "k"));
  EXPECT_EQ(0, GetKeyInt("s", "n"));
  EXPECT_EQ(12, GetKeyInt("s", "m"));
}

TEST_F(KeyStoreTest, NegativeIntIsRead) {
  Settings("[s]\nk=-42\n");
  EXPECT_EQ(-42, GetKeyInt("s", "k"));
}

TEST_F(KeyStoreTest, ValueOf31CharactersIsReturnedWhole) {
  const std::string value(31, 'v');
  Settings("[s]\nk=" + value + "\n");
  EXPECT_EQ(value, Get("s", "k"));
}

TEST_F(KeyStoreTest, ValueOf32CharactersIsCutTo31) {
  const std::string value = std::string(31, 'v') + "w";
  Settings("[s]\nk=" + value + "\n");
  EXPECT_EQ(std::string(31, 'v'), Get("s", "k"));
}

TEST_F(KeyStoreTest, ValueOf500CharactersIsCutTo31) {
  std::string value;
  for (int i = 0; i < 500; ++i) value += static_cast<char>('a' + i % 26);
  Settings("[s]\nk=" + value + "\nnext=1\n");
  EXPECT_EQ(value.substr(0, 31), Get("s", "k"));
  EXPECT_EQ("1", Get("s", "next"));
}

TEST_F(KeyStoreTest, LineLongerThan1023BytesIsReadInPieces) {
  // The second 1023-byte piece of the long line reads as a line of its own.
  Settings("[s]\n" + std::string(1023, 'x') + "k=7\n");
  EXPECT_EQ("7", Get("s", "k"));
}

TEST_F(KeyStoreTest, LongLinesBeforeTheKeyDoNotHideIt) {
  Settings("[s]\nlong=" + std::string(3000, 'a') + "\n#" + std::string(2000, 'c') + "\nk=5\n");
  EXPECT_EQ("5", Get("s", "k"));
  EXPECT_EQ(std::string(31, 'a'), Get("s", "long"));
}

TEST_F(KeyStoreTest, BinaryJunkGivesEmptyValue) {
  std::string junk;
  for (int i = 0; i < 5000; ++i) junk += static_cast<char>((i * 37 + 11) % 256);
  Settings(junk);
  EXPECT_EQ("", Get("s", "k"));
  Settings("[s]\n" + junk + "\n");
  const std::string value = Get("s", "k");
  EXPECT_LE(value.size(), 31u);
}

TEST_F(KeyStoreTest, NullSectionReadsAsTheHeaderOfTheTextNull) {
  Settings("[s]\nk=1\n");
  EXPECT_EQ("", Get(nullptr, "k"));
  Settings("[(null)]\nk=2\n");
  EXPECT_EQ("2", Get(nullptr, "k"));
}

TEST_F(KeyStoreTest, NullKeyReadsAsEmpty) {
  Settings("[s]\nk=1\n");
  EXPECT_EQ("", Get("s", nullptr));
}

TEST_F(KeyStoreTest, PutKeyStringWithNullValueWritesTheTextNull) {
  Settings("[s]\nk=1\n");
  EXPECT_EQ(0, PutKeyString("s", "k", nullptr));
  EXPECT_EQ("[s]\nk=(null)\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringWithNullSectionLooksForTheHeaderOfTheTextNull) {
  Settings("[s]\nk=1\n[(null)]\nk=2\n");
  EXPECT_EQ(0, PutKeyString(nullptr, "k", "3"));
  EXPECT_EQ("[s]\nk=1\n[(null)]\nk=3\n", Settings());
}

TEST_F(KeyStoreTest, ResultIsAFreshBlockEveryCall) {
  Settings("[s]\nk=1\n");
  char* first = GetKeyString("s", "k");
  char* second = GetKeyString("s", "k");
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  EXPECT_STREQ("1", first);
  std::free(first);
  std::free(second);
}

// ---- writing ----

TEST_F(KeyStoreTest, PutKeyStringReplacesTheValue) {
  Settings("[net]\nhost=a\nport=80\n[other]\nport=1\n");
  EXPECT_EQ(0, PutKeyString("net", "port", "8080"));
  EXPECT_EQ("[net]\nhost=a\nport=8080\n[other]\nport=1\n", Settings());
  EXPECT_EQ("8080", Get("net", "port"));
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
}

TEST_F(KeyStoreTest, PutKeyStringOfAbsentKeyLeavesFileUnchanged) {
  const std::string text = "// settings\n[net]\nport=80\n\n# end\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("net", "host", "x"));
  EXPECT_EQ(text, Settings());
}

TEST_F(KeyStoreTest, PutKeyStringOfAbsentSectionLeavesFileUnchanged) {
  const std::string text = "[net]\nport=80\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("web", "port", "1"));
  EXPECT_EQ(text, Settings());
}

TEST_F(KeyStoreTest, PutKeyStringReplacesOnlyTheFirstMatch) {
  Settings("[s]\nk=1\nk=2\n");
  EXPECT_EQ(0, PutKeyString("s", "k", "9"));
  EXPECT_EQ("[s]\nk=9\nk=2\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringKeepsTheLineNameOfAPrefixMatch) {
  Settings("[s]\nab=1\n");
  EXPECT_EQ(0, PutKeyString("s", "abc", "2"));
  EXPECT_EQ("[s]\nab=2\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringNeverLeavesTheSection) {
  Settings("[a]\nx=1\n[b]\ny=2\n");
  EXPECT_EQ(0, PutKeyString("a", "y", "3"));
  EXPECT_EQ("[a]\nx=1\n[b]\ny=3\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringIgnoresKeysBeforeTheHeader) {
  const std::string text = "[a]\nx=1\n[b]\ny=2\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("b", "x", "3"));
  EXPECT_EQ(text, Settings());
}

TEST_F(KeyStoreTest, PutKeyStringTreatsCommentLinesAsKeyLines) {
  Settings("[s]\n#k=1\nk=2\n");
  EXPECT_EQ(0, PutKeyString("s", "#k", "3"));
  EXPECT_EQ("[s]\n#k=3\nk=2\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringTakesAnEmptyLineForTheHeader) {
  // A one-byte line has no characters left to compare once the newline is
  // ignored, so it counts as the header.
  Settings("\n[b]\nk=1\n");
  EXPECT_EQ(0, PutKeyString("a", "k", "2"));
  EXPECT_EQ("\n[b]\nk=2\n", Settings());
}

TEST_F(KeyStoreTest, GetKeyStringSkipsTheEmptyLineThatPutKeyStringTakesForTheHeader) {
  // The same file as above, read instead of written: lookups skip lines
  // shorter than two bytes, so section "a" is never entered.
  Settings("\n[b]\nk=1\n");
  EXPECT_EQ("", Get("a", "k"));
  EXPECT_EQ("1", Get("b", "k"));
}

TEST_F(KeyStoreTest, PutKeyStringOnLastLineWithoutNewlineAddsOne) {
  Settings("[s]\nk=12");
  EXPECT_EQ(0, PutKeyString("s", "k", "34"));
  EXPECT_EQ("[s]\nk=34\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringWritesLongValuesWhole) {
  const std::string value(500, 'v');
  Settings("[s]\nk=1\nnext=2\n");
  EXPECT_EQ(0, PutKeyString("s", "k", value.c_str()));
  EXPECT_EQ("[s]\nk=" + value + "\nnext=2\n", Settings());
  EXPECT_EQ(std::string(31, 'v'), Get("s", "k"));
}

TEST_F(KeyStoreTest, PutKeyStringCutsAValueThatExceedsTheLineAndKeepsTheNewline) {
  const std::string value(3000, 'v');
  Settings("[s]\nk=1\nnext=2\n");
  EXPECT_EQ(0, PutKeyString("s", "k", value.c_str()));
  EXPECT_EQ("[s]\nk=" + std::string(1020, 'v') + "\nnext=2\n", Settings());
  EXPECT_EQ("2", Get("s", "next"));
}

TEST_F(KeyStoreTest, PutKeyStringKeepsLongLinesByteForByte) {
  const std::string text = "[s]\nlong=" + std::string(3000, 'a') + "\n#" + std::string(1500, 'c') +
                           "\nk=1\nafter=" + std::string(2000, 'b') + "\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("s", "missing", "x"));
  EXPECT_EQ(text, Settings());
  EXPECT_EQ(0, PutKeyString("s", "k", "2"));
  const std::string expected = "[s]\nlong=" + std::string(3000, 'a') + "\n#" +
                               std::string(1500, 'c') + "\nk=2\nafter=" + std::string(2000, 'b') +
                               "\n";
  EXPECT_EQ(expected, Settings());
}

TEST_F(KeyStoreTest, PutKeyStringKeepsBinaryJunkByteForByte) {
  std::string junk;
  for (int i = 0; i < 5000; ++i) junk += static_cast<char>((i * 37 + 11) % 256);
  Settings(junk + "\n[s]\nk=1\n");
  EXPECT_EQ(0, PutKeyString("zz", "k", "2"));
  EXPECT_EQ(junk + "\n[s]\nk=1\n", Settings());
}

TEST_F(KeyStoreAnyUserTest, PutKeyStringOfMissingFileReturnsMinusTwo) {
  EXPECT_EQ(-2, PutKeyString("s", "k", "1"));
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
}

TEST_F(KeyStoreTest, PutKeyStringWithoutTemporaryFileReturnsMinusOne) {
  const std::string text = "[s]\nk=1\n";
  Settings(text);
  ASSERT_EQ(0, mkdir((path_ + ".tmp").c_str(), 0755));  // a folder cannot be opened for writing
  EXPECT_EQ(-1, PutKeyString("s", "k", "2"));
  EXPECT_EQ(text, Settings());
}

TEST_F(KeyStoreTest, PutKeyStringReturnsTheFailureOfRename) {
  ASSERT_EQ(0, mkdir(path_.c_str(), 0755));  // readable, but cannot be renamed over
  EXPECT_EQ(-1, PutKeyString("s", "k", "2"));
  EXPECT_TRUE(fs::is_directory(path_));
}

TEST_F(KeyStoreTest, PutKeyIntWritesNegativeNumber) {
  Settings("[s]\nk=1\n");
  EXPECT_EQ(0, PutKeyInt("s", "k", -7));
  EXPECT_EQ("[s]\nk=-7\n", Settings());
  EXPECT_EQ(-7, GetKeyInt("s", "k"));
}

TEST_F(KeyStoreAnyUserTest, PutKeyIntOfMissingFileReturnsMinusTwo) {
  EXPECT_EQ(-2, PutKeyInt("s", "k", 3));
}

TEST_F(KeyStoreTest, PutKeyIntWritesExtremes) {
  Settings("[s]\na=1\nb=2\n");
  EXPECT_EQ(0, PutKeyInt("s", "a", -2147483647 - 1));
  EXPECT_EQ(0, PutKeyInt("s", "b", 2147483647));
  EXPECT_EQ("[s]\na=-2147483648\nb=2147483647\n", Settings());
}

// ---- fixed sizes: lines are read in pieces of at most 1023 bytes ----

// A name=value line of exactly `bytes` bytes, newline included, whose name
// is all 'n' (as long as it must be).
std::string NameForLineOf(size_t bytes, const std::string& value) {
  return std::string(bytes - value.size() - 2, 'n');
}

TEST_F(KeyStoreTest, LineOf1022BytesIsReadAsOneLine) {
  const std::string name = NameForLineOf(1022, "12");
  Settings("[s]\n" + name + "=12\n");
  EXPECT_EQ("12", Get("s", name.c_str()));
  EXPECT_EQ(12, GetKeyInt("s", name.c_str()));
}

TEST_F(KeyStoreTest, LineOf1023BytesIsReadAsOneLine) {
  const std::string name = NameForLineOf(1023, "12");
  Settings("[s]\n" + name + "=12\n");
  EXPECT_EQ("12", Get("s", name.c_str()));
  EXPECT_EQ(12, GetKeyInt("s", name.c_str()));
}

TEST_F(KeyStoreTest, LineOf1024BytesLosesItsNewlineToTheNextPieceAndTheValueItsLastCharacter) {
  const std::string name = NameForLineOf(1024, "12");
  Settings("[s]\n" + name + "=12\nnext=3\n");
  EXPECT_EQ("1", Get("s", name.c_str()));
  EXPECT_EQ(1, GetKeyInt("s", name.c_str()));
  EXPECT_EQ("3", Get("s", "next"));  // the lone newline piece is skipped
}

TEST_F(KeyStoreTest, SecondPieceOfA2000ByteLineIsReadAsALineOfItsOwn) {
  // 1996 'n' then "=12\n": the first piece is 1023 'n', the second holds
  // the other 973 'n' and "=12", so only the shorter name finds the value.
  const std::string name = NameForLineOf(2000, "12");
  Settings("[s]\n" + name + "=12\n");
  const std::string tail(name.size() - 1023, 'n');
  EXPECT_EQ("12", Get("s", tail.c_str()));
  EXPECT_EQ(12, GetKeyInt("s", tail.c_str()));
  EXPECT_EQ("", Get("s", std::string(tail.size() - 1, 'n').c_str()));
}

TEST_F(KeyStoreTest, SecondPieceOfA2000ByteCommentLineIsNotAComment) {
  const std::string value(974, 'v');
  Settings("[s]\n#" + std::string(1022, 'c') + "k=" + value + "\n");
  EXPECT_EQ(value.substr(0, 31), Get("s", "k"));
}

// "k=" and a value of `bytes` - 3 'v', so that the line is `bytes` long.
std::string KeyLineOf(size_t bytes) { return "k=" + std::string(bytes - 3, 'v') + "\n"; }

TEST_F(KeyStoreTest, PutKeyStringCopiesAndRewritesALineOf1022Bytes) {
  const std::string text = "[s]\n" + KeyLineOf(1022) + "next=1\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("s", "absent", "x"));
  EXPECT_EQ(text, Settings());
  EXPECT_EQ(0, PutKeyString("s", "k", "x"));
  EXPECT_EQ("[s]\nk=x\nnext=1\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringCopiesAndRewritesALineOf1023Bytes) {
  const std::string text = "[s]\n" + KeyLineOf(1023) + "next=1\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("s", "absent", "x"));
  EXPECT_EQ(text, Settings());
  EXPECT_EQ(0, PutKeyString("s", "k", "x"));
  EXPECT_EQ("[s]\nk=x\nnext=1\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringRewritesOnlyTheFirstPieceOfALineOf1024Bytes) {
  const std::string text = "[s]\n" + KeyLineOf(1024) + "next=1\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("s", "absent", "x"));
  EXPECT_EQ(text, Settings());
  EXPECT_EQ(0, PutKeyString("s", "k", "x"));
  // The second piece, the old line's newline, stays as an empty line.
  EXPECT_EQ("[s]\nk=x\n\nnext=1\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringRewritesOnlyTheFirstPieceOfALineOf2000Bytes) {
  const std::string text = "[s]\n" + KeyLineOf(2000) + "next=1\n";
  Settings(text);
  EXPECT_EQ(0, PutKeyString("s", "absent", "x"));
  EXPECT_EQ(text, Settings());
  EXPECT_EQ(0, PutKeyString("s", "k", "x"));
  // The first piece held "k=" and 1021 'v'; the rest of the old value stays.
  EXPECT_EQ("[s]\nk=x\n" + std::string(2000 - 3 - 1021, 'v') + "\nnext=1\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringRewritesAKeyLineFoundInTheSecondPieceOfAComment) {
  const std::string comment = "#" + std::string(1022, 'c');
  Settings("[s]\n" + comment + "k=" + std::string(974, 'v') + "\nnext=1\n");
  EXPECT_EQ(0, PutKeyString("s", "k", "x"));
  EXPECT_EQ("[s]\n" + comment + "k=x\nnext=1\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringWritesANewLineOf1022BytesWhole) {
  Settings("[s]\nk=1\n");
  const std::string value(1019, 'v');
  EXPECT_EQ(0, PutKeyString("s", "k", value.c_str()));
  EXPECT_EQ("[s]\nk=" + value + "\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringWritesANewLineOf1023BytesWhole) {
  Settings("[s]\nk=1\n");
  const std::string value(1020, 'v');
  EXPECT_EQ(0, PutKeyString("s", "k", value.c_str()));
  EXPECT_EQ("[s]\nk=" + value + "\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringCutsANewLineOf1024BytesTo1023KeepingTheNewline) {
  Settings("[s]\nk=1\n");
  const std::string value(1021, 'v');
  EXPECT_EQ(0, PutKeyString("s", "k", value.c_str()));
  EXPECT_EQ("[s]\nk=" + value.substr(0, 1020) + "\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringLeavesRoomForTheValueAfterTheNameOnly) {
  // A name of 1020 characters leaves one byte for the value before the newline.
  const std::string name(1020, 'n');
  Settings("[s]\n" + name + "=1\n");
  EXPECT_EQ(0, PutKeyString("s", name.c_str(), "xyz"));
  EXPECT_EQ("[s]\n" + name + "=x\n", Settings());
}

// ---- fixed sizes: the 32-byte section header ----

// A section name of `length` characters that shows where it was cut.
std::string SectionOf(size_t length) {
  std::string name;
  for (size_t i = 0; i < length; ++i) name += static_cast<char>('a' + i % 26);
  return name;
}

TEST_F(KeyStoreTest, SectionNameOf28CharactersMatchesItsHeader) {
  const std::string section = SectionOf(28);
  Settings("[" + section + "]\nk=1\n");
  EXPECT_EQ("1", Get(section.c_str(), "k"));
  EXPECT_EQ(0, PutKeyString(section.c_str(), "k", "2"));
  EXPECT_EQ("[" + section + "]\nk=2\n", Settings());
}

TEST_F(KeyStoreTest, PutKeyStringFindsTheHeaderOfASectionNameOf29Characters) {
  const std::string section = SectionOf(29);
  Settings("[" + section + "]\nk=1\n");
  EXPECT_EQ(0, PutKeyString(section.c_str(), "k", "2"));
  EXPECT_EQ("[" + section + "]\nk=2\n", Settings());
}

TEST_F(KeyStoreTest, SectionNameOf30CharactersLosesItsClosingBracket) {
  const std::string section = SectionOf(30);
  const std::string full = "[" + section + "]\nk=1\n";
  Settings(full);
  EXPECT_EQ("", Get(section.c_str(), "k"));
  EXPECT_EQ(0, PutKeyString(section.c_str(), "k", "2"));
  EXPECT_EQ(full, Settings());
  Settings("[" + section + "\nk=1\n");
  EXPECT_EQ("1", Get(section.c_str(), "k"));
  EXPECT_EQ(0, PutKeyString(section.c_str(), "k", "2"));
  EXPECT_EQ("[" + section + "\nk=2\n", Settings());
}

TEST_F(KeyStoreTest, SectionNameOf31CharactersIsComparedAsItsFirst30) {
  const std::string section = SectionOf(31);
  const std::string full = "[" + section + "]\nk=1\n";
  Settings(full);
  EXPECT_EQ("", Get(section.c_str(), "k"));
  EXPECT_EQ(0, PutKeyString(section.c_str(), "k", "2"));
  EXPECT_EQ(full, Settings());
  const std::string cut = "[" + section.substr(0, 30) + "\n";
  Settings(cut + "k=1\n");
  EXPECT_EQ("1", Get(section.c_str(), "k"));
  EXPECT_EQ(0, PutKeyString(section.c_str(), "k", "2"));
  EXPECT_EQ(cut + "k=2\n", Settings());
}

// ---- fixed sizes: the 32-byte value and number buffers ----

TEST_F(KeyStoreTest, ValueOf30CharactersIsReturnedWhole) {
  const std::string value = SectionOf(30);
  Settings("[s]\nk=" + value + "\n");
  EXPECT_EQ(value, Get("s", "k"));
}

TEST_F(KeyStoreTest, ValueCutTo31CharactersIsWhatGetKeyIntReads) {
  Settings("[s]\nk=" + std::string(29, '0') + "123\n");
  EXPECT_EQ(std::string(29, '0') + "12", Get("s", "k"));
  EXPECT_EQ(12, GetKeyInt("s", "k"));
}

TEST_F(KeyStoreTest, PutKeyIntExtremesReadBackWithGetKeyInt) {
  Settings("[s]\nmin=0\nmax=0\n");
  EXPECT_EQ(0, PutKeyInt("s", "min", INT_MIN));
  EXPECT_EQ(0, PutKeyInt("s", "max", INT_MAX));
  EXPECT_EQ(INT_MIN, GetKeyInt("s", "min"));
  EXPECT_EQ(INT_MAX, GetKeyInt("s", "max"));
  EXPECT_EQ(0, PutKeyInt("s", "min", INT_MIN + 1));
  EXPECT_EQ(0, PutKeyInt("s", "max", INT_MAX - 1));
  EXPECT_EQ("[s]\nmin=-2147483647\nmax=2147483646\n", Settings());
}

// ---- the shortest lines that count ----

TEST_F(KeyStoreTest, TwoByteLineCanOpenTheSection) {
  // "[" and its newline: the one character compared equals the header's first.
  Settings("[\nk=1\n");
  EXPECT_EQ("1", Get("net", "k"));
}

TEST_F(KeyStoreTest, TwoByteLineWithEmptyNameMatchesWithAnEmptyValue) {
  Settings("[s]\n=\nk=1\n");
  EXPECT_EQ("", Get("s", "k"));
  EXPECT_EQ(0, GetKeyInt("s", "k"));
}

// ---- lines that start with a NUL byte ----

TEST_F(KeyStoreTest, LineStartingWithNulIsNeitherHeaderNorKey) {
  const std::string text = std::string("\0[s]\nk=1\n", 9) + "[t]\nk=2\n";
  Settings(text);
  EXPECT_EQ("", Get("s", "k"));
  EXPECT_EQ("2", Get("t", "k"));
  EXPECT_EQ(0, PutKeyString("s", "k", "3"));
  EXPECT_EQ(text, Settings());
}

// ---- faults of the settings file ----

TEST_F(KeyStoreTest, SettingsFileThatIsAFolderReadsAsEmptyWithoutAnError) {
  ASSERT_EQ(0, mkdir(path_.c_str(), 0755));
  testing::internal::CaptureStderr();
  const std::string value = Get("s", "k");
  const int number = GetKeyInt("s", "k");
  EXPECT_EQ("", testing::internal::GetCapturedStderr());  // opening it worked
  EXPECT_EQ("", value);
  EXPECT_EQ(0, number);
}

TEST_F(KeyStoreTest, PutKeyStringOnAFolderLeavesAnEmptyTemporaryFile) {
  ASSERT_EQ(0, mkdir(path_.c_str(), 0755));
  EXPECT_EQ(-1, PutKeyString("s", "k", "2"));
  EXPECT_TRUE(fs::is_directory(path_));
  EXPECT_TRUE(fs::is_regular_file(path_ + ".tmp"));
  EXPECT_EQ("", ReadFile(path_ + ".tmp"));
}

TEST_F(KeyStoreTest, RootReadsAndRewritesASettingsFileOfMode000) {
  if (geteuid() != 0) GTEST_SKIP() << "only root reads a file of mode 000";
  Settings("[s]\nk=1\n");
  ASSERT_EQ(0, chmod(path_.c_str(), 0));
  testing::internal::CaptureStderr();
  EXPECT_EQ("1", Get("s", "k"));
  EXPECT_EQ(1, GetKeyInt("s", "k"));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, PutKeyString("s", "k", "2"));
  EXPECT_EQ("[s]\nk=2\n", Settings());
  // The rewritten file is the temporary one: it has that file's mode.
  const mode_t mask = umask(0);
  umask(mask);
  struct stat info {};
  ASSERT_EQ(0, stat(path_.c_str(), &info));
  EXPECT_EQ(0666 & ~mask, info.st_mode & 0777);
}

TEST_F(KeyStoreTest, OrdinaryUserCannotReadOrRewriteASettingsFileOfMode000) {
  // As root the lookups run in a child as "nobody", on root's settings file.
  const std::string login = LoginName();
  Settings("[s]\nk=1\n");
  ASSERT_EQ(0, chmod(path_.c_str(), 0));
  const ChildResult child = zeltest::RunAsOrdinaryUser([&login] {
    zeltest::LoginAs(login);
    testing::internal::CaptureStderr();
    char* value = GetKeyString("s", "k");
    const std::string printed = testing::internal::GetCapturedStderr();
    const std::string text = value != nullptr ? value : "<null>";
    std::free(value);
    return "value=" + text + "|printed=" + printed + "|int=" + std::to_string(GetKeyInt("s", "k")) +
           "|put=" + std::to_string(PutKeyString("s", "k", "2"));
  });
  EXPECT_TRUE(child.ExitedWith(0)) << child.status;
  EXPECT_EQ("value=|printed=fopen: Permission denied\n|int=0|put=-2", child.output);
  ASSERT_EQ(0, chmod(path_.c_str(), 0600));
  EXPECT_EQ("[s]\nk=1\n", Settings());
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
}

TEST_F(KeyStoreTest, PutKeyIntWithoutTemporaryFileReturnsMinusOne) {
  Settings("[s]\nk=1\n");
  ASSERT_EQ(0, mkdir((path_ + ".tmp").c_str(), 0755));
  EXPECT_EQ(-1, PutKeyInt("s", "k", 2));
  EXPECT_EQ("[s]\nk=1\n", Settings());
  EXPECT_TRUE(fs::is_directory(path_ + ".tmp"));
}

// ---- the login that names the settings file ----

// Restores the C library's answer to getlogin() after a test chose one.
class KeyStoreLoginTest : public ::testing::Test {
 protected:
  void TearDown() override { zeltest::SystemLogin(); }
};

TEST_F(KeyStoreLoginTest, LoginNameComesFromGetlogin) {
  zeltest::LoginAs("someone");
  EXPECT_EQ("/Users/someone/client_config.ini", ConfigFilePath());
}

TEST_F(KeyStoreLoginTest, WithoutGetloginTheAccountOfTheRealUserIsUsed) {
  zeltest::NoLogin();
  const passwd* pw = getpwuid(getuid());
  ASSERT_NE(nullptr, pw);
  EXPECT_EQ("/Users/" + std::string(pw->pw_name) + "/client_config.ini", ConfigFilePath());
}

TEST_F(KeyStoreLoginTest, WithoutGetloginOrAccountTheLoginIsEmpty) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to run as a user id without an account";
  const uid_t unknown = 54321;
  ASSERT_EQ(nullptr, getpwuid(unknown));
  const ChildResult child = zeltest::RunInChild([unknown] {
    zeltest::NoLogin();
    if (!zeltest::BecomeUser(unknown, unknown)) zeltest::EndChild(2);
    return ConfigFilePath();
  });
  EXPECT_TRUE(child.ExitedWith(0)) << child.status;
  EXPECT_EQ("/Users//client_config.ini", child.output);
}

// A login of `length` characters whose path has folders of 99 characters,
// so that "/Users/<login>/client_config.ini" can exist as a file.
std::string LongLogin(size_t length) {
  std::string login(length, 'l');
  login.replace(0, 8, "zel_test");
  for (size_t i = 99; i < length; i += 100) login[i] = '/';
  return login;
}

TEST_F(KeyStoreLoginTest, SettingsPathOf1022CharactersIsKeptWhole) {
  zeltest::LoginAs(LongLogin(1022 - 25));
  const std::string path = ConfigFilePath();
  EXPECT_EQ(1022u, path.size());
  EXPECT_EQ("/Users/" + LongLogin(997) + "/client_config.ini", path);
}

TEST_F(KeyStoreLoginTest, SettingsPathOf1023CharactersIsKeptWhole) {
  zeltest::LoginAs(LongLogin(1023 - 25));
  const std::string path = ConfigFilePath();
  EXPECT_EQ(1023u, path.size());
  EXPECT_EQ("/Users/" + LongLogin(998) + "/client_config.ini", path);
}

TEST_F(KeyStoreLoginTest, SettingsPathOf1024CharactersIsCutTo1023) {
  zeltest::LoginAs(LongLogin(1024 - 25));
  EXPECT_EQ("/Users/" + LongLogin(999) + "/client_config.in", ConfigFilePath());
}

// The key store at a settings path that was cut to 1023 characters.
class KeyStoreCutPathTest : public KeyStoreTest {
 protected:
  void SetUp() override {
    zeltest::LoginAs(LongLogin(1024 - 25));
    KeyStoreTest::SetUp();
  }
  void TearDown() override {
    KeyStoreTest::TearDown();
    zeltest::SystemLogin();
  }
};

TEST_F(KeyStoreCutPathTest, CutSettingsPathIsTheFileReadAndWritten) {
  ASSERT_EQ(1023u, path_.size());
  ASSERT_EQ("client_config.in", fs::path(path_).filename().string());
  Settings("[s]\nk=1\n");
  EXPECT_EQ("1", Get("s", "k"));
  EXPECT_EQ(0, PutKeyString("s", "k", "2"));
  EXPECT_EQ("[s]\nk=2\n", Settings());
  EXPECT_FALSE(fs::exists(path_ + "i"));
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
}

// ---- allocation failures ----

#define REQUIRE_ALLOCATION_FAULTS()                                  \
  if (!ZEL_TEST_CAN_FAIL_ALLOCATIONS)                                \
  GTEST_SKIP() << "allocation failures are injected only in builds " \
                  "without a sanitizer"

// Arms one failure of a path block (malloc of 1024 bytes) or of a result
// block (calloc of 32 bytes); disarmed again at the end of the test.
class KeyStoreAllocationTest : public KeyStoreTest {
 protected:
  void TearDown() override {
    zeltest::gFailNextMallocOf = 0;
    zeltest::gFailNextCallocOf = 0;
    KeyStoreTest::TearDown();
  }
  static void FailPathBlock() { zeltest::gFailNextMallocOf = 1024; }
  static void FailResultBlock() { zeltest::gFailNextCallocOf = 32; }
};

TEST_F(KeyStoreAllocationTest, GetConfigFilePathIsNullWhenItsBlockCannotBeAllocated) {
  REQUIRE_ALLOCATION_FAULTS();
  FailPathBlock();
  EXPECT_EQ(nullptr, GetConfigFilePath());
  EXPECT_EQ(path_, ConfigFilePath());  // one failure only
}

TEST_F(KeyStoreAllocationTest, GetKeyStringIsNullWhenThePathCannotBeAllocated) {
  REQUIRE_ALLOCATION_FAULTS();
  Settings("[s]\nk=5\n");
  FailPathBlock();
  EXPECT_EQ(nullptr, GetKeyString("s", "k"));
  EXPECT_EQ("5", Get("s", "k"));
}

TEST_F(KeyStoreAllocationTest, GetKeyStringIsNullWhenTheResultCannotBeAllocated) {
  REQUIRE_ALLOCATION_FAULTS();
  Settings("[s]\nk=5\n");
  zeltest::LoginAs(LoginName());  // no account lookup between the two allocations
  FailResultBlock();
  EXPECT_EQ(nullptr, GetKeyString("s", "k"));
  zeltest::SystemLogin();
  EXPECT_EQ("5", Get("s", "k"));
}

TEST_F(KeyStoreAllocationTest, GetKeyIntIsZeroWhenNoValueCanBeAllocated) {
  REQUIRE_ALLOCATION_FAULTS();
  Settings("[s]\nk=5\n");
  zeltest::LoginAs(LoginName());
  FailResultBlock();
  EXPECT_EQ(0, GetKeyInt("s", "k"));
  FailPathBlock();
  EXPECT_EQ(0, GetKeyInt("s", "k"));
  zeltest::SystemLogin();
  EXPECT_EQ(5, GetKeyInt("s", "k"));
}

TEST_F(KeyStoreAllocationTest, PutKeyStringReturnsZeroAndChangesNothingWithoutAPath) {
  REQUIRE_ALLOCATION_FAULTS();
  Settings("[s]\nk=5\n");
  FailPathBlock();
  EXPECT_EQ(0, PutKeyString("s", "k", "6"));
  EXPECT_EQ("[s]\nk=5\n", Settings());
  FailPathBlock();
  EXPECT_EQ(0, PutKeyInt("s", "k", 7));
  EXPECT_EQ("[s]\nk=5\n", Settings());
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
}

// ---- application paths ----

constexpr char kClientName[] = "orvane";

// A user id that no account has, for the cases where the system cannot name
// the user's folders.
constexpr uid_t kUnknownUid = 54321;

class AppPathsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(lock_.held());
    // Reachable by the unprivileged user the tests switch to.
    ASSERT_EQ(0, chmod(dir_.c_str(), 0777));
  }

  using Environment = std::vector<std::pair<std::string, const char*>>;

  static void Apply(const Environment& env) {
    for (const auto& [name, value] : env) {
      if (value != nullptr) {
        setenv(name.c_str(), value, 1);
      } else {
        unsetenv(name.c_str());
      }
    }
  }

  // Runs `paths` in a child process as an ordinary user (the nobody account
  // when the tests run as root) with the given environment, and returns what
  // it produced.
  static std::string AsOrdinaryUser(const Environment& env,
                                    const std::function<std::string()>& paths) {
    const ChildResult child = zeltest::RunAsOrdinaryUser([&] {
      Apply(env);
      return paths();
    });
    EXPECT_TRUE(child.ExitedWith(0)) << child.status;
    return child.output;
  }

  // The same as a user id without an account (needs root).
  static std::string AsUnknownUser(const Environment& env,
                                   const std::function<std::string()>& paths) {
    const ChildResult child = zeltest::RunInChild([&] {
      if (!zeltest::BecomeUser(kUnknownUid, kUnknownUid)) zeltest::EndChild(2);
      Apply(env);
      return paths();
    });
    EXPECT_TRUE(child.ExitedWith(0)) << child.status;
    return child.output;
  }

  static std::string BothPaths() { return GetAppRootPath() + "|" + GetAppDataPath(); }

  // A folder under dir_ whose path is `length` characters long, in parts
  // short enough to be made.
  std::string FolderOfLength(size_t length) const {
    std::string path = dir_;
    while (path.size() < length) {
      const size_t room = length - path.size() - 1;  // after the next "/"
      // Never leave room for a "/" alone.
      const size_t part = room <= 100 ? room : std::min<size_t>(100, room - 2);
      path += "/" + std::string(part, 'f');
    }
    return path;
  }

  // Starts a stand-in client (a copy of sleep named like the client) as
  // uid/gid and waits until the library can see it.
  pid_t StartClient(uid_t uid, gid_t gid) {
    const std::string client = dir_ + "/" + kClientName;
    fs::copy_file("/bin/sleep", client, fs::copy_options::overwrite_existing);
    if (chmod(client.c_str(), 0755) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
      if (setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0) {
        execl(client.c_str(), kClientName, "30", nullptr);
      }
      _exit(127);
    }
    zeltest::WaitUntil(
        [&] { return child <= 0 || getProcessUid(kClientName) == static_cast<int>(uid); },
        zeltest::kWaitLimit, std::chrono::milliseconds(10));
    return child;
  }
  static void StopClient(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }

  SharedFileLock lock_;
  // In /tmp itself, where the unprivileged user can reach it.
  zeltest::TempDir scratch_{"zel_app_paths", "/tmp"};
  // The scratch folder, without a trailing slash.
  const std::string dir_ = scratch_.path().substr(0, scratch_.path().size() - 1);
};

TEST_F(AppPathsTest, OrdinaryUserPathsEndInSlashUnderDataHome) {
  const std::string xdg = dir_ + "/xdg";
  EXPECT_EQ(xdg + "/orvane/|" + xdg + "/orvane/log/",
            AsOrdinaryUser({{"XDG_DATA_HOME", xdg.c_str()}}, BothPaths));
}

TEST_F(AppPathsTest, OrdinaryUserDataHomeIsCreatedButNotTheAppFolders) {
  const std::string xdg = dir_ + "/xdg";
  AsOrdinaryUser({{"XDG_DATA_HOME", xdg.c_str()}}, BothPaths);
  EXPECT_TRUE(fs::is_directory(xdg));
  EXPECT_FALSE(fs::exists(xdg + "/orvane"));
}

TEST_F(AppPathsTest, OrdinaryUserWithoutDataHomeUsesHomeLocalShare) {
  const std::string home = dir_ + "/home";
  EXPECT_EQ(home + "/.local/share/orvane/|" + home + "/.local/share/orvane/log/",
            AsOrdinaryUser({{"XDG_DATA_HOME", nullptr}, {"HOME", home.c_str()}}, BothPaths));
  EXPECT_TRUE(fs::is_directory(home + "/.local/share"));
  EXPECT_FALSE(fs::exists(home + "/.local/share/orvane"));
}

TEST_F(AppPathsTest, OrdinaryUserIgnoresRelativeDataHome) {
  const std::string home = dir_ + "/home";
  EXPECT_EQ(home + "/.local/share/orvane/|" + home + "/.local/share/orvane/log/",
            AsOrdinaryUser({{"XDG_DATA_HOME", "relative/xdg"}, {"HOME", home.c_str()}}, BothPaths));
}

TEST_F(AppPathsTest, OrdinaryUserRootPathOf1023CharactersIsKeptWhole) {
  // "<folder>/orvane/" adds 8 characters.
  const std::string xdg = FolderOfLength(1015);
  const std::string root = AsOrdinaryUser({{"XDG_DATA_HOME", xdg.c_str()}}, GetAppRootPath);
  EXPECT_EQ(1023u, root.size());
  EXPECT_EQ(xdg + "/orvane/", root);
  const std::string shorter = FolderOfLength(1014);
  EXPECT_EQ(shorter + "/orvane/",
            AsOrdinaryUser({{"XDG_DATA_HOME", shorter.c_str()}}, GetAppRootPath));
}

TEST_F(AppPathsTest, OrdinaryUserRootPathOf1024CharactersIsCutTo1023) {
  const std::string xdg = FolderOfLength(1016);
  EXPECT_EQ(xdg + "/orvane", AsOrdinaryUser({{"XDG_DATA_HOME", xdg.c_str()}}, GetAppRootPath));
}

TEST_F(AppPathsTest, OrdinaryUserDataPathOf1023CharactersIsKeptWhole) {
  // "<folder>/orvane/log/" adds 12 characters.
  const std::string xdg = FolderOfLength(1011);
  const std::string data = AsOrdinaryUser({{"XDG_DATA_HOME", xdg.c_str()}}, GetAppDataPath);
  EXPECT_EQ(1023u, data.size());
  EXPECT_EQ(xdg + "/orvane/log/", data);
  const std::string shorter = FolderOfLength(1010);
  EXPECT_EQ(shorter + "/orvane/log/",
            AsOrdinaryUser({{"XDG_DATA_HOME", shorter.c_str()}}, GetAppDataPath));
}

TEST_F(AppPathsTest, OrdinaryUserDataPathOf1024CharactersIsCutTo1023) {
  const std::string xdg = FolderOfLength(1012);
  EXPECT_EQ(xdg + "/orvane/log", AsOrdinaryUser({{"XDG_DATA_HOME", xdg.c_str()}}, GetAppDataPath));
}

// The root case needs root; CI runs as root.
#define REQUIRE_ROOT() \
  if (getuid() != 0) GTEST_SKIP() << "the root case needs root"

TEST_F(AppPathsTest, OrdinaryUserWithEmptyHomeUsesTheAccountsHome) {
  // As root only: the child is "nobody", whose home cannot be made, so no
  // real user's folder is touched.
  REQUIRE_ROOT();
  const passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nullptr, nobody);
  const std::string home = nobody->pw_dir;
  ASSERT_FALSE(fs::exists(home)) << home;
  const std::string expected = home + "/.local/share/orvane/|" + home + "/.local/share/orvane/log/";
  EXPECT_EQ(expected, AsOrdinaryUser({{"XDG_DATA_HOME", ""}, {"HOME", ""}}, BothPaths));
  EXPECT_EQ(expected, AsOrdinaryUser({{"XDG_DATA_HOME", nullptr}, {"HOME", nullptr}}, BothPaths));
  EXPECT_FALSE(fs::exists(home));
}

TEST_F(AppPathsTest, OrdinaryUserWithoutAccountOrHomeGetsEmptyPaths) {
  REQUIRE_ROOT();
  ASSERT_EQ(nullptr, getpwuid(kUnknownUid));
  EXPECT_EQ("|", AsUnknownUser({{"XDG_DATA_HOME", nullptr}, {"HOME", nullptr}}, BothPaths));
}

TEST_F(AppPathsTest, RootWithoutRunningClientGetsEmptyPaths) {
  REQUIRE_ROOT();
  ASSERT_EQ(-1, getProcessUid(kClientName));
  EXPECT_EQ("", GetAppRootPath());
  EXPECT_EQ("", GetAppDataPath());
}

TEST_F(AppPathsTest, RootGetsFoldersOfTheUserRunningTheClientWithoutTrailingSlash) {
  REQUIRE_ROOT();
  const passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nullptr, nobody);
  const std::string home = nobody->pw_dir;
  const pid_t child = StartClient(nobody->pw_uid, nobody->pw_gid);
  ASSERT_GT(child, 0);
  const std::string root = GetAppRootPath();
  const std::string data = GetAppDataPath();
  StopClient(child);
  EXPECT_EQ(home + "/.local/share/orvane", root);
  EXPECT_EQ(home + "/.local/share/orvane/log/", data);
}

TEST_F(AppPathsTest, RootGetsEmptyPathsWhenTheClientsUserHasNoAccount) {
  REQUIRE_ROOT();
  ASSERT_EQ(nullptr, getpwuid(kUnknownUid));
  const pid_t child = StartClient(kUnknownUid, kUnknownUid);
  ASSERT_GT(child, 0);
  const int seen = getProcessUid(kClientName);
  const std::string root = GetAppRootPath();
  const std::string data = GetAppDataPath();
  StopClient(child);
  ASSERT_EQ(static_cast<int>(kUnknownUid), seen);
  EXPECT_EQ("", root);
  EXPECT_EQ("", data);
}

// ---- another file than the settings file ----

class KeyStoreOtherFileTest : public ::testing::Test {
 protected:
  // GetKeyStringInFile's value, freed; `found` receives its answer.
  std::string Read(const char* section, const char* key, int* found) {
    char* value = GetKeyStringInFile(path_.c_str(), section, key, found);
    EXPECT_NE(nullptr, value);
    std::string text = value != nullptr ? value : "";
    std::free(value);
    return text;
  }

  zeltest::TempDir dir_;
  const std::string path_ = dir_.path() + "copy.ini";
};

TEST_F(KeyStoreOtherFileTest, ReadsByTheSettingsFilesRulesAndSaysItFoundTheKey) {
  WriteFile(path_, "[net]\nhost=10.0.0.1\nport=\n");
  int found = -7;
  EXPECT_EQ("10.0.0.1", Read("net", "host", &found));
  EXPECT_EQ(1, found);
  EXPECT_EQ("", Read("net", "port", &found));
  EXPECT_EQ(1, found);  // present, with an empty value
  EXPECT_EQ("", Read("net", "user", &found));
  EXPECT_EQ(0, found);
  EXPECT_EQ("10.0.0.1", Read("net", "host", nullptr));
}

TEST_F(KeyStoreOtherFileTest, MissingFileGivesEmptyValueAndMinusOne) {
  int found = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ("", Read("net", "host", &found));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("fopen"));
  EXPECT_EQ(-1, found);
}

TEST_F(KeyStoreOtherFileTest, PutReplacesTheValueInThatFileOnly) {
  WriteFile(path_, "[net]\nhost=10.0.0.1\nport=80\n");
  EXPECT_EQ(0, PutKeyStringInFile(path_.c_str(), "net", "port", "8080"));
  EXPECT_EQ("[net]\nhost=10.0.0.1\nport=8080\n", ReadFile(path_));
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
}

TEST_F(KeyStoreOtherFileTest, PutOnAMissingFileReturnsMinusTwo) {
  EXPECT_EQ(-2, PutKeyStringInFile(path_.c_str(), "net", "port", "8080"));
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(KeyStoreOtherFileTest, NullPathIsAFileThatCannotBeOpened) {
  int found = 0;
  testing::internal::CaptureStderr();
  char* value = GetKeyStringInFile(nullptr, "net", "host", &found);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(nullptr, value);
  EXPECT_STREQ("", value);
  std::free(value);
  EXPECT_EQ(-1, found);
  EXPECT_EQ(-2, PutKeyStringInFile(nullptr, "net", "port", "8080"));
}

}  // namespace
