#include "utils/logger_file.h"

#include <unistd.h>

#include <atomic>

#include "utils/clock.h"
#include "utils/log_format.h"
#include "utils/log_recovery.h"
#include "utils/log_writer.h"

namespace zel {

using namespace logdetail;

LoggerFile* LoggerFile::sFileLogger = nullptr;
std::mutex LoggerFile::sMutex;

namespace {

// 256 KiB of text, 4,096 lines: named logs are quieter than the process log.
constexpr StagingArea::Sizes kStagingSizes{4096, uint64_t{256} * 1024};

// "<dir><name>.<pid>.<n>.stage": never a log file's name.
std::string StagingName(const std::string& name) {
  static std::atomic<unsigned> made{0};
  return name + "." + std::to_string(static_cast<long long>(getpid())) + "." +
         std::to_string(made++) + staging::kSuffix;
}

}  // namespace

namespace logdetail {

// A named log's side of the writer: its directory and names, the status
// lines around rotation and opening; no date rule, no sinks.
class NamedLogHooks : public WriterOwner {
 public:
  explicit NamedLogHooks(LoggerFile& file) : file(file) {}
  void UpdateLogDir() override { file.UpdateLogDir(); }
  FileNaming Naming() override { return file.Naming(); }
  bool DateChanged() override { return false; }  // a named file keeps its time tag for life
  void Rotated(const char* from, const char* to) override {
    printf("update loggerfile ,rename  [%s] to [%s] ...... \n", from, to);
  }
  void Opening(const char* path) override {
    printf("mCurFp is null, creatfile [%s] [%s] [%s]\n", file.mTag.c_str(), file.mTimeTag.c_str(),
           path);
  }
  void RemoveExpired(unsigned char index) override { file.updateLogFile(index); }

 private:
  LoggerFile& file;
};

}  // namespace logdetail

LoggerFile::LoggerFile(const std::string& dir)
    : mDir(dir), mTimeTag(logformat::TimeTag(timing::LocalNow())) {
  init();
}

LoggerFile::~LoggerFile() {
  LogWriter::Dispose(std::move(mWriter));  // writes what is staged first
  // Once the writer is stopped: a destroyed named log keeps no descriptor.
  mCurFile.Close();
  if (mFp != nullptr) fclose(mFp);
}

int LoggerFile::init() {
  mFileMode = false;
  UpdateLogDir();
  mLogDirLen = mLogDir.size();
  mFileMode = true;
  auto staging = std::make_unique<StagingArea>(mDir + StagingName(mName), staging::kNamedLog, "",
                                               kStagingSizes);
  LogWriter::Dispose(std::move(mWriter));  // a second init's predecessor
  mWriter = std::make_unique<LogWriter>(std::make_unique<NamedLogHooks>(*this), mCurFile,
                                        WriterRules{328, 201, mMaxFileSize, mMaxFileCount},
                                        std::move(staging));
  const std::string dir = mDir;
  mWriter->Start([dir] { RecoverNamedLog(dir); });
  return 0;
}

int LoggerFile::Log(const std::string& msg) { return Log(msg, 3, false); }

int LoggerFile::Log(const std::string& msg, int level, bool toBackends) {
  (void)level;       // stored by the record clients know, never read
  (void)toBackends;  // a named log has no sinks
  return mWriter->Append(msg.data(), msg.size(), false);
}

void LoggerFile::SetName(const std::string& name) {
  mName = name;
  mWriter->NamingChanged();
}

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

FILE* LoggerFile::getFile() { return mWriter->CurrentFile(); }

void LoggerFile::updateLogFile(unsigned char index) {
  mCurFile.RemoveExpired(Naming(), index, mMaxFileCount);
}

}  // namespace zel
