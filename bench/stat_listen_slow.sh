#!/usr/bin/env bash
# heron-stat --listen against slow clients: scrape latency (median, p99) on
# fresh connections alone and with 200 idle plus 50 one-byte-a-second
# connections held, the second scrape on a kept-alive connection, threads
# and VmRSS, and the time SIGTERM takes with nothing held.
#
#   bench/stat_listen_slow.sh [BUILD_DIR] [SCRAPES] [HERON_STAT...]
#
# BUILD_DIR (default build) provides heron-sim and, unless binaries are
# named, the heron-stat measured; naming more than one (another build's
# heron-stat) measures each in turn over the same 20 tables, 4 of them with
# a writer at 100 notifications a second. SCRAPES defaults to 200.
set -euo pipefail

BUILD=${1:-build}
SCRAPES=${2:-200}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" /tmp heron-stat-slow
shift $(($# < 2 ? $# : 2))
STATS=("$@")
((${#STATS[@]})) || STATS=("$BIN/heron-stat")

export HERON_ROOT="$WORK/root"
mkdir -p "$HERON_ROOT"
for i in $(seq -w 0 19); do
  "$BIN/heron-sim" create "t$i" >/dev/null
done
for i in 0 1 2 3; do
  "$BIN/heron-sim" write "t0$i" --rate 100 >/dev/null 2>&1 &
  PIDS+=($!)
done
for stat in "${STATS[@]}"; do
  echo
  python3 "$HERE/stat_listen_slow.py" "$stat" "$SCRAPES"
done
