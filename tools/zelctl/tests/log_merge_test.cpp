// The merge of line streams (log_merge): order and tie-breaking, records of
// unstamped lines, filters, long lines in pieces, JSON, stopping early, and
// the output buffer. Streams read small files in a temporary folder; the
// merge writes into a file that the test reads back.
#include "log_merge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "log_prefix.h"
#include "log_stream.h"
#include "temp_files.h"

namespace zelctl {
namespace {

using zelctltest::Lines;
using zelctltest::ReadFile;
using zelctltest::TempDir;
using zelctltest::WriteFile;

// The directory's day of every stream here: 15 November 2026.
const int64_t kDayNumber = DaysFromCivil(2026, 11, 15);

// One line as the process log writes it on 15 November, without its newline.
std::string Stamped(const std::string& clock, const std::string& text) {
  return "[11-15 " + clock + "][tid:7] " + text;
}

class MergeTest : public ::testing::Test {
 protected:
  // Adds a stream of one process whose files (read in the order given) hold
  // `contents`. `order` is its tie-break rank, as the tool derives it from
  // process name, pid and time tag.
  MergeSource* AddStream(const std::string& tag, const std::vector<std::string>& contents,
                         size_t order, size_t buffer_size = 4096) {
    auto stream = std::make_unique<Stream>();
    stream->lines = std::make_unique<LineStream>(
        buffer_size, [this](const std::string& path, const std::string& reason) {
          errors_.push_back(path + ": " + reason);
        });
    for (const std::string& content : contents) {
      const std::string path = temp_.base() + tag + "." + std::to_string(files_++);
      WriteFile(path, content);
      stream->lines->AddFinalFile(path);
    }
    MergeSource& source = stream->source;
    source.stream = stream->lines.get();
    source.tag = tag;
    const size_t dash = tag.rfind('-');
    const bool has_pid = dash != std::string::npos && dash + 1 < tag.size() &&
                         tag.find_first_not_of("0123456789", dash + 1) == std::string::npos;
    source.process = has_pid ? tag.substr(0, dash) : tag;
    source.pid = has_pid ? std::stoll(tag.substr(dash + 1)) : -1;
    source.clock = DayClock(kDayNumber);
    source.order = order;
    streams_.push_back(std::move(stream));
    return &source;
  }

  // Runs the merge over every stream added (in the order added, or `sources`
  // when given) and returns what it wrote.
  std::string Merge(const LineFilter& filter = LineFilter(), bool json = false,
                    const volatile int* stop = nullptr,
                    std::vector<MergeSource*> sources = std::vector<MergeSource*>()) {
    if (sources.empty()) {
      for (const auto& stream : streams_) sources.push_back(&stream->source);
    }
    const std::string path = temp_.base() + "merged." + std::to_string(files_++);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_GE(fd, 0) << path;
    {
      OutputBuffer out(fd);
      LogMerger merger(filter, json, &out);
      merger.Run(sources, stop);
      out.Flush();
      lines_written_ = merger.lines_written();
    }
    close(fd);
    return ReadFile(path);
  }

  struct Stream {
    std::unique_ptr<LineStream> lines;
    MergeSource source;
  };
  TempDir temp_;
  std::vector<std::unique_ptr<Stream>> streams_;
  std::vector<std::string> errors_;
  uint64_t lines_written_ = 0;
  size_t files_ = 0;
};

TEST_F(MergeTest, EqualStampsOfMoreThan4096StreamsGoByTieBreakRank) {
  // Past 4,096 streams the ranks must still decide every tie.
  constexpr size_t kStreams = 4200;
  std::vector<size_t> orders(kStreams);
  for (size_t i = 0; i < kStreams; ++i) orders[i] = i;
  std::shuffle(orders.begin(), orders.end(), std::mt19937(20261115));
  for (size_t order : orders) {
    // Without its newline the one line is read to the file's end, and the
    // file closed, before it is handed out: one descriptor at a time, however
    // many streams (soft limits of 1,024 are common).
    AddStream("p-" + std::to_string(order), {Stamped("10:42:00.123", std::to_string(order))},
              order);
  }
  const std::vector<std::string> lines = Lines(Merge());
  ASSERT_EQ(kStreams, lines.size());
  for (size_t i = 0; i < kStreams; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_EQ("p-" + text + " " + Stamped("10:42:00.123", text), lines[i]) << "line " << i;
  }
  EXPECT_EQ(kStreams, lines_written_);
  EXPECT_TRUE(errors_.empty());
}

}  // namespace
}  // namespace zelctl
