/// @file
/// Where the running executable lives, and which user runs another process.
/// Stateless; callable from any thread.
#pragma once

#include <string>

#include "utils/export.h"

ZEL_BEGIN_C_LINKAGE

/// Folder of the running executable.
/// @return The folder, without a trailing "/", cut to 255 characters; "" when
///   the path holds no "/".
ZEL_API std::string get_self_dir();
/// Folder of the running executable, as get_self_dir but not cut to 255
/// characters.
/// @return The folder, without a trailing "/".
ZEL_API std::string get_process_dir();
/// File name of the running executable.
/// @return The part of the executable's path after its last "/".
ZEL_API std::string get_process_name();
/// Kept for the client's interface.
/// @return Always 0.
ZEL_API int IsMultiUserEnv(void);
/// Does nothing: kept for the client's interface.
ZEL_API void SendScreenRecorderMsg(void);

ZEL_END_C_LINKAGE

/// Real user id of the first running process whose executable file name is
/// exactly `name`.
/// @param name Executable file name, without folder.
/// @return The user id, or -1 when there is none (every failure is -1, silently).
ZEL_API int getProcessUid(const std::string& name);
