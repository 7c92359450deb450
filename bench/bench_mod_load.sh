#!/usr/bin/env bash
# Loading the corpus MODs side by side in one run: our load with the whole
# song conversion (kelvo --list) against openmpt123 --info and xmp
# --load-only on the same files. CPU time (user + system) of all files,
# each program run REPEAT times per file, best of three such rounds.
#
#   bench/bench_mod_load.sh [build-dir] [repeat]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$here/build}"
repeat="${2:-20}"
kelvo="$build/ui/kelvo"
corpus="$here/../shared/corpus/mod"
[ -x "$kelvo" ] || { echo "build $kelvo first" >&2; exit 2; }
for tool in openmpt123 xmp; do
  command -v "$tool" >/dev/null || { echo "$tool not installed" >&2; exit 2; }
done
mods=("$corpus/zob-the-zob.mod" "$corpus/clanlib-ancient.mod" "$corpus/ironseed-SCANNER.MOD"
      "$corpus/Gidion_Graveland.mod" "$corpus/lepeltheme.mod" "$corpus/tecnoballz-area2-game.mod")
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# CPU seconds of the best of three rounds of: every file, $repeat times.
cpu() {
  local best=""
  for _ in 1 2 3; do
    /usr/bin/time -f '%U %S' -o "$work/time" bash -c '
      r=$1; shift; cmd=$1; shift
      for f in "$@"; do for ((i = 0; i < r; i++)); do eval "$cmd \"\$f\"" >/dev/null 2>&1 || true; done; done
    ' _ "$repeat" "$1" "${mods[@]}"
    best=$(awk -v b="${best:-1e9}" '{t=$1+$2; print (t<b)?t:b}' "$work/time")
  done
  echo "$best"
}

cat "${mods[@]}" >/dev/null
ours=$(cpu "'$kelvo' -NOMSG --list")
# The same number of runs that only start the program: what the process
# start costs, apart from reading and converting.
start=$(cpu "'$kelvo' -NOMSG --help; :")
ompt=$(cpu "openmpt123 --info")
xmpt=$(cpu "xmp --load-only")
ratio() { echo "$1 $2" | awk '{printf "%.1f", ($1>0)?$2/$1:0}'; }
printf '%d files x %d runs\n' "${#mods[@]}" "$repeat"
printf 'kelvo --list:          %.2f s CPU\n' "$ours"
printf 'kelvo --help:          %.2f s CPU  (start-up alone)\n' "$start"
printf 'openmpt123 --info:     %.2f s CPU  (openmpt123/kelvo = %sx)\n' "$ompt" "$(ratio "$ours" "$ompt")"
printf 'xmp --load-only:       %.2f s CPU  (xmp/kelvo = %sx)\n' "$xmpt" "$(ratio "$ours" "$xmpt")"
echo "target: kelvo at least 2x faster than the faster peer"
