// The record builders and converters of ZelTracer, and the trace keys.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <tuple>

#include "support/trace_backends.h"
#include "utils/trace_keys.h"
#include "utils/zel_tracer.h"

namespace {

using zeltest::BackendCall;
using Attrs = std::map<std::string, std::string>;

// A tracer with a FixedContext and one recording backend.
class TraceRecords : public testing::Test {
 protected:
  void SetUp() override {
    tracer.SetZelProcessContext(context);
    tracer.RegisterBackend(&backend);
  }
  BackendCall OnlyCall() {
    const auto calls = backend.Calls();
    EXPECT_EQ(1u, calls.size());
    return calls.empty() ? BackendCall{} : calls[0];
  }

  zel::ZelTracer tracer;
  std::shared_ptr<zeltest::FixedContext> context = std::make_shared<zeltest::FixedContext>();
  zeltest::RecordingBackend backend;
};

bool IsSpanId(const std::string& text) { return zeltest::IsLowerHex(text, 16); }

// ---- keys ----

TEST(TraceRecordsKeys, EveryKeyHasItsTextInOrder) {
  // The two tables stay aligned column by column.
  // clang-format off
  const std::vector<std::string> keys = {
      zel::kZelModule,     zel::kZelVersion,   zel::kEventType,     zel::kEvent,
      zel::kErrorCode,     zel::kMessage,      zel::kVid,           zel::kPid,
      zel::kVmid,          zel::kProductName,  zel::kDriverName,    zel::kRedirtype,
      zel::kOrvanePolicy,  zel::kType,         zel::kClass,         zel::kStatus,
      zel::kLocalPolicy,   zel::kRemotePolicy, zel::kAutoconnect,   zel::kTurbousb,
      zel::kBiz,           zel::kStep,         zel::kTimeMs,        zel::kStartTs,
      zel::kSuccess,       zel::kContext,      zel::kDesktopId,     zel::kImageVersion,
      zel::kRedirTypeList, zel::kDeviceType,   zel::kCredibility,   zel::kFlowLevel,
      zel::kFlowName,      zel::kZelContext,   zel::kProcessId,     zel::kVmContextId,
      zel::kPrinterRedirType};
  const std::vector<std::string> texts = {
      "zelModule",     "zelVersion",   "eventType",    "event",         "errorCode",
      "message",       "vid",          "pid",          "vmid",          "productName",
      "driverName",    "redirtype",    "orvanePolicy", "type",          "class",
      "status",        "localPolicy",  "remotePolicy", "autoconnect",   "turbousb",
      "biz",           "step",         "TimeMs",       "startTs",       "success",
      "context",       "desktopId",    "imageVersion", "redirTypeList", "deviceType",
      "credibility",   "flowLevel",    "flowName",     "zelContext",    "processId",
      "vmContextId",   "printerRedirType"};
  // clang-format on
  EXPECT_EQ(texts, keys);
}

// ---- step record ----

TEST_F(TraceRecords, StepRecordHasSixStringMembers) {
  tracer.SendTracerStep("usb", "open");
  const BackendCall call = OnlyCall();
  EXPECT_EQ("PostTrace", call.function);

  Json::Value root;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  ASSERT_TRUE(
      reader->parse(call.content.data(), call.content.data() + call.content.size(), &root, &errors))
      << errors;
  ASSERT_TRUE(root.isObject());
  EXPECT_EQ(
      (std::vector<std::string>{"TimeMs", "biz", "eventType", "startTs", "step", "zelVersion"}),
      root.getMemberNames());
  for (const std::string& name : root.getMemberNames()) {
    EXPECT_TRUE(root[name].isString()) << name;
  }
  EXPECT_EQ("1.2", root["zelVersion"].asString());
  EXPECT_EQ("ZEL_TRACKER_TYPE_STEP", root["eventType"].asString());
  EXPECT_EQ("usb", root["biz"].asString());
  EXPECT_EQ("open", root["step"].asString());
  EXPECT_EQ("0", root["TimeMs"].asString());
  EXPECT_EQ("0", root["startTs"].asString());
}

TEST_F(TraceRecords, StepRecordTextIsTheDefaultWriterText) {
  tracer.SendTracerStep("usb", "open");
  EXPECT_EQ(
      "{\n\t\"TimeMs\" : \"0\",\n\t\"biz\" : \"usb\",\n\t\"eventType\" : "
      "\"ZEL_TRACKER_TYPE_STEP\",\n\t\"startTs\" : \"0\",\n\t\"step\" : \"open\",\n\t"
      "\"zelVersion\" : \"1.2\"\n}",
      OnlyCall().content);
}

// ---- server-flow record ----

TEST_F(TraceRecords, ServerFlowWithEmptySpanGetsAFreshSpanEachCall) {
  Attrs attrs;
  tracer.SendServerFlowWithAttr("", "e", attrs);
  tracer.SendServerFlowWithAttr("", "e", attrs);
  const auto calls = backend.Calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_TRUE(IsSpanId(calls[0].spanId)) << calls[0].spanId;
  EXPECT_TRUE(IsSpanId(calls[1].spanId)) << calls[1].spanId;
  EXPECT_NE(calls[0].spanId, calls[1].spanId);
  EXPECT_NE(tracer.GetSpanId(), calls[0].spanId);  // not the stored span id
}

TEST_F(TraceRecords, ServerFlowPassesAGivenSpanThrough) {
  Attrs attrs;
  tracer.SendServerFlowWithAttr("my-span", "attach", attrs);
  const BackendCall call = OnlyCall();
  EXPECT_EQ("SendTraceAttr", call.function);
  EXPECT_EQ("my-span", call.spanId);
  EXPECT_EQ("attach", call.event);
}

TEST_F(TraceRecords, ServerFlowTraceIsTheContextsZelContext) {
  Attrs attrs;
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ("ctx-trace", OnlyCall().traceId);
}

TEST_F(TraceRecords, ServerFlowWithEmptyZelContextUsesTheTracersTraceId) {
  context->zelContext = "";
  Attrs attrs;
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  const auto calls = backend.Calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(tracer.GetTraceId(), calls[0].traceId);
  EXPECT_EQ(calls[0].traceId, calls[1].traceId);
}

TEST_F(TraceRecords, ServerFlowAddsFlowKeysProcessIdAndDesktopIdOnly) {
  Attrs attrs{{"vid", "0x1234"}};
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  const Attrs expected{{"vid", "0x1234"},     {"flowLevel", "level"}, {"flowName", "flow"},
                       {"processId", "4242"}, {"desktopId", "desk"},  {"imageVersion", "img"}};
  EXPECT_EQ(expected, OnlyCall().attrs);
  EXPECT_EQ(expected, attrs);  // the caller's map was filled in place
}

TEST_F(TraceRecords, ServerFlowProcessIdIsUnsignedDecimal) {
  context->processId = 4294967295u;
  Attrs attrs;
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ("4294967295", attrs.at("processId"));
}

TEST_F(TraceRecords, ServerFlowOverwritesTheCallersDesktopIdEvenWithEmpty) {
  context->desktopId = "";
  Attrs attrs{{"desktopId", "x"}};
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ("", OnlyCall().attrs.at("desktopId"));
}

TEST_F(TraceRecords, ServerFlowKeepsTheCallersImageVersionWhenTheContextHasNone) {
  context->imageVersion = "";
  Attrs attrs{{"imageVersion", "mine"}};
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ("mine", OnlyCall().attrs.at("imageVersion"));
}

TEST_F(TraceRecords, ServerFlowWithoutAnyImageVersionLeavesTheKeyOut) {
  context->imageVersion = "";
  Attrs attrs;
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ(0u, OnlyCall().attrs.count("imageVersion"));
}

TEST_F(TraceRecords, ServerFlowOverwritesTheCallersImageVersionWithTheContexts) {
  Attrs attrs{{"imageVersion", "mine"}};
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ("img", OnlyCall().attrs.at("imageVersion"));
}

TEST_F(TraceRecords, ServerFlowParentSpanIsEmptyBeforeGetSpanId) {
  Attrs attrs;
  tracer.SendServerFlowWithAttr("", "e", attrs);
  EXPECT_EQ("", OnlyCall().parentSpan);
}

TEST_F(TraceRecords, ServerFlowParentSpanIsTheStoredSpanIdOnceItExists) {
  const std::string stored = tracer.GetSpanId();
  Attrs attrs;
  tracer.SendServerFlowWithAttr("", "e", attrs);
  EXPECT_EQ(stored, OnlyCall().parentSpan);
}

TEST_F(TraceRecords, ServerFlowReachesEveryBackendInOrder) {
  auto log = std::make_shared<zeltest::CallLog>();
  zeltest::RecordingBackend a("A", log), b("B", log);
  tracer.UnregisterBackend(&backend);
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&b);
  Attrs attrs;
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  EXPECT_EQ((std::vector<std::string>{"A", "B"}), log->Backends());
}

