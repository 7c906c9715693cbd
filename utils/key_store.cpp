#include "utils/key_store.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#if defined(__APPLE__)
#include <CoreServices/CoreServices.h>
#endif

#include "utils/process_info.h"

namespace {

constexpr const char kAppFolder[] = "orvane";
constexpr size_t kPathSize = 1024;
constexpr size_t kLineSize = 1024;
constexpr size_t kValueSize = 32;
constexpr size_t kHeaderSize = 32;
constexpr size_t kNumberSize = 32;

const char* OrEmpty(const char* text) { return text != nullptr ? text : ""; }

// How the C libraries of both targets print a null "%s": a null section or
// value reads as this text, not as "".
const char* OrNullText(const char* text) { return text != nullptr ? text : "(null)"; }

// The login name as getlogin() gives it. On Linux getlogin() fails without a
// controlling terminal, so the account of the real user id stands in there.
const char* LoginName() {
  const char* login = getlogin();
#if !defined(__APPLE__)
  if (login == nullptr) {
    if (const passwd* pw = getpwuid(getuid())) return pw->pw_name;
    return "";
  }
#endif
  return OrNullText(login);
}

// "[section]", cut to the buffer: the cut header is what lines are compared with.
void FormatHeader(const char* section, char (&header)[kHeaderSize]) {
  std::snprintf(header, sizeof(header), "[%s]", OrNullText(section));
}

// fgets into `line`, also telling how many bytes were read, so that bytes
// after a NUL in a line are not lost when the line is copied unchanged.
// Returns 0 at end of file.
size_t ReadLine(FILE* file, char (&line)[kLineSize]) {
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

// A name=value line matches `key` when its name equals the first characters
// of `key` (a line "ab=" matches the key "abc"); nothing is trimmed.
bool NameMatches(const char* key, const char* line, const char* equals) {
  return std::strncmp(key, line, static_cast<size_t>(equals - line)) == 0;
}

// The line, without its last character (normally the newline), equals the
// start of the header.
bool IsHeaderLine(const char* line, size_t length, const char* header) {
  return length > 0 && std::strncmp(line, header, length - 1) == 0;
}

// Home of the user who runs the client, when this process runs as root.
bool RootCaseHome(std::string* home) {
  const int uid = getProcessUid(kAppFolder);
  if (uid == -1) return false;
  const passwd* pw = getpwuid(static_cast<uid_t>(uid));
  if (pw == nullptr) return false;
  *home = pw->pw_dir;
  return true;
}

std::string RootCaseAppRoot(const std::string& home) {
#if defined(__APPLE__)
  return home + "/Library/Application Support" + "/" + kAppFolder;
#else
  return home + "/.local/share" + "/" + kAppFolder;
#endif
}

#if !defined(__APPLE__)
// mkdir -p for the folders of an absolute path.
void MakeFolders(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
    if (slash == std::string::npos) break;
  }
}
#endif

// The current user's application-support folder, created if missing; false
// when the system cannot tell.
bool UserAppSupportFolder(char (&folder)[kPathSize]) {
  std::memset(folder, 0, sizeof(folder));
#if defined(__APPLE__)
  FSRef ref;
  if (FSFindFolder(kUserDomain, kApplicationSupportFolderType, kCreateFolder, &ref) != noErr) {
    return false;
  }
  return FSRefMakePath(&ref, reinterpret_cast<UInt8*>(folder), sizeof(folder)) == noErr;
#else
  std::string path;
  const char* xdg = std::getenv("XDG_DATA_HOME");
  const char* home = std::getenv("HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    path = xdg;
  } else if (home != nullptr && home[0] != '\0') {
    path = std::string(home) + "/.local/share";
  } else if (const passwd* pw = getpwuid(getuid())) {
    path = std::string(pw->pw_dir) + "/.local/share";
  } else {
    return false;
  }
  MakeFolders(path);
  std::strncpy(folder, path.c_str(), sizeof(folder) - 1);
  return true;
#endif
}

}  // namespace

extern "C" std::string GetAppRootPath() {
  if (getuid() == 0) {
    std::string home;
    return RootCaseHome(&home) ? RootCaseAppRoot(home) : std::string();
  }
  char folder[kPathSize];
  if (!UserAppSupportFolder(folder)) return std::string();
  char path[kPathSize];
  // A longer path is cut to the buffer, as the system's own buffer would.
  // snprintf of plain text fails only past INT_MAX bytes: never here.
  // GCOVR_EXCL_BR_START
  if (std::snprintf(path, sizeof(path), "%s/%s/", folder, kAppFolder) < 0) {
    return std::string();  // GCOVR_EXCL_LINE
  }
  // GCOVR_EXCL_BR_STOP
  return path;
}

