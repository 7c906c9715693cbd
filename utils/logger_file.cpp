#include "utils/logger_file.h"

namespace zel {

using namespace logdetail;

LoggerFile* LoggerFile::sFileLogger = nullptr;
std::mutex LoggerFile::sMutex;

LoggerFile::LoggerFile(const std::string& dir) : mDir(dir), mTimeTag(TimeTag(LocalNow())) {
  init();
}

LoggerFile::~LoggerFile() {
  if (mHandler) mHandler->looper->Stop();
  if (mFp != nullptr) fclose(mFp);
}

int LoggerFile::init() {
  mFileMode = false;
  UpdateLogDir();
  mLogDirLen = mLogDir.size();
  mFileMode = true;
  mHandler =
      std::make_unique<Handler<LogFileInfo>>([this](LogFileInfo* info) { Write(info); });
  mHandler->looper->Start();
  return 0;
}

int LoggerFile::Log(const std::string& msg) { return Log(msg, 3, false); }

int LoggerFile::Log(const std::string& msg, int level, bool toBackends) {
  return mHandler->Post(new LogFileInfo{msg, level, toBackends});
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

FILE* LoggerFile::getFile() {
  if (mCurFp != nullptr) {
    const int pos = static_cast<int>(ftell(mCurFp));
    // Never rotated by the date: a named file keeps its time tag for life.
    if (pos <= mMaxFileSize && IsRegularFile(mCurPath)) return mCurFp;

    fclose(mCurFp);
    char rotated[kPathSize];
    FormatInDir(rotated, mLogDir, mLogDirLen, "%s.%s.%u", mName.c_str(), mTimeTag.c_str(),
                static_cast<unsigned>(mFileIndex));
    if (rename(mCurPath, rotated) != 0) printf("%s %d,rename error\n", "getFile", 328);
    mCurFp = nullptr;
    ++mFileIndex;
    printf("update loggerfile ,rename  [%s] to [%s] ...... \n", mCurPath, rotated);
    updateLogFile(mFileIndex);
  }
  UpdateLogDir();
  FormatInDir(mCurPath, mLogDir, mLogDirLen, "%s.%s.%s", mName.c_str(), mTimeTag.c_str(), "txt");
  printf("mCurFp is null, creatfile [%s] [%s] [%s]\n", mTag.c_str(), mTimeTag.c_str(), mCurPath);
  mCurPath[kPathSize - 1] = '\0';
  mCurFp = fopen(mCurPath, "a");
  return mCurFp;
}

void LoggerFile::updateLogFile(unsigned char index) {
  char name[kPathSize];
  FormatInDir(name, mLogDir, mLogDirLen, "%s.%s.%u", mName.c_str(), mTimeTag.c_str(),
              static_cast<unsigned>(static_cast<uint8_t>(index - mMaxFileCount)));
  if (name[0] != '\0' && IsRegularFile(name) && remove(name) != 0) {
    printf("delete file: %s failed\n", name);
  }
}

void LoggerFile::Write(LogFileInfo* info) {
  FILE* fp = mFileMode ? getFile() : stderr;
  if (fp == nullptr) {
    printf("%s %d: fp is null \n", "operator()", 201);
    return;
  }
  const int written = fprintf(fp, "%s", info->msg.c_str());
  if (written < 1) {
    printf("zel log write error,ret[%d] \n", written);
    UpdateLogDir();
  }
  if (mFileMode) fflush(fp);
}

}  // namespace zel
