// Fuzz target: log_print with arbitrary text, levels and toBackends flags,
// checked against the exact lines that reach an attached LogBackend and the
// process log file.
//
// Input:
//   bytes 0-3  argument of zel_set_log_level (int32, little-endian)
//   byte 4     level of line A (signed), byte 5 its toBackends (signed)
//   byte 6     level of line B (signed), byte 7 its toBackends (signed)
//   byte 8     bit 0: line B is logged too
//   rest       the text: line A is log_print(level, toBackends, "%s", text),
//              line B the same with "%s\n"
// After them a marker line (level -128, which always passes) is logged; the
// backend holds the Logger's thread at the marker until the checks are done,
// so every earlier line has been written and the file is still.
//
// Checked:
// - zel_log_level() is the argument's low 8 bits, signed;
// - a line passes exactly when its level is at most the current level; the
//   backend sees exactly the passing lines with toBackends != 0, in order;
// - each line is "[M-D hh:mm:ss.mmm][tid:T] " with the local date and time of
//   a second around the call (the clock's milliseconds within the call), T the
//   caller's thread number, then the text up to its first NUL, cut so that
//   line, newline and terminator fit in 4096 bytes, and one newline added
//   only when missing;
// - the file gains exactly these lines, in order, byte for byte, and the
//   lines sent to the backend are the same bytes;
// - the file is rotated (renamed to ...<n>, a new .txt begun) exactly before
//   the first line that finds it past 5242880 bytes, and at most 9 rotated
//   files are kept.
// The log goes to a fresh temporary folder (zel_set_log_path before the
// first line), removed at exit and kept when a check fails.
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "utils/logger.h"
#include "utils/zel_log.h"

namespace {

constexpr size_t kLineSize = 4096;
constexpr long long kMaxFileSize = 5242880;

std::string gBase;  // the log folder, ending in "/"

// The folder is kept for a look at what was written.
[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "log_print_fuzz: %s (log folder kept: %s)\n", what.c_str(), gBase.c_str());
  std::abort();
}

void Check(bool ok, const std::string& what) {
  if (!ok) Fail(what);
}

long long NowMicros() {
  using namespace std::chrono;
  return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

// Holds the Logger's thread at the line numbered `hold_at` until released.
class HoldingBackend : public zel::LogBackend {
 public:
  int Log(const std::string& msg) override {
    std::unique_lock<std::mutex> lock(mutex_);
    lines_.push_back(msg);
    if (lines_.size() == hold_at_) {
      held_ = true;
      changed_.notify_all();
      changed_.wait(lock, [this] { return !held_; });
    }
    return 0;
  }

  // The Logger's thread is to be held at line number `count` (from 1).
  void HoldAt(size_t count) {
    std::lock_guard<std::mutex> lock(mutex_);
    hold_at_ = count;
  }

  // Waits until the thread is held; the lines that arrived since the last call.
  bool WaitUntilHeld(std::vector<std::string>* fresh) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(30), [this] { return held_; })) return false;
    fresh->assign(lines_.begin() + static_cast<long>(taken_), lines_.end());
    taken_ = lines_.size();
    return true;
  }

  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  size_t taken_ = 0;
  size_t hold_at_ = 0;
  bool held_ = false;
};

// One logged line as the caller knows it before reading it back.
struct Sent {
  std::string body;  // the text part, newline included
  long long before;  // clock readings around the call, microseconds
  long long after;
  bool to_backends;
};

HoldingBackend gBackend;
std::string gTid;
size_t gBackendCount = 0;  // lines the backend must have seen so far
std::string gLastMarker;   // the marker the Logger writes after the last check
std::string gDayDir;       // where the current file is
std::string gCurrent;      // its name (…txt)
ino_t gInode = 0;          // 0: no file yet
long long gSize = 0;
unsigned gRotations = 0;     // rotations so far: the next rotated file's number
unsigned gTagRotations = 0;  // those of the current day (time tag)

void RemoveBase() {
  std::error_code ignored;
  std::filesystem::remove_all(gBase, ignored);
}

