#!/usr/bin/env bash
# CPU and memory of the flight recorder, `heron-stat --record DIR -i 1`,
# over TABLES tables (100; WRITERS of them written by heron-sim at 1,000 a
# second) for SECONDS_EACH seconds: utime+stime from /proc/PID/stat over the
# window as a share of one core, the peak resident size (VmHWM) and, at the
# end, its private part (RssAnon) and the mapped table files' pages
# (RssFile + RssShmem, shared with the writers). ARGS:
# more options for heron-stat (e.g. --no-clients). With WATCH=1 the same
# figures for `heron-stat --watch -i 1 --json` (the samples of the view
# without a terminal) in the same run; with OTHER=PATH the same again for
# another heron-stat (an older build), over the same tables and writers.
set -euo pipefail
BUILD=${1:-build}
TABLES=${TABLES:-100}
WRITERS=${WRITERS:-10}
SECONDS_EACH=${SECONDS_EACH:-60}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" "${TMPDIR:-/tmp}" heron-record-bench
bench_tables "$TABLES" "$WRITERS" 1000 bench/t

# measure NAME PID: CPU share and peak RSS of PID over SECONDS_EACH.
measure() {
  local name=$1 pid=$2 before after start elapsed_ms hwm
  sleep 2 # past the start: the first samples
  before=$(awk '{print $14 + $15}' "/proc/$pid/stat")
  start=$(date +%s%N)
  sleep "$SECONDS_EACH"
  after=$(awk '{print $14 + $15}' "/proc/$pid/stat")
  elapsed_ms=$((($(date +%s%N) - start) / 1000000))
  hwm=$(awk '/^VmHWM/ {print $2}' "/proc/$pid/status")
  # Private memory, and the tables' own pages mapped (shared with writers).
  anon=$(awk '/^RssAnon/ {print $2}' "/proc/$pid/status")
  shared=$(awk '/^Rss(File|Shmem)/ {s += $2} END {print s}' "/proc/$pid/status")
  awk -v t=$((after - before)) -v hz="$(getconf CLK_TCK)" -v ms="$elapsed_ms" -v n="$TABLES" -v hwm="$hwm" \
    -v anon="$anon" -v shared="$shared" -v name="$name" 'BEGIN {
    cpu = t / hz * 1000
    printf "%s, %d tables: %.0f ms of CPU in %.1f s = %.2f %% of one core, peak RSS %.1f MB (now %.1f MB private, %.1f MB of mapped files)\n", name, n, cpu, ms / 1000, cpu / ms * 100, hwm / 1024, anon / 1024, shared / 1024
  }'
}

# run_all HERON_STAT LABEL: the recorder, then (WATCH=1) the watch.
run_all() {
  local stat=$1 label=$2 dir
  dir=$(mktemp -d "$WORK/rec.XXXXXX")
  "$stat" --record "$dir" -i 1 ${ARGS:-} &
  local recorder=$!
  PIDS+=($recorder)
  measure "$label --record DIR -i 1 ${ARGS:-}" "$recorder"
  kill "$recorder"
  echo "recorded: $(ls "$dir" | wc -l) file(s), $(du -sb "$dir" | cut -f1) bytes"
  if [[ -n ${WATCH:-} ]]; then
    "$stat" --watch -i 1 --json ${ARGS:-} >/dev/null &
    local watcher=$!
    PIDS+=($watcher)
    measure "$label --watch -i 1 --json ${ARGS:-}" "$watcher"
    kill "$watcher"
  fi
}
run_all "$BIN/heron-stat" heron-stat
if [[ -n ${OTHER:-} ]]; then
  run_all "$OTHER" "$OTHER"
fi
