#include "utils/logger_file.h"

#include "utils/queued_line.h"

namespace zel {

using namespace logdetail;

LoggerFile* LoggerFile::sFileLogger = nullptr;
std::mutex LoggerFile::sMutex;

LoggerFile::LoggerFile(const std::string& dir) : mDir(dir), mTimeTag(TimeTag(LocalNow())) {
  init();
}

LoggerFile::~LoggerFile() {
  if (mLooper) mLooper->Stop();
  // Once the writer is stopped: a destroyed named log keeps no descriptor.
  mCurFile.Close();
  if (mFp != nullptr) fclose(mFp);
}

int LoggerFile::init() {
  mFileMode = false;
  UpdateLogDir();
  mLogDirLen = mLogDir.size();
  mFileMode = true;
  mLooper = std::make_unique<Looper>();
  mLooper->Start();
  return 0;
}

int LoggerFile::Log(const std::string& msg) { return Log(msg, 3, false); }

int LoggerFile::Log(const std::string& msg, int level, bool toBackends) {
  (void)level;  // stored by the record clients know, never read
  return mLooper->PostMessageAAA(
      QueuedLine::Make(&WriteLine, this, msg.data(), msg.size(), toBackends));
}

void LoggerFile::SetName(const std::string& name) { mName = name; }

std::string LoggerFile::getPrefix() { return mDir; }

void LoggerFile::UpdateLogDir() {
  MakeDirectoryChain(mDir);
  mLogDir = mDir;
}

int LoggerFile::logFileInit() {
  UpdateLogDir();
  mLogDirLen = mLogDir.size();
  return 0;
}

FILE* LoggerFile::getLogFp() { return mFileMode ? getFile() : stderr; }

logdetail::FileNaming LoggerFile::Naming() const { return {mLogDir, mLogDirLen, mName, mTimeTag}; }

FILE* LoggerFile::getFile() {
  if (mCurFile.fp != nullptr) {
    // Never rotated by the date: a named file keeps its time tag for life.
    if (!mCurFile.MustRotate(mMaxFileSize)) return mCurFile.fp;
    char rotated[kPathSize];
    mCurFile.RotateOut(Naming(), 328, rotated);
    printf("update loggerfile ,rename  [%s] to [%s] ...... \n", mCurFile.path, rotated);
    updateLogFile(mCurFile.index);
  }
  UpdateLogDir();
  mCurFile.NameCurrent(Naming());
  printf("mCurFp is null, creatfile [%s] [%s] [%s]\n", mTag.c_str(), mTimeTag.c_str(),
         mCurFile.path);
  return mCurFile.Open();
}

void LoggerFile::updateLogFile(unsigned char index) {
  mCurFile.RemoveExpired(Naming(), index, mMaxFileCount);
}

void LoggerFile::WriteLine(void* file, const char* text, size_t, bool) {
  static_cast<LoggerFile*>(file)->Write(text);
}

void LoggerFile::Write(const char* text) {
  FILE* fp = mFileMode ? getFile() : stderr;
  if (fp == nullptr) {
    printf("%s %d: fp is null \n", "operator()", 201);
    return;
  }
  const int written = PrintLine(fp, text);
  if (written <= 0) UpdateLogDir();
  if (mFileMode) mCurFile.Flushed(written, fflush(fp) == 0);
}

}  // namespace zel
