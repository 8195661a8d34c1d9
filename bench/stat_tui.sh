#!/usr/bin/env bash
# CPU of the interactive `heron-stat --watch -i 1` over 100 tables, in a
# tmux terminal of 80x24 (or WIDTH x HEIGHT), for SECONDS_EACH seconds:
# utime+stime of the process from /proc/PID/stat, as a share of one core.
# WRITERS of the tables are written by heron-sim at 1,000 a second, so that
# rates and fills change from sample to sample and the screen repaints.
# ARGS: more options for heron-stat (e.g. --no-clients); BLOCKS=1 sends its
# output to /dev/null instead, for the cost of the same samples without the
# view.
set -euo pipefail
BUILD=${1:-build}
TABLES=${TABLES:-100}
WRITERS=${WRITERS:-10}
SECONDS_EACH=${SECONDS_EACH:-30}
WIDTH=${WIDTH:-80}
HEIGHT=${HEIGHT:-24}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" "${TMPDIR:-/tmp}" heron-tui-bench
SOCKET=heron-tui-bench-$$
trap 'tmux -L "$SOCKET" kill-server 2>/dev/null || true; bench_cleanup' EXIT
bench_tables "$TABLES" "$WRITERS" 1000 bench/t
tmux -L "$SOCKET" -f /dev/null new-session -d -s bench -x "$WIDTH" -y "$HEIGHT" \
  "exec env HERON_ROOT='$HERON_ROOT' '$BIN/heron-stat' --watch -i 1 ${ARGS:-} ${BLOCKS:+>/dev/null}"
pid=$(tmux -L "$SOCKET" display -p -t bench '#{pane_pid}')
ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
sleep 2 # past the start: the first samples and the terminal's setup
before=$(ticks)
start=$(date +%s%N)
sleep "$SECONDS_EACH"
after=$(ticks)
elapsed_ms=$((($(date +%s%N) - start) / 1000000))
hz=$(getconf CLK_TCK)
awk -v t=$((after - before)) -v hz="$hz" -v ms="$elapsed_ms" -v n="$TABLES" -v w="$WIDTH" -v h="$HEIGHT" -v a="${ARGS:-}${BLOCKS:+ >/dev/null}" 'BEGIN {
  cpu = t / hz * 1000
  printf "heron-stat --watch -i 1 %s, %d tables, %dx%d: %.0f ms of CPU in %.1f s = %.2f %% of one core\n", a, n, w, h, cpu, ms / 1000, cpu / ms * 100
}'
