#!/usr/bin/env bash
# Resampling speed against the peers, all in one run: a 10-minute 44.1 kHz
# stereo 16-bit WAV to 48 kHz by `kelvo --op resample` and by sox and
# libsamplerate. CPU time (user + sys) of the best of `runs` runs; each row
# prints both as rtf (seconds of audio per CPU second) and the ratio of our
# time to the peer's (at most 1.0 is the goal). Each output is checked for
# its rate and length first, so that the times mean something.
#
#   bench/bench_resample.sh [kelvo binary] [runs]
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
kelvo="${1:-$here/build/ui/kelvo}"
runs="${2:-3}"
for tool in sox soxi sndfile-resample; do
  command -v "$tool" >/dev/null || { echo "$tool is needed (packages sox, samplerate-programs)" >&2; exit 1; }
done
[ -x "$kelvo" ] || { echo "no kelvo binary at $kelvo (build it, or pass its path)" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export XDG_CONFIG_HOME="$work/config"
seconds=600

sox -n -r 44100 -c 2 -b 16 "$work/in.wav" synth "$seconds" sine 440 sine 1234 vol 0.5

# CPU seconds (user + sys, bash's time keyword) of the best of `runs` runs.
cpu() {
  local best="" t
  for _ in $(seq "$runs"); do
    t=$( { TIMEFORMAT='%U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1 | awk '{printf "%.3f", $1 + $2}')
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}

# The file is at 48 kHz and about as long as the input.
check() {
  local rate frames
  rate=$(soxi -r "$1")
  frames=$(soxi -s "$1")
  [ "$rate" = 48000 ] || { echo "$1: rate $rate, not 48000" >&2; exit 1; }
  [ $((frames / 48000)) -ge $((seconds - 1)) ] || { echo "$1: only $frames frames" >&2; exit 1; }
}

ours() { "$kelvo" -NOMSG "$work/in.wav" --op resample rate=48000 algorithm="$1" --save "$work/k$1.wav"; }
k8=$(cpu ours 8)
k7=$(cpu ours 7)
k2=$(cpu ours 2)
s_h=$(cpu sox "$work/in.wav" "$work/sox-h.wav" rate 48000)
s_q=$(cpu sox "$work/in.wav" "$work/sox-q.wav" rate -q 48000)
s_v=$(cpu sox "$work/in.wav" "$work/sox-v.wav" rate -v 48000)
src=$(cpu sndfile-resample -to 48000 -c 0 "$work/in.wav" "$work/src.wav")
for f in k8 k7 k2 sox-h sox-q sox-v src; do check "$work/$f.wav"; done

rtf() { awk -v s="$seconds" -v t="$1" 'BEGIN { if (t > 0) printf "%.0f", s / t; else print "-" }'; }
row() {
  local name="$1" ours="$2" peer="$3" theirs="$4"
  printf "%-20s %8s s %6s   %-26s %8s s %6s   %6s\n" "$name" "$ours" "$(rtf "$ours")" "$peer" "$theirs" \
    "$(rtf "$theirs")" "$(awk -v a="$ours" -v b="$theirs" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')"
}
echo "600 s of 44.1 kHz stereo 16-bit to 48 kHz; CPU seconds, best of $runs; rtf = audio seconds per CPU second"
printf "%-20s %10s %6s   %-26s %10s %6s   %6s\n" "ours" "cpu" "rtf" "peer" "cpu" "rtf" "ratio"
row "algorithm 8 (auto)" "$k8" "sox rate" "$s_h"
row "algorithm 7 (24-bit)" "$k7" "sndfile-resample -c 0" "$src"
row "algorithm 2 (cubic)" "$k2" "sox rate -q" "$s_q"
printf "%-20s %10s %6s   %-26s %10s %6s\n" "" "" "" "sox rate -v" "$s_v s" "$(rtf "$s_v")"
