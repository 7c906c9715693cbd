// The layout of a staging file, where a log writer keeps the lines it
// accepted until they are on disk, and the reader that gets them back after
// the writing process died. The reader treats the file as hostile input: it
// never reads outside the bytes it is given and skips what does not add up.
// Internal; not installed. Also compiled into zelctl and the fuzz targets.
//
// A file is a header (kHeaderBytes), an index of `slots` records, then a
// data ring of `dataBytes` holding their text. Record `seq` lives in slot
// seq % slots; its text starts at data position dataPos % dataBytes and
// never wraps. Records [tailSeq, headSeq) were accepted and are not yet
// known to be on disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zel {
namespace logdetail {
namespace staging {

constexpr char kMagic[8] = {'Z', 'E', 'L', 'S', 'T', 'G', '0', '1'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderBytes = 4096;
// Staging files end in this, which no log file name does.
constexpr char kSuffix[] = ".stage";

// Whose lines a staging file holds.
enum Kind : uint32_t {
  kProcessLog = 1,  // the process log: targets in day directories of its base
  kNamedLog = 2,    // a LoggerFile: targets in its own directory
};

// Record flags.
constexpr uint32_t kToBackends = 1;

struct Header {
  char magic[8];
  uint32_t version;
  uint32_t kind;
  uint64_t slots;
  uint64_t dataBytes;
  int64_t pid;
  char process[64];  // the writing process's name, NUL-terminated
  char target[256];  // the file the lines go to, NUL-terminated ("" before the first)
  uint64_t headSeq;
  uint64_t tailSeq;
  uint64_t dataHead;  // monotonic data positions: [dataTail, dataHead) is in use
  uint64_t dataTail;
  // A write of records [tailSeq, writingEndSeq) to `target` was under way,
  // and `target` had writingFromSize bytes before it: what it has beyond
  // that came from this write.
  uint64_t writingEndSeq;
  uint64_t writingFromSize;
};
static_assert(sizeof(Header) <= kHeaderBytes, "the header fits its page");

struct Slot {
  uint64_t seq;  // written last: a slot whose seq is not the record's is torn
  uint64_t dataPos;
  uint32_t length;
  uint32_t flags;
};

// Bytes of a staging file with these sizes.
constexpr size_t FileBytes(uint64_t slots, uint64_t dataBytes) {
  return kHeaderBytes + slots * sizeof(Slot) + dataBytes;
}

// What a staging file holds, as read back.
struct Contents {
  uint32_t kind = 0;
  int64_t pid = 0;
  std::string process;  // printable characters only
  std::string target;
  std::vector<std::string> lines;  // in order; torn or inconsistent records left out
  // How many of the first `lines` the interrupted write covered, and the
  // target's size before it (see Header).
  size_t writingLines = 0;
  uint64_t writingFromSize = 0;
  uint64_t headSeq = 0;  // as the header has it
};

// Reads a staging file's bytes. False when they are not one (magic,
// version, sizes); otherwise every consistent record is in `out`.
bool Parse(const unsigned char* bytes, size_t size, Contents* out);

// What of `contents` is not in its target yet, which now holds `targetSize`
// bytes: each line as the writer writes it (up to its first NUL), less what
// an interrupted write put beyond the size it started from. Empty lines are
// left out; a line the write cut short comes back as its rest.
struct Unwritten {
  std::string text;       // the lines, one after the other
  size_t lines = 0;       // how many (rests of) lines
  uint64_t fromSize = 0;  // the target's size the first of them goes after
};
Unwritten UnwrittenPart(const Contents& contents, uint64_t targetSize);

}  // namespace staging
}  // namespace logdetail
}  // namespace zel
