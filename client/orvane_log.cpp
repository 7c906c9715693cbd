#include "client/orvane_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {
std::atomic<OrvaneLogSink> gSink{nullptr};
}

extern "C" void orvaneLogSetSink(OrvaneLogSink sink) { gSink.store(sink); }

extern "C" void orvaneLogPrint(int /*module*/, int level, const char* tag, const char* format,
                               ...) {
  va_list args;
  va_start(args, format);
  va_list sizing;
  va_copy(sizing, args);
  const int needed = std::vsnprintf(nullptr, 0, format, sizing);
  va_end(sizing);
  std::string text(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
  if (needed > 0) std::vsnprintf(&text[0], text.size() + 1, format, args);
  va_end(args);

  std::fprintf(stderr, "[%s][%d] %s\n", tag ? tag : "", level, text.c_str());
  if (OrvaneLogSink sink = gSink.load()) sink(level, tag ? tag : "", text.c_str());
}
