/// @file
/// The C logging interface of the process log, and the library's time stamp.
///
/// log_print filters by level, adds the line prefix
/// "[M-D hh:mm:ss.mmm][tid:N] " and a newline, and queues the line on the
/// process log (the Logger singleton), whose own thread writes it to disk.
#pragma once

#include <string>

#include "utils/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Formats one line and queues it on the process log when `level` is at most
/// the current level. Never blocks on the file; any thread may call it. The
/// first line that passes the filter creates the Logger.
/// @param level Level of the line; it is logged when at most zel_log_level().
/// @param toBackends Non-zero to hand the line also to the sinks attached to
///   the Logger.
/// @param format printf format of the text, followed by its arguments.
/// @return Always 0.
ZEL_API int log_print(int level, int toBackends, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
/// Sets the current level (3 at load); only the low 8 bits are kept, signed.
/// @param level The new level.
ZEL_API void zel_set_log_level(int level);
/// The current level.
/// @return The level, sign-extended from its 8 bits.
ZEL_API int zel_log_level();
/// Sets the log base (must end in "/"); an empty path is ignored. Call once,
/// before logging starts: the base is not locked.
/// @param path The base directory; copied. Null or "" is ignored.
ZEL_API void zel_set_log_path(const char* path);
/// Copies the day directory last computed into `buf` (strncpy of size - 1
/// bytes: pass a zeroed buffer).
/// @param buf Receives the directory; left unterminated by a directory of size - 1
///   characters or more unless it was zeroed.
/// @param size Size of `buf` in bytes.
/// @return 0, or -1 when no directory was computed yet.
ZEL_API int zel_get_log_path(char* buf, int size);

#ifdef __cplusplus
}
#endif

namespace zel {
/// The local time now, for time stamps. Any thread.
/// @return Local time as "%Y-%m-%d-%H:%M:%S.mmm", e.g. "2026-11-15-09:30:15.042".
ZEL_API std::string getCurrentTimeString();
}  // namespace zel
