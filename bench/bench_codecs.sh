#!/usr/bin/env bash
# Codec speed: 10 minutes of music at 44.1 kHz stereo (the corpus MIDI files
# rendered by FluidSynth with FluidR3_GM, one after another), encoded and
# decoded by kelvo and by the codec's own tool, FFmpeg and sox. Our overhead
# over the library's tool is what the ratio shows: the codec is the same.
# CPU seconds (user + sys) of the best of N runs.
#
#   bench/bench_codecs.sh [kelvo binary] [runs]
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
kelvo="${1:-$here/build/ui/kelvo}"
runs="${2:-3}"
corpus="${KELVO_CORPUS:-$here/../shared/corpus}"
bank=/usr/share/sounds/sf2/FluidR3_GM.sf2
for tool in fluidsynth sox flac oggenc oggdec opusenc opusdec wavpack wvunpack ffmpeg; do
  command -v "$tool" >/dev/null || { echo "$tool is needed" >&2; exit 1; }
done
[ -f "$bank" ] || { echo "FluidR3_GM is needed (fluid-soundfont-gm)" >&2; exit 1; }
[ -x "$kelvo" ] || { echo "no kelvo binary at $kelvo" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export XDG_CONFIG_HOME="$work/config"

# The music: every corpus song rendered, joined, repeated to 10 minutes.
n=0
for mid in "$corpus"/midi/*.mid; do
  fluidsynth -q -ni -g 0.6 -r 44100 -F "$work/part$n.wav" "$bank" "$mid" >/dev/null 2>&1 || continue
  n=$((n + 1))
done
[ "$n" -gt 0 ] || { echo "no song rendered" >&2; exit 1; }
sox "$work"/part*.wav "$work/joined.wav"
sox "$work/joined.wav" -b 16 "$work/in.wav" repeat 40 trim 0 600

cpu() {
  local best="" t
  for _ in $(seq "$runs"); do
    t=$( { TIMEFORMAT='%U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1 | awk '{printf "%.3f", $1 + $2}')
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }
row() {
  local name="$1" ours="$2" tool="$3" ff="$4" sx="$5"
  printf "%-22s %8s %8s %6s %8s %6s %8s %6s\n" "$name" "$ours" "$tool" "$(ratio "$ours" "$tool")" \
    "$ff" "$(ratio "$ours" "$ff")" "$sx" "$(ratio "$ours" "$sx")"
}

k() { "$kelvo" -NOMSG "$@" --on-exists overwrite; }
# The files each side decodes, made by the codecs' own tools.
flac -s -f -5 -o "$work/ref.flac" "$work/in.wav"
oggenc -Q -b 128 -o "$work/ref.ogg" "$work/in.wav"
opusenc --quiet --bitrate 96 "$work/in.wav" "$work/ref.opus"
wavpack -q -y "$work/in.wav" -o "$work/ref.wv"

echo "10 min 44.1 kHz stereo music, CPU seconds (user+sys), best of $runs; ratio = kelvo / peer"
printf "%-22s %8s %8s %6s %8s %6s %8s %6s\n" "conversion" "kelvo" "tool" "" "ffmpeg" "" "sox" ""
row "FLAC -> WAV" "$(cpu k "$work/ref.flac" --save "$work/k.wav")" \
  "$(cpu flac -s -f -d -o "$work/t.wav" "$work/ref.flac")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/ref.flac" "$work/f.wav")" \
  "$(cpu sox -D "$work/ref.flac" "$work/s.wav")"
row "WAV -> FLAC 5" "$(cpu k "$work/in.wav" --save "$work/k5.flac" --format 108)" \
  "$(cpu flac -s -f -5 -V -o "$work/t5.flac" "$work/in.wav")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/in.wav" -compression_level 5 "$work/f5.flac")" "-"
row "WAV -> FLAC 8" "$(cpu k "$work/in.wav" --save "$work/k8.flac" --format 109)" \
  "$(cpu flac -s -f -8 -V -o "$work/t8.flac" "$work/in.wav")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/in.wav" -compression_level 8 "$work/f8.flac")" "-"
row "Vorbis -> WAV" "$(cpu k "$work/ref.ogg" --save "$work/kv.wav")" \
  "$(cpu oggdec -Q -o "$work/tv.wav" "$work/ref.ogg")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/ref.ogg" "$work/fv.wav")" \
  "$(cpu sox -D "$work/ref.ogg" "$work/sv.wav")"
row "WAV -> Vorbis 128" "$(cpu k "$work/in.wav" --save "$work/k.ogg" --rate 128)" \
  "$(cpu oggenc -Q -b 128 -o "$work/t.ogg" "$work/in.wav")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/in.wav" -c:a libvorbis -b:a 128k "$work/f.ogg")" \
  "$(cpu sox -D "$work/in.wav" -C 128 "$work/s.ogg")"
row "Opus -> WAV" "$(cpu k "$work/ref.opus" --save "$work/ko.wav")" \
  "$(cpu opusdec --quiet --float "$work/ref.opus" "$work/to.wav")" \
  "$(cpu ffmpeg -nostdin -v error -y -c:a libopus -i "$work/ref.opus" "$work/fo.wav")" "-"
row "WAV -> Opus 96" "$(cpu k "$work/in.wav" --save "$work/k.opus" --format 281 --rate 96)" \
  "$(cpu opusenc --quiet --bitrate 96 "$work/in.wav" "$work/t.opus")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/in.wav" -c:a libopus -b:a 96k "$work/f.opus")" "-"
row "WavPack -> WAV" "$(cpu k "$work/ref.wv" --save "$work/kw.wav")" \
  "$(cpu wvunpack -q -y "$work/ref.wv" -o "$work/tw.wav")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/ref.wv" "$work/fw.wav")" \
  "$(cpu sox -D "$work/ref.wv" "$work/sw.wav")"
row "WAV -> WavPack" "$(cpu k "$work/in.wav" --save "$work/k.wv")" \
  "$(cpu wavpack -q -y "$work/in.wav" -o "$work/t.wv")" \
  "$(cpu ffmpeg -nostdin -v error -y -i "$work/in.wav" "$work/f.wv")" \
  "$(cpu sox -D "$work/in.wav" "$work/s.wv")"
# The lossless rows must agree with the tools before their times mean anything.
cmp -s <(sox "$work/k.wav" -t s16 -) <(sox "$work/in.wav" -t s16 -) || { echo "FLAC decode differs" >&2; exit 1; }
cmp -s <(sox "$work/kw.wav" -t s16 -) <(sox "$work/in.wav" -t s16 -) || { echo "WavPack decode differs" >&2; exit 1; }
