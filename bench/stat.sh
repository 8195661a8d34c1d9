#!/usr/bin/env bash
# heron-stat benchmarks, each side by side in one run (medians of
# interleaved rounds, so the load of a shared machine falls on both arms):
#
# 1. One sample of a TABLES-table collection without the client walk
#    (heron-stat --no-clients -i 0 --json) against the floor: a C program that
#    walks the root and opens, fstats, maps read-only and unmaps every file
#    heron-stat reads (bench/stat_floor.c). Wall and CPU time of the process,
#    and heron-stat's own sample_duration_seconds; a third arm runs
#    heron-stat with inotify_init1 failing (bench/stat_noinotify.c, an
#    LD_PRELOAD shim), which shows whether any inotify cost is left (the
#    readers of a sample add no directory watch); then, once, where the
#    system time of one sample goes (strace -c).
# (A writer's append rate while `heron-stat --watch -i 1` runs is one arm of
# bench/writer.sh.)
#
#   bash bench/stat.sh [BUILD_DIR] [ROUNDS]       TABLES=1000
set -euo pipefail
BUILD=${1:-build}
ROUNDS=${2:-9}
TABLES=${TABLES:-1000}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" "$(bench_shm)" heron-stat-bench stat_floor.c client_time.c
cc -O2 -shared -fPIC -o "$WORK/noinotify.so" "$HERE/stat_noinotify.c"
median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# --- 1. one sample of TABLES tables -------------------------------------
export HERON_ROOT=$WORK/root
mkdir -p "$HERON_ROOT/g00"
"$BIN/heron-sim" create g00/t0000 >/dev/null
# One writer run leaves an ember and used regions; the other tables are
# copies of that table (their writer is gone: dead, which costs the same
# reads as ok).
"$BIN/heron-sim" write g00/t0000 --rate 2000 --duration 1 >/dev/null
for ((i = 1; i < TABLES; i++)); do
  group=$(printf 'g%02d' $((i / 100)))
  mkdir -p "$HERON_ROOT/$group"
  cp -a "$HERON_ROOT/g00/t0000" "$HERON_ROOT/$group/$(printf 't%04d' "$i")"
done
count=$("$BIN/heron-stat" --no-clients -i 0 --json | jq '.tables | length')
[[ $count -eq $TABLES ]] || { echo "heron-stat saw $count tables, not $TABLES" >&2; exit 1; }
echo "collection: $TABLES tables, $("$WORK/stat_floor" "$HERON_ROOT")"

floor_wall=() floor_cpu=() stat_wall=() stat_cpu=() stat_sample=() bare_wall=() bare_cpu=() bare_sample=()
for ((r = 0; r < ROUNDS; r++)); do
  read -r wall cpu < <("$WORK/client_time" "$WORK/stat_floor" "$HERON_ROOT")
  floor_wall+=("$wall") floor_cpu+=("$cpu")
  read -r wall cpu < <("$WORK/client_time" "$BIN/heron-stat" --no-clients -i 0 --json)
  stat_wall+=("$wall") stat_cpu+=("$cpu")
  stat_sample+=("$("$BIN/heron-stat" --no-clients -i 0 --json | jq '.sample_duration_seconds * 1000')")
  # The same without the region reader's per-table inotify instance.
  read -r wall cpu < <(LD_PRELOAD=$WORK/noinotify.so "$WORK/client_time" "$BIN/heron-stat" --no-clients -i 0 --json)
  bare_wall+=("$wall") bare_cpu+=("$cpu")
  bare_sample+=("$(LD_PRELOAD=$WORK/noinotify.so "$BIN/heron-stat" --no-clients -i 0 --json | jq '.sample_duration_seconds * 1000')")
done
fw=$(median "${floor_wall[@]}") fc=$(median "${floor_cpu[@]}")
sw=$(median "${stat_wall[@]}") sc=$(median "${stat_cpu[@]}") ss=$(median "${stat_sample[@]}")
bw=$(median "${bare_wall[@]}") bc=$(median "${bare_cpu[@]}") bs=$(median "${bare_sample[@]}")
echo
echo "One sample of $TABLES tables, no client walk (median of $ROUNDS interleaved rounds, ms)"
printf '%-44s %10s %10s\n' "" wall cpu
printf '%-44s %10.1f %10.1f\n' "floor (open, fstat, map, unmap each file)" "$fw" "$fc"
printf '%-44s %10.1f %10.1f\n' "heron-stat --no-clients -i 0 --json" "$sw" "$sc"
printf '%-44s %10.1f\n' "  of which the sample itself" "$ss"
printf '%-44s %10.1f %10.1f\n' "the same, no inotify instance (LD_PRELOAD)" "$bw" "$bc"
printf '%-44s %10.1f\n' "  of which the sample itself" "$bs"
printf '%-44s %9.2fx %9.2fx\n' "ratio heron-stat / floor" "$(echo "$sw / $fw" | bc -l)" "$(echo "$sc / $fc" | bc -l)"
printf '%-44s %9.2fx %9.2fx\n' "ratio without inotify / floor" "$(echo "$bw / $fw" | bc -l)" "$(echo "$bc / $fc" | bc -l)"
echo
echo "Where one sample's system calls spend their time (strace -c -w, one run; strace slows every call):"
strace -c -w -o "$WORK/strace.txt" "$BIN/heron-stat" --no-clients -i 0 --json >/dev/null
sed -n '1,2p;3,12p' "$WORK/strace.txt"
