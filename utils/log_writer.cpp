#include "utils/log_writer.h"

#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "utils/log_line.h"

namespace zel {
namespace logdetail {

namespace {

// Every writer alive, for the exit and fork handlers. Never destroyed: the
// exit handler runs while statics are torn down.
struct Registry {
  Mutex mutex;
  std::vector<LogWriter*> writers ZEL_GUARDED_BY(mutex);
};
Registry& Writers() {
  static Registry* const registry = new Registry();
  return *registry;
}

void LockRegistry() ZEL_ACQUIRE(Writers().mutex) { Writers().mutex.Lock(); }
void UnlockRegistry() ZEL_RELEASE(Writers().mutex) { Writers().mutex.Unlock(); }

}  // namespace

// Runs in the child with the registry locked (LockRegistry, before fork).
void ForkedChild() ZEL_RELEASE(Writers().mutex);

// fork() copies no thread: in the child, every writer of the parent is left
// without its thread, and its staging file is still the parent's.
void ForkedChild() {
  for (LogWriter* writer : Writers().writers) writer->orphaned = true;
  UnlockRegistry();
}

// exit(), a return from main, or the library's unloading: every writer
// writes what it staged, all of them within kDrainLimit.
void FinishAllAtExit() {
  MutexLock lock(Writers().mutex);
  const auto deadline = std::chrono::steady_clock::now() + kDrainLimit;
  for (LogWriter* writer : Writers().writers) {
    if (writer->orphaned) continue;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (!writer->Finish(std::max(left, std::chrono::milliseconds(0)))) writer->GiveUp();
  }
}

namespace {

extern "C" void FinishAllAtExitHook() { FinishAllAtExit(); }
extern "C" void ForkedChildHook() ZEL_RELEASE(Writers().mutex) { ForkedChild(); }

// Once per process: registered with atexit from this library, the handler
// also runs when the library is unloaded.
void InstallProcessHooks() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::atexit(&FinishAllAtExitHook);
    pthread_atfork(&LockRegistry, &UnlockRegistry, &ForkedChildHook);
  });
}

// The writer's single message: it runs for the writer's whole life.
class WriterMessage : public Message {
 public:
  explicit WriterMessage(std::function<void()> body) : body(std::move(body)) {}
  void Run() override { body(); }

 private:
  std::function<void()> body;
};

// writev of everything in `iov`, going on after short writes; false when
// some of it could not be written.
bool WriteAll(int fd, std::vector<iovec>& iov) {
  size_t next = 0;
  while (next < iov.size()) {
    const int count = static_cast<int>(std::min<size_t>(iov.size() - next, IOV_MAX));
    const ssize_t n = writev(fd, iov.data() + next, count);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    size_t done = static_cast<size_t>(n);
    while (next < iov.size() && done >= iov[next].iov_len) done -= iov[next++].iov_len;
    if (next < iov.size()) {
      iov[next].iov_base = static_cast<char*>(iov[next].iov_base) + done;
      iov[next].iov_len -= done;
      if (n == 0) return false;
    }
  }
  return true;
}

}  // namespace

// The lines of one write: runs of text that follow each other in the
// staging ring become one piece each. Writer thread (or a finishing caller).
class LogWriter::Batch {
 public:
  Batch(LogWriter& writer, bool releases) : writer(writer), releases(releases) {}
  // The line being written is record `seq`: lines before it are in the batch.
  void At(uint64_t seq) { current = seq; }
  // Before the writer counts the line's bytes in the file's size.
  void Add(FILE* fp, const char* text, size_t length) {
    if (fp != target) Flush();
    target = fp;
    if (pieces.empty()) sizeBefore = writer.FileSizeNow();
    if (!pieces.empty()) {
      iovec& last = pieces.back();
      if (static_cast<char*>(last.iov_base) + last.iov_len == text) {
        last.iov_len += length;
        return;
      }
    }
    pieces.push_back({const_cast<char*>(text), length});
  }
  // Writes what the batch holds, then frees the records before the current one.
  void Flush() ZEL_EXCLUDES(writer.mutex) { FlushUpTo(current); }
  void FlushUpTo(uint64_t endSeq) ZEL_EXCLUDES(writer.mutex) {
    if (!pieces.empty()) {
      writer.staging->BeginWrite(endSeq, static_cast<uint64_t>(sizeBefore));
      if (!WriteAll(fileno(target), pieces)) writer.file.LostTrack();
      pieces.clear();
    }
    if (releases) {
      RingLock lock(writer);
      writer.staging->ReleaseLocked(endSeq);
      writer.roomMade.notify_all();
    }
  }

 private:
  LogWriter& writer;
  const bool releases;  // the lines are staged records (not a long line)
  uint64_t current = 0;
  FILE* target = nullptr;
  std::vector<iovec> pieces;
  long sizeBefore = 0;  // the target's size before the first piece
};