// The text of "[%d-%d %02d:%02d:%02d." for a second.
std::string SecondText(time_t second) {
  struct tm local {};
  localtime_r(&second, &local);
  char text[64];
  std::snprintf(text, sizeof(text), "[%d-%d %02d:%02d:%02d.", local.tm_mon + 1, local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

// The prefix at the start of `bytes` (from `at`) for a call made between
// `before` and `after`; its length, or a failure.
size_t CheckPrefix(const std::string& bytes, size_t at, const Sent& sent) {
  const size_t head_end = bytes.find('.', at);
  Check(head_end != std::string::npos, "a line without a prefix");
  const std::string head = bytes.substr(at, head_end + 1 - at);
  bool second_ok = false;
  // time() may lag the clock by a tick: one second earlier is allowed.
  for (time_t s = static_cast<time_t>(sent.before / 1000000) - 1;
       s <= static_cast<time_t>(sent.after / 1000000) && !second_ok; ++s) {
    second_ok = head == SecondText(s);
  }
  Check(second_ok, "the prefix's date and time are not those of the call: " + head);
  size_t p = head_end + 1;
  Check(bytes.size() >= p + 3, "the prefix is cut");
  int millis = 0;
  for (int i = 0; i < 3; ++i) {
    Check(bytes[p] >= '0' && bytes[p] <= '9', "milliseconds are not three digits");
    millis = millis * 10 + (bytes[p++] - '0');
  }
  const long long first = sent.before / 1000, last = sent.after / 1000;
  bool millis_ok = last - first >= 1000;
  for (long long ms = first; ms <= last && !millis_ok; ++ms) millis_ok = ms % 1000 == millis;
  Check(millis_ok, "the milliseconds are not those of the call");
  const std::string tail = "][tid:" + gTid + "] ";
  Check(bytes.compare(p, tail.size(), tail) == 0, "the thread part of the prefix is wrong");
  return p + tail.size() - at;
}

// The text part of a line: `text` formatted, cut to the room the prefix
// leaves, and a newline when missing.
std::string Body(const std::string& formatted, size_t prefix_len) {
  std::string body = formatted.substr(0, kLineSize - 3 - prefix_len);
  if (body.empty() || body.back() != '\n') body += '\n';
  return body;
}

// Checks that `bytes` is exactly the lines `sent`, in order; `starts` gets
// where each begins.
void CheckLines(const std::string& bytes, const std::vector<Sent>& sent,
                std::vector<std::string>* lines, std::vector<size_t>* starts) {
  size_t at = 0;
  for (const Sent& line : sent) {
    starts->push_back(at);
    const size_t prefix_len = CheckPrefix(bytes, at, line);
    const std::string body = Body(line.body, prefix_len);
    Check(bytes.compare(at + prefix_len, body.size(), body) == 0,
          "a line's text is not the text logged (cut at 4096 bytes, one newline)");
    lines->push_back(bytes.substr(at, prefix_len + body.size()));
    at += prefix_len + body.size();
  }
  Check(at == bytes.size(), "the log file holds more than the lines logged");
}

std::string ReadFrom(const std::string& path, long long from) {
  std::string bytes;
  if (FILE* file = std::fopen(path.c_str(), "rb")) {
    if (std::fseek(file, static_cast<long>(from), SEEK_SET) == 0) {
      char buffer[65536];
      for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), file)) > 0;)
        bytes.append(buffer, n);
    }
    std::fclose(file);
  }
  return bytes;
}

// The day folder (with its date) and the one current file in it.
bool FindCurrent(std::string* dir, std::string* name) {
  char buffer[1024] = {};
  if (zel_get_log_path(buffer, sizeof(buffer)) != 0) return false;
  *dir = buffer;
  std::vector<std::string> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(*dir, error)) {
    const std::string file = entry.path().filename().string();
    if (file.size() > 4 && file.compare(file.size() - 4, 4, ".txt") == 0) found.push_back(file);
  }
  Check(found.size() == 1, "not exactly one current log file in " + *dir);
  *name = found.front();
  return true;
}

