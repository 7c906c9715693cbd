#include "utils/staging_format.h"

#include <algorithm>
#include <cstring>

namespace zel {
namespace logdetail {
namespace staging {

namespace {

// Far beyond any size the library makes; keeps every sum below 2^64.
constexpr uint64_t kMaxSlots = uint64_t{1} << 24;
constexpr uint64_t kMaxDataBytes = uint64_t{1} << 32;

// A NUL-terminated field, cut at its size, without control characters.
std::string Text(const char* field, size_t size, bool printableOnly) {
  std::string text(field, strnlen(field, size));
  if (printableOnly) {
    for (char& c : text) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
  }
  return text;
}

bool SizesAddUp(const Header& h, size_t size) {
  if (h.slots == 0 || h.slots > kMaxSlots || h.dataBytes == 0 || h.dataBytes > kMaxDataBytes) {
    return false;
  }
  if (FileBytes(h.slots, h.dataBytes) > size) return false;
  return h.headSeq >= h.tailSeq && h.headSeq - h.tailSeq <= h.slots && h.dataHead >= h.dataTail &&
         h.dataHead - h.dataTail <= h.dataBytes;
}

// The record `seq`, if its slot and data are consistent with the header.
bool ReadRecord(const unsigned char* bytes, const Header& h, uint64_t seq, std::string* text) {
  Slot slot;
  memcpy(&slot, bytes + kHeaderBytes + (seq % h.slots) * sizeof(Slot), sizeof(slot));
  if (slot.seq != seq) return false;  // torn: its writer died before finishing it
  if (slot.dataPos < h.dataTail || slot.dataPos > h.dataHead ||
      slot.length > h.dataHead - slot.dataPos) {
    return false;
  }
  const uint64_t offset = slot.dataPos % h.dataBytes;
  if (offset + slot.length > h.dataBytes) return false;  // records never wrap
  const unsigned char* data = bytes + kHeaderBytes + h.slots * sizeof(Slot);
  text->assign(reinterpret_cast<const char*>(data + offset), slot.length);
  return true;
}

}  // namespace

bool Parse(const unsigned char* bytes, size_t size, Contents* out) {
  if (size < kHeaderBytes) return false;
  Header h;
  memcpy(&h, bytes, sizeof(h));
  if (memcmp(h.magic, kMagic, sizeof(kMagic)) != 0 || h.version != kVersion) return false;
  if (!SizesAddUp(h, size)) return false;
  *out = Contents();
  out->kind = h.kind;
  out->pid = h.pid;
  out->process = Text(h.process, sizeof(h.process), true);
  out->target = Text(h.target, sizeof(h.target), false);
  out->writingFromSize = h.writingFromSize;
  out->headSeq = h.headSeq;
  const bool writing = h.writingEndSeq > h.tailSeq && h.writingEndSeq <= h.headSeq;
  std::string text;
  for (uint64_t seq = h.tailSeq; seq < h.headSeq; ++seq) {
    if (!ReadRecord(bytes, h, seq, &text)) continue;
    out->lines.push_back(text);
    if (writing && seq < h.writingEndSeq) out->writingLines = out->lines.size();
  }
  return true;
}

Unwritten UnwrittenPart(const Contents& contents, uint64_t targetSize) {
  uint64_t written = 0;
  if (contents.writingLines > 0 && targetSize > contents.writingFromSize) {
    uint64_t covered = 0;
    for (size_t i = 0; i < contents.writingLines; ++i) {
      covered += strnlen(contents.lines[i].data(), contents.lines[i].size());
    }
    written = std::min(targetSize - contents.writingFromSize, covered);
  }
  Unwritten rest;
  rest.fromSize = targetSize - written;
  for (const std::string& line : contents.lines) {
    const size_t bytes = strnlen(line.data(), line.size());
    const size_t skip = static_cast<size_t>(std::min<uint64_t>(written, bytes));
    written -= skip;
    if (skip == bytes) continue;
    rest.text.append(line, skip, bytes - skip);
    ++rest.lines;
  }
  return rest;
}

}  // namespace staging
}  // namespace logdetail
}  // namespace zel
