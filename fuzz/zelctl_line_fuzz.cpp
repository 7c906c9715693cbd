// Fuzz target for zelctl's readers of the process log: the line prefix
// (ParseLinePrefix and the merge's StampKey, which remembers the last
// second), the file name (ParseLogFileName), day texts, rotation order, and
// the line streams that cut files into lines through a fixed buffer.
//
// Input:
//   byte 0     read buffer of the line streams: 1-64 bytes, 64 KiB for 255
//   byte 1     the day directory's date: 2023-12-01 plus 2 days per step
//              (a leap day and a turn of the year in reach)
//   bytes 2-9  numbers for the values built below
//   rest       the text
// Inputs shorter than 10 bytes count as padded with zeros.
//
// Checked:
// - ParseLinePrefix on the text equals a regular expression of the format
//   with its ranges; a parsed stamp printed again as the library prints it
//   parses to the same time, and is the text's own start unless that was
//   zero-padded or a second 60; a refused line leaves the result alone;
// - the same for every line of the text; and StampKey, which remembers the
//   last second, on the lines in order: a key exactly for the stamps the
//   expression finds, the stamp's time on the directory's day, the day
//   before or the day after (their dates from the C library's calendar);
// - a prefix built as the library builds it, "[M-D hh:mm:ss.mmm][tid:T] ",
//   from the numbers (any date, second 0-60), always parses to its parts;
// - ParseLogFileName on the text equals a regular expression of the names;
//   a parsed name built again parses to the same parts, and is the text
//   when the rotation number had no leading zero; a name built as the
//   library builds it (process from the text, pid, time tag and rotation
//   from the numbers) always parses back to its parts;
// - ParseDayText on the text's first 8 bytes accepts exactly the real dates
//   and DayText gives the text back; DayText of any day from year 1 to 9999
//   parses back to the day;
// - RotationsOldestFirst of a window of up to 10 consecutive numbers, wrapped
//   at 256, shuffled, with repeats and holes, is the window in age order;
// - the text as a complete file, read through the chosen buffer, comes back
//   byte for byte (pieces of the buffer's size for long lines, the last line
//   without newline a line); as a live file, the same bytes up to what a
//   writer may still complete, and the rest once the file is marked final.
// Every parser reads a copy of exactly its input's size, so that a read past
// it is a read past the allocation (AddressSanitizer).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "log_files.h"
#include "log_merge.h"
#include "log_prefix.h"
#include "log_stream.h"
#include "support/mem_file.h"

namespace {

using zelctl::PrefixTime;

void Check(bool ok, const char* what, const std::string& about = std::string()) {
  if (!ok) {
    std::fprintf(stderr, "zelctl_line_fuzz: %s [%s]\n", what, about.c_str());
    std::abort();
  }
}

// The fixed part of the input.
struct Choices {
  size_t buffer_size = 1;
  int64_t day_number = 0;
  uint8_t numbers[8] = {};
  uint64_t Number(size_t first, size_t count) const {  // little-endian bytes
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) value |= uint64_t{numbers[first + i]} << (8 * i);
    return value;
  }
};

// An exact-size heap copy: a read past `size` is a read past the allocation.
class ExactCopy {
 public:
  explicit ExactCopy(const std::string& text) : bytes_(new char[text.size()]), size_(text.size()) {
    if (size_ != 0) std::memcpy(bytes_.get(), text.data(), size_);
  }
  const char* data() const { return bytes_.get(); }
  size_t size() const { return size_; }

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_;
};

bool ParsePrefix(const std::string& line, PrefixTime* time) {
  const ExactCopy copy(line);
  return zelctl::ParseLinePrefix(copy.data(), copy.size(), time);
}

bool SameTime(const PrefixTime& a, const PrefixTime& b) {
  return a.month == b.month && a.day == b.day && a.ms_of_day == b.ms_of_day;
}

// The stamp as the library prints it: "[%d-%d %02d:%02d:%02d.%03ld]".
std::string LibraryStamp(int month, int day, int hour, int minute, int second, int millis) {
  char text[64];
  std::snprintf(text, sizeof(text), "[%d-%d %02d:%02d:%02d.%03d]", month, day, hour, minute, second,
                millis);
  return text;
}

