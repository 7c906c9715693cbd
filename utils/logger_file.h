/// @file
/// The layout of LoggerFile is ABI: clients allocate these objects, so their size and the places of
/// their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// A named log file: the process log's writer, size rotation and clean-up,
/// without date directories, process tag or sinks.
///
/// Each instance writes, on its own loop thread, to `<dir><name>.<hhmmss>.txt`
/// (the time tag is taken at construction and kept for life), rotating it to
/// `<dir><name>.<hhmmss>.<n>` once it passed 5242880 bytes or vanished, keeping
/// 10 files. `dir` must end in "/". Status lines go to standard output.
///
/// What survives: as for the process log, an accepted line is staged in a
/// memory-mapped file in `dir` (`<name>.<pid>.<n>.stage`) until it is on disk,
/// and the next LoggerFile made on `dir` writes what a dead process left.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "utils/export.h"
#include "utils/looper.h"
#include "utils/rotating_file.h"

namespace zel {

namespace logdetail {
class LogWriter;
class NamedLogHooks;
}  // namespace logdetail

/// One named log: its own writer thread, file and rotation. Log may be called
/// from any thread; the rest runs on the writer thread (and, once, in the
/// constructor), except SetName, which comes before the first line. Lines are
/// staged in a fixed area (256 KiB of text, 4,096 lines); a caller waits while
/// it is full. The installed layout of this class is ABI: its size and
/// members' order stay.
class ZEL_API LoggerFile {
 public:
  /// A line as clients know it (the named log stages the same facts itself).
  /// A plain record: whoever holds it guards it.
  struct LogFileInfo {
    std::string msg;          ///< written as is: no prefix, no newline added
    int level = 3;            ///< stored, never read
    bool toBackends = false;  ///< stored, never read: a named log has no sinks
  };

  /// Takes the time tag from the local time now, creates `dir` if needed and
  /// starts the writer thread. The file is opened by the first line.
  /// @param dir Directory of the files; must end in "/".
  explicit LoggerFile(const std::string& dir);
  /// Writes what is staged (giving up after 5 s), stops the writer and closes
  /// the current file.
  ~LoggerFile();
  LoggerFile(const LoggerFile&) = delete;
  LoggerFile& operator=(const LoggerFile&) = delete;

  /// Stage `msg` for writing, as is. Any thread; may wait for room.
  /// @param msg The line; copied.
  /// @return 0.
  virtual int Log(const std::string& msg);
  /// Stage `msg` for writing, as is. Any thread; may wait for room.
  /// @param msg The line; copied.
  /// @param level Stored, never read.
  /// @param toBackends Ignored: a named log has no sinks.
  /// @return 0.
  virtual int Log(const std::string& msg, int level, bool toBackends);

  /// The file-name stem ("" unless set). Call before the first line.
  /// @param name The stem; copied.
  void SetName(const std::string& name);

  /// Notes the directory and starts the writer thread. Run by the
  /// constructor; not to be called again while lines are logged.
  /// @return Always 0.
  int init();
  /// The directory given to the constructor.
  /// @return That directory.
  std::string getPrefix();
  /// Creates the directory chain of `dir` if needed; mLogDir = dir. Writer
  /// thread only.
  void UpdateLogDir();
  /// Runs UpdateLogDir and notes the directory's length. Writer thread only.
  /// @return Always 0.
  int logFileInit();
  /// The stream lines go to. Writer thread only.
  /// @return getFile() in file mode, else stderr.
  FILE* getLogFp();
  /// The file to write now, rotating or (re)opening it as needed. Writer
  /// thread only.
  /// @return The open file, or null when it cannot be opened.
  FILE* getFile();
  /// Deletes the rotated file numbered index - 10 (mod 256), if present.
  /// Writer thread only.
  /// @param index The rotation number just used.
  void updateLogFile(unsigned char index);

  /// For client code; the library itself never sets or reads it. Null at
  /// load; not guarded by the library.
  static LoggerFile* sFileLogger;
  /// For client code; the library itself never locks it.
  static std::mutex sMutex;

 private:
  friend class logdetail::NamedLogHooks;

  // How this instance's files are named.
  ZEL_INTERNAL logdetail::FileNaming Naming() const;

  std::string mDir;  // immutable: the constructor's directory
  // The stem: set by SetName before the first line, then read by the writer.
  std::string mName;
  std::shared_timed_mutex mBackendMutex;  // no sinks here: never locked
  std::string mUnused1;                   // never used
  std::string mLogDir;                    // writer thread only (and init())
  std::string mTimeTag;                   // immutable: set by the constructor
  std::string mTag;                       // never set; printed empty
  size_t mLogDirLen = 0;                  // writer thread only (and init())
  bool mFileMode = true;                  // writer thread only (and init())
  uint32_t mMaxFileCount = 10;            // immutable
  int32_t mMaxFileSize = 5242880;         // immutable
  FILE* mFp = nullptr;                    // never opened
  std::string mUnused2;                   // never used
  // The writer (its staging area and its loop thread), made by init(); Log
  // reads the pointer unlocked, so init() is not called again while lines
  // are logged.
  std::unique_ptr<logdetail::LogWriter> mWriter;
  // The open current file, its path and its next rotation number. Writer
  // thread only; the destructor closes it once the writer is stopped.
  logdetail::RotatingFile mCurFile;
};

}  // namespace zel
