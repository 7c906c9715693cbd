// libFuzzer target for SavePrinterFile's chunk header parsing: every input
// is one chunk as a peer would send it. Build: see fuzz/README.md.
//
// SavePrinterFile writes wherever the chunk says under /tmp, so the target
// first moves into a private mount namespace with an empty tmpfs on /tmp and
// refuses to run if it cannot: fuzzing never touches the real /tmp.
#include <dirent.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "utils/file_operation.h"

namespace {

constexpr char kAppFolder[] = "/tmp/app/";

void EnterPrivateTmp() {
  const int flags = geteuid() == 0 ? CLONE_NEWNS : (CLONE_NEWUSER | CLONE_NEWNS);
  if (unshare(flags) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("zel-fuzz", "/tmp", "tmpfs", 0, "size=256m") != 0 || chdir("/tmp") != 0) {
    std::perror("printer_file_fuzz: cannot set up a private /tmp, refusing to run");
    std::abort();
  }
}

// Empties the private /tmp between inputs.
void ClearTmp() {
  DIR* dir = opendir("/tmp");
  if (dir == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) names.emplace_back(entry->d_name);
  closedir(dir);
  for (const std::string& name : names) {
    if (name != "." && name != "..") unlink(("/tmp/" + name).c_str());
  }
}

}  // namespace

// The library's link-time dependencies, replaced here so that the target
// compiles the one unit under test. The diagnostics are still formatted, so
// a format/argument mismatch shows up.
extern "C" void orvaneLogPrint(int, int, const char*, const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
}
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"  // as declared in key_store.h
#endif
extern "C" std::string GetAppDataPath() { return kAppFolder; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  EnterPrivateTmp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1 << 16) return 0;
  std::vector<unsigned char> chunk(data, data + size);  // exact size: ASan sees overreads
  std::string local_name = "unset";
  const int rc = zel::SavePrinterFile(static_cast<unsigned int>(chunk.size()), chunk.data(),
                                      "fuzz_", local_name);
  if (rc == 0 && local_name.rfind(kAppFolder, 0) != 0) std::abort();
  if (size < 21 && local_name != "unset") std::abort();  // refused before naming
  ClearTmp();
  return 0;
}
