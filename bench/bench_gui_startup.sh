#!/usr/bin/env bash
# Start-up of the window program against Polyphone, both opening the same
# bank on one virtual X server: wall and CPU seconds until the window is
# mapped and then quiet for 300 ms, resident memory at that point, and a
# screenshot of each at ready.
#
#   bench/bench_gui_startup.sh [kelvo-studio binary] [bank] [rounds]
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
studio="${1:-$here/build/ui/gui/kelvo-studio}"
bank="${2:-/usr/share/sounds/sf2/FluidR3_GM.sf2}"
rounds="${3:-7}"
for tool in Xvfb xdotool import polyphone python3; do
  command -v "$tool" >/dev/null || { echo "$tool is needed" >&2; exit 1; }
done
[ -x "$studio" ] || { echo "no kelvo-studio at $studio" >&2; exit 1; }
[ -f "$bank" ] || { echo "no bank at $bank" >&2; exit 1; }

work="$(mktemp -d)"
display=":$((90 + RANDOM % 100))"
Xvfb "$display" -screen 0 1600x1000x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
trap 'kill $xvfb 2>/dev/null; rm -rf "$work"' EXIT
sleep 1
# A warm cache for both.
cat "$bank" >/dev/null
shots="${KELVO_SCREENSHOTS:-$here/build/screenshots}"
mkdir -p "$shots"
DISPLAY="$display" python3 "$here/bench/gui_startup.py" "$work" "$shots" "$rounds" "$bank" \
  "kelvo-studio=$studio -NOMSG" "polyphone=polyphone"
