// Fuzz target: arbitrary bytes as a key file for ConfigParser, every
// single-value lookup and the in-memory write, each compared with GLib's own
// answer on the same bytes (the parser is a thin, locked layer over GLib's
// key file, so any difference is the parser's).
//
// Input: see support/key_file_input.h (separator, then the file). Checked:
// - Init succeeds exactly when GLib loads the file;
// - for every group/key GLib finds (and a missing one): GetBooleanVal,
//   GetStringVal ("" when GLib has none), GetIntegerVal (0 and GLib's value),
//   GetDoubleVal (0 and GLib's value, bit for bit);
// - empty group or key: false, "", -1 with the out-value untouched;
// - a parser whose Init failed answers every lookup with its failure value;
// - SetValuesByString: the next GetStringVal gives GLib's answer after the
//   same write (the value itself when it is UTF-8 without NUL), and the file
//   is unchanged.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/key_file_input.h"
#include "support/mem_file.h"
#include "utils/config_parser.h"

namespace {

void Check(bool ok, const char* what, const std::string& group = "", const std::string& key = "") {
  if (!ok) {
    std::fprintf(stderr, "config_parser_fuzz: %s [%s] %s\n", what, group.c_str(), key.c_str());
    std::abort();
  }
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

std::string ReferenceString(GKeyFile* keys, const std::string& group, const std::string& key) {
  gchar* text = g_key_file_get_string(keys, group.c_str(), key.c_str(), nullptr);
  std::string value = text != nullptr ? text : "";
  g_free(text);
  return value;
}

void CheckSingles(zel::ConfigParser& parser, GKeyFile* keys, const std::string& group,
                  const std::string& key) {
  const char* g = group.c_str();
  const char* k = key.c_str();
  Check(parser.GetBooleanVal(group, key) == (g_key_file_get_boolean(keys, g, k, nullptr) != FALSE),
        "GetBooleanVal", group, key);
  Check(parser.GetStringVal(group, key) == ReferenceString(keys, group, key), "GetStringVal", group,
        key);
  int number = 12345;
  Check(parser.GetIntegerVal(group, key, &number) == 0, "GetIntegerVal result", group, key);
  Check(number == g_key_file_get_integer(keys, g, k, nullptr), "GetIntegerVal value", group, key);
  double ratio = 1.5;
  Check(parser.GetDoubleVal(group, key, &ratio) == 0, "GetDoubleVal result", group, key);
  Check(SameBits(ratio, g_key_file_get_double(keys, g, k, nullptr)), "GetDoubleVal value", group,
        key);
}

// The answers for empty arguments, or for a parser that is not loaded.
void CheckFailureValues(zel::ConfigParser& parser, const std::string& group,
                        const std::string& key) {
  Check(!parser.GetBooleanVal(group, key), "GetBooleanVal failure value", group, key);
  Check(parser.GetStringVal(group, key).empty(), "GetStringVal failure value", group, key);
  int number = 12345;
  Check(parser.GetIntegerVal(group, key, &number) == -1 && number == 12345,
        "GetIntegerVal failure value", group, key);
  double ratio = 1.5;
  Check(parser.GetDoubleVal(group, key, &ratio) == -1 && ratio == 1.5, "GetDoubleVal failure value",
        group, key);
  Check(parser.SetValuesByString(group, key, "v") == -1, "SetValuesByString failure value", group,
        key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelfuzz::KeyFileInput input;
  if (!zelfuzz::ParseKeyFileInput(data, size, &input)) return 0;
  static zelfuzz::MemFile file;
  file.Set(input.file);

  GKeyFile* keys = zelfuzz::LoadReference(file.path(), input.separator);
  zel::ConfigParser parser;
  const int rc = parser.Init(file.path(), input.separator);
  Check(rc == (keys != nullptr ? 0 : -1), "Init result differs from GLib's load");
  if (keys == nullptr) {
    CheckFailureValues(parser, "a", "k");
    return 0;
  }

  auto names = zelfuzz::KeysOf(keys, 16);
  names.emplace_back("missing group", "missing key");
  if (!names.empty()) names.emplace_back(names.front().first, "missing key");
  for (const auto& name : names) CheckSingles(parser, keys, name.first, name.second);
  CheckFailureValues(parser, "", "k");
  CheckFailureValues(parser, "a", "");

  // One in-memory write, to the first key found (or a new one), with a value
  // taken from the input's tail so that escapes and encodings vary.
  const std::string group = names.front().first;
  const std::string key = names.front().second;
  const std::string value = input.file.size() > 1
                                ? input.file.substr(input.file.size() - input.file.size() / 4 - 1)
                                : "v";
  const bool written = parser.SetValuesByString(group, key, value) == 0;
  Check(written == !value.empty(), "SetValuesByString result", group, key);
  if (written) {
    g_key_file_set_string(keys, group.c_str(), key.c_str(), value.c_str());
    const std::string read_back = parser.GetStringVal(group, key);
    Check(read_back == ReferenceString(keys, group, key), "GetStringVal after the write", group,
          key);
    const bool plain = value.find('\0') == std::string::npos &&
                       g_utf8_validate(value.data(), static_cast<gssize>(value.size()), nullptr);
    Check(!plain || read_back == value, "GetStringVal does not give the value written", group, key);
  }
  Check(file.Get() == input.file, "the file changed on disk");
  g_key_file_free(keys);
  return 0;
}
