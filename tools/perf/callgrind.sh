#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Instructions per full sample set (all four services with their accessors,
# calibration settled at accuracy 3 and refitting), counted by callgrind:
# a noise-free figure to compare builds with. Needs valgrind.
#
#   tools/perf/callgrind.sh [build-dir] [sample-sets]   (defaults: build-bench, 10000)
#
# Leaves the profile in <build-dir>/callgrind.out for callgrind_annotate.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build-bench}
sets=${2:-10000}
cmake -S "$root" -B "$build" -DQUELTA_BUILD_BENCH=ON -DQUELTA_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target quelta_sample_sets >/dev/null
valgrind --tool=callgrind --toggle-collect=quelta_measured_sample_sets \
  --callgrind-out-file="$build/callgrind.out" "$build/bench/quelta_sample_sets" "$sets" \
  2>"$build/callgrind.log"
total=$(sed -n 's/^summary: *//p' "$build/callgrind.out")
echo "instructions: $total in $sets sample sets, $((total / sets)) per sample set"
