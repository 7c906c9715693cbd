#include "utils/config_parser.h"

#include <glib.h>

#include "utils/diag.h"

namespace zel {

namespace {

bool AnyEmpty(const std::string& group, const std::string& key) {
  return group.empty() || key.empty();
}

}  // namespace

ConfigParser::ConfigParser() = default;

ConfigParser::~ConfigParser() {
  if (mKeyFile != nullptr) g_key_file_free(mKeyFile);
}

int ConfigParser::Init(const std::string& file, const std::string& separator) {
  if (file.empty()) {
    ZEL_ERROR_AT(13, "file[%s] err", file.c_str());
    return -1;
  }
  GKeyFile* loaded = g_key_file_new();
  if (separator.size() == 1) g_key_file_set_list_separator(loaded, separator[0]);
  GError* error = nullptr;
  if (!g_key_file_load_from_file(loaded, file.c_str(), G_KEY_FILE_NONE, &error)) {
    g_error_free(error);
    g_key_file_free(loaded);
    // Lookups on a parser whose Init failed give their failure values.
    loaded = nullptr;
  }
  {
    // Swapped under the lock: another thread's lookup may be using the old one.
    MutexLock lock(mMutex);
    mFilePath = file;
    // A second Init replaces the key file; the old one is not kept alive.
    if (mKeyFile != nullptr) g_key_file_free(mKeyFile);
    mKeyFile = loaded;
  }
  if (loaded != nullptr) return 0;
  ZEL_ERROR_AT(29, "file[%s] err", file.c_str());
  return -1;
}

bool ConfigParser::GetBooleanVal(const std::string& group, const std::string& key) {
  if (AnyEmpty(group, key)) return false;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return false;
  GError* error = nullptr;
  const gboolean value = g_key_file_get_boolean(mKeyFile, group.c_str(), key.c_str(), &error);
  g_clear_error(&error);
  return value != FALSE;
}

std::string ConfigParser::GetStringVal(const std::string& group, const std::string& key) {
  if (AnyEmpty(group, key)) return std::string();
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return std::string();
  GError* error = nullptr;
  gchar* text = g_key_file_get_string(mKeyFile, group.c_str(), key.c_str(), &error);
  g_clear_error(&error);
  std::string value = text != nullptr ? text : "";
  g_free(text);
  return value;
}

int ConfigParser::GetIntegerVal(const std::string& group, const std::string& key, int* value) {
  if (AnyEmpty(group, key)) return -1;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return -1;
  GError* error = nullptr;
  *value = g_key_file_get_integer(mKeyFile, group.c_str(), key.c_str(), &error);
  g_clear_error(&error);
  return 0;
}

int ConfigParser::GetDoubleVal(const std::string& group, const std::string& key, double* value) {
  if (AnyEmpty(group, key)) return -1;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return -1;
  GError* error = nullptr;
  const gdouble number = g_key_file_get_double(mKeyFile, group.c_str(), key.c_str(), &error);
  if (error != nullptr) {
    // The "\n" is literal text in the message, not a line break.
    ZEL_ERROR_AT(105, "%s \\n", error->message);
    g_clear_error(&error);
  }
  *value = number;
  return 0;
}

std::vector<bool> ConfigParser::GetBooleanVals(const std::string& group, const std::string& key) {
  std::vector<bool> values;
  if (AnyEmpty(group, key)) return values;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return values;
  gsize length = 0;
  GError* error = nullptr;
  gboolean* list =
      g_key_file_get_boolean_list(mKeyFile, group.c_str(), key.c_str(), &length, &error);
  if (error != nullptr) {
    ZEL_ERROR_AT(126, "%s \\n", error->message);
    g_clear_error(&error);
    return values;
  }
  for (gsize i = 0; i < length; ++i) values.push_back(list[i] != FALSE);
  g_free(list);
  return values;
}

std::vector<std::string> ConfigParser::GetStringVals(const std::string& group,
                                                     const std::string& key) {
  std::vector<std::string> values;
  if (AnyEmpty(group, key)) return values;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return values;
  gsize length = 0;
  GError* error = nullptr;
  gchar** list = g_key_file_get_string_list(mKeyFile, group.c_str(), key.c_str(), &length, &error);
  if (error != nullptr) {
    ZEL_ERROR_AT(151, "%s \\n", error->message);
    g_clear_error(&error);
    return values;
  }
  values.assign(list, list + length);
  g_strfreev(list);
  return values;
}

std::vector<int> ConfigParser::GetIntegerVals(const std::string& group, const std::string& key) {
  std::vector<int> values;
  if (AnyEmpty(group, key)) return values;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return values;
  gsize length = 0;
  GError* error = nullptr;
  gint* list = g_key_file_get_integer_list(mKeyFile, group.c_str(), key.c_str(), &length, &error);
  if (error != nullptr) {
    ZEL_ERROR_AT(175, "%s \\n", error->message);
    g_clear_error(&error);
    return values;
  }
  values.assign(list, list + length);
  g_free(list);
  return values;
}

std::vector<double> ConfigParser::GetDoubleVals(const std::string& group, const std::string& key) {
  std::vector<double> values;
  if (AnyEmpty(group, key)) return values;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return values;
  gsize length = 0;
  GError* error = nullptr;
  gdouble* list = g_key_file_get_double_list(mKeyFile, group.c_str(), key.c_str(), &length, &error);
  if (error != nullptr) {
    ZEL_ERROR_AT(200, "%s \\n", error->message);
    g_clear_error(&error);
    return values;
  }
  values.assign(list, list + length);
  g_free(list);
  return values;
}

int ConfigParser::SetValuesByString(const std::string& group, const std::string& key,
                                    const std::string& value) {
  if (AnyEmpty(group, key) || value.empty()) return -1;
  MutexLock lock(mMutex);
  if (mKeyFile == nullptr) return -1;
  g_key_file_set_string(mKeyFile, group.c_str(), key.c_str(), value.c_str());
  // Changes live in memory only; saving them was never done.
  ZEL_ERROR_AT(224, "not implement");
  return 0;
}

}  // namespace zel
