// Finding the staging files that dead processes left in a folder: a staging
// file belongs to a dead process when its lock (flock) can be taken, which
// no reuse of the pid can fool. Internal; not installed. Also compiled into
// zelctl, which only reads.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "utils/staging_format.h"

namespace zel {
namespace logdetail {

// A dead process's staging file, open and locked while the visitor runs.
struct DeadStaging {
  int dirFd;         // the folder scanned
  std::string name;  // the file's name in it
  int fd;            // the file, locked
  staging::Contents contents;
};

// Calls `visit` for every regular file in `dir` whose name ends in
// staging::kSuffix, holds a staging file of `kind`, and whose lock can be
// taken (exclusively when `forWriting`, else shared): a live writer's own
// file, this process's included, is never taken. Never follows a link;
// files of more than 64 MiB are not read. Unreadable files are passed over.
void ForEachDeadStaging(const std::string& dir, staging::Kind kind, bool forWriting,
                        const std::function<void(const DeadStaging&)>& visit);

// The day directories ("YYYYMMDD") directly in `base`, sorted.
std::vector<std::string> DayDirectories(const std::string& base);

}  // namespace logdetail
}  // namespace zel
