#!/usr/bin/env bash
# heron -q -e on a table of two full 1,000,000-slot queues, written to
# /dev/null, against cat of a file holding the same bytes of text.
# Usage: bash bench/relay.sh [BUILD_DIR]   (default build)
set -euo pipefail
build=${1:-build}
runs=${RUNS:-7}
root=$(mktemp -d -p /dev/shm heron-relay-bench.XXXXXX)
trap 'rm -rf "$root"' EXIT
export HERON_ROOT=$root

"$build/bin/heron-sim" create big --capacity 1000000 >/dev/null
"$build/bin/relay_scan_bench" --fill "$root/big"
"$build/bin/heron" -q -e big >"$root/dump.txt" 2>/dev/null
bytes=$(stat -c %s "$root/dump.txt")

# Best of $runs, in milliseconds.
best() {
  local best_ms=
  for _ in $(seq "$runs"); do
    local start end ms
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s%N)
    ms=$(( (end - start) / 1000000 ))
    if [ -z "$best_ms" ] || [ "$ms" -lt "$best_ms" ]; then best_ms=$ms; fi
  done
  echo "$best_ms"
}

heron_ms=$(best "$build/bin/heron" -q -e big)
cat_ms=$(best cat "$root/dump.txt")
echo "bytes of text:      $bytes"
echo "heron -q -e big:    ${heron_ms} ms (best of $runs)"
echo "cat of that text:   ${cat_ms} ms (best of $runs)"
awk -v h="$heron_ms" -v c="$cat_ms" 'BEGIN { if (c == 0) c = 1; printf "ratio heron/cat:    %.2f\n", h / c }'
