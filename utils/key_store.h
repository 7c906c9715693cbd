/// @file
/// The client's settings file ("/Users/<login>/client_config.ini", sections
/// and name=value lines) and the client's application folders.
///
/// The key store is plain line processing with fixed buffers and its own
/// matching rules (see GetKeyString). No locking: callers serialise writes.
#pragma once

#include <string>

#include "utils/export.h"

ZEL_BEGIN_C_LINKAGE

/// The path of the settings file: "/Users/<login>/client_config.ini" with the
/// name getlogin() gives ("(null)" when it fails; on Linux the account of the
/// real user id stands in).
/// @return The path in a malloc'ed string (caller frees); NULL if allocation fails.
ZEL_API char* GetConfigFilePath(void);
/// Reads one value of the settings file. A line name=value matches when its
/// name equals the first characters of `key`; once the section header was seen
/// every later section is searched too.
/// @param section Section name, without brackets; null reads as "(null)", as
///   the C library prints a null string.
/// @param key Key name; null reads as "".
/// @return The value (at most 31 characters) in a malloc'ed block the caller
///   frees: "" when the file cannot be read or the key is not found, NULL only
///   when allocation fails.
ZEL_API char* GetKeyString(const char* section, const char* key);
/// Reads one value of another file by GetKeyString's rules: a copy of the
/// settings file, say. Prints "fopen: ..." (perror) when the file cannot be
/// opened, as GetKeyString does.
/// @param path The file to read; null reads as "" (a file that cannot be opened).
/// @param section Section name, without brackets; null reads as "(null)".
/// @param key Key name; null reads as "".
/// @param found When not null, receives 1 when a matching line was found
///   (its value may be empty), 0 when none was, -1 when the file cannot be
///   opened.
/// @return As GetKeyString: the value in a malloc'ed block the caller frees,
///   NULL only when allocation fails.
ZEL_API char* GetKeyStringInFile(const char* path, const char* section, const char* key,
                                 int* found);
/// Reads one value of the settings file as an integer.
/// @param section Section name, as for GetKeyString.
/// @param key Key name, as for GetKeyString.
/// @return atoi of GetKeyString; 0 when the value is missing or empty.
ZEL_API int GetKeyInt(const char* section, const char* key);
/// Replaces the value of the first matching existing key (matched as by
/// GetKeyString), through a temporary file renamed over the settings file. A
/// key that is not there is not added.
/// @param section Section name, without brackets; null reads as "(null)".
/// @param key Key name; null reads as "".
/// @param value New value; null is written as "(null)".
/// @return rename's result (0 even when nothing matched), -2 when the file
///   cannot be read, -1 when the temporary file cannot be created; 0 when the
///   path cannot be allocated.
ZEL_API int PutKeyString(const char* section, const char* key, const char* value);
/// PutKeyString on another file (a copy of the settings file, say), through
/// "<path>.tmp".
/// @param path The file to change; null reads as "" (a file that cannot be read).
/// @param section Section name, without brackets; null reads as "(null)".
/// @param key Key name; null reads as "".
/// @param value New value; null is written as "(null)".
/// @return As PutKeyString (there is no path to allocate).
ZEL_API int PutKeyStringInFile(const char* path, const char* section, const char* key,
                               const char* value);
/// PutKeyString with `value` written as "%d".
/// @param section Section name, as for PutKeyString.
/// @param key Key name, as for PutKeyString.
/// @param value New value.
/// @return As PutKeyString.
ZEL_API int PutKeyInt(const char* section, const char* key, int value);
/// The client's application folder. Creates nothing of its own.
/// @return ".../orvane/" for an ordinary user, and for root the folder of the
///   user running "orvane", without the trailing "/"; "" when that user cannot
///   be found.
ZEL_API std::string GetAppRootPath();
/// The log folder inside the application folder.
/// @return ".../orvane/log/"; "" as GetAppRootPath.
ZEL_API std::string GetAppDataPath();

ZEL_END_C_LINKAGE
