// Typed reading of an INI-style key file (groups of key=value lines).
//
// Read-mostly: the only write is in memory (SetValuesByString); nothing is
// ever saved. Every lookup takes the parser's own mutex, so one parser may be
// shared by threads once Init has finished.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "utils/export.h"

// The key-file type, without pulling GLib into clients' includes.
typedef struct _GKeyFile GKeyFile;

namespace zel {

class ConfigParser {
 public:
  // Unloaded: empty path, no key file. Lookups answer their failure values
  // until Init succeeds.
  ZEL_API ConfigParser();
  // Frees the key file (once; nothing after a failed Init).
  ZEL_API ~ConfigParser();
  ConfigParser(const ConfigParser&) = delete;
  ConfigParser& operator=(const ConfigParser&) = delete;

  // Loads `file` (comments are not kept). A `separator` of exactly one
  // character becomes the list separator, anything else keeps ";".
  // 0 on success, -1 (with an error diagnostic) on an empty name or a file
  // that cannot be read or parsed; the parser is then unusable.
  // Not locked: call before the parser is shared.
  ZEL_API int Init(const std::string& file, const std::string& separator);

  // Single values. Empty `group` or `key`: the failure value, silently.
  // false when missing or not a boolean.
  ZEL_API bool GetBooleanVal(const std::string& group, const std::string& key);
  // "" when missing.
  ZEL_API std::string GetStringVal(const std::string& group, const std::string& key);
  // -1 (value untouched) for empty arguments; otherwise 0, with *value set to
  // the integer or to 0 when missing or not an integer.
  ZEL_API int GetIntegerVal(const std::string& group, const std::string& key, int* value);
  // -1 for empty arguments; otherwise 0, with *value set to the number or to
  // 0.0 (and an error diagnostic) when missing or not a number.
  ZEL_API int GetDoubleVal(const std::string& group, const std::string& key, double* value);

  // Lists, in file order. Empty when an argument is empty (silently) or when
  // the key is missing or an element has the wrong type (error diagnostic).
  ZEL_API std::vector<bool> GetBooleanVals(const std::string& group, const std::string& key);
  ZEL_API std::vector<std::string> GetStringVals(const std::string& group, const std::string& key);
  ZEL_API std::vector<int> GetIntegerVals(const std::string& group, const std::string& key);
  ZEL_API std::vector<double> GetDoubleVals(const std::string& group, const std::string& key);

  // Sets the value in memory only (creating group and key if needed) and
  // reports "not implement", since nothing is written back. -1 when any
  // argument is empty, else 0.
  ZEL_API int SetValuesByString(const std::string& group, const std::string& key, const std::string& value);

 private:
  std::string mFilePath;
  std::mutex mMutex;
  GKeyFile* mKeyFile = nullptr;
};

}  // namespace zel
