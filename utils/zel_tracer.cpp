#include "utils/zel_tracer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <limits>
#include <random>
#include <sstream>

#include "utils/quil_tracer.h"
#include "utils/trace_keys.h"
#include "utils/zel_env.h"
#include "utils/zel_log.h"

namespace zel {

namespace {

// Random ids: a fresh device and engine per id, nothing kept between calls.
// The device throws when "/dev/urandom" cannot be opened; the caller's id
// then stays as it was.
std::string GenerateHexId(int values) {
  std::random_device device("/dev/urandom");
  std::mt19937_64 engine(device());
  std::uniform_int_distribution<uint64_t> distribution(0, std::numeric_limits<uint64_t>::max());
  std::ostringstream out;
  out << std::hex << std::setfill('0');
  for (int i = 0; i < values; ++i) out << std::setw(16) << distribution(engine);
  return out.str();
}

std::string GenerateSpanId() { return GenerateHexId(1); }
std::string GenerateTraceId() { return GenerateHexId(2); }

}  // namespace

// ---- ZelProcessContext ----

ZelProcessContext::ZelProcessContext(const std::string& zelVersion, const std::string& flowLevel,
                                     const std::string& flowName, const std::string& zelContext,
                                     uint32_t processId)
    : zelVersion(zelVersion),
      flowLevel(flowLevel),
      flowName(flowName),
      zelContext(zelContext),
      desktopId(ZelEnv::zel_get_env(kDesktopId)),
      imageVersion(ZelEnv::zel_get_env(kImageVersion)),
      processId(processId) {}

std::string ZelProcessContext::GetZelVersion() { return zelVersion; }
std::string ZelProcessContext::GetFlowLevel() { return flowLevel; }
std::string ZelProcessContext::GetFlowName() { return flowName; }
std::string ZelProcessContext::GetZelContext() { return zelContext; }
uint32_t ZelProcessContext::GetProcessId() { return processId; }
std::string ZelProcessContext::GetDesktopId() { return desktopId; }
std::string ZelProcessContext::GetImageVersion() { return imageVersion; }

// ---- ZelTracer: instance, context, ids ----

std::atomic<ZelTracer*> ZelTracer::sZelTracer{nullptr};
std::mutex ZelTracer::sMutex;

ZelTracer* ZelTracer::GetInstance() {
  // Double-checked: set once, never cleared, so the first read needs no lock.
  ZelTracer* tracer = sZelTracer.load(std::memory_order_acquire);
  if (tracer != nullptr) return tracer;
  std::lock_guard<std::mutex> lock(sMutex);
  tracer = sZelTracer.load(std::memory_order_relaxed);
  if (tracer == nullptr) {
    tracer = new ZelTracer();
    sZelTracer.store(tracer, std::memory_order_release);
  }
  return tracer;
}

ZelTracer::ZelTracer() {
  traceId = quil_create_traceId(spanId);
  std::printf("zeltraceid: %s %s \n", traceId.c_str(), spanId.c_str());
}

ZelTracer::~ZelTracer() = default;

void ZelTracer::Init(const std::string& zelVersion, const std::string& flowLevel,
                     const std::string& flowName) {
  const std::string id = GetTraceId();
  const uint32_t pid = static_cast<uint32_t>(getpid());
  context = std::make_shared<ZelProcessContext>(zelVersion, flowLevel, flowName, id, pid);
}

void ZelTracer::Uninit() {}

void ZelTracer::SetZelProcessContext(std::shared_ptr<ZelProcessContextBase> ctx) {
  context = std::move(ctx);
}

std::shared_ptr<ZelProcessContextBase> ZelTracer::GetZelProcessContext() { return context; }

std::string ZelTracer::GetTraceId() {
  WriterLock lock(rwlock);
  if (traceId.empty()) traceId = GenerateTraceId();
  return traceId;
}

std::string ZelTracer::GetSpanId() {
  WriterLock lock(rwlock);
  if (spanId.empty()) spanId = GenerateSpanId();
  return spanId;
}

std::string ZelTracer::NewSessionId() { return GenerateSpanId() + "-" + getCurrentTimeString(); }

// ---- ZelTracer: backends and dispatch ----

void ZelTracer::RegisterBackend(TracerBackend* backend) {
  WriterLock lock(rwlock);
  std::printf("tracer register backend: size=%d \n", static_cast<int>(backends.size()));
  backends.push_back(backend);
}

void ZelTracer::UnregisterBackend(TracerBackend* backend) {
  WriterLock lock(rwlock);
  std::printf("tracer unregister backend: size=%d \n", static_cast<int>(backends.size()));
  auto it = std::find(backends.begin(), backends.end(), backend);
  if (it != backends.end()) backends.erase(it);
}

void ZelTracer::PostTrace(const std::string& content) {
  ReaderLock lock(rwlock);
  for (TracerBackend* backend : backends) backend->PostTrace(content);
}

void ZelTracer::PostTraceWithId(const std::string& traceId, const std::string& spanId,
                                const std::string& event, const std::string& content,
                                const std::string& parentSpan) {
  ReaderLock lock(rwlock);
  for (TracerBackend* backend : backends) {
    backend->PostTraceWithId(traceId, spanId, event, content, parentSpan);
  }
}

std::string ZelTracer::convertJsonToStr(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  if (!writer) return "{}";
  std::ostringstream out;
  writer->write(value, &out);
  return out.str();
}

// ---- ZelTracer: records ----

void ZelTracer::SendTracerStep(const std::string& biz, const std::string& step) {
  Json::Value root;
  root[kZelVersion] = context->GetZelVersion();
  root[kEventType] = "ZEL_TRACKER_TYPE_STEP";
  root[kBiz] = biz;
  root[kStep] = step;
  // Kept as the string "0": readers of step records expect no timing here.
  root[kTimeMs] = "0";
  root[kStartTs] = "0";
  PostTrace(convertJsonToStr(root));
}

void ZelTracer::SendServerFlowWithAttr(const std::string& spanId, const std::string& event,
                                       std::map<std::string, std::string>& attrs) {
  std::string trace = context->GetZelContext();
  if (trace.empty()) trace = GetTraceId();
  const std::string span = spanId.empty() ? GenerateSpanId() : spanId;

  attrs[kFlowLevel] = context->GetFlowLevel();
  attrs[kFlowName] = context->GetFlowName();
  attrs[kProcessId] = std::to_string(context->GetProcessId());
  attrs[kDesktopId] = context->GetDesktopId();
  if (!context->GetImageVersion().empty()) attrs[kImageVersion] = context->GetImageVersion();

  ReaderLock lock(rwlock);
  // The parent is the stored span id as it stands, not GetSpanId(): it stays
  // empty until someone asked for the span id.
  for (TracerBackend* backend : backends) {
    backend->SendTraceAttr(trace, span, event, attrs, this->spanId);
  }
}

void ZelTracer::SendGTraceWithAttr(const std::string& traceId, const std::string& spanId,
                                   const std::string& event,
                                   std::map<std::string, std::string>& attrs,
                                   const std::string& parentSpan) {
  const std::string trace = traceId.empty() ? GetTraceId() : traceId;
  const std::string span = spanId.empty() ? GenerateSpanId() : spanId;

  attrs[kZelVersion] = context->GetZelVersion();
  attrs[kZelContext] = context->GetZelContext();
  if (!context->GetImageVersion().empty()) attrs[kImageVersion] = context->GetImageVersion();

  ReaderLock lock(rwlock);
  for (TracerBackend* backend : backends) {
    backend->SendTraceAttr(trace, span, event, attrs, parentSpan);
  }
}

// ---- ZelTracer: converters ----

std::string ZelTracer::Uint16ToString(unsigned short v) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%.4x", static_cast<unsigned>(v));
  return text;
}

