// Stand-in for the client's closed logging library. The library's diagnostics
// call orvaneLogPrint; this stand-in writes each call as one line to standard
// error ("[tag][level] text") and hands it to an optional capture sink.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Formats `format` with the arguments after it and emits one line.
// `module` is accepted and ignored (the library always passes 0).
void orvaneLogPrint(int module, int level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Test hook: every later orvaneLogPrint call also goes to `sink` (called on
// the calling thread, with the formatted text without a trailing newline).
// Pass NULL to remove it. Safe to call from any thread.
typedef void (*OrvaneLogSink)(int level, const char* tag, const char* line);
void orvaneLogSetSink(OrvaneLogSink sink);

#ifdef __cplusplus
}
#endif
