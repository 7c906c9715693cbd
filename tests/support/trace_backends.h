// Test helpers for the tracer: a backend that records what reaches it and a
// process context with fixed, settable values.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/sync.h"
#include "utils/zel_tracer.h"

namespace zeltest {

// One call received by a RecordingBackend.
struct BackendCall {
  std::string backend;   // name of the receiving backend
  std::string function;  // "PostTrace", "PostTraceWithId" or "SendTraceAttr"
  std::string traceId;
  std::string spanId;
  std::string event;
  std::string content;
  std::string parentSpan;
  std::map<std::string, std::string> attrs;
};

// Calls in arrival order; several backends may share one log. Thread-safe.
class CallLog : public Collected<BackendCall> {
 public:
  std::vector<BackendCall> Calls() const { return All(); }
  std::vector<std::string> Backends() const {
    std::vector<std::string> names;
    for (const auto& call : Calls()) names.push_back(call.backend);
    return names;
  }
};

class RecordingBackend : public zel::TracerBackend {
 public:
  explicit RecordingBackend(std::string name = "backend",
                            std::shared_ptr<CallLog> log = std::make_shared<CallLog>())
      : name_(std::move(name)), log_(std::move(log)) {}

  std::vector<BackendCall> Calls() const { return log_->Calls(); }
  // Makes every later PostTrace / PostTraceWithId throw std::runtime_error.
  void ThrowFromPosts() { throw_ = true; }

  std::string CreateTraceId() override { return ""; }
  int PostTrace(const std::string& content) override {
    if (throw_) throw std::runtime_error(name_ + " failed");
    log_->Add({name_, "PostTrace", "", "", "", content, "", {}});
    return 0;
  }
  int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                      const std::string& event, const std::string& content,
                      const std::string& parentSpan) override {
    if (throw_) throw std::runtime_error(name_ + " failed");
    log_->Add({name_, "PostTraceWithId", traceId, spanId, event, content, parentSpan, {}});
    return 0;
  }
  void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                     const std::string& event, std::map<std::string, std::string>& attrs,
                     const std::string& parentSpan) override {
    log_->Add({name_, "SendTraceAttr", traceId, spanId, event, "", parentSpan, attrs});
  }

 private:
  std::string name_;
  std::shared_ptr<CallLog> log_;
  bool throw_ = false;
};

// True when `text` is exactly `digits` lower-case hexadecimal digits.
inline bool IsLowerHex(const std::string& text, size_t digits) {
  if (text.size() != digits) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

// A process context whose values the test sets directly.
class FixedContext : public zel::ZelProcessContextBase {
 public:
  std::string zelVersion = "1.2";
  std::string flowLevel = "level";
  std::string flowName = "flow";
  std::string zelContext = "ctx-trace";
  uint32_t processId = 4242;
  std::string desktopId = "desk";
  std::string imageVersion = "img";

  std::string GetZelVersion() override { return zelVersion; }
  std::string GetFlowLevel() override { return flowLevel; }
  std::string GetFlowName() override { return flowName; }
  std::string GetZelContext() override { return zelContext; }
  uint32_t GetProcessId() override { return processId; }
  std::string GetDesktopId() override { return desktopId; }
  std::string GetImageVersion() override { return imageVersion; }
};

}  // namespace zeltest
