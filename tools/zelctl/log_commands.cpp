#include "log_commands.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <map>
#include <memory>
#include <tuple>
#include <utility>

#include "cli_support.h"
#include "log_files.h"
#include "log_merge.h"
#include "log_prefix.h"
#include "log_stream.h"
#include "utils/staging_scan.h"

namespace zelctl {
namespace {

constexpr size_t kReadBufferSize = 1 << 16;    // per stream, one-shot merge
constexpr size_t kFollowBufferSize = 1 << 16;  // per stream, follow mode
constexpr long kFollowPollMs = 200;

volatile int g_stop_signal = 0;  // volatile int: read by the merge as a stop flag
extern "C" void OnStopSignal(int) { g_stop_signal = 1; }

bool IsDirectory(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool SameFile(const std::string& path, dev_t device, ino_t inode) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && info.st_dev == device && info.st_ino == inode;
}

bool WantedProcess(const LogStreamFiles& files, const std::vector<std::string>& wanted) {
  if (wanted.empty()) return true;
  return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& name) {
    return name == files.process || name == files.tag;
  });
}

// Everything `logs` works on: the streams, their merge state, the errors seen.
class LogsSession {
 public:
  LogsSession(const LogsOptions& options, const LineFilter& filter, OutputBuffer* out)
      : options_(options), merger_(filter, options.json, out) {}

  // Adds the streams of a day directory as they are now. In follow mode the
  // current files stay open as live files. Returns 0 or an errno value.
  int AddDay(const std::string& dir, int64_t day_number, bool follow);
  // Follow mode: picks up rotations, cut files and new processes' files.
  void Rescan();
  void MergeAvailable() {
    std::vector<MergeSource*> sources;
    sources.reserve(streams_.size());
    for (auto& [id, stream] : streams_) sources.push_back(&stream->source);
    merger_.Run(sources, &g_stop_signal);
  }
  bool io_error() const { return io_error_; }
  uint64_t lines_written() const { return merger_.lines_written(); }

 private:
  struct Stream {
    std::unique_ptr<LineStream> lines;
    MergeSource source;
    bool has_rotation = false;
    unsigned last_rotation = 0;  // the newest rotated file already queued
  };
  struct Day {
    std::string dir;
    int64_t day_number;
  };
  using StreamId = std::tuple<std::string, std::string, std::string>;  // dir, tag, time tag

  void ReportFileError(const std::string& path, const std::string& reason) {
    ReportError("cannot read " + path + ": " + reason);
    io_error_ = true;
  }
  Stream* NewStream(const Day& day, const LogStreamFiles& files, bool follow);
  // One stream for the lines each dead process left staged in the day
  // directory (unwritten, so in no file), tagged "<process>-<pid>(unwritten)".
  void AddUnwrittenLines(const Day& day);
  void UpdateStream(Stream* stream, const LogStreamFiles& files);
  void ReorderStreams();
  // Rotated files of `files` newer than the last one queued, oldest first.
  std::vector<size_t> RotatedAfterLast(const Stream& stream, const LogStreamFiles& files) const;

  const LogsOptions& options_;
  LogMerger merger_;
  std::vector<Day> days_;
  std::map<StreamId, std::unique_ptr<Stream>> streams_;
  bool io_error_ = false;
};

LogsSession::Stream* LogsSession::NewStream(const Day& day, const LogStreamFiles& files,
                                            bool follow) {
  auto stream = std::make_unique<Stream>();
  stream->lines =
      std::make_unique<LineStream>(follow ? kFollowBufferSize : kReadBufferSize,
                                   [this](const std::string& path, const std::string& reason) {
                                     ReportFileError(path, reason);
                                   });
  stream->source.stream = stream->lines.get();
  stream->source.tag = files.tag;
  stream->source.process = files.process;
  stream->source.pid = files.pid;
  stream->source.clock = DayClock(day.day_number);
  for (size_t i = 0; i < files.rotated_paths.size(); ++i) {
    stream->lines->AddFinalFile(files.rotated_paths[i]);
    stream->has_rotation = true;
    stream->last_rotation = files.rotations[i];
  }
  if (!files.current_path.empty()) {
    if (follow) {
      stream->lines->AddLiveFile(files.current_path);
    } else {
      stream->lines->AddFinalFile(files.current_path);
    }
  }
  Stream* raw = stream.get();
  streams_[StreamId(day.dir, files.tag, files.time_tag)] = std::move(stream);
  return raw;
}

void LogsSession::ReorderStreams() {
  // Tie-break ranks follow the stream order, across every day watched.
  std::vector<std::pair<const StreamId*, Stream*>> all;
  for (auto& [id, stream] : streams_) all.emplace_back(&id, stream.get());
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
    const MergeSource& x = a.second->source;
    const MergeSource& y = b.second->source;
    return std::tie(x.process, x.pid, std::get<2>(*a.first), x.tag, std::get<0>(*a.first)) <
           std::tie(y.process, y.pid, std::get<2>(*b.first), y.tag, std::get<0>(*b.first));
  });
  for (size_t i = 0; i < all.size(); ++i) all[i].second->source.order = i;
}

