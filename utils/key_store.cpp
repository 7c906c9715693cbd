#include "utils/key_store.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__APPLE__)
#include <CoreServices/CoreServices.h>
#endif

#include "utils/process_info.h"

namespace {

constexpr const char kAppFolder[] = "orvane";
constexpr size_t kPathSize = 1024;

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
  for (size_t slash = path.find('/', 1); ; slash = path.find('/', slash + 1)) {
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
  if (std::snprintf(path, sizeof(path), "%s/%s/", folder, kAppFolder) < 0) return std::string();
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
  if (std::snprintf(path, sizeof(path), "%s/%s/%s", folder, kAppFolder, "log/") < 0) {
    return std::string();
  }
  return path;
}