// The checks, with the Logger's thread held at the marker.
void CheckBatch(const std::vector<Sent>& passed, const std::vector<std::string>& at_backend) {
  std::string dir, name;
  Check(FindCurrent(&dir, &name), "no log folder after a line passed");
  struct stat st {};
  const std::string current = dir + name;
  Check(stat(current.c_str(), &st) == 0, "the current log file vanished");
  if (gInode != 0 && dir != gDayDir) {
    // The date changed during the batch: the old day's file was rotated
    // into the old folder. Start over in the new one; this batch is not checked.
    ++gRotations;
    gTagRotations = 0;
    gDayDir = dir;
    gInode = st.st_ino;
    gSize = st.st_size;
    return;
  }

  // What was written since the last check: the last marker, then the lines.
  std::string fresh;
  const bool rotated = gInode != 0 && st.st_ino != gInode;
  long long old_size = 0;
  if (rotated) {
    const std::string stem = name.substr(0, name.size() - 3);  // "zel.log.<proc>.<tag>."
    const std::string old_path = dir + stem + std::to_string(gRotations % 256);
    const std::string old_part = ReadFrom(old_path, gSize);
    old_size = gSize + static_cast<long long>(old_part.size());
    fresh = old_part + ReadFrom(current, 0);
    ++gRotations;
    ++gTagRotations;
  } else {
    fresh = ReadFrom(current, gInode == 0 ? 0 : gSize);
  }
  const std::string marker = gLastMarker;
  Check(fresh.compare(0, marker.size(), marker) == 0,
        "the previous marker line is not where it belongs");
  std::vector<std::string> lines;
  std::vector<size_t> starts;
  CheckLines(fresh.substr(marker.size()), passed, &lines, &starts);

  // The backend saw the lines sent to it, byte for byte, and nothing else.
  std::vector<std::string> expected_backend;
  for (size_t i = 0; i < passed.size(); ++i) {
    if (passed[i].to_backends) expected_backend.push_back(lines[i]);
  }
  Check(at_backend.size() == expected_backend.size() + 1,
        "the backend saw another number of lines than were sent to it");
  for (size_t i = 0; i < expected_backend.size(); ++i) {
    Check(at_backend[i] == expected_backend[i], "the backend saw other bytes than were written");
  }

  // Rotation: each line starts in the file that was at most 5242880 bytes
  // long; the first line (or the held marker) that finds it longer starts a
  // new file. (The previous marker's file was chosen before the last check.)
  const long long start = gInode == 0 ? 0 : gSize;
  long long split = -1;  // where the new file began, in `fresh`
  std::vector<long long> line_starts;
  for (size_t s : starts) line_starts.push_back(static_cast<long long>(marker.size() + s));
  line_starts.push_back(static_cast<long long>(fresh.size()));  // the held marker
  for (long long at : line_starts) {
    if (start + at > kMaxFileSize) {
      split = at;
      break;
    }
  }
  if (rotated) {
    Check(split >= 0 && old_size == start + split, "the log file was rotated at the wrong line");
  } else {
    Check(split < 0, "the log file was not rotated after passing 5242880 bytes");
  }
  if (gTagRotations > 0) {
    // The rotated files of this process and time tag: at most 9 are kept.
    const std::string stem = name.substr(0, name.size() - 3);
    size_t kept = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
      const std::string file = entry.path().filename().string();
      if (file.compare(0, stem.size(), stem) == 0 && file != name) ++kept;
    }
    Check(kept == std::min<size_t>(gTagRotations, 9), "not the last 9 rotated files kept");
  }

  gDayDir = dir;
  gInode = st.st_ino;
  gSize = st.st_size;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/zel_log_fuzz_XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) Fail("cannot make a temporary folder");
  gBase = pattern + "/";
  std::atexit(RemoveBase);
  zel_set_log_path(gBase.c_str());
  zel::Logger::GetInstance()->AddBackend(&gBackend);
  gTid = std::to_string((unsigned long long)pthread_self());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 9) return 0;
  int32_t level_arg = 0;
  for (int i = 0; i < 4; ++i) level_arg |= static_cast<int32_t>(data[i]) << (8 * i);
  zel_set_log_level(level_arg);
  const int level = static_cast<signed char>(level_arg & 0xff);
  Check(zel_log_level() == level, "zel_log_level is not the low 8 bits, signed");

  const std::string raw(reinterpret_cast<const char*>(data + 9), size - 9);
  const std::string text = raw.substr(0, raw.find('\0'));  // what "%s" reads
  struct Call {
    int level;
    int to_backends;
    bool newline;  // "%s\n" rather than "%s"
  };
  std::vector<Call> calls = {{static_cast<int8_t>(data[4]), static_cast<int8_t>(data[5]), false}};
  if (data[8] & 1)
    calls.push_back({static_cast<int8_t>(data[6]), static_cast<int8_t>(data[7]), true});

  std::vector<Sent> passed;
  for (const Call& call : calls) {
    const long long before = NowMicros();
    if (call.newline) {
      log_print(call.level, call.to_backends, "%s\n", raw.c_str());
    } else {
      log_print(call.level, call.to_backends, "%s", raw.c_str());
    }
    const long long after = NowMicros();
    if (call.level <= level) {
      passed.push_back({call.newline ? text + "\n" : text, before, after, call.to_backends != 0});
      if (call.to_backends != 0) ++gBackendCount;
    }
  }
  // The marker: it always passes and always reaches the backend, which
  // holds the Logger's thread there.
  gBackend.HoldAt(++gBackendCount);
  const long long before = NowMicros();
  log_print(-128, 1, "%s", "zel fuzz: end of input");
  const long long after = NowMicros();

  std::vector<std::string> at_backend;
  if (!gBackend.WaitUntilHeld(&at_backend)) {
    Fail("a line never reached the backend (or one too few did)");
  }
  Check(!at_backend.empty(), "no marker at the backend");
  // The marker itself: checked like any line, then written after the release.
  std::vector<std::string> marker_line;
  std::vector<size_t> marker_start;
  CheckLines(at_backend.back(), {{"zel fuzz: end of input", before, after, true}}, &marker_line,
             &marker_start);
  CheckBatch(passed, at_backend);
  gLastMarker = at_backend.back();
  gBackend.Release();
  return 0;
}
