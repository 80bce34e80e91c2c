#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds the benchmarks against the library as it ships (same flags, the
# shared object for the exported functions) and runs them with repetitions;
# read the medians. The machine should be otherwise idle.
#
#   tools/perf/bench.sh [build-dir] [benchmark options...]   (default: build-bench)
#
# Extra options go to both benchmark programs, e.g. --benchmark_filter=Full.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build-bench}
[ $# -gt 0 ] && shift
cmake -S "$root" -B "$build" -DQUELTA_BUILD_BENCH=ON -DQUELTA_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target quelta_bench quelta_bench_internals >/dev/null
for program in quelta_bench quelta_bench_internals; do
  "$build/bench/$program" --benchmark_repetitions=10 --benchmark_report_aggregates_only=true \
    --benchmark_min_time=0.2 "$@"
done
