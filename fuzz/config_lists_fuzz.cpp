// Fuzz target: ConfigParser's list lookups (GetBooleanVals, GetStringVals,
// GetIntegerVals, GetDoubleVals) against GLib's own list getters on the same
// bytes and the same list separator.
//
// Input: see support/key_file_input.h (separator, then the file). For every
// group/key GLib finds, and for missing ones, each list must hold the same
// elements in the same order as GLib's (doubles bit for bit), and be empty
// exactly when GLib reports an error. Empty group or key: always empty.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/key_file_input.h"
#include "support/mem_file.h"
#include "utils/config_parser.h"

namespace {

void Check(bool ok, const char* what, const std::string& group, const std::string& key) {
  if (!ok) {
    std::fprintf(stderr, "config_lists_fuzz: %s [%s] %s\n", what, group.c_str(), key.c_str());
    std::abort();
  }
}

std::vector<bool> ReferenceBooleans(GKeyFile* keys, const char* group, const char* key) {
  gsize length = 0;
  GError* error = nullptr;
  gboolean* list = g_key_file_get_boolean_list(keys, group, key, &length, &error);
  std::vector<bool> values;
  if (error == nullptr) {
    for (gsize i = 0; i < length; ++i) values.push_back(list[i] != FALSE);
  }
  g_clear_error(&error);
  g_free(list);
  return values;
}

std::vector<std::string> ReferenceStrings(GKeyFile* keys, const char* group, const char* key) {
  gsize length = 0;
  GError* error = nullptr;
  gchar** list = g_key_file_get_string_list(keys, group, key, &length, &error);
  std::vector<std::string> values;
  if (error == nullptr) {
    for (gsize i = 0; i < length; ++i) values.emplace_back(list[i]);
  }
  g_clear_error(&error);
  g_strfreev(list);
  return values;
}

std::vector<int> ReferenceIntegers(GKeyFile* keys, const char* group, const char* key) {
  gsize length = 0;
  GError* error = nullptr;
  gint* list = g_key_file_get_integer_list(keys, group, key, &length, &error);
  std::vector<int> values;
  if (error == nullptr) values.assign(list, list + length);
  g_clear_error(&error);
  g_free(list);
  return values;
}

std::vector<double> ReferenceDoubles(GKeyFile* keys, const char* group, const char* key) {
  gsize length = 0;
  GError* error = nullptr;
  gdouble* list = g_key_file_get_double_list(keys, group, key, &length, &error);
  std::vector<double> values;
  if (error == nullptr) values.assign(list, list + length);
  g_clear_error(&error);
  g_free(list);
  return values;
}

bool SameDoubles(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

void CheckLists(zel::ConfigParser& parser, GKeyFile* keys, const std::string& group,
                const std::string& key) {
  const char* g = group.c_str();
  const char* k = key.c_str();
  Check(parser.GetBooleanVals(group, key) == ReferenceBooleans(keys, g, k), "GetBooleanVals", group,
        key);
  Check(parser.GetStringVals(group, key) == ReferenceStrings(keys, g, k), "GetStringVals", group,
        key);
  Check(parser.GetIntegerVals(group, key) == ReferenceIntegers(keys, g, k), "GetIntegerVals", group,
        key);
  Check(SameDoubles(parser.GetDoubleVals(group, key), ReferenceDoubles(keys, g, k)),
        "GetDoubleVals", group, key);
}

void CheckEmpty(zel::ConfigParser& parser, const std::string& group, const std::string& key) {
  Check(parser.GetBooleanVals(group, key).empty() && parser.GetStringVals(group, key).empty() &&
            parser.GetIntegerVals(group, key).empty() && parser.GetDoubleVals(group, key).empty(),
        "a list for empty arguments or an unloaded parser", group, key);
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
  Check(rc == (keys != nullptr ? 0 : -1), "Init result differs from GLib's load", "", "");
  if (keys == nullptr) {
    CheckEmpty(parser, "a", "k");
    return 0;
  }
  auto names = zelfuzz::KeysOf(keys, 16);
  if (!names.empty()) names.emplace_back(names.front().first, "missing key");
  names.emplace_back("missing group", "k");
  for (const auto& name : names) CheckLists(parser, keys, name.first, name.second);
  CheckEmpty(parser, "", "k");
  CheckEmpty(parser, "a", "");
  g_key_file_free(keys);
  return 0;
}
