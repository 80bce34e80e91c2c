#!/bin/sh
# Renders a replay report to a PNG with headless Chromium, to look at it as
# a person would. Not part of the test suite (Chromium is not required).
#   tools/replay/render_report.sh REPORT.html OUT.png [WIDTH,HEIGHT]
# Chromium on Debian: apt-get install chromium
set -eu
if [ $# -lt 2 ]; then
  echo "usage: $0 REPORT.html OUT.png [WIDTH,HEIGHT]" >&2
  exit 2
fi
report=$(realpath "$1")
out=$(realpath -m "$2")
size=${3:-1400,3000}
browser=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$browser" ]; then
  echo "$0: chromium not found (apt-get install chromium)" >&2
  exit 1
fi
profile=$(mktemp -d)
trap 'rm -rf "$profile"' EXIT
"$browser" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
  --disable-background-networking --disable-component-update --disable-sync \
  --user-data-dir="$profile" --screenshot="$out" --window-size="$size" "file://$report" 2>/dev/null
echo "$out"