LogWriter::LogWriter(std::unique_ptr<WriterOwner> owner, RotatingFile& file, WriterRules rules,
                     std::unique_ptr<StagingArea> staging)
    : owner(std::move(owner)), file(file), rules(rules), staging(std::move(staging)) {
  InstallProcessHooks();
  MutexLock lock(Writers().mutex);
  Writers().writers.push_back(this);
}

void LogWriter::Dispose(std::unique_ptr<LogWriter> writer) {
  // An abandoned writer's thread is stuck inside it (given up at exit): the
  // writer, its hooks and its loop are never freed, and the thread is neither
  // waited for nor joined. (The owner's own members still go with the owner.)
  if (writer && (writer->orphaned || writer->abandoned)) (void)writer.release();
}

LogWriter::~LogWriter() {
  {
    MutexLock lock(Writers().mutex);
    auto& writers = Writers().writers;
    writers.erase(std::find(writers.begin(), writers.end(), this));
  }
  if (!Finish(std::chrono::duration_cast<std::chrono::milliseconds>(kDrainLimit))) {
    // Still stuck: stop it as the loop always stopped, waiting for the write
    // in progress. What is staged stays in the file for the next process.
    {
      MutexLock lock(mutex);
      stopping = true;
      linesStaged.notify_one();
    }
    looper->Stop();
    RingLock lock(*this);
    if (staging->HeadLocked() == staging->TailLocked()) staging->RemoveFile();
  }
}

void LogWriter::Start(std::function<void()> first) {
  // Known from the start: a process that dies before its first write still
  // leaves the name of the file its lines are for.
  NamingChanged();
  looper = std::make_unique<Looper>();
  looper->Start();
  looper->PostMessageAAA(std::make_unique<WriterMessage>([this, first = std::move(first)] {
    writerThread = std::this_thread::get_id();
    first();
    Run();
  }));
}

void LogWriter::NamingChanged() {
  if (file.fp == nullptr) staging->SetTarget(CurrentFileName(owner->Naming()).c_str());
}

void LogWriter::Run() {
  RingLock lock(*this);
  for (;;) {
    ReportDropsLocked();
    const uint64_t tail = staging->TailLocked();
    const uint64_t head = staging->HeadLocked();
    if (head != tail) {
      lock.Unlock();
      WriteRecords(tail, head);
      lock.Lock();
      continue;
    }
    if (longText != nullptr) {
      const char* text = longText;
      const size_t length = longLength;
      const bool toBackends = longToBackends;
      lock.Unlock();
      WriteLongLine(text, length, toBackends);
      lock.Lock();
      longText = nullptr;
      ++longWritten;
      roomMade.notify_all();
      continue;
    }
    allWritten.notify_all();
    if (stopping) break;
    writerWaiting = true;
    linesStaged.wait(lock.native());
    writerWaiting = false;
  }
}

void LogWriter::WriteRecords(uint64_t from, uint64_t to) {
  Batch batch(*this, true);
  bool checked = false;  // the path is looked up once a batch
  for (uint64_t seq = from; seq < to; ++seq) {
    batch.At(seq);
    const StagingArea::Record record = staging->At(seq);
    WriteLine(record.text, record.length, record.toBackends, checked, batch);
  }
  batch.FlushUpTo(to);
}

void LogWriter::WriteLongLine(const char* text, size_t length, bool toBackends) {
  Batch batch(*this, false);  // not staged: nothing to release
  bool checked = false;
  WriteLine(text, length, toBackends, checked, batch);
  batch.Flush();
}

void LogWriter::WriteLine(const char* text, size_t length, bool toBackends, bool& checked,
                          Batch& batch) {
  FILE* fp = FileForLine(checked, &batch);
  if (fp == nullptr) {
    printf("%s %d: fp is null \n", "operator()", rules.fpNullLine);
    return;
  }
  LineSinks* sinks = owner->Sinks();
  if (toBackends && sinks != nullptr && sinks->Attached()) {
    // A sink may look at the file: the lines before this one are on it.
    batch.Flush();
    sinks->Take(text, length);
  }
  // The file gets the text up to its first NUL, as "%s" would print it.
  const size_t bytes = strnlen(text, length);
  if (bytes == 0) {
    printf("zel log write error,ret[%d] \n", 0);
    owner->UpdateLogDir();  // a removed directory comes back
    return;
  }
  batch.Add(fp, text, bytes);
  file.Advance(bytes);
  position = file.KnownSize() >= 0 ? file.KnownSize() : position + static_cast<long>(bytes);
}

FILE* LogWriter::CurrentFile() {
  bool checked = false;
  return FileForLine(checked, nullptr);
}

FILE* LogWriter::FileForLine(bool& checked, Batch* batch) {
  if (file.fp != nullptr) {
    bool rotate = false;
    if (!checked) {
      rotate = file.MustRotate(rules.maxFileSize, &position);
      checked = true;
    } else {
      // Read as a 32-bit int, as the stream position always was.
      rotate = static_cast<int>(position) > rules.maxFileSize;
    }
    if (!rotate && !owner->DateChanged()) return file.fp;
    if (batch != nullptr) batch->Flush();  // the lines before this one go to the old file
    char rotated[kPathSize];
    file.RotateOut(owner->Naming(), rules.renameErrorLine, rotated);
    owner->Rotated(file.path, rotated);
    owner->RemoveExpired(file.index);
  }
  owner->UpdateLogDir();
  file.NameCurrent(owner->Naming());
  owner->Opening(file.path);
  FILE* fp = file.Open();
  staging->SetTarget(file.path);
  position = file.KnownSize() >= 0 ? file.KnownSize() : 0;
  checked = true;
  return fp;
}

