// Every clock the library reads and the rules its due times follow: the wall
// clock, due tests and sums for the loops and the Timer, the monotonic clock
// since load, and the per-thread cache of local time.
#include "utils/clock.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "support/clock.h"

namespace {

namespace timing = zel::timing;
using Steady = std::chrono::steady_clock;

// ---- wall clock ----

TEST(WallClock, MillisecondsLieBetweenTwoReadingsOfTheSystemClock) {
  for (int i = 0; i < 100; ++i) {
    const long long before = zeltest::WallMs();
    const long long ms = timing::WallClockMs();
    const long long after = zeltest::WallMs();
    ASSERT_LE(before, ms);
    ASSERT_LE(ms, after);
  }
}

TEST(WallClock, MicrosecondsLieBetweenTwoReadingsOfTheSystemClock) {
  for (int i = 0; i < 100; ++i) {
    const long long before = zeltest::WallMs();
    const long long us = timing::WallClockMicros();
    const long long after = zeltest::WallMs();
    ASSERT_LE(before * 1000, us);
    ASSERT_LT(us, (after + 1) * 1000);
  }
}

TEST(WallClock, MillisecondsAreTheMicrosecondsTruncated) {
  for (int i = 0; i < 100; ++i) {
    const long long before = timing::WallClockMicros() / 1000;
    const long long ms = timing::WallClockMs();
    const long long after = timing::WallClockMicros() / 1000;
    ASSERT_LE(before, ms);
    ASSERT_LE(ms, after);
  }
}

// ---- due times of the loops and the bus ----

TEST(IsDue, ATimeAtNowIsDue) { EXPECT_TRUE(timing::IsDue(5000, 5000)); }

TEST(IsDue, ATimeBeforeNowIsDue) {
  EXPECT_TRUE(timing::IsDue(4999, 5000));
  EXPECT_TRUE(timing::IsDue(0, 5000));
}

TEST(IsDue, ATimeAfterNowIsNotDue) {
  EXPECT_FALSE(timing::IsDue(5001, 5000));
  EXPECT_FALSE(timing::IsDue(LLONG_MAX, 5000));
}

TEST(IsDue, ANegativeTimeIsDueAtOnceWhateverNowIs) {
  EXPECT_TRUE(timing::IsDue(-1, 0));
  EXPECT_TRUE(timing::IsDue(-1, -100));  // even where `when <= now` alone would say no
  EXPECT_TRUE(timing::IsDue(LLONG_MIN, LLONG_MIN + 1));
  EXPECT_TRUE(timing::IsDue(-5000, -6000));
}

TEST(DueAfterWrapping, AddsTheDelayToNow) {
  EXPECT_EQ(1500, timing::DueAfterWrapping(1000, 500));
  EXPECT_EQ(1000, timing::DueAfterWrapping(1000, 0));
  EXPECT_EQ(-1000, timing::DueAfterWrapping(1000, -2000));
}

TEST(DueAfterWrapping, ASumPastLlongMaxWrapsToANegativeTimeThatIsDueAtOnce) {
  EXPECT_EQ(LLONG_MIN + 9, timing::DueAfterWrapping(LLONG_MAX - 10, 20));
  const long long now = timing::WallClockMs();
  const long long due = timing::DueAfterWrapping(now, LLONG_MAX);
  EXPECT_LT(due, 0);
  EXPECT_TRUE(timing::IsDue(due, now));
}

// ---- due times of the Timer ----

TEST(DueAfterSaturating, AddsTheIntervalToNow) {
  EXPECT_EQ(1500, timing::DueAfterSaturating(1000, 500));
  EXPECT_EQ(1000, timing::DueAfterSaturating(1000, 0));
  EXPECT_EQ(700, timing::DueAfterSaturating(1000, -300));
}

TEST(DueAfterSaturating, ASumPastLlongMaxIsHeldAtLlongMax) {
  EXPECT_EQ(LLONG_MAX, timing::DueAfterSaturating(LLONG_MAX - 10, 20));
  EXPECT_EQ(LLONG_MAX, timing::DueAfterSaturating(5, LLONG_MAX));
  EXPECT_EQ(LLONG_MAX, timing::DueAfterSaturating(LLONG_MAX, LLONG_MAX));
  EXPECT_EQ(LLONG_MAX, timing::DueAfterSaturating(LLONG_MAX - 10, 10));
}

TEST(DueAfterSaturating, LlongMaxIsNeverDue) {
  const long long now = timing::SteadyMsSinceLoad();
  EXPECT_FALSE(timing::IsDue(timing::DueAfterSaturating(now, LLONG_MAX), now));
}

// ---- monotonic milliseconds since the library was loaded ----

TEST(SteadyMsSinceLoad, NeverGoesBackAcrossManyReadings) {
  long long last = timing::SteadyMsSinceLoad();
  EXPECT_GE(last, 0);
  for (int i = 0; i < 100000; ++i) {
    const long long now = timing::SteadyMsSinceLoad();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(SteadyMsSinceLoad, AdvancesAsTheMonotonicClockDoesInWholeMilliseconds) {
  const auto outer = Steady::now();
  const long long first = timing::SteadyMsSinceLoad();
  const auto inner = Steady::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(120));
  const long long innerMs = zeltest::MsSince(inner);
  const long long second = timing::SteadyMsSinceLoad();
  const long long outerMs = zeltest::MsSince(outer);
  // Whole milliseconds of the span between the two readings: at least those
  // of a span inside it, at most one more than those of a span around it.
  EXPECT_GE(second - first, innerMs);
  EXPECT_LE(second - first, outerMs + 1);
}

// This process's age in milliseconds (on the boot clock, which never runs
// slower than the monotonic one).
long long ProcessAgeMs() {
  std::ifstream uptimeFile("/proc/uptime");
  double uptime = 0;
  uptimeFile >> uptime;
  std::ifstream statFile("/proc/self/stat");
  std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
  // Field 22, counted after the command name's closing parenthesis (field 2).
  size_t at = stat.rfind(')');
  for (int field = 2; field < 22 && at != std::string::npos; ++field) at = stat.find(' ', at + 1);
  const double startTicks = std::stod(stat.substr(at + 1));
  return static_cast<long long>(uptime * 1000 - startTicks * 1000 / sysconf(_SC_CLK_TCK));
}

TEST(SteadyMsSinceLoad, CountsFromTheLoadOfTheLibraryNotFromBoot) {
  const long long sinceLoad = timing::SteadyMsSinceLoad();
  const long long age = ProcessAgeMs();
  ASSERT_GT(age, -1000);
  // Clock ticks are 10 ms; a second is ample for the rounding of both files.
  EXPECT_LE(sinceLoad, age + 1000) << "process age " << age << " ms";
}

// ---- local time, converted at most once a second per thread ----

// localtime_r of `seconds`, for comparison.
struct tm Reference(time_t seconds) {
  struct tm local {};
  localtime_r(&seconds, &local);
  return local;
}

void ExpectSameLocalTime(const struct tm& expected, const struct tm& actual) {
  EXPECT_EQ(expected.tm_year, actual.tm_year);
  EXPECT_EQ(expected.tm_mon, actual.tm_mon);
  EXPECT_EQ(expected.tm_mday, actual.tm_mday);
  EXPECT_EQ(expected.tm_hour, actual.tm_hour);
  EXPECT_EQ(expected.tm_min, actual.tm_min);
  EXPECT_EQ(expected.tm_sec, actual.tm_sec);
  EXPECT_EQ(expected.tm_isdst, actual.tm_isdst);
  EXPECT_EQ(expected.tm_gmtoff, actual.tm_gmtoff);
}

// Each case sets its own time zone and puts back what the process had.
class LocalTime : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* zone = getenv("TZ");
    hadZone_ = zone != nullptr;
    if (hadZone_) savedZone_ = zone;
    SetZone("UTC0");
  }
  void TearDown() override {
    if (hadZone_) {
      setenv("TZ", savedZone_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  static void SetZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  // 2030-03-14 10:00:00 UTC.
  static constexpr time_t kSecond = 1899712800;

 private:
  bool hadZone_ = false;
  std::string savedZone_;
};

TEST_F(LocalTime, ConversionMatchesLocaltimeR) {
  for (const time_t seconds : {time_t{0}, kSecond, kSecond + 86399, time(nullptr)}) {
    SCOPED_TRACE(seconds);
    ExpectSameLocalTime(Reference(seconds), timing::LocalTimeAt(seconds).local);
  }
}

TEST_F(LocalTime, TheSameSecondTwiceIsOneConversion) {
  const uint64_t first = timing::LocalTimeAt(kSecond).conversion;
  const timing::LocalSecond& again = timing::LocalTimeAt(kSecond);
  EXPECT_EQ(first, again.conversion);
  ExpectSameLocalTime(Reference(kSecond), again.local);
}

TEST_F(LocalTime, ANewSecondIsANewConversion) {
  const uint64_t first = timing::LocalTimeAt(kSecond).conversion;
  const timing::LocalSecond& next = timing::LocalTimeAt(kSecond + 1);
  EXPECT_NE(first, next.conversion);
  EXPECT_EQ(1, next.local.tm_sec);
  // One second is kept: going back converts again.
  const uint64_t second = next.conversion;
  const uint64_t back = timing::LocalTimeAt(kSecond).conversion;
  EXPECT_NE(first, back);
  EXPECT_NE(second, back);
}

TEST_F(LocalTime, AMovedTimeZoneIsANewConversionAtOnceWithinTheSameSecond) {
  const timing::LocalSecond& utc = timing::LocalTimeAt(kSecond);
  EXPECT_EQ(10, utc.local.tm_hour);
  const uint64_t before = utc.conversion;
  SetZone("AAA12");  // UTC-12
  const timing::LocalSecond& west = timing::LocalTimeAt(kSecond);
  EXPECT_NE(before, west.conversion);
  EXPECT_EQ(22, west.local.tm_hour);
  EXPECT_EQ(13, west.local.tm_mday);
  ExpectSameLocalTime(Reference(kSecond), west.local);
  SetZone("BBB-14");  // UTC+14
  const timing::LocalSecond& east = timing::LocalTimeAt(kSecond);
  EXPECT_EQ(0, east.local.tm_hour);
  EXPECT_EQ(15, east.local.tm_mday);
  // And it stays cached in the new zone.
  const uint64_t moved = east.conversion;
  EXPECT_EQ(moved, timing::LocalTimeAt(kSecond).conversion);
}

TEST_F(LocalTime, EachThreadConvertsForItselfAndConversionsAreUniqueAcrossThreads) {
  const uint64_t here = timing::LocalTimeAt(kSecond).conversion;
  uint64_t there = 0;
  struct tm thereLocal {};
  std::thread other([&] {
    const timing::LocalSecond& value = timing::LocalTimeAt(kSecond);
    there = value.conversion;
    thereLocal = value.local;
  });
  other.join();
  EXPECT_NE(here, there);
  ExpectSameLocalTime(Reference(kSecond), thereLocal);
  EXPECT_EQ(here, timing::LocalTimeAt(kSecond).conversion);  // this thread's cache is untouched
}

TEST_F(LocalTime, LocalNowIsTheLocalTimeOfThisSecond) {
  SetZone("CCC-5");
  // Retried until no second boundary falls between the two readings.
  for (int attempt = 0; attempt < 100; ++attempt) {
    const time_t before = time(nullptr);
    const struct tm now = timing::LocalNow();
    if (time(nullptr) != before) continue;
    ExpectSameLocalTime(Reference(before), now);
    EXPECT_EQ(5 * 3600, now.tm_gmtoff);
    return;
  }
  FAIL() << "every attempt straddled a second";
}

}  // namespace
