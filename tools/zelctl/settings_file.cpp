#include "settings_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zelctl {
namespace {

constexpr size_t kLineSize = 1024;  // lines are processed in pieces of 1023 bytes
constexpr size_t kValueSize = 32;   // 31 characters and a terminator
constexpr size_t kHeaderSize = 32;  // "[section]" cut to 31 characters

struct File {
  explicit File(FILE* f) : handle(f) {}
  ~File() {
    if (handle != nullptr) std::fclose(handle);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  FILE* handle;
};

// fopen for reading, refusing a folder (which glibc would open and read as empty).
FILE* OpenForReading(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return nullptr;
  struct stat info = {};
  if (fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode)) {
    std::fclose(file);
    errno = EISDIR;
    return nullptr;
  }
  return file;
}

// One piece of a line, NUL bytes included; returns its byte count (0 at the end).
size_t ReadPiece(FILE* file, char (&line)[kLineSize]) {
  size_t count = 0;
  while (count < kLineSize - 1) {
    const int c = std::fgetc(file);
    if (c == EOF) break;
    line[count++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  line[count] = '\0';
  return count;
}

void FormatHeader(const std::string& section, char (&header)[kHeaderSize]) {
  std::snprintf(header, sizeof(header), "[%s]", section.c_str());
}

bool NameMatches(const std::string& key, const char* line, const char* equals) {
  return std::strncmp(key.c_str(), line, static_cast<size_t>(equals - line)) == 0;
}

bool IsHeaderLine(const char* line, size_t length, const char* header) {
  return length > 0 && std::strncmp(line, header, length - 1) == 0;
}

}  // namespace

int LookUpSetting(const std::string& path, const std::string& section, const std::string& key,
                  bool* found, std::string* value) {
  *found = false;
  value->clear();
  File file(OpenForReading(path));
  if (file.handle == nullptr) return errno;
  char header[kHeaderSize];
  FormatHeader(section, header);
  bool in_section = false;  // never cleared
  char line[kLineSize];
  while (ReadPiece(file.handle, line) > 0) {
    if (std::strncmp(line, "//", 2) == 0 || line[0] == '#') continue;
    const size_t length = std::strlen(line);
    if (length < 2) continue;
    char* equals = std::strchr(line, '=');
    if (equals != nullptr && in_section) {
      if (!NameMatches(key, line, equals)) continue;
      line[length - 1] = '\0';  // the newline, or a last line's last character
      char cut[kValueSize] = {};
      std::strncpy(cut, equals + 1, kValueSize - 1);
      *found = true;
      *value = cut;
      return 0;
    }
    if (IsHeaderLine(line, length, header)) in_section = true;
  }
  return 0;
}

int FindSettingForWrite(const std::string& path, const std::string& section, const std::string& key,
                        bool* found) {
  *found = false;
  File file(OpenForReading(path));
  if (file.handle == nullptr) return errno;
  char header[kHeaderSize];
  FormatHeader(section, header);
  bool in_section = false;
  char line[kLineSize];
  while (ReadPiece(file.handle, line) > 0) {
    char* equals = std::strchr(line, '=');
    if (equals != nullptr && in_section) {
      if (NameMatches(key, line, equals)) {
        *found = true;
        return 0;
      }
    } else if (IsHeaderLine(line, std::strlen(line), header)) {
      in_section = true;
    }
  }
  return 0;
}

int WriteSetting(const std::string& path, const std::string& section, const std::string& key,
                 const std::string& value, std::string* failed_path) {
  File in(OpenForReading(path));
  if (in.handle == nullptr) {
    *failed_path = path;
    return errno;
  }
  const std::string temporary = path + ".tmp";
  File out(std::fopen(temporary.c_str(), "w"));
  if (out.handle == nullptr) {
    *failed_path = temporary;
    return errno;
  }
  char header[kHeaderSize];
  FormatHeader(section, header);
  enum { kBeforeSection, kInSection, kDone } state = kBeforeSection;
  char line[kLineSize];
  for (size_t count; (count = ReadPiece(in.handle, line)) > 0;) {
    if (state != kDone) {
      char* equals = std::strchr(line, '=');
      if (equals != nullptr && state == kInSection) {
        if (NameMatches(key, line, equals)) {
          char* rest = equals + 1;
          const size_t room = sizeof(line) - static_cast<size_t>(rest - line);
          std::snprintf(rest, room, "%.*s\n", static_cast<int>(room > 1 ? room - 2 : 0),
                        value.c_str());
          count = std::strlen(line);
          state = kDone;
        }
      } else if (IsHeaderLine(line, std::strlen(line), header)) {
        state = kInSection;
      }
    }
    if (std::fwrite(line, 1, count, out.handle) != count) break;
  }
  int error = 0;
  if (std::ferror(out.handle) || std::fflush(out.handle) != 0) {
    error = errno != 0 ? errno : EIO;
    *failed_path = temporary;
  } else if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = errno;
    *failed_path = path;
  }
  if (error != 0) std::remove(temporary.c_str());
  return error;
}

}  // namespace zelctl
