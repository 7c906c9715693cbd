// Input layout shared by the two ConfigParser targets, and the reference:
// GLib's own key file loaded from the same bytes with the same separator.
//
//   byte 0: separator character
//   byte 1: separator length (byte % 3: none, one character, two characters;
//           only a single character replaces GLib's default ";")
//   rest:   the key file
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zelfuzz {

struct KeyFileInput {
  std::string separator;
  std::string file;
};

inline bool ParseKeyFileInput(const uint8_t* data, size_t size, KeyFileInput* input) {
  if (size < 2) return false;
  const char c = static_cast<char>(data[0]);
  input->separator = std::string(data[1] % 3, c);
  input->file.assign(reinterpret_cast<const char*>(data + 2), size - 2);
  return true;
}

// The reference key file; null when GLib cannot load it.
inline GKeyFile* LoadReference(const std::string& path, const std::string& separator) {
  GKeyFile* keys = g_key_file_new();
  if (separator.size() == 1) g_key_file_set_list_separator(keys, separator[0]);
  if (!g_key_file_load_from_file(keys, path.c_str(), G_KEY_FILE_NONE, nullptr)) {
    g_key_file_free(keys);
    return nullptr;
  }
  return keys;
}

// Up to `limit` groups and, in each, up to `limit` keys, in file order, as
// the reference sees them.
inline std::vector<std::pair<std::string, std::string>> KeysOf(GKeyFile* keys, size_t limit) {
  std::vector<std::pair<std::string, std::string>> found;
  gsize group_count = 0;
  gchar** groups = g_key_file_get_groups(keys, &group_count);
  for (gsize g = 0; g < group_count && g < limit; ++g) {
    gsize key_count = 0;
    gchar** names = g_key_file_get_keys(keys, groups[g], &key_count, nullptr);
    for (gsize k = 0; names != nullptr && k < key_count && k < limit; ++k) {
      found.emplace_back(groups[g], names[k]);
    }
    g_strfreev(names);
  }
  g_strfreev(groups);
  return found;
}

}  // namespace zelfuzz
