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
#include <utility>
#include <vector>

#include "log_prefix.h"
#include "log_stream.h"
#include "temp_files.h"

namespace zelctl {
namespace {

using zelctltest::AppendFile;
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

// A file's content: every line followed by its newline.
std::string File(const std::vector<std::string>& lines) {
  std::string content;
  for (const std::string& line : lines) content += line + "\n";
  return content;
}

// A line of the merged output.
std::string Out(const std::string& tag, const std::string& line) { return tag + " " + line + "\n"; }

int64_t MsOfDay(int hour, int minute, int second, int millis) {
  return ((hour * int64_t{60} + minute) * 60 + second) * 1000 + millis;
}

// The key of a time on the directory's day.
int64_t KeyAt(int hour, int minute, int second, int millis) {
  return kDayNumber * kMsPerDay + MsOfDay(hour, minute, second, millis);
}

class MergeTest : public ::testing::Test {
 protected:
  // Adds a stream of one process whose files (read in the order given) hold
  // `contents`. `order` is its tie-break rank, as the tool derives it from
  // process name, pid and time tag.
  MergeSource* AddStream(const std::string& tag, const std::vector<std::string>& contents,
                         size_t order, size_t buffer_size = 4096) {
    Stream& stream = NewStream(tag, order, buffer_size);
    for (const std::string& content : contents) stream.lines->AddFinalFile(NewFile(tag, content));
    return &stream.source;
  }

