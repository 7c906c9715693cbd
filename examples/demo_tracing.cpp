#include <cstdio>
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
  std::printf("  Tracer::%s(", call.function.c_str());
  for (size_t i = 1; i < call.args.size(); ++i) {
    std::printf("%s\"%s\"", i > 1 ? ", " : "", call.args[i].c_str());
  }
  std::string content = call.args.empty() ? "" : call.args[0];
  if (!content.empty() && content.back() == '\n') content.pop_back();
  for (size_t at = content.find('\n'); at != std::string::npos; at = content.find('\n', at + 1)) {
    content.insert(at + 1, "      ");
  }
  std::printf(")\n    content: %s\n", content.c_str());
}
}  // namespace

void demo::Tracing() {
  std::printf("-- tracing: ZelTracer with a ZelClientTracker --\n");
  TracerClearRecordedCalls();
  zel::ZelEnv::zel_set_env(zel::kImageVersion, "image-2026.11");

  zel::ZelTracer* tracer = zel::ZelTracer::GetInstance();
  zel::ZelClientTracker tracker;
  tracer->RegisterBackend(&tracker);
  tracer->Init("1.2.0", "info", "usbRedirect");
  std::printf("  trace id %s, span id %s, session %s\n", tracer->GetTraceId().c_str(),
              tracer->GetSpanId().c_str(), tracer->NewSessionId().c_str());

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

  std::printf("  what reached the client's tracing library:\n");
  for (const TracerCall& call : TracerRecordedCalls()) PrintTracerCall(call);
}
