#include "utils/zel_tracer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>
#include <thread>

#include "client/tracer.h"
#include "support/sync.h"
#include "support/trace_backends.h"
#include "utils/zel_client_tracker.h"
#include "utils/zel_env.h"

// While set, the tracer's constructor stops at its "zeltraceid:" line (its
// printf, replaced here for the whole test program) until it is cleared,
// so that other callers can line up on the creation lock meanwhile.
std::atomic<bool> gHoldTracerConstructor{false};
std::atomic<bool> gTracerConstructorHeld{false};

static void HoldAtTracerConstructorLine(const char* format) {
  if (gHoldTracerConstructor.load() && std::strncmp(format, "zeltraceid:", 11) == 0) {
    gTracerConstructorHeld = true;
    while (gHoldTracerConstructor.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

extern "C" int printf(const char* format, ...) {
  HoldAtTracerConstructorLine(format);
  va_list args;
  va_start(args, format);
  const int written = std::vprintf(format, args);
  va_end(args);
  return written;
}

// What printf becomes in a library built with _FORTIFY_SOURCE.
extern "C" int __printf_chk(int /*flag*/, const char* format, ...) {
  HoldAtTracerConstructorLine(format);
  va_list args;
  va_start(args, format);
  const int written = std::vprintf(format, args);
  va_end(args);
  return written;
}

namespace {

using zeltest::BackendCall;
using zeltest::CallLog;
using zeltest::FixedContext;
using zeltest::RecordingBackend;

size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

using zeltest::IsLowerHex;

// "<16 hex digits>-YYYY-MM-DD-hh:mm:ss.mmm"
bool IsSessionId(const std::string& text) {
  const std::string timeForm = "dddd-dd-dd-dd:dd:dd.ddd";
  if (text.size() != 17 + timeForm.size() || text[16] != '-') return false;
  if (!IsLowerHex(text.substr(0, 16), 16)) return false;
  for (size_t i = 0; i < timeForm.size(); ++i) {
    const char c = text[17 + i];
    const bool ok = timeForm[i] == 'd' ? (c >= '0' && c <= '9') : c == timeForm[i];
    if (!ok) return false;
  }
  return true;
}

// ---- instance ----

TEST(ZelTracer, GetInstanceFromManyThreadsAtOnceBuildsOneTracer) {
  testing::internal::CaptureStdout();
  std::atomic<bool> go{false};
  std::vector<zel::ZelTracer*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      seen[i] = zel::ZelTracer::GetInstance();
    });
  }
  go.store(true);
  for (auto& thread : threads) thread.join();
  const std::string out = testing::internal::GetCapturedStdout();

  ASSERT_NE(nullptr, seen[0]);
  for (zel::ZelTracer* tracer : seen) EXPECT_EQ(seen[0], tracer);
  EXPECT_EQ(seen[0], zel::ZelTracer::GetInstance());
  EXPECT_EQ(1u, CountOf(out, "zeltraceid:"));
}

TEST(ZelTracer, GetInstanceCallersQueuedBehindTheCreationGetTheSameTracer) {
  testing::internal::CaptureStdout();
  gHoldTracerConstructor = true;
  zel::ZelTracer* first = nullptr;
  std::thread creator([&first] { first = zel::ZelTracer::GetInstance(); });
  const bool held = zeltest::WaitUntil([] { return gTracerConstructorHeld.load(); });
  // These find no tracer yet and wait for the lock that the creator holds.
  std::vector<zel::ZelTracer*> queued(3, nullptr);
  std::vector<std::thread> waiters;
  for (auto& seen : queued) waiters.emplace_back([&seen] { seen = zel::ZelTracer::GetInstance(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  gHoldTracerConstructor = false;
  creator.join();
  for (auto& waiter : waiters) waiter.join();
  const std::string out = testing::internal::GetCapturedStdout();

  EXPECT_TRUE(held) << "the constructor's line was not seen";
  ASSERT_NE(nullptr, first);
  for (zel::ZelTracer* tracer : queued) EXPECT_EQ(first, tracer);
  EXPECT_EQ(1u, CountOf(out, "zeltraceid:"));
}

TEST(ZelTracer, ConstructorPrintsTheQuilLineAndTwoEmptyIds) {
  testing::internal::CaptureStdout();
  zel::ZelTracer tracer;
  EXPECT_EQ("quil create traceId: spanId:\nzeltraceid:   \n",
            testing::internal::GetCapturedStdout());
}

// ---- ids ----

TEST(ZelTracer, TraceIdIs32LowerHexDigitsAndStable) {
  zel::ZelTracer tracer;
  const std::string id = tracer.GetTraceId();
  EXPECT_TRUE(IsLowerHex(id, 32)) << id;
  EXPECT_EQ(id, tracer.GetTraceId());
}

TEST(ZelTracer, SpanIdIs16LowerHexDigitsAndStable) {
  zel::ZelTracer tracer;
  const std::string id = tracer.GetSpanId();
  EXPECT_TRUE(IsLowerHex(id, 16)) << id;
  EXPECT_EQ(id, tracer.GetSpanId());
}

TEST(ZelTracer, IdsAreRandomPerTracer) {
  testing::internal::CaptureStdout();
  zel::ZelTracer first;
  zel::ZelTracer second;
  testing::internal::GetCapturedStdout();
  EXPECT_NE(first.GetTraceId(), second.GetTraceId());
  EXPECT_NE(first.GetSpanId(), second.GetSpanId());
  EXPECT_NE(first.GetTraceId().substr(0, 16), first.GetTraceId().substr(16));
}

// One hex digit in 16 is a leading 0: over hundreds of ids some must show it,
// and every id must still have its full width.
TEST(ZelTracer, IdsKeepLeadingZeroDigits) {
  testing::internal::CaptureStdout();
  bool spanWithLeadingZero = false;
  bool traceHalfWithLeadingZero = false;
  for (int i = 0; i < 300; ++i) {
    zel::ZelTracer tracer;
    const std::string trace = tracer.GetTraceId();
    const std::string span = tracer.GetSpanId();
    ASSERT_EQ(32u, trace.size()) << trace;
    ASSERT_EQ(16u, span.size()) << span;
    spanWithLeadingZero |= span[0] == '0';
    traceHalfWithLeadingZero |= trace[0] == '0' || trace[16] == '0';
  }
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(spanWithLeadingZero);
  EXPECT_TRUE(traceHalfWithLeadingZero);
}

TEST(ZelTracer, NewSessionIdIsFreshSpanDashAndTime) {
  zel::ZelTracer tracer;
  const std::string first = tracer.NewSessionId();
  const std::string second = tracer.NewSessionId();
  EXPECT_TRUE(IsSessionId(first)) << first;
  EXPECT_TRUE(IsSessionId(second)) << second;
  EXPECT_NE(first, second);
}

TEST(ZelTracer, NewSessionIdStoresNoSpanId) {
  zel::ZelTracer tracer;
  tracer.SetZelProcessContext(std::make_shared<FixedContext>());
  RecordingBackend backend;
  tracer.RegisterBackend(&backend);
  tracer.NewSessionId();
  std::map<std::string, std::string> attrs;
  tracer.SendServerFlowWithAttr("s", "e", attrs);
  ASSERT_EQ(1u, backend.Calls().size());
  EXPECT_EQ("", backend.Calls()[0].parentSpan);
}

// ---- backends ----

TEST(ZelTracer, RegistrationLinesPrintTheSizeBeforeTheChange) {
  zel::ZelTracer tracer;
  RecordingBackend a("A"), b("B");
  testing::internal::CaptureStdout();
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&b);
  tracer.UnregisterBackend(&a);
  EXPECT_EQ(
      "tracer register backend: size=0 \n"
      "tracer register backend: size=1 \n"
      "tracer unregister backend: size=2 \n",
      testing::internal::GetCapturedStdout());
}

TEST(ZelTracer, BackendRegisteredTwiceReceivesEveryRecordTwice) {
  zel::ZelTracer tracer;
  auto log = std::make_shared<CallLog>();
  RecordingBackend a("A", log), b("B", log);
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&b);
  tracer.RegisterBackend(&a);
  tracer.PostTrace("x");
  EXPECT_EQ((std::vector<std::string>{"A", "B", "A"}), log->Backends());
}

TEST(ZelTracer, UnregisterRemovesOnlyTheFirstDuplicate) {
  zel::ZelTracer tracer;
  auto log = std::make_shared<CallLog>();
  RecordingBackend a("A", log), b("B", log);
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&b);
  tracer.RegisterBackend(&a);
  tracer.UnregisterBackend(&a);
  tracer.PostTrace("x");
  EXPECT_EQ((std::vector<std::string>{"B", "A"}), log->Backends());
}

TEST(ZelTracer, UnregisterOfUnknownBackendChangesNothing) {
  zel::ZelTracer tracer;
  auto log = std::make_shared<CallLog>();
  RecordingBackend a("A", log), b("B", log), stranger("S", log);
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&b);
  testing::internal::CaptureStdout();
  tracer.UnregisterBackend(&stranger);
  EXPECT_EQ("tracer unregister backend: size=2 \n", testing::internal::GetCapturedStdout());
  tracer.PostTrace("x");
  EXPECT_EQ((std::vector<std::string>{"A", "B"}), log->Backends());
}

