/// @file
/// The layout of LogInfo and Logger is ABI: clients allocate these objects, so their size and the
/// places of their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// The process log: one Logger per process, written by its own loop thread.
///
/// Callers on any thread hand finished lines to Log(); the Logger's Looper
/// thread writes them, in posting order, to
/// `<base><YYYYMMDD>/zel.log.<process>-<pid>.<hhmmss>.txt`
/// where `<base>` is the fixed base set by zel_set_log_path, or
/// "/Users/" + $USER + "/Library/zel/". The file is rotated to
/// `zel.log.<process>-<pid>.<hhmmss>.<n>` once it passed 5242880 bytes, on a
/// date change and when it vanished; 10 files per process and time tag are
/// kept. The Logger's own complaints go to standard output, never into the log.
///
/// What survives: a line Log() accepted is staged in a memory-mapped file
/// (`<base>zel.<process>-<pid>.<n>.stage`) until it is on disk, so it outlives
/// the process's death by any signal; the next process that starts the log in
/// the same base writes it. Lines accepted before exit() or the library's
/// unloading are written before the process ends.
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
#include "utils/mutex.h"
#include "utils/rotating_file.h"
#include "utils/thread_annotations.h"

namespace zel {

namespace logdetail {
class LogWriter;
class ProcessLogHooks;
}  // namespace logdetail

/// @cond internal
// The library's path lock (log_paths.cpp), which guards mDirPrefix and
// mFixedDirPrefix. Declared here to name it in the lock rules; not exported.
Mutex& LogPathsMutex();
/// @endcond

/// A sink for log lines. Clients attach their own to the Logger (AddBackend);
/// attached sinks run on the Logger's thread, under its shared backend lock.
class ZEL_API LogBackend {
 public:
  /// Destroys the sink; detach it from the Logger first.
  virtual ~LogBackend() = default;
  /// Takes one line. The Logger calls this form for its sinks.
  /// @param msg The line as written to the file (prefix and newline included
  ///   for lines from log_print).
  /// @return The sink's own result; the Logger ignores it.
  virtual int Log(const std::string& msg) = 0;
  /// Default: the level and flag are ignored.
  /// @param msg The line.
  /// @param level Ignored by default.
  /// @param toBackends Ignored by default.
  /// @return Log(msg)'s result.
  virtual int Log(const std::string& msg, int level, bool toBackends) {
    (void)level;
    (void)toBackends;
    return Log(msg);
  }
};

/// One line as clients know it (the Logger stages the same three facts
/// itself). A plain record: whoever holds it guards it.
struct LogInfo {
  std::string msg;          ///< written as is: no prefix, no newline added
  int level = 3;            ///< stored, never read
  bool toBackends = false;  ///< also hand the line to the attached sinks
};

/// The process log. Create it through GetInstance (log_print does); it lives
/// until the process exits. Everything but Log/AddBackend/RemoveBackend runs on
/// the Logger's own thread (and, once, in the constructor). Lines are staged
/// in a fixed area (2 MiB of text, 32,768 lines): a caller waits while it is
/// full; a sink that logs on the Logger's thread never waits (its lines that
/// find no room are counted and reported as one line). The installed layout
/// of this class is ABI: its size and members' order stay.
class ZEL_API Logger : public LogBackend {
 public:
  /// Sets up the members and runs init(): day directory and writer thread.
  Logger();
  /// Writes what is staged (giving up after 5 s) and stops the writer. The
  /// current file stays open.
  ~Logger() override;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /// The singleton, created on first use (double-checked under sMutex). Any
  /// thread.
  /// @return The Logger; never destroyed.
  static Logger* GetInstance();

  /// Stage `msg` for writing: level 3, not to the sinks. Any thread; may
  /// wait for room.
  /// @param msg The line, written as is; copied.
  /// @return 0.
  int Log(const std::string& msg) override;
  /// Stage `msg` for writing. Any thread; may wait for room.
  /// @param msg The line, written as is; copied.
  /// @param level Stored, never read.
  /// @param toBackends Also hand the line to the attached sinks.
  /// @return 0.
  int Log(const std::string& msg, int level, bool toBackends) override;
  /// The same for a temporary: its text is copied like any other. Any thread.
  /// @param msg The line, written as is.
  /// @param level Stored, never read.
  /// @param toBackends Also hand the line to the attached sinks.
  /// @return 0.
  int Log(std::string&& msg, int level, bool toBackends);
  /// The same for `length` characters at `text`, copied into the staging
  /// area: no allocation. A line longer than the whole area is not staged:
  /// the call returns once it is written, in order. Any thread.
  /// @param text The line; the file gets it up to its first NUL.
  /// @param length Number of characters at `text`.
  /// @param level Stored, never read.
  /// @param toBackends Also hand the line to the attached sinks.
  /// @return 0.
  int Log(const char* text, size_t length, int level, bool toBackends);

