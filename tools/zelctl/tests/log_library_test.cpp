// What the library's process log writes, read back with zelctl's units: the
// file's name parses into this process's tag, every line's stamp parses to
// the local date and time it was logged at, and the rest of a message that
// went on after a newline is not taken for a stamp.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "log_files.h"
#include "log_prefix.h"
#include "log_stream.h"
#include "temp_files.h"
#include "utils/zel_log.h"

namespace zelctl {
namespace {

using zelctltest::ReadFile;
using zelctltest::TempDir;

// Milliseconds since the epoch on the local wall clock, as DayClock keys are.
int64_t LocalKeyNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const time_t seconds = static_cast<time_t>(ms / 1000);
  struct tm local = {};
  localtime_r(&seconds, &local);
  const int64_t day = DaysFromCivil(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
  const int64_t second_of_day = (local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec;
  return day * kMsPerDay + second_of_day * 1000 + ms % 1000;
}

// The lines of `stream`'s files, as zelctl reads them.
std::vector<std::string> ReadLines(const LogStreamFiles& stream, std::vector<std::string>* errors) {
  LineStream lines(1 << 16, [errors](const std::string& path, const std::string& reason) {
    errors->push_back(path + ": " + reason);
  });
  for (const std::string& path : stream.rotated_paths) lines.AddFinalFile(path);
  if (!stream.current_path.empty()) lines.AddFinalFile(stream.current_path);
  std::vector<std::string> out;
  LineView line;
  while (lines.NextLine(&line) == LineStream::Result::kLine) out.emplace_back(line.data, line.size);
  return out;
}

TEST(LibraryLog, NamesAndStampsTheLibraryWritesAreReadBack) {
  TempDir temp;
  zel_set_log_path(temp.base().c_str());
  const int64_t before = LocalKeyNow();
  log_print(0, 0, "first %d", 1);
  log_print(0, 0, "a message\n  that goes on");
  log_print(0, 0, "last");
  const int64_t after = LocalKeyNow();
  if (before / kMsPerDay != after / kMsPerDay) GTEST_SKIP() << "midnight passed meanwhile";

  // The Logger writes on its own thread.
  const std::string dir = DayDirectory(temp.base(), before / kMsPerDay);
  std::vector<LogStreamFiles> streams;
  for (int tries = 0; tries < 1000; ++tries) {
    if (ListLogStreams(dir, &streams) == 0 && streams.size() == 1 &&
        ReadFile(streams[0].current_path).find("last\n") != std::string::npos) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(1u, streams.size()) << dir;
  const LogStreamFiles& stream = streams[0];
  EXPECT_EQ("log_library_test", stream.process);
  EXPECT_EQ(getpid(), stream.pid);
  EXPECT_EQ("log_library_test-" + std::to_string(getpid()), stream.tag);
  EXPECT_EQ(6u, stream.time_tag.size());
  EXPECT_TRUE(stream.rotated_paths.empty());

  std::vector<std::string> errors;
  const std::vector<std::string> lines = ReadLines(stream, &errors);
  EXPECT_TRUE(errors.empty());
  ASSERT_EQ(4u, lines.size());
  const DayClock clock(before / kMsPerDay);
  for (size_t i : {0, 1, 3}) {
    PrefixTime time;
    ASSERT_TRUE(ParseLinePrefix(lines[i].data(), lines[i].size(), &time)) << lines[i];
    // The library takes the second and the milliseconds from two clock
    // readings: a stamp may be up to a second off either way.
    EXPECT_GE(clock.KeyOf(time), before - 1000) << lines[i];
    EXPECT_LE(clock.KeyOf(time), after + 1000) << lines[i];
  }
  PrefixTime time;
  EXPECT_EQ("  that goes on", lines[2]);
  EXPECT_FALSE(ParseLinePrefix(lines[2].data(), lines[2].size(), &time));
}

}  // namespace
}  // namespace zelctl