TEST(ZelTracer, PostTraceWithNoBackendReachesNothing) {
  zel::ZelTracer tracer;
  RecordingBackend gone;
  tracer.RegisterBackend(&gone);
  tracer.UnregisterBackend(&gone);
  TracerClearRecordedCalls();
  tracer.PostTrace("x");
  tracer.PostTraceWithId("t", "s", "e", "c", "p");
  EXPECT_TRUE(gone.Calls().empty());
  EXPECT_TRUE(TracerRecordedCalls().empty());
}

TEST(ZelTracer, PostTraceHandsContentToEveryBackendInOrder) {
  zel::ZelTracer tracer;
  auto log = std::make_shared<CallLog>();
  RecordingBackend a("A", log), b("B", log);
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&b);
  tracer.PostTrace("{\"k\":1}");
  const auto calls = log->Calls();
  ASSERT_EQ(2u, calls.size());
  for (const BackendCall& call : calls) {
    EXPECT_EQ("PostTrace", call.function);
    EXPECT_EQ("{\"k\":1}", call.content);
  }
  EXPECT_EQ((std::vector<std::string>{"A", "B"}), log->Backends());
}

TEST(ZelTracer, PostTraceWithIdPassesTheFiveArgumentsUnchanged) {
  zel::ZelTracer tracer;
  RecordingBackend backend;
  tracer.RegisterBackend(&backend);
  tracer.PostTraceWithId("trace", "span", "event", "content", "parent");
  const auto calls = backend.Calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("PostTraceWithId", calls[0].function);
  EXPECT_EQ("trace", calls[0].traceId);
  EXPECT_EQ("span", calls[0].spanId);
  EXPECT_EQ("event", calls[0].event);
  EXPECT_EQ("content", calls[0].content);
  EXPECT_EQ("parent", calls[0].parentSpan);
}

