// Internal: the library's own error and debug diagnostics. They go to the
// client's logging library (orvaneLogPrint), never to the process log.
//
//   ZEL_ERROR("file[%s] err", path)          -> level 7, "Error:", __LINE__
//   ZEL_DEBUG_AT(151, "Looper::Stop ...", id) -> level 5, "Debug:", line 151
//
// The *_AT forms pass a fixed line number: clients match some diagnostics by
// the line they have always carried, so those do not move with the source.
#pragma once

#include "client/orvane_log.h"

namespace zel {
namespace diag {

constexpr int kErrorLevel = 7;
constexpr int kDebugLevel = 5;

// Base name of a source path ("utils/looper.cpp" -> "looper.cpp"), at compile time.
constexpr const char* BaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

}  // namespace diag
}  // namespace zel

#define ZEL_DIAG_PRINT_(level, kind, line, fmt, ...)                            \
  orvaneLogPrint(0, (level), "ZEL_LOG", "%s %s(%d): \"" kind ":\" \"" fmt "\"", \
                 ::zel::diag::BaseName(__FILE__), __func__, static_cast<int>(line), ##__VA_ARGS__)

#define ZEL_ERROR_AT(line, fmt, ...) \
  ZEL_DIAG_PRINT_(::zel::diag::kErrorLevel, "Error", line, fmt, ##__VA_ARGS__)
#define ZEL_DEBUG_AT(line, fmt, ...) \
  ZEL_DIAG_PRINT_(::zel::diag::kDebugLevel, "Debug", line, fmt, ##__VA_ARGS__)
#define ZEL_ERROR(fmt, ...) ZEL_ERROR_AT(__LINE__, fmt, ##__VA_ARGS__)
#define ZEL_DEBUG(fmt, ...) ZEL_DEBUG_AT(__LINE__, fmt, ##__VA_ARGS__)
