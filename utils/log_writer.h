// The writer behind both loggers (the process log and every LoggerFile):
// callers stage lines, one writer thread (the owner's loop thread) writes
// them. Internal; not installed.
//
// What it guarantees, on top of the owner's file rules:
//  - a staged line survives the process's death by any signal (StagingArea),
//    and is written by the next process that starts a log in that folder
//    (log_recovery.h);
//  - lines staged before exit(), a return from main or the library's
//    unloading are written before the process ends; a writer that does not
//    get through within kDrainLimit is given up, with a line on stdout;
//  - the backlog is bounded: a caller waits for room, the writer thread
//    itself (a sink that logs) never waits: what it cannot stage is counted
//    and reported as one line once there is room;
//  - the writer takes every staged line at once and writes them with one
//    write and one path check, cut exactly where the per-line rules would
//    rotate, so the files are those of a writer that wrote line by line and
//    kept up. A lone line is written as soon as the writer wakes.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "utils/looper.h"
#include "utils/mutex.h"
#include "utils/rotating_file.h"
#include "utils/staging_area.h"
#include "utils/thread_annotations.h"

namespace zel {
namespace logdetail {

// How long the end of a writer (exit, unloading, destruction) waits for its
// lines to reach the disk.
constexpr auto kDrainLimit = std::chrono::seconds(5);

// What the process log and a named log do differently. Writer thread only
// (and the owner's own calls of getFile).
class WriterOwner {
 public:
  virtual ~WriterOwner() = default;
  virtual void UpdateLogDir() = 0;
  virtual FileNaming Naming() = 0;
  // Whether the date changed since the current file was named (named logs
  // never rotate by date).
  virtual bool DateChanged() = 0;
  // Status lines around a rotation and an opening (named logs print some).
  virtual void Rotated(const char* from, const char* to) = 0;
  virtual void Opening(const char* path) = 0;
  // Deletes the rotation that fell out of the kept range (updateLogFile).
  virtual void RemoveExpired(unsigned char index) = 0;
  // The attached sinks, if the owner has any (the process log only).
  virtual class LineSinks* Sinks() { return nullptr; }
};

// Client sinks that get each line handed to them before it is written.
class LineSinks {
 public:
  virtual ~LineSinks() = default;
  virtual bool Attached() = 0;
  virtual void Take(const char* text, size_t length) = 0;
};

// The owner's fixed rules.
struct WriterRules {
  int renameErrorLine;  // printed by a failed rename ("getFile %d,rename error")
  int fpNullLine;       // printed for a line that finds no file ("operator() %d: fp is null")
  int32_t maxFileSize;
  uint32_t maxFileCount;
};

class LogWriter {
 public:
  // A writer for `owner`'s lines into `file`, staging them in `staging`. The
  // owner, the file and the writer must outlive... each other: the owner owns
  // the writer. Starts no thread.
  LogWriter(std::unique_ptr<WriterOwner> owner, RotatingFile& file, WriterRules rules,
            std::unique_ptr<StagingArea> staging);
  // Writes what is staged (giving up after kDrainLimit, with a line on
  // stdout), stops the writer thread, and removes the staging file once
  // everything is on disk. Owners end a writer through Dispose.
  ~LogWriter();

