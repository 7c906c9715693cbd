#!/usr/bin/env bash
# The whole comparison in one command: builds the benchmarks (RelWithDebInfo,
# in build-bench/), runs each contender in the same run, and prints one table
# of medians of RUNS runs (default 3) with the ratio to the contender.
#   bench/run.sh [RUNS]
# As root it first installs what is missing (spdlog, Boost.Asio, Google Benchmark).
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-3}

.ci/install-packages.sh bench
# Options and targets from the preset "bench" (build-bench/).
cmake --preset bench >/dev/null
cmake --build --preset bench -j"$(nproc)" >/dev/null

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
bin=build-bench/bench
for i in $(seq "$runs"); do
  echo "log_bench run $i of $runs" >&2
  "$bin/log_bench" 2>/dev/null | grep '^RESULT' >>"$out/results"
done
echo "looper_bench, $runs runs" >&2
"$bin/looper_bench" "$runs" 2>/dev/null | grep '^RESULT' >>"$out/results"
echo "bus_bench" >&2
"$bin/bus_bench" --benchmark_filter='Pending.*pending:10000' --benchmark_repetitions="$runs" \
    --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null |
  awk -F, -v runs="$runs" '/^"BM_/ && (runs == 1 || /_median"/) {
    split($1, n, "/"); sub(/^"BM_/, "", n[1]); print "RESULT " n[1] ".us " $3 }' \
  >>"$out/results"
echo "memory_bench" >&2
"$bin/memory_bench" 2>/dev/null | grep '^RESULT' >>"$out/results"

# Median per key, then the table.
sort -k2,2 -k3,3g "$out/results" | awk '
  { values[$2] = values[$2] " " $3; count[$2]++ }
  END {
    for (k in values) {
      n = split(substr(values[k], 2), v, " ")
      m[k] = v[int((n + 1) / 2)]
    }
    fmt = "| %-48s | %12s | %12s | %7s | %-21s |\n"
    printf fmt, "measure (median of runs)", "libzel_utils", "contender", "ratio", "target"
    printf fmt, "---", "---", "---", "---", "---"
    for (t = 1; t <= 4; t *= 4) {
      printf fmt, "log_print caller median ns, " t " thread(s)", m["log_print." t ".median_ns"],
             m["spdlog." t ".median_ns"], ratio(m["spdlog." t ".median_ns"], m["log_print." t ".median_ns"]), ">= 1 (spdlog async)"
      printf fmt, "log_print caller p99 ns, " t " thread(s)", m["log_print." t ".p99_ns"],
             m["spdlog." t ".p99_ns"], ratio(m["spdlog." t ".p99_ns"], m["log_print." t ".p99_ns"]), ">= 1 (spdlog async)"
      printf fmt, "lines/s until on disk, " t " thread(s)", m["log_print." t ".lines_per_s"],
             m["spdlog." t ".lines_per_s"], ratio(m["log_print." t ".lines_per_s"], m["spdlog." t ".lines_per_s"]), ">= 1 (spdlog async)"
    }
    printf fmt, "lines/s, one thread writing + path check", m["floor_check.lines_per_s"], m["floor.lines_per_s"],
           ratio(m["floor_check.lines_per_s"], m["floor.lines_per_s"]), "bound (vs write only)"
    printf fmt, "snprintf of the text alone, median ns", m["format.median_ns"], "", "", "caller floor"
    printf fmt, "filtered-out log_print ns", m["log_print.filtered_ns"], m["spdlog.filtered_ns"],
           ratio(m["spdlog.filtered_ns"], m["log_print.filtered_ns"]), "<= 2 ns"
    for (p = 1; p <= 2; p++) {
      printf fmt, "Looper posts/s, " p " producer(s)", m["looper." p ".posts_per_s"], m["asio." p ".posts_per_s"],
             ratio(m["looper." p ".posts_per_s"], m["asio." p ".posts_per_s"]), ">= 1 (asio post)"
      printf fmt, "Looper caller p99 ns, " p " producer(s)", m["looper." p ".p99_ns"], m["asio." p ".p99_ns"],
             ratio(m["asio." p ".p99_ns"], m["looper." p ".p99_ns"]), "<= 2000 ns"
      printf fmt, "  mutex+cv+deque posts/s, p99 ns, " p " producer(s)", m["plain." p ".posts_per_s"], m["plain." p ".p99_ns"], "", "reference"
    }
    printf fmt, "heap bytes per staged line", m["memory.heap_per_staged_line"], "", "", "0"
    printf fmt, "resident KiB, idle after starting the log", m["memory.idle_rss_kib"], "", "", "report"
    printf fmt, "  of which the log added, KiB", m["memory.idle_rss_added_kib"], "", "", "report"
    printf fmt, "flood, 4 threads 10 s: peak KiB above idle", m["memory.flood_peak_added_kib"], "", "", "<= 65536"
    printf fmt, "flood: lines accepted per s", m["memory.flood_lines_per_s"], "", "", "report"
    printf fmt, "flood: s until the last line is on disk", m["memory.flood_drain_s"], "", "", "report"
    printf fmt, "recovery of a full staging file, ms", m["memory.recovery_ms"], "", "", "report"
    printf fmt, "MsgBus::PublishMsg, 10,000 pending, us", m["PublishWithPendingMessages.us"], "", "", "<= 5 us"
    printf fmt, "Timer::Start, 10,000 pending, us", m["TimerStartWithPendingTimers.us"], "", "", "report"
  }
  function ratio(a, b) { return (a == "" || b == "" || b == 0) ? "" : sprintf("x%.2f", a / b) }'
echo
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), kernel $(uname -r)"
