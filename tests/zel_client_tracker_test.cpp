#include "utils/zel_client_tracker.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <future>
#include <memory>

#include "client/tracer.h"
#include "support/diag_capture.h"
#include "support/trace_backends.h"

namespace {

using Attrs = std::map<std::string, std::string>;
using zeltest::DiagCapture;

class ZelClientTracker : public testing::Test {
 protected:
  void SetUp() override {
    TracerClearRecordedCalls();
    DiagCapture::Clear();
  }
  void TearDown() override {
    TracerThrowFromNextCalls("post", 0);
    TracerThrowFromNextCalls("traceRaw", 0);
    TracerSetResult("post", 0);
    TracerSetResult("traceRaw", 0);
  }
  static TracerCall OnlyTracerCall() {
    const auto calls = TracerRecordedCalls();
    EXPECT_EQ(1u, calls.size());
    return calls.empty() ? TracerCall{} : calls[0];
  }
  static Json::Value Parse(const std::string& text) {
    Json::Value root;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
    return root;
  }

  DiagCapture diags;
  zel::ZelClientTracker tracker;
};

TEST_F(ZelClientTracker, CreateTraceIdIsEmpty) { EXPECT_EQ("", tracker.CreateTraceId()); }

// ---- PostTrace / PostTraceWithId ----

TEST_F(ZelClientTracker, PostTraceCallsPostWithModuleZelModule) {
  EXPECT_EQ(0, tracker.PostTrace("record text"));
  const TracerCall call = OnlyTracerCall();
  EXPECT_EQ("post", call.function);
  EXPECT_EQ((std::vector<std::string>{"record text", "zelModule"}), call.args);
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ZelClientTracker, PostTraceLetsTheLibrarysExceptionThrough) {
  TracerThrowFromNextCalls("post", 1);
  EXPECT_THROW(tracker.PostTrace("x"), std::runtime_error);
}

TEST_F(ZelClientTracker, PostTraceWithIdCallsTraceRawWithModuleZel) {
  EXPECT_EQ(0, tracker.PostTraceWithId("t1", "s1", "open", "content", "p1"));
  const TracerCall call = OnlyTracerCall();
  EXPECT_EQ("traceRaw", call.function);
  EXPECT_EQ((std::vector<std::string>{"content", "zel", "t1", "s1", "open", "p1"}), call.args);
}

TEST_F(ZelClientTracker, PostTraceAndPostTraceWithIdGiveTheLibrarysResult) {
  TracerSetResult("post", 7);
  TracerSetResult("traceRaw", -3);
  EXPECT_EQ(7, tracker.PostTrace("x"));
  EXPECT_EQ(-3, tracker.PostTraceWithId("t1", "s1", "open", "content", "p1"));
}

TEST_F(ZelClientTracker, PostTraceWithIdWritesItsDebugDiagnostic) {
  tracker.PostTraceWithId("t1", "s1", "open", "content", "p1");
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(5, lines[0].level);
  EXPECT_EQ("ZEL_LOG", lines[0].tag);
  EXPECT_EQ(
      "zel_client_tracker.cpp PostTraceWithId(28): \"Debug:\" "
      "\"PostTraceWithId, traceId:t1 event:open  parentSpan:p1\"",
      lines[0].text);
}

TEST_F(ZelClientTracker, PostTraceWithIdLetsTheLibrarysExceptionThrough) {
  TracerThrowFromNextCalls("traceRaw", 1);
  EXPECT_THROW(tracker.PostTraceWithId("t", "s", "e", "c", "p"), std::runtime_error);
  EXPECT_EQ(0u, DiagCapture::Count("Exception occurred"));
}

// ---- SendTraceAttr ----

TEST_F(ZelClientTracker, SendTraceAttrSendsSortedStringMembersAndEvent) {
  Attrs attrs{{"b", "2"}, {"a", "1"}};
  tracker.SendTraceAttr("t1", "s1", "open", attrs, "p1");
  const TracerCall call = OnlyTracerCall();
  EXPECT_EQ("traceRaw", call.function);
  ASSERT_EQ(6u, call.args.size());
  EXPECT_EQ((std::vector<std::string>{"zel", "t1", "s1", "open", "p1"}),
            std::vector<std::string>(call.args.begin() + 1, call.args.end()));

  const Json::Value root = Parse(call.args[0]);
  ASSERT_TRUE(root.isObject());
  EXPECT_EQ((std::vector<std::string>{"a", "b", "event"}), root.getMemberNames());
  for (const std::string& name : root.getMemberNames()) {
    EXPECT_TRUE(root[name].isString()) << name;
  }
  EXPECT_EQ("1", root["a"].asString());
  EXPECT_EQ("2", root["b"].asString());
  EXPECT_EQ("open", root["event"].asString());
}

TEST_F(ZelClientTracker, SendTraceAttrTextIsTheStyledJson) {
  Attrs attrs{{"b", "2"}, {"a", "1"}};
  tracker.SendTraceAttr("t", "s", "open", attrs, "p");
  Json::Value expected;
  expected["a"] = "1";
  expected["b"] = "2";
  expected["event"] = "open";
  // The library's styled form (ends in a newline, unlike convertJsonToStr).
  EXPECT_EQ(expected.toStyledString(), OnlyTracerCall().args[0]);
  EXPECT_EQ('\n', OnlyTracerCall().args[0].back());
}

TEST_F(ZelClientTracker, SendTraceAttrEventArgumentReplacesAnEventAttribute) {
  Attrs attrs{{"event", "x"}};
  tracker.SendTraceAttr("t", "s", "open", attrs, "p");
  const Json::Value root = Parse(OnlyTracerCall().args[0]);
  EXPECT_EQ((std::vector<std::string>{"event"}), root.getMemberNames());
  EXPECT_EQ("open", root["event"].asString());
  EXPECT_EQ("x", attrs.at("event"));  // the caller's map is only read
}

TEST_F(ZelClientTracker, SendTraceAttrWithEmptyAttrsStillSendsAnObjectWithEvent) {
  Attrs attrs;
  tracker.SendTraceAttr("t", "s", "open", attrs, "p");
  const Json::Value root = Parse(OnlyTracerCall().args[0]);
  ASSERT_TRUE(root.isObject());
  EXPECT_EQ((std::vector<std::string>{"event"}), root.getMemberNames());
  EXPECT_TRUE(attrs.empty());
}

TEST_F(ZelClientTracker, SendTraceAttrWritesItsDebugDiagnostic) {
  Attrs attrs;
  tracker.SendTraceAttr("t1", "s1", "open", attrs, "p1");
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(5, lines[0].level);
  EXPECT_EQ("ZEL_LOG", lines[0].tag);
  EXPECT_EQ(
      "zel_client_tracker.cpp SendTraceAttr(53): \"Debug:\" "
      "\"SendTraceAttr, traceId:t1 event:open parentSpan:p1\"",
      lines[0].text);
}

TEST_F(ZelClientTracker, SendTraceAttrCatchesTheLibrarysExceptionAndTakesTheNextRecord) {
  TracerThrowFromNextCalls("traceRaw", 1);
  Attrs attrs{{"a", "1"}};
  EXPECT_NO_THROW(tracker.SendTraceAttr("t1", "s1", "open", attrs, "p1"));
  EXPECT_TRUE(TracerRecordedCalls().empty());

  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(2u, lines.size());  // the debug line, then the error
  EXPECT_EQ(7, lines[1].level);
  EXPECT_EQ("ZEL_LOG", lines[1].tag);
  EXPECT_EQ(
      "zel_client_tracker.cpp SendTraceAttr(67): \"Error:\" "
      "\"Exception occurred in SendTraceAttr, traceId:t1 event:open\"",
      lines[1].text);

  // The mutex is free: the next record, even from another thread, goes through.
  auto next = std::async(std::launch::async,
                         [&] { tracker.SendTraceAttr("t2", "s2", "close", attrs, "p2"); });
  ASSERT_EQ(std::future_status::ready, next.wait_for(std::chrono::seconds(10)));
  const TracerCall call = OnlyTracerCall();
  EXPECT_EQ("t2", call.args[2]);
  EXPECT_EQ("close", call.args[4]);
}

TEST_F(ZelClientTracker, SendTraceAttrCatchesExceptionsOfAnyType) {
  TracerThrowFromNextCalls("traceRaw", 1, /*nonStandard=*/true);
  Attrs attrs;
  EXPECT_NO_THROW(tracker.SendTraceAttr("t1", "s1", "open", attrs, "p1"));
  EXPECT_EQ(1u, DiagCapture::Count("Exception occurred in SendTraceAttr, traceId:t1 event:open"));
  tracker.SendTraceAttr("t2", "s2", "close", attrs, "p2");
  EXPECT_EQ("t2", OnlyTracerCall().args[2]);
}

// ---- behind the tracer ----

TEST_F(ZelClientTracker, StepRecordsReachTracerPostAsJsonText) {
  zel::ZelTracer tracer;
  tracer.SetZelProcessContext(std::make_shared<zeltest::FixedContext>());
  tracer.RegisterBackend(&tracker);
  tracer.SendTracerStep("usb", "open");
  const TracerCall call = OnlyTracerCall();
  EXPECT_EQ("post", call.function);
  EXPECT_EQ("zelModule", call.args[1]);
  EXPECT_EQ(tracer.convertJsonToStr(Parse(call.args[0])), call.args[0]);
  EXPECT_EQ("open", Parse(call.args[0])["step"].asString());
}

TEST_F(ZelClientTracker, AttributeRecordsReachTracerTraceRawWithTheContextFields) {
  zel::ZelTracer tracer;
  tracer.SetZelProcessContext(std::make_shared<zeltest::FixedContext>());
  tracer.RegisterBackend(&tracker);
  Attrs attrs{{"vid", "0x0001"}};
  tracer.SendServerFlowWithAttr("span", "attach", attrs);
  const TracerCall call = OnlyTracerCall();
  EXPECT_EQ((std::vector<std::string>{"zel", "ctx-trace", "span", "attach", ""}),
            std::vector<std::string>(call.args.begin() + 1, call.args.end()));
  const Json::Value root = Parse(call.args[0]);
  EXPECT_EQ((std::vector<std::string>{"desktopId", "event", "flowLevel", "flowName", "imageVersion",
                                      "processId", "vid"}),
            root.getMemberNames());
  EXPECT_EQ("4242", root["processId"].asString());
}

}  // namespace
