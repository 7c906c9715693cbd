// Test helper: runs part of a test in a forked child (as another user, in a
// private mount namespace, ...) and brings back the text it produced and how
// it ended. The child must not use gtest assertions: it returns text that the
// parent checks.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace zeltest {

struct ChildResult {
  int status = -1;     // as waitpid gives it
  std::string output;  // what the body returned
  bool ExitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

// Ends a child with exit() rather than _exit() so that a coverage build
// writes the child's counters; a child that gave up root (see BecomeUser)
// takes it back first, since the counter files belong to root.
[[noreturn]] inline void EndChild(int code) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // No counters to keep there, and the sanitizers' exit-time reports would
  // judge the parent's objects too.
  _exit(code);
#else
  uid_t real = 0, effective = 0, saved = 0;
  if (getresuid(&real, &effective, &saved) == 0 && saved == 0 && effective != 0) {
    if (seteuid(0) != 0) _exit(code);
  }
  std::exit(code);
#endif
}

// Makes the calling (child) process run as uid/gid: the real and effective
// ids change, root stays only as the saved user id, for EndChild.
inline bool BecomeUser(uid_t uid, gid_t gid) {
  return setgroups(0, nullptr) == 0 && setresgid(gid, gid, gid) == 0 && setresuid(uid, uid, 0) == 0;
}

// The "nobody" account, for tests that need an ordinary user while running as root.
inline bool NobodyIds(uid_t* uid, gid_t* gid) {
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) return false;
  *uid = nobody->pw_uid;
  *gid = nobody->pw_gid;
  return true;
}

// Runs `body` in a forked child and returns its text and exit status
// (0 when the body returned; a body may end the child itself with EndChild).
inline ChildResult RunInChild(const std::function<std::string()>& body) {
  ChildResult result;
  int fds[2];
  if (pipe(fds) != 0) return result;
  std::fflush(nullptr);  // the child must not print the parent's pending output again
  const pid_t child = fork();
  if (child < 0) {
    close(fds[0]);
    close(fds[1]);
    return result;
  }
  if (child == 0) {
    close(fds[0]);
    const std::string text = body();
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = write(fds[1], text.data() + done, text.size() - done);
      if (n <= 0) EndChild(3);
      done += static_cast<size_t>(n);
    }
    close(fds[1]);
    EndChild(0);
  }
  close(fds[1]);
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) {
    result.output.append(buffer, static_cast<size_t>(n));
  }
  close(fds[0]);
  waitpid(child, &result.status, 0);
  return result;
}

// Runs `body` as an ordinary user: as "nobody" when the test runs as root,
// as the current user otherwise. Exit status 2: the switch failed.
inline ChildResult RunAsOrdinaryUser(const std::function<std::string()>& body) {
  return RunInChild([&body]() -> std::string {
    if (getuid() == 0) {
      uid_t uid = 0;
      gid_t gid = 0;
      if (!NobodyIds(&uid, &gid) || !BecomeUser(uid, gid)) EndChild(2);
    }
    return body();
  });
}

}  // namespace zeltest