// ---- generic attribute record ----

TEST_F(TraceRecords, GenericRecordPassesGivenIdsAndParentThrough) {
  Attrs attrs;
  tracer.SendGTraceWithAttr("t", "s", "ev", attrs, "parent");
  const BackendCall call = OnlyCall();
  EXPECT_EQ("SendTraceAttr", call.function);
  EXPECT_EQ("t", call.traceId);
  EXPECT_EQ("s", call.spanId);
  EXPECT_EQ("ev", call.event);
  EXPECT_EQ("parent", call.parentSpan);
}

TEST_F(TraceRecords, GenericRecordWithEmptyTraceIdUsesTheTracersTraceId) {
  Attrs attrs;
  tracer.SendGTraceWithAttr("", "s", "ev", attrs, "");
  EXPECT_EQ(tracer.GetTraceId(), OnlyCall().traceId);
  EXPECT_EQ("", OnlyCall().parentSpan);  // the caller's parent, even when empty
}

TEST_F(TraceRecords, GenericRecordWithEmptySpanGetsAFreshSpanEachCall) {
  Attrs attrs;
  tracer.SendGTraceWithAttr("t", "", "ev", attrs, "p");
  tracer.SendGTraceWithAttr("t", "", "ev", attrs, "p");
  const auto calls = backend.Calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_TRUE(IsSpanId(calls[0].spanId)) << calls[0].spanId;
  EXPECT_TRUE(IsSpanId(calls[1].spanId)) << calls[1].spanId;
  EXPECT_NE(calls[0].spanId, calls[1].spanId);
}

