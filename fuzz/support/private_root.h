// A private file system view for the targets that touch fixed paths
// ("/tmp/<name>", "/Users/<login>/...").
//
// EnterPrivateRoot() moves the process into its own user and mount
// namespaces and swaps its root for an empty tmpfs on which every top-level
// folder of the real root is bind-mounted again, except /tmp, /Users and the
// caller's `fresh` names: those are new, empty folders of the tmpfs (so all
// on one file system, hard links between them included). Nothing the target
// writes there reaches the real file system, and it all vanishes with the
// process. A process already inside (a libFuzzer -fork job) gets a root of
// its own in the same way.
//
// Inside, the process's user id is not 0 (root outside is mapped to
// kInsideUid), so the library takes its ordinary-user branches, which depend
// on the environment only and not on which processes happen to run.
//
// Input files must be read (or their folders opened) before entering: a path
// under the real /tmp is hidden afterwards. The working directory is kept when
// it is reachable, so libFuzzer's artifacts and corpus writes land where asked.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace zelfuzz {

// Exit status of a target that cannot isolate itself: CTest reports the
// replay test as skipped, run.sh as a failure.
constexpr int kCannotIsolate = 77;

// The user id inside when the caller is root outside.
constexpr unsigned kInsideUid = 4242;
// A second mapped id, owner of files "of another user" (root outside only).
constexpr unsigned kOtherUid = 4243;

inline void Refuse(const char* what) {
  std::fprintf(stderr, "cannot set up a private file system (%s: %s); refusing to run\n", what,
               std::strerror(errno));
  std::fflush(stderr);
  std::_Exit(kCannotIsolate);
}

inline bool WriteText(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

// True once EnterPrivateRoot succeeded and a second id (kOtherUid) is mapped.
inline bool& OtherUserAvailable() {
  static bool available = false;
  return available;
}

inline void EnterPrivateRoot(const std::vector<std::string>& fresh = {}) {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  char cwd[PATH_MAX];
  const bool have_cwd = getcwd(cwd, sizeof(cwd)) != nullptr;

  // Root outside maps two ids, which only a process outside the new
  // namespace may write: a short-lived child does it. Anyone else maps just
  // their own id, from inside.
  int go[2];
  if (uid == 0 && pipe(go) != 0) Refuse("pipe");
  const pid_t self = getpid();
  pid_t helper = -1;
  if (uid == 0) {
    helper = fork();
    if (helper < 0) Refuse("fork");
    if (helper == 0) {
      char byte;
      close(go[1]);
      if (read(go[0], &byte, 1) != 1) _exit(1);
      const std::string proc = "/proc/" + std::to_string(self);
      const std::string map =
          std::to_string(kInsideUid) + " 0 1\n" + std::to_string(kOtherUid) + " 65534 1\n";
      _exit(WriteText((proc + "/uid_map").c_str(), map) &&
                    WriteText((proc + "/gid_map").c_str(), map)
                ? 0
                : 1);
    }
    close(go[0]);
  }
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) Refuse("unshare");
  if (uid == 0) {
    int status = 0;
    if (write(go[1], "x", 1) != 1 || waitpid(helper, &status, 0) != helper || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
      Refuse("uid_map from outside");
    }
    close(go[1]);
  } else {
    if (!WriteText("/proc/self/setgroups", "deny")) Refuse("setgroups");
    if (!WriteText("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1\n"))
      Refuse("uid_map");
    if (!WriteText("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1\n"))
      Refuse("gid_map");
  }
  OtherUserAvailable() = uid == 0;

  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Refuse("private /");
  // The new root: a tmpfs over the real /tmp (which every system has).
  const char* root = "/tmp";
  if (mount("zel-fuzz", root, "tmpfs", 0, "size=512m,mode=0755") != 0) Refuse("tmpfs");

  DIR* dir = opendir("/");
  if (dir == nullptr) Refuse("opendir /");
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) names.emplace_back(entry->d_name);
  closedir(dir);
  for (const std::string& name : names) {
    if (name == "." || name == ".." || name == "tmp" || name == "Users") continue;
    if (std::find(fresh.begin(), fresh.end(), name) != fresh.end()) continue;
    const std::string from = "/" + name;
    const std::string to = std::string(root) + "/" + name;
    struct stat st;
    if (lstat(from.c_str(), &st) != 0) continue;
    if (S_ISLNK(st.st_mode)) {
      char target[PATH_MAX];
      const ssize_t n = readlink(from.c_str(), target, sizeof(target) - 1);
      if (n < 0) continue;
      target[n] = '\0';
      if (symlink(target, to.c_str()) != 0) Refuse("symlink");
    } else if (S_ISDIR(st.st_mode)) {
      if (mkdir(to.c_str(), 0755) != 0) Refuse("mkdir");
      if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        Refuse(from.c_str());
      }
    }
    // Plain files at the top (such as /.dockerenv) are left out.
  }
  const std::string tmp = std::string(root) + "/tmp";
  const std::string users = std::string(root) + "/Users";
  const std::string old_root = std::string(root) + "/.old-root";
  if (mkdir(tmp.c_str(), 01777) != 0 || chmod(tmp.c_str(), 01777) != 0) Refuse("mkdir /tmp");
  if (mkdir(users.c_str(), 0755) != 0) Refuse("mkdir /Users");
  for (const std::string& name : fresh) {
    if (mkdir((std::string(root) + "/" + name).c_str(), 0755) != 0) Refuse(name.c_str());
  }
  if (mkdir(old_root.c_str(), 0700) != 0) Refuse("mkdir old root");
  if (syscall(SYS_pivot_root, root, old_root.c_str()) != 0) Refuse("pivot_root");
  if (chdir("/") != 0) Refuse("chdir /");
  if (umount2("/.old-root", MNT_DETACH) != 0) Refuse("umount old root");
  rmdir("/.old-root");
  if (have_cwd && chdir(cwd) != 0) {
    std::fprintf(stderr, "working directory %s is not reachable in the private root\n", cwd);
  }
}

}  // namespace zelfuzz
