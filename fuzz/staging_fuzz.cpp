// Fuzz target for the recovery of staging files, which the next process
// reads from disk however a dead (or hostile) one left them.
//
// Input: the bytes of a staging file. A target field that begins with "@" is
// taken to name a file in the target's scratch folder (the "@" stands for
// it), so the fuzzer can reach real recoveries. Checked, for every input:
//   - staging::Parse reads only the bytes given (the sanitizers), and what it
//     gives back adds up: no more lines than slots, none longer than the
//     data ring, a process name without control characters;
//   - RecoverNamedLog then writes nothing outside the scratch folder, never
//     through the link or into the FIFO planted in it, and leaves only
//     regular files behind: the staging file, or the target it wrote.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "utils/log_recovery.h"
#include "utils/staging_format.h"

namespace {

namespace staging = zel::logdetail::staging;

void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "staging_fuzz: %s\n", what);
    std::abort();
  }
}

std::string Read(const std::string& path) {
  std::string text;
  if (FILE* file = std::fopen(path.c_str(), "rb")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, n);
    std::fclose(file);
  }
  return text;
}

std::set<std::string> Names(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* folder = opendir(dir.c_str())) {
    while (const dirent* entry = readdir(folder)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    closedir(folder);
  }
  return names;
}

// <root>/outside/victim, and <root>/logs/ with a link to it and a FIFO.
struct Scratch {
  std::string root;
  std::string logs;
  std::string outside;
  Scratch() {
    char pattern[] = "/var/tmp/staging_fuzz_XXXXXX";
    Check(mkdtemp(pattern) != nullptr, "mkdtemp");
    root = pattern;
    logs = root + "/logs/";
    outside = root + "/outside/";
    Check(mkdir(outside.c_str(), 0755) == 0, "mkdir outside");
    FILE* victim = std::fopen((outside + "victim").c_str(), "w");
    Check(victim != nullptr, "victim");
    std::fputs("victim", victim);
    std::fclose(victim);
  }
  // The logs folder as every input finds it.
  void Reset() {
    for (const std::string& name : Names(logs)) {
      const std::string path = logs + name;
      struct stat st;
      if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        rmdir(path.c_str());
      } else {
        unlink(path.c_str());
      }
    }
    mkdir(logs.c_str(), 0755);
    Check(symlink((outside + "victim").c_str(), (logs + "link").c_str()) == 0, "symlink");
    Check(mkfifo((logs + "fifo").c_str(), 0644) == 0, "mkfifo");
  }
};

Scratch* gScratch = nullptr;

void RemoveScratch() {
  std::error_code ignored;
  std::filesystem::remove_all(gScratch->root, ignored);
}

Scratch& TheScratch() {
  if (gScratch == nullptr) {
    gScratch = new Scratch();
    std::atexit(&RemoveScratch);
  }
  return *gScratch;
}

void CheckParsed(const uint8_t* data, const staging::Contents& contents) {
  staging::Header header;
  std::memcpy(&header, data, sizeof(header));
  Check(contents.lines.size() <= header.slots, "more lines than slots");
  Check(contents.lines.size() <= header.headSeq - header.tailSeq, "more lines than records");
  for (const std::string& line : contents.lines) {
    Check(line.size() <= header.dataBytes, "a line longer than the ring");
  }
  Check(contents.writingLines <= contents.lines.size(), "writing more lines than there are");
  for (char c : contents.process) {
    Check(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f, "a control character in the name");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  staging::Contents contents;
  if (!staging::Parse(data, size, &contents)) return 0;
  CheckParsed(data, contents);

  Scratch& scratch = TheScratch();
  scratch.Reset();
  std::vector<uint8_t> bytes(data, data + size);
  staging::Header header;
  std::memcpy(&header, bytes.data(), sizeof(header));
  if (header.target[0] == '@') {
    const std::string target =
        scratch.logs +
        std::string(header.target + 1, strnlen(header.target + 1, sizeof(header.target) - 1));
    std::snprintf(header.target, sizeof(header.target), "%s", target.c_str());
    header.kind = staging::kNamedLog;
    std::memcpy(bytes.data(), &header, sizeof(header));
  }
  const std::string stagingPath = scratch.logs + "dead.stage";
  FILE* file = std::fopen(stagingPath.c_str(), "wb");
  Check(file != nullptr, "staging file");
  Check(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size(), "write staging file");
  std::fclose(file);

  zel::logdetail::RecoverNamedLog(scratch.logs);

  Check(Read(scratch.outside + "victim") == "victim", "wrote through the link");
  Check(Names(scratch.outside) == std::set<std::string>{"victim"}, "made a file outside");
  Check(Names(scratch.root) == std::set<std::string>{"logs", "outside"}, "made a file beside");
  for (const std::string& name : Names(scratch.logs)) {
    struct stat st;
    Check(lstat((scratch.logs + name).c_str(), &st) == 0, "lstat");
    if (name == "link") {
      Check(S_ISLNK(st.st_mode), "the link was replaced");
    } else if (name == "fifo") {
      Check(S_ISFIFO(st.st_mode), "the FIFO was replaced");
    } else {
      Check(S_ISREG(st.st_mode), "left something other than a regular file");
    }
  }
  return 0;
}
