#include "utils/rotating_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/sysmacros.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "utils/log_format.h"

namespace zel {
namespace logdetail {

namespace {

// The first `naming.dirLen` characters of its directory, then
// "<stem>.<timeTag>.<last>", cut to 255 characters; false when cut.
bool FormatName(char (&out)[kPathSize], const FileNaming& naming, const char* last) {
  const size_t dirLen = std::min(naming.dirLen, kPathSize - 1);
  // strncpy semantics: a directory shorter than the captured length leaves
  // zeros up to it (so the name is cut off) instead of reading past its end.
  strncpy(out, naming.dir.c_str(), dirLen);
  out[dirLen] = '\0';
  const int length = snprintf(out + dirLen, kPathSize - dirLen, "%s.%s.%s", naming.stem.c_str(),
                              naming.timeTag.c_str(), last);
  return naming.dirLen <= dirLen && static_cast<size_t>(length) < kPathSize - dirLen;
}

// rename(from, to), except that names cut alike are not renamed onto
// themselves; that still fails, as rename would, when nothing is there.
bool RenameUnlessSame(const char* from, const char* to) {
  if (strcmp(from, to) != 0) return rename(from, to) == 0;
  struct stat st;
  return lstat(from, &st) == 0;
}

std::string RotationNumber(uint8_t index) { return std::to_string(static_cast<unsigned>(index)); }

// What the writer's per-line check needs to know of a path.
struct PathFacts {
  bool regular = false;
  bool identified = false;  // device, inode and size are known
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
};

// Looks `path` up, following links as stat does; false if it names nothing.
bool StatPath(const char* path, PathFacts& facts) {
#if defined(__linux__)
  // Without the timestamps: once they were asked for, the kernel may stamp
  // the next write finely, which made every line's write slower than the
  // query itself.
  struct statx sx;
  if (statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, STATX_TYPE | STATX_INO | STATX_SIZE, &sx) == 0) {
    facts.regular = S_ISREG(sx.stx_mode);
    facts.identified = (sx.stx_mask & (STATX_INO | STATX_SIZE)) == (STATX_INO | STATX_SIZE);
    facts.device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    facts.inode = sx.stx_ino;
    facts.size = static_cast<off_t>(sx.stx_size);
    return true;
  }
  if (errno != ENOSYS) return false;  // else: no statx here, ask stat
#endif
  struct stat st;
  if (stat(path, &st) != 0) return false;
  facts = {S_ISREG(st.st_mode), true, st.st_dev, st.st_ino, st.st_size};
  return true;
}

}  // namespace

bool IsDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsRegularFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

void MakeDirectoryChain(const std::string& dir) {
  if (IsDirectory(dir.c_str()) || dir.size() > kPathSize - 1) return;
  // One byte more than a path buffer: a 255-character directory still gets
  // the closing slash that makes the walk create its last folder.
  char path[kPathSize + 1] = {};
  memcpy(path, dir.data(), dir.size());
  size_t len = dir.size();
  if (len == 0 || path[len - 1] != '/') path[len++] = '/';
  for (size_t i = 1; i < len; ++i) {
    if (path[i] != '/' && path[i] != '\\') continue;
    const char separator = path[i];
    path[i] = '\0';
    if (!IsDirectory(path) && mkdir(path, 0755) == -1) {
      printf("mkdir error,[%s]\n", path);
      return;
    }
    path[i] = separator;
  }
}

bool RotatingFile::MustRotate(int32_t maxSize, long* position) {
  PathFacts facts;
  if (!StatPath(path, facts) || !facts.regular) return true;
  *position = expectedSize;
  const bool same = facts.identified && facts.device == device && facts.inode == inode;
  if (!same || facts.size != expectedSize) {
    // Another file under the path, or someone else wrote to or cut ours:
    // the descriptor's offset is where the stream stands (after this
    // writer's last write, or at the end as opened).
    *position = static_cast<long>(lseek(fileno(fp), 0, SEEK_CUR));
    // Appends land at the end: after the next line the position is the size
    // as of now plus that line.
    expectedSize = same ? static_cast<long>(facts.size) : -1;
  }
  return static_cast<int>(*position) > maxSize;
}

void RotatingFile::Advance(size_t bytes) {
  if (expectedSize >= 0) expectedSize += static_cast<long>(bytes);
}

void RotatingFile::LostTrack() { expectedSize = -1; }

void RotatingFile::RotateOut(const FileNaming& naming, int renameErrorLine,
                             char (&rotated)[kPathSize]) {
  fclose(fp);
  fp = nullptr;
  Name(rotated, naming, RotationNumber(index).c_str());
  if (!RenameUnlessSame(path, rotated)) printf("%s %d,rename error\n", "getFile", renameErrorLine);
  ++index;
}

void RotatingFile::RemoveExpired(const FileNaming& naming, uint8_t index, uint32_t keep) {
  char name[kPathSize];
  Name(name, naming, RotationNumber(static_cast<uint8_t>(index - keep)).c_str());
  // A cut name may be the very file this writer appends to.
  if (name[0] == '\0' || strcmp(name, path) == 0 || !IsRegularFile(name)) return;
  if (remove(name) != 0) printf("delete file: %s failed\n", name);
}

std::string CurrentFileName(const FileNaming& naming) {
  char name[kPathSize];
  FormatName(name, naming, logformat::kCurrentSuffix);
  name[kPathSize - 1] = '\0';
  return name;
}

void RotatingFile::NameCurrent(const FileNaming& naming) {
  Name(path, naming, logformat::kCurrentSuffix);
  path[kPathSize - 1] = '\0';
}

void RotatingFile::Name(char (&out)[kPathSize], const FileNaming& naming, const char* last) {
  if (FormatName(out, naming, last) || cutReported) return;
  printf("log file name cut to %zu characters: [%s]\n", kPathSize - 1, out);
  cutReported = true;
}

FILE* RotatingFile::Open() {
  fp = fopen(path, "a");
  struct stat st;
  // At the end, as an appending stream stands once opened.
  if (fp != nullptr && lseek(fileno(fp), 0, SEEK_END) >= 0 && fstat(fileno(fp), &st) == 0) {
    device = st.st_dev;
    inode = st.st_ino;
    expectedSize = static_cast<long>(st.st_size);
  } else {
    expectedSize = -1;
  }
  return fp;
}

void RotatingFile::Close() {
  if (fp != nullptr) fclose(fp);
  fp = nullptr;
}

}  // namespace logdetail
}  // namespace zel
