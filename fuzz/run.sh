#!/usr/bin/env bash
# Builds every libFuzzer target (clang, AddressSanitizer + UndefinedBehavior-
# Sanitizer, libzel_utils instrumented for coverage) in a build folder of its
# own, then runs each target for a while on a copy of its seed corpus and its
# kept crash inputs, two targets at a time. Exits non-zero on any finding.
#
#   fuzz/run.sh [seconds per target]          (default 30)
#
# Environment:
#   ZEL_FUZZ_BUILD_DIR  build folder (default: build-fuzz in the source tree);
#                       not under /tmp, which some targets replace with a
#                       private one
#   ZEL_FUZZ_JOBS       targets run at a time (default 2)
#
# Run as root on a fresh Debian 12 machine, it installs what is missing.
# Findings: the log and the crashing input (crash-*, leak-*, timeout-*) are in
# <build folder>/fuzz-runs/<target>/; keep an input under
# fuzz/regressions/<target>/ once the bug is understood.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
seconds=${1:-30}
build=${ZEL_FUZZ_BUILD_DIR:-$source_dir/build-fuzz}
jobs=${ZEL_FUZZ_JOBS:-2}

case $seconds in '' | *[!0-9]*) echo "usage: $0 [seconds per target]" >&2; exit 2 ;; esac
mkdir -p "$build"
build=$(cd "$build" && pwd)
case $build/ in
  /tmp/*) echo "$0: the build folder must not be under /tmp: $build" >&2; exit 2 ;;
esac

.ci/install-packages.sh fuzz
# Options from the preset "fuzz", in the build folder chosen above.
cmake --preset fuzz -B "$build"
cmake --build "$build" -j2

targets=()
for source in "$source_dir"/fuzz/*_fuzz.cpp; do
  targets+=("$(basename "$source" .cpp)")
done

# One target: a fresh copy of its seeds and kept inputs (not known_failing/,
# which waits for a fix), then libFuzzer for $seconds.
run_target() {
  local target=$1
  local work=$build/fuzz-runs/$target
  rm -rf "$work"
  mkdir -p "$work/corpus"
  local folder
  for folder in "$source_dir/fuzz/corpus/$target" "$source_dir/fuzz/regressions/$target"; do
    [ -d "$folder" ] || continue
    find "$folder" -maxdepth 1 -type f ! -name '.*' -exec cp {} "$work/corpus/" \;
  done
  local options=(-max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048
                 -print_final_stats=1 -artifact_prefix="$work/")
  case $target in
    # The Logger frees each line on its own thread, after the input returned,
    # so libFuzzer's per-input malloc/free balance never holds and it would
    # scan the heap for leaks after every input. Leaks are still checked at exit.
    log_print_fuzz) options+=(-detect_leaks=0) ;;
  esac
  local status=0
  (cd "$work" && "$build/fuzz/$target" "${options[@]}" corpus) >"$work/log" 2>&1 || status=$?
  echo "$status" >"$work/status"
}

running=0
for target in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n || true
    running=$((running - 1))
  fi
  echo "fuzzing $target for ${seconds}s"
  run_target "$target" &
  running=$((running + 1))
done
wait || true

failed=0
for target in "${targets[@]}"; do
  work=$build/fuzz-runs/$target
  status=$(cat "$work/status" 2>/dev/null || echo missing)
  summary=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$work/log" | tail -n 1 || true)
  if [ "$status" = 0 ]; then
    echo "ok      $target: $summary"
  else
    failed=1
    echo "FAILED  $target (exit $status); log: $work/log"
    grep -E 'ERROR|SUMMARY|fuzz(er)? target:|_fuzz: |refusing' "$work/log" | head -n 5 |
      sed 's/^/        /' || true
    find "$work" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
         -o -name 'oom-*' -o -name 'slow-unit-*' \) | sed 's/^/        input: /'
  fi
done
exit "$failed"
