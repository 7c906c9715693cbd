// libFuzzer target: arbitrary bytes as the settings file, read and rewritten
// by the key store. Not part of the CMake build; from the source root:
//
//   clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -I. \
//     fuzz/key_store_fuzz.cpp utils/key_store.cpp utils/process_info.cpp \
//     client/orvane_log.cpp -o key_store_fuzz
//   ./key_store_fuzz -max_total_time=60 2>/dev/null
//
// The key store only works on the login's real settings file
// (/Users/<login>/client_config.ini), so this target refuses to start when
// that file exists; run it on a scratch machine or account, and remove the
// file and its folders afterwards.
//
// Input: section, key and value separated by NUL bytes, then the file.
// Checked: no memory error, GetKeyString's value fits its 32-byte block,
// and PutKeyString of an absent key leaves the file byte-for-byte unchanged.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/key_store.h"

namespace {

std::string gPath;

std::string ReadAll(const std::string& path) {
  std::string bytes;
  if (FILE* file = std::fopen(path.c_str(), "rb")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) bytes.append(buffer, n);
    std::fclose(file);
  }
  return bytes;
}

void WriteAll(const std::string& path, const std::string& bytes) {
  if (FILE* file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fclose(file);
  }
}

// The next NUL-terminated field of the input, or the rest.
std::string NextField(const uint8_t*& data, size_t& size) {
  const void* end = std::memchr(data, 0, size);
  const size_t length = end != nullptr ? static_cast<const uint8_t*>(end) - data : size;
  std::string field(reinterpret_cast<const char*>(data), length);
  const size_t used = end != nullptr ? length + 1 : length;
  data += used;
  size -= used;
  return field;
}

// True when a 1023-byte piece of a line (what the key store reads as one line)
// starts with "=": such a line's empty name matches every key.
bool SomePieceStartsWithEquals(const std::string& file) {
  for (size_t start = 0, end; start < file.size(); start = end) {
    if (file[start] == '=') return true;
    for (end = start; end < file.size() && end - start < 1023;) {
      if (file[end++] == '\n') break;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char* path = GetConfigFilePath();
  if (path == nullptr) std::abort();
  gPath = path;
  std::free(path);
  struct stat info;
  if (stat(gPath.c_str(), &info) == 0) {
    std::fprintf(stderr, "%s exists: not overwriting a real settings file\n", gPath.c_str());
    std::exit(1);
  }
  const std::string folder = gPath.substr(0, gPath.rfind('/'));
  mkdir(folder.substr(0, folder.rfind('/')).c_str(), 0755);
  mkdir(folder.c_str(), 0755);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string section = NextField(data, size);
  const std::string key = NextField(data, size);
  const std::string value = NextField(data, size);
  const std::string file(reinterpret_cast<const char*>(data), size);
  WriteAll(gPath, file);

  char* found = GetKeyString(section.c_str(), key.c_str());
  if (found != nullptr && std::strlen(found) > 31) std::abort();
  std::free(found);
  GetKeyInt(section.c_str(), key.c_str());

  // A key no line can match: a line matches when its name is a prefix of the
  // key, so only an empty name or one starting with \x01 could.
  const char absent[] = "\x01\x02\x03\x04";
  if (file.find('\x01') == std::string::npos && !SomePieceStartsWithEquals(file)) {
    if (PutKeyString(section.c_str(), absent, value.c_str()) != 0) std::abort();
    if (ReadAll(gPath) != file) std::abort();
  }
  PutKeyString(section.c_str(), key.c_str(), value.c_str());
  std::remove(gPath.c_str());
  return 0;
}
