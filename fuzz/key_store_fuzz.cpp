// Fuzz target: the key store (GetKeyString, GetKeyInt, PutKeyString,
// PutKeyInt) on an arbitrary settings file, compared with a reference model
// of its line rules, plus read-after-write on a file that holds the key.
//
// The key store only works on the login's own settings file,
// /Users/<login>/client_config.ini, so the target first moves into a private
// file system (support/private_root.h) where /Users is an empty tmpfs folder:
// a real settings file is never read or written, whatever exists outside.
//
// Input: section, key and value separated by NUL bytes, then the file.
// Checked, on the input's file and on "[section]\nkey=old\n" + that file:
// - GetKeyString and GetKeyInt give the model's value (lines read in
//   1023-byte pieces, "//" and "#" lines and lines under 2 characters
//   skipped, a line's name matching when it equals the start of the key,
//   the last character dropped, 31 characters at most);
// - PutKeyString returns 0 and rewrites the file exactly as the model does
//   (only the first match replaced, bytes after a NUL kept), leaving no
//   temporary file;
// - on the second file, with a plain section, key and value: GetKeyString
//   after PutKeyString gives the value written (cut as the rules say), and
//   GetKeyInt after PutKeyInt gives the number written.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/private_root.h"
#include "utils/key_store.h"

namespace {

std::string gPath;

void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "key_store_fuzz: %s\n", what);
    std::abort();
  }
}

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
  FILE* file = std::fopen(path.c_str(), "wb");
  Check(file != nullptr, "cannot write the settings file");
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
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

// ---- the model ----

// The file as read in pieces: up to and including a newline, 1023 bytes at most.
std::vector<std::string> Pieces(const std::string& file) {
  std::vector<std::string> pieces;
  for (size_t start = 0; start < file.size();) {
    size_t end = start;
    while (end < file.size() && end - start < 1023) {
      if (file[end++] == '\n') break;
    }
    pieces.push_back(file.substr(start, end - start));
    start = end;
  }
  return pieces;
}

// What a C string holding `bytes` reads as.
std::string CText(const std::string& bytes) { return bytes.substr(0, bytes.find('\0')); }

std::string Header(const std::string& section) { return ("[" + section + "]").substr(0, 31); }

// The line without its last character equals the start of the header.
bool IsHeader(const std::string& line, const std::string& header) {
  if (line.empty()) return false;
  const size_t n = line.size() - 1;
  return header.size() >= n && line.compare(0, n, header, 0, n) == 0;
}

// The line's name (before its first "=" at `equals`) equals the key's first characters.
bool NameMatches(const std::string& key, const std::string& line, size_t equals) {
  return key.size() >= equals && key.compare(0, equals, line, 0, equals) == 0;
}

std::string ModelGet(const std::string& file, const std::string& section, const std::string& key) {
  const std::string header = Header(section);
  bool in_section = false;
  for (const std::string& piece : Pieces(file)) {
    const std::string line = CText(piece);
    if (line.compare(0, 2, "//") == 0 || line.compare(0, 1, "#") == 0) continue;
    if (line.size() < 2) continue;
    const size_t equals = line.find('=');
    if (equals != std::string::npos && in_section) {
      if (!NameMatches(key, line, equals)) continue;
      const std::string cut = line.substr(0, line.size() - 1);
      return equals + 1 <= cut.size() ? cut.substr(equals + 1, 31) : std::string();
    }
    if (IsHeader(line, header)) in_section = true;
  }
  return "";
}

std::string ModelPut(const std::string& file, const std::string& section, const std::string& key,
                     const std::string& value) {
  const std::string header = Header(section);
  int state = 0;  // before the section, in it, done
  std::string out;
  for (std::string piece : Pieces(file)) {
    if (state != 2) {
      const std::string line = CText(piece);
      const size_t equals = line.find('=');
      if (equals != std::string::npos && state == 1) {
        if (NameMatches(key, line, equals)) {
          // The new line fits the 1024-byte line buffer, newline included when there is room.
          const size_t room = 1024 - (equals + 1);
          piece = line.substr(0, equals + 1);
          if (room >= 2) piece += value.substr(0, room - 2) + "\n";
          state = 2;
        }
      } else if (IsHeader(line, header)) {
        state = 1;
      }
    }
    out += piece;
  }
  return out;
}

int ModelInt(const std::string& value) { return value.empty() ? 0 : std::atoi(value.c_str()); }

// ---- the library ----

std::string Get(const std::string& section, const std::string& key) {
  char* found = GetKeyString(section.c_str(), key.c_str());
  Check(found != nullptr, "GetKeyString gave NULL");
  const std::string value = found;
  std::free(found);
  return value;
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Every operation on `file`, against the model.
void CheckFile(const std::string& file, const std::string& section, const std::string& key,
               const std::string& value) {
  WriteAll(gPath, file);
  const std::string expected = ModelGet(file, section, key);
  Check(Get(section, key) == expected, "GetKeyString differs from the model");
  Check(GetKeyInt(section.c_str(), key.c_str()) == ModelInt(expected),
        "GetKeyInt differs from the model");
  Check(PutKeyString(section.c_str(), key.c_str(), value.c_str()) == 0, "PutKeyString result");
  Check(ReadAll(gPath) == ModelPut(file, section, key, value),
        "PutKeyString's file differs from the model");
  Check(!Exists(gPath + ".tmp"), "PutKeyString left its temporary file");
}

bool Plain(const std::string& text) {
  return text.find_first_of(std::string("\n\0", 2)) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zelfuzz::EnterPrivateRoot();
  char* path = GetConfigFilePath();
  Check(path != nullptr, "GetConfigFilePath gave NULL");
  gPath = path;
  std::free(path);
  // Only ever a file of the private /Users.
  Check(gPath.rfind("/Users/", 0) == 0, "the settings file is not under /Users");
  for (size_t slash = gPath.find('/', 1); slash != std::string::npos;
       slash = gPath.find('/', slash + 1)) {
    mkdir(gPath.substr(0, slash).c_str(), 0755);
  }
  struct stat st;
  Check(stat(gPath.c_str(), &st) != 0, "a settings file exists in the private /Users");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string section = NextField(data, size);
  const std::string key = NextField(data, size);
  const std::string value = NextField(data, size);
  const std::string file(reinterpret_cast<const char*>(data), size);

  CheckFile(file, section, key, value);

  const std::string seeded = "[" + section + "]\n" + key + "=old\n" + file;
  CheckFile(seeded, section, key, value);

  // Read after write, where the rules promise it: the header line is the
  // whole (uncut) header, and the key line is the first line of the section
  // that the key store reads as a key.
  const bool plain_section = Plain(section) && section.size() <= 29;
  const bool plain_key = Plain(key) && !key.empty() && key.find('=') == std::string::npos &&
                         key.compare(0, 2, "//") != 0 && key.compare(0, 1, "#") != 0 &&
                         key.size() <= 1000;
  if (plain_section && plain_key && Plain(value)) {
    WriteAll(gPath, seeded);
    Check(PutKeyString(section.c_str(), key.c_str(), value.c_str()) == 0, "PutKeyString result");
    const std::string written = value.substr(0, 1021 - key.size());
    Check(Get(section, key) == written.substr(0, 31), "GetKeyString after PutKeyString");
    const int number = static_cast<int>(value.size() * 2654435761u);
    Check(PutKeyInt(section.c_str(), key.c_str(), number) == 0, "PutKeyInt result");
    Check(GetKeyInt(section.c_str(), key.c_str()) == number, "GetKeyInt after PutKeyInt");
  }
  std::remove(gPath.c_str());
  return 0;
}
