// Helper for the tests of what survives the end of a process: logs numbered
// lines through log_print, then ends at once in the way asked for.
//
//   log_end_child <base/> <lines> exit     exit(1) right after the last line
//   log_end_child <base/> <lines> return   returns from main
//   log_end_child <base/> <lines> abort    abort()
//   log_end_child <base/> <lines> segv     a fault (a write through a null pointer)
//   log_end_child <base/> <lines> kill     SIGKILL, as a watchdog would send it
//   log_end_child <base/> <lines> stuck    exit(0) while a sink holds the writer for ever
//   log_end_child <base/> <lines> stuckmem the same, staging in memory (no file can be made)
//   log_end_child <base/> <lines> stuckowned
//                                          the same with a Logger of its own, held by a global
//                                          made before the log started: destroyed after the
//                                          exit handler gave up on it
//   log_end_child <base/> <lines> late     exit(0); then an exit handler that ran before the
//                                          log started logs <lines> more and a 3 MiB line
//   log_end_child <base/> <lines> <end> held
//                                          the same, while a sink holds the writer from the
//                                          first line on: every line is still staged at the end
//
// Line i reads "[prefix] line NNNNN of <pid>". Exit status 2 on bad use.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "utils/logger.h"
#include "utils/zel_log.h"

namespace {

// A sink that never returns: the writer thread stops at the first line it gets.
class StuckSink : public zel::LogBackend {
 public:
  int Log(const std::string&) override {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [] { return false; });
    return 0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
};

int gLateLines = 0;

// Made before main, so destroyed after the log's exit handler has run.
std::optional<zel::Logger> gOwnedLogger;

// Registered before the log starts, so it runs after the log's own exit
// handler: its lines are written by the thread that logs them.
void LogLate() {
  for (int i = 0; i < gLateLines; ++i) {
    log_print(3, 0, "late %05d of %d", i, static_cast<int>(getpid()));
  }
  zel::Logger::GetInstance()->Log(std::string(3 * 1024 * 1024, 'L') + "\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && !(argc == 5 && std::strcmp(argv[4], "held") == 0)) return 2;
  const std::string how = argv[3];
  const bool held = argc == 5;
  const int lines = std::atoi(argv[2]);
  // No core files from the deaths asked for.
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  zel_set_log_path(argv[1]);
  if (how == "late") {
    gLateLines = lines;
    atexit(&LogLate);
  }
  if (how == "stuckmem") {
    // Too small a file size for a staging file; the writes fail instead of
    // ending the process.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit small{64 * 1024, 64 * 1024};
    setrlimit(RLIMIT_FSIZE, &small);
  }
  if (how == "stuckowned") {
    gOwnedLogger.emplace();
    gOwnedLogger->AddBackend(new StuckSink());
    for (int i = 0; i < lines; ++i) {
      gOwnedLogger->Log("[owned] line " + std::to_string(100000 + i).substr(1) + " of " +
                            std::to_string(getpid()) + "\n",
                        3, true);
    }
    exit(0);
  }
  const bool stuck = how == "stuck" || how == "stuckmem" || held;
  if (stuck) zel::Logger::GetInstance()->AddBackend(new StuckSink());
  for (int i = 0; i < lines; ++i) {
    log_print(3, stuck ? 1 : 0, "line %05d of %d", i, static_cast<int>(getpid()));
  }
  if (how == "exit") exit(1);
  if (how == "return") return 0;
  if (how == "abort") abort();
  if (how == "segv") {
    volatile int* volatile nowhere = nullptr;  // volatile both: a real store through it
    *nowhere = 0;
  }
  if (how == "kill") raise(SIGKILL);
  if (stuck || how == "late") exit(0);
  return 2;
}
