#include "utils/staging_area.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zel {
namespace logdetail {

namespace {

constexpr size_t kPage = 4096;

// Stores before this one reach the mapping before stores after it, as far
// as the compiler is concerned; the processor retires them in order, so a
// process killed between them leaves the earlier ones in the file.
void CrashOrder() { std::atomic_signal_fence(std::memory_order_release); }

bool WriteZeros(int fd, size_t bytes) {
  static const char zeros[64 * 1024] = {};
  for (size_t done = 0; done < bytes;) {
    const size_t chunk = std::min(sizeof(zeros), bytes - done);
    const ssize_t n = pwrite(fd, zeros, chunk, static_cast<off_t>(done));
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// A write to every page, so that staging a line later faults on none.
void Touch(unsigned char* mapping, size_t bytes) {
  for (size_t at = 0; at < bytes; at += kPage) {
    *reinterpret_cast<volatile unsigned char*>(mapping + at) = 0;
  }
}

}  // namespace

StagingArea::StagingArea(const std::string& finalPath, staging::Kind kind,
                         const std::string& process, Sizes sizes)
    : sizes(sizes) {
  mappedBytes = staging::FileBytes(sizes.slots, sizes.dataBytes);
  if (finalPath.empty() || !MapFile(finalPath)) MapMemory();
  header = reinterpret_cast<staging::Header*>(mapping);
  slots = reinterpret_cast<staging::Slot*>(mapping + staging::kHeaderBytes);
  data = reinterpret_cast<char*>(mapping + staging::kHeaderBytes +
                                 sizes.slots * sizeof(staging::Slot));
  Lay(kind, process);
}

bool StagingArea::MapFile(const std::string& finalPath) {
  // Made under a name recovery does not look at, and locked, before it
  // becomes a staging file: no one takes a half-made file for a dead one.
  const std::string making = finalPath + ".new";
  const int file = open(making.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file < 0) return false;
  void* mapped = MAP_FAILED;
  if (flock(file, LOCK_EX | LOCK_NB) == 0 && WriteZeros(file, mappedBytes)) {
    mapped = mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  }
  if (mapped == MAP_FAILED || rename(making.c_str(), finalPath.c_str()) != 0) {
    if (mapped != MAP_FAILED) munmap(mapped, mappedBytes);
    unlink(making.c_str());
    close(file);
    return false;
  }
  fd = file;
  path = finalPath;
  mapping = static_cast<unsigned char*>(mapped);
  Touch(mapping, mappedBytes);
  return true;
}

void StagingArea::MapMemory() {
  void* mapped =
      mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  mapping = static_cast<unsigned char*>(mapped);
  Touch(mapping, mappedBytes);
}

void StagingArea::Lay(staging::Kind kind, const std::string& process) {
  memset(header, 0, sizeof(*header));
  header->version = staging::kVersion;
  header->kind = kind;
  header->slots = sizes.slots;
  header->dataBytes = sizes.dataBytes;
  header->pid = getpid();
  snprintf(header->process, sizeof(header->process), "%s", process.c_str());
  CrashOrder();
  memcpy(header->magic, staging::kMagic, sizeof(staging::kMagic));
}

StagingArea::~StagingArea() {
  munmap(mapping, mappedBytes);
  if (fd >= 0) close(fd);  // and with it the lock
}

void StagingArea::RemoveFile() {
  // Still locked: no one can take it for a dead process's file meanwhile.
  if (!path.empty()) unlink(path.c_str());
}

bool StagingArea::HasRoomLocked(size_t length) const {
  if (header->headSeq - header->tailSeq >= sizes.slots) return false;
  uint64_t pos = header->dataHead;
  const uint64_t offset = pos % sizes.dataBytes;
  if (offset + length > sizes.dataBytes) pos += sizes.dataBytes - offset;  // records never wrap
  return pos + length - header->dataTail <= sizes.dataBytes;
}

void StagingArea::AppendLocked(const char* text, size_t length, bool toBackends) {
  const uint64_t seq = header->headSeq;
  uint64_t pos = header->dataHead;
  const uint64_t offset = pos % sizes.dataBytes;
  if (offset + length > sizes.dataBytes) pos += sizes.dataBytes - offset;
  memcpy(data + pos % sizes.dataBytes, text, length);
  staging::Slot& slot = slots[seq % sizes.slots];
  slot.dataPos = pos;
  slot.length = static_cast<uint32_t>(length);
  slot.flags = toBackends ? staging::kToBackends : 0;
  CrashOrder();
  slot.seq = seq;  // the record is whole from here on
  header->dataHead = pos + length;
  CrashOrder();
  header->headSeq = seq + 1;
}

void StagingArea::ReleaseLocked(uint64_t endSeq) {
  header->dataTail =
      endSeq == header->headSeq ? header->dataHead : slots[endSeq % sizes.slots].dataPos;
  CrashOrder();
  header->tailSeq = endSeq;
}

StagingArea::Record StagingArea::At(uint64_t seq) const {
  const staging::Slot& slot = slots[seq % sizes.slots];
  return {data + slot.dataPos % sizes.dataBytes, slot.length,
          (slot.flags & staging::kToBackends) != 0};
}

void StagingArea::SetTarget(const char* target) {
  snprintf(header->target, sizeof(header->target), "%s", target);
}

void StagingArea::BeginWrite(uint64_t endSeq, uint64_t fromSize) {
  header->writingFromSize = fromSize;
  CrashOrder();
  header->writingEndSeq = endSeq;
}

}  // namespace logdetail
}  // namespace zel
