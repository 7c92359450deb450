#!/usr/bin/env bash
# A short run of every fuzz target, seeded from the corpus of real files.
set -euo pipefail
build="$1"
seconds="${2:-20}"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
corpus="$here/../../shared/corpus"
shopt -s nullglob
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name="$(basename "$target")"
  work="$(mktemp -d)"
  seeds=()
  [ -d "$here/seeds/$name" ] && seeds+=("$here/seeds/$name")
  [ -d "$corpus" ] && seeds+=("$corpus")
  echo "fuzz smoke: $name for ${seconds}s"
  LSAN_OPTIONS="suppressions=$here/lsan.supp" "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -max_len=65536 -timeout=10 \
    "$work" "${seeds[@]}" >"$work.log" 2>&1 || { tail -50 "$work.log"; exit 1; }
  rm -rf "$work" "$work.log"
done
