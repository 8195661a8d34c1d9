#!/usr/bin/env bash
# heron -q -e on a table of two full 1,000,000-slot queues, written to
# /dev/null, against cat of a file holding the same bytes of text, run in
# turn in the same script. Best of RUNS (default 7), wall and CPU time.
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

# One run: "wall cpu" in milliseconds (cpu = user + system).
measure() {
  local TIMEFORMAT='%R %U %S'
  local t
  t=$( { time "$@" >/dev/null 2>&1; } 2>&1 )
  awk -v t="$t" 'BEGIN { split(t, a, " "); printf "%d %d\n", a[1] * 1000, (a[2] + a[3]) * 1000 }'
}

heron_wall= heron_cpu= cat_wall= cat_cpu=
for _ in $(seq "$runs"); do
  read -r w c < <(measure "$build/bin/heron" -q -e big)
  if [ -z "$heron_wall" ] || [ "$w" -lt "$heron_wall" ]; then heron_wall=$w; fi
  if [ -z "$heron_cpu" ] || [ "$c" -lt "$heron_cpu" ]; then heron_cpu=$c; fi
  read -r w c < <(measure cat "$root/dump.txt")
  if [ -z "$cat_wall" ] || [ "$w" -lt "$cat_wall" ]; then cat_wall=$w; fi
  if [ -z "$cat_cpu" ] || [ "$c" -lt "$cat_cpu" ]; then cat_cpu=$c; fi
done
echo "bytes of text:    $bytes"
echo "heron -q -e big:  wall ${heron_wall} ms, cpu ${heron_cpu} ms (best of $runs)"
echo "cat of the text:  wall ${cat_wall} ms, cpu ${cat_cpu} ms (best of $runs)"
awk -v hw="$heron_wall" -v cw="$cat_wall" -v hc="$heron_cpu" -v cc="$cat_cpu" 'BEGIN {
  if (cw == 0) cw = 1; if (cc == 0) cc = 1
  printf "ratio heron/cat:  wall %.2f, cpu %.2f\n", hw / cw, hc / cc }'
