#!/usr/bin/env bash
# Reading and listing a large Standard MIDI file, side by side in one run:
# our open-and-list against mido's parse of the same file, and our full event
# listing against midicsv's. CPU time (user + system), best of three.
#
#   bench/bench_mid_list.sh [build-dir] [megabytes]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
megabytes="${2:-50}"
kelvo="$build/ui/kelvo"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
/usr/bin/python3 -c "import mido" 2>/dev/null || { echo "python3-mido not installed" >&2; exit 2; }
command -v midicsv >/dev/null || { echo "midicsv not installed" >&2; exit 2; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
big="$work/big.mid"
/usr/bin/python3 "$here/bench/make_big_mid.py" "$big" "$megabytes"

# CPU seconds of the best of three runs of "$@".
cpu() {
  local best=""
  for _ in 1 2 3; do
    /usr/bin/time -f '%U %S' -o "$work/time" "$@" >/dev/null 2>&1 || true
    best=$(awk -v b="${best:-1e9}" '{t=$1+$2; print (t<b)?t:b}' "$work/time")
  done
  echo "$best"
}

cat "$big" >/dev/null
list=$(cpu "$kelvo" -NOMSG "$big" --list)
mido=$(cpu /usr/bin/python3 -c "import mido; mido.MidiFile('$big')")
events=$(cpu "$kelvo" -NOMSG "$big" --list --events)
csv=$(cpu midicsv "$big" /dev/null)
ratio() { echo "$1 $2" | awk '{printf "%.1f", ($1>0)?$2/$1:0}'; }
printf 'file: %s bytes, %s events\n' "$(stat -c %s "$big")" \
  "$("$kelvo" -NOMSG "$big" --list | grep -o '[0-9]* events,' | awk '{n+=$1} END{print n}')"
printf 'kelvo --list:           %.2f s CPU\n' "$list"
printf 'mido MidiFile:          %.2f s CPU  (mido/kelvo = %sx, target >= 50x)\n' "$mido" "$(ratio "$list" "$mido")"
printf 'kelvo --list --events:  %.2f s CPU\n' "$events"
printf 'midicsv:                %.2f s CPU  (midicsv/kelvo = %sx, target >= 2x)\n' "$csv" "$(ratio "$events" "$csv")"
