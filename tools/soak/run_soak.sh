#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs the soak: simulated motion with periodic disturbances
# through every pipeline, checking recovery and reporting latched states.
#
#   tools/soak/run_soak.sh [SAMPLE_SETS] [SEED]     (default 10000000 1)
#
# SOAK_BUILD_DIR picks the build (default build; use build-asan-ubsan for a
# run under the sanitizers, about ten times slower). Exit status 1 when a
# check failed. See docs/robustness.md for what it checks and found.
set -euo pipefail
cd "$(dirname "$0")/../.."
build="${SOAK_BUILD_DIR:-build}"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" > /dev/null
fi
cmake --build "$build" --target quelta_soak -j2 > /dev/null
exec "$build/tools/soak/quelta_soak" "$@"