TEST_F(TraceRecords, GenericRecordAddsVersionAndZelContextOnly) {
  Attrs attrs{{"vid", "0x1234"}, {"desktopId", "x"}};
  tracer.SendGTraceWithAttr("t", "s", "ev", attrs, "p");
  const Attrs expected{{"vid", "0x1234"},
                       {"desktopId", "x"},
                       {"zelVersion", "1.2"},
                       {"zelContext", "ctx-trace"},
                       {"imageVersion", "img"}};
  EXPECT_EQ(expected, OnlyCall().attrs);
  EXPECT_EQ(expected, attrs);
}

TEST_F(TraceRecords, GenericRecordKeepsTheCallersImageVersionWhenTheContextHasNone) {
  context->imageVersion = "";
  Attrs attrs{{"imageVersion", "mine"}};
  tracer.SendGTraceWithAttr("t", "s", "ev", attrs, "p");
  EXPECT_EQ("mine", OnlyCall().attrs.at("imageVersion"));
}

TEST_F(TraceRecords, GenericRecordWithoutAnyImageVersionLeavesTheKeyOut) {
  context->imageVersion = "";
  Attrs attrs;
  tracer.SendGTraceWithAttr("t", "s", "ev", attrs, "p");
  EXPECT_EQ(0u, OnlyCall().attrs.count("imageVersion"));
}

