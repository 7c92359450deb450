#!/usr/bin/env bash
# A whole General MIDI SoundFont to SFZ, one file per instrument with its
# waves beside it in a folder of its own: kelvo (save-all, mode 213, --subdirs)
# against Polyphone's command line, in one run. CPU time (user + system) of
# each and the ratio.
#
#   bench/bench_sfz_convert.sh [build-dir] [bank.sf2]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
bank="${2:-/usr/share/sounds/sf2/FluidR3_GM.sf2}"
kelvo="$build/ui/kelvo"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
[ -f "$bank" ] || { echo "no bank at $bank (Debian fluid-soundfont-gm)" >&2; exit 2; }
command -v polyphone >/dev/null || { echo "polyphone not installed (Debian polyphone)" >&2; exit 2; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cat "$bank" >/dev/null  # both read from the page cache

cpu() {  # CPU seconds (user + sys) of "$@"; output to /dev/null
  local out="$work/time.txt"
  /usr/bin/env time -f "%U %S" -o "$out" "$@" >/dev/null 2>&1 || true
  awk '{printf "%.3f", $1 + $2}' "$out"
}

mkdir -p "$work/kelvo"
ours=$(cpu "$kelvo" -NOMSG "$bank" --save-all "$work/kelvo/bank.sfz" --mode 213 --subdirs)
mkdir -p "$work/polyphone"
theirs=$(cpu env QT_QPA_PLATFORM=offscreen polyphone -3 -i "$bank" -d "$work/polyphone" -c 000)

count() { find "$1" -name "$2" | wc -l; }
printf 'bank: %s (%s bytes)\n' "$bank" "$(stat -c %s "$bank")"
printf 'kelvo:     %s s CPU, %s sfz, %s wav\n' "$ours" "$(count "$work/kelvo" '*.sfz')" "$(count "$work/kelvo" '*.wav')"
printf 'polyphone: %s s CPU, %s sfz, %s wav\n' "$theirs" "$(count "$work/polyphone" '*.sfz')" "$(count "$work/polyphone" '*.wav')"
echo "$ours $theirs" | awk '{printf "polyphone / kelvo: %.2f\n", ($1 > 0) ? $2 / $1 : 0}'
