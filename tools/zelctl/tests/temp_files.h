// Test helpers shared by the tool's tests and the unit suites: a temporary
// folder removed with everything in it, whole-file reads and writes, the
// lines of a text.
#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace zelctltest {

// A fresh folder under $TMPDIR or /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/zelctl-test.XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    if (!path_.empty()) {
      nftw(
          path_.c_str(),
          [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); }, 16,
          FTW_DEPTH | FTW_PHYS);
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  // With a trailing "/", as a log base is given.
  std::string base() const { return path_ + "/"; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}
inline void AppendFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::app) << content;
}
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The lines of `text`, without their newlines (a last one without is kept).
inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace zelctltest
