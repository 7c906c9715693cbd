// The time stamp of a log line's prefix (log_prefix): what ParseLinePrefix
// reads and refuses, the calendar arithmetic, and DayClock's keys around the
// directory's day.
#include "log_prefix.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

namespace zelctl {
namespace {

constexpr int64_t kMsPerHour = 3600000;

int64_t MsOfDay(int hour, int minute, int second, int millis) {
  return ((hour * int64_t{60} + minute) * 60 + second) * 1000 + millis;
}

// Parses `text` from a heap copy of exactly its size, so that a read past the
// end is a read past the allocation (caught under AddressSanitizer).
class LinePrefixTest : public ::testing::Test {
 protected:
  bool Parse(const std::string& text) { return Parse(text, text.size()); }
  // Only the first `size` bytes of `text` are the line; the rest is there to
  // be ignored.
  bool Parse(const std::string& text, size_t size) {
    std::unique_ptr<char[]> copy(new char[text.size()]);
    std::memcpy(copy.get(), text.data(), text.size());
    time_ = PrefixTime();
    return ParseLinePrefix(copy.get(), size, &time_);
  }
  PrefixTime time_;
};

TEST_F(LinePrefixTest, ReadsMonthDayAndTheMillisecondOfTheDay) {
  ASSERT_TRUE(Parse("[11-15 10:42:01.120][tid:140245] usb attach"));
  EXPECT_EQ(11, time_.month);
  EXPECT_EQ(15, time_.day);
  EXPECT_EQ(MsOfDay(10, 42, 1, 120), time_.ms_of_day);
}

TEST_F(LinePrefixTest, MonthAndDayComeWithoutZeroPadding) {
  ASSERT_TRUE(Parse("[1-5 09:05:03.007][tid:1] x"));
  EXPECT_EQ(1, time_.month);
  EXPECT_EQ(5, time_.day);
  EXPECT_EQ(MsOfDay(9, 5, 3, 7), time_.ms_of_day);
}

TEST_F(LinePrefixTest, ZeroPaddedMonthAndDayAreReadToo) {
  ASSERT_TRUE(Parse("[01-05 09:05:03.007]"));
  EXPECT_EQ(1, time_.month);
  EXPECT_EQ(5, time_.day);
}

TEST_F(LinePrefixTest, TheShortestAndLongestStampsAreWholeLines) {
  // 18 and 20 characters: nothing needs to follow the closing bracket.
  ASSERT_TRUE(Parse("[1-1 00:00:00.000]"));
  EXPECT_EQ(1, time_.month);
  EXPECT_EQ(1, time_.day);
  EXPECT_EQ(0, time_.ms_of_day);
  ASSERT_TRUE(Parse("[12-31 23:59:59.999]"));
  EXPECT_EQ(12, time_.month);
  EXPECT_EQ(31, time_.day);
  EXPECT_EQ(MsOfDay(23, 59, 59, 999), time_.ms_of_day);
}

TEST_F(LinePrefixTest, MidnightAndTheLastMillisecondOfTheDay) {
  ASSERT_TRUE(Parse("[11-15 00:00:00.000]"));
  EXPECT_EQ(0, time_.ms_of_day);
  ASSERT_TRUE(Parse("[11-15 00:00:00.001]"));
  EXPECT_EQ(1, time_.ms_of_day);
  ASSERT_TRUE(Parse("[11-15 23:59:59.999]"));
  EXPECT_EQ(24 * kMsPerHour - 1, time_.ms_of_day);
}

TEST_F(LinePrefixTest, ALeapSecondIsLetThroughPastTheEndOfTheDay) {
  ASSERT_TRUE(Parse("[12-31 23:59:60.500]"));
  EXPECT_EQ(24 * kMsPerHour + 500, time_.ms_of_day);
  EXPECT_FALSE(Parse("[12-31 23:59:61.000]"));
}

TEST_F(LinePrefixTest, TheDayIsNotCheckedAgainstItsMonth) {
  ASSERT_TRUE(Parse("[2-31 10:00:00.000]"));
  EXPECT_EQ(2, time_.month);
  EXPECT_EQ(31, time_.day);
}

TEST_F(LinePrefixTest, FieldsOutOfRangeAreNotAStamp) {
  for (const char* text : {"[0-15 10:00:00.000]", "[13-15 10:00:00.000]", "[11-0 10:00:00.000]",
                           "[11-32 10:00:00.000]", "[11-15 24:00:00.000]", "[11-15 10:60:00.000]",
                           "[11-15 10:00:61.000]", "[00-00 00:00:00.000]"}) {
    EXPECT_FALSE(Parse(text)) << text;
  }
}

TEST_F(LinePrefixTest, MalformedPrefixesAreNotAStamp) {
  for (const char* text : {
           " [11-15 10:00:00.000]",   // not at the start
           "(11-15 10:00:00.000)",    // other brackets
           "[011-15 10:00:00.000]",   // three-digit month
           "[11-015 10:00:00.000]",   // three-digit day
           "[11/15 10:00:00.000]",    // other date separator
           "[11-15T10:00:00.000]",    // no blank
           "[11-15  10:00:00.000]",   // two blanks
           "[11-15 9:00:00.000]",     // one-digit hour
           "[11-15 10:0:00.000]",     // one-digit minute
           "[11-15 10:00:00,000]",    // comma before the milliseconds
           "[11-15 10:00:00.00]",     // two-digit milliseconds
           "[11-15 10:00:00.0000]",   // four-digit milliseconds
           "[11-15 10:00:00.000)",    // not closed
           "[11-15 10:00:00]",        // no milliseconds
           "[+1-15 10:00:00.000]",    // a sign
           "[1a-15 10:00:00.000]",    // a letter
           "[11-15 1a:00:00.000]",    // a letter in the time
           "[11-15 10:00:00.1a0]",    // a letter in the milliseconds
           "[-15 10:00:00.000]",      // no month
           "[11- 10:00:00.000] tail"  // no day
       }) {
    EXPECT_FALSE(Parse(text)) << text;
  }
  EXPECT_FALSE(Parse(""));
  EXPECT_FALSE(Parse(std::string("[11-15 10:00:00") + '\0' + "000]"));  // NUL for the dot
}

TEST_F(LinePrefixTest, WhatFollowsTheStampIsNotLookedAt) {
  EXPECT_TRUE(Parse("[11-15 10:00:00.000]"));
  EXPECT_TRUE(Parse("[11-15 10:00:00.000]no tid"));
  EXPECT_TRUE(Parse(std::string("[11-15 10:00:00.000]\0\xff\n", 23)));
}

TEST_F(LinePrefixTest, AStampCutShortAtAnyLengthIsNotAStamp) {
  const std::string full = "[11-15 10:42:01.120]";
  for (size_t size = 0; size < full.size(); ++size) {
    EXPECT_FALSE(Parse(full.substr(0, size))) << size;
  }
}

TEST_F(LinePrefixTest, OnlyTheGivenSizeIsReadEvenWhenMoreFollowsInMemory) {
  const std::string full = "[11-15 10:42:01.120][tid:1]";
  EXPECT_TRUE(Parse(full, 20));
  EXPECT_FALSE(Parse(full, 19));  // the closing bracket is past the size
  const std::string short_form = "[1-1 00:00:00.000]";
  EXPECT_FALSE(Parse(short_form, 17));
}

TEST_F(LinePrefixTest, ARefusedLineLeavesTheResultAlone) {
  PrefixTime time;
  time.month = 7;
  time.day = 8;
  time.ms_of_day = 9;
  const std::string text = "[11-15 24:00:00.000]";
  EXPECT_FALSE(ParseLinePrefix(text.data(), text.size(), &time));
  EXPECT_EQ(7, time.month);
  EXPECT_EQ(8, time.day);
  EXPECT_EQ(9, time.ms_of_day);
}

TEST(CivilDays, KnownDayNumbers) {
  EXPECT_EQ(0, DaysFromCivil(1970, 1, 1));
  EXPECT_EQ(-1, DaysFromCivil(1969, 12, 31));
  EXPECT_EQ(11017, DaysFromCivil(2000, 3, 1));
  EXPECT_EQ(19782, DaysFromCivil(2024, 2, 29));
  EXPECT_EQ(20772, DaysFromCivil(2026, 11, 15));
  EXPECT_EQ(-719162, DaysFromCivil(1, 1, 1));
  EXPECT_EQ(2932896, DaysFromCivil(9999, 12, 31));
}

TEST(CivilDays, AgreeWithTheCLibraryFrom1970To2200) {
  const int64_t last = DaysFromCivil(2200, 12, 31);
  for (int64_t days = 0; days <= last; ++days) {
    const time_t seconds = static_cast<time_t>(days * 86400);
    struct tm utc = {};
    gmtime_r(&seconds, &utc);
    int year = 0, month = 0, day = 0;
    CivilFromDays(days, &year, &month, &day);
    ASSERT_EQ(utc.tm_year + 1900, year) << days;
    ASSERT_EQ(utc.tm_mon + 1, month) << days;
    ASSERT_EQ(utc.tm_mday, day) << days;
    ASSERT_EQ(days, DaysFromCivil(year, month, day));
  }
}

TEST(CivilDays, RoundTripFromYearOneToYear9999) {
  int year = 0, month = 0, day = 0;
  for (int64_t days = DaysFromCivil(1, 1, 1); days <= DaysFromCivil(9999, 12, 31); days += 7) {
    CivilFromDays(days, &year, &month, &day);
    ASSERT_EQ(days, DaysFromCivil(year, month, day)) << year << "-" << month << "-" << day;
  }
}

TEST(CivilDays, ValidDatesFollowTheGregorianLeapYears) {
  EXPECT_TRUE(IsValidDate(2024, 2, 29));
  EXPECT_FALSE(IsValidDate(2026, 2, 29));
  EXPECT_FALSE(IsValidDate(1900, 2, 29));
  EXPECT_TRUE(IsValidDate(2000, 2, 29));
  EXPECT_TRUE(IsValidDate(2026, 1, 31));
  EXPECT_FALSE(IsValidDate(2026, 4, 31));
  EXPECT_TRUE(IsValidDate(1, 1, 1));
  EXPECT_FALSE(IsValidDate(0, 1, 1));
  EXPECT_FALSE(IsValidDate(2026, 0, 1));
  EXPECT_FALSE(IsValidDate(2026, 13, 1));
  EXPECT_FALSE(IsValidDate(2026, 1, 0));
  EXPECT_FALSE(IsValidDate(2026, 1, 32));
}

// Keys of stamps read in the directory of `year`-`month`-`day`.
class DayClockTest : public ::testing::Test {
 protected:
  void InDirectoryOf(int year, int month, int day) {
    directory_day_ = DaysFromCivil(year, month, day);
    clock_ = DayClock(directory_day_);
  }
  int64_t KeyOf(int month, int day, int64_t ms_of_day) const {
    PrefixTime time;
    time.month = month;
    time.day = day;
    time.ms_of_day = ms_of_day;
    return clock_.KeyOf(time);
  }
  int64_t KeyIn(int64_t day_number, int64_t ms_of_day) const {
    return day_number * kMsPerDay + ms_of_day;
  }
  int64_t directory_day_ = 0;
  DayClock clock_;
};

TEST_F(DayClockTest, TheDirectorysDayGivesMillisecondsSince1970) {
  InDirectoryOf(2026, 11, 15);
  EXPECT_EQ(20772, clock_.day_number());
  EXPECT_EQ(KeyIn(20772, MsOfDay(10, 42, 1, 120)), KeyOf(11, 15, MsOfDay(10, 42, 1, 120)));
}

TEST_F(DayClockTest, TheDayBeforeAndTheDayAfterLandOnTheirOwnDays) {
  InDirectoryOf(2026, 11, 15);
  EXPECT_EQ(KeyIn(directory_day_ - 1, MsOfDay(23, 59, 59, 990)),
            KeyOf(11, 14, MsOfDay(23, 59, 59, 990)));
  EXPECT_EQ(KeyIn(directory_day_ + 1, 10), KeyOf(11, 16, 10));
  EXPECT_LT(KeyOf(11, 14, MsOfDay(23, 59, 59, 999)), KeyOf(11, 15, 0));
  EXPECT_GT(KeyOf(11, 16, 0), KeyOf(11, 15, MsOfDay(23, 59, 59, 999)));
}

TEST_F(DayClockTest, AnyOtherDateCountsAsTheDirectorysDay) {
  InDirectoryOf(2026, 11, 15);
  const std::pair<int, int> others[] = {{11, 13}, {11, 17}, {12, 15}, {10, 15}, {2, 31}};
  for (const auto& [month, day] : others) {
    EXPECT_EQ(KeyIn(directory_day_, 1000), KeyOf(month, day, 1000)) << month << "-" << day;
  }
}

TEST_F(DayClockTest, NeighbourDaysAcrossTheTurnOfTheYear) {
  InDirectoryOf(2027, 1, 1);
  EXPECT_EQ(KeyIn(directory_day_ - 1, 5), KeyOf(12, 31, 5));
  InDirectoryOf(2026, 12, 31);
  EXPECT_EQ(KeyIn(directory_day_ + 1, 5), KeyOf(1, 1, 5));
}

TEST_F(DayClockTest, NeighbourDaysAcrossTheEndOfFebruary) {
  InDirectoryOf(2024, 3, 1);
  EXPECT_EQ(KeyIn(directory_day_ - 1, 5), KeyOf(2, 29, 5));
  EXPECT_EQ(KeyIn(directory_day_, 5), KeyOf(2, 28, 5));
  InDirectoryOf(2026, 3, 1);
  EXPECT_EQ(KeyIn(directory_day_ - 1, 5), KeyOf(2, 28, 5));
  EXPECT_EQ(KeyIn(directory_day_, 5), KeyOf(2, 29, 5));  // no such day this year
  InDirectoryOf(2024, 2, 28);
  EXPECT_EQ(KeyIn(directory_day_ + 1, 5), KeyOf(2, 29, 5));
}

TEST_F(DayClockTest, ALeapSecondKeyRunsIntoTheNextDay) {
  // 23:59:60.500 is taken as 86,400,500 ms into its day: after the next
  // day's 00:00:00.200, equal to its 00:00:00.500.
  InDirectoryOf(2026, 12, 31);
  const int64_t leap = KeyOf(12, 31, MsOfDay(23, 59, 60, 500));
  EXPECT_EQ(KeyOf(1, 1, 500), leap);
  EXPECT_GT(leap, KeyOf(1, 1, 200));
}

}  // namespace
}  // namespace zelctl
