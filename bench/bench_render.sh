#!/usr/bin/env bash
# Rendering songs to WAV, side by side in one run: our render through the
# synthesizer against FluidSynth, each with its channel effects off and on
# (FluidSynth's reverb and chorus, our slots as the bank sets them), on the
# peers' songs and their polyphony stress file, with each General MIDI bank.
# Figures: CPU seconds (user + system, median of runs taken in turn),
# rtf = seconds of music per CPU second, wall rtf, peak memory; after each
# set, every tool's fx-on / fx-off CPU ratio.
#
#   bench/bench_render.sh [build-dir] [runs]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
runs="${2:-3}"
kelvo="$build/ui/kelvo"
peers="$here/../shared/peers/data"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
command -v fluidsynth >/dev/null || { echo "fluidsynth not installed" >&2; exit 2; }
[ -d "$peers/midi" ] || { echo "no peer songs at $peers/midi" >&2; exit 2; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# "cpu wall peak-kB" of one run of "$@".
measure() {
  /usr/bin/time -f '%U %S %e %M' -o "$work/t" "$@" >/dev/null 2>&1 || true
  awk '{printf "%.3f %.3f %d\n", $1 + $2, $3, $4}' "$work/t"
}
median() { sort -n | awk '{a[NR]=$1} END{print a[int((NR+1)/2)]}'; }

printf '%-10s %-9s %-10s %8s %8s %8s %8s %8s\n' tool bank set audio_s cpu_s rtf wall_rtf peak_MB
for bank in /usr/share/sounds/sf2/TimGM6mb.sf2 /usr/share/sounds/sf2/FluidR3_GM.sf2; do
  [ -f "$bank" ] || continue
  name="$(basename "$bank" .sf2)"
  for set in songs stress; do
    if [ "$set" = songs ]; then files=("$peers"/midi/*.mid); else files=("$peers"/stress/*.mid); fi
    declare -A cpuOf=()
    for tool in kelvo-fx0 kelvo-fx1 fluid-fx0 fluid-fx1; do
      fx="${tool##*-fx}"
      cpu=0; wall=0; peak=0; audio=0
      for f in "${files[@]}"; do
        cpus=(); walls=()
        for _ in $(seq "$runs"); do
          if [ "${tool%%-*}" = kelvo ]; then
            r=$(measure "$kelvo" -NOMSG "$f" --save "$work/out.wav" --on-exists overwrite \
                  --set mid2wav.wszGMBank="$bank" --set mid2wav.dwSampleRate=48000 \
                  --set mid2wav.bDeleteSilence=0 --set mid2wav.bNormalizePeak=0 --set mid2wav.bEffects="$fx")
          else
            r=$(measure fluidsynth -ni -q -F "$work/out.wav" -r 48000 -g 0.5 -R "$fx" -C "$fx" "$bank" "$f")
          fi
          cpus+=("$(echo "$r" | cut -d' ' -f1)"); walls+=("$(echo "$r" | cut -d' ' -f2)")
          p=$(echo "$r" | cut -d' ' -f3); [ "$p" -gt "$peak" ] && peak=$p
        done
        c=$(printf '%s\n' "${cpus[@]}" | median); w=$(printf '%s\n' "${walls[@]}" | median)
        cpu=$(echo "$cpu $c" | awk '{print $1 + $2}'); wall=$(echo "$wall $w" | awk '{print $1 + $2}')
        [ "$tool" = kelvo-fx0 ] && audio=$(echo "$audio $(soxi -D "$work/out.wav")" | awk '{print $1 + $2}')
      done
      [ "$tool" = kelvo-fx0 ] && kelvoAudio=$audio
      cpuOf[$tool]=$cpu
      audio=${kelvoAudio:-$audio}
      printf '%-10s %-9s %-10s %8.1f %8.2f %8.1f %8.1f %8.0f\n' "$tool" "$name" "$set" "$audio" "$cpu" \
        "$(echo "$audio $cpu" | awk '{print ($2>0)?$1/$2:0}')" "$(echo "$audio $wall" | awk '{print ($2>0)?$1/$2:0}')" \
        "$(echo "$peak" | awk '{print $1/1024}')"
    done
    for t in kelvo fluid; do
      printf '%-10s %-9s %-10s fx-on/fx-off cpu %.3f\n' "$t" "$name" "$set" \
        "$(echo "${cpuOf[$t-fx1]} ${cpuOf[$t-fx0]}" | awk '{print ($2>0)?$1/$2:0}')"
    done
  done
done
