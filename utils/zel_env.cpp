#include "utils/zel_env.h"

#include <map>

#include "utils/mutex.h"
#include "utils/thread_annotations.h"

namespace zel {

namespace {

Mutex& TableMutex() {
  static Mutex mutex;
  return mutex;
}

std::map<std::string, std::string>& TableLocked() ZEL_REQUIRES(TableMutex()) {
  static std::map<std::string, std::string> table;
  return table;
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the API's
std::string ZelEnv::zel_get_env(std::string name) {
  MutexLock lock(TableMutex());
  auto found = TableLocked().find(name);
  return found == TableLocked().end() ? std::string() : found->second;
}

int ZelEnv::zel_set_env(const std::string& name, const std::string& value) {
  MutexLock lock(TableMutex());
  TableLocked()[name] = value;
  return 0;
}

}  // namespace zel
