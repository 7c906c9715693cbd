// Message bus, named events and timers: how many messages per second the bus delivers
// (each delivery costs one thread, which the bus thread waits for), what a
// bare thread start costs for comparison, and how long a sent event takes to
// reach its callback.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "utils/event_manager.h"
#include "utils/msg_bus.h"
#include "utils/timer.h"

namespace {

constexpr int kType = 1;
constexpr int kBatch = 200;

// Counts deliveries and lets the benchmark wait for a given total.
class Counter {
 public:
  void Add() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    if (count_ >= target_) cond_.notify_one();
  }
  void WaitFor(long long total) {
    std::unique_lock<std::mutex> lock(mutex_);
    target_ = total;
    cond_.wait(lock, [&] { return count_ >= target_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  long long count_ = 0;
  long long target_ = 0;
};

class CountingSubscriber : public zel::MsgSubscriber {
 public:
  explicit CountingSubscriber(Counter& counter) : counter_(counter) {}
  void OnMsg(int, std::shared_ptr<zel::BaseMsg>) override { counter_.Add(); }

 private:
  Counter& counter_;
};

// Publishes batches of immediate messages and waits until every subscriber
// got each of them. Items are messages; deliveries = messages x subscribers.
void BM_BusThroughput(benchmark::State& state) {
  const int subscriber_count = static_cast<int>(state.range(0));
  Counter counter;
  std::vector<std::shared_ptr<CountingSubscriber>> subscribers;
  zel::MsgBus bus;
  for (int i = 0; i < subscriber_count; ++i) {
    subscribers.push_back(std::make_shared<CountingSubscriber>(counter));
    bus.Subscribe(kType, subscribers.back());
  }
  bus.Start();
  long long expected = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) bus.PublishMsg(std::make_shared<zel::BaseMsg>(kType));
    expected += static_cast<long long>(kBatch) * subscriber_count;
    counter.WaitFor(expected);
  }
  bus.Stop();
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.counters["deliveries/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kBatch * subscriber_count,
                         benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BusThroughput)
    ->Arg(1)
    ->Arg(4)
    ->ArgName("subscribers")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// What one delivery costs in thread start and join alone, without the bus.
void BM_AsyncThreadStartAndWait(benchmark::State& state) {
  int calls = 0;
  for (auto _ : state) {
    std::async(std::launch::async, [&calls] { ++calls; }).get();
  }
  benchmark::DoNotOptimize(calls);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AsyncThreadStartAndWait)->UseRealTime()->Unit(benchmark::kMicrosecond);

// 0, 1,000 and 10,000 pending; 200 timed calls each, in microseconds.
void WithPending(benchmark::internal::Benchmark* b) {
  b->Arg(0)->Arg(1000)->Arg(10000)->ArgName("pending")->Iterations(200)->Unit(
      benchmark::kMicrosecond);
}

// One publication with `range(0)` future messages already queued (plus one
// per earlier iteration), due after all of them.
void BM_PublishWithPendingMessages(benchmark::State& state) {
  zel::MsgBus bus;
  bus.Start();
  for (long long i = 0; i < state.range(0); ++i) {
    bus.PublishMsg(std::make_shared<zel::BaseMsg>(kType), 3600000 + i);
  }
  for (auto _ : state) {
    bus.PublishMsg(std::make_shared<zel::BaseMsg>(kType), 7200000);
  }
  bus.Stop();
}
BENCHMARK(BM_PublishWithPendingMessages)->Apply(WithPending);

// One Timer::Start while N timers are pending, all due later than an hour.
void BM_TimerStartWithPendingTimers(benchmark::State& state) {
  zel::Timer timer;
  const auto nothing = [](unsigned long long, void*) {};
  for (long long i = 0; i < state.range(0); ++i) timer.Start(3600000 + i, nothing, false, nullptr);
  for (auto _ : state) timer.Start(7200000, nothing, false, nullptr);
}
BENCHMARK(BM_TimerStartWithPendingTimers)->Apply(WithPending);

// sendEvent to the start of the callback on the event thread.
std::atomic<long long> g_called_at_ns{0};

long long SteadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void StampCall(void*) { g_called_at_ns.store(SteadyNs()); }

void BM_SendEventToCallbackLatency(benchmark::State& state) {
  auto& events = zel::EventManager::getInstance();
  events.registerEvent("bench", &StampCall, nullptr);
  std::vector<double> latencies_us;
  for (auto _ : state) {
    g_called_at_ns.store(0);
    const long long sent_at = SteadyNs();
    events.sendEvent("bench");
    long long called_at = 0;
    while ((called_at = g_called_at_ns.load()) == 0) std::this_thread::yield();
    const double seconds = (called_at - sent_at) / 1e9;
    state.SetIterationTime(seconds);
    latencies_us.push_back(seconds * 1e6);
  }
  events.unregisterEvent("bench", &StampCall);
  std::sort(latencies_us.begin(), latencies_us.end());
  if (!latencies_us.empty()) {
    state.counters["p50_us"] = latencies_us[latencies_us.size() / 2];
    state.counters["p99_us"] = latencies_us[latencies_us.size() * 99 / 100];
  }
}
BENCHMARK(BM_SendEventToCallbackLatency)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
