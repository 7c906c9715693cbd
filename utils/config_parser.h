/// @file
/// The layout of ConfigParser is ABI: clients allocate these objects, so their size and the places
/// of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// Typed reading of an INI-style key file (groups of key=value lines).
///
/// Read-mostly: the only write is in memory (SetValuesByString); nothing is
/// ever saved. Every lookup takes the parser's own mutex, so one parser may be
/// shared by threads.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "utils/export.h"
#include "utils/mutex.h"
#include "utils/thread_annotations.h"

/// The key-file type, without pulling GLib into clients' includes.
typedef struct _GKeyFile GKeyFile;  // NOLINT(bugprone-reserved-identifier): GLib's own name

namespace zel {

/// Typed lookups by group and key in one loaded key file. Any thread: lookups
/// take the parser's mutex, and Init swaps in the key file it loaded under it.
class ConfigParser {
 public:
  /// Unloaded: empty path, no key file. Lookups answer their failure values
  /// until Init succeeds.
  ZEL_API ConfigParser();
  /// Frees the key file (once; nothing after a failed Init).
  ZEL_API ~ConfigParser();
  ConfigParser(const ConfigParser&) = delete;
  ConfigParser& operator=(const ConfigParser&) = delete;

  /// Loads `file` (comments are not kept), then replaces the key file under
  /// the lock; lookups meanwhile see the old one or the new one.
  /// @param file Path of the key file.
  /// @param separator List separator: a text of exactly one character becomes
  ///   the list separator, anything else keeps ";".
  /// @return 0 on success, -1 (with an error diagnostic) on an empty name or a
  ///   file that cannot be read or parsed; the parser is then unusable.
  ZEL_API int Init(const std::string& file, const std::string& separator) ZEL_EXCLUDES(mMutex);

  /// A single boolean. Empty `group` or `key`: false, silently.
  /// @param group Group name.
  /// @param key Key name.
  /// @return The value; false when missing or not a boolean.
  ZEL_API bool GetBooleanVal(const std::string& group, const std::string& key) ZEL_EXCLUDES(mMutex);
  /// A single string. Empty `group` or `key`: "", silently.
  /// @param group Group name.
  /// @param key Key name.
  /// @return The value; "" when missing.
  ZEL_API std::string GetStringVal(const std::string& group, const std::string& key)
      ZEL_EXCLUDES(mMutex);
  /// A single integer.
  /// @param group Group name.
  /// @param key Key name.
  /// @param value Receives the integer, or 0 when missing or not an integer.
  /// @return -1 (value untouched) for empty arguments or an unloaded parser;
  ///   otherwise 0.
  ZEL_API int GetIntegerVal(const std::string& group, const std::string& key, int* value)
      ZEL_EXCLUDES(mMutex);
  /// A single number.
  /// @param group Group name.
  /// @param key Key name.
  /// @param value Receives the number, or 0.0 (and an error diagnostic) when
  ///   missing or not a number.
  /// @return -1 (value untouched) for empty arguments or an unloaded parser;
  ///   otherwise 0.
  ZEL_API int GetDoubleVal(const std::string& group, const std::string& key, double* value)
      ZEL_EXCLUDES(mMutex);

  /// A list of booleans, in file order.
  /// @param group Group name.
  /// @param key Key name.
  /// @return The elements; empty when an argument is empty (silently) or when
  ///   the key is missing or an element has the wrong type (error diagnostic).
  ZEL_API std::vector<bool> GetBooleanVals(const std::string& group, const std::string& key)
      ZEL_EXCLUDES(mMutex);
  /// A list of strings, in file order.
  /// @param group Group name.
  /// @param key Key name.
  /// @return The elements; empty as for GetBooleanVals.
  ZEL_API std::vector<std::string> GetStringVals(const std::string& group, const std::string& key)
      ZEL_EXCLUDES(mMutex);
  /// A list of integers, in file order.
  /// @param group Group name.
  /// @param key Key name.
  /// @return The elements; empty as for GetBooleanVals.
  ZEL_API std::vector<int> GetIntegerVals(const std::string& group, const std::string& key)
      ZEL_EXCLUDES(mMutex);
  /// A list of numbers, in file order.
  /// @param group Group name.
  /// @param key Key name.
  /// @return The elements; empty as for GetBooleanVals.
  ZEL_API std::vector<double> GetDoubleVals(const std::string& group, const std::string& key)
      ZEL_EXCLUDES(mMutex);

  /// Sets the value in memory only (creating group and key if needed) and
  /// reports "not implement" as an error diagnostic, since nothing is written
  /// back.
  /// @param group Group name.
  /// @param key Key name.
  /// @param value New value.
  /// @return -1 when any argument is empty or the parser is unloaded, else 0.
  ZEL_API int SetValuesByString(const std::string& group, const std::string& key,
                                const std::string& value) ZEL_EXCLUDES(mMutex);

 private:
  // Path given to Init.
  std::string mFilePath ZEL_GUARDED_BY(mMutex);
  // Taken by every lookup, by SetValuesByString and by Init to swap the key file.
  Mutex mMutex;
  // Null until Init succeeds (and after a failed Init).
  GKeyFile* mKeyFile ZEL_GUARDED_BY(mMutex) = nullptr;
};

}  // namespace zel
