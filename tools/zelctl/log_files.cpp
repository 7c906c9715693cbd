#include "log_files.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <tuple>
#include <utility>

#include "log_prefix.h"
#include "utils/log_format.h"

namespace zelctl {
namespace {

using zel::logformat::kLogFilePrefix;

bool AllDigits(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

bool ParseLogFileName(const std::string& name, LogFileName* parsed) {
  const size_t prefix_size = sizeof(kLogFilePrefix) - 1;
  if (name.compare(0, prefix_size, kLogFilePrefix) != 0) return false;
  const size_t last_dot = name.rfind('.');
  if (last_dot == std::string::npos || last_dot < prefix_size) return false;
  const std::string suffix = name.substr(last_dot + 1);
  LogFileName out;
  if (suffix == zel::logformat::kCurrentSuffix) {
    out.current = true;
  } else if (AllDigits(suffix) && suffix.size() <= 3 &&
             std::atoi(suffix.c_str()) <= static_cast<int>(zel::logformat::kLastRotation)) {
    out.rotation = static_cast<unsigned>(std::atoi(suffix.c_str()));
  } else {
    return false;
  }
  // ".hhmmss" before the suffix, and a non-empty tag before that.
  constexpr size_t kTag = zel::logformat::kTimeTagSize;
  if (last_dot < prefix_size + kTag + 2 || name[last_dot - kTag - 1] != '.') return false;
  out.time_tag = name.substr(last_dot - kTag, kTag);
  if (!AllDigits(out.time_tag)) return false;
  out.tag = name.substr(prefix_size, last_dot - kTag - 1 - prefix_size);
  if (out.tag.empty()) return false;
  out.process = out.tag;
  const size_t dash = out.tag.rfind('-');
  if (dash != std::string::npos) {
    const std::string pid = out.tag.substr(dash + 1);
    if (AllDigits(pid) && pid.size() <= 18) {
      out.pid = std::atoll(pid.c_str());
      out.process = out.tag.substr(0, dash);
    }
  }
  *parsed = std::move(out);
  return true;
}

std::string DefaultLogBase() { return zel::logformat::DefaultBase(std::getenv("USER")); }

std::string DayText(int64_t day_number) {
  int year = 0, month = 0, day = 0;
  CivilFromDays(day_number, &year, &month, &day);
  char text[32];
  std::snprintf(text, sizeof(text), "%04d%02d%02d", year, month, day);
  return text;
}

std::string DayDirectory(const std::string& base, int64_t day_number) {
  return base + DayText(day_number) + "/";
}

int64_t LocalToday() {
  const time_t now = std::time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);
  return DaysFromCivil(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

bool ParseDayText(const std::string& text, int64_t* day_number) {
  if (text.size() != 8 || !AllDigits(text)) return false;
  const int year = std::atoi(text.substr(0, 4).c_str());
  const int month = std::atoi(text.substr(4, 2).c_str());
  const int day = std::atoi(text.substr(6, 2).c_str());
  if (!IsValidDate(year, month, day)) return false;
  *day_number = DaysFromCivil(year, month, day);
  return true;
}

bool StreamOrderLess(const LogStreamFiles& a, const LogStreamFiles& b) {
  return std::tie(a.process, a.pid, a.time_tag, a.tag) <
         std::tie(b.process, b.pid, b.time_tag, b.tag);
}

std::vector<unsigned> RotationsOldestFirst(std::vector<unsigned> numbers) {
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  if (numbers.size() < 2) return numbers;
  // The gap after element i (circularly); the oldest follows the widest.
  size_t oldest = 0;
  unsigned widest = 0;
  for (size_t i = 0; i < numbers.size(); ++i) {
    const unsigned next = i + 1 < numbers.size() ? numbers[i + 1] : numbers[0] + 256;
    const unsigned gap = next - numbers[i];
    if (gap > widest) {
      widest = gap;
      oldest = (i + 1) % numbers.size();
    }
  }
  std::rotate(numbers.begin(), numbers.begin() + static_cast<std::ptrdiff_t>(oldest),
              numbers.end());
  return numbers;
}

int ListLogStreams(const std::string& dir, std::vector<LogStreamFiles>* streams) {
  DIR* folder = opendir(dir.c_str());
  if (folder == nullptr) return errno;
  // (tag, time tag) -> files
  std::map<std::pair<std::string, std::string>, LogStreamFiles> by_stream;
  std::map<std::pair<std::string, std::string>, std::map<unsigned, std::string>> rotated;
  errno = 0;
  while (const dirent* entry = readdir(folder)) {
    LogFileName name;
    if (!ParseLogFileName(entry->d_name, &name)) continue;
    const auto id = std::make_pair(name.tag, name.time_tag);
    LogStreamFiles& stream = by_stream[id];
    stream.tag = name.tag;
    stream.process = name.process;
    stream.pid = name.pid;
    stream.time_tag = name.time_tag;
    if (name.current) {
      stream.current_path = dir + entry->d_name;
    } else {
      rotated[id][name.rotation] = dir + entry->d_name;
    }
  }
  const int read_error = errno;
  closedir(folder);
  if (read_error != 0) return read_error;

  streams->clear();
  for (auto& [id, stream] : by_stream) {
    const auto& numbered = rotated[id];
    std::vector<unsigned> numbers;
    for (const auto& [number, path] : numbered) numbers.push_back(number);
    for (unsigned number : RotationsOldestFirst(numbers)) {
      stream.rotations.push_back(number);
      stream.rotated_paths.push_back(numbered.at(number));
    }
    streams->push_back(std::move(stream));
  }
  std::sort(streams->begin(), streams->end(), StreamOrderLess);
  return 0;
}

}  // namespace zelctl
