// The demo's parts: each shows one facility the way a client process uses it.
#pragma once

namespace demo {
void Process();    // ZelEnv and process information
void Loops();      // Looper, Worker, Timer
void Logging();    // the process log and a named log file
void Bus();        // message bus and named events
void Tracing();    // tracer, client tracker, trace records
void Config();     // ConfigParser, settings file, application paths
void Utilities();  // string helpers, printer files, reachability
}  // namespace demo
