// Posting tiny tasks to one consumer thread: Looper::PostMessageAAA next to
// Boost.Asio's io_context::post with one runner thread and a plain mutex +
// condition variable + deque queue. One command:
//   build/bench/looper_bench [runs] [name of one contender]
// For 1 and 2 producers and 1,000,000 posts in all it prints end-to-end posts
// per second (from the start until the consumer ran the last task) and the
// caller's cost per post (median, p99), each the median of `runs` runs (3).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "utils/looper.h"

#if defined(ZEL_BENCH_HAVE_ASIO)
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTotalPosts = 1000000;

struct Result {
  double postsPerSecond = 0;
  double medianNs = 0;
  double p99Ns = 0;
};

// Counts the tasks the consumer ran; the producers' side waits for the total.
struct Done {
  std::atomic<long long> ran{0};
  void WaitFor(long long total) const {
    while (ran.load(std::memory_order_acquire) < total) std::this_thread::yield();
  }
};

// Runs `producers` threads posting kTotalPosts tasks in all, each post timed,
// and waits until the consumer ran every one.
Result RunProducers(int producers, Done& done, const std::function<void()>& post) {
  const long long before = done.ran.load();
  const int perThread = kTotalPosts / producers;
  std::vector<std::vector<float>> costs(producers, std::vector<float>(perThread));
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < producers; ++t) {
    threads.emplace_back([&, t] {
      ++ready;
      while (!go) std::this_thread::yield();
      for (int i = 0; i < perThread; ++i) {
        const auto start = Clock::now();
        post();
        costs[t][i] = static_cast<float>((Clock::now() - start).count());
      }
    });
  }
  while (ready < producers) std::this_thread::yield();
  const auto start = Clock::now();
  go = true;
  for (auto& t : threads) t.join();
  done.WaitFor(before + static_cast<long long>(perThread) * producers);
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

  std::vector<float> all;
  for (auto& c : costs) all.insert(all.end(), c.begin(), c.end());
  std::sort(all.begin(), all.end());
  const double nsPerTick = 1e9 * Clock::period::num / Clock::period::den;
  return {perThread * producers / elapsed, all[all.size() / 2] * nsPerTick,
          all[all.size() * 99 / 100] * nsPerTick};
}

class CountingMessage : public zel::Message {
 public:
  explicit CountingMessage(Done& done) : done_(done) {}
  void Run() override { done_.ran.fetch_add(1, std::memory_order_release); }

 private:
  Done& done_;
};

Result RunLooper(int producers) {
  Done done;
  zel::Looper looper;
  looper.Start();
  const Result r = RunProducers(
      producers, done, [&] { looper.PostMessageAAA(std::make_unique<CountingMessage>(done)); });
  looper.Stop();
  return r;
}

#if defined(ZEL_BENCH_HAVE_ASIO)
Result RunAsio(int producers) {
  Done done;
  boost::asio::io_context context(1);
  auto work = boost::asio::make_work_guard(context);
  std::thread runner([&] { context.run(); });
  const Result r = RunProducers(producers, done, [&] {
    boost::asio::post(context, [&done] { done.ran.fetch_add(1, std::memory_order_release); });
  });
  work.reset();
  runner.join();
  return r;
}
#endif

// The textbook queue: push under the lock and notify; the consumer takes the
// whole deque at once and runs it outside the lock.
class PlainQueue {
 public:
  void Post(std::function<void()> task) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    cond_.notify_one();
  }
  void Run() {
    std::deque<std::function<void()>> batch;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [&] { return !tasks_.empty() || quit_; });
        if (tasks_.empty()) return;
        batch.swap(tasks_);
      }
      for (auto& task : batch) task();
      batch.clear();
    }
  }
  void Quit() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      quit_ = true;
    }
    cond_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::deque<std::function<void()>> tasks_;
  bool quit_ = false;
};

Result RunPlain(int producers) {
  Done done;
  PlainQueue queue;
  std::thread consumer([&] { queue.Run(); });
  const Result r = RunProducers(producers, done, [&] {
    queue.Post([&done] { done.ran.fetch_add(1, std::memory_order_release); });
  });
  queue.Quit();
  consumer.join();
  return r;
}

Result Median(std::vector<Result> runs) {
  auto medianOf = [&runs](double Result::*field) {
    std::vector<double> values;
    for (const Result& r : runs) values.push_back(r.*field);
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  };
  return {medianOf(&Result::postsPerSecond), medianOf(&Result::medianNs), medianOf(&Result::p99Ns)};
}

void PrintRow(const char* name, int producers, const Result& r, const Result* looper) {
  printf("%-26s %9d %13.0f %11.0f %10.0f", name, producers, r.postsPerSecond, r.medianNs, r.p99Ns);
  if (looper != nullptr) {
    // >= 1.0: the Looper does at least as well as this row.
    printf("   posts/s x%.2f  median x%.2f  p99 x%.2f", looper->postsPerSecond / r.postsPerSecond,
           r.medianNs / looper->medianNs, r.p99Ns / looper->p99Ns);
  }
  printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 3;
  struct Contender {
    const char* name;
    const char* key;
    Result (*run)(int);
  };
  std::vector<Contender> contenders = {
    {"Looper::PostMessageAAA", "looper", RunLooper},
#if defined(ZEL_BENCH_HAVE_ASIO)
    {"asio io_context::post", "asio", RunAsio},
#endif
    {"mutex+cv+deque", "plain", RunPlain},
  };
  if (argc > 2) {
    std::vector<Contender> only;
    for (const Contender& c : contenders) {
      if (strstr(c.name, argv[2]) != nullptr) only.push_back(c);
    }
    contenders = only;
    if (contenders.empty()) return 2;
  }
  printf("%d posts per run, medians of %d runs; caller cost in ns\n\n", kTotalPosts, runs);
  printf("%-26s %9s %13s %11s %10s   %s\n", "queue", "producers", "posts/s", "median ns", "p99 ns",
         "Looper vs this row");
  for (int producers : {1, 2}) {
    std::vector<Result> medians;
    for (const Contender& c : contenders) {
      std::vector<Result> all;
      for (int i = 0; i < runs; ++i) all.push_back(c.run(producers));
      medians.push_back(Median(all));
    }
    for (size_t i = 0; i < contenders.size(); ++i) {
      // "RESULT <key> <value>" lines, which bench/run.sh gathers into its table.
      printf("RESULT %s.%d.posts_per_s %.0f\nRESULT %s.%d.p99_ns %.0f\n", contenders[i].key,
             producers, medians[i].postsPerSecond, contenders[i].key, producers, medians[i].p99Ns);
      PrintRow(contenders[i].name, producers, medians[i], i == 0 ? nullptr : &medians[0]);
    }
  }
  return 0;
}
