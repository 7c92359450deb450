#!/usr/bin/env bash
# GigaStudio speed: a large General MIDI bank saved once as v3 with
# block-coded waves, then
#  - every wave decoded to WAV by kelvo against gigtools' gigextract
#    (goal: 2x faster or more);
#  - opened and listed by kelvo against gigdump (goal: 5x or more);
#  - SF2 -> GIG v3 by kelvo against libgig loading that gig and saving it
#    again (a helper built here only when libgig-dev is installed; goal: not
#    slower).
# Times are CPU seconds (user + system) of one run.
#
#   bench/bench_gig.sh [build-dir] [bank.sf2]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
bank="${2:-/usr/share/sounds/sf2/FluidR3_GM.sf2}"
kelvo="$build/ui/kelvo"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
[ -f "$bank" ] || { echo "no bank at $bank (Debian fluid-soundfont-gm)" >&2; exit 2; }
for tool in gigdump gigextract; do
  command -v "$tool" >/dev/null || { echo "$tool not installed (Debian gigtools)" >&2; exit 2; }
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
gig="$work/bank.gig"

cpu() {
  /usr/bin/time -f "%U %S" -o "$work/time" "$@" >/dev/null 2>&1 || true
  awk '{print $1 + $2}' "$work/time"
}
ratio() { echo "$1 $2" | awk '{printf "%.1f", ($1 > 0) ? $2 / $1 : 0}'; }

cat "$bank" >/dev/null
convert=$(cpu "$kelvo" -NOMSG "$bank" --save "$gig" --format 164)
cat "$gig" >/dev/null
mkdir -p "$work/ours" "$work/theirs"
decode=$(cpu "$kelvo" -NOMSG "$gig" --save-all "$work/ours/w.wav")
extract=$(cpu gigextract "$gig" "$work/theirs")
list=$(cpu "$kelvo" -NOMSG "$gig" --list)
dump=$(cpu gigdump "$gig")

printf 'bank: %s (%s bytes) as GigaStudio v3 compressed: %s bytes\n' "$bank" "$(stat -c %s "$bank")" "$(stat -c %s "$gig")"
printf 'kelvo decode all waves: %.3f s; gigextract: %.3f s (%sx kelvo, goal >= 2x)\n' "$decode" "$extract" "$(ratio "$decode" "$extract")"
printf 'kelvo open+list: %.3f s; gigdump: %.3f s (%sx kelvo, goal >= 5x)\n' "$list" "$dump" "$(ratio "$list" "$dump")"
printf 'kelvo SF2 -> GIG v3 compressed: %.3f s\n' "$convert"

if [ -f /usr/include/libgig/gig.h ] && command -v c++ >/dev/null; then
  cat >"$work/resave.cpp" <<'CPP'
#include <libgig/gig.h>
int main(int argc, char** argv) {
  RIFF::File riff(argv[1]);
  gig::File file(&riff);
  for (gig::Instrument* i = file.GetFirstInstrument(); i; i = file.GetNextInstrument()) i->GetFirstRegion();
  for (gig::Sample* s = file.GetFirstSample(); s; s = file.GetNextSample()) s->LoadSampleData();
  file.Save(argv[2]);
  return 0;
}
CPP
  if c++ -O2 -o "$work/resave" "$work/resave.cpp" $(pkg-config --cflags --libs gig 2>/dev/null || echo -lgig) 2>"$work/cc.log"; then
    "$kelvo" -NOMSG "$bank" --save "$work/normal.gig" --format 163 >/dev/null 2>&1
    libgig=$(cpu "$work/resave" "$work/normal.gig" "$work/again.gig")
    printf 'libgig load+Save: %.3f s (%sx kelvo SF2 -> GIG, goal >= 1x)\n' "$libgig" "$(ratio "$convert" "$libgig")"
  else
    echo "libgig helper did not build: $(head -3 "$work/cc.log")"
  fi
else
  echo "libgig-dev not installed: no libgig save time (Debian libgig-dev)"
fi
