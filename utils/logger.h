// The process log: one Logger per process, written by its own loop thread.
//
// Callers on any thread hand finished lines to Log(); the Logger's Looper
// thread writes them, in posting order, to
//   <base><YYYYMMDD>/zel.log.<process>-<pid>.<hhmmss>.txt
// where <base> is the fixed base set by zel_set_log_path, or
// "/Users/" + $USER + "/Library/zel/". The file is rotated to
// zel.log.<process>-<pid>.<hhmmss>.<n> once it passed 5242880 bytes, on a date
// change and when it vanished; 10 files per process and time tag are kept.
// The Logger's own complaints go to standard output, never into the log.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "utils/export.h"
#include "utils/looper.h"
#include "utils/rotating_file.h"

namespace zel {

// A sink for log lines. Clients attach their own to the Logger (AddBackend);
// attached sinks run on the Logger's thread, under its shared backend lock.
class ZEL_API LogBackend {
 public:
  virtual ~LogBackend() = default;
  virtual int Log(const std::string& msg) = 0;
  // Default: the level and flag are ignored.
  virtual int Log(const std::string& msg, int level, bool toBackends) {
    (void)level;
    (void)toBackends;
    return Log(msg);
  }
};

// One queued line, owned by the message that carries it.
struct LogInfo {
  std::string msg;          // written as is: no prefix, no newline added
  int level = 3;            // stored, never read
  bool toBackends = false;  // also hand the line to the attached sinks
};

// The process log. Create it through GetInstance (log_print does); it lives
// until the process exits. Everything but Log/AddBackend/RemoveBackend runs on
// the Logger's own thread (and, once, in the constructor). Queued lines travel
// as messages of their own that carry the text inline (one allocation each);
// LogInfo is the record of the same three fields that clients know.
class ZEL_API Logger : public LogBackend {
 public:
  // Sets up the members and runs init(): day directory and writer thread.
  Logger();
  // Stops the writer (queued lines are dropped). The current file stays open.
  ~Logger() override;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // The singleton, created on first use (double-checked under sMutex).
  static Logger* GetInstance();

  // Queue `msg` for writing: level 3, not to the sinks. 0 posted, -1 refused.
  int Log(const std::string& msg) override;
  int Log(const std::string& msg, int level, bool toBackends) override;
  // The same for a temporary: its text is copied into the line's own
  // allocation like any other.
  int Log(std::string&& msg, int level, bool toBackends);
  // The same for `length` characters at `text`, copied: one allocation per
  // line, whatever its length. Can be called on any thread.
  int Log(const char* text, size_t length, int level, bool toBackends);

  // Attach/detach a client sink (not owned). Takes the backend lock exclusively.
  void AddBackend(LogBackend* backend);
  void RemoveBackend(LogBackend* backend);

  int init();
  // Day directory: mFixedDirPrefix or BuildLogPath, plus "YYYYMMDD/".
  // Recomputed (with a new time tag) only when the date changed.
  std::string getPrefix();
  // Creates the day directory chain if needed and stores it in mLogDir.
  void UpdateLogDir();
  int logFileInit();
  FILE* getLogFp();
  // The file to write now, rotating or (re)opening it as needed.
  FILE* getFile();
  // Deletes the rotated file numbered index - 10 (mod 256), if present.
  void updateLogFile(unsigned char index);

  static std::atomic<Logger*> sLogger;
  static std::mutex sMutex;
  // Written by the Logger thread and by zel_set_log_path, read by
  // zel_get_log_path, all without a lock: callers set the path once, first.
  // Never destroyed: the Logger thread may still read them while the process exits.
  static std::string& mDirPrefix;
  static std::string& mFixedDirPrefix;

 private:
  // The writer: one line, on the Logger's thread. WriteLine is how a queued
  // line (one allocation with its text) reaches it.
  ZEL_INTERNAL void Write(const char* text, size_t length, bool toBackends);
  ZEL_INTERNAL static void WriteLine(void* logger, const char* text, size_t length, bool toBackends);
  // Whether today's local date is no longer mDay. Logger thread only.
  ZEL_INTERNAL bool DateChanged();
  // How this Logger's files are named right now.
  ZEL_INTERNAL logdetail::FileNaming Naming() const;

  std::shared_timed_mutex mBackendMutex;
  std::string mUnused;
  std::string mLogDir;
  std::string mTimeTag;
  std::string mProcTag;
  size_t mLogDirLen = 0;
  bool mFileMode = true;
  uint32_t mMaxFileCount = 10;
  int32_t mMaxFileSize = 5242880;
  FILE* mFp = nullptr;  // never opened: the file written is the file-scope one
  std::string mDay;
  // Today's date text and the local-time conversion it came from: one
  // snprintf per second instead of one per line. Logger thread only.
  std::string mToday;
  uint64_t mTodayConversion = 0;
  // The writer's loop, made by init(); Log reads it unlocked, so init() is
  // not called again while lines are logged.
  std::unique_ptr<Looper> mLooper;
  std::vector<LogBackend*> mBackends;  // guarded by mBackendMutex
};

// "/Users/" [+ $USER + "/Library/zel/"] [+ sub + "/"]; creates the last
// component if missing (the full chain is UpdateLogDir's job).
ZEL_API std::string BuildLogPath(const std::string& sub);

}  // namespace zel
