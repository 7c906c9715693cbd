#include "utils/staging_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <vector>

#include "utils/log_format.h"

namespace zel {
namespace logdetail {

namespace {

constexpr off_t kLargestStagingFile = off_t{64} * 1024 * 1024;

bool EndsWith(const std::string& text, const char* suffix) {
  const size_t length = strlen(suffix);
  return text.size() > length && text.compare(text.size() - length, length, suffix) == 0;
}

// The whole file, when it is a regular file of a readable size.
bool ReadAll(int fd, std::vector<unsigned char>* bytes) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kLargestStagingFile) {
    return false;
  }
  bytes->resize(static_cast<size_t>(st.st_size));
  size_t done = 0;
  while (done < bytes->size()) {
    const ssize_t n =
        pread(fd, bytes->data() + done, bytes->size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bytes->resize(done);
  return true;
}

std::vector<std::string> NamesIn(const std::string& dir, bool (*wanted)(const std::string&)) {
  std::vector<std::string> names;
  DIR* folder = opendir(dir.empty() ? "." : dir.c_str());
  if (folder == nullptr) return names;
  while (const dirent* entry = readdir(folder)) {
    const std::string name = entry->d_name;
    if (wanted(name)) names.push_back(name);
  }
  closedir(folder);
  std::sort(names.begin(), names.end());
  return names;
}

bool IsStagingName(const std::string& name) { return EndsWith(name, staging::kSuffix); }

bool IsDayName(const std::string& name) {
  return name.size() == logformat::kDayNameSize &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return isdigit(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace

void ForEachDeadStaging(const std::string& dir, staging::Kind kind, bool forWriting,
                        const std::function<void(const DeadStaging&)>& visit) {
  const int dirFd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) return;
  const std::vector<std::string> names = NamesIn(dir, &IsStagingName);
  for (const std::string& name : names) {
    const int flags = (forWriting ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int fd = openat(dirFd, name.c_str(), flags);
    if (fd < 0) continue;
    // Taken: the process that made it is gone (its lock went with it).
    std::vector<unsigned char> bytes;
    DeadStaging dead{dirFd, name, fd, {}};
    if (flock(fd, (forWriting ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0 && ReadAll(fd, &bytes) &&
        staging::Parse(bytes.data(), bytes.size(), &dead.contents) && dead.contents.kind == kind) {
      visit(dead);
    }
    close(fd);
  }
  close(dirFd);
}

std::vector<std::string> DayDirectories(const std::string& base) {
  return NamesIn(base, &IsDayName);
}

}  // namespace logdetail
}  // namespace zel