std::string LibraryStamp(const PrefixTime& time) {
  const int64_t ms = time.ms_of_day;
  // ms_of_day of a leap second runs past 86,399,999: its second is 60.
  const int64_t second_of_day = ms / 1000;
  const int hour = static_cast<int>(second_of_day >= 86400 ? 23 : second_of_day / 3600);
  const int minute = static_cast<int>(second_of_day >= 86400 ? 59 : second_of_day / 60 % 60);
  const int second = static_cast<int>(second_of_day >= 86400 ? 60 : second_of_day % 60);
  return LibraryStamp(time.month, time.day, hour, minute, second, static_cast<int>(ms % 1000));
}

// The reference for ParseLinePrefix: the format as a regular expression,
// then the ranges of its fields.
bool ReferencePrefix(const std::string& line, PrefixTime* time) {
  static const std::regex kStamp(R"(^\[(\d{1,2})-(\d{1,2}) (\d\d):(\d\d):(\d\d)\.(\d\d\d)\])");
  std::smatch match;
  // A stamp is at most 20 bytes: the rest cannot change the answer.
  const std::string head = line.substr(0, 24);
  if (!std::regex_search(head, match, kStamp)) return false;
  const int month = std::stoi(match[1]), day = std::stoi(match[2]);
  const int hour = std::stoi(match[3]), minute = std::stoi(match[4]);
  const int second = std::stoi(match[5]), millis = std::stoi(match[6]);
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return false;
  }
  time->month = month;
  time->day = day;
  time->ms_of_day = ((hour * 60 + minute) * 60 + second) * int64_t{1000} + millis;
  return true;
}

void CheckPrefix(const std::string& text) {
  PrefixTime parsed, expected;
  parsed.month = expected.month = -7;  // a refused line leaves these alone
  const bool ok = ParsePrefix(text, &parsed);
  Check(ok == ReferencePrefix(text, &expected), "ParseLinePrefix accepts what the format does",
        text.substr(0, 24));
  Check(SameTime(parsed, expected), "ParseLinePrefix reads the format's fields",
        text.substr(0, 24));
  if (!ok) return;
  const std::string again = LibraryStamp(parsed);
  PrefixTime reparsed;
  Check(ParsePrefix(again, &reparsed) && SameTime(parsed, reparsed),
        "a parsed stamp printed again parses to the same time", again);
  // Printed again as it was, unless month or day were zero-padded, or the
  // second was 60: a leap second may fall in any local minute, and is read
  // as the next minute's second 0.
  const size_t blank = text.find(' ');
  const bool zero_padded = text[1] == '0' || text[text.find('-') + 1] == '0';
  const bool leap_second = text.compare(blank + 7, 2, "60") == 0;
  Check(zero_padded || leap_second || text.compare(0, again.size(), again) == 0,
        "a stamp printed again is the line's own start", again);
}

// The key of a stamp in the directory of `day_number`, with the C library's
// calendar: the day before and the day after by their dates, any other date
// the directory's day.
int64_t ReferenceKey(int64_t day_number, const PrefixTime& time) {
  int64_t day = day_number;
  for (const int64_t neighbour : {day_number - 1, day_number + 1}) {
    const time_t seconds = static_cast<time_t>(neighbour * 86400);
    struct tm date = {};
    gmtime_r(&seconds, &date);
    if (date.tm_mon + 1 == time.month && date.tm_mday == time.day) day = neighbour;
  }
  return day * zelctl::kMsPerDay + time.ms_of_day;
}

// Every line of the text: the parser against the format, and through one
// MergeSource, whose memory of the last second must never change an answer.
void CheckLines(const std::string& text, int64_t day_number) {
  zelctl::MergeSource source;
  source.clock = zelctl::DayClock(day_number);
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    CheckPrefix(line);
    const ExactCopy copy(line);
    int64_t key = 99, expected_key = 99;
    const bool ok = source.StampKey(zelctl::LineView{copy.data(), copy.size(), false}, &key);
    PrefixTime time;
    const bool expected = ReferencePrefix(line, &time);
    if (expected) expected_key = ReferenceKey(day_number, time);
    Check(ok == expected, "StampKey finds a stamp exactly when the format does",
          line.substr(0, 24));
    Check(key == expected_key, "StampKey's key is the stamp's time on its day", line.substr(0, 24));
    start = end + 1;
  }
}

