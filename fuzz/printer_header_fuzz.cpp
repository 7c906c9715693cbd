// Fuzz target: SavePrinterFile with hostile headers and a hostile /tmp.
// The input does not hold the chunk itself but the choices it is built from,
// so that the fuzzer reaches every combination quickly: path lengths 0-255
// against buffer lengths around them, offsets up to 2^64-1, names such as
// "..", ".", "" and names with backslashes, and what already sits at
// /tmp/<name> (a file of ours, a symbolic or hard link to a file outside
// /tmp, another user's file, a folder, a FIFO). The rules checked are listed
// in support/printer_harness.h.
//
// Input:
//   byte 0      bits 0-2: what is planted at /tmp/<name>; bit 3: an earlier
//               local copy exists; bit 4: path_len is byte 1 as is (else the
//               length of the chosen path)
//   byte 1      path_len
//   byte 2      signed: buffer length = 21 + path_len + this (data bytes
//               when positive, a cut header when negative)
//   byte 3      path (mod 8): the filler bytes, "spool/..", "spool/.",
//               "spool/", "C:\spool\doc.prn", "a/b\c.prn", "/" + 254 letters,
//               "x/" + the filler
//   byte 4      offset (mod 8): 0, small, 4096, 2^31, just under the largest
//               file size, 2^63, 2^64-1, the 8 raw bytes
//   bytes 5-12  raw 8 bytes (offset and file size)
//   bytes 13-16 id1, id2
//   rest        filler: path bytes and data, repeated as needed
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/printer_harness.h"

namespace {

void Put(std::vector<unsigned char>& out, uint64_t value, int size) {
  for (int i = 0; i < size; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

// `size` bytes of `filler`, repeated.
std::string Fill(const std::string& filler, size_t size) {
  std::string out;
  while (out.size() < size) out += filler;
  return out.substr(0, size);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zelfuzz::SetUpPrinterTarget();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 17 || size > 4096) return 0;
  const auto planted = static_cast<zelfuzz::Planted>(data[0] % 8);
  const bool local_copy = (data[0] & 8) != 0;
  const bool declared_length = (data[0] & 16) != 0;
  const int adjust = static_cast<int8_t>(data[2]);
  uint64_t raw = 0;
  for (int i = 0; i < 8; ++i) raw |= static_cast<uint64_t>(data[5 + i]) << (8 * i);
  std::string filler(reinterpret_cast<const char*>(data + 17), size - 17);
  if (filler.empty()) filler = "x";

  std::string path;
  switch (data[3] % 8) {
    case 0:
      path = filler;
      break;
    case 1:
      path = "spool/..";
      break;
    case 2:
      path = "spool/.";
      break;
    case 3:
      path = "spool/";
      break;
    case 4:
      path = "C:\\spool\\doc.prn";
      break;
    case 5:
      path = "a/b\\c.prn";
      break;
    case 6:
      path = "/" + std::string(254, 'n');
      break;
    default:
      path = "x/" + filler;
      break;
  }
  const size_t path_len = declared_length ? data[1] : std::min<size_t>(path.size(), 255);
  path = (path + Fill(filler, path_len)).substr(0, path_len);

  uint64_t offset;
  switch (data[4] % 8) {
    case 0:
      offset = 0;
      break;
    case 1:
      offset = raw & 0xffff;
      break;
    case 2:
      offset = 4096;
      break;
    case 3:
      offset = 1ull << 31;
      break;
    case 4:
      offset = static_cast<uint64_t>(LLONG_MAX) - (raw & 0xff);
      break;
    case 5:
      offset = 1ull << 63;
      break;
    case 6:
      offset = UINT64_MAX;
      break;
    default:
      offset = raw;
      break;
  }

  std::vector<unsigned char> chunk;
  chunk.push_back(data[13]);
  chunk.push_back(data[14]);
  chunk.push_back(data[15]);
  chunk.push_back(data[16]);
  chunk.push_back(static_cast<unsigned char>(path_len));
  chunk.insert(chunk.end(), path.begin(), path.end());
  Put(chunk, raw ^ 0x5a5a5a5a5a5a5a5aull, 8);
  Put(chunk, offset, 8);
  if (adjust >= 0) {
    const std::string bytes = Fill(filler, static_cast<size_t>(adjust));
    chunk.insert(chunk.end(), bytes.begin(), bytes.end());
  } else {
    chunk.resize(chunk.size() - std::min(chunk.size(), static_cast<size_t>(-adjust)));
  }
  zelfuzz::RunChunk(chunk, planted, local_copy);
  return 0;
}
