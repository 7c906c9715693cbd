#include "utils/process_info.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#if defined(__APPLE__)
#include <libproc.h>
#include <mach-o/dyld.h>
#include <sys/proc_info.h>
#endif

namespace {

constexpr size_t kExePathSize = 512;
constexpr size_t kSelfDirSize = 256;
constexpr size_t kDirSize = 1024;
constexpr size_t kNameSize = 1024;
constexpr size_t kMaxPids = 1024;
constexpr size_t kPidPathSize = 4096;

// The running executable's path in a zero-filled 512-byte buffer.
void ReadExecutablePath(char (&path)[kExePathSize]) {
  std::memset(path, 0, sizeof(path));
#if defined(__APPLE__)
  uint32_t size = sizeof(path);
  _NSGetExecutablePath(path, &size);
#else
  // One byte short of the buffer so that the text stays terminated.
  if (readlink("/proc/self/exe", path, sizeof(path) - 1) < 0) path[0] = '\0';
#endif
}

// Everything before the last "/", cut to fit a zero-filled buffer of `size`.
std::string ExecutableDir(size_t size) {
  char path[kExePathSize];
  ReadExecutablePath(path);
  const char* slash = std::strrchr(path, '/');
  std::string dir(size, '\0');
  if (slash != nullptr) {
    std::strncpy(&dir[0], path, std::min<size_t>(slash - path, size - 1));
  }
  return dir.substr(0, dir.find('\0'));
}

const char* FileNameOf(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

#if !defined(__APPLE__)
// Numeric entries of /proc, at most kMaxPids of them, as proc_listpids would give.
std::vector<int> ListPids() {
  std::vector<int> pids;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return pids;
  while (dirent* entry = readdir(proc)) {
    if (pids.size() >= kMaxPids) break;
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0' && pid > 0) pids.push_back(static_cast<int>(pid));
  }
  closedir(proc);
  return pids;
}

bool PidPath(int pid, char (&path)[kPidPathSize]) {
  std::memset(path, 0, sizeof(path));
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  return readlink(link.c_str(), path, sizeof(path) - 1) > 0;
}

// Real uid: the first number of the "Uid:" line of /proc/<pid>/status.
bool RealUid(int pid, int* uid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 4, "Uid:") == 0) {
      *uid = std::atoi(line.c_str() + 4);
      return true;
    }
  }
  return false;
}
#endif

}  // namespace

extern "C" std::string get_self_dir() { return ExecutableDir(kSelfDirSize); }

extern "C" std::string get_process_dir() { return ExecutableDir(kDirSize); }

extern "C" std::string get_process_name() {
  char path[kExePathSize];
  ReadExecutablePath(path);
  char name[kNameSize] = {};
  std::strncpy(name, FileNameOf(path), sizeof(name) - 1);
  return name;
}

extern "C" int IsMultiUserEnv(void) { return 0; }

extern "C" void SendScreenRecorderMsg(void) {}

int getProcessUid(const std::string& name) {
#if defined(__APPLE__)
  pid_t pids[kMaxPids] = {};
  const int count = proc_listpids(PROC_ALL_PIDS, 0, pids, sizeof(pids));
  if (count < 1) return -1;
  for (int i = 0; i < count && i < static_cast<int>(kMaxPids); ++i) {
    if (pids[i] == 0) continue;
    char path[kPidPathSize] = {};
    if (proc_pidpath(pids[i], path, sizeof(path)) <= 0) continue;
    if (name != FileNameOf(path)) continue;
    struct proc_bsdinfo info;
    if (proc_pidinfo(pids[i], PROC_PIDTBSDINFO, 0, &info, sizeof(info)) == sizeof(info)) {
      return static_cast<int>(info.pbi_ruid);
    }
  }
  return -1;
#else
  const std::vector<int> pids = ListPids();
  if (pids.empty()) return -1;
  for (int pid : pids) {
    char path[kPidPathSize];
    if (!PidPath(pid, path)) continue;
    if (name != FileNameOf(path)) continue;
    int uid = -1;
    if (RealUid(pid, &uid)) return uid;
  }
  return -1;
#endif
}
