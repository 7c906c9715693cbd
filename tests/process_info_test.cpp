#include "utils/process_info.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/child_run.h"
#include "support/files.h"
#include "support/sync.h"

namespace fs = std::filesystem;

namespace {

// When started with ZEL_PRINT_PROCESS_INFO set, this test program only prints
// what the library says about its own location, then exits. The tests below
// copy it to chosen places and run it there.
struct PrintModeBeforeMain {
  PrintModeBeforeMain() {
    if (std::getenv("ZEL_PRINT_PROCESS_INFO") == nullptr) return;
    std::printf("name=%s\ndir=%s\nself=%s\n", get_process_name().c_str(), get_process_dir().c_str(),
                get_self_dir().c_str());
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
  void TearDown() override { EXPECT_TRUE(scratch_.Remove()); }
  // In /tmp itself, where another user's process can reach it.
  zeltest::TempDir scratch_{"zel_process_info", "/tmp"};
  // The scratch folder, without a trailing slash.
  const fs::path root_ = fs::path(scratch_.path()).parent_path();
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
  EXPECT_EQ(-1, getProcessUid(get_process_dir() + "/" + name));   // the full path
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
  zeltest::WaitUntil([&] { return (uid = getProcessUid("zel_sleeper")) != -1; },
                     zeltest::kWaitLimit, std::chrono::milliseconds(10));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(static_cast<int>(nobody->pw_uid), uid);
}

TEST(ProcessInfo, IsMultiUserEnvIsAlwaysZero) { EXPECT_EQ(0, IsMultiUserEnv()); }

TEST(ProcessInfo, SendScreenRecorderMsgDoesNothing) {
  SendScreenRecorderMsg();
  SUCCEED();
}

// ---- a made-up process table ----

// Runs `body` in a child whose /proc is an empty tmpfs in a private mount
// namespace, which the body fills with the entries it needs (needs root).
class ProcessInfoFakeProc : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
  }

  static std::string InFakeProc(const std::function<std::string()>& body,
                                const char* options = "mode=0755") {
    const zeltest::ChildResult child = zeltest::RunInChild([&] {
      if (unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("zel_fake_proc", "/proc", "tmpfs", 0, options) != 0) {
        zeltest::EndChild(2);
      }
      return body();
    });
    EXPECT_TRUE(child.ExitedWith(0)) << child.status;
    return child.output;
  }

  // /proc/<entry> with an "exe" link to `exe` and a "status" file holding
  // `status`; an empty argument leaves that part out.
  static void AddEntry(const std::string& entry, const std::string& exe,
                       const std::string& status) {
    const std::string dir = "/proc/" + entry;
    mkdir(dir.c_str(), 0755);
    if (!exe.empty()) SetExe(entry, exe);
    if (!status.empty()) std::ofstream(dir + "/status") << status;
  }
  static void SetExe(const std::string& entry, const std::string& exe) {
    const std::string link = "/proc/" + entry + "/exe";
    unlink(link.c_str());
    if (symlink(exe.c_str(), link.c_str()) != 0) zeltest::EndChild(4);
  }
  static std::string UidStatus(int uid) {
    return "Name:\torvane\nUid:\t" + std::to_string(uid) + "\t0\t0\t0\nGid:\t0\t0\t0\t0\n";
  }
  static std::string Location() {
    return "name=" + get_process_name() + "|dir=" + get_process_dir() + "|self=" + get_self_dir();
  }
};

TEST_F(ProcessInfoFakeProc, ExecutablePathWithoutSlashGivesEmptyFoldersAndTheWholeName) {
  EXPECT_EQ("name=orvane-client|dir=|self=", InFakeProc([] {
              AddEntry("self", "orvane-client", "");
              return Location();
            }));
}

TEST_F(ProcessInfoFakeProc, UnreadableExecutablePathGivesEmptyResults) {
  EXPECT_EQ("name=|dir=|self=", InFakeProc(Location));
}

TEST_F(ProcessInfoFakeProc, ExecutablePathIsReadUpTo511Bytes) {
  // "/<folder>/12345678" of 510, 511 and 512 bytes: the last loses its last byte.
  const std::string out = InFakeProc([] {
    AddEntry("self", "", "");
    std::string text;
    for (size_t length : {510, 511, 512}) {
      const std::string folder = "/" + std::string(length - 10, 'd');
      SetExe("self", folder + "/12345678");
      text += std::to_string(length) + ":" + get_process_name() + ":" +
              std::to_string(get_process_dir().size()) + " ";
    }
    return text;
  });
  EXPECT_EQ("510:12345678:501 511:12345678:502 512:1234567:503 ", out);
}

