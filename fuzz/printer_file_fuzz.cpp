// Fuzz target: SavePrinterFile with each input as one chunk exactly as a
// peer sends it (header parsing, name building, the write), in a private
// file system where an earlier local copy waits at the local name.
// The rules checked are listed in support/printer_harness.h.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/printer_harness.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zelfuzz::SetUpPrinterTarget();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1 << 16) return 0;
  zelfuzz::RunChunk(std::vector<unsigned char>(data, data + size), zelfuzz::Planted::kNothing,
                    /*local_copy=*/true);
  return 0;
}
