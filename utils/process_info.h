// Where the running executable lives, and which user runs another process.
// Stateless; callable from any thread.
#pragma once

#include <string>

#include "utils/export.h"

ZEL_BEGIN_C_LINKAGE

// Folder of the running executable, without a trailing "/".
ZEL_API std::string get_self_dir();
ZEL_API std::string get_process_dir();
// File name of the running executable.
ZEL_API std::string get_process_name();
// Always 0: kept for the client's interface.
ZEL_API int IsMultiUserEnv(void);
// Does nothing: kept for the client's interface.
ZEL_API void SendScreenRecorderMsg(void);

ZEL_END_C_LINKAGE

// Real user id of the first running process whose executable file name is
// exactly `name`, or -1 when there is none (every failure is -1, silently).
ZEL_API int getProcessUid(const std::string& name);
