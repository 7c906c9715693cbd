// Where a log writer keeps the lines it accepted until they are on disk: a
// ring of records (see staging_format.h) in a file mapped MAP_SHARED, so that
// the kernel keeps what a process accepted when it dies by any signal, and
// the next process that starts a log there can write it. Where no such file
// can be made (an unwritable folder, a full disk), the same ring lives in
// private memory and the log works as before, without that survival.
// Internal; not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "utils/staging_format.h"
#include "utils/thread_annotations.h"

namespace zel {
namespace logdetail {

// The ring (its head, tail and room) is guarded by the owner's lock, which
// this class cannot name: to the lock checks the area is itself a lock, the
// `*Locked` members require it, and the owner takes it together with its own
// lock (LogWriter::RingLock).
class ZEL_CAPABILITY("staging ring") StagingArea {
 public:
  struct Sizes {
    uint64_t slots;      // records at most
    uint64_t dataBytes;  // bytes of text at most; a longer line is never staged
  };
  // One staged line, as the writer reads it.
  struct Record {
    const char* text;
    size_t length;
    bool toBackends;
  };

  // Stages in a new file at `path`: made under another name, locked (flock)
  // for as long as this object lives, filled so that a full disk shows now
  // rather than as a fault later, then renamed to `path`, mapped shared and
  // touched, so that staging a line neither allocates nor faults a fresh
  // page. When any of that fails: private memory.
  StagingArea(const std::string& path, staging::Kind kind, const std::string& process, Sizes sizes);
  // Unmaps and unlocks. The file stays unless RemoveFile() ran.
  ~StagingArea();
  StagingArea(const StagingArea&) = delete;
  StagingArea& operator=(const StagingArea&) = delete;

  // Immutable after construction.
  bool FileBacked() const { return fd >= 0; }
  const std::string& Path() const { return path; }  // "" in memory
  bool Fits(size_t length) const { return length <= sizes.dataBytes; }

  // Everything staged is on disk: no one needs the file again. Owner only.
  void RemoveFile();

  // Producers and the writer, with the owner's lock held.
  bool HasRoomLocked(size_t length) const ZEL_REQUIRES(this);
  // Stages a line that Fits() and has room.
  void AppendLocked(const char* text, size_t length, bool toBackends) ZEL_REQUIRES(this);
  uint64_t HeadLocked() const ZEL_REQUIRES(this) { return header->headSeq; }
  uint64_t TailLocked() const ZEL_REQUIRES(this) { return header->tailSeq; }
  // Records before `endSeq` are on disk: their room is free again.
  void ReleaseLocked(uint64_t endSeq) ZEL_REQUIRES(this);

  // Writer thread only, for records the writer saw below the head.
  Record At(uint64_t seq) const;
  // The file the writer writes from now on ("" when none is open).
  void SetTarget(const char* target);
  // A write of the records before `endSeq` to the target begins, which has
  // `fromSize` bytes now.
  void BeginWrite(uint64_t endSeq, uint64_t fromSize);

 private:
  // Maps the staging file; false (and nothing left behind) on any failure.
  bool MapFile(const std::string& finalPath);
  void MapMemory();
  void Lay(staging::Kind kind, const std::string& process);

  const Sizes sizes;
  std::string path;  // the staging file; "" in memory
  int fd = -1;       // open (and locked) while file-backed
  size_t mappedBytes = 0;
  // The mapping: header, slots, data. Guarded by the owner's lock, except
  // the records the writer reads and the fields only it writes.
  unsigned char* mapping = nullptr;
  staging::Header* header = nullptr;
  staging::Slot* slots = nullptr;
  char* data = nullptr;
};

}  // namespace logdetail
}  // namespace zel