long LogWriter::FileSizeNow() const {
  if (file.KnownSize() >= 0) return file.KnownSize();
  const off_t end = lseek(fileno(file.fp), 0, SEEK_END);
  return end < 0 ? 0 : static_cast<long>(end);
}

int LogWriter::Append(const char* text, size_t length, bool toBackends) {
  if (orphaned.load(std::memory_order_relaxed)) return 0;
  RingLock lock(*this);
  if (!staging->Fits(length)) {
    // A line too long to stage.
    if (OnWriterThread()) {
      ++dropped;
      return 0;
    }
    if (!finished) return AppendLongLineLocked(lock, text, length, toBackends);
    WriteStagedHereLocked(lock);
    lock.Unlock();  // writeHere is never taken with mutex held
    MutexLock here(writeHere);
    WriteLongLine(text, length, toBackends);
    return 0;
  }
  if (OnWriterThread()) {
    // A sink that logs: the writer cannot wait for itself.
    if (longText != nullptr || !staging->HasRoomLocked(length)) {
      ++dropped;
      return 0;
    }
  } else {
    // After Finish nothing is left staged for long: Finish and every later
    // line write what is staged, which makes the room waited for here.
    while (longText != nullptr || !staging->HasRoomLocked(length)) roomMade.wait(lock.native());
  }
  staging->AppendLocked(text, length, toBackends);
  if (finished) {
    WriteStagedHereLocked(lock);
    return 0;
  }
  const bool wake = writerWaiting;
  writerWaiting = false;
  lock.Unlock();
  if (wake) linesStaged.notify_one();
  return 0;
}

int LogWriter::AppendLongLineLocked(RingLock& lock, const char* text, size_t length,
                                    bool toBackends) {
  // In order: after everything staged before it, before anything after it.
  roomMade.wait(lock.native(), [this]() ZEL_REQUIRES(mutex, *staging) {
    return longText == nullptr && staging->HeadLocked() == staging->TailLocked();
  });
  longText = text;
  longLength = length;
  longToBackends = toBackends;
  const uint64_t ticket = longWritten + 1;
  if (writerWaiting) {
    writerWaiting = false;
    linesStaged.notify_one();
  }
  roomMade.wait(lock.native(),
                [this, ticket]() ZEL_REQUIRES(mutex) { return longWritten >= ticket; });
  return 0;
}

void LogWriter::WriteStagedHereLocked(RingLock& lock) {
  const uint64_t tail = staging->TailLocked();
  const uint64_t head = staging->HeadLocked();
  if (tail == head) return;
  RingUnlock unlocked(*this, lock);
  MutexLock here(writeHere);
  WriteRecords(tail, head);
}

void LogWriter::ReportDropsLocked() {
  if (dropped == 0) return;
  const std::string line =
      LineNow("zel log: " + std::to_string(dropped) +
              " lines logged on the log's own writer thread found no room and were dropped\n");
  if (!staging->Fits(line.size()) || !staging->HasRoomLocked(line.size())) return;
  staging->AppendLocked(line.data(), line.size(), false);
  dropped = 0;
}

bool LogWriter::Finish(std::chrono::milliseconds limit) {
  RingLock lock(*this);
  if (finished) return true;
  linesStaged.notify_one();
  const bool drained =
      allWritten.wait_for(lock.native(), limit, [this]() ZEL_REQUIRES(mutex, *staging) {
        return staging->HeadLocked() == staging->TailLocked() && longText == nullptr;
      });
  if (!drained) return false;
  stopping = true;
  linesStaged.notify_one();
  lock.Unlock();
  looper->Stop();  // the writer leaves once nothing is staged
  lock.Lock();
  finished = true;
  writerThread = std::thread::id();
  WriteStagedHereLocked(lock);  // what came after the writer's last look
  staging->RemoveFile();        // a clean end: nothing is left to recover
  return true;
}

void LogWriter::GiveUp() {
  abandoned = true;
  RingLock lock(*this);
  const unsigned long long left = staging->HeadLocked() - staging->TailLocked();
  if (staging->FileBacked()) {
    printf("zel log: gave up waiting %lld s for the disk; %llu lines stay staged in %s\n",
           static_cast<long long>(kDrainLimit.count()), left, staging->Path().c_str());
  } else {
    printf("zel log: gave up waiting %lld s for the disk; %llu lines are lost\n",
           static_cast<long long>(kDrainLimit.count()), left);
  }
  fflush(stdout);
}

}  // namespace logdetail
}  // namespace zel
