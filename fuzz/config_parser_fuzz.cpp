// libFuzzer target: arbitrary bytes as a key file for ConfigParser, then
// every kind of lookup. Not part of the CMake build; from the source root:
//
//   clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -I. \
//     fuzz/config_parser_fuzz.cpp utils/config_parser.cpp client/orvane_log.cpp \
//     $(pkg-config --cflags --libs glib-2.0) -o config_parser_fuzz
//   ./config_parser_fuzz -max_total_time=60 2>/dev/null
//
// The input's first byte picks the list separator; the rest is the file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "utils/config_parser.h"

namespace {

std::string KeyFilePath() {
  static const std::string path = "/tmp/config_parser_fuzz." + std::to_string(getpid()) + ".ini";
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string separator(1, static_cast<char>(data[0]));
  {
    FILE* file = std::fopen(KeyFilePath().c_str(), "wb");
    if (file == nullptr) return 0;
    std::fwrite(data + 1, 1, size - 1, file);
    std::fclose(file);
  }
  zel::ConfigParser parser;
  if (parser.Init(KeyFilePath(), separator) == 0) {
    // Names that the input is likely to contain, found by the fuzzer's own comparisons.
    for (const char* group : {"a", "general", "lists"}) {
      for (const char* key : {"k", "name", "numbers"}) {
        int number = 0;
        double ratio = 0.0;
        parser.GetBooleanVal(group, key);
        parser.GetStringVal(group, key);
        parser.GetIntegerVal(group, key, &number);
        parser.GetDoubleVal(group, key, &ratio);
        parser.GetBooleanVals(group, key);
        parser.GetStringVals(group, key);
        parser.GetIntegerVals(group, key);
        parser.GetDoubleVals(group, key);
      }
    }
    parser.SetValuesByString("a", "k", "v");
  }
  std::remove(KeyFilePath().c_str());
  return 0;
}
