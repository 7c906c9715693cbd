#include "log_merge.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

#include <json/value.h>
#include <json/writer.h>

namespace zelctl {
namespace {

// A JSON line holds at most this much of one log line.
constexpr size_t kJsonLineLimit = 1 << 20;

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
  PrefixTime time;
  source->head = line;
  source->head_key = ParseLinePrefix(line.data, line.size, &time) ? source->clock.KeyOf(time)
                                                                 : source->last_key;
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
    PrefixTime time;
    if (ParseLinePrefix(line.data, line.size, &time)) {
      source->head = line;
      source->head_key = source->clock.KeyOf(time);
      source->has_head = true;
      return;
    }
    EmitLine(source, line, key, time_passes);
  }
}

void LogMerger::SiftDown(size_t index) {
  const size_t size = heap_.size();
  for (;;) {
    const size_t left = 2 * index + 1;
    if (left >= size) return;
    size_t smallest = left;
    if (left + 1 < size && Before(heap_[left + 1], heap_[left])) smallest = left + 1;
    if (!Before(heap_[smallest], heap_[index])) return;
    std::swap(heap_[smallest], heap_[index]);
    index = smallest;
  }
}

void LogMerger::SiftUp(size_t index) {
  while (index > 0) {
    const size_t parent = (index - 1) / 2;
    if (!Before(heap_[index], heap_[parent])) return;
    std::swap(heap_[index], heap_[parent]);
    index = parent;
  }
}

void LogMerger::Run(const std::vector<MergeSource*>& sources, const volatile int* stop) {
  heap_.clear();
  for (MergeSource* source : sources) {
    if (source->has_head || Pull(source)) {
      heap_.push_back(source);
      SiftUp(heap_.size() - 1);
    }
  }
  unsigned records = 0;
  while (!heap_.empty()) {
    if ((++records & 4095) == 0 && stop != nullptr && *stop != 0) break;
    MergeSource* top = heap_[0];
    EmitRecord(top);
    if (!top->has_head) {
      heap_[0] = heap_.back();
      heap_.pop_back();
    }
    if (!heap_.empty()) SiftDown(0);
    if (out_->reader_gone() || out_->write_error() != 0) break;
  }
  heap_.clear();
}

}  // namespace zelctl
