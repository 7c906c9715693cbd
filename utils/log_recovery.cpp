#include "utils/log_recovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "utils/log_format.h"
#include "utils/log_line.h"
#include "utils/staging_scan.h"

namespace zel {
namespace logdetail {

namespace {

// Where a dead process's lines go, as names relative to the scanned folder.
struct Target {
  std::string day;   // "YYYYMMDD" for the process log, "" for a named log
  std::string name;  // the file's name
};

bool PlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// `target` split into the folders this log writes in; false when it lies
// anywhere else.
bool ParseTarget(const std::string& dir, staging::Kind kind, const std::string& target,
                 Target* out) {
  if (target.compare(0, dir.size(), dir) != 0) return false;
  std::string rest = target.substr(dir.size());
  if (kind == staging::kProcessLog) {
    constexpr size_t kDay = logformat::kDayNameSize;
    if (rest.size() < kDay + 2 || rest[kDay] != '/') return false;
    for (size_t i = 0; i < kDay; ++i) {
      if (!isdigit(static_cast<unsigned char>(rest[i]))) return false;
    }
    out->day = rest.substr(0, kDay);
    // The default base's day directories end in a doubled slash.
    const size_t name = rest.find_first_not_of('/', kDay);
    if (name == std::string::npos) return false;
    rest = rest.substr(name);
    if (rest.rfind(logformat::kLogFilePrefix, 0) != 0) return false;
  }
  out->name = rest;
  return PlainName(rest);
}

// The target opened for appending, without following a link, created if
// missing; -1 unless it is a regular file of the effective user with one link.
int OpenTarget(int dirFd, const Target& target) {
  int folder = dirFd;
  if (!target.day.empty()) {
    const int dayFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    folder = openat(dirFd, target.day.c_str(), dayFlags);
    if (folder < 0 && errno == ENOENT && mkdirat(dirFd, target.day.c_str(), 0755) == 0) {
      folder = openat(dirFd, target.day.c_str(), dayFlags);
    }
    if (folder < 0) return -1;
  }
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = openat(folder, target.name.c_str(), flags, 0644);
  if (folder != dirFd) close(folder);
  struct stat st;
  if (fd >= 0 &&
      (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1)) {
    close(fd);
    fd = -1;
  }
  return fd;
}

// Records in the dead process's staging file (its lock is ours) that every
// line is being written to a target that held `fromSize` bytes before them:
// a recovery cut short by this process's own death is then taken up where it
// stopped, never repeated.
bool MarkWriting(int fd, uint64_t headSeq, uint64_t fromSize) {
  return pwrite(fd, &fromSize, sizeof(fromSize), offsetof(staging::Header, writingFromSize)) ==
             sizeof(fromSize) &&
         pwrite(fd, &headSeq, sizeof(headSeq), offsetof(staging::Header, writingEndSeq)) ==
             sizeof(headSeq);
}

bool WriteAll(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void Recover(const DeadStaging& dead, const std::string& dir, staging::Kind kind) {
  const staging::Contents& contents = dead.contents;
  Target target;
  const bool nothingLeft = contents.lines.empty();
  if (!nothingLeft && !ParseTarget(dir, kind, contents.target, &target)) return;
  if (!nothingLeft) {
    // Targets are named relative to `dir`, which may differ from the folder
    // the staging file is in (a day directory of the process log's base).
    const int dirFd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0) return;
    const int fd = OpenTarget(dirFd, target);
    close(dirFd);
    if (fd < 0) return;
    struct stat st;
    const uint64_t size = fstat(fd, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    staging::Unwritten rest = staging::UnwrittenPart(contents, size);
    if (rest.lines > 0) {
      rest.text += LineNow("zel log: recovered " + std::to_string(rest.lines) + " lines that " +
                           contents.process + " (pid " + std::to_string(contents.pid) +
                           ") had not written when it ended\n");
    }
    const bool appended =
        MarkWriting(dead.fd, contents.headSeq, rest.fromSize) && WriteAll(fd, rest.text);
    close(fd);
    if (!appended) return;  // left for the next start
  }
  unlinkat(dead.dirFd, dead.name.c_str(), 0);
}

}  // namespace

void RecoverProcessLog(const std::string& base) {
  for (const std::string& day : DayDirectories(base)) {
    ForEachDeadStaging(base + day + "/", staging::kProcessLog, true,
                       [&](const DeadStaging& dead) { Recover(dead, base, staging::kProcessLog); });
  }
}

void RecoverNamedLog(const std::string& dir) {
  ForEachDeadStaging(dir, staging::kNamedLog, true,
                     [&](const DeadStaging& dead) { Recover(dead, dir, staging::kNamedLog); });
}

}  // namespace logdetail
}  // namespace zel
