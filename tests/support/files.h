// Test helpers for files: a scratch folder of a test's own, whole files read
// and written, and the descriptors a process holds. Standard library and
// POSIX only (helper programs use it too).
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace zeltest {

// A fresh folder "<stem>_XXXXXX" in `parent` (the system's temporary folder
// unless told), removed with the object; a folder that cannot be made throws.
class TempDir {
 public:
  explicit TempDir(const std::string& stem = "zeltest",
                   const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / (stem + "_XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + pattern);
    path_ = pattern + "/";
  }
  ~TempDir() { Remove(); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  // The folder with a trailing slash (ready to be a log base).
  const std::string& path() const { return path_; }
  // Removes the folder and all in it now; false when something stayed.
  bool Remove() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    return !error && !std::filesystem::exists(path_, error);
  }

 private:
  std::string path_;
};

// The whole file ("" when it cannot be read).
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Replaces the file's contents by `text`, creating it if need be.
inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool Exists(const std::string& path) { return std::filesystem::exists(path); }

// Number of descriptors this process has open (the listing's own included,
// the same in every count).
inline size_t OpenDescriptorCount() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

}  // namespace zeltest
