// The demo's output. Its own lines are written whole, straight to the
// terminal. Standard output itself becomes a pipe: what the library prints
// there (a few status lines) is read back and shown between the demo's lines,
// each marked as the library's, so that nothing lands inside a demo line. The
// library's diagnostics (standard error, through the stand-in logging library)
// go to a file the demo names at the end.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "client/orvane_log.h"
#include "demo.h"

namespace {

struct Output {
  int terminal = STDOUT_FILENO;  // where the demo's lines go
  int library = -1;              // read end of the pipe behind standard output
  std::mutex mutex;              // one writer to the terminal at a time
  std::string partial;           // a library line not ended yet
  std::thread reader;
  std::atomic<bool> stop{false};
  std::atomic<int> diagnostics{0};
  std::string diagnostics_file;
  std::string work_dir;
};

Output& Out() {
  static Output out;
  return out;
}

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Shows the library's complete lines read so far. Called with the mutex held.
void DrainLocked(Output& out) {
  char buffer[4096];
  for (ssize_t n; (n = read(out.library, buffer, sizeof(buffer))) > 0;) {
    out.partial.append(buffer, static_cast<size_t>(n));
  }
  std::string lines;
  for (size_t end; (end = out.partial.find('\n')) != std::string::npos;) {
    lines += "  [libzel_utils prints] " + out.partial.substr(0, end + 1);
    out.partial.erase(0, end + 1);
  }
  WriteAll(out.terminal, lines);
}

// Lines the library prints from its own threads, shown as they come.
void ReadLibrary() {
  Output& out = Out();
  pollfd pipe_end{out.library, POLLIN, 0};
  while (!out.stop.load()) {
    if (poll(&pipe_end, 1, 50) <= 0) continue;
    std::lock_guard<std::mutex> lock(out.mutex);
    DrainLocked(out);
  }
}

void CountDiagnostic(int, const char*, const char*) { ++Out().diagnostics; }

}  // namespace

void demo::StartOutput(const std::string& work_dir) {
  Output& out = Out();
  out.work_dir = work_dir;
  out.diagnostics_file = work_dir + "/diagnostics.txt";
  // Line by line, so that the library's lines come through the pipe in time.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  const int file =
      open(out.diagnostics_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file >= 0) {
    dup2(file, STDERR_FILENO);
    close(file);
  }
  orvaneLogSetSink(&CountDiagnostic);

  int fds[2];
  const int terminal = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (terminal < 0 || pipe2(fds, O_CLOEXEC) != 0) {
    if (terminal >= 0) close(terminal);
    return;  // the library's lines then go straight out, still whole lines
  }
  out.terminal = terminal;
  out.library = fds[0];
  fcntl(out.library, F_SETFL, fcntl(out.library, F_GETFL) | O_NONBLOCK);
  dup2(fds[1], STDOUT_FILENO);
  close(fds[1]);
  out.reader = std::thread(ReadLibrary);
}

int demo::StopOutput() {
  Output& out = Out();
  std::fflush(stdout);
  if (out.library >= 0) {
    dup2(out.terminal, STDOUT_FILENO);  // closes the pipe's last write end
    out.stop = true;
    out.reader.join();
    std::lock_guard<std::mutex> lock(out.mutex);
    DrainLocked(out);
    if (!out.partial.empty()) out.partial += '\n';
    DrainLocked(out);
    close(out.library);
    out.library = -1;
    close(out.terminal);
    out.terminal = STDOUT_FILENO;
  }
  // Standard error stays on the file: Loopers stopping at exit still report there.
  return out.diagnostics.load();
}

void demo::Say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list sizing;
  va_copy(sizing, args);
  const int needed = std::vsnprintf(nullptr, 0, format, sizing);
  va_end(sizing);
  std::string line(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
  if (needed > 0) std::vsnprintf(&line[0], line.size() + 1, format, args);
  va_end(args);
  line += '\n';

  Output& out = Out();
  std::fflush(stdout);  // whatever the library printed before this line comes first
  std::lock_guard<std::mutex> lock(out.mutex);
  if (out.library >= 0) DrainLocked(out);
  WriteAll(out.terminal, line);
}

void demo::Section(const char* title) { Say("\n-- %s --", title); }

const std::string& demo::DiagnosticsFile() { return Out().diagnostics_file; }
const std::string& demo::WorkDir() { return Out().work_dir; }
