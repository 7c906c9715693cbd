// log-dir and logs: where today's process log is, and every process's lines
// of one day as one timeline (optionally followed as they are written).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelctl {

struct LogsOptions {
  std::string base;          // empty: the default base
  std::string day;           // "YYYYMMDD"; empty: today
  std::string since, until;  // "HH:MM[:SS]"; empty: open
  std::vector<std::string> processes;
  std::string grep;
  bool follow = false;
  bool json = false;
};

// "HH:MM" or "HH:MM:SS" as milliseconds of the day: the first millisecond it
// names, or with `end_of_span` the last (HH:MM covers its whole minute,
// HH:MM:SS its whole second). False for anything else.
bool ParseClockTime(const std::string& text, bool end_of_span, int64_t* ms_of_day);

int RunLogDir(const std::string& base, bool json);
int RunLogs(const LogsOptions& options);

}  // namespace zelctl
