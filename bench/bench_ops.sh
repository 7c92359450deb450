#!/usr/bin/env bash
# Processing speed against sox: a 10-minute 44.1 kHz stereo 16-bit WAV (the
# file of bench_convert.sh) goes through `kelvo --op` and through the sox
# effect that does the same, and the CPU time (user + sys) of the best of
# `runs` runs is printed with the ratio. Each pair's results are compared
# first, so that the times mean something.
#
#   bench/bench_ops.sh [kelvo binary] [runs]
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
  printf "%-34s %10s %10s %8s\n" "$name" "$ours" "$theirs" "$(awk -v a="$ours" -v b="$theirs" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')"
}

# Samples of two files agree within `tolerance` LSB.
agree() {
  local a="$1" b="$2" tolerance="$3"
  python3 - "$a" "$b" "$tolerance" <<'PY' || { echo "$1 and $2 differ" >&2; exit 1; }
import subprocess, sys, array
def samples(path):
    raw = subprocess.run(["sox", path, "-t", "s16", "-"], check=True, capture_output=True).stdout
    return array.array("h", raw)
a, b, tol = samples(sys.argv[1]), samples(sys.argv[2]), int(sys.argv[3])
if len(a) != len(b) or any(abs(x - y) > tol for x, y in zip(a[::997], b[::997])):
    sys.exit(1)
PY
}

k_vol=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op adjust-volume db=-6 --save "$work/k-vol.wav")
s_vol=$(cpu sox -D "$work/in.wav" "$work/s-vol.wav" vol -6dB)
k_rev=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op reverse --save "$work/k-rev.wav")
s_rev=$(cpu sox "$work/in.wav" "$work/s-rev.wav" reverse)
k_swap=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op swap --save "$work/k-swap.wav")
s_swap=$(cpu sox "$work/in.wav" "$work/s-swap.wav" remix 2 1)
k_stat=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op statistics)
s_stat=$(cpu sox "$work/in.wav" -n stats)
# Length and channels: a minute cut from the middle, 10 s of silence
# inserted there, the average to mono, the file after itself.
cp "$work/in.wav" "$work/again.wav"
k_cut=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op cut range=2646000:5292000 --save "$work/k-cut.wav")
s_cut=$(cpu sox "$work/in.wav" "$work/s-cut.wav" trim 0s =2646000s =5292000s)
k_pad=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op insert-silence count=441000 at=sel-start range=13230000:13230001 \
  --save "$work/k-pad.wav")
s_pad=$(cpu sox "$work/in.wav" "$work/s-pad.wav" pad 441000s@13230000s)
k_mono=$(cpu "$kelvo" -NOMSG "$work/in.wav" --op to-mono mode=0 --save "$work/k-mono.wav")
s_mono=$(cpu sox -D "$work/in.wav" "$work/s-mono.wav" remix 1v0.5,2v0.5)
k_app=$(cpu "$kelvo" -NOMSG "$work/in.wav" "$work/again.wav" --select in --op append wave2=in wave3=again --item in \
  --save "$work/k-app.wav")
s_app=$(cpu sox "$work/in.wav" "$work/in.wav" "$work/s-app.wav")

agree "$work/k-vol.wav" "$work/s-vol.wav" 1
agree "$work/k-mono.wav" "$work/s-mono.wav" 1
for pair in cut pad app; do
  cmp -s <(sox "$work/k-$pair.wav" -t s16 -) <(sox "$work/s-$pair.wav" -t s16 -) || { echo "$pair differs from sox" >&2; exit 1; }
done
cmp -s <(sox "$work/k-rev.wav" -t s16 -) <(sox "$work/s-rev.wav" -t s16 -) || { echo "reverse differs from sox" >&2; exit 1; }
cmp -s <(sox "$work/k-swap.wav" -t s16 -) <(sox "$work/s-swap.wav" -t s16 -) || { echo "swap differs from sox" >&2; exit 1; }

echo "10 min 44.1 kHz stereo 16-bit WAV, load + operation + save, CPU seconds (user+sys), best of $runs"
printf "%-34s %10s %10s %8s\n" "operation" "kelvo" "sox" "ratio"
row "Adjust volume -6 dB / vol -6dB" "$k_vol" "$s_vol"
row "Reverse / reverse" "$k_rev" "$s_rev"
row "Swap channels / remix 2 1" "$k_swap" "$s_swap"
row "Statistics / -n stats" "$k_stat" "$s_stat"
row "Cut away 60 s / trim" "$k_cut" "$s_cut"
row "Insert 10 s silence / pad" "$k_pad" "$s_pad"
row "Convert to mono / remix" "$k_mono" "$s_mono"
row "Append to itself / sox in in" "$k_app" "$s_app"
