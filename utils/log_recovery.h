// Writing what dead processes left staged: the next log started in a folder
// recovers the lines that a process which died there had accepted but not
// written. Internal; not installed.
#pragma once

#include <string>

#include "utils/staging_format.h"

namespace zel {
namespace logdetail {

// For every staging file of a dead process: appends its unwritten lines,
// in order, to the file that process was writing, then one line in the log's
// own format saying how many lines were recovered and from which process and
// pid, and removes the staging file. The file written must be reached
// without following a link and be a regular file of the effective user with
// one link. Staging files that fail this are left alone. Writer thread,
// before its first line.
//
// The process log: staging files in the day directories of `base`, lines
// into a "zel.log." file in a day directory of `base`.
void RecoverProcessLog(const std::string& base);
// A named log: staging files in `dir`, lines into a file directly in `dir`.
void RecoverNamedLog(const std::string& dir);

}  // namespace logdetail
}  // namespace zel
