// The demo's parts: each shows one facility the way a client process uses it.
#pragma once

namespace demo {
void Loops();    // Looper, Worker, Timer
void Process();  // ZelEnv and process information
}  // namespace demo