// ---- converters: one test case per table row ----

using CodeText = std::tuple<unsigned short, std::string>;

std::string CodeName(const testing::TestParamInfo<CodeText>& info) {
  return "Code" + std::to_string(std::get<0>(info.param));
}

class Uint16ToString : public testing::TestWithParam<CodeText> {};
TEST_P(Uint16ToString, IsZeroXAndAtLeastFourLowerHexDigits) {
  EXPECT_EQ(std::get<1>(GetParam()), zel::ZelTracer::Uint16ToString(std::get<0>(GetParam())));
}
INSTANTIATE_TEST_SUITE_P(TraceRecordsValues, Uint16ToString,
                         testing::Values(CodeText{0, "0x0000"}, CodeText{1, "0x0001"},
                                         CodeText{4660, "0x1234"}, CodeText{43981, "0xabcd"},
                                         CodeText{65535, "0xffff"}),
                         CodeName);

class RedirtypeToString : public testing::TestWithParam<CodeText> {};
TEST_P(RedirtypeToString, GivesItsTableText) {
  EXPECT_EQ(std::get<1>(GetParam()), zel::ZelTracer::RedirtypeToString(std::get<0>(GetParam())));
}
INSTANTIATE_TEST_SUITE_P(
    TraceRecordsTable, RedirtypeToString,
    testing::Values(CodeText{2, "DEV_REDIRTYPE_UDISK"}, CodeText{3, "DEV_REDIRTYPE_CAMERA"},
                    CodeText{4, "DEV_REDIRTYPE_PRINTTER"}, CodeText{5, "DEV_REDIRTYPE_SCANNER"},
                    CodeText{6, "DEV_REDIRTYPE_PEN"}, CodeText{7, "DEV_REDIRTYPE_ROUTER"},
                    CodeText{16, "DEV_REDIRTYPE_USBREDIR"}, CodeText{32, "DEV_REDIRTYPE_USBREDIR"},
                    CodeText{249, "DEV_REDIRTYPE_MOUSE_KEYBOARD"},
                    CodeText{250, "DEV_REDIRTYPE_MOUSE"}, CodeText{251, "DEV_REDIRTYPE_KEYBOARD"}),
    CodeName);
INSTANTIATE_TEST_SUITE_P(
    TraceRecordsUnknown, RedirtypeToString,
    testing::Values(CodeText{0, "DEV_REDIRTYPE_UNKNOW"}, CodeText{1, "DEV_REDIRTYPE_UNKNOW"},
                    CodeText{8, "DEV_REDIRTYPE_UNKNOW"}, CodeText{248, "DEV_REDIRTYPE_UNKNOW"},
                    CodeText{252, "DEV_REDIRTYPE_UNKNOW"}, CodeText{65535, "DEV_REDIRTYPE_UNKNOW"}),
    CodeName);

class DeviceTypeToString : public testing::TestWithParam<CodeText> {};
TEST_P(DeviceTypeToString, GivesItsTableText) {
  EXPECT_EQ(std::get<1>(GetParam()), zel::ZelTracer::DeviceTypeToString(std::get<0>(GetParam())));
}
INSTANTIATE_TEST_SUITE_P(
    TraceRecordsTable, DeviceTypeToString,
    testing::Values(CodeText{2, "DEV_TYPE_UDISK"}, CodeText{3, "DEV_TYPE_CAMERA"},
                    CodeText{4, "DEV_TYPE_PRINTER"}, CodeText{5, "DEV_TYPE_SCANNER"},
                    CodeText{6, "DEV_TYPE_PEN"}, CodeText{16, "DEV_TYPE_OTHER_PLUGIN_DEV"},
                    CodeText{34, "DEV_TYPE_UKEY"}, CodeText{35, "DEV_TYPE_ADB"},
                    CodeText{36, "DEV_TYPE_HIGH_SPEED_PHOTOGRAPHIC"}, CodeText{37, "DEV_TYPE_DVD"},
                    CodeText{38, "DEV_TYPE_SERIAL_PORT"}, CodeText{39, "DEV_TYPE_AUDIO"},
                    CodeText{40, "networkInterfaceCard"}, CodeText{41, "JOYSTICK"},
                    CodeText{249, "DEV_TYPE_MOUSE"}, CodeText{250, "DEV_TYPE_KEYBOARD"},
                    CodeText{255, "DEV_TYPE_PC_OTHER_DEV"}),
    CodeName);
