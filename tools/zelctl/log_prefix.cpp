#include "log_prefix.h"

#include "utils/log_format.h"

namespace zelctl {
namespace {

namespace format = zel::logformat;

inline bool IsDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }
inline int DigitAt(const char* p) { return *p - '0'; }

// Two digits at p, as a number, or -1.
inline int TwoDigits(const char* p) {
  return IsDigit(p[0]) && IsDigit(p[1]) ? DigitAt(p) * 10 + DigitAt(p + 1) : -1;
}

// One or two digits starting at line[*i] (bounded by size), as a number, or -1.
inline int OneOrTwoDigits(const char* line, size_t size, size_t* i) {
  if (*i >= size || !IsDigit(line[*i])) return -1;
  int value = DigitAt(line + *i);
  ++*i;
  if (*i < size && IsDigit(line[*i])) {
    value = value * 10 + DigitAt(line + *i);
    ++*i;
  }
  return value;
}

}  // namespace

bool ParseLinePrefix(const char* line, size_t size, PrefixTime* time) {
  // The shortest stamp: "[1-1 00:00:00.000]".
  if (size < 18 || line[0] != format::kStampOpen) return false;
  size_t i = 1;
  const int month = OneOrTwoDigits(line, size, &i);
  if (month < 1 || month > 12 || i >= size || line[i] != format::kMonthDaySeparator) return false;
  ++i;
  const int day = OneOrTwoDigits(line, size, &i);
  if (day < 1 || day > 31) return false;
  // " hh:mm:ss.mmm]" follows: 14 characters.
  if (size - i < 14) return false;
  const char* p = line + i;
  if (p[0] != format::kDateTimeSeparator || p[3] != format::kTimeSeparator ||
      p[6] != format::kTimeSeparator || p[9] != format::kMillisSeparator ||
      p[13] != format::kStampClose) {
    return false;
  }
  const int hour = TwoDigits(p + 1), minute = TwoDigits(p + 4), second = TwoDigits(p + 7);
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 60) {
    return false;
  }
  if (!IsDigit(p[10]) || !IsDigit(p[11]) || !IsDigit(p[12])) return false;
  const int millis = DigitAt(p + 10) * 100 + DigitAt(p + 11) * 10 + DigitAt(p + 12);
  time->month = month;
  time->day = day;
  time->ms_of_day = ((hour * 60 + minute) * 60 + second) * int64_t{1000} + millis;
  return true;
}

// The well-known era-based conversion between civil dates and day numbers.
int64_t DaysFromCivil(int year, int month, int day) {
  const int64_t y = year - (month <= 2 ? 1 : 0);
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t days, int* year, int* month, int* day) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t doe = days - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  *day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *year = static_cast<int>(yoe + era * 400 + (*month <= 2 ? 1 : 0));
}

bool IsValidDate(int year, int month, int day) {
  if (year < 1 || month < 1 || month > 12 || day < 1 || day > 31) return false;
  int y = 0, m = 0, d = 0;
  CivilFromDays(DaysFromCivil(year, month, day), &y, &m, &d);
  return y == year && m == month && d == day;
}

DayClock::DayClock(int64_t day_number) : day_(day_number) {
  int year = 0;
  CivilFromDays(day_number, &year, &month_, &mday_);
  CivilFromDays(day_number - 1, &year, &prev_month_, &prev_mday_);
  CivilFromDays(day_number + 1, &year, &next_month_, &next_mday_);
}

int64_t DayClock::KeyOf(const PrefixTime& time) const {
  int64_t day = day_;
  if (time.month != month_ || time.day != mday_) {
    if (time.month == prev_month_ && time.day == prev_mday_) {
      day = day_ - 1;
    } else if (time.month == next_month_ && time.day == next_mday_) {
      day = day_ + 1;
    }
  }
  return day * kMsPerDay + time.ms_of_day;
}

}  // namespace zelctl
