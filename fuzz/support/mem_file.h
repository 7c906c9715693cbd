// An anonymous in-memory file with a path ("/proc/self/fd/<n>"), for
// targets that hand a file name to the library: nothing lands on disk and
// nothing is left behind when a run is killed.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace zelfuzz {

class MemFile {
 public:
  MemFile() : fd_(memfd_create("zel-fuzz", MFD_CLOEXEC)) {
    if (fd_ < 0) {
      std::perror("memfd_create");
      std::abort();
    }
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~MemFile() { close(fd_); }
  MemFile(const MemFile&) = delete;
  MemFile& operator=(const MemFile&) = delete;

  const std::string& path() const { return path_; }

  void Set(const std::string& bytes) {
    if (ftruncate(fd_, 0) != 0 ||
        pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
      std::perror("MemFile::Set");
      std::abort();
    }
  }

  std::string Get() const {
    std::string bytes;
    char buffer[4096];
    off_t at = 0;
    for (ssize_t n; (n = pread(fd_, buffer, sizeof(buffer), at)) > 0; at += n) {
      bytes.append(buffer, static_cast<size_t>(n));
    }
    return bytes;
  }

 private:
  int fd_;
  std::string path_;
};

}  // namespace zelfuzz