  // Ends `writer` as its destructor does; in a forked child (where the
  // writer thread does not exist and may have been waiting on the writer's
  // condition variables, which could then never be destroyed), or once the
  // exit handler gave up on its stuck thread, leaves it alone instead. Owner
  // only.
  static void Dispose(std::unique_ptr<LogWriter> writer);
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Starts the writer thread (a Looper's) once the owner is set up (it then
  // writes to files, not standard error); `first` runs there before any line
  // (recovery of dead processes' lines).
  void Start(std::function<void()> first);
  // The owner's names changed before its first line (a named log's SetName):
  // the file the staged lines are for is named again. Owner only.
  void NamingChanged();

  // Stages one line; any thread. 0, or -1 once the writer was stopped. Waits
  // for room while the staging area is full, except on the writer thread,
  // which counts the line as dropped instead. A line longer than the whole
  // staging area waits until everything before it is written and the writer
  // has written it. In a forked child (no writer thread there) the line is
  // accepted and goes nowhere, as it always did.
  int Append(const char* text, size_t length, bool toBackends) ZEL_EXCLUDES(mutex);

  // The file the next line goes to, rotated or (re)opened as the owner's
  // rules say (the owner's getFile). Writer thread only.
  FILE* CurrentFile();

  // Waits until everything staged is written, for at most `limit`; then stops
  // the writer thread. Later lines are written by the thread that logs them.
  // False when the writer did not get through (it is left running).
  bool Finish(std::chrono::milliseconds limit) ZEL_EXCLUDES(mutex);

 private:
  class Batch;

  // Holds `mutex`, and with it the staging ring that it guards.
  class ZEL_SCOPED_CAPABILITY RingLock : public MutexLock {
   public:
    explicit RingLock(LogWriter& writer) ZEL_ACQUIRE(writer.mutex, *writer.staging)
        : MutexLock(writer.mutex) {}
    ~RingLock() ZEL_RELEASE() {}
  };
  // Lets go of a RingLock's mutex and ring for a scope, and takes them back
  // at its end. An exception leaving the scope leaves them let go, as a plain
  // unlock would, and the RingLock knows it holds nothing.
  class ZEL_SCOPED_CAPABILITY RingUnlock {
   public:
    // `writer` names, for the lock checks, what `lock` holds.
    RingUnlock([[maybe_unused]] LogWriter& writer, RingLock& lock)
        ZEL_RELEASE(writer.mutex, *writer.staging)
        : held(lock), exceptions(std::uncaught_exceptions()) {
      held.native().unlock();
    }
    ~RingUnlock() ZEL_RELEASE() {
      if (std::uncaught_exceptions() == exceptions) held.native().lock();
    }
    RingUnlock(const RingUnlock&) = delete;
    RingUnlock& operator=(const RingUnlock&) = delete;

   private:
    RingLock& held;
    const int exceptions;
  };

  // The writer thread's loop: waits for lines, writes them, until stopped.
  void Run() ZEL_EXCLUDES(mutex);
  // Writes records [from, to), freeing them as they reach the disk. The
  // writer thread, or a caller once the writer is finished.
  void WriteRecords(uint64_t from, uint64_t to) ZEL_EXCLUDES(mutex);
  // A line too long to stage, written on its own.
  void WriteLongLine(const char* text, size_t length, bool toBackends) ZEL_EXCLUDES(mutex);
  // One line through the owner's rules into `batch`.
  void WriteLine(const char* text, size_t length, bool toBackends, bool& checked, Batch& batch)
      ZEL_EXCLUDES(mutex);
  // The file for the next line. The path is looked up for the first line of
  // a batch only (`checked` false); later lines go by what this writer wrote.
  // Flushes `batch` (if any) before a rotation.
  FILE* FileForLine(bool& checked, Batch* batch) ZEL_EXCLUDES(mutex);
  // The current file's size before a write, for recovery to tell what of
  // the write reached it.
  long FileSizeNow() const;
  // Hands a line too long to stage to the writer thread, in order, and waits
  // until it is written. Not on the writer thread, nor once it finished.
  int AppendLongLineLocked(RingLock& lock, const char* text, size_t length, bool toBackends)
      ZEL_REQUIRES(mutex, *staging);
  // Writes what is staged on the calling thread (once the writer finished),
  // letting go of `lock` meanwhile.
  void WriteStagedHereLocked(RingLock& lock) ZEL_REQUIRES(mutex, *staging);
  // Stages the line reporting what the writer thread dropped, once it fits.
  void ReportDropsLocked() ZEL_REQUIRES(mutex, *staging);
  // Says on stdout that the writer did not finish in time; its thread is
  // then neither waited for nor joined.
  void GiveUp() ZEL_EXCLUDES(mutex);
  bool OnWriterThread() const { return writerThread.load() == std::this_thread::get_id(); }

  const std::unique_ptr<WriterOwner> owner;
  RotatingFile& file;  // writer thread only (or a finishing caller, under writeHere)
  const WriterRules rules;
  // Its ring is guarded by mutex (RingLock holds both); the records the
  // writer took, and the fields only the writer writes, are the writer's.
  const std::unique_ptr<StagingArea> staging;

  Mutex mutex;
  std::condition_variable linesStaged;  // the writer waits here for lines
  std::condition_variable roomMade;     // callers wait here for room, or their long line
  std::condition_variable allWritten;   // Finish waits here
  bool writerWaiting ZEL_GUARDED_BY(mutex) = false;
  bool stopping ZEL_GUARDED_BY(mutex) = false;  // the writer thread leaves when empty
  bool finished ZEL_GUARDED_BY(mutex) = false;  // callers write their own lines
  // A line too long to stage, handed to the writer, and how many such lines
  // were written.
  const char* longText ZEL_GUARDED_BY(mutex) = nullptr;
  size_t longLength ZEL_GUARDED_BY(mutex) = 0;
  bool longToBackends ZEL_GUARDED_BY(mutex) = false;
  uint64_t longWritten ZEL_GUARDED_BY(mutex) = 0;
  // Lines of the writer thread itself that found no room.
  unsigned long long dropped ZEL_GUARDED_BY(mutex) = 0;
  // The current file's stream position as a line-by-line writer would read
  // it before the next line. Writer thread only.
  long position = 0;
  // Atomic: read unlocked.
  std::atomic<std::thread::id> writerThread{};
  // Set in a forked child, where the parent's writer thread does not exist
  // and its staging file is not the child's. Atomic: read unlocked.
  std::atomic<bool> orphaned{false};
  // Given up at exit: the thread is stuck and must not be joined. Atomic.
  std::atomic<bool> abandoned{false};
  // Serialises callers that write their own lines once the writer finished.
  // Taken without mutex held (what it serialises, WriteRecords and
  // WriteLongLine, exclude mutex); mutex may be taken under it.
  Mutex writeHere;
  // The writer thread. Made by Start; stopped by Finish or the destructor.
  std::unique_ptr<Looper> looper;

  friend void ForkedChild();
  friend void FinishAllAtExit();
};

}  // namespace logdetail
}  // namespace zel
