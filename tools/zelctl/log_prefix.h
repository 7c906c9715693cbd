// The time stamp at the start of a process log line, "[M-D hh:mm:ss.mmm]"
// (month and day without padding, then "[tid:N] " and the text: the layout
// is the library's, utils/log_format.h), and the calendar arithmetic that
// turns it into a sortable key.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelctl {

constexpr int64_t kMsPerDay = 86400000;

struct PrefixTime {
  int month = 0;          // 1-12
  int day = 0;            // 1-31
  int64_t ms_of_day = 0;  // 0 .. 86400999 (a leap second is let through)
};

// True when `line` starts with a readable time stamp; fills `time`.
bool ParseLinePrefix(const char* line, size_t size, PrefixTime* time);

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t DaysFromCivil(int year, int month, int day);
// The inverse.
void CivilFromDays(int64_t days, int* year, int* month, int* day);
// True for an existing calendar date.
bool IsValidDate(int year, int month, int day);

// Turns the month-day stamps of one day directory's lines into absolute keys
// (milliseconds since the epoch, local wall clock). A stamp of the day before
// or after the directory's day (a line logged just before midnight but
// written after it, say) lands on that day; any other date counts as the
// directory's day.
class DayClock {
 public:
  DayClock() = default;
  explicit DayClock(int64_t day_number);
  int64_t KeyOf(const PrefixTime& time) const;
  int64_t day_number() const { return day_; }

 private:
  int64_t day_ = 0;
  int month_ = 0, mday_ = 0, prev_month_ = 0, prev_mday_ = 0, next_month_ = 0, next_mday_ = 0;
};

}  // namespace zelctl
