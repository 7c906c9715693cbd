// A main for the fuzz targets without libFuzzer: runs LLVMFuzzerTestOneInput
// once over every file named on the command line, a folder standing for the
// files directly in it (sub-folders such as known_failing/ and names starting
// with "." are left out). Used by the ordinary test suite to replay the seed
// corpus and the kept crash inputs in every build, with any compiler.
//
// Every input is read before LLVMFuzzerInitialize runs, since some targets
// then move into a private file system where the paths may be hidden.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

struct Input {
  std::string name;
  std::string bytes;
};

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Read(const std::string& path, std::vector<Input>& inputs) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  inputs.push_back({path, std::string(std::istreambuf_iterator<char>(in), {})});
  return !in.bad();
}

// Adds the files of `path` (a file, or the files directly in a folder, sorted).
bool Collect(const std::string& path, std::vector<Input>& inputs) {
  if (!IsDirectory(path)) return Read(path, inputs);
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return false;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string file = path + "/" + name;
    if (IsRegularFile(file) && !Read(file, inputs)) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Input> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!Collect(argv[i], inputs)) {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 2;
    }
  }
  // An empty corpus would make the test pass without checking anything.
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs\n");
    return 2;
  }
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  for (const Input& input : inputs) {
    std::fprintf(stderr, "Running: %s (%zu bytes)\n", input.name.c_str(), input.bytes.size());
    // A buffer of exactly the input's size, so that a read past it is caught
    // by AddressSanitizer, as under libFuzzer.
    std::unique_ptr<uint8_t[]> data(new uint8_t[input.bytes.size()]);
    std::memcpy(data.get(), input.bytes.data(), input.bytes.size());
    LLVMFuzzerTestOneInput(data.get(), input.bytes.size());
  }
  std::fprintf(stderr, "Executed %zu inputs\n", inputs.size());
  return 0;
}
