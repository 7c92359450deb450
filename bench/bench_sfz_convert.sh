#!/usr/bin/env bash
# A whole General MIDI SoundFont to SFZ, one file per instrument (save-all,
# mode 213), against Polyphone's command-line export, in one run. CPU time
# (user + system) of each, best of alternating rounds, and the ratios.
#
# Two layouts of ours:
#   shared:     every .sfz in one folder, each wave written once beside them
#               (row 387) - the layout Polyphone writes, which keeps its
#               waves once in one "samples" folder;
#   sub-folder: each .sfz with its own folder of waves named after it
#               (row 388), self-contained, so a wave that several presets
#               play is written once per preset: about 3.5 times the bytes
#               (on file systems with copy-on-write clones, such as btrfs or
#               XFS, the later copies are clones and cost no data);
#   linked:     the same with --link-shared-waves: on other file systems the
#               later copies are hard links to the first.
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
cat "$bank" >/dev/null  # all read from the page cache
rounds="${KELVO_BENCH_ROUNDS:-4}"

# CPU seconds (user + sys) of "$@" writing into the fresh folder $1. Dirty
# pages of the run before are flushed first, so that no tool pays for
# another's write-back. Folders stay until the end: ext4 makes a file
# creation slow for a minute or so after many deletes, which would punish
# whichever tool ran next.
cpu() {
  local dir="$1"; shift
  mkdir -p "$dir"; sync
  /usr/bin/env time -f "%U %S" -o "$work/time.txt" "$@" >/dev/null 2>&1 || true
  awk '{printf "%.3f %.3f %.3f\n", $1 + $2, $1, $2}' "$work/time.txt"
}
shared() { cpu "$work/shared$1" "$kelvo" -NOMSG "$bank" --save-all "$work/shared$1/bank.sfz" --mode 213 --format 387; }
subfolder() { cpu "$work/sub$1" "$kelvo" -NOMSG "$bank" --save-all "$work/sub$1/bank.sfz" --mode 213 --format 388; }
linked() { cpu "$work/linked$1" "$kelvo" -NOMSG "$bank" --save-all "$work/linked$1/bank.sfz" --mode 213 --format 388 --link-shared-waves; }
polyphone() { cpu "$work/polyphone$1" env QT_QPA_PLATFORM=offscreen polyphone -3 -i "$bank" -d "$work/polyphone$1" -c 000; }
least() { echo "$1 ${2:-1e9}" | awk '{print ($1 < $4) ? $1 : $4}'; }

# Each round starts with a different tool; the best of each counts.
best_a="" best_b="" best_l="" best_p=""
for ((r = 1; r <= rounds; ++r)); do
  case $((r % 4)) in
    1) a=$(shared "$r"); b=$(subfolder "$r"); l=$(linked "$r"); p=$(polyphone "$r") ;;
    2) p=$(polyphone "$r"); a=$(shared "$r"); b=$(subfolder "$r"); l=$(linked "$r") ;;
    3) l=$(linked "$r"); p=$(polyphone "$r"); a=$(shared "$r"); b=$(subfolder "$r") ;;
    0) b=$(subfolder "$r"); l=$(linked "$r"); p=$(polyphone "$r"); a=$(shared "$r") ;;
  esac
  printf 'round %d: shared %s s (user %s, sys %s); sub-folder %s s (user %s, sys %s); linked %s s (user %s, sys %s); polyphone %s s (user %s, sys %s)\n' \
    "$r" $a $b $l $p
  best_a=$(least "$a" "$best_a"); best_b=$(least "$b" "$best_b"); best_l=$(least "$l" "$best_l"); best_p=$(least "$p" "$best_p")
done

files() { printf '%s sfz, %s wav, %s' "$(find "$1" -name '*.sfz' | wc -l)" "$(find "$1" -name '*.wav' | wc -l)" "$(du -sh "$1" | cut -f1)"; }
printf 'bank: %s (%s bytes), best of %d rounds\n' "$bank" "$(stat -c %s "$bank")" "$rounds"
printf 'kelvo, shared:      %s s CPU (%s)\n' "$best_a" "$(files "$work/shared1")"
printf 'kelvo, sub-folder:  %s s CPU (%s)\n' "$best_b" "$(files "$work/sub1")"
printf 'kelvo, linked:      %s s CPU (%s, %s of them links)\n' "$best_l" "$(files "$work/linked1")" \
  "$(find "$work/linked1" -name '*.wav' -links +1 | wc -l)"
printf 'polyphone:          %s s CPU (%s)\n' "$best_p" "$(files "$work/polyphone1")"
echo "$best_a $best_b $best_l $best_p" |
  awk '{printf "polyphone / kelvo: shared %.2f, sub-folder %.2f, linked %.2f (target >= 1)\n", $4 / $1, $4 / $2, $4 / $3}'
