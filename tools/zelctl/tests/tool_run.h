// Test helpers: run the real zelctl binary with arguments and collect its exit
// status, standard output and standard error; keep one running (logs
// --follow) and read its output as it comes. Temporary folders and files are
// in temp_files.h.
#pragma once

#include <fcntl.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "temp_files.h"

extern char** environ;

namespace zelctltest {

struct ToolResult {
  int exit_code = -1;  // -1 when ended by a signal
  int signal = 0;
  std::string out, err;
};

// Starts zelctl with `args`; `env` entries NAME=VALUE replace or add to this
// process's environment. Its stdout and stderr come back through pipes.
class RunningTool {
 public:
  RunningTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    int out_pipe[2], err_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);
    posix_spawn_file_actions_addclose(&actions, out_pipe[0]);
    posix_spawn_file_actions_addclose(&actions, err_pipe[0]);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    std::vector<std::string> argv_text = {ZELCTL_BINARY};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_text;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string entry = *e;
      bool replaced = false;
      for (const std::string& over : env) {
        if (entry.compare(0, over.find('=') + 1, over, 0, over.find('=') + 1) == 0) replaced = true;
      }
      if (!replaced) env_text.push_back(entry);
    }
    for (const std::string& over : env) {
      if (over.back() != '=') env_text.push_back(over);  // "NAME=" removes NAME
    }
    std::vector<char*> envp;
    for (std::string& e : env_text) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, ZELCTL_BINARY, &actions, nullptr, argv.data(), envp.data()) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out_pipe[1]);
    close(err_pipe[1]);
    out_fd_ = out_pipe[0];
    err_fd_ = err_pipe[0];
  }
  ~RunningTool() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_fd_ >= 0) close(out_fd_);
    if (err_fd_ >= 0) close(err_fd_);
  }
  RunningTool(const RunningTool&) = delete;
  RunningTool& operator=(const RunningTool&) = delete;

  bool started() const { return pid_ > 0; }
  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }

  // Reads until stdout holds `text` or `seconds` pass; true when it does.
  bool WaitForOutput(const std::string& text, double seconds = 20) {
    const auto deadline = Now() + std::chrono::duration<double>(seconds);
    while (out_.find(text) == std::string::npos) {
      if (Now() >= deadline || !ReadSome(50)) return out_.find(text) != std::string::npos;
    }
    return true;
  }

  // Sends `sig` (0: none) and waits up to `seconds` for the end; reads the rest.
  ToolResult Finish(int sig = 0, double seconds = 60) {
    if (sig != 0 && pid_ > 0) kill(pid_, sig);
    const auto deadline = Now() + std::chrono::duration<double>(seconds);
    while ((out_fd_ >= 0 || err_fd_ >= 0) && Now() < deadline) ReadSome(100);
    ToolResult result;
    if (pid_ > 0) {
      int status = 0;
      for (;;) {
        const pid_t done = waitpid(pid_, &status, WNOHANG);
        if (done == pid_) break;
        if (Now() >= deadline) {
          kill(pid_, SIGKILL);
          waitpid(pid_, &status, 0);
          break;
        }
        usleep(10000);
      }
      pid_ = -1;
      if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
      if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    }
    result.out = out_;
    result.err = err_;
    return result;
  }

 private:
  static std::chrono::steady_clock::time_point Now() { return std::chrono::steady_clock::now(); }

  // One poll of both pipes; false when both are closed.
  bool ReadSome(int timeout_ms) {
    pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    if (out_fd_ < 0 && err_fd_ < 0) return false;
    if (poll(fds, 2, timeout_ms) <= 0) return true;
    char buffer[65536];
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
      int& fd = i == 0 ? out_fd_ : err_fd_;
      if (n <= 0) {
        close(fd);
        fd = -1;
      } else {
        (i == 0 ? out_ : err_).append(buffer, static_cast<size_t>(n));
      }
    }
    return true;
  }

  pid_t pid_ = -1;
  int out_fd_ = -1, err_fd_ = -1;
  std::string out_, err_;
};

inline ToolResult RunTool(const std::vector<std::string>& args,
                          const std::vector<std::string>& env = {}) {
  RunningTool tool(args, env);
  return tool.Finish();
}

inline bool ParseJson(const std::string& text, Json::Value* value) {
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  return Json::parseFromStream(builder, in, value, &errors);
}

// Today's local date as "YYYYMMDD".
inline std::string TodayText() {
  const time_t now = std::time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof(text), "%Y%m%d", &local);
  return text;
}

}  // namespace zelctltest
