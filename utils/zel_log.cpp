#include "utils/zel_log.h"

#include <chrono>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace zel {

std::string getCurrentTimeString() {
  using namespace std::chrono;
  const long long micros =
      duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
  const std::time_t seconds = static_cast<std::time_t>(micros / 1000000);
  std::tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream out;
  out << std::put_time(&local, "%Y-%m-%d-%H:%M:%S") << '.' << std::setw(3)
      << std::setfill('0') << (micros / 1000) % 1000;
  return out.str();
}

}  // namespace zel
