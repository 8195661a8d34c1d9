#!/usr/bin/env bash
# Client discovery at scale: heron -A and heron -c PID against the floor
# (bench/client_floor.c), fuser and lsof, side by side in one run, with
# extra processes whose maps files are 60-80 lines long
# (bench/client_mapper.c), some attached to the two bench tables (one of
# them read-write).
#
#   bench/client.sh [BUILD_DIR] [RUNS]      (defaults: build, 7)
#   SIZES="100 1000 10000"                  extra processes measured (default "100 1000")
#   DATA=FILE                               also writes "size tool wall_ms cpu_ms" lines (medians)
#
# Prints the median wall and CPU time of RUNS runs of each tool at each
# size, the ratio of each tool to the floor, and the growth from the first
# size to the last.
set -euo pipefail

BUILD=${1:-build}
RUNS=${2:-7}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" /tmp heron-client-bench client_floor.c client_mapper.c client_time.c

export HERON_ROOT="$WORK/root"
mkdir -p "$HERON_ROOT" "$WORK/scratch"
for t in t1 t2; do
  "$BIN/heron-sim" create "$t" >/dev/null
  # Stand-ins for the two mapped files where the simulator makes none.
  [[ -e "$HERON_ROOT/$t/relay.1" ]] || : >"$HERON_ROOT/$t/relay.1"
  [[ -e "$HERON_ROOT/$t/ember" ]] || head -c 64 /dev/zero >"$HERON_ROOT/$t/ember"
  truncate -s '>4096' "$HERON_ROOT/$t/ember" 2>/dev/null || true
done
for i in $(seq -w 0 29); do head -c 4096 /dev/zero >"$WORK/scratch/lib$i.so"; done
ROOT=$(realpath "$HERON_ROOT")
TABLE_FILE="$ROOT/t1/relay.1"

# Spawns processes number $1..$2: the first maps t1 read-write, every tenth
# maps t1 read-only and every tenth (offset) t2 read-only.
spawn() {
  local i
  for ((i = $1; i <= $2; i++)); do
    local args=("$WORK/scratch" 26 22)
    if ((i == 1)); then
      args+=("$ROOT/t1" rw)
    elif ((i % 10 == 2)); then
      args+=("$ROOT/t1")
    elif ((i % 10 == 3)); then
      args+=("$ROOT/t2")
    fi
    "$WORK/client_mapper" "${args[@]}" &
    PIDS+=($!)
  done
  sleep 1
}

read -r -a SIZES <<<"${SIZES:-100 1000}"
TOOLS=(floor heron heron_c fuser lsof)
command_of() {
  case $1 in
    floor) echo "$WORK/client_floor" ;;
    heron) echo "$BIN/heron -A" ;;
    heron_c) echo "$BIN/heron -c ${PIDS[0]}" ;;
    fuser) echo "fuser $TABLE_FILE" ;;
    lsof) echo "lsof -t $TABLE_FILE" ;;
  esac
}

# Median of a list of numbers.
median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {printf "%.1f", a[int((NR+1)/2)]}'; }

# RUNS rounds; each round runs every tool once, in turn, so that the load of
# the (shared) machine falls on all tools alike. Records the median wall time
# and the median CPU time (user + system) in milliseconds.
declare -A WALL CPU
measure() {
  local size=$1 r tool
  declare -A walls cpus
  for ((r = 0; r < RUNS; r++)); do
    for tool in "${TOOLS[@]}"; do
      # shellcheck disable=SC2046
      read -r wall cpu < <("$WORK/client_time" $(command_of "$tool"))
      walls[$tool]+="$wall "
      cpus[$tool]+="$cpu "
    done
  done
  for tool in "${TOOLS[@]}"; do
    # shellcheck disable=SC2086
    WALL[$tool,$size]=$(median ${walls[$tool]})
    # shellcheck disable=SC2086
    CPU[$tool,$size]=$(median ${cpus[$tool]})
  done
}

spawned=0
for size in "${SIZES[@]}"; do
  spawn $((spawned + 1)) "$size"
  spawned=$size
  lines=$(wc -l <"/proc/${PIDS[5]}/maps")
  echo "processes on the host: $(ls -d /proc/[0-9]* 2>/dev/null | wc -l) ($size extra; a bench client's maps has $lines lines)"
  measure "$size"
done

# Sanity: heron lists every attached bench client.
listed=$("$BIN/heron" -A 2>/dev/null | grep -A4 "^Heron table \"t1\"" | grep -o -- '-[0-9]*(' | wc -l)
shadows=$(((spawned + 8) / 10))
echo "heron -A lists $listed clients of t1 (expected $((shadows + 1)): 1 writer, $shadows shadows)"

FIRST=${SIZES[0]}
LAST=${SIZES[${#SIZES[@]} - 1]}
report() {
  local -n table=$1
  local size tool
  printf '\n%s\n%-10s' "$2" tool
  for size in "${SIZES[@]}"; do printf ' %12s' "$size (ms)"; done
  printf ' %10s %14s\n' growth "vs floor@$LAST"
  for tool in "${TOOLS[@]}"; do
    printf '%-10s' "$tool"
    for size in "${SIZES[@]}"; do printf ' %12s' "${table[$tool,$size]}"; done
    printf ' %9.2fx %13.2fx\n' "$(echo "${table[$tool,$LAST]} / ${table[$tool,$FIRST]}" | bc -l)" \
      "$(echo "${table[$tool,$LAST]} / ${table[floor,$LAST]}" | bc -l)"
  done
}
report WALL "Wall time, median of $RUNS interleaved rounds"
report CPU "CPU time (user + system), median of $RUNS interleaved rounds"

if [[ -n ${DATA:-} ]]; then
  for size in "${SIZES[@]}"; do
    for tool in "${TOOLS[@]}"; do
      echo "$size $tool ${WALL[$tool,$size]} ${CPU[$tool,$size]}"
    done
  done >"$DATA"
fi
