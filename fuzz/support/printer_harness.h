// Shared by the two SavePrinterFile targets: a private file system, the
// state planted before each chunk, and the rules every outcome must follow.
//
// The library writes "/tmp/<file name>" and removes the local name
// (GetAppDataPath() + "\<id1>_<id2>_<label><file name>") for a first chunk, so
// the targets run in a private root (support/private_root.h): /tmp is empty
// tmpfs, GetAppDataPath() points at /app-data/orvane/log/ (ordinary-user
// branch, $XDG_DATA_HOME), and "victim" files that links may point at live in
// /outside, on the same tmpfs but outside /tmp.
//
// Rules checked for every chunk:
// - the result is 0 or -1;
// - under 20 bytes, a header longer than the buffer or a path without "/" or
//   "\": -1 and `local_name` untouched;
// - otherwise `local_name` is exactly the folder, "\", "<id1>_<id2>_", the
//   label and the file name (the part after the last "/", else after the last
//   "\"), cut to 259 characters; a file at that name is removed exactly when
//   the offset is 0;
// - an accepted chunk's data (all of it, or up to the largest file size)
//   lands exactly at its offset in /tmp/<name>; nothing else in the file
//   changes; a new file is a private (0600) regular file of ours;
// - a negative offset (2^63 and above), a chunk that would end past 2^63-1,
//   or one starting at or past the largest file size, is refused (-1)
//   without changing the file (the file is still created);
// - nothing outside /tmp/<name> changes: no other entry in /tmp, /outside or
//   the root folder, and a symbolic link, hard link, other user's file,
//   folder or FIFO at /tmp/<name> is left exactly as it was, the result -1.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/private_root.h"
#include "utils/file_operation.h"
#include "utils/key_store.h"

namespace zelfuzz {

// What is at /tmp/<name> before the chunk arrives.
enum class Planted {
  kNothing,
  kOwnFile,         // a regular file of ours, one link, with some bytes
  kSymlink,         // a symbolic link to /outside/victim
  kDanglingLink,    // a symbolic link to /outside/missing
  kHardLink,        // a second name of /outside/victim
  kOtherUsersFile,  // a regular file of another user (falls back to kOwnFile when unavailable)
  kFolder,
  kFifo,
  kCount
};

constexpr char kAppHome[] = "/app-data";
constexpr char kAppFolder[] = "/app-data/orvane/log/";
constexpr char kVictim[] = "/outside/victim";
constexpr char kMissing[] = "/outside/missing";
constexpr char kVictimBytes[] = "victim: must never change";
constexpr char kLocalBytes[] = "an earlier local copy";

inline void Require(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "printer fuzz target: %s\n", what);
    std::abort();
  }
}

// The file's bytes; only the first 64 KiB and a marker when it is larger
// (a chunk written far into a file that should not change must not make the
// comparison read gigabytes of holes).
inline std::string ReadFile(const std::string& path) {
  std::string bytes;
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return bytes;
  char buffer[4096];
  for (ssize_t n; bytes.size() < 65536 && (n = read(fd, buffer, sizeof(buffer))) > 0;) {
    bytes.append(buffer, static_cast<size_t>(n));
  }
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size > static_cast<off_t>(bytes.size())) {
    bytes += "<and more: " + std::to_string(st.st_size) + " bytes>";
  }
  close(fd);
  return bytes;
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Require(fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
          "cannot plant a file");
  close(fd);
}

inline std::set<std::string> Names(const char* folder) {
  std::set<std::string> names;
  if (DIR* dir = opendir(folder)) {
    while (const dirent* entry = readdir(dir)) names.insert(entry->d_name);
    closedir(dir);
  }
  return names;
}

// Removes everything in `folder` (the folder stays).
inline void Empty(const std::string& folder) {
  for (const std::string& name : Names(folder.c_str())) {
    if (name == "." || name == "..") continue;
    const std::string path = folder + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      Empty(path);
      rmdir(path.c_str());
    } else {
      unlink(path.c_str());
    }
  }
}

