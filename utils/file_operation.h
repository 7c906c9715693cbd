/// @file
/// Small file helpers and the receiving end of spooled print files.
///
/// A peer sends a print file in chunks; each chunk is one buffer, laid out in
/// little-endian order with no alignment or padding:
///
/// | offset | size | field     | meaning                                                    |
/// |--------|------|-----------|------------------------------------------------------------|
/// | 0      | 2    | id1       | first number of the local name                             |
/// | 2      | 2    | id2       | second number of the local name                            |
/// | 4      | 1    | path_len  | L, length of the sender's path (0-255)                     |
/// | 5      | L    | path      | sender's path, not terminated, "/" or backslash separators |
/// | 5+L    | 8    | file_size | total size of the file (diagnostics only)                  |
/// | 13+L   | 8    | offset    | where this chunk's data goes in the file                   |
/// | 21+L   | rest | data      |                                                            |
///
/// Stateless; callable from any thread (chunks of one file may be written
/// concurrently, each at its own offset).
#pragma once

#include <string>

#include "utils/export.h"

namespace zel {

/// Size of a file from lstat (a symbolic link gives its own size).
/// @param path Path of the file.
/// @return Size in bytes; 0 when lstat fails.
ZEL_API long long getFileSize(const char* path);
/// Whether a file exists.
/// @param path Path of the file.
/// @return True when access(path, F_OK) succeeds.
ZEL_API bool fileExists(const char* path);
/// Removes a file.
/// @param path Path of the file.
/// @return True when remove(path) succeeds.
ZEL_API bool deleteFile(const char* path);

/// Writes one chunk (`len` bytes at `buffer`, layout above) at its offset into
/// `"/tmp/"` + the file name, the part of the sender's path after its last "/"
/// (or, with no "/", after its last backslash). The name handed back in
/// `local_name` is GetAppDataPath(), a backslash, `"<id1>_<id2>_"`, `label` and
/// the file name; the first chunk (offset 0) removes an existing file of that name, and
/// that is all that is done with it. The written file is opened without
/// truncation, so bytes past the chunks of this job survive from an earlier
/// file of the same name.
///
/// Security: the sender controls the path. No "/" survives in the file name,
/// so the write never leaves "/tmp/"; names "", "." and ".." resolve to the
/// directory itself and fail. The file is opened with O_NOFOLLOW: a symbolic
/// link planted at `"/tmp/<name>"` by another user is refused (-1) and its
/// target is left untouched. After opening, data goes only to a regular file
/// owned by the effective user with exactly one link: a planted hard link,
/// another user's file, a FIFO or a device is closed unwritten (-1).
/// @param len Size of the chunk in bytes.
/// @param buffer The chunk; read only.
/// @param label Text put between the ids and the file name of `local_name`.
/// @param local_name Receives the local name once it is built; left alone
///   before that.
/// @return 0 (also for a short write), -1 when the buffer is too short, names
///   no file or the file cannot be opened, or pwrite's negative result.
ZEL_API int SavePrinterFile(unsigned int len, unsigned char* buffer, std::string label,
                            std::string& local_name);

}  // namespace zel
