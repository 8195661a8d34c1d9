#!/usr/bin/env bash
# heron-stat --capture against tar of the same files, while the table's
# writer appends flat out: a table with two 1,000,000-slot queues and
# REGION_MIB (default 1024) MiB of regions, bundles written to OUT (a
# directory on disk, default /tmp). Prints wall time and peak RSS of each.
#   bash bench/capture.sh BUILD [ROUNDS]
set -euo pipefail
BUILD=${1:?usage: capture.sh BUILD [ROUNDS]}
ROUNDS=${2:-3}
BIN=$(cd "$BUILD/bin" && pwd)
OUT=${OUT:-/tmp}
MIB=${REGION_MIB:-1024}
WORK=$(mktemp -d /dev/shm/heron-capture-bench.XXXXXX)
export HERON_ROOT=$WORK/root
mkdir -p "$HERON_ROOT"
WRITER=""
trap '[[ -n $WRITER ]] && kill $WRITER 2>/dev/null; wait 2>/dev/null; rm -rf "$WORK" "$OUT"/capture-bench.*' EXIT

# Units of 64 KiB in two regions of MIB/2 MiB each.
units=$((MIB * 16 / 2))
"$BIN/heron-sim" create big --capacity 1000000 --regions "65536x$units,65536x$units" >/dev/null
"$BIN/heron-sim" write big --flat-out >"$WORK/writer.log" 2>&1 &
WRITER=$!
until grep -q '^writer .* attached' "$WORK/writer.log"; do sleep 0.05; done
du -sh --apparent-size "$HERON_ROOT/big"

# measure NAME COMMAND...: wall and CPU seconds (children included: tar
# --zstd runs zstd) and peak RSS, via GNU time.
measure() {
  local name=$1
  shift
  /usr/bin/time -f "$name %e s wall, %U+%S s cpu, %M KB peak RSS" "$@" 2>&1 >/dev/null | grep "^$name " || true
}

for ((round = 1; round <= ROUNDS; round++)); do
  measure tar-cf tar -cf "$OUT/capture-bench.tar" -C "$HERON_ROOT" big
  measure capture "$BIN/heron-stat" --capture "$OUT/capture-bench.b.tar" -i 0 big
  measure tar-zstd tar --zstd -cf "$OUT/capture-bench.tar.zst" -C "$HERON_ROOT" big
  measure capture-zst "$BIN/heron-stat" --capture "$OUT/capture-bench.b.tar.zst" -i 0 big
done
ls -l "$OUT"/capture-bench.*