INSTANTIATE_TEST_SUITE_P(TraceRecordsUnknown, DeviceTypeToString,
                         testing::Values(CodeText{0, ""}, CodeText{7, ""}, CodeText{32, ""},
                                         CodeText{251, ""}, CodeText{256, ""}),
                         CodeName);

class StatusToString : public testing::TestWithParam<CodeText> {};
TEST_P(StatusToString, GivesItsTableText) {
  EXPECT_EQ(std::get<1>(GetParam()), zel::ZelTracer::StatusToString(std::get<0>(GetParam())));
}
INSTANTIATE_TEST_SUITE_P(TraceRecordsTable, StatusToString,
                         testing::Values(CodeText{0, "idea"}, CodeText{1, "connecting"},
                                         CodeText{2, "connected"}, CodeText{3, "disconnecting"}),
                         CodeName);
INSTANTIATE_TEST_SUITE_P(TraceRecordsUnknown, StatusToString,
                         testing::Values(CodeText{4, "4"}, CodeText{7, "7"},
                                         CodeText{65535, "65535"}),
                         CodeName);

struct CidsCase {
  std::string name;
  std::vector<unsigned int> codes;
  std::string text;
};
// Keeps the generated test names short and stable (no raw bytes of the case).
void PrintTo(const CidsCase& c, std::ostream* out) { *out << c.name; }

class CidsToString : public testing::TestWithParam<CidsCase> {};
TEST_P(CidsToString, GivesOnePiecePerCode) {
  EXPECT_EQ(GetParam().text, zel::ZelTracer::CidsToString(GetParam().codes));
}
INSTANTIATE_TEST_SUITE_P(
    TraceRecordsTable, CidsToString,
    testing::Values(CidsCase{"Audio", {1}, "AUDIO;"}, CidsCase{"Hid", {3}, "HID;"},
                    CidsCase{"Image", {6}, "IMAGE;"}, CidsCase{"Printer", {7}, "PRINTER;"},
                    CidsCase{"MassStorage", {8}, "MASS_STORAGE;"},
                    CidsCase{"SmartCard", {11}, "SMART_CARD;"}, CidsCase{"Video", {14}, "VIDEO;"}),
    [](const testing::TestParamInfo<CidsCase>& info) { return info.param.name; });
INSTANTIATE_TEST_SUITE_P(
    TraceRecordsOther, CidsToString,
    testing::Values(
        CidsCase{"Empty", {}, ""}, CidsCase{"MassStorageThenHid", {8, 3}, "MASS_STORAGE;HID;"},
        CidsCase{"UnnamedAsDecimal", {9, 255}, "9;255;"}, CidsCase{"ZeroAsDecimal", {0}, "0;"},
        CidsCase{"GapsInTheTableAsDecimal", {2, 4, 5, 9, 10, 12, 13}, "2;4;5;9;10;12;13;"},
        CidsCase{"PastTheTableAsDecimal", {15, 224}, "15;224;"},
        CidsCase{"OnlyTheLowByteCounts", {263, 256, 0x1ff}, "PRINTER;0;255;"},
        CidsCase{"DuplicatesRepeat", {3, 3}, "HID;HID;"}),
    [](const testing::TestParamInfo<CidsCase>& info) { return info.param.name; });

}  // namespace
