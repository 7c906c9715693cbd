// zelctl: answers the questions of whoever supports a user's machine — where
// today's logs are, what every process logged around a given time, whether a
// server can be reached, what the settings say, which ids this process gets.
#include <cstdio>
#include <exception>
#include <string>

#include "cli_support.h"
#include "command_line.h"

int main(int argc, char** argv) {
  try {
    return zelctl::RunCommandLine(argc, argv);
  } catch (const std::exception& error) {
    // Even building the command line can fail (allocation): one line, exit 3.
    std::fprintf(stderr, "zelctl: %s\n", error.what());
  } catch (...) {
    std::fputs("zelctl: unexpected error\n", stderr);
  }
  return zelctl::kExitIo;
}