TEST_F(ProcessInfoFakeProc, SelfDirIsCutTo255CharactersWhereProcessDirIsNot) {
  const std::string out = InFakeProc([] {
    AddEntry("self", "", "");
    std::string text;
    for (size_t length : {254, 255, 256}) {
      const std::string folder = "/" + std::string(length - 1, 's');
      SetExe("self", folder + "/x");
      text += std::to_string(get_self_dir().size()) + "/" +
              std::to_string(get_process_dir().size()) + " ";
      if (get_self_dir() != folder.substr(0, 255)) text += "(wrong text) ";
    }
    return text;
  });
  EXPECT_EQ("254/254 255/255 255/256 ", out);
}

TEST_F(ProcessInfoFakeProc, ProcessUidIsTheFirstNumberOfTheUidLine) {
  EXPECT_EQ("1234", InFakeProc([] {
              AddEntry("1", "/opt/client/orvane", UidStatus(1234));
              return std::to_string(getProcessUid("orvane"));
            }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidComparesAnExecutablePathWithoutSlashWhole) {
  EXPECT_EQ("42 -1", InFakeProc([] {
              AddEntry("1", "orvane", UidStatus(42));
              return std::to_string(getProcessUid("orvane")) + " " +
                     std::to_string(getProcessUid("orv"));
            }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidSkipsAProcessWithoutUidLine) {
  EXPECT_EQ("-1 77", InFakeProc([] {
              AddEntry("1", "/bin/orvane", "Name:\torvane\nGid:\t0\t0\t0\t0\n");
              std::string text = std::to_string(getProcessUid("orvane"));
              AddEntry("2", "/usr/bin/orvane", UidStatus(77));
              return text + " " + std::to_string(getProcessUid("orvane"));
            }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidSkipsAProcessWithoutStatus) {
  EXPECT_EQ("-1", InFakeProc([] {
              AddEntry("1", "/bin/orvane", "");
              return std::to_string(getProcessUid("orvane"));
            }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidSkipsAProcessWhoseExecutableCannotBeRead) {
  EXPECT_EQ("-1", InFakeProc([] {
              AddEntry("1", "", UidStatus(5));
              return std::to_string(getProcessUid("orvane"));
            }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidReadsOnlyEntriesThatArePositivePids) {
  EXPECT_EQ("-1 9", InFakeProc([] {
              for (const char* entry : {"0", "-3", "12x", "x12", "self"}) {
                AddEntry(entry, "/bin/orvane", UidStatus(9));
              }
              std::string text = std::to_string(getProcessUid("orvane"));
              AddEntry("12", "/bin/orvane", UidStatus(9));
              return text + " " + std::to_string(getProcessUid("orvane"));
            }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidWithEmptyProcessListIsMinusOne) {
  EXPECT_EQ("-1", InFakeProc([] { return std::to_string(getProcessUid("orvane")); }));
}

TEST_F(ProcessInfoFakeProc, ProcessUidIsMinusOneWhenTheProcessListCannotBeRead) {
  const std::string out = InFakeProc(
      [] {
        AddEntry("1", "/bin/orvane", UidStatus(3));
        std::string text = std::to_string(getProcessUid("orvane"));
        uid_t uid = 0;
        gid_t gid = 0;
        if (!zeltest::NobodyIds(&uid, &gid) || !zeltest::BecomeUser(uid, gid)) {
          zeltest::EndChild(2);
        }
        DIR* proc = opendir("/proc");
        text += proc == nullptr ? " unreadable " : " readable ";
        if (proc != nullptr) closedir(proc);
        return text + std::to_string(getProcessUid("orvane"));
      },
      "mode=0700");
  EXPECT_EQ("3 unreadable -1", out);
}

TEST_F(ProcessInfoFakeProc, OnlyTheFirst1024ProcessesAreSearched) {
  const std::string out = InFakeProc([] {
    for (int pid = 1000; pid < 1000 + 1025; ++pid) AddEntry(std::to_string(pid), "", "");
    // The order in which the library meets them is the directory's order.
    std::vector<std::string> order;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) zeltest::EndChild(5);
    while (dirent* entry = readdir(proc)) {
      if (entry->d_name[0] != '.') order.push_back(entry->d_name);
    }
    closedir(proc);
    if (order.size() != 1025) zeltest::EndChild(6);
    std::string text;
    for (size_t position : {1023, 1024, 1025}) {
      const std::string& entry = order[position - 1];
      AddEntry(entry, "/bin/orvane", UidStatus(7));
      text += std::to_string(position) + ":" + std::to_string(getProcessUid("orvane")) + " ";
      unlink(("/proc/" + entry + "/exe").c_str());
    }
    return text;
  });
  EXPECT_EQ("1023:7 1024:7 1025:-1 ", out);
}

}  // namespace
