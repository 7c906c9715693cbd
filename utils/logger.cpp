#include "utils/logger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "utils/clock.h"
#include "utils/log_format.h"
#include "utils/log_paths.h"
#include "utils/log_recovery.h"
#include "utils/log_writer.h"
#include "utils/process_info.h"

namespace zel {

// The file actually written, its path and its next rotation number. File
// scope rather than members: every Logger of the process shares it (there is
// only ever one in practice). Logger thread only.
namespace {
logdetail::RotatingFile sCurFile;

// 2 MiB of text, 32,768 lines: a few seconds of a busy process's lines.
constexpr logdetail::StagingArea::Sizes kStagingSizes{32768, uint64_t{2} * 1024 * 1024};

// The base the day directories go under, as getPrefix picks it, without
// creating anything.
std::string LogBase() {
  std::string fixed = logdetail::FixedBase();
  if (!fixed.empty()) return fixed;
  return logformat::DefaultBase(getenv("USER"));
}

// "<day directory>zel.<process>-<pid>.<n>.stage": beside the file it stages
// for, and never a log file's name.
std::string StagingPath(const std::string& dayDir, const std::string& procTag) {
  static std::atomic<unsigned> made{0};
  return dayDir + "zel." + procTag + "." + std::to_string(made++) + logdetail::staging::kSuffix;
}

}  // namespace

namespace logdetail {

// The process log's side of the writer: its directory, names, date rule and
// sinks.
class ProcessLogHooks : public WriterOwner, public LineSinks {
 public:
  explicit ProcessLogHooks(Logger& logger) : logger(logger) {}
  void UpdateLogDir() override { logger.UpdateLogDir(); }
  FileNaming Naming() override { return logger.Naming(); }
  bool DateChanged() override { return logger.DateChanged(); }
  void Rotated(const char*, const char*) override {}
  void Opening(const char*) override {}
  void RemoveExpired(unsigned char index) override { logger.updateLogFile(index); }
  LineSinks* Sinks() override { return this; }
  bool Attached() override {
    ReaderLock lock(logger.mBackendMutex);
    return !logger.mBackends.empty();
  }
  void Take(const char* text, size_t length) override {
    ReaderLock lock(logger.mBackendMutex);
    if (logger.mBackends.empty()) return;
    const std::string line(text, length);
    for (LogBackend* backend : logger.mBackends) backend->Log(line);
  }

 private:
  Logger& logger;
};

}  // namespace logdetail

std::atomic<Logger*> Logger::sLogger{nullptr};
std::mutex Logger::sMutex;
std::string& Logger::mDirPrefix = *new std::string();
std::string& Logger::mFixedDirPrefix = *new std::string();

using namespace logdetail;

std::string BuildLogPath(const std::string& sub) {
  std::string path = logformat::DefaultBase(getenv("USER"));
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
  LogWriter::Dispose(std::move(mWriter));  // writes what is staged first
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
  const std::string base = LogBase();
  auto staging = std::make_unique<StagingArea>(StagingPath(mLogDir, mProcTag), staging::kProcessLog,
                                               get_process_name(), kStagingSizes);
  LogWriter::Dispose(std::move(mWriter));  // a second init's predecessor
  mWriter = std::make_unique<LogWriter>(std::make_unique<ProcessLogHooks>(*this), sCurFile,
                                        WriterRules{556, 333, mMaxFileSize, mMaxFileCount},
                                        std::move(staging));
  mWriter->Start([base] { RecoverProcessLog(base); });
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
  return mWriter->Append(text, length, toBackends);
}

void Logger::AddBackend(LogBackend* backend) {
  WriterLock lock(mBackendMutex);
  mBackends.push_back(backend);
}

void Logger::RemoveBackend(LogBackend* backend) {
  WriterLock lock(mBackendMutex);
  mBackends.erase(std::remove(mBackends.begin(), mBackends.end(), backend), mBackends.end());
}

std::string Logger::getPrefix() {
  const std::string processName = get_process_name();
  const struct tm local = timing::LocalNow();
  const std::string day = logformat::DateText(local);
  std::string last = DayDirectory();
  if (day == mDay && !last.empty()) return last;
  mDay = day;
  mTimeTag = logformat::TimeTag(local);
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
  return {mLogDir, mLogDirLen, logformat::kLogFilePrefix + mProcTag, mTimeTag};
}

FILE* Logger::getFile() { return mWriter->CurrentFile(); }

void Logger::updateLogFile(unsigned char index) {
  sCurFile.RemoveExpired(Naming(), index, mMaxFileCount);
}

bool Logger::DateChanged() {
  // Today's date as of this line: the time zone may have moved since the
  // last one (a travelling laptop).
  const timing::LocalSecond& now = timing::LocalTimeAt(time(nullptr));
  if (now.conversion != mTodayConversion) {
    mToday = logformat::DateText(now.local);
    mTodayConversion = now.conversion;
  }
  return mToday != mDay;
}

}  // namespace zel