TEST(ZelTracer, PostTraceWorksWithoutContext) {
  zel::ZelTracer tracer;
  RecordingBackend backend;
  tracer.RegisterBackend(&backend);
  ASSERT_EQ(nullptr, tracer.GetZelProcessContext());
  tracer.PostTrace("x");
  tracer.PostTraceWithId("t", "s", "e", "c", "p");
  EXPECT_EQ(2u, backend.Calls().size());
}

TEST(ZelTracer, ThrowingBackendStopsPostTraceAndTheExceptionReachesTheCaller) {
  zel::ZelTracer tracer;
  auto log = std::make_shared<CallLog>();
  RecordingBackend a("A", log), thrower("T", log), c("C", log);
  thrower.ThrowFromPosts();
  tracer.RegisterBackend(&a);
  tracer.RegisterBackend(&thrower);
  tracer.RegisterBackend(&c);
  EXPECT_THROW(tracer.PostTrace("x"), std::runtime_error);
  EXPECT_EQ((std::vector<std::string>{"A"}), log->Backends());
  // The shared lock was released: an exclusive operation still goes through.
  tracer.UnregisterBackend(&thrower);
  tracer.PostTrace("y");
  EXPECT_EQ((std::vector<std::string>{"A", "A", "C"}), log->Backends());
}