int LogsSession::AddDay(const std::string& dir, int64_t day_number, bool follow) {
  days_.push_back(Day{dir, day_number});
  std::vector<LogStreamFiles> listed;
  const int error = ListLogStreams(dir, &listed);
  if (error != 0) return error;
  for (const LogStreamFiles& files : listed) {
    if (WantedProcess(files, options_.processes)) NewStream(days_.back(), files, follow);
  }
  AddUnwrittenLines(days_.back());
  ReorderStreams();
  return 0;
}

void LogsSession::AddUnwrittenLines(const Day& day) {
  namespace staging = zel::logdetail::staging;
  zel::logdetail::ForEachDeadStaging(
      day.dir, staging::kProcessLog, false, [&](const zel::logdetail::DeadStaging& dead) {
        const staging::Contents& contents = dead.contents;
        LogStreamFiles files;
        files.process = contents.process;
        files.pid = contents.pid;
        files.tag = contents.process + "-" + std::to_string(contents.pid);
        files.time_tag = dead.name;  // one stream per staging file
        if (!WantedProcess(files, options_.processes)) return;
        // What the target holds already is in the stream of its file.
        struct stat target = {};
        const uint64_t size =
            stat(contents.target.c_str(), &target) == 0 ? static_cast<uint64_t>(target.st_size) : 0;
        staging::Unwritten rest = staging::UnwrittenPart(contents, size);
        if (rest.lines == 0) return;
        files.tag += "(unwritten)";
        Stream* stream = NewStream(day, files, false);
        stream->lines->AddFinalText(day.dir + dead.name, std::move(rest.text));
      });
}

std::vector<size_t> LogsSession::RotatedAfterLast(const Stream& stream,
                                                  const LogStreamFiles& files) const {
  std::vector<size_t> newer;
  size_t start = 0;
  if (stream.has_rotation) {
    // Numbers are listed oldest first; when the last one queued is gone it
    // fell out of the kept window, and everything listed is newer.
    for (size_t i = 0; i < files.rotations.size(); ++i) {
      if (files.rotations[i] == stream.last_rotation) start = i + 1;
    }
  }
  for (size_t i = start; i < files.rotations.size(); ++i) newer.push_back(i);
  return newer;
}

void LogsSession::UpdateStream(Stream* stream, const LogStreamFiles& files) {
  LineStream& lines = *stream->lines;
  if (lines.has_live_file()) {
    if (!files.current_path.empty() &&
        SameFile(files.current_path, lines.live_device(), lines.live_inode())) {
      lines.RestartIfTruncated();
      return;
    }
    // The file being followed was rotated away (or removed): read it to its
    // end, then what was rotated after it, then the new current file.
    const dev_t device = lines.live_device();
    const ino_t inode = lines.live_inode();
    lines.MarkLiveFileFinal();
    std::vector<size_t> newer = RotatedAfterLast(*stream, files);
    for (size_t k = 0; k < newer.size(); ++k) {
      if (SameFile(files.rotated_paths[newer[k]], device, inode)) {
        stream->has_rotation = true;
        stream->last_rotation = files.rotations[newer[k]];
        newer.erase(newer.begin(), newer.begin() + static_cast<std::ptrdiff_t>(k) + 1);
        break;
      }
    }
    for (size_t i : newer) {
      lines.AddFinalFile(files.rotated_paths[i]);
      stream->has_rotation = true;
      stream->last_rotation = files.rotations[i];
    }
  } else {
    if (files.current_path.empty()) return;
    for (size_t i : RotatedAfterLast(*stream, files)) {
      lines.AddFinalFile(files.rotated_paths[i]);
      stream->has_rotation = true;
      stream->last_rotation = files.rotations[i];
    }
  }
  if (!files.current_path.empty()) lines.AddLiveFile(files.current_path);
}

void LogsSession::Rescan() {
  // Following today: a new date means a new day directory to watch as well.
  if (options_.day.empty()) {
    const int64_t today = LocalToday();
    if (std::none_of(days_.begin(), days_.end(),
                     [&](const Day& d) { return d.day_number == today; })) {
      const std::string base = options_.base.empty() ? DefaultLogBase() : options_.base;
      days_.push_back(Day{DayDirectory(base, today), today});
    }
  }
  bool added = false;
  for (const Day& day : days_) {
    std::vector<LogStreamFiles> listed;
    if (ListLogStreams(day.dir, &listed) != 0) continue;  // not there (yet)
    for (const LogStreamFiles& files : listed) {
      if (!WantedProcess(files, options_.processes)) continue;
      auto found = streams_.find(StreamId(day.dir, files.tag, files.time_tag));
      if (found == streams_.end()) {
        NewStream(day, files, true);
        added = true;
      } else {
        UpdateStream(found->second.get(), files);
      }
    }
  }
  if (added) ReorderStreams();
}

