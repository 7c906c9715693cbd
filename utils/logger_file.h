// A named log file: the process log's writer, size rotation and clean-up,
// without date directories, process tag or sinks.
//
// Each instance writes, on its own loop thread, to <dir><name>.<hhmmss>.txt
// (the time tag is taken at construction and kept for life), rotating it to
// <dir><name>.<hhmmss>.<n> once it passed 5242880 bytes or vanished, keeping
// 10 files. `dir` must end in "/". Status lines go to standard output.
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

class ZEL_API LoggerFile {
 public:
  // The record of a queued line that clients know; queued lines travel as
  // messages that carry their text inline (one allocation each).
  struct LogFileInfo {
    std::string msg;
    int level = 3;
    bool toBackends = false;
  };

  // Takes the time tag from the local time now, creates `dir` if needed and
  // starts the writer thread. The file is opened by the first line.
  explicit LoggerFile(const std::string& dir);
  // Stops the writer (queued lines are dropped) and closes the current file.
  ~LoggerFile();
  LoggerFile(const LoggerFile&) = delete;
  LoggerFile& operator=(const LoggerFile&) = delete;

  // Queue `msg` for writing, as is. 0 posted, -1 refused.
  virtual int Log(const std::string& msg);
  virtual int Log(const std::string& msg, int level, bool toBackends);

  // The file-name stem ("" unless set). Call before the first line.
  void SetName(const std::string& name);

  int init();
  // The directory given to the constructor.
  std::string getPrefix();
  // Creates the directory chain of `dir` if needed; mLogDir = dir.
  void UpdateLogDir();
  int logFileInit();
  FILE* getLogFp();
  // The file to write now, rotating or (re)opening it as needed.
  FILE* getFile();
  // Deletes the rotated file numbered index - 10 (mod 256), if present.
  void updateLogFile(unsigned char index);

  // For client code; the library itself never sets or reads them.
  static LoggerFile* sFileLogger;
  static std::mutex sMutex;

 private:
  // The writer: one line, on this instance's thread. WriteLine is how a
  // queued line reaches it.
  ZEL_INTERNAL void Write(const char* text);
  ZEL_INTERNAL static void WriteLine(void* file, const char* text, size_t length, bool toBackends);
  // How this instance's files are named.
  ZEL_INTERNAL logdetail::FileNaming Naming() const;

  std::string mDir;
  std::string mName;
  std::shared_timed_mutex mBackendMutex;  // no sinks here: never locked
  std::string mUnused1;
  std::string mLogDir;
  std::string mTimeTag;
  std::string mTag;  // never set; printed empty
  size_t mLogDirLen = 0;
  bool mFileMode = true;
  uint32_t mMaxFileCount = 10;
  int32_t mMaxFileSize = 5242880;
  FILE* mFp = nullptr;  // never opened
  std::string mUnused2;
  // The writer's loop, made by init(); Log reads it unlocked, so init() is
  // not called again while lines are logged.
  std::unique_ptr<Looper> mLooper;
  // The open current file, its path and its next rotation number.
  logdetail::RotatingFile mCurFile;
};

}  // namespace zel
