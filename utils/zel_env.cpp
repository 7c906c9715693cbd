#include "utils/zel_env.h"

#include <map>
#include <mutex>

namespace zel {

namespace {

std::mutex& TableMutex() {
  static std::mutex mutex;
  return mutex;
}

std::map<std::string, std::string>& Table() {
  static std::map<std::string, std::string> table;
  return table;
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the API's
std::string ZelEnv::zel_get_env(std::string name) {
  std::lock_guard<std::mutex> lock(TableMutex());
  auto found = Table().find(name);
  return found == Table().end() ? std::string() : found->second;
}

int ZelEnv::zel_set_env(const std::string& name, const std::string& value) {
  std::lock_guard<std::mutex> lock(TableMutex());
  Table()[name] = value;
  return 0;
}

}  // namespace zel
