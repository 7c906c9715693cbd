#include "utils/logger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "utils/local_time.h"
#include "utils/log_paths.h"
#include "utils/process_info.h"
#include "utils/queued_line.h"

namespace zel {

// The file actually written, its path and its next rotation number. File
// scope rather than members: every Logger of the process shares it (there is
// only ever one in practice). Logger thread only.
namespace {
logdetail::RotatingFile sCurFile;
}  // namespace

std::atomic<Logger*> Logger::sLogger{nullptr};
std::mutex Logger::sMutex;
std::string& Logger::mDirPrefix = *new std::string();
std::string& Logger::mFixedDirPrefix = *new std::string();

using namespace logdetail;

std::string BuildLogPath(const std::string& sub) {
  std::string path = "/Users/";
  if (const char* user = getenv("USER")) {
    path += user;
    path += "/";
    path += "Library/zel/";
  }
  if (!sub.empty()) {
    path += sub;
    path += "/";
  }
  if (!IsDirectory(path.c_str()) && mkdir(path.c_str(), 0755) != 0) {
    printf("mkdir[%s] error[%s %d] \n", path.c_str(), "BuildLogPath", 630);
  }
  return path;
}

Logger::Logger() { init(); }

Logger::~Logger() {
  if (mLooper) mLooper->Stop();
  if (mFp != nullptr) fclose(mFp);
}

Logger* Logger::GetInstance() {
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger == nullptr) {
    std::lock_guard<std::mutex> lock(sMutex);
    logger = sLogger.load(std::memory_order_relaxed);
    if (logger == nullptr) {
      logger = new Logger();
      sLogger.store(logger, std::memory_order_release);
    }
  }
  return logger;
}

int Logger::init() {
  mFileMode = false;
  UpdateLogDir();
  mLogDirLen = mLogDir.size();
  mFileMode = true;
  mLooper = std::make_unique<Looper>();
  mLooper->Start();
  return 0;
}

int Logger::Log(const std::string& msg) { return Log(msg, 3, false); }

int Logger::Log(const std::string& msg, int level, bool toBackends) {
  return Log(msg.data(), msg.size(), level, toBackends);
}

int Logger::Log(std::string&& msg, int level, bool toBackends) {
  return Log(msg.data(), msg.size(), level, toBackends);
}

int Logger::Log(const char* text, size_t length, int level, bool toBackends) {
  (void)level;  // stored by the record clients know, never read
  return mLooper->PostMessageAAA(QueuedLine::Make(&WriteLine, this, text, length, toBackends));
}

void Logger::WriteLine(void* logger, const char* text, size_t length, bool toBackends) {
  static_cast<Logger*>(logger)->Write(text, length, toBackends);
}

void Logger::AddBackend(LogBackend* backend) {
  std::unique_lock<std::shared_timed_mutex> lock(mBackendMutex);
  mBackends.push_back(backend);
}

void Logger::RemoveBackend(LogBackend* backend) {
  std::unique_lock<std::shared_timed_mutex> lock(mBackendMutex);
  mBackends.erase(std::remove(mBackends.begin(), mBackends.end(), backend), mBackends.end());
}

std::string Logger::getPrefix() {
  const std::string processName = get_process_name();
  const struct tm local = LocalNow();
  const std::string day = DateText(local);
  const std::string last = DayDirectory();
  if (day == mDay && !last.empty()) return last;
  mDay = day;
  mTimeTag = TimeTag(local);
  mProcTag = processName + "-" + std::to_string(static_cast<long long>(getpid()));
  const std::string base = FixedBase();
  std::string dir;
  if (!base.empty()) {
    dir = base + day;
    SetDayDirectory(dir);
    printf("%s %d: prefix[%s]\n", "getPrefix", 183, dir.c_str());
  } else {
    dir = BuildLogPath(day);
    SetDayDirectory(dir);
  }
  return dir;
}

void Logger::UpdateLogDir() {
  const std::string prefix = getPrefix();
  MakeDirectoryChain(prefix);
  mLogDir = prefix;
}

int Logger::logFileInit() {
  UpdateLogDir();
  mLogDirLen = mLogDir.size();
  return 0;
}

FILE* Logger::getLogFp() { return mFileMode ? getFile() : stderr; }

logdetail::FileNaming Logger::Naming() const {
  return {mLogDir, mLogDirLen, "zel.log." + mProcTag, mTimeTag};
}

FILE* Logger::getFile() {
  if (sCurFile.fp != nullptr) {
    // Today's date as of this line: the time zone may have moved since the
    // last one (a travelling laptop), so nothing is cached.
    if (!sCurFile.MustRotate(mMaxFileSize) && !DateChanged()) return sCurFile.fp;
    char rotated[kPathSize];
    // Into the old day's directory: mLogDir is not refreshed until the reopen below.
    sCurFile.RotateOut(Naming(), 556, rotated);
    updateLogFile(sCurFile.index);
  }
  UpdateLogDir();
  sCurFile.NameCurrent(Naming());
  return sCurFile.Open();
}

void Logger::updateLogFile(unsigned char index) {
  sCurFile.RemoveExpired(Naming(), index, mMaxFileCount);
}

bool Logger::DateChanged() {
  // Today's date as of this line: the time zone may have moved since the
  // last one (a travelling laptop).
  const LocalSecond& now = LocalTimeAt(time(nullptr));
  if (now.conversion != mTodayConversion) {
    mToday = DateText(now.local);
    mTodayConversion = now.conversion;
  }
  return mToday != mDay;
}

void Logger::Write(const char* text, size_t length, bool toBackends) {
  FILE* fp = mFileMode ? getFile() : stderr;
  if (fp == nullptr) {
    printf("%s %d: fp is null \n", "operator()", 333);
    return;
  }
  if (toBackends) {
    std::shared_lock<std::shared_timed_mutex> lock(mBackendMutex);
    if (!mBackends.empty()) {
      const std::string line(text, length);
      for (LogBackend* backend : mBackends) backend->Log(line);
    }
  }
  // A removed directory comes back; the open handle itself is kept.
  const int written = PrintLine(fp, text);
  if (written <= 0) UpdateLogDir();
  // Every line reaches the file before the next one is taken: nothing
  // written is lost when the process dies.
  if (mFileMode) sCurFile.Flushed(written, fflush(fp) == 0);
}

}  // namespace zel
