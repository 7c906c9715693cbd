// The merge of many processes' line streams into one timeline.
//
// Each stream is read in its own order; across streams the line whose time
// stamp is earliest goes first, and equal stamps go in stream order (process
// name, then pid, then time tag: see StreamOrderLess). A line without a
// readable stamp belongs to the record of the line before it in its stream
// and goes out right after it. Every output line starts with its process tag.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "log_prefix.h"
#include "log_stream.h"

namespace zelctl {

// A record whose time is unknown (unstamped lines at the start of a stream).
constexpr int64_t kUnknownTime = std::numeric_limits<int64_t>::min();

struct LineFilter {
  bool has_since = false, has_until = false;
  int64_t since_key = 0, until_key = 0;  // inclusive, keys as DayClock makes them
  std::string grep;                      // plain substring of the line; empty: all
};

// Buffered writes to a file descriptor; a full buffer goes out in one write().
class OutputBuffer {
 public:
  explicit OutputBuffer(int fd, size_t capacity = 1 << 16);
  ~OutputBuffer();
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;
  void Append(const char* data, size_t size);
  void Append(char c);
  // prefix, a blank, text and a newline: the common case with one bounds check.
  void AppendLine(const std::string& prefix, const char* text, size_t size);
  void Flush();
  // A reader that went away (EPIPE) ends the output quietly; any other error is one.
  bool reader_gone() const { return reader_gone_; }
  int write_error() const { return write_error_; }

 private:
  void WriteAll(const char* data, size_t size);
  int fd_;
  std::vector<char> buffer_;
  size_t used_ = 0;
  bool reader_gone_ = false;
  int write_error_ = 0;
};

// One stream as the merge sees it.
struct MergeSource {
  LineStream* stream = nullptr;
  std::string tag;  // written before every line of this stream
  std::string process;
  long long pid = -1;
  DayClock clock;    // the day of the directory the stream lives in
  size_t order = 0;  // tie-break rank: lower first

  // Merge state.
  LineView head;
  bool has_head = false;
  int64_t head_key = kUnknownTime;
  int64_t last_key = kUnknownTime;  // the record the next unstamped line joins

  // Lines of one second share their stamp up to the milliseconds: the last
  // such head ("[M-D hh:mm:ss.") and its key are kept to skip most parsing.
  char stamp_head[16] = {};
  size_t stamp_head_size = 0;
  int64_t stamp_head_key = 0;

  // The key of `line` when it starts with a stamp; false otherwise.
  bool StampKey(const LineView& line, int64_t* key);
};

class LogMerger {
 public:
  LogMerger(const LineFilter& filter, bool json, OutputBuffer* out);
  // Merges every line the sources have now; returns when none has one.
  // Stops early (between records) when *stop becomes non-zero.
  void Run(const std::vector<MergeSource*>& sources, const volatile int* stop);
  uint64_t lines_written() const { return lines_written_; }

 private:
  bool Pull(MergeSource* source);  // next head of `source`; false when it has none now
  void EmitRecord(MergeSource* source);
  void EmitLine(MergeSource* source, LineView line, int64_t key, bool time_passes);
  void EmitJson(const MergeSource& source, const std::string& text, int64_t key);
  bool TimePasses(int64_t key) const;
  // Sources with a head wait in a binary heap: the earliest head first,
  // equal stamps in stream order, for any number of sources. An entry packs
  // both into one unsigned number, so that a single comparison without a
  // branch decides (the next line comes from another stream nearly every
  // time, and a branch would be mispredicted): the head's key counted from
  // the earliest key the sources' clocks can give, above the source's index
  // in ranked_ (the sources sorted by order). 64 bits hold that for any real
  // day directories and number of streams; wider needs take 128.
  void RankSources(const std::vector<MergeSource*>& sources);
  template <typename Entry>
  void MergeWith(const volatile int* stop);
  template <typename Entry>
  Entry EntryOf(size_t index) const;
  size_t IndexOf(uint64_t entry) const { return static_cast<size_t>(entry & index_mask_); }

  LineFilter filter_;
  bool json_;
  OutputBuffer* out_;
  std::vector<MergeSource*> ranked_;
  int64_t key_base_ = 0;     // unknown time counts as this key, every stamp is later
  unsigned index_bits_ = 0;  // below the key, for an index into ranked_
  uint64_t index_mask_ = 0;
  bool fits_64_bits_ = true;
  uint64_t lines_written_ = 0;
};

// "hh:mm:ss.mmm" of a key (empty for kUnknownTime).
std::string TimeOfKey(int64_t key);

}  // namespace zelctl