// A prefix as the library's log_print writes it, from the numbers.
void CheckLibraryPrefix(const Choices& choices, const std::string& text) {
  const int month = 1 + static_cast<int>(choices.Number(0, 1) % 12);
  const int day = 1 + static_cast<int>(choices.Number(1, 1) % 31);
  const uint64_t ms_of_day = choices.Number(2, 4) % (86401 * 1000);  // second 60 included
  const int hour = static_cast<int>(ms_of_day / 1000 >= 86400 ? 23 : ms_of_day / 3600000);
  const int minute = static_cast<int>(ms_of_day / 1000 >= 86400 ? 59 : ms_of_day / 60000 % 60);
  const int second = static_cast<int>(ms_of_day / 1000 >= 86400 ? 60 : ms_of_day / 1000 % 60);
  const int millis = static_cast<int>(ms_of_day % 1000);
  const std::string line = LibraryStamp(month, day, hour, minute, second, millis) +
                           "[tid:" + std::to_string(choices.Number(0, 8)) + "] " + text;
  PrefixTime time;
  Check(ParsePrefix(line, &time), "a prefix the library writes parses", line.substr(0, 48));
  Check(time.month == month && time.day == day &&
            time.ms_of_day == ((hour * 60 + minute) * 60 + second) * int64_t{1000} + millis,
        "a prefix the library writes parses to its time", line.substr(0, 48));
}

// The reference for ParseLogFileName: the names as regular expressions.
bool ReferenceName(const std::string& name, zelctl::LogFileName* out) {
  static const std::regex kName(R"(^zel\.log\.([\s\S]+)\.(\d{6})\.(txt|\d{1,3})$)");
  static const std::regex kTagWithPid(R"(^([\s\S]*)-(\d{1,18})$)");
  std::smatch match;
  if (!std::regex_match(name, match, kName)) return false;
  const std::string last = match[3];
  if (last != "txt" && std::stoi(last) > 255) return false;
  out->tag = match[1];
  out->time_tag = match[2];
  out->current = last == "txt";
  out->rotation = out->current ? 0 : static_cast<unsigned>(std::stoi(last));
  std::smatch tag_match;
  if (std::regex_match(out->tag, tag_match, kTagWithPid)) {
    out->process = tag_match[1];
    out->pid = std::stoll(tag_match[2]);
  } else {
    out->process = out->tag;
    out->pid = -1;
  }
  return true;
}

bool SameName(const zelctl::LogFileName& a, const zelctl::LogFileName& b) {
  return a.tag == b.tag && a.process == b.process && a.pid == b.pid && a.time_tag == b.time_tag &&
         a.current == b.current && a.rotation == b.rotation;
}

std::string NameOf(const std::string& tag, const std::string& time_tag, bool current,
                   unsigned rotation) {
  return "zel.log." + tag + "." + time_tag + "." +
         (current ? std::string("txt") : std::to_string(rotation));
}

void CheckFileName(const std::string& text) {
  zelctl::LogFileName parsed, expected;
  parsed.tag = expected.tag = "untouched";
  const bool ok = zelctl::ParseLogFileName(text, &parsed);
  // The expressions backtrack by recursion: kept to lengths a name can have.
  if (text.size() <= 300) {
    Check(ok == ReferenceName(text, &expected), "ParseLogFileName accepts what the names are",
          text);
    Check(SameName(parsed, expected), "ParseLogFileName reads the name's parts", text);
  }
  if (!ok) return;
  const std::string again = NameOf(parsed.tag, parsed.time_tag, parsed.current, parsed.rotation);
  zelctl::LogFileName reparsed;
  Check(zelctl::ParseLogFileName(again, &reparsed) && SameName(parsed, reparsed),
        "a parsed name built again parses to the same parts", again);
  const std::string last = text.substr(text.rfind('.') + 1);
  Check(last[0] == '0' || again == text, "a name without leading zeros builds again as it was",
        again);
}

