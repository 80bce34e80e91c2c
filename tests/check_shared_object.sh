#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The shared object exports exactly the interface names listed in the export
# map (no C++ names, no internals) and needs nothing but libc and libm.
#   check_shared_object.sh SO MAP
# A map that exports by a pattern (libquelta.map: "quelta_*;") is checked by
# that pattern instead: at least one name, every name matching it.
set -eu
so="$1"
map="$2"
# Target binutils in cross builds (the build passes them in).
nm="${NM:-nm}"
readelf="${READELF:-readelf}"
actual=$("$nm" -D --defined-only "$so" | awk '{print $3}' | sed 's/@.*//' | sort)
prefix=$(sed -n 's/^    \([A-Za-z_][A-Za-z0-9_]*\)\*;$/\1/p' "$map")
if [ -n "$prefix" ]; then
  others=$(echo "$actual" | grep -v "^$prefix" || true)
  if [ -z "$actual" ] || [ -n "$others" ]; then
    echo "exports must be $prefix* names only (map $map); found:"
    echo "$actual"
    exit 1
  fi
  expected="$actual"
else
  expected=$(sed -n 's/^    \([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$map" | sort)
fi
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ from $map:"
  echo "$expected" > /tmp/quelta_expected.$$
  echo "$actual" > /tmp/quelta_actual.$$
  diff /tmp/quelta_expected.$$ /tmp/quelta_actual.$$ || true
  rm -f /tmp/quelta_expected.$$ /tmp/quelta_actual.$$
  exit 1
fi
needed=$("$readelf" -d "$so" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | sort | tr '\n' ' ')
for lib in $needed; do
  case "$lib" in
    libc.so.*|libm.so.*|ld-linux*) ;;
    libc.so|libm.so|libdl.so) ;; # Android names (the NDK may add libdl)
    libasan.so.*|libubsan.so.*|libclang_rt.*|libstdc++.so.*)
      # Sanitizer builds only (their function-type checks use C++ type
      # information): the plain builds check the real dependencies.
      [ "${INSTRUMENTED:-OFF}" = ON ] || { echo "unexpected run-time dependency: $lib"; exit 1; } ;;
    *) echo "unexpected run-time dependency: $lib"; exit 1 ;;
  esac
done
echo "exports $(echo "$actual" | wc -l) symbols; needs: $needed"
