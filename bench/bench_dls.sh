#!/usr/bin/env bash
# DLS speed: a large General MIDI bank saved as DLS level 2, then
#  - opened and listed by kelvo, against gigtools' dlsdump and FluidSynth's
#    load of the same file (goal: faster than both, 5x dlsdump or more);
#  - SF2 -> DLS by kelvo against libgig loading that DLS and saving it again
#    (a helper built here only when libgig-dev is installed; goal: not slower).
# Times are CPU seconds (user + system), best of N runs, so that a shared
# machine's stalls count for neither side.
#
#   bench/bench_dls.sh [build-dir] [bank.sf2] [runs]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
bank="${2:-/usr/share/sounds/sf2/FluidR3_GM.sf2}"
runs="${3:-5}"
kelvo="$build/ui/kelvo"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
[ -f "$bank" ] || { echo "no bank at $bank (Debian fluid-soundfont-gm)" >&2; exit 2; }
for tool in dlsdump fluidsynth; do
  command -v "$tool" >/dev/null || { echo "$tool not installed" >&2; exit 2; }
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
dls="$work/bank.dls"

# CPU seconds of one run of "$@".
cpu() {
  /usr/bin/time -f "%U %S" -o "$work/time" "$@" >/dev/null 2>&1 || true
  awk '{print $1 + $2}' "$work/time"
}
best() {
  local best=1e9
  for _ in $(seq "$runs"); do
    best=$(echo "$(cpu "$@") $best" | awk '{print ($1 < $2) ? $1 : $2}')
  done
  echo "$best"
}
ratio() { echo "$1 $2" | awk '{printf "%.1f", ($1 > 0) ? $2 / $1 : 0}'; }

cat "$bank" >/dev/null
convert=$(best "$kelvo" -NOMSG "$bank" --save "$dls" --format 64)
cat "$dls" >/dev/null
list=$(best "$kelvo" -NOMSG "$dls" --list)
dump=$(best dlsdump "$dls")
fluid=$(best sh -c "echo quit | fluidsynth -n -i -a file -o audio.file.name=/dev/null '$dls'")

printf 'bank: %s (%s bytes) as DLS level 2: %s bytes\n' "$bank" "$(stat -c %s "$bank")" "$(stat -c %s "$dls")"
printf 'kelvo open+list: %.3f s\n' "$list"
printf 'dlsdump: %.3f s (%sx kelvo, goal >= 5x)\n' "$dump" "$(ratio "$list" "$dump")"
printf 'fluidsynth load: %.3f s (%sx kelvo, goal > 1x)\n' "$fluid" "$(ratio "$list" "$fluid")"
printf 'kelvo SF2 -> DLS 2: %.3f s\n' "$convert"

# libgig's own load and save of the bank, when its headers are there.
if [ -f /usr/include/libgig/DLS.h ] && command -v c++ >/dev/null; then
  cat >"$work/resave.cpp" <<'EOF'
#include <libgig/DLS.h>
int main(int argc, char** argv) {
  RIFF::File riff(argv[1]);
  DLS::File file(&riff);
  // Touch every instrument and sample, as a converter does, then write.
  for (DLS::Instrument* i = file.GetFirstInstrument(); i; i = file.GetNextInstrument()) i->GetFirstRegion();
  for (DLS::Sample* s = file.GetFirstSample(); s; s = file.GetNextSample()) s->LoadSampleData();
  file.Save(argv[2]);
  return 0;
}
EOF
  if c++ -O2 -o "$work/resave" "$work/resave.cpp" $(pkg-config --cflags --libs gig 2>/dev/null || echo -lgig) 2>"$work/cc.log"; then
    libgig=$(best "$work/resave" "$dls" "$work/again.dls")
    printf 'libgig load+Save: %.3f s (%sx kelvo SF2 -> DLS, goal >= 1x)\n' "$libgig" "$(ratio "$convert" "$libgig")"
  else
    echo "libgig helper did not build: $(head -3 "$work/cc.log")"
  fi
else
  echo "libgig-dev not installed: no libgig save time (Debian libgig-dev)"
fi
