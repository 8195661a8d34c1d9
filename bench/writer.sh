#!/usr/bin/env bash
# Writer impact: the append rate of a flat-out heron-sim writer alone, and
# while heron -q, heron -s and heron -A run in a loop against its table:
# flat out, and paced at one round a second (PACE seconds between rounds),
# as an operator watching a table would run them; and while
# heron-stat --watch -i 1 runs (when it is built).
# Alternates alone / loaded runs (PAIRS pairs of SECONDS each) and compares
# the medians, in one run.
#
#   bash bench/writer.sh [BUILD_DIR]        PAIRS=3 SECONDS_EACH=5 by default
#   ONLY_STAT=1: the writer alone, under heron-stat --watch, and alone again
#   (the control) only
set -euo pipefail
BUILD=${1:-build}
BIN=$(cd "$BUILD/bin" && pwd)
PAIRS=${PAIRS:-3}
EACH=${SECONDS_EACH:-5}
WORK=$(mktemp -d "${TMPDIR:-/tmp}/heron-bench.XXXXXX")
export HERON_ROOT=$WORK/root
mkdir -p "$HERON_ROOT"
LOOP_PID=""
trap 'if [[ -n $LOOP_PID ]]; then kill $LOOP_PID 2>/dev/null || true; fi; rm -rf "$WORK"' EXIT

"$BIN/heron-sim" create bench >/dev/null

# The writer on one CPU and the reports on another where there are two, so
# that the comparison shows interference through the shared files and caches
# rather than two programs taking turns on one CPU.
PIN_WRITER=()
PIN_REPORTS=()
if command -v taskset >/dev/null && [[ $(nproc) -ge 2 ]]; then
  PIN_WRITER=(taskset -c 1)
  PIN_REPORTS=(taskset -c 0)
fi

# Every arm starts on a new table: a writer slows down as its table fills,
# so runs on one table grown by all the runs before them would favour
# whichever arm comes first in a pair.
fresh_table() {
  "$BIN/heron-sim" remove bench >/dev/null
  "$BIN/heron-sim" create bench >/dev/null
}

# One timed writer run; prints "wall-rate cpu-rate" (notifications a second
# of elapsed time and of the writer's own CPU time).
writer_rate() {
  "${PIN_WRITER[@]}" "$BIN/heron-sim" write bench --flat-out --duration "$EACH" |
    sed -n 's/.*(\([0-9][0-9]*\)\/s, \([0-9][0-9]*\)\/s of cpu).*/\1 \2/p'
}

# reports [PAUSE]: rounds of the three reports, PAUSE seconds apart (none:
# flat out); counts them in $WORK/reports.
reports() {
  local n=0
  while :; do
    "$BIN/heron" -q bench >/dev/null 2>&1 || true
    "$BIN/heron" -s bench >/dev/null 2>&1 || true
    "$BIN/heron" -A >/dev/null 2>&1 || true
    n=$((n + 3))
    echo "$n" >"$WORK/reports"
    if [[ -n ${1:-} ]]; then sleep "$1"; fi
  done
}

# arm ARRAY SIGNAL COMMAND...: appends to ARRAY the writer's rate on a new
# table while COMMAND runs on the other CPU, then stops COMMAND with SIGNAL.
arm() {
  local -n into=$1
  local signal=$2
  shift 2
  fresh_table
  "${PIN_REPORTS[@]}" "$@" >/dev/null &
  LOOP_PID=$!
  into+=("$(writer_rate)")
  kill -"$signal" "$LOOP_PID" 2>/dev/null || true
  wait "$LOOP_PID" 2>/dev/null || true
  LOOP_PID=""
}