// A name as the library's Logger makes it: "zel.log.<process>-<pid>.<hhmmss>."
// then "txt" or the rotation number.
void CheckLibraryName(const Choices& choices, const std::string& text) {
  std::string process = text.substr(0, text.find('\n'));
  // A file name holds neither '/' nor NUL.
  for (char& c : process) {
    if (c == '/' || c == '\0') c = '_';
  }
  const long long pid = static_cast<long long>(choices.Number(0, 4) % 4194305);
  const uint64_t second_of_day = choices.Number(4, 3) % 86400;
  char time_tag[8];
  std::snprintf(time_tag, sizeof(time_tag), "%02d%02d%02d", static_cast<int>(second_of_day / 3600),
                static_cast<int>(second_of_day / 60 % 60), static_cast<int>(second_of_day % 60));
  const bool current = (choices.numbers[6] & 0x80) != 0;
  const unsigned rotation = choices.numbers[7];
  const std::string tag = process + "-" + std::to_string(pid);
  const std::string name = NameOf(tag, time_tag, current, rotation);
  if (name.size() > 255) return;  // the library cuts such names: not one of its whole names
  zelctl::LogFileName parsed;
  Check(zelctl::ParseLogFileName(name, &parsed), "a name the library makes parses", name);
  Check(parsed.tag == tag && parsed.process == process && parsed.pid == pid &&
            parsed.time_tag == time_tag && parsed.current == current &&
            parsed.rotation == (current ? 0 : rotation),
        "a name the library makes parses back to its parts", name);
}

bool ReferenceDate(int year, int month, int day) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (year < 1 || month < 1 || month > 12 || day < 1) return false;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

void CheckDayText(const Choices& choices, const std::string& text) {
  const std::string eight = text.substr(0, 8);
  bool expected = eight.size() == 8;
  for (char c : eight) expected = expected && c >= '0' && c <= '9';
  if (expected) {
    expected = ReferenceDate(std::stoi(eight.substr(0, 4)), std::stoi(eight.substr(4, 2)),
                             std::stoi(eight.substr(6, 2)));
  }
  int64_t day = -12345;
  const bool ok = zelctl::ParseDayText(eight, &day);
  Check(ok == expected, "ParseDayText accepts exactly the real dates", eight);
  Check(ok ? zelctl::DayText(day) == eight : day == -12345, "ParseDayText's day gives the text",
        eight);
  const int64_t first = zelctl::DaysFromCivil(1, 1, 1), last = zelctl::DaysFromCivil(9999, 12, 31);
  const int64_t any = first + static_cast<int64_t>(choices.Number(0, 4) % (last - first + 1));
  int64_t back = 0;
  Check(zelctl::ParseDayText(zelctl::DayText(any), &back) && back == any,
        "DayText of any day parses back to it", zelctl::DayText(any));
}

void CheckRotations(const Choices& choices) {
  // The writer keeps at most 10 rotated files, numbered on from 0 to 255 and
  // round again: the kept ones are a window of consecutive numbers.
  const unsigned start = choices.numbers[0];
  const unsigned count = 1 + choices.numbers[1] % 10;
  std::vector<unsigned> window, listed;
  for (unsigned i = 0; i < count; ++i) window.push_back((start + i) % 256);
  // Listed in an order the numbers choose, some twice, some not at all (a
  // file removed meanwhile).
  for (unsigned i = 0; i < count; ++i) {
    listed.push_back(window[(i * (1 + 2 * choices.numbers[2]) + choices.numbers[3]) % count]);
    if ((choices.numbers[4] >> (i % 8) & 1) != 0) listed.push_back(listed.back());
  }
  std::vector<unsigned> expected;
  for (unsigned n : window) {
    if (std::find(listed.begin(), listed.end(), n) != listed.end()) expected.push_back(n);
  }
  std::string about;
  for (unsigned n : listed) about += std::to_string(n) + " ";
  Check(zelctl::RotationsOldestFirst(listed) == expected,
        "a window of rotation numbers comes oldest first", about);
}

