#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Renders a replay report with headless Chromium, to look at it as a person
# would, or prints the document as the browser built it:
#   tools/replay/render_report.sh REPORT.html OUT.png [WIDTH,HEIGHT]
#   tools/replay/render_report.sh --dump-dom REPORT.html
# QUELTA_RENDER_SCALE sets the device scale factor of the screenshot
# (default 1). Each run uses a fresh browser profile and removes it.
# Chromium on Debian: apt-get install chromium
set -eu
usage() {
  echo "usage: $0 REPORT.html OUT.png [WIDTH,HEIGHT] | $0 --dump-dom REPORT.html" >&2
  exit 2
}
dump=no
if [ "${1:-}" = "--dump-dom" ]; then
  dump=yes
  shift
  [ $# -eq 1 ] || usage
else
  [ $# -ge 2 ] || usage
fi
report=$(realpath "$1")
browser=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$browser" ]; then
  echo "$0: chromium not found (apt-get install chromium)" >&2
  exit 1
fi
profile=$(mktemp -d "${TMPDIR:-/tmp}/quelta-render-profile.XXXXXX")
trap 'rm -rf "$profile"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
set -- "$@"
flags="--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
  --disable-component-update --disable-sync --user-data-dir=$profile"
if [ "$dump" = yes ]; then
  # shellcheck disable=SC2086
  timeout 300 "$browser" $flags --dump-dom "file://$report" 2>/dev/null
else
  out=$(realpath -m "$2")
  size=${3:-1400,3000}
  # shellcheck disable=SC2086
  timeout 300 "$browser" $flags --force-device-scale-factor="${QUELTA_RENDER_SCALE:-1}" --hide-scrollbars \
    --screenshot="$out" --window-size="$size" "file://$report" 2>/dev/null
  echo "$out"
fi
