#include "utils/quil_tracer.h"

#include <gtest/gtest.h>

#include <memory>

#include "client/tracer.h"
#include "support/trace_backends.h"
#include "utils/zel_client_tracker.h"

namespace {

using Attrs = std::map<std::string, std::string>;

TEST(QuilTracer, CreateTraceIdIsEmpty) {
  zel::QuilTracer quil;
  EXPECT_EQ("", quil.CreateTraceId());
}

TEST(QuilTracer, PostTraceReturnsOneAndSendsNothing) {
  TracerClearRecordedCalls();
  zel::QuilTracer quil;
  EXPECT_EQ(1, quil.PostTrace("x"));
  EXPECT_TRUE(TracerRecordedCalls().empty());
}

TEST(QuilTracer, PostTraceWithIdReturnsOneAndSendsNothing) {
  TracerClearRecordedCalls();
  zel::QuilTracer quil;
  EXPECT_EQ(1, quil.PostTraceWithId("t", "s", "e", "c", "p"));
  EXPECT_TRUE(TracerRecordedCalls().empty());
}

TEST(QuilTracer, SendTraceAttrLeavesAttrsAsTheyAre) {
  TracerClearRecordedCalls();
  zel::QuilTracer quil;
  Attrs attrs{{"a", "1"}};
  quil.SendTraceAttr("t", "s", "e", attrs, "p");
  EXPECT_EQ((Attrs{{"a", "1"}}), attrs);
  EXPECT_TRUE(TracerRecordedCalls().empty());
}

TEST(QuilTracer, CreateTraceIdHookReturnsEmptyAndPrintsItsLine) {
  std::string spanId = "abc";
  testing::internal::CaptureStdout();
  const std::string traceId = quil_create_traceId(spanId);
  EXPECT_EQ("quil create traceId: spanId:abc\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ("", traceId);
  EXPECT_EQ("abc", spanId);
}

TEST(QuilTracer, PostAndRegisterHooksDoNothing) {
  TracerClearRecordedCalls();
  testing::internal::CaptureStdout();
  post_trace_by_quil();
  register_tavagent_handler();
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(TracerRecordedCalls().empty());
}

// Sends one record of each kind, with fixed ids, and returns what reached
// the tracing library.
std::vector<TracerCall> SendOneOfEach(zel::ZelTracer& tracer) {
  TracerClearRecordedCalls();
  Attrs flow{{"vid", "0x0001"}};
  Attrs generic{{"pid", "0x0002"}};
  tracer.SendTracerStep("usb", "open");
  tracer.SendServerFlowWithAttr("span-1", "attach", flow);
  tracer.SendGTraceWithAttr("trace-1", "span-2", "detach", generic, "parent-1");
  tracer.PostTrace("plain");
  tracer.PostTraceWithId("trace-2", "span-3", "raw", "content", "parent-2");
  return TracerRecordedCalls();
}

TEST(QuilTracer, BesideAClientTrackerChangesNothingItSends) {
  zel::ZelTracer tracer;
  tracer.SetZelProcessContext(std::make_shared<zeltest::FixedContext>());
  zel::ZelClientTracker tracker;
  tracer.RegisterBackend(&tracker);
  const std::vector<TracerCall> alone = SendOneOfEach(tracer);
  ASSERT_EQ(5u, alone.size());

  zel::QuilTracer before, after;
  tracer.UnregisterBackend(&tracker);
  tracer.RegisterBackend(&before);
  tracer.RegisterBackend(&tracker);
  tracer.RegisterBackend(&after);
  const std::vector<TracerCall> beside = SendOneOfEach(tracer);
  ASSERT_EQ(alone.size(), beside.size());
  for (size_t i = 0; i < alone.size(); ++i) {
    EXPECT_EQ(alone[i].function, beside[i].function) << i;
    EXPECT_EQ(alone[i].args, beside[i].args) << i;
  }
}

}  // namespace
