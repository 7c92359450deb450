#!/usr/bin/env bash
# Conversion speed against sox: a 10-minute 44.1 kHz stereo 16-bit WAV is
# turned into a 24-bit WAV and into an AIFF by `kelvo --save` and by sox, and
# the CPU time (user + sys) of each run is printed with the ratio. ADPCM rows
# follow: IMA and MS ADPCM decoded to 16-bit WAV against sox, libsndfile's
# sndfile-convert and FFmpeg, and 16-bit WAV to "ADPCM 4-bit" against FFmpeg's
# adpcm_g726 and python3-soundfile's G721_32. GSM 06.10 and G.722 rows close
# the run (see there).
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

# ADPCM, against every peer that does the same conversion: IMA and MS ADPCM
# WAV (made by sox from the same 10 minutes) to 16-bit WAV, and 16-bit WAV to
# "ADPCM 4-bit" (CCITT G.726 in WAV) - mono, since FFmpeg's G.726 encoder
# takes one channel; python3-soundfile writes libsndfile's G721_32. A peer
# that isn't installed gets "-".
have() { command -v "$1" >/dev/null; }
py="$(command -v /usr/bin/python3 || true)"
[ -n "$py" ] && ! "$py" -c 'import soundfile' 2>/dev/null && py=""
sox "$work/in.wav" -e ima-adpcm "$work/ima.wav"
sox "$work/in.wav" -e ms-adpcm "$work/ms.wav"
sox "$work/in.wav" -c 1 "$work/mono.wav"
peer() { if have "$1"; then cpu "$@"; else echo "-"; fi; }
declare -A t
for c in ima ms; do
  t[k$c]=$(cpu "$kelvo" -NOMSG "$work/$c.wav" --save "$work/k$c.wav" --data-format "PCM 16-bit")
  t[s$c]=$(cpu sox -D "$work/$c.wav" -e signed-integer -b 16 "$work/s$c.wav")
  t[l$c]=$(peer sndfile-convert -pcm16 "$work/$c.wav" "$work/l$c.wav")
  t[f$c]=$(peer ffmpeg -nostdin -v error -y -i "$work/$c.wav" -c:a pcm_s16le "$work/f$c.wav")
  # Our decoding is libsndfile's and sox's, sample for sample (IMA and MS
  # ADPCM have no encoder here, so the peers' own files are the input).
  cmp -s <(sox "$work/k$c.wav" -t s16 -) <(sox "$work/s$c.wav" -t s16 - | head -c "$(sox "$work/k$c.wav" -t s16 - | wc -c)") ||
    { echo "$c: samples differ from sox" >&2; exit 1; }
done
t[kg]=$(cpu "$kelvo" -NOMSG "$work/mono.wav" --save "$work/kg.wav" --data-format "ADPCM 4-bit")
t[fg]=$(peer ffmpeg -nostdin -v error -y -i "$work/mono.wav" -c:a adpcm_g726 -code_size 4 -strict unofficial "$work/fg.wav")
if [ -n "$py" ]; then
  t[lg]=$(cpu "$py" -c "import soundfile as sf; d, r = sf.read('$work/mono.wav', dtype='int16'); sf.write('$work/lg.wav', d, r, subtype='G721_32')")
else
  t[lg]="-"
fi
# sox can't read G.726 in WAV: our own listing tells the frames.
"$kelvo" -NOMSG "$work/kg.wav" --list | grep -q "frames=$(soxi -s "$work/mono.wav") .*coding=\"CCITT G.721 ADPCM 4-bit\"" ||
  { echo "G.726 frame count or coding differs" >&2; exit 1; }

# The fastest peer of a row and our ratio to it.
fastest() { printf "%s\n" "$@" | grep -v '^-$' | sort -g | head -1; }
arow() {
  local name="$1" ours="$2"; shift 2
  local best; best="$(fastest "$@")"
  printf "%-26s %8s %8s %8s %8s %8s\n" "$name" "$ours" "$1" "$2" "$3" \
    "$(awk -v a="$ours" -v b="$best" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')"
}
echo
echo "ADPCM, 10 min 44.1 kHz (stereo; mono for G.726), CPU seconds, best of $runs; ratio to the fastest peer"
printf "%-26s %8s %8s %8s %8s %8s\n" "conversion" "kelvo" "sox" "sndfile" "ffmpeg" "ratio"
arow "IMA ADPCM -> WAV 16" "${t[kima]}" "${t[sima]}" "${t[lima]}" "${t[fima]}"
arow "MS ADPCM -> WAV 16" "${t[kms]}" "${t[sms]}" "${t[lms]}" "${t[fms]}"
arow "WAV 16 -> ADPCM 4-bit" "${t[kg]}" "-" "${t[lg]}" "${t[fg]}"