  // Adds a stream whose one file is live, as in follow mode; returns its path.
  std::string AddLiveStream(const std::string& tag, const std::string& content, size_t order) {
    std::string path = NewFile(tag, content);
    EXPECT_TRUE(NewStream(tag, order, 4096).lines->AddLiveFile(path)) << path;
    return path;
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

  Stream& NewStream(const std::string& tag, size_t order, size_t buffer_size) {
    auto stream = std::make_unique<Stream>();
    stream->lines = std::make_unique<LineStream>(
        buffer_size, [this](const std::string& path, const std::string& reason) {
          errors_.push_back(path + ": " + reason);
        });
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
    return *streams_.back();
  }

  std::string NewFile(const std::string& tag, const std::string& content) {
    std::string path = temp_.base() + tag + "." + std::to_string(files_++);
    WriteFile(path, content);
    return path;
  }

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

TEST_F(MergeTest, DirectoriesDaysFarApartStillMergeByTimeThenRank) {
  // Two streams of 1 January 1970 and one whose line is about 2^62 ms later:
  // its key and three ranks no longer fit 64 bits together (cut to 64 bits,
  // it would come first). Once on the far directory's own day, once on the
  // day after it, the latest a directory's line can be.
  const std::pair<int64_t, std::string> far_lines[] = {
      {53375995583, "[1-1 15:36:27.904][tid:7] far"},   // 2^62 ms exactly
      {53375995581, "[4-23 23:59:59.999][tid:7] far"},  // the day after: 4-23
  };
  for (const auto& [far_day, far_line] : far_lines) {
    streams_.clear();
    MergeSource* far = AddStream("far-3", {File({far_line})}, 2);
    MergeSource* a = AddStream("a-1", {File({"banner", "[1-1 00:00:01.000][tid:7] a"})}, 0);
    MergeSource* b = AddStream(
        "b-2", {File({"[1-1 00:00:01.000][tid:7] b", "[1-1 00:00:02.000][tid:7] b2"})}, 1);
    far->clock = DayClock(far_day);
    a->clock = b->clock = DayClock(0);
    EXPECT_EQ(Out("a-1", "banner") + Out("a-1", "[1-1 00:00:01.000][tid:7] a") +
                  Out("b-2", "[1-1 00:00:01.000][tid:7] b") +
                  Out("b-2", "[1-1 00:00:02.000][tid:7] b2") + Out("far-3", far_line),
              Merge())
        << far_day;
  }
}

TEST_F(MergeTest, TheEarliestStampGoesFirstAcrossStreams) {
  AddStream("agent-10", {File({Stamped("10:00:00.000", "a0"), Stamped("10:00:03.000", "a3")})}, 0);
  AddStream("bus-22", {File({Stamped("10:00:01.000", "b1"), Stamped("10:00:02.000", "b2")})}, 1);
  EXPECT_EQ(Out("agent-10", Stamped("10:00:00.000", "a0")) +
                Out("bus-22", Stamped("10:00:01.000", "b1")) +
                Out("bus-22", Stamped("10:00:02.000", "b2")) +
                Out("agent-10", Stamped("10:00:03.000", "a3")),
            Merge());
  EXPECT_EQ(4u, lines_written_);
}

TEST_F(MergeTest, AMillisecondEarlierBeatsALowerRank) {
  AddStream("a-1", {File({Stamped("10:00:00.001", "a")})}, 0);
  AddStream("b-2", {File({Stamped("10:00:00.000", "b")})}, 1);
  EXPECT_EQ(Out("b-2", Stamped("10:00:00.000", "b")) + Out("a-1", Stamped("10:00:00.001", "a")),
            Merge());
}

TEST_F(MergeTest, EqualStampsGoByRankWhateverOrderTheSourcesComeIn) {
  const std::string same = "10:42:00.123";
  const std::string expected = Out("a-1", Stamped(same, "a")) + Out("b-2", Stamped(same, "b")) +
                               Out("c-3", Stamped(same, "c"));
  std::vector<size_t> orders = {0, 1, 2};
  do {
    std::vector<MergeSource*> sources;
    for (size_t order : orders) {
      const std::string name(1, static_cast<char>('a' + order));
      sources.push_back(
          AddStream(name + "-" + std::to_string(order + 1), {File({Stamped(same, name)})}, order));
    }
    EXPECT_EQ(expected, Merge(LineFilter(), false, nullptr, sources))
        << orders[0] << orders[1] << orders[2];
  } while (std::next_permutation(orders.begin(), orders.end()));
}

TEST_F(MergeTest, LinesOfOneStreamKeepTheirOrderWhenItsStampsGoBack) {
  AddStream("a-1",
            {File({Stamped("10:00:01.000", "a1"), Stamped("10:00:05.000", "a5"),
                   Stamped("10:00:02.000", "a2")})},
            0);
  AddStream("b-2", {File({Stamped("10:00:03.000", "b3")})}, 1);
  EXPECT_EQ(Out("a-1", Stamped("10:00:01.000", "a1")) + Out("b-2", Stamped("10:00:03.000", "b3")) +
                Out("a-1", Stamped("10:00:05.000", "a5")) +
                Out("a-1", Stamped("10:00:02.000", "a2")),
            Merge());
}

TEST_F(MergeTest, StreamsOfSeveralFilesMergeAsOneSequenceEach) {
  AddStream(
      "a-1",
      {File({Stamped("10:00:00.000", "rotated 0")}), File({Stamped("10:00:02.000", "rotated 1")}),
       File({Stamped("10:00:04.000", "current")})},
      0);
  AddStream("b-2", {File({Stamped("10:00:01.000", "b1"), Stamped("10:00:03.000", "b3")})}, 1);
  EXPECT_EQ(Out("a-1", Stamped("10:00:00.000", "rotated 0")) +
                Out("b-2", Stamped("10:00:01.000", "b1")) +
                Out("a-1", Stamped("10:00:02.000", "rotated 1")) +
                Out("b-2", Stamped("10:00:03.000", "b3")) +
                Out("a-1", Stamped("10:00:04.000", "current")),
            Merge());
}

TEST_F(MergeTest, UnstampedLinesGoOutWithTheRecordBeforeThem) {
  AddStream("a-1",
            {File({Stamped("10:00:01.000", "head"), "  continued", "",
                   "[11-15 10:00:0x.000] not a stamp", Stamped("10:00:04.000", "a4")})},
            0);
  AddStream("b-2", {File({Stamped("10:00:02.000", "b2"), Stamped("10:00:03.000", "b3")})}, 1);
  EXPECT_EQ(Out("a-1", Stamped("10:00:01.000", "head")) + Out("a-1", "  continued") +
                Out("a-1", "") + Out("a-1", "[11-15 10:00:0x.000] not a stamp") +
                Out("b-2", Stamped("10:00:02.000", "b2")) +
                Out("b-2", Stamped("10:00:03.000", "b3")) +
                Out("a-1", Stamped("10:00:04.000", "a4")),
            Merge());
  EXPECT_EQ(7u, lines_written_);
}

TEST_F(MergeTest, UnstampedLinesAtTheStartOfAStreamGoBeforeEveryStamp) {
  AddStream("a-1", {File({"banner", "more banner", Stamped("10:00:01.000", "a1")})}, 1);
  // The earliest stamp a stream of this directory can have.
  AddStream("b-2", {File({"[11-14 00:00:00.000][tid:7] from the day before"})}, 0);
  AddStream("c-3", {File({"c banner"})}, 2);
  EXPECT_EQ(Out("a-1", "banner") + Out("a-1", "more banner") + Out("c-3", "c banner") +
                Out("b-2", "[11-14 00:00:00.000][tid:7] from the day before") +
                Out("a-1", Stamped("10:00:01.000", "a1")),
            Merge());
}

TEST_F(MergeTest, AnUnstampedLineOfALaterRunStillBelongsToItsRecord) {
  // Follow mode: a record's next line may come after the run that wrote its
  // stamped line. It keeps that line's time, for the order and the filter.
  const std::string a = AddLiveStream("a-1", File({Stamped("10:00:05.000", "a5")}), 0);
  const std::string b = AddLiveStream("b-2", "", 1);
  LineFilter filter;
  filter.has_since = true;
  filter.since_key = KeyAt(10, 0, 0, 0);
  EXPECT_EQ(Out("a-1", Stamped("10:00:05.000", "a5")), Merge(filter));
  AppendFile(a, "  continued\n");
  AppendFile(b, File({Stamped("10:00:03.000", "b3")}));
  EXPECT_EQ(Out("b-2", Stamped("10:00:03.000", "b3")) + Out("a-1", "  continued"), Merge(filter));
}

TEST_F(MergeTest, StampsOfTheDaysBeforeAndAfterSortAroundTheDirectorysDay) {
  AddStream("a-1", {File({"[11-15 00:00:00.010][tid:7] a", "[11-16 00:00:00.000][tid:7] next"})},
            0);
  AddStream("b-2", {File({"[11-14 23:59:59.990][tid:7] late", "[11-15 23:59:59.999][tid:7] end"})},
            1);
  EXPECT_EQ(Out("b-2", "[11-14 23:59:59.990][tid:7] late") +
                Out("a-1", "[11-15 00:00:00.010][tid:7] a") +
                Out("b-2", "[11-15 23:59:59.999][tid:7] end") +
                Out("a-1", "[11-16 00:00:00.000][tid:7] next"),
            Merge());
}

TEST_F(MergeTest, SinceAndUntilAreInclusiveAndLeaveOutRecordsOfUnknownTime) {
  AddStream("a-1",
            {File({"banner", Stamped("10:00:00.999", "before"), "  tail of before",
                   Stamped("10:00:01.000", "at since"), "  tail of at since",
                   Stamped("10:00:02.000", "at until"), Stamped("10:00:02.001", "after")})},
            0);
  LineFilter filter;
  filter.has_since = filter.has_until = true;
  filter.since_key = KeyAt(10, 0, 1, 0);
  filter.until_key = KeyAt(10, 0, 2, 0);
  EXPECT_EQ(Out("a-1", Stamped("10:00:01.000", "at since")) + Out("a-1", "  tail of at since") +
                Out("a-1", Stamped("10:00:02.000", "at until")),
            Merge(filter));
  EXPECT_EQ(3u, lines_written_);
}

TEST_F(MergeTest, OneOpenEndOfTheTimeFilterStillLeavesOutUnknownTime) {
  AddStream("a-1", {File({"banner", Stamped("10:00:00.000", "a")})}, 0);
  LineFilter filter;
  filter.has_until = true;
  filter.until_key = KeyAt(23, 59, 59, 999);
  EXPECT_EQ(Out("a-1", Stamped("10:00:00.000", "a")), Merge(filter));
}

TEST_F(MergeTest, GrepIsAPlainSubstringTestedLineByLine) {
  AddStream("a-1",
            {File({Stamped("10:00:00.000", "head"), "  usb [x] in a continuation",
                   Stamped("10:00:01.000", "usb [x] head"), "  tail without"})},
            0);
  LineFilter filter;
  filter.grep = "usb [x]";
  EXPECT_EQ(Out("a-1", "  usb [x] in a continuation") +
                Out("a-1", Stamped("10:00:01.000", "usb [x] head")),
            Merge(filter));
  EXPECT_EQ(2u, lines_written_);
}

TEST_F(MergeTest, ALineLongerThanTheBufferIsWrittenWholeAfterOneTag) {
  // 32 bytes of buffer: the stamp fits in the first piece.
  const std::string long_line = Stamped("10:00:00.000", std::string(100, 'x') + "end");
  AddStream("a-1", {File({long_line, Stamped("10:00:02.000", "a2")})}, 0, 32);
  AddStream("b-2", {File({Stamped("10:00:01.000", "b1")})}, 1, 32);
  EXPECT_EQ(Out("a-1", long_line) + Out("b-2", Stamped("10:00:01.000", "b1")) +
                Out("a-1", Stamped("10:00:02.000", "a2")),
            Merge());
  EXPECT_EQ(3u, lines_written_);
}

TEST_F(MergeTest, GrepOnALongLineLooksAtItsFirstPieceOnly) {
  const std::string found = Stamped("10:00:00.000", "needle " + std::string(100, 'x'));
  const std::string missed = Stamped("10:00:01.000", std::string(100, 'x') + " needle");
  // 48 bytes of buffer: the first piece is the stamp and 20 characters.
  AddStream("a-1", {File({found, missed, Stamped("10:00:02.000", "needle short")})}, 0, 48);
  LineFilter filter;
  filter.grep = "needle";
  EXPECT_EQ(Out("a-1", found) + Out("a-1", Stamped("10:00:02.000", "needle short")), Merge(filter));
}

TEST_F(MergeTest, AStampBeyondTheFirstPieceIsNotRead) {
  // With 8 bytes of buffer the first piece is "[11-15 1": the line joins the
  // record before it.
  AddStream("a-1", {File({Stamped("10:00:05.000", "a")})}, 0, 8);
  AddStream("b-2", {File({Stamped("10:00:01.000", "b")})}, 1, 8);
  EXPECT_EQ(Out("a-1", Stamped("10:00:05.000", "a")) + Out("b-2", Stamped("10:00:01.000", "b")),
            Merge());
}

// Every output line parsed as JSON.
std::vector<Json::Value> ParseJsonLines(const std::string& text) {
  std::vector<Json::Value> values;
  Json::CharReaderBuilder builder;
  for (const std::string& line : Lines(text)) {
    Json::Value value;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(line.data(), line.data() + line.size(), &value, &errors)) << line;
    values.push_back(value);
  }
  return values;
}

TEST_F(MergeTest, JsonGivesTagProcessPidTimeAndLine) {
  AddStream("agent-10",
            {File({"banner", Stamped("10:42:01.123", "quote \" tab \t done"), "  continued"})}, 0);
  AddStream("solo", {File({Stamped("10:42:01.000", "s")})}, 1);
  const std::vector<Json::Value> values = ParseJsonLines(Merge(LineFilter(), true));
  ASSERT_EQ(4u, values.size());
  EXPECT_EQ("agent-10", values[0]["tag"].asString());
  EXPECT_EQ("agent", values[0]["process"].asString());
  EXPECT_EQ(10, values[0]["pid"].asInt64());
  EXPECT_TRUE(values[0]["time"].isNull());
  EXPECT_EQ("banner", values[0]["line"].asString());
  EXPECT_EQ("solo", values[1]["tag"].asString());
  EXPECT_EQ("solo", values[1]["process"].asString());
  EXPECT_TRUE(values[1]["pid"].isNull());
  EXPECT_EQ("10:42:01.000", values[1]["time"].asString());
  EXPECT_EQ(Stamped("10:42:01.123", "quote \" tab \t done"), values[2]["line"].asString());
  EXPECT_EQ("10:42:01.123", values[2]["time"].asString());
  EXPECT_EQ("  continued", values[3]["line"].asString());
  EXPECT_EQ("10:42:01.123", values[3]["time"].asString());
  EXPECT_EQ(5u, values[0].size());
  EXPECT_EQ(4u, lines_written_);
}

TEST_F(MergeTest, JsonJoinsALongLineAndKeepsItsFirstMebibyte) {
  const std::string huge = Stamped("10:00:00.000", std::string(size_t{1536} * 1024, 'x'));
  AddStream("a-1", {File({huge, Stamped("10:00:01.000", "after")})}, 0, 1 << 16);
  const std::vector<Json::Value> values = ParseJsonLines(Merge(LineFilter(), true));
  ASSERT_EQ(2u, values.size());
  EXPECT_EQ(huge.substr(0, 1 << 20), values[0]["line"].asString());
  EXPECT_EQ(Stamped("10:00:01.000", "after"), values[1]["line"].asString());
}

TEST_F(MergeTest, AStopFlagEndsARunBetweenRecordsAndTheNextRunGoesOn) {
  std::vector<std::string> lines;
  lines.reserve(5000);
  for (int i = 0; i < 5000; ++i) lines.push_back(Stamped("10:00:00.000", std::to_string(i)));
  AddStream("a-1", {File(lines)}, 0);
  volatile int stop = 1;
  const std::string first = Merge(LineFilter(), false, &stop);
  EXPECT_EQ(4095u, lines_written_);  // the flag is looked at every 4,096 records
  stop = 0;
  const std::string rest = Merge(LineFilter(), false, &stop);
  EXPECT_EQ(905u, lines_written_);
  std::string expected;
  for (const std::string& line : lines) expected += Out("a-1", line);
  EXPECT_EQ(expected, first + rest);
}

TEST_F(MergeTest, ARunStopsAfterTheRecordDuringWhichTheReaderWentAway) {
  for (int i = 0; i < 3; ++i) {
    AddStream("p-" + std::to_string(i), {File({Stamped("10:00:00.000", "x")})},
              static_cast<size_t>(i));
  }
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  close(fds[0]);
  void (*previous)(int) = signal(SIGPIPE, SIG_IGN);
  OutputBuffer out(fds[1], 16);  // too small for one line: every record is written at once
  LogMerger merger(LineFilter(), false, &out);
  std::vector<MergeSource*> sources;
  for (const auto& stream : streams_) sources.push_back(&stream->source);
  merger.Run(sources, nullptr);
  signal(SIGPIPE, previous);
  close(fds[1]);
  EXPECT_TRUE(out.reader_gone());
  EXPECT_EQ(0, out.write_error());
  EXPECT_EQ(1u, merger.lines_written());
}

// MergeSource::StampKey remembers the last "[M-D hh:mm:ss." it parsed and
// reads only the milliseconds of a line that starts the same way.
class StampKeyTest : public ::testing::Test {
 protected:
  StampKeyTest() { source_.clock = DayClock(kDayNumber); }
  bool KeyOf(const std::string& line, int64_t* key) {
    return source_.StampKey(LineView{line.data(), line.size(), false}, key);
  }
  MergeSource source_;
};

TEST_F(StampKeyTest, LinesOfOneSecondGetTheirOwnMilliseconds) {
  int64_t key = 0;
  ASSERT_TRUE(KeyOf(Stamped("10:00:00.000", "first"), &key));
  EXPECT_EQ(KeyAt(10, 0, 0, 0), key);
  ASSERT_TRUE(KeyOf(Stamped("10:00:00.999", "same second"), &key));
  EXPECT_EQ(KeyAt(10, 0, 0, 999), key);
  ASSERT_TRUE(KeyOf(Stamped("10:00:00.042", "back in the second"), &key));
  EXPECT_EQ(KeyAt(10, 0, 0, 42), key);
}

TEST_F(StampKeyTest, AnotherSecondOrDayIsParsedAgain) {
  int64_t key = 0;
  ASSERT_TRUE(KeyOf(Stamped("10:00:00.500", "x"), &key));
  ASSERT_TRUE(KeyOf(Stamped("10:00:01.500", "x"), &key));
  EXPECT_EQ(KeyAt(10, 0, 1, 500), key);
  ASSERT_TRUE(KeyOf("[11-14 10:00:01.500][tid:7] the day before", &key));
  EXPECT_EQ(KeyAt(10, 0, 1, 500) - kMsPerDay, key);
  ASSERT_TRUE(KeyOf("[1-1 00:00:00.001] unpadded", &key));  // another date: the directory's day
  EXPECT_EQ(KeyAt(0, 0, 0, 1), key);
  ASSERT_TRUE(KeyOf("[1-1 00:00:00.002]", &key));
  EXPECT_EQ(KeyAt(0, 0, 0, 2), key);
}

TEST_F(StampKeyTest, ALineStartingLikeTheLastStampButMalformedIsNotAStamp) {
  int64_t key = 0;
  ASSERT_TRUE(KeyOf(Stamped("10:00:00.000", "x"), &key));
  for (const char* line : {"[11-15 10:00:00.1x3][tid:7]", "[11-15 10:00:00.123)[tid:7]",
                           "[11-15 10:00:00.12", "[11-15 10:00:00.", "[11-15 10:00:00.12]"}) {
    key = 77;
    EXPECT_FALSE(KeyOf(line, &key)) << line;
    EXPECT_EQ(77, key) << line;
  }
  // The closing bracket just past the line's size does not count.
  const std::string cut = "[11-15 10:00:00.123]";
  EXPECT_FALSE(source_.StampKey(LineView{cut.data(), cut.size() - 1, false}, &key));
  ASSERT_TRUE(KeyOf(Stamped("10:00:00.123", "x"), &key));  // and the memory still serves
  EXPECT_EQ(KeyAt(10, 0, 0, 123), key);
}

TEST(TimeOfKey, IsTheClockTimeOfTheKeysDay) {
  EXPECT_EQ("10:42:01.120", TimeOfKey(KeyAt(10, 42, 1, 120)));
  EXPECT_EQ("00:00:00.000", TimeOfKey(KeyAt(0, 0, 0, 0)));
  EXPECT_EQ("23:59:59.999", TimeOfKey(KeyAt(23, 59, 59, 999)));
  EXPECT_EQ("23:59:59.999", TimeOfKey(-1));  // the last millisecond of 1969
}

TEST(TimeOfKey, UnknownTimeIsEmpty) { EXPECT_EQ("", TimeOfKey(kUnknownTime)); }

// An OutputBuffer on a file of a temporary folder.
class OutputBufferTest : public ::testing::Test {
 protected:
  OutputBufferTest() : path_(temp_.base() + "out") {
    fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  }
  ~OutputBufferTest() override { close(fd_); }
  std::string Written() const { return ReadFile(path_); }
  TempDir temp_;
  std::string path_;
  int fd_ = -1;
};

TEST_F(OutputBufferTest, AppendLineWritesTagBlankTextAndNewline) {
  OutputBuffer out(fd_);
  out.AppendLine("agent-10", "text", 4);
  out.AppendLine("agent-10", "", 0);
  out.Flush();
  EXPECT_EQ("agent-10 text\nagent-10 \n", Written());
}

TEST_F(OutputBufferTest, NothingIsWrittenUntilAFlushOrAFullBuffer) {
  OutputBuffer out(fd_, 16);
  out.Append("0123456789", 10);
  EXPECT_EQ("", Written());
  out.Append("abcdefghij", 10);  // does not fit: the first ten go out
  EXPECT_EQ("0123456789", Written());
  out.Flush();
  EXPECT_EQ("0123456789abcdefghij", Written());
}

TEST_F(OutputBufferTest, DataLargerThanTheBufferGoesStraightOutInOrder) {
  OutputBuffer out(fd_, 8);
  out.Append('<');
  out.Append("0123456789abcdefghij", 20);
  EXPECT_EQ("<0123456789abcdefghij", Written());
}

TEST_F(OutputBufferTest, ALineLargerThanTheRoomLeftStillComesWhole) {
  OutputBuffer out(fd_, 16);
  out.Append("12345678", 8);
  out.AppendLine("tag", "0123456789abcdefghij", 20);
  out.Flush();
  EXPECT_EQ("12345678tag 0123456789abcdefghij\n", Written());
}

TEST_F(OutputBufferTest, TheDestructorFlushes) {
  { OutputBuffer(fd_).Append("kept", 4); }
  EXPECT_EQ("kept", Written());
}

TEST_F(OutputBufferTest, AFullDeviceIsAWriteErrorAndLaterOutputIsDropped) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  if (full < 0) GTEST_SKIP() << "no /dev/full here";
  OutputBuffer out(full, 8);
  out.Append("0123456789", 10);
  EXPECT_EQ(ENOSPC, out.write_error());
  EXPECT_FALSE(out.reader_gone());
  out.Append("more", 4);
  out.Flush();
  EXPECT_EQ(ENOSPC, out.write_error());
  close(full);
}

}  // namespace
}  // namespace zelctl
