// zelctl: answers the questions of whoever supports a user's machine — where
// today's logs are, what every process logged around a given time, whether a
// server can be reached, what the settings say, which ids this process gets.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "cli_support.h"

namespace {

int Run(int argc, char** argv) {
  using namespace zelctl;
  CLI::App app(
      "zelctl: the process log, reachability, settings and ids of the "
      "device-redirection component, for support engineers.",
      "zelctl");
  app.footer(kExitCodesHelp);
  app.require_subcommand(1);
  CommandRunner selected;
  AddLogCommands(&app, &selected);
  AddNetCommands(&app, &selected);
  AddSettingsCommands(&app, &selected);
  AddIdCommands(&app, &selected);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    // CLI11 reports an unknown command as a missing one; name it instead.
    if (argc > 1 && argv[1][0] != '-' && app.get_subcommands().empty()) {
      ReportError(std::string("unknown command: ") + argv[1] + " (see --help)");
    } else {
      ReportError(error.what());
    }
    return kExitUsage;
  }
  if (!selected) {
    ReportError("no command given (see --help)");
    return kExitUsage;
  }
  try {
    const int code = selected();
    std::fflush(stdout);
    return code;
  } catch (const std::exception& error) {
    // The library and the standard library may throw (allocation, a random
    // device that cannot be opened); the tool still ends with one line.
    ReportError(error.what());
    return kExitIo;
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    // Even building the command line can fail (allocation): one line, exit 3.
    std::fprintf(stderr, "zelctl: %s\n", error.what());
  } catch (...) {
    std::fputs("zelctl: unexpected error\n", stderr);
  }
  return zelctl::kExitIo;
}
