// The command line: every command's arguments and help, parsed with CLI11.
// This is the only source that includes CLI11: the library is header-only
// and costs tens of seconds to compile per source under the sanitizers.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "cli_support.h"
#include "id_commands.h"
#include "log_commands.h"
#include "log_files.h"
#include "net_commands.h"
#include "settings_commands.h"

namespace zelctl {
namespace {

// The command chosen on the command line, run once parsing is over.
using CommandRunner = std::function<int()>;

// A subcommand with the exit-code footer on its help.
CLI::App* AddCommand(CLI::App* parent, const std::string& name, const std::string& description) {
  CLI::App* command = parent->add_subcommand(name, description);
  command->footer(kExitCodesHelp);
  return command;
}

bool IsClockTime(const std::string& text) {
  int64_t ms = 0;
  return ParseClockTime(text, false, &ms);
}

void AddLogCommands(CLI::App* app, CommandRunner* selected) {
  auto log_dir_base = std::make_shared<std::string>();
  auto log_dir_json = std::make_shared<bool>(false);
  CLI::App* log_dir =
      AddCommand(app, "log-dir", "Print the day directory the process log uses today.");
  log_dir->add_option("--base", *log_dir_base,
                      "Log base as zel_set_log_path takes it (end it with /); default "
                      "/Users/$USER/Library/zel/");
  log_dir->add_flag("--json", *log_dir_json, "Answer as JSON: base, day, dir, exists");
  log_dir->callback([=] { *selected = [=] { return RunLogDir(*log_dir_base, *log_dir_json); }; });

  auto options = std::make_shared<LogsOptions>();
  CLI::App* logs = AddCommand(
      app, "logs",
      "Print every process's log lines of one day (current and rotated files) as one timeline, "
      "ordered by the time stamp of each line; equal stamps go by process name, then pid. "
      "Each line starts with its process tag (<process>-<pid>). Exits 1 when no line was "
      "printed.");
  logs->add_option("--base", options->base,
                   "Log base as zel_set_log_path takes it (end it with /)");
  logs->add_option("--day", options->day, "Day YYYYMMDD (default: today)")
      ->check(CLI::Validator(
          [](std::string& text) {
            int64_t day = 0;
            return ParseDayText(text, &day) ? std::string() : "not a date YYYYMMDD: " + text;
          },
          "YYYYMMDD"));
  const CLI::Validator clock_time(
      [](std::string& text) {
        return IsClockTime(text) ? std::string() : "not a time HH:MM[:SS]: " + text;
      },
      "HH:MM[:SS]");
  logs->add_option("--since", options->since, "First time to show, inclusive")->check(clock_time);
  logs->add_option("--until", options->until,
                   "Last time to show, inclusive (HH:MM covers that whole minute)")
      ->check(clock_time);
  logs->add_option("--process", options->processes,
                   "Only this process (name or <name>-<pid>); repeat for more")
      ->allow_extra_args(false);
  logs->add_option("--grep", options->grep, "Only lines containing TEXT (plain substring)");
  logs->add_flag("--follow,-f", options->follow,
                 "Keep reading as lines are added, across rotations and new processes' files "
                 "(SIGINT or SIGTERM ends it)");
  logs->add_flag("--json", options->json,
                 "One JSON object per line: tag, process, pid, time, line");
  logs->callback([=] { *selected = [=] { return RunLogs(*options); }; });
}

void AddNetCommands(CLI::App* app, CommandRunner* selected) {
  struct ProbeArgs {
    std::string ip;
    int port = 0;
    bool json = false;
  };
  auto probe_args = std::make_shared<ProbeArgs>();
  CLI::App* probe = AddCommand(
      app, "probe", "Check TCP reachability: a connection to IP:PORT within one second.");
  probe->add_option("IP", probe_args->ip, "IPv4 address (dotted; no host names)")->required();
  probe->add_option("PORT", probe_args->port, "TCP port")->required()->check(CLI::Range(1, 65535));
  probe->add_flag("--json", probe_args->json, "Answer as JSON");
  probe->callback([=] {
    *selected = [=] { return RunProbe(probe_args->ip, probe_args->port, probe_args->json); };
  });

  struct PingArgs {
    std::string ip;
    int timeout_ms = 1000;
    int retries = 2;
    bool json = false;
  };
  auto ping_args = std::make_shared<PingArgs>();
  CLI::App* ping = AddCommand(
      app, "ping",
      "Check ICMP reachability: an echo reply within retries + 1 attempts. Needs the superuser "
      "(raw socket); without it, exits 3 and says so.");
  ping->add_option("IP", ping_args->ip, "IPv4 address (dotted; no host names)")->required();
  ping->add_option("--timeout", ping_args->timeout_ms, "Milliseconds per attempt")
      ->capture_default_str()
      ->check(CLI::Range(1, 60000));
  ping->add_option("--retries", ping_args->retries,
                   "Attempts after the first (on loopback the first packet seen is the host's "
                   "own request: keep at least 1)")
      ->capture_default_str()
      ->check(CLI::Range(0, 20));
  ping->add_flag("--json", ping_args->json, "Answer as JSON");
  ping->callback([=] {
    *selected = [=] {
      return RunPing(ping_args->ip, ping_args->timeout_ms, ping_args->retries, ping_args->json);
    };
  });
}

void AddSettingsCommands(CLI::App* app, CommandRunner* selected) {
  struct KeyArgs {
    std::string file, section, key, value;
    bool json = false;
  };
  auto args = std::make_shared<KeyArgs>();
  CLI::App* key = AddCommand(
      app, "key",
      "Read or change a key of the client's settings file (/Users/<login>/client_config.ini) "
      "with the client's own rules, or of a copy given with --file.");
  key->require_subcommand(1);
  key->add_option("--file", args->file, "Work on this file (a copy) instead of the settings file");
  CLI::App* get = AddCommand(key, "get", "Print the value of KEY in SECTION (exit 1 when absent).");
  get->add_option("SECTION", args->section, "Section name")->required();
  get->add_option("KEY", args->key, "Key name")->required();
  get->add_option("--file", args->file, "Work on this file (a copy) instead of the settings file");
  get->add_flag("--json", args->json, "Answer as JSON: file, section, key, found, value");
  get->callback([=] {
    *selected = [=] { return RunKeyGet(args->file, args->section, args->key, args->json); };
  });
  CLI::App* put =
      AddCommand(key, "put",
                 "Replace the value of an existing KEY in SECTION (exit 1, nothing written, "
                 "when absent: the store adds no key).");
  put->add_option("SECTION", args->section, "Section name")->required();
  put->add_option("KEY", args->key, "Key name")->required();
  put->add_option("VALUE", args->value, "New value")->required();
  put->add_option("--file", args->file, "Work on this file (a copy) instead of the settings file");
  put->add_flag("--json", args->json, "Answer as JSON: file, section, key, value, written");
  put->callback([=] {
    *selected = [=] {
      return RunKeyPut(args->file, args->section, args->key, args->value, args->json);
    };
  });

  auto options = std::make_shared<ConfigOptions>();
  CLI::App* config = AddCommand(
      app, "config",
      "Read KEY of GROUP from a key file through ConfigParser, typed as the client reads it "
      "(a missing or invalid value reads as false / 0 / \"\"; exit 1 when the key has no value).");
  config->add_option("FILE", options->file, "Key file")->required();
  config->add_option("GROUP", options->group, "Group name")->required();
  config->add_option("KEY", options->key, "Key name")->required();
  config->add_option("--type", options->type, "Value type")
      ->check(CLI::IsMember({"bool", "int", "double", "string"}))
      ->capture_default_str();
  config->add_flag("--list", options->list, "Read a list (one element per output line)");
  config->add_option("--sep", options->separator, "List separator, one character (default ;)")
      ->check(CLI::Validator(
          [](std::string& text) {
            return text.size() == 1 ? std::string() : "must be one character: " + text;
          },
          "C"));
  config->add_flag("--json", options->json,
                   "Answer as JSON: file, group, key, type, list, found, raw, value");
  config->callback([=] { *selected = [=] { return RunConfig(*options); }; });
}

void AddIdCommands(CLI::App* app, CommandRunner* selected) {
  struct IdArgs {
    bool json = false;
  };
  const auto add = [&](const char* name, const char* description, int (*run)(bool)) {
    auto args = std::make_shared<IdArgs>();
    CLI::App* command = AddCommand(app, name, description);
    command->add_flag("--json", args->json, "Answer as JSON");
    command->callback([=] { *selected = [=] { return run(args->json); }; });
  };
  add("trace-id",
      "Print the trace id the tracer makes for a process (this one): 32 lower-case hex digits.",
      RunTraceId);
  add("session-id",
      "Print a new session id as the tracer makes them: 16 hex digits, '-', local time.",
      RunSessionId);
  add("version", "Print the version of zelctl and of the libzel_utils it loaded.", RunVersion);
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
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

}  // namespace zelctl
