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

# TiMidity++ reads a bank lazily: the preset list, then only what a song
# plays. Its time for a one-note song is its whole open.
if command -v timidity >/dev/null; then
  song=$(mktemp --suffix=.mid)
  trap 'rm -f "$song"' EXIT
  # Format 0, one track: program 0, one short note.
  printf 'MThd\0\0\0\6\0\0\0\1\1\340MTrk\0\0\0\17\0\300\0\0\220\74\144\12\200\74\0\0\377\57\0' >"$song"
  timidity=$(best timidity -c /dev/null -x "soundfont $bank" -Ol -o /dev/null "$song")
  printf 'timidity lazy open, one note: %.3f s\n' "$timidity"
  printf 'ratio: timidity/kelvo = %s\n' "$(echo "$ours $timidity" | awk '{printf "%.2f", ($1>0)?$2/$1:0}')"
else
  echo "timidity not installed: no TiMidity++ time (Debian timidity)"
fi
