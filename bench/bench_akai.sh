#!/usr/bin/env bash
# AKAI S1000/S3000 samples to WAV against sox: every S1000/S3000 sample of the
# corpus, loose and inside the two floppy images, repeated until the work is
# worth timing, goes to WAV files (one kelvo run, --save-all, per repeat); sox converts
# the same sample bytes, cut from their headers beforehand, as raw 16-bit
# mono at each file's rate. Prints the CPU time (user + sys) of both, best of
# `runs`, and their ratio.
#
#   bench/bench_akai.sh [kelvo binary] [runs] [repeats]
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
kelvo="${1:-$here/build/ui/kelvo}"
runs="${2:-3}"
repeats="${3:-40}"
corpus="$here/../shared/corpus/akai"
command -v sox >/dev/null || { echo "sox is needed" >&2; exit 1; }
[ -x "$kelvo" ] || { echo "no kelvo binary at $kelvo (build it, or pass its path)" >&2; exit 1; }
[ -d "$corpus" ] || { echo "no corpus at $corpus" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export XDG_CONFIG_HOME="$work/config"

# Loose samples, and the loose twins of the samples inside the images.
loose=("$corpus"/files/*.S1 "$corpus"/s3000-mk8ultra/*.s "$corpus"/s3000-yxpanapad/*.s)
images=("$corpus/images/s1000-hd-floppy.img" "$corpus/images/s3000-hd-floppy-mk8ultra.img")
twins=("$corpus"/files/*.S1 "$corpus"/s3000-mk8ultra/*.s)

# The sample bytes of each file as raw data, with its rate, for sox.
mkdir -p "$work/raw"
n=0
for f in "${loose[@]}" "${twins[@]}"; do
  size=$(stat -c %s "$f")
  count=$(od -An -tu4 -j26 -N4 "$f" | tr -d ' ')
  header=$(( size == 192 + 2 * count ? 192 : 150 ))
  rate=$(od -An -tu2 -j138 -N2 "$f" | tr -d ' ')
  tail -c +$((header + 1)) "$f" > "$work/raw/$n.raw"
  echo "$rate" > "$work/raw/$n.rate"
  n=$((n + 1))
done

sox_all() {
  for _ in $(seq "$repeats"); do
    for ((i = 0; i < n; ++i)); do
      sox -D -t raw -e signed -b 16 -c 1 -r "$(<"$work/raw/$i.rate")" "$work/raw/$i.raw" "$work/s$i.wav"
    done
  done
}
kelvo_all() {
  rm -rf "$work/k" && mkdir -p "$work/k"
  for r in $(seq "$repeats"); do
    "$kelvo" -NOMSG "${loose[@]}" "${images[@]}" --save-all "$work/k/$r/x.wav" --on-exists overwrite
  done
}

# CPU seconds (user + sys, bash's time keyword) of the best of `runs` runs.
cpu() {
  local best="" t
  for _ in $(seq "$runs"); do
    t=$( { TIMEFORMAT='%U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1 | awk '{printf "%.3f", $1 + $2}')
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}

ours=$(cpu kelvo_all)
theirs=$(cpu sox_all)
# Waves of one name are one item: the images' samples meet their loose twins.
written=$(find "$work/k" -name '*.wav' | wc -l)
once=$(find "$work/k/1" -name '*.wav' | wc -l)
[ "$once" -ge "${#loose[@]}" ] && [ "$written" -eq $((repeats * once)) ] ||
  { echo "kelvo wrote $written WAV files ($once a run) for ${#loose[@]} samples" >&2; exit 1; }
# The same samples, whoever converted them.
cmp -s <(sox "$work/s0.wav" -t s16 -) <(sox "$(find "$work/k" -name '*FLUTED5*.wav' | sort | head -1)" -t s16 -) ||
  { echo "FLUTED5 samples differ from sox" >&2; exit 1; }

echo "$repeats x (${#loose[@]} samples and ${#images[@]} images; sox: $n samples) to WAV, CPU seconds (user+sys), best of $runs"
printf "%-26s %10s %10s %8s\n" "conversion" "kelvo" "sox" "ratio"
printf "%-26s %10s %10s %8s\n" "S1000/S3000 -> WAV 16-bit" "$ours" "$theirs" \
  "$(awk -v a="$ours" -v b="$theirs" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')"
