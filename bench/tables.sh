#!/usr/bin/env bash
# Many clientless tables: heron -A against the floor (bench/tables_floor.c:
# list the root and each table, open, fstat, map and read the header of
# every file of every table), side by side in one run, at each root size.
#
#   bench/tables.sh [BUILD_DIR] [RUNS] [SIZES...]   (defaults: build, 7, 1000 10000)
#
# Each root is made with `heron-sim create` in a private directory on
# /dev/shm. A round runs, in turn: the floor, heron -A on the root, and
# heron -A on an empty root (start-up plus the /proc walk, which depends on
# the host's processes and is the same at every size). Prints the medians
# of RUNS rounds (wall and CPU), the ratios to the floor, the cost per table
# (heron -A minus the empty root) and the growth between sizes.
set -euo pipefail

BUILD=${1:-build}
RUNS=${2:-7}
shift $(($# > 2 ? 2 : $#))
SIZES=("$@")
if ((${#SIZES[@]} == 0)); then
  SIZES=(1000 10000)
fi
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" "$(bench_shm)" heron-tables-bench tables_floor.c client_time.c
mkdir -p "$WORK/empty"

median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {printf "%.1f", a[int((NR+1)/2)]}'; }

declare -A WALL CPU
for size in "${SIZES[@]}"; do
  root=$WORK/root$size
  mkdir -p "$root"
  for ((i = 0; i < size; i++)); do
    HERON_ROOT=$root "$BIN/heron-sim" create "t$i" >/dev/null
  done
  files=$("$WORK/tables_floor" "$root")
  echo "root of $size tables: $files"
  # The reports must agree: every table listed, none with NA.
  listed=$(HERON_ROOT=$root "$BIN/heron" -A 2>/dev/null | grep -c '^Heron table "t[0-9]*"$' || true)
  [[ $listed == "$size" ]] || { echo "heron -A listed $listed of $size tables" >&2; exit 1; }
  declare -A walls=() cpus=()
  for ((r = 0; r < RUNS; r++)); do
    for tool in floor heron empty; do
      case $tool in
        floor) command=("$WORK/tables_floor" "$root") ;;
        heron) command=(env HERON_ROOT="$root" "$BIN/heron" -A) ;;
        empty) command=(env HERON_ROOT="$WORK/empty" "$BIN/heron" -A) ;;
      esac
      read -r wall cpu < <("$WORK/client_time" "${command[@]}")
      walls[$tool]+="$wall "
      cpus[$tool]+="$cpu "
    done
  done
  for tool in floor heron empty; do
    # shellcheck disable=SC2086
    WALL[$tool,$size]=$(median ${walls[$tool]})
    # shellcheck disable=SC2086
    CPU[$tool,$size]=$(median ${cpus[$tool]})
  done
  rm -rf "$root"
done

report() {
  local -n table=$1
  printf '\n%s\n%8s %10s %10s %8s %12s %12s %14s %14s\n' "$2" tables "floor ms" "heron ms" ratio \
    "empty ms" "(h-e)/floor" "floor/table us" "heron/table us"
  local size
  for size in "${SIZES[@]}"; do
    local f=${table[floor,$size]} h=${table[heron,$size]} e=${table[empty,$size]}
    printf '%8s %10s %10s %7.2fx %12s %11.2fx %14.1f %14.1f\n' "$size" "$f" "$h" "$(echo "$h / $f" | bc -l)" "$e" \
      "$(echo "($h - $e) / $f" | bc -l)" "$(echo "$f * 1000 / $size" | bc -l)" "$(echo "($h - $e) * 1000 / $size" | bc -l)"
  done
}
report WALL "Wall time, median of $RUNS interleaved rounds"
report CPU "CPU time (user + system), median of $RUNS interleaved rounds"
if ((${#SIZES[@]} > 1)); then
  first=${SIZES[0]}
  last=${SIZES[${#SIZES[@]} - 1]}
  printf '\nGrowth %s -> %s tables (x%s): floor %.2fx, heron -A %.2fx (CPU)\n' "$first" "$last" \
    "$(echo "$last / $first" | bc)" "$(echo "${CPU[floor,$last]} / ${CPU[floor,$first]}" | bc -l)" \
    "$(echo "${CPU[heron,$last]} / ${CPU[heron,$first]}" | bc -l)"
fi