TEST(ZelTracer, ThrowingBackendStopsPostTraceWithIdAndTheExceptionReachesTheCaller) {
  zel::ZelTracer tracer;
  auto log = std::make_shared<CallLog>();
  RecordingBackend thrower("T", log), b("B", log);
  thrower.ThrowFromPosts();
  tracer.RegisterBackend(&thrower);
  tracer.RegisterBackend(&b);
  EXPECT_THROW(tracer.PostTraceWithId("t", "s", "e", "c", "p"), std::runtime_error);
  EXPECT_TRUE(log->Calls().empty());
  EXPECT_TRUE(IsLowerHex(tracer.GetTraceId(), 32));  // the lock is free again
}

// ---- JSON text ----

TEST(ZelTracer, ConvertJsonToStrOfNullIsTheWritersNullText) {
  zel::ZelTracer tracer;
  EXPECT_EQ("null", tracer.convertJsonToStr(Json::Value()));
}

TEST(ZelTracer, ConvertJsonToStrUsesTheDefaultWriterSettings) {
  zel::ZelTracer tracer;
  Json::Value value;
  value["b"] = "two";
  value["a"] = 1;
  EXPECT_EQ("{\n\t\"a\" : 1,\n\t\"b\" : \"two\"\n}", tracer.convertJsonToStr(value));
}

// ---- process context ----

TEST(ZelTracer, ProcessContextKeepsItsArgumentsAndReadsZelEnv) {
  zel::ZelEnv::zel_set_env("desktopId", "desk-7");
  zel::ZelEnv::zel_set_env("imageVersion", "img-3");
  zel::ZelProcessContext context("1.2", "level", "flow", "ctx", 77);
  EXPECT_EQ("1.2", context.GetZelVersion());
  EXPECT_EQ("level", context.GetFlowLevel());
  EXPECT_EQ("flow", context.GetFlowName());
  EXPECT_EQ("ctx", context.GetZelContext());
  EXPECT_EQ(77u, context.GetProcessId());
  EXPECT_EQ("desk-7", context.GetDesktopId());
  EXPECT_EQ("img-3", context.GetImageVersion());
}

TEST(ZelTracer, ProcessContextReadsEnvOnceAtConstruction) {
  zel::ZelEnv::zel_set_env("desktopId", "before");
  zel::ZelProcessContext context("v", "l", "n", "c", 1);
  zel::ZelEnv::zel_set_env("desktopId", "after");
  EXPECT_EQ("before", context.GetDesktopId());
}

TEST(ZelTracer, ProcessContextWithUnsetEnvNamesHasEmptyDesktopAndImage) {
  zel::ZelProcessContext context("v", "l", "n", "c", 1);
  EXPECT_EQ("", context.GetDesktopId());
  EXPECT_EQ("", context.GetImageVersion());
}

TEST(ZelTracer, InitInstallsTheDefaultContextWithTraceIdAndPid) {
  zel::ZelEnv::zel_set_env("desktopId", "desk-1");
  zel::ZelTracer tracer;
  tracer.Init("1.2", "level", "flow");
  auto context = tracer.GetZelProcessContext();
  ASSERT_NE(nullptr, context);
  EXPECT_NE(nullptr, dynamic_cast<zel::ZelProcessContext*>(context.get()));
  EXPECT_EQ("1.2", context->GetZelVersion());
  EXPECT_EQ("level", context->GetFlowLevel());
  EXPECT_EQ("flow", context->GetFlowName());
  EXPECT_TRUE(IsLowerHex(context->GetZelContext(), 32));
  EXPECT_EQ(tracer.GetTraceId(), context->GetZelContext());
  EXPECT_EQ(static_cast<uint32_t>(getpid()), context->GetProcessId());
  EXPECT_EQ("desk-1", context->GetDesktopId());
  EXPECT_EQ("", context->GetImageVersion());
}

TEST(ZelTracer, InitTakesTheTraceIdThroughTheVirtualGetter) {
  struct CustomTracer : zel::ZelTracer {
    std::string GetTraceId() override { return "custom-trace"; }
  } tracer;
  tracer.Init("v", "l", "n");
  EXPECT_EQ("custom-trace", tracer.GetZelProcessContext()->GetZelContext());
}

