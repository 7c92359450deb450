#!/usr/bin/env bash
# The song operations on a large Standard MIDI file, in one run: each row of
# the song table through `kelvo big.mid --op ... --save out.mid` against a
# no-op round trip through midicsv and csvmidi, and the transpose against a
# mido script doing the same. CPU time (user + system), best of `runs`.
#
#   bench/bench_midi_ops.sh [build-dir] [megabytes] [runs]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
megabytes="${2:-50}"
runs="${3:-1}"
kelvo="$build/ui/kelvo"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
/usr/bin/python3 -c "import mido" 2>/dev/null || { echo "python3-mido not installed" >&2; exit 2; }
command -v midicsv >/dev/null || { echo "midicsv not installed" >&2; exit 2; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export XDG_CONFIG_HOME="$work/config"
big="$work/big.mid"
/usr/bin/python3 "$here/bench/make_big_mid.py" "$big" "$megabytes"
cat >"$work/transpose.py" <<'PY'
import mido, sys
m = mido.MidiFile(sys.argv[1], clip=True)
for t in m.tracks:
    for i, msg in enumerate(t):
        if msg.type in ('note_on', 'note_off', 'polytouch') and msg.note + 12 <= 127:
            t[i] = msg.copy(note=msg.note + 12)
m.save(sys.argv[2])
PY

cpu() {
  local best="" t
  for _ in $(seq "$runs"); do
    t=$( { TIMEFORMAT='%U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1 | awk '{printf "%.3f", $1 + $2}')
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}

roundtrip=$(cpu bash -c "midicsv '$big' | csvmidi > '$work/csv.mid'")
mido=$(cpu /usr/bin/python3 "$work/transpose.py" "$big" "$work/mido.mid")
printf '%-20s %9s %12s %10s\n' "operation" "cpu s" "vs midicsv" "vs mido"
printf '%-20s %9s\n' "midicsv|csvmidi" "$roundtrip"
printf '%-20s %9s\n' "mido transpose" "$mido"
while read -r name args; do
  # shellcheck disable=SC2086
  t=$(cpu "$kelvo" "$big" --op $name $args --save "$work/out.mid")
  printf '%-20s %9s %11.1fx %9.1fx\n' "$name" "$t" "$(awk -v a="$roundtrip" -v b="$t" 'BEGIN{print a/b}')" \
    "$(awk -v a="$mido" -v b="$t" 'BEGIN{print a/b}')"
done <<'OPS'
tick-rate to=960
compact duplicates=on noteon=on merge=on
midi-format format=0
filter sysex=on meta=on aftertouch=on from=1 to=16
fix-compatibility banklsb=on program=on nosysex=on noteoff=on
note-off
transpose semitones=12 nodrums=off
trim-song first-note=on length=on length-seconds=600
OPS
