#!/usr/bin/env bash
# Opening a large SoundFont: our open-and-list against FluidSynth's load of
# the same bank, in one run. Our reader notes where samples lie and reads
# none, so it should take a fraction of FluidSynth's time.
#
#   bench/bench_sf2_open.sh [build-dir] [bank.sf2]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
bank="${2:-/usr/share/sounds/sf2/FluidR3_GM.sf2}"
kelvo="$build/ui/kelvo"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
[ -f "$bank" ] || { echo "no bank at $bank (Debian fluid-soundfont-gm)" >&2; exit 2; }
command -v fluidsynth >/dev/null || { echo "fluidsynth not installed" >&2; exit 2; }

# Best of 9 wall-clock runs of "$@", in seconds: a shared machine adds
# page-zeroing and scheduling stalls of tens of milliseconds now and then,
# and the best run is the one free of them, for both programs alike.
best() {
  local best=""
  for _ in 1 2 3 4 5 6 7 8 9; do
    local t0 t1
    t0=$(date +%s.%N)
    "$@" >/dev/null 2>&1 || true
    t1=$(date +%s.%N)
    best=$(echo "$t0 $t1 ${best:-1e9}" | awk '{d=$2-$1; print (d<$3)?d:$3}')
  done
  echo "$best"
}

# Warm the page cache so that both read from memory.
cat "$bank" >/dev/null
ours=$(best "$kelvo" -NOMSG "$bank" --list)
# The same without the unique-name load option, whose pass over all names
# dominates the open of a bank with a thousand samples.
plain=$(best "$kelvo" -NOMSG "$bank" --set load.bEnsureUniqueNames=0 --list)
# FluidSynth loads the bank (all samples) and quits at once on empty input.
theirs=$(best sh -c "echo quit | fluidsynth -n -i -a file -o audio.file.name=/dev/null '$bank'")
ratio=$(echo "$ours $theirs" | awk '{printf "%.1f", ($1>0)?$2/$1:0}')
printf 'bank: %s (%s bytes)\n' "$bank" "$(stat -c %s "$bank")"
printf 'kelvo open+list: %.3f s\n' "$ours"
printf 'kelvo open+list, unique names off: %.3f s\n' "$plain"
printf 'fluidsynth load: %.3f s\n' "$theirs"
printf 'ratio: fluidsynth/kelvo = %sx (target >= 10x)\n' "$ratio"
