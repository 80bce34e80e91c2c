#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the libFuzzer targets one after another, each for a bounded time.
#
#   fuzz/run_fuzzers.sh [SECONDS_PER_TARGET] [TARGET...]
#
# SECONDS_PER_TARGET defaults to 60; TARGET is one of the library's
# families (calibration, vgyro, rotvec, buffers, math), the layer's magnetic calibration
# (magnetic), the compass (compass), the field model (geomag) or one of the replay
# tool's readers (recording, recording_gz, calibration_file); default: all.
# Build the targets first:
#   cmake --workflow --preset fuzz
# Environment:
#   FUZZ_BUILD_DIR  where the targets are (default build-fuzz)
#   FUZZ_WORK_DIR   corpora grown by earlier runs and crash files; kept
#                   between runs (default $FUZZ_BUILD_DIR/fuzz-work)
#   FUZZ_ARGS       extra libFuzzer options, e.g. "-runs=10000000"
#   FUZZ_WORKERS    fuzzing processes per target sharing one corpus
#                   (default 1); executions are summed over them
# The committed seeds (fuzz/corpus/<target>/) are read, never written. Any
# crash, sanitizer report or failed check stops the run with exit status 1
# and names the file that reproduces it:
#   build-fuzz/fuzz/fuzz_<target> <crash file>
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(calibration vgyro rotvec buffers math magnetic compass geomag recording recording_gz calibration_file)
fi
build="${FUZZ_BUILD_DIR:-build-fuzz}"
work="${FUZZ_WORK_DIR:-$build/fuzz-work}"
# Fatal reports, no leak noise from the fuzzer's own bookkeeping.
export ASAN_OPTIONS="${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

# One log per target, or per worker when there are several.
log_of() {
  if [ "${FUZZ_WORKERS:-1}" -gt 1 ]; then echo "$work/$target.$1.log"; else echo "$work/$target.log"; fi
}

status=0
for target in "${targets[@]}"; do
  binary="$build/fuzz/fuzz_$target"
  if [ ! -x "$binary" ]; then
    echo "missing $binary: build it with 'cmake --workflow --preset fuzz'" >&2
    exit 2
  fi
  corpus="$work/corpus/$target"
  artifacts="$work/artifacts/$target"
  mkdir -p "$corpus" "$artifacts"
  workers="${FUZZ_WORKERS:-1}"
  echo "== fuzz_$target: $seconds s, $workers worker(s)"
  # Workers pick up each other's new inputs from the shared corpus directory.
  pids=()
  for ((w = 1; w <= workers; ++w)); do
    # shellcheck disable=SC2086
    "$binary" "$corpus" "fuzz/corpus/$target" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
        -artifact_prefix="$artifacts/" ${FUZZ_ARGS:-} > "$(log_of "$w")" 2>&1 &
    pids+=($!)
  done
  failed=0
  # The first worker to fail stops the others.
  for _ in "${pids[@]}"; do
    if ! wait -n; then
      failed=1
      kill "${pids[@]}" 2> /dev/null || true
    fi
  done
  if [ $failed -eq 0 ]; then
    runs=0
    rates=()
    for ((w = 1; w <= workers; ++w)); do
      log="$(log_of "$w")"
      n=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
      runs=$((runs + ${n:-0}))
      rates+=("$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")/s")
    done
    echo "   $runs executions (${rates[*]}), no finding; corpus $(ls "$corpus" | wc -l) inputs"
  else
    status=1
    for ((w = 1; w <= workers; ++w)); do
      log="$(log_of "$w")"
      if grep -qE 'ERROR|runtime error|check failed|Test unit written' "$log"; then
        echo "   FINDING in fuzz_$target:"
        grep -E 'ERROR|runtime error|check failed|SUMMARY|Test unit written' "$log" | head -20 || true
        echo "   full log: $log"
      fi
    done
  fi
done
exit $status
