// What every command shares: the exit codes a script can rely on, the one-line
// error report, JSON output, and a guard that keeps the library's own status
// prints off the tool's output.
#pragma once

#include <json/value.h>

#include <string>

namespace zelctl {

enum ExitCode : int {
  kExitOk = 0,        // the answer is yes / the work was done
  kExitNegative = 1,  // a negative answer: unreachable, key not found, no line
  kExitUsage = 2,     // bad arguments
  kExitIo = 3,        // a file, folder, socket or output could not be used
};

// The help footer that lists the exit codes.
extern const char kExitCodesHelp[];

// "zelctl: <message>" on standard error, one line (newlines in the message
// are replaced so that it stays one).
void ReportError(const std::string& message);

// `message`: strerror(error).
std::string WithErrno(const std::string& message, int error);

// One JSON document on one line of standard output.
void PrintJson(const Json::Value& value);

// While alive, file descriptors 1 and 2 point to /dev/null: the library
// prints status lines and diagnostics there that are not the tool's answer.
class QuietStdStreams {
 public:
  QuietStdStreams();
  ~QuietStdStreams();
  QuietStdStreams(const QuietStdStreams&) = delete;
  QuietStdStreams& operator=(const QuietStdStreams&) = delete;

 private:
  int saved_stdout_ = -1;
  int saved_stderr_ = -1;
};

}  // namespace zelctl
