#!/usr/bin/env bash
# Conversion speed against sox: a 10-minute 44.1 kHz stereo 16-bit WAV is
# turned into a 24-bit WAV and into an AIFF by `kelvo --save` and by sox, and
# the CPU time (user + sys) of each run is printed with the ratio.
#
#   bench/bench_convert.sh [kelvo binary] [runs]
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
kelvo="${1:-$here/build/ui/kelvo}"
runs="${2:-3}"
command -v sox >/dev/null || { echo "sox is needed" >&2; exit 1; }
[ -x "$kelvo" ] || { echo "no kelvo binary at $kelvo (build it, or pass its path)" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export XDG_CONFIG_HOME="$work/config"

sox -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 600 sine 440 sine 660 vol 0.5

# CPU seconds (user + sys, bash's time keyword) of the best of `runs` runs.
cpu() {
  local best="" t
  for _ in $(seq "$runs"); do
    t=$( { TIMEFORMAT='%U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1 | awk '{printf "%.3f", $1 + $2}')
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}

row() {
  local name="$1" ours="$2" theirs="$3"
  printf "%-26s %10s %10s %8s\n" "$name" "$ours" "$theirs" "$(awk -v a="$ours" -v b="$theirs" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')"
}

k24=$(cpu "$kelvo" -NOMSG "$work/in.wav" --save "$work/k24.wav" --data-format "PCM 24-bit")
s24=$(cpu sox -D "$work/in.wav" -b 24 "$work/s24.wav")
kaif=$(cpu "$kelvo" -NOMSG "$work/in.wav" --save "$work/k.aif")
saif=$(cpu sox -D "$work/in.wav" "$work/s.aif")

# The conversions must agree before their times mean anything.
for f in k24.wav k.aif; do
  [ -s "$work/$f" ] || { echo "kelvo wrote no $f" >&2; exit 1; }
done
[ "$(soxi -s "$work/k24.wav")" = "$(soxi -s "$work/in.wav")" ] || { echo "24-bit frame count differs" >&2; exit 1; }
[ "$(soxi -b "$work/k24.wav")" = 24 ] || { echo "k24.wav is not 24-bit" >&2; exit 1; }
cmp -s <(sox "$work/k24.wav" -t s32 -) <(sox "$work/s24.wav" -t s32 -) || { echo "24-bit samples differ from sox" >&2; exit 1; }
cmp -s <(sox "$work/k.aif" -t s16 -) <(sox "$work/s.aif" -t s16 -) || { echo "AIFF samples differ from sox" >&2; exit 1; }

echo "10 min 44.1 kHz stereo 16-bit WAV, CPU seconds (user+sys), best of $runs"
printf "%-26s %10s %10s %8s\n" "conversion" "kelvo" "sox" "ratio"
row "WAV 16 -> WAV 24-bit" "$k24" "$s24"
row "WAV 16 -> AIFF 16-bit" "$kaif" "$saif"
