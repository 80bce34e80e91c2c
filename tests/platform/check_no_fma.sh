#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Fails when any of the given objects contains a fused multiply-add (scalar,
# vector or SVE form on arm64; FMA3/FMA4 on x86-64). A contraction rounds once
# where the source rounds twice, so it would change results between targets.
#   check_no_fma.sh OBJDUMP FILE...
set -eu
objdump="$1"
shift
status=0
for file in "$@"; do
  listing=$("$objdump" -d --no-show-raw-insn "$file")
  found=$(printf '%s\n' "$listing" | awk -F '\t' '
    /^[0-9a-f]+ <.*>:$/ { symbol = $0; sub(/^[0-9a-f]+ /, "", symbol); next }
    NF >= 2 {
      split($2, words, " ")
      if (words[1] ~ /^v?fn?m(add|sub|ad|sb|l[as])/) print symbol " " $2 " " $3
    }')
  instructions=$(printf '%s\n' "$listing" | grep -cE '^ *[0-9a-f]+: *	' || true)
  if [ "$instructions" -eq 0 ]; then
    echo "$file: no instructions disassembled"
    status=1
  elif [ -n "$found" ]; then
    echo "$file: fused multiply-add instructions found:"
    printf '%s\n' "$found"
    status=1
  else
    echo "$file: $instructions instructions, no fused multiply-add"
  fi
done
exit $status
