#include <map>
#include <string>

#include "client/tracer.h"
#include "demo.h"
#include "utils/trace_keys.h"
#include "utils/zel_client_tracker.h"
#include "utils/zel_env.h"
#include "utils/zel_tracer.h"

namespace {
// One call that reached the client's tracing library, content indented.
void PrintTracerCall(const TracerCall& call) {
  std::string head = "  Tracer::" + call.function + "(";
  for (size_t i = 1; i < call.args.size(); ++i) {
    head += (i > 1 ? ", \"" : "\"") + call.args[i] + "\"";
  }
  demo::Say("%s)", head.c_str());
  std::string content = call.args.empty() ? "" : call.args[0];
  if (!content.empty() && content.back() == '\n') content.pop_back();
  for (size_t at = content.find('\n'); at != std::string::npos; at = content.find('\n', at + 1)) {
    content.insert(at + 1, "      ");
  }
  demo::Say("    content: %s", content.c_str());
}
}  // namespace

void demo::Tracing() {
  Section("tracing: ZelTracer with a ZelClientTracker");
  TracerClearRecordedCalls();
  zel::ZelEnv::zel_set_env(zel::kImageVersion, "image-2026.11");

  zel::ZelTracer* tracer = zel::ZelTracer::GetInstance();
  zel::ZelClientTracker tracker;
  tracer->RegisterBackend(&tracker);
  tracer->Init("1.2.0", "info", "usbRedirect");
  Say("  trace id %s, span id %s", tracer->GetTraceId().c_str(), tracer->GetSpanId().c_str());
  Say("  a new session id: %s", tracer->NewSessionId().c_str());

  tracer->SendTracerStep("usb", "open");
  std::map<std::string, std::string> device{{zel::kVid, zel::ZelTracer::Uint16ToString(0x0781)},
                                            {zel::kRedirtype, zel::ZelTracer::RedirtypeToString(2)},
                                            {zel::kClass, zel::ZelTracer::CidsToString({8})}};
  tracer->SendServerFlowWithAttr("", "attach", device);
  std::map<std::string, std::string> state{
      {zel::kStatus, zel::ZelTracer::StatusToString(2)},
      {zel::kDeviceType, zel::ZelTracer::DeviceTypeToString(2)}};
  tracer->SendGTraceWithAttr("", "", "connected", state, tracer->GetSpanId());
  tracer->PostTraceWithId(tracer->GetTraceId(), tracer->GetSpanId(), "closed",
                          "{\"reason\":\"unplugged\"}", "");
  tracer->UnregisterBackend(&tracker);

  Say("  what reached the client's tracing library:");
  for (const TracerCall& call : TracerRecordedCalls()) PrintTracerCall(call);
}
