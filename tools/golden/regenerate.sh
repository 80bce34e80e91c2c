#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Regenerates tests/golden/expected_trace.txt with a native GCC build.
# Only for an intended change of behaviour: review the diff before
# committing it, every changed line is a changed output.
#
#   tools/golden/regenerate.sh [build-dir]   (default: build-gcc)
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build-gcc}
cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build "$build" -j2 --target golden_trace
"$build/tools/golden/golden_trace" "$root/tests/golden/expected_trace.txt"
git -C "$root" diff --stat -- tests/golden/expected_trace.txt
