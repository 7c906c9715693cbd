#include "cli_support.h"

#include <fcntl.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

namespace zelctl {

const char kExitCodesHelp[] =
    "Exit codes: 0 success; 1 a negative answer (unreachable, key not found, no log line);\n"
    "            2 a usage error; 3 an input/output error (file, folder, socket, output).";

void ReportError(const std::string& message) {
  std::string line = "zelctl: " + message;
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  line += '\n';
  std::fflush(stdout);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

std::string WithErrno(const std::string& message, int error) {
  return message + ": " + std::strerror(error);
}

void PrintJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  std::ostringstream text;
  writer->write(value, &text);
  text << '\n';
  const std::string out = text.str();
  std::fwrite(out.data(), 1, out.size(), stdout);
}

QuietStdStreams::QuietStdStreams() {
  std::fflush(stdout);
  std::fflush(stderr);
  const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd < 0) return;  // then the prints stay visible; nothing worse
  saved_stdout_ = fcntl(1, F_DUPFD_CLOEXEC, 3);
  saved_stderr_ = fcntl(2, F_DUPFD_CLOEXEC, 3);
  if (saved_stdout_ >= 0) dup2(null_fd, 1);
  if (saved_stderr_ >= 0) dup2(null_fd, 2);
  close(null_fd);
}

QuietStdStreams::~QuietStdStreams() {
  std::fflush(stdout);
  std::fflush(stderr);
  if (saved_stdout_ >= 0) {
    dup2(saved_stdout_, 1);
    close(saved_stdout_);
  }
  if (saved_stderr_ >= 0) {
    dup2(saved_stderr_, 2);
    close(saved_stderr_);
  }
}

}  // namespace zelctl