// Every stream keeps its file open while it is merged: the soft limit on
// open files (often 1,024) would cut a day of many processes short, so it
// goes up to the hard limit.
void RaiseOpenFileLimit() {
  struct rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
#if defined(__APPLE__)
  // macOS refuses more than OPEN_MAX for a process, whatever the hard limit says.
  if (limit.rlim_cur > OPEN_MAX) limit.rlim_cur = OPEN_MAX;
#endif
  setrlimit(RLIMIT_NOFILE, &limit);
}

void SleepMs(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, nullptr);  // a stop signal cuts it short
}

void InstallStopHandlers() {
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: the sleep ends at once
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int ExitCodeOf(const LogsSession& session, const OutputBuffer& out, bool follow) {
  if (out.write_error() != 0) {
    ReportError(WithErrno("cannot write standard output", out.write_error()));
    return kExitIo;
  }
  if (session.io_error()) return kExitIo;
  if (out.reader_gone() || follow) return kExitOk;
  return session.lines_written() > 0 ? kExitOk : kExitNegative;
}

}  // namespace

bool ParseClockTime(const std::string& text, bool end_of_span, int64_t* ms_of_day) {
  const auto two_digits = [&](size_t at, int limit, int* value) {
    if (at + 2 > text.size() || !isdigit(static_cast<unsigned char>(text[at])) ||
        !isdigit(static_cast<unsigned char>(text[at + 1]))) {
      return false;
    }
    *value = (text[at] - '0') * 10 + (text[at + 1] - '0');
    return *value <= limit;
  };
  int hour = 0, minute = 0, second = 0;
  if ((text.size() != 5 && text.size() != 8) || text[2] != ':' || !two_digits(0, 23, &hour) ||
      !two_digits(3, 59, &minute)) {
    return false;
  }
  const bool has_seconds = text.size() == 8;
  if (has_seconds && (text[5] != ':' || !two_digits(6, 59, &second))) return false;
  int64_t ms = ((hour * 60 + minute) * 60 + second) * int64_t{1000};
  if (end_of_span) ms += has_seconds ? 999 : 59999;
  *ms_of_day = ms;
  return true;
}

int RunLogDir(const std::string& base, bool json) {
  const std::string used_base = base.empty() ? DefaultLogBase() : base;
  const int64_t today = LocalToday();
  const std::string dir = DayDirectory(used_base, today);
  if (json) {
    Json::Value value(Json::objectValue);
    value["base"] = used_base;
    value["day"] = DayText(today);
    value["dir"] = dir;
    value["exists"] = IsDirectory(dir);
    PrintJson(value);
  } else {
    std::printf("%s\n", dir.c_str());
  }
  return kExitOk;
}

int RunLogs(const LogsOptions& options) {
  int64_t day_number = LocalToday();
  if (!options.day.empty() && !ParseDayText(options.day, &day_number)) {
    ReportError("--day: not a date YYYYMMDD: " + options.day);
    return kExitUsage;
  }
  LineFilter filter;
  filter.grep = options.grep;
  int64_t ms = 0;
  if (!options.since.empty()) {
    if (!ParseClockTime(options.since, false, &ms)) {
      ReportError("--since: not a time HH:MM[:SS]: " + options.since);
      return kExitUsage;
    }
    filter.has_since = true;
    filter.since_key = day_number * kMsPerDay + ms;
  }
  if (!options.until.empty()) {
    if (!ParseClockTime(options.until, true, &ms)) {
      ReportError("--until: not a time HH:MM[:SS]: " + options.until);
      return kExitUsage;
    }
    filter.has_until = true;
    filter.until_key = day_number * kMsPerDay + ms;
  }

  const std::string base = options.base.empty() ? DefaultLogBase() : options.base;
  const std::string dir = DayDirectory(base, day_number);
  // A reader that goes away (`| head`) ends the output, not the process by signal.
  signal(SIGPIPE, SIG_IGN);
  RaiseOpenFileLimit();
  OutputBuffer out(1);
  LogsSession session(options, filter, &out);
  const int error = session.AddDay(dir, day_number, options.follow);
  if (error != 0 && !options.follow) {
    ReportError(WithErrno("no day directory " + dir, error));
    return kExitIo;
  }
  if (!options.follow) {
    session.MergeAvailable();
    out.Flush();
    return ExitCodeOf(session, out, false);
  }

  if (error != 0) ReportError(WithErrno(dir, error) + "; waiting for it");
  InstallStopHandlers();
  while (g_stop_signal == 0) {
    session.MergeAvailable();
    out.Flush();
    if (out.reader_gone() || out.write_error() != 0) break;
    SleepMs(kFollowPollMs);
    if (g_stop_signal != 0) break;
    session.Rescan();
  }
  out.Flush();
  return ExitCodeOf(session, out, true);
}

}  // namespace zelctl
