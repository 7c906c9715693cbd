// The demo's parts: each shows one facility the way a client process uses it.
#pragma once

#include <string>

namespace demo {
void Process();    // ZelEnv and process information
void Loops();      // Looper, Worker, Timer
void Logging();    // the process log and a named log file
void Bus();        // message bus and named events
void Tracing();    // tracer, client tracker, trace records
void Config();     // ConfigParser, settings file, application paths
void Utilities();  // string helpers, printer files, reachability

// Output (demo_output.cpp). The demo's own lines go out whole through Say;
// the library's status lines on standard output come out between them as
// whole lines marked "[libzel_utils prints]", and the library's diagnostics
// (orvaneLogPrint, which the stand-in writes to standard error) go to
// DiagnosticsFile().

// Starts the above; `work_dir` is where the diagnostics file goes.
void StartOutput(const std::string& work_dir);
// Puts standard output back; returns the number of diagnostics so far
// (standard error stays on the file until the process ends).
int StopOutput();
// One line of the demo (printf-style, newline added).
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A heading for one part of the demo.
void Section(const char* title);
const std::string& DiagnosticsFile();
// This run's folder under /tmp: the logs, the files the demo writes.
const std::string& WorkDir();
}  // namespace demo
