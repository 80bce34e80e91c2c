#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Memory footprint of the shared object: the static state of all pipelines
# (every writable object the library defines in .data and .bss, exported or
# internal), its constants, its code, and the size of the file once stripped.
#
#   tools/perf/footprint.sh [path/to/QueltaAlgo.so]   (default: build/QueltaAlgo.so)
#
# Needs binutils for the library's target; set OBJDUMP, SIZE and STRIP for a
# cross build (e.g. OBJDUMP=aarch64-linux-gnu-objdump).
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
lib=${1:-$root/build/QueltaAlgo.so}
OBJDUMP=${OBJDUMP:-objdump}
SIZE=${SIZE:-size}
STRIP=${STRIP:-strip}

# objdump -t: address, flags, section, size (hex), name. completed.0 is the
# C runtime's own flag, not library state.
echo "static state, bytes (.data and .bss objects):"
"$OBJDUMP" -t -C "$lib" | awk '
  {
    for (f = 1; f < NF && $f !~ /^\.(data|bss)$/; ++f) {}
    if (f >= NF) next
    hex = $(f + 1); size = 0
    for (i = 1; i <= length(hex); ++i) size = size * 16 + index("0123456789abcdef", substr(hex, i, 1)) - 1
    name = $(f + 2)
    for (i = f + 3; i <= NF; ++i) name = name " " $i
    if (size == 0 || name == "completed.0") next
    total += size
    printf "  %6d  %s\n", size, name
  }
  END { printf "  %6d  total\n", total }' | sort -n
echo "sections, bytes:"
"$SIZE" -A "$lib" | awk '$1 ~ /^\.(text|rodata|data\.rel\.ro|data|bss|eh_frame)$/ { printf "  %6d  %s\n", $2, $1 }'
tmp=$(mktemp)
trap 'rm -f "$tmp"' EXIT
cp "$lib" "$tmp"
"$STRIP" --strip-all "$tmp"
echo "stripped file: $(wc -c <"$tmp") bytes"
