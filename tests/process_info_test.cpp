#include "utils/process_info.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

// When started with ZEL_PRINT_PROCESS_INFO set, this test program only prints
// what the library says about its own location, then exits. The tests below
// copy it to chosen places and run it there.
struct PrintModeBeforeMain {
  PrintModeBeforeMain() {
    if (std::getenv("ZEL_PRINT_PROCESS_INFO") == nullptr) return;
    std::printf("name=%s\ndir=%s\nself=%s\n", get_process_name().c_str(),
                get_process_dir().c_str(), get_self_dir().c_str());
    std::fflush(stdout);
    _exit(0);
  }
} printModeBeforeMain;

std::string SelfExe() { return fs::read_symlink("/proc/self/exe").string(); }

// Copies this test program to `exe` and returns what it prints there.
std::string RunCopyAt(const fs::path& exe) {
  fs::create_directories(exe.parent_path());
  fs::copy_file(SelfExe(), exe, fs::copy_options::overwrite_existing);
  const std::string command = "ZEL_PRINT_PROCESS_INFO=1 '" + exe.string() + "'";
  std::string output;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) output.append(buf, n);
    pclose(pipe);
  }
  return output;
}

class ProcessInfoCopy : public testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zel_process_info_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    root_ = tmpl;
  }
  void TearDown() override { fs::remove_all(root_); }
  fs::path root_;
};

TEST(ProcessInfo, NameIsTheExecutablesFileName) {
  EXPECT_EQ(fs::path(SelfExe()).filename().string(), get_process_name());
}

TEST(ProcessInfo, DirIsTheExecutablesFolderWithoutTrailingSlash) {
  const std::string expected = fs::path(SelfExe()).parent_path().string();
  EXPECT_EQ(expected, get_process_dir());
  EXPECT_EQ(expected, get_self_dir());
  EXPECT_NE('/', get_process_dir().back());
}

TEST_F(ProcessInfoCopy, AppBundleExecutableGivesItsNameAndMacOSFolder) {
  const fs::path folder = root_ / "Applications/X.app/Contents/MacOS";
  EXPECT_EQ("name=x\ndir=" + folder.string() + "\nself=" + folder.string() + "\n",
            RunCopyAt(folder / "x"));
}

TEST_F(ProcessInfoCopy, SelfDirIsCutTo255CharactersWhereProcessDirIsNot) {
  fs::path folder = root_;
  while (folder.string().size() < 300) folder /= std::string(40, 'd');
  const std::string out = RunCopyAt(folder / "prog");
  EXPECT_NE(std::string::npos, out.find("dir=" + folder.string() + "\n")) << out;
  EXPECT_NE(std::string::npos, out.find("self=" + folder.string().substr(0, 255) + "\n")) << out;
}

TEST(ProcessInfo, ProcessUidOfAnUnknownNameIsMinusOne) {
  EXPECT_EQ(-1, getProcessUid("no-such-process-zel"));
  EXPECT_EQ(-1, getProcessUid(""));
}

TEST(ProcessInfo, ProcessUidOfThisProgramIsOurRealUid) {
  EXPECT_EQ(static_cast<int>(getuid()), getProcessUid(get_process_name()));
}

TEST(ProcessInfo, ProcessUidMatchesTheWholeFileNameOnly) {
  const std::string name = get_process_name();
  ASSERT_GT(name.size(), 1u);
  EXPECT_EQ(-1, getProcessUid(name.substr(0, name.size() - 1)));  // a prefix
  EXPECT_EQ(-1, getProcessUid(get_process_dir() + "/" + name));  // the full path
}

TEST_F(ProcessInfoCopy, ProcessUidOfAnotherUsersProcessIsThatUsersId) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to start a process as another user";
  const passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nullptr, nobody);
  const fs::path exe = root_ / "zel_sleeper";
  fs::copy_file("/bin/sleep", exe);
  fs::permissions(root_, fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(1);
    execl(exe.c_str(), "zel_sleeper", "30", static_cast<char*>(nullptr));
    _exit(2);
  }
  int uid = -1;
  for (int i = 0; i < 200 && uid == -1; ++i) {
    usleep(10000);
    uid = getProcessUid("zel_sleeper");
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(static_cast<int>(nobody->pw_uid), uid);
}

TEST(ProcessInfo, IsMultiUserEnvIsAlwaysZero) { EXPECT_EQ(0, IsMultiUserEnv()); }

TEST(ProcessInfo, SendScreenRecorderMsgDoesNothing) {
  SendScreenRecorderMsg();
  SUCCEED();
}

}  // namespace