  /// Attach a client sink (not owned). Takes the backend lock exclusively.
  /// Any thread.
  /// @param backend The sink; must stay alive until it is removed.
  void AddBackend(LogBackend* backend) ZEL_EXCLUDES(mBackendMutex);
  /// Detach a client sink (every entry of it). Takes the backend lock
  /// exclusively, so it waits for a sink call in progress. Any thread.
  /// @param backend The sink to detach.
  void RemoveBackend(LogBackend* backend) ZEL_EXCLUDES(mBackendMutex);

  /// Computes the day directory and starts the writer thread. Run by the
  /// constructor; not to be called again while lines are logged.
  /// @return Always 0.
  int init();
  /// Day directory: mFixedDirPrefix or BuildLogPath, plus "YYYYMMDD/".
  /// Recomputed (with a new time tag) only when the date changed. Logger
  /// thread only.
  /// @return The day directory, ending in "/".
  std::string getPrefix();
  /// Creates the day directory chain if needed and stores it in mLogDir.
  /// Logger thread only.
  void UpdateLogDir();
  /// Runs UpdateLogDir and notes the directory's length. Logger thread only.
  /// @return Always 0.
  int logFileInit();
  /// The stream lines go to. Logger thread only.
  /// @return getFile() in file mode, else stderr.
  FILE* getLogFp();
  /// The file to write now, rotating or (re)opening it as needed. Logger
  /// thread only.
  /// @return The open file, or null when it cannot be opened.
  FILE* getFile();
  /// Deletes the rotated file numbered index - 10 (mod 256), if present.
  /// Logger thread only.
  /// @param index The rotation number just used.
  void updateLogFile(unsigned char index);

  /// The singleton: null until GetInstance made it, then never changed.
  /// Atomic.
  static std::atomic<Logger*> sLogger;
  /// Held by GetInstance while it creates the singleton.
  static std::mutex sMutex;
  /// The day directory last computed ("" before the first). Written by the
  /// Logger thread and read by zel_get_log_path, both under the library's
  /// path lock; read it through zel_get_log_path. Never destroyed: the Logger
  /// thread may still read it while the process exits.
  ZEL_GUARDED_BY(LogPathsMutex())
  static std::string& mDirPrefix;
  /// The fixed log base ("" for the default). Written by zel_set_log_path and
  /// read by the Logger thread, both under the library's path lock; set it
  /// through zel_set_log_path. Never destroyed, like mDirPrefix.
  ZEL_GUARDED_BY(LogPathsMutex())
  static std::string& mFixedDirPrefix;

 private:
  friend class logdetail::ProcessLogHooks;

  // Whether today's local date is no longer mDay. Logger thread only.
  ZEL_INTERNAL bool DateChanged();
  // How this Logger's files are named right now.
  ZEL_INTERNAL logdetail::FileNaming Naming() const;

  // Guards mBackends: shared while sinks run, exclusive to attach or detach.
  SharedMutex mBackendMutex;
  std::string mUnused;  // never used
  // Directory, time tag, process tag and directory length of the file names,
  // the file mode and the day: Logger thread only (and init()).
  std::string mLogDir;
  std::string mTimeTag;
  std::string mProcTag;
  size_t mLogDirLen = 0;
  bool mFileMode = true;
  // Immutable: files kept and rotation size.
  uint32_t mMaxFileCount = 10;
  int32_t mMaxFileSize = 5242880;
  FILE* mFp = nullptr;  // never opened: the file written is the file-scope one
  std::string mDay;
  // Today's date text and the local-time conversion it came from: one
  // snprintf per second instead of one per line. Logger thread only.
  std::string mToday;
  uint64_t mTodayConversion = 0;
  // The writer (its staging area and its loop thread), made by init(); Log
  // reads the pointer unlocked, so init() is not called again while lines
  // are logged.
  std::unique_ptr<logdetail::LogWriter> mWriter;
  std::vector<LogBackend*> mBackends ZEL_GUARDED_BY(mBackendMutex);
};

/// Builds a log directory path and creates its last component if missing
/// (the full chain is UpdateLogDir's job). Any thread.
/// @param sub Sub-directory to append, or "" for none.
/// @return "/Users/" [+ $USER + "/Library/zel/"] [+ sub + "/"].
ZEL_API std::string BuildLogPath(const std::string& sub);

}  // namespace zel
