#!/usr/bin/env bash
# Writer impact: the append rate of a flat-out heron-sim writer alone, and
# while heron -q, heron -s and heron -A run in a loop against its table.
# Alternates alone / loaded runs (PAIRS pairs of SECONDS each) and compares
# the medians, in one run.
#
#   bash bench/writer.sh [BUILD_DIR]        PAIRS=3 SECONDS_EACH=5 by default
set -euo pipefail
BUILD=${1:-build}
BIN=$(cd "$BUILD/bin" && pwd)
PAIRS=${PAIRS:-3}
EACH=${SECONDS_EACH:-5}
WORK=$(mktemp -d "${TMPDIR:-/tmp}/heron-bench.XXXXXX")
export HERON_ROOT=$WORK/root
mkdir -p "$HERON_ROOT"
LOOP_PID=""
trap '[[ -n $LOOP_PID ]] && kill $LOOP_PID 2>/dev/null; rm -rf "$WORK"' EXIT

"$BIN/heron-sim" create bench >/dev/null

# One timed writer run; prints its rate (notifications a second).
writer_rate() {
  "$BIN/heron-sim" write bench --flat-out --duration "$EACH" | sed -n 's/.*(\([0-9][0-9]*\)\/s).*/\1/p'
}

reports() {
  local n=0
  while :; do
    "$BIN/heron" -q bench >/dev/null 2>&1
    "$BIN/heron" -s bench >/dev/null 2>&1
    "$BIN/heron" -A >/dev/null 2>&1
    n=$((n + 3))
    echo "$n" >"$WORK/reports"
  done
}

median() { sort -n | awk '{a[NR] = $1} END {print (NR % 2) ? a[(NR + 1) / 2] : int((a[NR / 2] + a[NR / 2 + 1]) / 2)}'; }

alone=()
loaded=()
total_reports=0
for ((i = 1; i <= PAIRS; i++)); do
  alone+=("$(writer_rate)")
  reports &
  LOOP_PID=$!
  loaded+=("$(writer_rate)")
  kill "$LOOP_PID" 2>/dev/null
  wait "$LOOP_PID" 2>/dev/null || true
  LOOP_PID=""
  total_reports=$((total_reports + $(cat "$WORK/reports" 2>/dev/null || echo 0)))
  echo "pair $i: alone ${alone[-1]}/s, with reports ${loaded[-1]}/s"
done
a=$(printf '%s\n' "${alone[@]}" | median)
l=$(printf '%s\n' "${loaded[@]}" | median)
echo "heron reports run while loaded: $total_reports ($(( total_reports / (PAIRS * EACH) ))/s)"
awk -v a="$a" -v l="$l" 'BEGIN {printf "writer alone: %d/s  with heron -q/-s/-A in a loop: %d/s  ratio: %.1f %%\n", a, l, 100 * l / a}'
