#include "log_merge.h"

#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

namespace zelctl {
namespace {

// A JSON line holds at most this much of one log line.
constexpr size_t kJsonLineLimit = 1 << 20;

// The first n bytes (9 to 16, as every stamp head is) of a and b are equal:
// two overlapping 8-byte compares instead of a call to memcmp.
inline bool SameHead(const char* a, const char* b, size_t n) {
  uint64_t a0, b0, a1, b1;
  std::memcpy(&a0, a, 8);
  std::memcpy(&b0, b, 8);
  std::memcpy(&a1, a + n - 8, 8);
  std::memcpy(&b1, b + n - 8, 8);
  return ((a0 ^ b0) | (a1 ^ b1)) == 0;
}

bool Contains(const char* data, size_t size, const std::string& needle) {
  return memmem(data, size, needle.data(), needle.size()) != nullptr;
}

}  // namespace

OutputBuffer::OutputBuffer(int fd, size_t capacity) : fd_(fd), buffer_(capacity) {}

OutputBuffer::~OutputBuffer() { Flush(); }

void OutputBuffer::WriteAll(const char* data, size_t size) {
  while (size > 0 && !reader_gone_ && write_error_ == 0) {
    const ssize_t count = write(fd_, data, size);
    if (count < 0) {
      if (errno == EINTR) continue;
      if (errno == EPIPE) {
        reader_gone_ = true;
      } else {
        write_error_ = errno;
      }
      return;
    }
    data += count;
    size -= static_cast<size_t>(count);
  }
}

void OutputBuffer::Flush() {
  WriteAll(buffer_.data(), used_);
  used_ = 0;
}

void OutputBuffer::Append(const char* data, size_t size) {
  if (size > buffer_.size() - used_) {
    Flush();
    if (size >= buffer_.size()) {
      WriteAll(data, size);
      return;
    }
  }
  std::memcpy(buffer_.data() + used_, data, size);
  used_ += size;
}

void OutputBuffer::AppendLine(const std::string& prefix, const char* text, size_t size) {
  const size_t total = prefix.size() + 1 + size + 1;
  if (total > buffer_.size() - used_) {
    Append(prefix.data(), prefix.size());
    Append(' ');
    Append(text, size);
    Append('\n');
    return;
  }
  char* out = buffer_.data() + used_;
  out = std::copy(prefix.begin(), prefix.end(), out);
  *out++ = ' ';
  std::memcpy(out, text, size);
  out[size] = '\n';
  used_ += total;
}

void OutputBuffer::Append(char c) {
  if (used_ == buffer_.size()) Flush();
  buffer_[used_++] = c;
}

std::string TimeOfKey(int64_t key) {
  if (key == kUnknownTime) return std::string();
  int64_t ms = key % kMsPerDay;
  if (ms < 0) ms += kMsPerDay;
  char text[32];
  std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", static_cast<int>(ms / 3600000),
                static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                static_cast<int>(ms % 1000));
  return text;
}

bool MergeSource::StampKey(const LineView& line, int64_t* key) {
  const char* p = line.data;
  const size_t n = stamp_head_size;
  if (n != 0 && line.size >= n + 4 && SameHead(p, stamp_head, n) && p[n + 3] == ']' &&
      static_cast<unsigned char>(p[n] - '0') < 10 &&
      static_cast<unsigned char>(p[n + 1] - '0') < 10 &&
      static_cast<unsigned char>(p[n + 2] - '0') < 10) {
    const int millis = (p[n] - '0') * 100 + (p[n + 1] - '0') * 10 + (p[n + 2] - '0');
    *key = stamp_head_key + millis;
    return true;
  }
  PrefixTime time;
  if (!ParseLinePrefix(line.data, line.size, &time)) return false;
  *key = clock.KeyOf(time);
  // The stamp ends in ".mmm]": what comes before the milliseconds is the head.
  const char* dot = static_cast<const char*>(std::memchr(p, '.', std::min<size_t>(line.size, 16)));
  if (dot != nullptr && dot - p >= 8) {
    stamp_head_size = static_cast<size_t>(dot - p) + 1;
    std::memcpy(stamp_head, p, stamp_head_size);
    stamp_head_key = *key - time.ms_of_day % 1000;
  }
  return true;
}

LogMerger::LogMerger(const LineFilter& filter, bool json, OutputBuffer* out)
    : filter_(filter), json_(json), out_(out) {}

bool LogMerger::TimePasses(int64_t key) const {
  if (!filter_.has_since && !filter_.has_until) return true;
  if (key == kUnknownTime) return false;
  return (!filter_.has_since || key >= filter_.since_key) &&
         (!filter_.has_until || key <= filter_.until_key);
}

bool LogMerger::Pull(MergeSource* source) {
  LineView line;
  if (source->stream->NextLine(&line) != LineStream::Result::kLine) return false;
  source->head = line;
  if (!source->StampKey(line, &source->head_key)) source->head_key = source->last_key;
  source->has_head = true;
  return true;
}

void LogMerger::EmitJson(const MergeSource& source, const std::string& text, int64_t key) {
  Json::Value value(Json::objectValue);
  value["tag"] = source.tag;
  value["process"] = source.process;
  value["pid"] = source.pid >= 0 ? Json::Value(static_cast<Json::Int64>(source.pid))
                                 : Json::Value(Json::nullValue);
  value["time"] = key == kUnknownTime ? Json::Value(Json::nullValue) : Json::Value(TimeOfKey(key));
  value["line"] = text;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string json = Json::writeString(builder, value);
  out_->Append(json.data(), json.size());
  out_->Append('\n');
}