inline bool Lstat(const std::string& path, struct stat* st) { return lstat(path.c_str(), st) == 0; }

// The largest size a write may reach: the file system's, or a lower file
// size limit (SIGXFSZ is ignored, so the write fails with EFBIG instead).
inline long long MaxFileSize() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      limit.rlim_cur < static_cast<rlim_t>(LLONG_MAX)) {
    return static_cast<long long>(limit.rlim_cur);
  }
  return LLONG_MAX;
}

inline void SetUpPrinterTarget() {
  EnterPrivateRoot({"outside", "app-data"});
  // Not world-writable and sticky: the kernel's extra rules for such folders
  // (protected_regular, protected_fifos, protected_symlinks) would refuse
  // some opens by themselves and hide what the library does.
  Require(chmod("/tmp", 0755) == 0, "cannot make /tmp private");
  signal(SIGXFSZ, SIG_IGN);
  umask(022);
  setenv("XDG_DATA_HOME", kAppHome, 1);
  // The local name's folder: only ever a private one.
  Require(GetAppDataPath() == kAppFolder, "GetAppDataPath is not the private folder");
  Require(system("mkdir -p /app-data/orvane/log") == 0, "cannot make the application folder");
}

struct Expected {
  bool named = false;  // the name step is reached
  std::string file_name;
  std::string local_name;
  unsigned long long offset = 0;
  std::string data;
};

inline uint64_t LittleEndian(const std::vector<unsigned char>& chunk, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value |= static_cast<uint64_t>(chunk[at + i]) << (8 * i);
  return value;
}

inline Expected Expect(const std::vector<unsigned char>& chunk, const std::string& label) {
  Expected expected;
  const size_t len = chunk.size();
  if (len < 20) return expected;
  const size_t path_len = chunk[4];
  if (path_len + 21 > len) return expected;
  // The path as a C string: it ends at its first NUL.
  std::string path(reinterpret_cast<const char*>(&chunk[5]), path_len);
  path = path.substr(0, path.find('\0'));
  size_t cut = path.rfind('/');
  if (cut == std::string::npos) cut = path.rfind('\\');
  if (cut == std::string::npos) return expected;
  expected.named = true;
  expected.file_name = path.substr(cut + 1);
  const std::string ids = std::to_string(LittleEndian(chunk, 0, 2)) + "_" +
                          std::to_string(LittleEndian(chunk, 2, 2)) + "_";
  expected.local_name =
      (std::string(kAppFolder) + "\\" + ids + label + expected.file_name).substr(0, 259);
  expected.offset = LittleEndian(chunk, 13 + path_len, 8);
  expected.data.assign(reinterpret_cast<const char*>(&chunk[21 + path_len]), len - 21 - path_len);
  return expected;
}

// A file name that names an entry in /tmp (not /tmp itself or /).
inline bool Plantable(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= 254;
}

// Plants `what` at /tmp/<name>; the planted kind (kOtherUsersFile may fall back).
inline Planted Plant(Planted what, const std::string& name, const std::string& prior) {
  const std::string path = "/tmp/" + name;
  if (what == Planted::kOtherUsersFile && !OtherUserAvailable()) what = Planted::kOwnFile;
  switch (what) {
    case Planted::kNothing:
    case Planted::kCount:
      return Planted::kNothing;
    case Planted::kOwnFile:
      WriteFile(path, prior);
      break;
    case Planted::kSymlink:
      Require(symlink(kVictim, path.c_str()) == 0, "cannot plant a symbolic link");
      break;
    case Planted::kDanglingLink:
      Require(symlink(kMissing, path.c_str()) == 0, "cannot plant a symbolic link");
      break;
    case Planted::kHardLink:
      Require(link(kVictim, path.c_str()) == 0, "cannot plant a hard link");
      break;
    case Planted::kOtherUsersFile:
      WriteFile(path, prior);
      Require(chown(path.c_str(), kOtherUid, kOtherUid) == 0, "cannot give a file away");
      break;
    case Planted::kFolder:
      Require(mkdir(path.c_str(), 0700) == 0, "cannot plant a folder");
      break;
    case Planted::kFifo:
      Require(mkfifo(path.c_str(), 0600) == 0, "cannot plant a FIFO");
      break;
  }
  return what;
}