# last ARRAY: its last element, or "none".
last() {
  local -n array=$1
  if ((${#array[@]})); then echo "${array[-1]}"; else echo none; fi
}

median() { sort -n | awk '{a[NR] = $1} END {print (NR % 2) ? a[(NR + 1) / 2] : int((a[NR / 2] + a[NR / 2 + 1]) / 2)}'; }

PACE=${PACE:-1}
alone=()
loaded=()
busy=()
paced=()
watched=()
again=()
total_reports=0
for ((i = 1; i <= PAIRS; i++)); do
  fresh_table
  alone+=("$(writer_rate)")
  if [[ -z ${ONLY_STAT:-} ]]; then
    # heron started as often but reading nothing (--help): what starting and
    # ending processes on the other CPU costs the writer by itself, apart from
    # anything heron reads.
    arm busy TERM bash -c "while :; do '$BIN/heron' --help >/dev/null; done"
    arm loaded TERM bash -c "$(declare -f reports); BIN='$BIN' WORK='$WORK' reports"
    total_reports=$((total_reports + $(cat "$WORK/reports" 2>/dev/null || echo 0)))
    arm paced TERM bash -c "$(declare -f reports); BIN='$BIN' WORK='$WORK' reports '$PACE'"
  fi
  # heron-stat --watch -i 1, as an operator's terminal or a textfile
  # exporter would run it.
  if [[ -x $BIN/heron-stat ]]; then
    arm watched INT "$BIN/heron-stat" --watch -i 1
  fi
  if [[ -n ${ONLY_STAT:-} ]]; then
    # The control: the writer alone once more. Its distance from the first
    # run is the noise any other ratio here must be read against.
    fresh_table
    again+=("$(writer_rate)")
  fi
  echo "pair $i: alone $(last alone), alone again $(last again), heron --help loop $(last busy), with reports $(last loaded)," \
    "reports every ${PACE}s $(last paced), heron-stat --watch -i 1 $(last watched) (wall/s cpu/s)"
done
echo "heron reports run while loaded: $total_reports ($((total_reports / (PAIRS * EACH)))/s)"
echo "cpus: $(nproc), load average: $(cut -d' ' -f1-3 /proc/loadavg), pinned: ${PIN_WRITER[*]:-no}"
for col in 1 2; do
  a=$(printf '%s\n' "${alone[@]}" | cut -d' ' -f$col | median)
  l=$(printf '%s\n' "${loaded[@]}" | cut -d' ' -f$col | median)
  b=$(printf '%s\n' "${busy[@]}" | cut -d' ' -f$col | median)
  p=$(printf '%s\n' "${paced[@]}" | cut -d' ' -f$col | median)
  what=$([[ $col -eq 1 ]] && echo "per second" || echo "per cpu-second of the writer")
  if [[ -z ${ONLY_STAT:-} ]]; then
    awk -v a="$a" -v l="$l" -v b="$b" -v p="$p" -v w="$what" -v pace="$PACE" 'BEGIN {printf "appends %s: alone %d, heron --help loop %d (%.1f %%), with heron -q/-s/-A in a loop %d, ratio %.1f %%, a round every %ss %d, ratio %.1f %%\n", w, a, b, 100 * b / a, l, 100 * l / a, pace, p, 100 * p / a}'
  fi
  if [[ ${#watched[@]} -gt 0 ]]; then
    s=$(printf '%s\n' "${watched[@]}" | cut -d' ' -f$col | median)
    awk -v a="$a" -v s="$s" -v w="$what" 'BEGIN {printf "appends %s: with heron-stat --watch -i 1 %d, ratio %.1f %%\n", w, s, 100 * s / a}'
    # The ratio within each pair, then their median: a drift of the host
    # over the run cancels out of each pair.
    r=$(for ((k = 0; k < ${#alone[@]}; k++)); do
      awk -v a="$(cut -d' ' -f$col <<<"${alone[k]}")" -v s="$(cut -d' ' -f$col <<<"${watched[k]}")" 'BEGIN {printf "%d\n", 100000 * s / a}'
    done | median)
    awk -v r="$r" -v w="$what" 'BEGIN {printf "appends %s: heron-stat --watch -i 1 / alone, median of the pairs %.1f %%\n", w, r / 1000}'
  fi
  if [[ ${#again[@]} -gt 0 ]]; then
    r=$(for ((k = 0; k < ${#alone[@]}; k++)); do
      awk -v a="$(cut -d' ' -f$col <<<"${alone[k]}")" -v s="$(cut -d' ' -f$col <<<"${again[k]}")" 'BEGIN {printf "%d\n", 100000 * s / a}'
    done | median)
    awk -v r="$r" -v w="$what" 'BEGIN {printf "appends %s: control, alone again / alone, median of the pairs %.1f %%\n", w, r / 1000}'
  fi
done
