#include "utils/zel_client_tracker.h"

#include <json/json.h>

#include "client/tracer.h"
#include "utils/diag.h"
#include "utils/trace_keys.h"

namespace zel {

namespace {
// Span events go to the tracing library under "zel"; finished records
// (PostTrace) under the key text "zelModule". The two differ on purpose.
const char* const kSpanModule = "zel";

// Diagnostics keep the line numbers clients know them by.
constexpr int kPostTraceWithIdLine = 28;
constexpr int kSendTraceAttrLine = 53;
constexpr int kSendTraceAttrErrorLine = 67;
}  // namespace

std::string ZelClientTracker::CreateTraceId() { return ""; }

int ZelClientTracker::PostTrace(const std::string& content) {
  return Tracer::post(content, kZelModule);
}

int ZelClientTracker::PostTraceWithId(const std::string& traceId, const std::string& spanId,
                                      const std::string& event, const std::string& content,
                                      const std::string& parentSpan) {
  ZEL_DEBUG_AT(kPostTraceWithIdLine, "PostTraceWithId, traceId:%s event:%s  parentSpan:%s",
               traceId.c_str(), event.c_str(), parentSpan.c_str());
  return Tracer::traceRaw(content, kSpanModule, traceId, spanId, event, parentSpan);
}

void ZelClientTracker::SendTraceAttr(const std::string& traceId, const std::string& spanId,
                                     const std::string& event,
                                     std::map<std::string, std::string>& attrs,
                                     const std::string& parentSpan) {
  std::lock_guard<std::mutex> lock(mutex);
  try {
    Json::Value root;
    for (const auto& attr : attrs) root[attr.first] = attr.second;
    root[kEvent] = event;  // the argument wins over an attribute of that name
    const std::string text = root.toStyledString();
    ZEL_DEBUG_AT(kSendTraceAttrLine, "SendTraceAttr, traceId:%s event:%s parentSpan:%s",
                 traceId.c_str(), event.c_str(), parentSpan.c_str());
    Tracer::traceRaw(text, kSpanModule, traceId, spanId, event, parentSpan);
  } catch (...) {
    // A record is never worth failing the caller's flow for.
    ZEL_ERROR_AT(kSendTraceAttrErrorLine,
                 "Exception occurred in SendTraceAttr, traceId:%s event:%s", traceId.c_str(),
                 event.c_str());
  }
}

}  // namespace zel
