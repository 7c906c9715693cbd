// Test helpers for the log suites: a scratch log base, reading what the
// loggers wrote, and waiting for their thread to get there.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/sync.h"

namespace zeltest {

// The size past which a log file rotates (the on-disk format's 5 MiB).
constexpr size_t kMaxFileSize = 5242880;

// What a writer prints, once, when a name had to be cut; the name and "]\n" follow.
constexpr char kCutReport[] = "log file name cut to 255 characters: [";

// A log writer's staging file (lines accepted, not yet written): it lives
// beside the log files while its writer does, and is not one of them.
inline bool IsStagingFile(const std::string& name) {
  const std::string suffix = ".stage";
  return name.size() > suffix.size() &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Names of the regular files directly in `dir` (staging files aside), sorted.
inline std::vector<std::string> FileNames(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (entry.is_regular_file() && !IsStagingFile(name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Name of the current (".txt") file directly in `dir`; "" when there is none.
inline std::string CurrentFileIn(const std::string& dir) {
  std::string found;
  for (const auto& name : FileNames(dir)) {
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) found = name;
  }
  return found;
}

// WaitUntil as the log suites wait: up to 20 s, as a writer thread may sit
// behind a loaded disk, polling every 5 ms, as their polls read files.
inline bool WaitForLogs(const std::function<bool()>& done,
                        std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  return WaitUntil(done, limit, std::chrono::milliseconds(5));
}

// CurrentFileIn(dir) once the writer made the file ("" on time-out).
inline std::string WaitForCurrentFile(const std::string& dir) {
  std::string found;
  WaitForLogs([&] { return !(found = CurrentFileIn(dir)).empty(); });
  return found;
}

// Waits until the file at `path` holds exactly `size` bytes.
inline bool WaitForSize(const std::string& path, uintmax_t size) {
  return WaitForLogs([&] {
    std::error_code ec;
    return std::filesystem::file_size(path, ec) == size && !ec;
  });
}

// Waits until `path` exists and contains `needle`.
inline bool WaitForText(const std::string& path, const std::string& needle) {
  return WaitForLogs([&] { return ReadFile(path).find(needle) != std::string::npos; });
}

// "%04d%02d%02d/" of the local date now.
inline std::string TodayText() {
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char text[64];
  snprintf(text, sizeof(text), "%04d%02d%02d/", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday);
  return text;
}

// "%02d%02d%02d" of the local time now.
inline std::string TimeTagNow() {
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char text[64];
  snprintf(text, sizeof(text), "%02d%02d%02d", local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

// Redirects the process's standard output (every thread's) into a scratch
// file while alive, so that a test can poll what was printed.
class StdoutCapture {
 public:
  StdoutCapture() {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, STDOUT_FILENO);
    close(fd);
  }
  ~StdoutCapture() { Restore(); }
  // What was printed so far.
  std::string Text() {
    fflush(stdout);
    return ReadFile(file_);
  }
  // Stops capturing and returns the text.
  std::string Take() {
    std::string text = Text();
    Restore();
    return text;
  }
  // Polls until `needle` was printed `times` times (generous time-out).
  bool WaitForCount(const std::string& needle, size_t times) {
    return WaitForLogs([&] { return Count(Text(), needle) == times; });
  }
  static size_t Count(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
      ++count;
    return count;
  }

 private:
  void Restore() {
    if (saved_ < 0) return;
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    saved_ = -1;
  }
  TempDir dir_;
  std::string file_ = dir_.path() + "stdout.txt";
  int saved_ = -1;
};

}  // namespace zeltest

namespace zeltest {

// Runs `command` under faketime with the wall clock starting at `start`
// ("YYYY-MM-DD hh:mm:ss", local time) and running on, or standing still at it
// when `frozen`; returns its exit status. The monotonic clock is left alone so
// that timed waits behave. An ASan runtime would refuse the preloaded library
// without verify_asan_link_order=0.
inline int RunUnderFaketime(const std::string& start, const std::string& command,
                            bool frozen = false) {
  const char* asan = getenv("ASAN_OPTIONS");
  const std::string line = "env DONT_FAKE_MONOTONIC=1 ASAN_OPTIONS='verify_asan_link_order=0" +
                           std::string(asan != nullptr && *asan != '\0' ? ":" : "") +
                           (asan != nullptr ? asan : "") + "' faketime -f '" + (frozen ? "" : "@") +
                           start + "' " + command;
  const int status = std::system(line.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#ifdef ZEL_MIDNIGHT_CHILD
// Runs the helper's zonejump mode (lines "zone 00000".."zone 05599", the time
// zone moving 26 hours east after line 5199) under a clock that stands still
// at 2030-03-14 10:00:00, so that the move and what follows share one second.
inline int RunZoneJump(const std::string& base) {
  return RunUnderFaketime("2030-03-14 10:00:00",
                          std::string(ZEL_MIDNIGHT_CHILD) + " zonejump " + base, true);
}
#endif

// `parent` (which ends in "/") followed by one directory name of 'd's that
// brings the whole to `length` characters, the last of them "/".
inline std::string PathOfLength(const std::string& parent, size_t length) {
  EXPECT_GT(length, parent.size() + 1);
  return parent + std::string(length - parent.size() - 1, 'd') + "/";
}

// Line `i` of a numbered series: "<i, five digits> " then dots up to `size`
// bytes, the newline included.
inline std::string NumberedLine(int i, size_t size = 1000) {
  char head[16];
  snprintf(head, sizeof(head), "%05d ", i);
  std::string line = head + std::string(size - 7, '.') + "\n";
  return line;
}

// The numbers of the numbered lines in `lines`, in order.
inline std::vector<int> LineNumbers(const std::vector<std::string>& lines) {
  std::vector<int> numbers;
  for (const auto& line : lines) numbers.push_back(std::atoi(line.c_str()));
  return numbers;
}

// first, first + 1, ..., last.
inline std::vector<int> Range(int first, int last) {
  std::vector<int> numbers;
  for (int n = first; n <= last; ++n) numbers.push_back(n);
  return numbers;
}

// 0, 1, ..., count - 1.
inline std::vector<int> Sequence(int count) { return Range(0, count - 1); }

// A line of exactly `size` bytes: `mark`, dots, a newline.
inline std::string MarkedLine(char mark, size_t size) {
  std::string line(size, '.');
  line[0] = mark;
  line[size - 1] = '\n';
  return line;
}

// Waits until some current (".txt") file below `base` ends in `tail`.
inline bool WaitForLastLine(const std::string& base, const std::string& tail) {
  return WaitForLogs(
      [&] {
        std::error_code ec;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(base, ec)) {
          const std::string path = entry.path().string();
          if (!entry.is_regular_file() || path.size() < 4 || path.substr(path.size() - 4) != ".txt")
            continue;
          std::ifstream in(path, std::ios::binary | std::ios::ate);
          const std::streamoff size = in.tellg();
          if (size < static_cast<std::streamoff>(tail.size())) continue;
          std::string end(tail.size(), '\0');
          in.seekg(size - static_cast<std::streamoff>(tail.size()));
          in.read(&end[0], static_cast<std::streamsize>(end.size()));
          if (end == tail) return true;
        }
        return false;
      },
      std::chrono::seconds(60));
}

// Moves this test process (still single-threaded: call it before anything
// starts a thread) into a mount namespace of its own, with a tmpfs of `bytes`
// mounted on the existing directory `dir`. Unprivileged users get a user
// namespace too, where the kernel allows one. False if refused.
inline bool MountPrivateTmpfs(const std::string& dir, size_t bytes) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (unshare(uid == 0 ? CLONE_NEWNS : (CLONE_NEWUSER | CLONE_NEWNS)) != 0) return false;
  if (uid != 0) {
    // The same ids inside, so that the new tmpfs is ours to write.
    auto write_text = [](const char* path, const std::string& text) {
      std::ofstream out(path);
      out << text;
      out.close();
      return !out.fail();
    };
    if (!write_text("/proc/self/setgroups", "deny") ||
        !write_text("/proc/self/uid_map",
                    std::to_string(uid) + " " + std::to_string(uid) + " 1\n") ||
        !write_text("/proc/self/gid_map",
                    std::to_string(gid) + " " + std::to_string(gid) + " 1\n")) {
      return false;
    }
  }
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  const std::string options = "size=" + std::to_string(bytes);
  return mount("zeltest", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// Detaches whatever is mounted on `dir` when it goes, so that the folder
// holding the mount point can be removed (open files keep the tmpfs alive).
class UnmountAtEnd {
 public:
  explicit UnmountAtEnd(std::string dir) : dir_(std::move(dir)) {}
  ~UnmountAtEnd() { umount2(dir_.c_str(), MNT_DETACH); }
  UnmountAtEnd(const UnmountAtEnd&) = delete;
  UnmountAtEnd& operator=(const UnmountAtEnd&) = delete;

 private:
  std::string dir_;
};

// Every line of every log file below `base`, in the order written:
// directories in name order, and in each the rotated files by number, then
// the current one.
inline std::vector<std::string> LinesBelow(const std::string& base) {
  std::vector<std::pair<std::string, std::string>> files;  // sort key, path
  for (const auto& entry : std::filesystem::recursive_directory_iterator(base)) {
    if (!entry.is_regular_file() || IsStagingFile(entry.path().filename().string())) continue;
    const std::string path = entry.path().string();
    const std::string suffix = path.substr(path.rfind('.') + 1);
    const std::string number =
        suffix == "txt" ? "9999"
                        : std::string(4 - std::min<size_t>(suffix.size(), 4), '0') + suffix;
    files.emplace_back(entry.path().parent_path().string() + "/" + number, path);
  }
  std::sort(files.begin(), files.end());
  std::vector<std::string> lines;
  for (const auto& file : files) {
    std::istringstream in(ReadFile(file.second));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
  }
  return lines;
}

}  // namespace zeltest
