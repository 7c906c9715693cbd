#include "utils/file_operation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "utils/diag.h"
#include "utils/key_store.h"

namespace {

constexpr unsigned int kMinChunkLength = 20;
constexpr unsigned int kFixedHeaderLength = 21;  // header bytes besides the path
constexpr size_t kNameSize = 260;

// Little-endian unsigned integer of `size` bytes at `at`, read byte by byte
// (no alignment). Bytes past `len` read as zero: the short-buffer check comes
// after these fields are read, and a truncated header must not be read past
// its end.
uint64_t ReadLittleEndian(const unsigned char* buffer, size_t len, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) {
    if (at + i < len) value |= static_cast<uint64_t>(buffer[at + i]) << (8 * i);
  }
  return value;
}

// The part after the last "/", else after the last backslash; null when the
// path has neither.
const char* FileNameOf(const char* path) {
  if (const char* slash = std::strrchr(path, '/')) return slash + 1;
  if (const char* backslash = std::strrchr(path, '\\')) return backslash + 1;
  return nullptr;
}

// /tmp is writable by everyone: a name planted there as a hard link to
// another file (macOS does not stop links to other users' files), a file of
// another user, a FIFO or a device must not receive print data. Only a
// regular file of ours with no other name will do.
bool IsOwnPrivateFile(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
}

}  // namespace

namespace zel {

long long getFileSize(const char* path) {
  struct stat st;
  std::memset(&st, 0, sizeof(st));
  lstat(path, &st);  // st stays zero-filled on failure
  return static_cast<long long>(st.st_size);
}

bool fileExists(const char* path) { return access(path, F_OK) == 0; }

bool deleteFile(const char* path) { return std::remove(path) == 0; }

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the API's
int SavePrinterFile(unsigned int len, unsigned char* buffer, std::string label,
                    std::string& local_name) {
  if (len < kMinChunkLength) {
    ZEL_ERROR("buffer size too little");
    return -1;
  }
  const auto id1 = static_cast<unsigned int>(ReadLittleEndian(buffer, len, 0, 2));
  const auto id2 = static_cast<unsigned int>(ReadLittleEndian(buffer, len, 2, 2));
  const unsigned int path_len = buffer[4];
  char path[kNameSize] = {};
  std::memcpy(path, buffer + 5, path_len <= len - 5 ? path_len : len - 5);
  const unsigned long long file_size = ReadLittleEndian(buffer, len, 5 + path_len, 8);
  const unsigned long long offset = ReadLittleEndian(buffer, len, 13 + path_len, 8);
  ZEL_DEBUG("file size: %llu,  offset:%llu", file_size, offset);

  const unsigned int header_len = path_len + kFixedHeaderLength;
  if (header_len > len) {
    ZEL_ERROR("no buffer to save, len = %d", static_cast<int>(header_len));
    return -1;
  }
  ZEL_DEBUG("save file path: %s", path);

  const char* file_name = FileNameOf(path);
  if (file_name == nullptr) {
    ZEL_ERROR("get filename failed");
    return -1;
  }

  char ids[32];
  std::snprintf(ids, sizeof(ids), "%u_%u_", id1, id2);
  char local[kNameSize];
  std::snprintf(local, sizeof(local), "%s\\%s%s%s", GetAppDataPath().c_str(), ids, label.c_str(),
                file_name);
  ZEL_DEBUG("save to local name: %s", local);
  local_name = local;

  if (offset == 0 && access(local, F_OK) == 0) {
    std::remove(local);
    ZEL_DEBUG("%s exist, delete", local);
  }

  // The data goes to /tmp under the bare file name, not to the local name.
  char tmp_name[kNameSize];
  std::snprintf(tmp_name, sizeof(tmp_name), "/tmp/%s", file_name);
  const int fd = open(tmp_name, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  if (!IsOwnPrivateFile(fd)) {
    close(fd);
    return -1;
  }

  const unsigned int data_len = len - header_len;
  ZEL_DEBUG("file write start:%d, len: %d,  offset:%llu", static_cast<int>(header_len),
            static_cast<int>(data_len), offset);
  const ssize_t written = pwrite(fd, buffer + header_len, data_len, static_cast<off_t>(offset));
  close(fd);
  return written < 0 ? static_cast<int>(written) : 0;
}

}  // namespace zel