# GSM 06.10 and G.722: 10 minutes of speech-band noise, 8 kHz mono for GSM
# and 16 kHz mono for G.722. GSM is encoded to WAV (tag 49) and decoded back
# to 16-bit WAV against sox and libsndfile (both libgsm) and FFmpeg's
# libgsm_ms/gsm_ms; G.722 to and from raw codes against FFmpeg's adpcm_g722.
# Our GSM bytes are libgsm's and our G.722 bytes FFmpeg's, which is checked.
sox -n -r 8000 -c 1 -b 16 "$work/g8.wav" synth 600 pinknoise synth 600 sine mix 300 vol 0.5
sox -n -r 16000 -c 1 -b 16 "$work/g16.wav" synth 600 pinknoise synth 600 sine mix 700 vol 0.5
t[kge]=$(cpu "$kelvo" -NOMSG "$work/g8.wav" --save "$work/kgsm.wav" --data-format "GSM 2-bit")
t[sge]=$(cpu sox -D "$work/g8.wav" -e gsm-full-rate "$work/sgsm.wav")
t[lge]=$(peer sndfile-convert -gsm610 "$work/g8.wav" "$work/lgsm.wav")
t[fge]=$(peer ffmpeg -nostdin -v error -y -i "$work/g8.wav" -c:a libgsm_ms "$work/fgsm.wav")
dataof() { python3 -c "import sys; d=open(sys.argv[1],'rb').read(); i=d.find(b'data'); n=int.from_bytes(d[i+4:i+8],'little'); sys.stdout.buffer.write(d[i+8:i+8+n])" "$1"; }
cmp -s <(dataof "$work/kgsm.wav") <(dataof "$work/sgsm.wav") || { echo "GSM bytes differ from sox's" >&2; exit 1; }
t[kgd]=$(cpu "$kelvo" -NOMSG "$work/sgsm.wav" --save "$work/kgd.wav" --data-format "PCM 16-bit")
t[sgd]=$(cpu sox -D "$work/sgsm.wav" -e signed-integer -b 16 "$work/sgd.wav")
t[lgd]=$(peer sndfile-convert -pcm16 "$work/sgsm.wav" "$work/lgd.wav")
t[fgd]=$(peer ffmpeg -nostdin -v error -y -i "$work/sgsm.wav" -c:a pcm_s16le "$work/fgd.wav")
cmp -s <(sox "$work/kgd.wav" -t s16 -) <(sox "$work/sgd.wav" -t s16 - | head -c "$(sox "$work/kgd.wav" -t s16 - | wc -c)") ||
  { echo "GSM samples differ from sox" >&2; exit 1; }
t[k7e]=$(cpu "$kelvo" -NOMSG "$work/g16.wav" --save "$work/k.g722" --format 134)
t[f7e]=$(peer ffmpeg -nostdin -v error -y -i "$work/g16.wav" -c:a adpcm_g722 -f g722 "$work/f.g722")
if have ffmpeg; then cmp -s "$work/k.g722" "$work/f.g722" || { echo "G.722 bytes differ from FFmpeg's" >&2; exit 1; }; fi
t[k7d]=$(cpu "$kelvo" -NOMSG "$work/k.g722" --save "$work/k7d.wav" --data-format "PCM 16-bit")
t[f7d]=$(peer ffmpeg -nostdin -v error -y -f g722 -i "$work/k.g722" -c:a pcm_s16le "$work/f7d.wav")
echo
echo "GSM 06.10 (8 kHz) and G.722 (16 kHz), 10 min mono, CPU seconds, best of $runs; ratio to the fastest peer"
printf "%-26s %8s %8s %8s %8s %8s\n" "conversion" "kelvo" "sox" "sndfile" "ffmpeg" "ratio"
arow "WAV 16 -> GSM WAV" "${t[kge]}" "${t[sge]}" "${t[lge]}" "${t[fge]}"
arow "GSM WAV -> WAV 16" "${t[kgd]}" "${t[sgd]}" "${t[lgd]}" "${t[fgd]}"
arow "WAV 16 -> G.722" "${t[k7e]}" "-" "-" "${t[f7e]}"
arow "G.722 -> WAV 16" "${t[k7d]}" "-" "-" "${t[f7d]}"
