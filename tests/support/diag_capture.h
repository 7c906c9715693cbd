// Test helper: collects the library's diagnostics (orvaneLogPrint calls)
// while an instance is alive, starting empty. One instance at a time.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "client/orvane_log.h"

namespace zeltest {

struct DiagLine {
  int level;
  std::string tag;
  std::string text;
};

class DiagCapture {
 public:
  DiagCapture() {
    Clear();
    orvaneLogSetSink(&DiagCapture::Sink);
  }
  ~DiagCapture() { orvaneLogSetSink(nullptr); }

  static std::vector<DiagLine> Lines() {
    std::lock_guard<std::mutex> lock(Mutex());
    return Store();
  }
  // Number of captured lines whose text contains `needle`.
  static size_t Count(const std::string& needle) {
    auto lines = Lines();
    return std::count_if(lines.begin(), lines.end(), [&](const DiagLine& l) {
      return l.text.find(needle) != std::string::npos;
    });
  }
  static void Clear() {
    std::lock_guard<std::mutex> lock(Mutex());
    Store().clear();
  }

 private:
  static void Sink(int level, const char* tag, const char* line) {
    std::lock_guard<std::mutex> lock(Mutex());
    Store().push_back({level, tag, line});
  }
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<DiagLine>& Store() {
    static std::vector<DiagLine> store;
    return store;
  }
};

}  // namespace zeltest