TEST(ZelTracer, InitAgainReplacesTheContext) {
  zel::ZelTracer tracer;
  tracer.Init("1", "l", "n");
  auto first = tracer.GetZelProcessContext();
  tracer.Init("2", "l", "n");
  EXPECT_NE(first, tracer.GetZelProcessContext());
  EXPECT_EQ("2", tracer.GetZelProcessContext()->GetZelVersion());
  EXPECT_EQ(1, first.use_count());  // the tracer let go of the old one
}

TEST(ZelTracer, UninitKeepsBackendsAndContext) {
  zel::ZelTracer tracer;
  RecordingBackend backend;
  tracer.RegisterBackend(&backend);
  tracer.Init("1.2", "l", "n");
  auto context = tracer.GetZelProcessContext();
  tracer.Uninit();
  EXPECT_EQ(context, tracer.GetZelProcessContext());
  tracer.SendTracerStep("usb", "open");
  EXPECT_EQ(1u, backend.Calls().size());
}

TEST(ZelTracer, SetZelProcessContextReplacesItAndAcceptsNull) {
  zel::ZelTracer tracer;
  auto context = std::make_shared<FixedContext>();
  tracer.SetZelProcessContext(context);
  EXPECT_EQ(context, tracer.GetZelProcessContext());
  tracer.SetZelProcessContext(nullptr);
  EXPECT_EQ(nullptr, tracer.GetZelProcessContext());
  EXPECT_EQ(1, context.use_count());
}

// ---- concurrency ----

// Eight threads send every kind of record (and read the ids) while a client
// tracker and a recording backend stay registered; run under TSan in CI.
TEST(ZelTracer, EightThreadsSendRecordsConcurrently) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 20;
  zel::ZelTracer* tracer = zel::ZelTracer::GetInstance();
  zel::ZelClientTracker tracker;
  RecordingBackend recorder;
  tracer->RegisterBackend(&tracker);
  tracer->RegisterBackend(&recorder);
  tracer->Init("1.2", "level", "flow");
  TracerClearRecordedCalls();

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([tracer, t] {
      for (int i = 0; i < kRounds; ++i) {
        const std::string n = std::to_string(t) + "-" + std::to_string(i);
        std::map<std::string, std::string> flow{{"n", n}};
        std::map<std::string, std::string> generic{{"n", n}};
        tracer->SendTracerStep("usb", n);
        tracer->SendServerFlowWithAttr("", "flow", flow);
        tracer->SendGTraceWithAttr("", "", "generic", generic, "parent");
        tracer->PostTrace("content " + n);
        tracer->PostTraceWithId(tracer->GetTraceId(), tracer->GetSpanId(), "raw", n, "");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  tracer->UnregisterBackend(&recorder);
  tracer->UnregisterBackend(&tracker);

  constexpr size_t kRecords = kThreads * kRounds;
  const auto calls = recorder.Calls();
  EXPECT_EQ(5 * kRecords, calls.size());
  std::set<std::string> flowNumbers;
  for (const auto& call : calls) {
    if (call.event == "flow") flowNumbers.insert(call.attrs.at("n"));
  }
  EXPECT_EQ(kRecords, flowNumbers.size());

  size_t posts = 0, raws = 0;
  for (const auto& call : TracerRecordedCalls()) {
    (call.function == "post" ? posts : raws)++;
  }
  EXPECT_EQ(2 * kRecords, posts);  // steps and plain posts
  EXPECT_EQ(3 * kRecords, raws);   // two attribute records and one span event
}

TEST(ZelTracer, RegisteringWhileOtherThreadsSendIsSafe) {
  zel::ZelTracer tracer;
  RecordingBackend steady("steady");
  tracer.RegisterBackend(&steady);
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    RecordingBackend passing("passing");
    while (!stop.load()) {
      tracer.RegisterBackend(&passing);
      tracer.UnregisterBackend(&passing);
    }
  });
  testing::internal::CaptureStdout();
  std::vector<std::thread> senders;
  for (int t = 0; t < 4; ++t) {
    senders.emplace_back([&] {
      for (int i = 0; i < 200; ++i) tracer.PostTrace("x");
    });
  }
  for (auto& sender : senders) sender.join();
  stop.store(true);
  churn.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(800u, steady.Calls().size());
}

}  // namespace