// The text as one file through a LineStream with `buffer_size` bytes.
class StreamCheck {
 public:
  StreamCheck(zelfuzz::MemFile* file, size_t buffer_size, const std::string& text)
      : file_(file), buffer_size_(buffer_size), text_(text) {}

  void AsFinalFile() {
    zelctl::LineStream lines(buffer_size_, OnError());
    lines.AddFinalFile(file_->path());
    Check(ReadAvailable(&lines) == zelctl::LineStream::Result::kEnd, "a final file ends");
    Check(joined_ == Expected(), "a final file comes back byte for byte", text_.substr(0, 64));
  }

  void AsLiveFile() {
    zelctl::LineStream lines(buffer_size_, OnError());
    Check(lines.AddLiveFile(file_->path()), "a live file opens");
    Check(ReadAvailable(&lines) == zelctl::LineStream::Result::kNoMoreNow,
          "a live file waits at its end");
    // After the last newline, whole buffers of a long line are handed out
    // as pieces; less than a buffer waits for the writer to go on.
    const size_t last_newline = text_.rfind('\n');
    const size_t rest = text_.size() - (last_newline == std::string::npos ? 0 : last_newline + 1);
    const size_t held = rest % buffer_size_;
    Check(joined_ == text_.substr(0, text_.size() - held),
          "a live file gives all but what a writer could still complete", text_.substr(0, 64));
    lines.MarkLiveFileFinal();
    Check(ReadAvailable(&lines) == zelctl::LineStream::Result::kEnd, "a file marked final ends");
    Check(joined_ == Expected(), "a live file marked final comes back byte for byte",
          text_.substr(0, 64));
  }

 private:
  zelctl::LineStream::ErrorSink OnError() {
    return [](const std::string& path, const std::string& reason) {
      Check(false, "no read error on an in-memory file", path + ": " + reason);
    };
  }

  // Reads pieces until NextLine answers something else; joins them as the
  // lines they make, each whole one ending in a newline.
  zelctl::LineStream::Result ReadAvailable(zelctl::LineStream* lines) {
    zelctl::LineView line;
    zelctl::LineStream::Result result;
    while ((result = lines->NextLine(&line)) == zelctl::LineStream::Result::kLine) {
      Check(line.size <= buffer_size_, "a piece fits the buffer");
      Check(!line.partial || line.size == buffer_size_, "a partial piece fills the buffer");
      Check(std::memchr(line.data, '\n', line.size) == nullptr, "a piece holds no newline");
      joined_.append(line.data, line.size);
      if (!line.partial) joined_ += '\n';
    }
    return result;
  }

  // Every line with its newline: the text, plus one newline when its last
  // line has none.
  std::string Expected() const {
    return text_.empty() || text_.back() == '\n' ? text_ : text_ + '\n';
  }

  zelfuzz::MemFile* file_;
  size_t buffer_size_;
  const std::string& text_;
  std::string joined_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kHeader = 10;
  uint8_t header[kHeader] = {};
  std::memcpy(header, data, size < kHeader ? size : kHeader);
  Choices choices;
  choices.buffer_size = header[0] == 255 ? size_t{1} << 16 : 1 + header[0] % 64;
  choices.day_number = zelctl::DaysFromCivil(2023, 12, 1) + 2 * int64_t{header[1]};
  std::memcpy(choices.numbers, header + 2, sizeof(choices.numbers));
  const std::string text =
      size > kHeader ? std::string(reinterpret_cast<const char*>(data) + kHeader, size - kHeader)
                     : std::string();

  CheckPrefix(text);
  CheckLines(text, choices.day_number);
  CheckLibraryPrefix(choices, text);
  CheckFileName(text);
  CheckLibraryName(choices, text);
  CheckDayText(choices, text);
  CheckRotations(choices);

  static zelfuzz::MemFile file;
  file.Set(text);
  StreamCheck(&file, choices.buffer_size, text).AsFinalFile();
  StreamCheck(&file, choices.buffer_size, text).AsLiveFile();
  return 0;
}
