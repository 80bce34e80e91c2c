#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Time and peak memory of quelta-replay on long recordings, made by
# repeating the bundled recording (data/handheld.csv) with time carried on,
# so the motion, the calibration and the reference columns stay realistic.
#
#   tools/perf/replay_scale.sh [ROWS...]         (default: 1000000 10000000)
#
# Each size is replayed with --out and --report (no --log); the table gives
# wall time, processor time (user + system, all threads), peak resident
# memory and the sizes of the outputs. On a shared machine the wall time
# grows with the load (the 1-minute load average is printed); the
# processor time much less so. Uses
# build/tools/replay/quelta-replay (REPLAY overrides) and a scratch
# directory (SCRATCH, default a fresh one under /tmp, removed at the end).
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
replay=${REPLAY:-$root/build/tools/replay/quelta-replay}
source=$root/data/handheld.csv
[ -x "$replay" ] || { echo "$0: $replay not built (cmake --build build --target quelta-replay)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "$0: needs /usr/bin/time (Debian package time)" >&2; exit 1; }
if [ -n "${SCRATCH:-}" ]; then
  scratch=$SCRATCH
  mkdir -p "$scratch"
else
  scratch=$(mktemp -d)
  trap 'rm -rf "$scratch"' EXIT
fi
[ $# -gt 0 ] || set -- 1000000 10000000

# Repeats the data rows of the source, shifting time by the length of the
# source plus one sample interval on each pass.
make_recording() {
  awk -F, -v rows="$1" '
    BEGIN { n = 0 }
    /^#/ || NF == 0 { next }
    !header { header = $0; print; next }
    { t[n] = $1; rest[n] = substr($0, length($1) + 1); ++n }
    END {
      span = t[n - 1] - t[0] + (t[n - 1] - t[0]) / (n - 1)
      for (i = 0; i < rows; ++i) {
        pass = int(i / n); k = i % n
        printf "%.6f%s\n", t[k] + pass * span, rest[k]
      }
    }' "$source"
}

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) processors"
printf "%10s  %8s  %8s  %10s  %10s  %10s  %s\n" rows "time s" "cpu s" "peak MB" "out MB" "report KB" "recording MB"
for rows in "$@"; do
  recording=$scratch/repeated_$rows.csv
  [ -s "$recording" ] || make_recording "$rows" > "$recording"
  out=$scratch/out.csv
  report=$scratch/report.html
  rm -f "$out" "$report"
  /usr/bin/time -f "%e %U %S %M" -o "$scratch/time.txt" "$replay" "$recording" --engine algo --out "$out" --report "$report" \
    > "$scratch/summary.txt" 2> "$scratch/stderr.txt" || { cat "$scratch/stderr.txt" >&2; exit 1; }
  read -r seconds user system kilobytes < "$scratch/time.txt"
  printf "%10d  %8.2f  %8.2f  %10.1f  %10.1f  %10.0f  %.1f\n" "$rows" "$seconds" "$(awk -v u="$user" -v s="$system" 'BEGIN { print u + s }')" "$(awk -v k="$kilobytes" 'BEGIN { print k / 1024 }')" \
    "$(stat -c %s "$out" | awk '{ print $1 / 1048576 }')" "$(stat -c %s "$report" | awk '{ print $1 / 1024 }')" \
    "$(stat -c %s "$recording" | awk '{ print $1 / 1048576 }')"
done