// Runs one chunk through SavePrinterFile with /tmp/<name> prepared as
// `planted` (when the chunk names a file) and, when `local_copy`, an earlier
// file at the local name; then checks every rule above.
inline void RunChunk(const std::vector<unsigned char>& chunk, Planted planted, bool local_copy,
                     const std::string& prior = "prior bytes of an earlier job") {
  static const std::string label = "fuzz_";
  Empty("/tmp");
  Empty("/outside");
  Empty(kAppFolder);
  WriteFile(kVictim, kVictimBytes);

  const Expected expected = Expect(chunk, label);
  const bool plantable = expected.named && Plantable(expected.file_name);
  const std::string target = "/tmp/" + expected.file_name;
  if (plantable)
    planted = Plant(planted, expected.file_name, prior);
  else
    planted = Planted::kNothing;
  struct stat before {};
  const bool existed = plantable && Lstat(target, &before);
  const std::string before_bytes =
      existed && S_ISREG(before.st_mode) ? ReadFile(target) : std::string();
  std::string before_link;
  if (existed && S_ISLNK(before.st_mode)) {
    char text[256];
    const ssize_t n = readlink(target.c_str(), text, sizeof(text));
    before_link.assign(text, n > 0 ? static_cast<size_t>(n) : 0);
  }
  // (A local name whose last part is longer than a file name can be never exists.)
  const bool local_planted =
      expected.named && local_copy && expected.local_name.size() - std::strlen(kAppFolder) <= 255;
  if (local_planted) WriteFile(expected.local_name, kLocalBytes);
  const std::set<std::string> tmp_before = Names("/tmp");
  const std::set<std::string> root_before = Names("/");

  // A buffer of exactly the chunk's size: reads past it are caught.
  std::vector<unsigned char> buffer(chunk);
  std::string local_name = "unset";
  const int rc = zel::SavePrinterFile(static_cast<unsigned int>(buffer.size()), buffer.data(),
                                      label, local_name);

  Require(rc == 0 || rc == -1, "result other than 0 or -1");
  Require(Names("/") == root_before, "the root folder changed");
  Require(Names("/outside") == std::set<std::string>{".", "..", "victim"},
          "something appeared in /outside (written through a link?)");
  Require(ReadFile(kVictim) == kVictimBytes,
          "the victim outside /tmp changed (written through a link)");

  if (!expected.named) {
    Require(rc == -1, "a chunk without a file name was accepted");
    Require(local_name == "unset", "local_name set before the name step");
    Require(Names("/tmp") == tmp_before, "/tmp changed for a refused chunk");
    return;
  }
  Require(local_name == expected.local_name, "local_name is not the expected name");
  if (local_planted) {
    const bool gone = access(expected.local_name.c_str(), F_OK) != 0;
    Require(gone == (expected.offset == 0), "the local copy is removed exactly for offset 0");
    Require(gone || ReadFile(expected.local_name) == kLocalBytes, "the local copy changed");
  }

  std::set<std::string> tmp_after = Names("/tmp");
  if (!plantable) {
    // "", "." and "..": /tmp itself or the root, never writable as a file.
    Require(rc == -1, "a chunk naming a folder was accepted");
    Require(tmp_after == tmp_before, "/tmp changed for a folder name");
    return;
  }
  struct stat after {};
  const bool exists = Lstat(target, &after);

  if (planted != Planted::kNothing && planted != Planted::kOwnFile) {
    // Never written through: the same kind of entry, the same inode, the
    // same bytes or link text.
    Require(rc == -1, planted == Planted::kHardLink         ? "wrote through a hard link"
                      : planted == Planted::kOtherUsersFile ? "wrote another user's file"
                                                            : "accepted a link, folder or FIFO");
    Require(exists && after.st_ino == before.st_ino && after.st_mode == before.st_mode &&
                after.st_nlink == before.st_nlink && after.st_uid == before.st_uid,
            "the entry at /tmp/<name> was replaced");
    if (S_ISREG(after.st_mode)) {
      Require(ReadFile(target) == before_bytes, "a refused file changed");
    }
    if (S_ISLNK(after.st_mode)) {
      char text[256];
      const ssize_t n = readlink(target.c_str(), text, sizeof(text));
      Require(n >= 0 && std::string(text, static_cast<size_t>(n)) == before_link,
              "a symbolic link changed");
    }
    Require(tmp_after == tmp_before, "/tmp gained an entry");
    return;
  }

  // Nothing or our own file: opened (created when missing), then written.
  Require(exists && S_ISREG(after.st_mode) && after.st_nlink == 1 && after.st_uid == geteuid(),
          "/tmp/<name> is not a regular file of ours with one link");
  if (!existed) {
    Require((after.st_mode & 07777) == 0600, "a new file is not private (0600)");
    tmp_after.erase(expected.file_name);
  }
  Require(tmp_after == tmp_before, "/tmp gained another entry");

  const long long offset = static_cast<long long>(expected.offset);
  const long long limit = MaxFileSize();
  const size_t data_len = expected.data.size();
  size_t written = 0;
  if (offset < 0) {
    Require(rc == -1, "a negative offset was accepted");
  } else if (data_len == 0) {
    Require(rc == 0, "an empty chunk was refused");
  } else if (static_cast<unsigned long long>(offset) + data_len > LLONG_MAX) {
    Require(rc == -1, "a chunk ending past the largest offset was accepted");
  } else if (offset >= limit) {
    Require(rc == -1, "an offset past the largest file size was accepted");
  } else {
    Require(rc == 0, "a valid chunk was refused");
    written =
        static_cast<size_t>(std::min<long long>(static_cast<long long>(data_len), limit - offset));
  }

  // The file: the earlier bytes, with the chunk's bytes at the offset.
  const long long old_size = static_cast<long long>(before_bytes.size());
  const long long end = written > 0 ? offset + static_cast<long long>(written) : 0;
  Require(after.st_size == std::max(old_size, end), "the file has the wrong size");
  const int fd = open(target.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  Require(fd >= 0, "cannot read the written file back");
  auto read_at = [fd](long long at, size_t size) {
    std::string bytes(size, '\0');
    const ssize_t n = size == 0 ? 0 : pread(fd, &bytes[0], size, static_cast<off_t>(at));
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return bytes;
  };
  if (written > 0) {
    Require(read_at(offset, written) == expected.data.substr(0, written),
            "the data is not at its offset");
    // Earlier bytes before and after the chunk are kept; a gap reads as zeros.
    const long long keep_before = std::min(old_size, offset);
    Require(read_at(0, static_cast<size_t>(keep_before)) == before_bytes.substr(0, keep_before),
            "bytes before the chunk changed");
    if (old_size > end) {
      Require(read_at(end, static_cast<size_t>(old_size - end)) == before_bytes.substr(end),
              "bytes after the chunk changed");
    }
    const long long gap = std::min<long long>(offset - keep_before, 64);
    Require(read_at(offset - gap, static_cast<size_t>(gap)) == std::string(gap, '\0'),
            "the gap before the chunk is not zeros");
  } else {
    Require(read_at(0, before_bytes.size()) == before_bytes,
            "a chunk that wrote nothing changed the file");
  }
  close(fd);
}

}  // namespace zelfuzz