extern "C" std::string GetAppDataPath() {
  if (getuid() == 0) {
    std::string home;
    return RootCaseHome(&home) ? RootCaseAppRoot(home) + "/log/" : std::string();
  }
  char folder[kPathSize];
  if (!UserAppSupportFolder(folder)) return std::string();
  char path[kPathSize];
  // snprintf of plain text fails only past INT_MAX bytes: never here.
  // GCOVR_EXCL_BR_START
  if (std::snprintf(path, sizeof(path), "%s/%s/%s", folder, kAppFolder, "log/") < 0) {
    return std::string();  // GCOVR_EXCL_LINE
  }
  // GCOVR_EXCL_BR_STOP
  return path;
}

extern "C" char* GetConfigFilePath(void) {
  char* path = static_cast<char*>(std::malloc(kPathSize));
  if (path == nullptr) return nullptr;
  std::snprintf(path, kPathSize, "/Users/%s/client_config.ini", LoginName());
  return path;
}

extern "C" char* GetKeyString(const char* section, const char* key) {
  char* path = GetConfigFilePath();
  if (path == nullptr) return nullptr;
  char* value = GetKeyStringInFile(path, section, key, nullptr);
  std::free(path);
  return value;
}

extern "C" char* GetKeyStringInFile(const char* path, const char* section, const char* key,
                                    int* found) {
  key = OrEmpty(key);
  int unused = 0;
  if (found == nullptr) found = &unused;
  *found = 0;
  char* value = static_cast<char*>(std::calloc(kValueSize, 1));
  if (value == nullptr) return nullptr;
  char header[kHeaderSize];
  FormatHeader(section, header);

  FILE* file = std::fopen(OrEmpty(path), "r");
  if (file == nullptr) {
    std::perror("fopen");
    *found = -1;
    return value;
  }
  // Never cleared: once the header was seen, later sections are searched too.
  bool inSection = false;
  char line[kLineSize];
  while (ReadLine(file, line) > 0) {
    if (std::strncmp(line, "//", 2) == 0 || line[0] == '#') continue;
    const size_t length = std::strlen(line);
    if (length < 2) continue;
    char* equals = std::strchr(line, '=');
    if (equals != nullptr && inSection) {
      if (!NameMatches(key, line, equals)) continue;
      // Drops the newline, or the value's last character on a last line without one.
      line[length - 1] = '\0';
      std::strncpy(value, equals + 1, kValueSize - 1);
      std::fclose(file);
      *found = 1;
      return value;
    }
    if (IsHeaderLine(line, length, header)) inSection = true;
  }
  std::fclose(file);
  return value;
}

extern "C" int GetKeyInt(const char* section, const char* key) {
  char* value = GetKeyString(section, key);
  const int number = (value != nullptr && value[0] != '\0') ? std::atoi(value) : 0;
  std::free(value);
  return number;
}

extern "C" int PutKeyString(const char* section, const char* key, const char* value) {
  char* path = GetConfigFilePath();
  if (path == nullptr) return 0;
  const int result = PutKeyStringInFile(path, section, key, value);
  std::free(path);
  return result;
}

extern "C" int PutKeyStringInFile(const char* path, const char* section, const char* key,
                                  const char* value) {
  key = OrEmpty(key);
  value = OrNullText(value);
  char header[kHeaderSize];
  FormatHeader(section, header);

  const std::string settings = OrEmpty(path);
  FILE* in = std::fopen(settings.c_str(), "r");
  if (in == nullptr) return -2;
  // One fixed name: concurrent writers are the callers' business.
  const std::string temporary = settings + ".tmp";
  FILE* out = std::fopen(temporary.c_str(), "w");
  if (out == nullptr) {
    std::fclose(in);
    return -1;
  }
  enum { kBeforeSection, kInSection, kDone } state = kBeforeSection;
  char line[kLineSize];
  for (size_t count; (count = ReadLine(in, line)) > 0;) {
    if (state != kDone) {
      char* equals = std::strchr(line, '=');
      if (equals != nullptr && state == kInSection) {
        if (NameMatches(key, line, equals)) {
          // name=value and a newline, cut so the newline always fits.
          char* rest = equals + 1;
          const size_t room = sizeof(line) - static_cast<size_t>(rest - line);
          std::snprintf(rest, room, "%.*s\n", static_cast<int>(room > 1 ? room - 2 : 0), value);
          count = std::strlen(line);
          state = kDone;
        }
      } else if (IsHeaderLine(line, std::strlen(line), header)) {
        state = kInSection;
      }
    }
    std::fwrite(line, 1, count, out);
  }
  std::fclose(in);
  std::fclose(out);
  return std::rename(temporary.c_str(), settings.c_str());
}

extern "C" int PutKeyInt(const char* section, const char* key, int value) {
  char number[kNumberSize];
  std::snprintf(number, sizeof(number), "%d", value);
  return PutKeyString(section, key, number);
}
