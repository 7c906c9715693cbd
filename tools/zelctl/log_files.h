// Where the process log puts its files and what their names say (the
// formats are the library's, utils/log_format.h):
//   <base>YYYYMMDD/zel.log.<process>-<pid>.<hhmmss>.txt   (current)
//   <base>YYYYMMDD/zel.log.<process>-<pid>.<hhmmss>.<n>   (rotated, n = 0..255)
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zelctl {

struct LogFileName {
  std::string tag;        // "<process>-<pid>", as written in the name
  std::string process;    // the tag before its last "-<digits>" (the whole tag without one)
  long long pid = -1;     // -1 when the tag carries none
  std::string time_tag;   // "hhmmss": when the process started writing this day
  bool current = false;   // ".txt"
  unsigned rotation = 0;  // the number of a rotated file
};

// False for a name that is not one of the process log's.
bool ParseLogFileName(const std::string& name, LogFileName* parsed);

// The base the process log uses without zel_set_log_path:
// "/Users/" + $USER + "/Library/zel/" ("/Users/" without USER).
std::string DefaultLogBase();

// base + "YYYYMMDD/". The base is used as zel_set_log_path takes it: nothing is
// inserted between it and the date, so a base should end in "/".
std::string DayDirectory(const std::string& base, int64_t day_number);
std::string DayText(int64_t day_number);  // "YYYYMMDD"
// Today's local date as a day number.
int64_t LocalToday();
// "YYYYMMDD" of a real date: its day number; false otherwise.
bool ParseDayText(const std::string& text, int64_t* day_number);

// One process's files of one day (same tag and time tag), in reading order:
// rotated files oldest first, then the current one.
struct LogStreamFiles {
  std::string tag;
  std::string process;
  long long pid = -1;
  std::string time_tag;
  std::vector<std::string> rotated_paths;  // oldest first
  std::vector<unsigned> rotations;         // their numbers, same order
  std::string current_path;                // empty when there is no .txt
};

// The order that breaks ties between equal time stamps, and the order of
// streams in general: process name, then pid, then time tag.
bool StreamOrderLess(const LogStreamFiles& a, const LogStreamFiles& b);

// Rotation numbers wrap from 255 to 0: the oldest is the one after the
// widest gap in the circle. Returns the numbers in age order.
std::vector<unsigned> RotationsOldestFirst(std::vector<unsigned> numbers);

// Reads the day directory `dir` (ending in "/"). Returns 0 or an errno value.
int ListLogStreams(const std::string& dir, std::vector<LogStreamFiles>* streams);

}  // namespace zelctl
