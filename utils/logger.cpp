#include "utils/logger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "utils/process_info.h"

namespace zel {

// The file actually written. File-scope rather than members: every Logger of
// the process shares them (there is only ever one in practice).
namespace {
FILE* sCurFp = nullptr;
char sCurPath[logdetail::kPathSize] = {};
uint8_t sFileIndex = 0;  // next rotation number; wraps, never reset
}  // namespace

std::atomic<Logger*> Logger::sLogger{nullptr};
std::mutex Logger::sMutex;
std::string& Logger::mDirPrefix = *new std::string();
std::string& Logger::mFixedDirPrefix = *new std::string();

namespace logdetail {

bool IsDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsRegularFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

struct tm LocalNow() {
  const time_t now = time(nullptr);
  struct tm local {};
  // localtime_r: same result as localtime without re-reading the zone file on
  // every call.
  localtime_r(&now, &local);
  return local;
}

std::string DateText(const struct tm& local) {
  char text[32];
  snprintf(text, sizeof(text), "%04d%02d%02d/", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday);
  return text;
}

std::string TimeTag(const struct tm& local) {
  char text[32];
  snprintf(text, sizeof(text), "%02d%02d%02d", local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

void MakeDirectoryChain(const std::string& dir) {
  if (IsDirectory(dir.c_str()) || dir.size() > kPathSize - 1) return;
  char path[kPathSize] = {};
  memcpy(path, dir.data(), dir.size());
  size_t len = dir.size();
  // Room permitting: a 255-character path has no space left for the slash.
  if ((len == 0 || path[len - 1] != '/') && len < kPathSize - 1) path[len++] = '/';
  for (size_t i = 1; i < len; ++i) {
    if (path[i] != '/' && path[i] != '\\') continue;
    const char separator = path[i];
    path[i] = '\0';
    if (!IsDirectory(path) && mkdir(path, 0755) == -1) {
      printf("mkdir error,[%s]\n", path);
      return;
    }
    path[i] = separator;
  }
}

void FormatInDir(char (&out)[kPathSize], const std::string& dir, size_t dirLen,
                 const char* format, ...) {
  dirLen = std::min(dirLen, kPathSize - 1);
  // strncpy semantics: a directory shorter than the captured length leaves
  // zeros up to it (so the name is cut off) instead of reading past its end.
  strncpy(out, dir.c_str(), dirLen);
  out[dirLen] = '\0';
  va_list args;
  va_start(args, format);
  vsnprintf(out + dirLen, kPathSize - dirLen, format, args);
  va_end(args);
  out[kPathSize - 1] = '\0';
}

}  // namespace logdetail

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
  if (mHandler) mHandler->looper->Stop();
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
  mHandler = std::make_unique<Handler<LogInfo>>([this](LogInfo* info) { Write(info); });
  mHandler->looper->Start();
  return 0;
}

int Logger::Log(const std::string& msg) { return Log(msg, 3, false); }

int Logger::Log(const std::string& msg, int level, bool toBackends) {
  return Log(std::string(msg), level, toBackends);
}

int Logger::Log(std::string&& msg, int level, bool toBackends) {
  return mHandler->Post(new LogInfo{std::move(msg), level, toBackends});
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
  // Deliberately unlocked: zel_set_log_path/zel_get_log_path share these statics.
  if (day == mDay && !mDirPrefix.empty()) return mDirPrefix;
  mDay = day;
  mTimeTag = TimeTag(local);
  mProcTag = processName + "-" + std::to_string(static_cast<long long>(getpid()));
  if (!mFixedDirPrefix.empty()) {
    mDirPrefix = mFixedDirPrefix + day;
    printf("%s %d: prefix[%s]\n", "getPrefix", 183, mDirPrefix.c_str());
  } else {
    mDirPrefix = BuildLogPath(day);
  }
  return mDirPrefix;
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

FILE* Logger::getFile() {
  if (sCurFp != nullptr) {
    const int pos = static_cast<int>(ftell(sCurFp));
    // Today's date as of this line: the time zone may have moved since the
    // last one (a travelling laptop), so nothing is cached.
    if (pos <= mMaxFileSize && DateText(LocalNow()) == mDay && IsRegularFile(sCurPath)) {
      return sCurFp;
    }

    fclose(sCurFp);
    char rotated[kPathSize];
    // The old day's directory: mLogDir is not refreshed until the reopen below.
    FormatInDir(rotated, mLogDir, mLogDirLen, "zel.log.%s.%s.%u", mProcTag.c_str(),
                mTimeTag.c_str(), static_cast<unsigned>(sFileIndex));
    if (rename(sCurPath, rotated) != 0) printf("%s %d,rename error\n", "getFile", 556);
    sCurFp = nullptr;
    ++sFileIndex;
    updateLogFile(sFileIndex);
  }
  UpdateLogDir();
  FormatInDir(sCurPath, mLogDir, mLogDirLen, "zel.log.%s.%s.%s", mProcTag.c_str(),
              mTimeTag.c_str(), "txt");
  sCurPath[kPathSize - 1] = '\0';
  sCurFp = fopen(sCurPath, "a");
  return sCurFp;
}

void Logger::updateLogFile(unsigned char index) {
  char name[kPathSize];
  FormatInDir(name, mLogDir, mLogDirLen, "zel.log.%s.%s.%u", mProcTag.c_str(), mTimeTag.c_str(),
              static_cast<unsigned>(static_cast<uint8_t>(index - mMaxFileCount)));
  if (name[0] != '\0' && IsRegularFile(name) && remove(name) != 0) {
    printf("delete file: %s failed\n", name);
  }
}

void Logger::Write(LogInfo* info) {
  FILE* fp = mFileMode ? getFile() : stderr;
  if (fp == nullptr) {
    printf("%s %d: fp is null \n", "operator()", 333);
    return;
  }
  if (info->toBackends) {
    std::shared_lock<std::shared_timed_mutex> lock(mBackendMutex);
    for (LogBackend* backend : mBackends) backend->Log(info->msg);
  }
  const int written = fprintf(fp, "%s", info->msg.c_str());
  if (written <= 0) {
    printf("zel log write error,ret[%d] \n", written);
    // A removed directory comes back; the open handle itself is kept.
    UpdateLogDir();
    if (mFileMode) fflush(fp);
  } else if (mFileMode) {
    // Every line reaches the file before the next one is taken: nothing
    // written is lost when the process dies.
    fflush(fp);
  }
}

}  // namespace zel