void LogMerger::EmitLine(MergeSource* source, LineView line, int64_t key, bool time_passes) {
  // A line longer than the stream's buffer comes in pieces; the first decides.
  const bool matches =
      time_passes && (filter_.grep.empty() || Contains(line.data, line.size, filter_.grep));
  if (json_) {
    std::string text(line.data, line.size);
    while (line.partial && source->stream->NextLine(&line) == LineStream::Result::kLine) {
      if (text.size() < kJsonLineLimit) {
        text.append(line.data, std::min(line.size, kJsonLineLimit - text.size()));
      }
    }
    if (matches) {
      EmitJson(*source, text, key);
      ++lines_written_;
    }
    return;
  }
  if (matches && !line.partial) {
    out_->AppendLine(source->tag, line.data, line.size);
    ++lines_written_;
    return;
  }
  if (matches) {
    out_->Append(source->tag.data(), source->tag.size());
    out_->Append(' ');
    out_->Append(line.data, line.size);
  }
  while (line.partial && source->stream->NextLine(&line) == LineStream::Result::kLine) {
    if (matches) out_->Append(line.data, line.size);
  }
  if (matches) {
    out_->Append('\n');
    ++lines_written_;
  }
}

void LogMerger::EmitRecord(MergeSource* source) {
  const int64_t key = source->head_key;
  const bool time_passes = TimePasses(key);
  source->last_key = key;
  source->has_head = false;
  EmitLine(source, source->head, key, time_passes);
  // Unstamped lines that follow stay with this record.
  LineView line;
  while (source->stream->NextLine(&line) == LineStream::Result::kLine) {
    if (source->StampKey(line, &source->head_key)) {
      source->head = line;
      source->has_head = true;
      return;
    }
    EmitLine(source, line, key, time_passes);
  }
}

namespace {

// Bits needed to write `value` (0 for 0).
unsigned BitsFor(uint64_t value) {
  unsigned bits = 0;
  for (; value != 0; value >>= 1) ++bits;
  return bits;
}

template <typename Entry>
void SiftDown(std::vector<Entry>* heap, size_t index) {
  std::vector<Entry>& h = *heap;
  const size_t size = h.size();
  const Entry moving = h[index];
  for (;;) {
    size_t child = 2 * index + 1;
    if (child >= size) break;
    // Branch-free choice of the smaller child: the merge's order is random.
    if (child + 1 < size) child += h[child + 1] < h[child] ? 1 : 0;
    if (h[child] >= moving) break;
    h[index] = h[child];
    index = child;
  }
  h[index] = moving;
}

template <typename Entry>
void SiftUp(std::vector<Entry>* heap, size_t index) {
  std::vector<Entry>& h = *heap;
  const Entry moving = h[index];
  while (index > 0) {
    const size_t parent = (index - 1) / 2;
    if (h[parent] <= moving) break;
    h[index] = h[parent];
    index = parent;
  }
  h[index] = moving;
}

}  // namespace

void LogMerger::RankSources(const std::vector<MergeSource*>& sources) {
  ranked_ = sources;
  std::stable_sort(ranked_.begin(), ranked_.end(),
                   [](const MergeSource* a, const MergeSource* b) { return a->order < b->order; });
  // A clock's keys lie from the start of the day before its day to the end
  // of the day after (a leap second 1 s further).
  int64_t first_day = 0, last_day = 0;
  for (size_t i = 0; i < ranked_.size(); ++i) {
    const int64_t day = ranked_[i]->clock.day_number();
    first_day = i == 0 ? day : std::min(first_day, day);
    last_day = i == 0 ? day : std::max(last_day, day);
  }
  key_base_ = (first_day - 1) * kMsPerDay - 1;
  const uint64_t widest_offset =
      static_cast<uint64_t>((last_day + 2) * kMsPerDay + 1000) - static_cast<uint64_t>(key_base_);
  index_bits_ = BitsFor(ranked_.empty() ? 0 : ranked_.size() - 1);
  index_mask_ = index_bits_ == 64 ? ~uint64_t{0} : (uint64_t{1} << index_bits_) - 1;
  fits_64_bits_ = BitsFor(widest_offset) + index_bits_ <= 64;
}

template <typename Entry>
Entry LogMerger::EntryOf(size_t index) const {
  const int64_t key = ranked_[index]->head_key;
  const uint64_t offset =
      key == kUnknownTime ? 0 : static_cast<uint64_t>(key) - static_cast<uint64_t>(key_base_);
  return static_cast<Entry>(offset) << index_bits_ | index;
}

template <typename Entry>
void LogMerger::MergeWith(const volatile int* stop) {
  std::vector<Entry> heap;
  heap.reserve(ranked_.size());
  for (size_t index = 0; index < ranked_.size(); ++index) {
    MergeSource* source = ranked_[index];
    if (source->has_head || Pull(source)) {
      heap.push_back(EntryOf<Entry>(index));
      SiftUp(&heap, heap.size() - 1);
    }
  }
  unsigned records = 0;
  while (!heap.empty()) {
    if ((++records & 4095) == 0 && stop != nullptr && *stop != 0) break;
    const size_t index = IndexOf(static_cast<uint64_t>(heap[0]));
    MergeSource* top = ranked_[index];
    EmitRecord(top);
    if (top->has_head) {
      heap[0] = EntryOf<Entry>(index);
    } else {
      heap[0] = heap.back();
      heap.pop_back();
    }
    if (!heap.empty()) SiftDown(&heap, 0);
    if (out_->reader_gone() || out_->write_error() != 0) break;
  }
}

void LogMerger::Run(const std::vector<MergeSource*>& sources, const volatile int* stop) {
  RankSources(sources);
  if (fits_64_bits_) {
    MergeWith<uint64_t>(stop);
  } else {
    MergeWith<unsigned __int128>(stop);
  }
}

}  // namespace zelctl