std::string ZelTracer::RedirtypeToString(unsigned short v) {
  switch (v) {
    case 2:
      return "DEV_REDIRTYPE_UDISK";
    case 3:
      return "DEV_REDIRTYPE_CAMERA";
    case 4:
      return "DEV_REDIRTYPE_PRINTTER";
    case 5:
      return "DEV_REDIRTYPE_SCANNER";
    case 6:
      return "DEV_REDIRTYPE_PEN";
    case 7:
      return "DEV_REDIRTYPE_ROUTER";
    case 16:
    case 32:
      return "DEV_REDIRTYPE_USBREDIR";
    case 249:
      return "DEV_REDIRTYPE_MOUSE_KEYBOARD";
    case 250:
      return "DEV_REDIRTYPE_MOUSE";
    case 251:
      return "DEV_REDIRTYPE_KEYBOARD";
    default:
      return "DEV_REDIRTYPE_UNKNOW";
  }
}

std::string ZelTracer::DeviceTypeToString(unsigned short v) {
  switch (v) {
    case 2:
      return "DEV_TYPE_UDISK";
    case 3:
      return "DEV_TYPE_CAMERA";
    case 4:
      return "DEV_TYPE_PRINTER";
    case 5:
      return "DEV_TYPE_SCANNER";
    case 6:
      return "DEV_TYPE_PEN";
    case 16:
      return "DEV_TYPE_OTHER_PLUGIN_DEV";
    case 34:
      return "DEV_TYPE_UKEY";
    case 35:
      return "DEV_TYPE_ADB";
    case 36:
      return "DEV_TYPE_HIGH_SPEED_PHOTOGRAPHIC";
    case 37:
      return "DEV_TYPE_DVD";
    case 38:
      return "DEV_TYPE_SERIAL_PORT";
    case 39:
      return "DEV_TYPE_AUDIO";
    case 40:
      return "networkInterfaceCard";
    case 41:
      return "JOYSTICK";
    case 249:
      return "DEV_TYPE_MOUSE";
    case 250:
      return "DEV_TYPE_KEYBOARD";
    case 255:
      return "DEV_TYPE_PC_OTHER_DEV";
    default:
      return "";
  }
}

std::string ZelTracer::StatusToString(unsigned short v) {
  switch (v) {
    case 0:
      return "idea";
    case 1:
      return "connecting";
    case 2:
      return "connected";
    case 3:
      return "disconnecting";
    default:
      return std::to_string(v);
  }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the API's
std::string ZelTracer::CidsToString(std::vector<unsigned int> codes) {
  // USB interface classes 1..14, indexed by class - 1; a set bit in the mask
  // marks an entry with a name.
  static const char* const kClassNames[14] = {
      "AUDIO;",        nullptr, "HID;",  nullptr,       nullptr, "IMAGE;", "PRINTER;",
      "MASS_STORAGE;", nullptr, nullptr, "SMART_CARD;", nullptr, nullptr,  "VIDEO;"};
  constexpr unsigned kNamedClassMask = 9445;  // bits 0, 2, 5, 6, 7, 10, 13

  std::string text;
  for (unsigned int code : codes) {
    const unsigned lowByte = code & 0xffu;
    const unsigned index = lowByte - 1u;  // class 0 wraps around and is no entry
    if (index < 14 && ((kNamedClassMask >> index) & 1u) != 0) {
      text += kClassNames[index];
    } else {
      text += std::to_string(lowByte) + ";";
    }
  }
  return text;
}

}  // namespace zel
