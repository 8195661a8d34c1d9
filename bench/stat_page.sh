#!/usr/bin/env bash
# heron-stat's live page: what an open page costs the server, and how fast
# its sample is served.
#
#   bench/stat_page.sh [BUILD_DIR] [RUNS] [SECONDS]   (defaults: build, 15, 60)
#
# Polled: `heron-stat --listen -i 1` over 100 tables (ten with a writer at
# 100 notifications a second), first SECONDS/4 seconds with nobody looking,
# then SECONDS seconds with a page open (a curl loop fetching /api/v1/sample
# every second, as the page does); the server's CPU time (utime + stime from
# /proc/PID/stat) over the wall time of each, as a share of one core.
# Served: the same server over 1,000 tables (900 more, without writers); RUNS
# interleaved rounds, each timing one `curl /api/v1/sample` (a fresh sample:
# each round first waits out the half interval in which a sample is served
# again) and one `heron-stat -i 0 --json` (bench/client_time.c: wall time).
set -euo pipefail

BUILD=${1:-build}
RUNS=${2:-15}
SECONDS_POLLED=${3:-60}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" /tmp heron-stat-page client_time.c

bench_tables

# start_stat [OPTIONS]: a fresh `heron-stat --listen -i 1` in place of the
# one before; sets STAT_PID and URL (its sample).
start_stat() {
  [[ -n ${STAT_PID:-} ]] && kill "$STAT_PID" && wait "$STAT_PID" || true
  bench_listen api/v1/sample -i 1 "$@"
  curl -fsS -o /dev/null "$URL"
}
start_stat

# CPU time of a process so far, in milliseconds (utime + stime).
cpu_ms() { awk -v hz="$(getconf CLK_TCK)" '{print ($14 + $15) * 1000 / hz}' "/proc/$1/stat"; }
now_ms() { echo $(($(date +%s%N) / 1000000)); }
median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {printf "%.1f", a[int((NR+1)/2)]}'; }

# share SECONDS [poll]: the server's CPU over SECONDS of wall time, in % of
# one core; with "poll", the sample is fetched every second meanwhile.
share() {
  local seconds=$1 cpu0 wall0 i
  cpu0=$(cpu_ms "$STAT_PID")
  wall0=$(now_ms)
  for ((i = 0; i < seconds; i++)); do
    [[ ${2:-} == poll ]] && curl -fsS -o /dev/null "$URL"
    sleep 1
  done
  echo "($(cpu_ms "$STAT_PID") - $cpu0) * 100 / ($(now_ms) - $wall0)" | bc -l
}

idle=$(share $((SECONDS_POLLED / 4)))
polled=$(share "$SECONDS_POLLED" poll)
tables=$(curl -fsS "$URL" | jq '.tables | length')
took=$(curl -fsS "$URL" | jq '.sample_duration_seconds * 1000')
printf '\nheron-stat --listen -i 1, %d tables\n' "$tables"
printf '%-36s %8.2f %% of one core (%d s)\n' "nobody looking" "$idle" $((SECONDS_POLLED / 4))
printf '%-36s %8.2f %% of one core (%d s)\n' "a page fetching every second" "$polled" "$SECONDS_POLLED"
printf '%-36s %8.1f ms\n' "one sample, as the document says" "$took"
# The share of the walk of every process's maps (clients): left out.
start_stat --no-clients
printf '%-36s %8.2f %% of one core (%d s)\n' "the same, --no-clients" "$(share "$SECONDS_POLLED" poll)" \
  "$SECONDS_POLLED"
start_stat

for i in $(seq 100 999); do
  "$BIN/heron-sim" create "t$i" >/dev/null
done
[[ $(curl -fsS "$URL" | jq '.tables | length') -eq 1000 ]] || { echo "not 1000 tables" >&2; exit 1; }
[[ $("$BIN/heron-stat" -i 0 --json | jq '.tables | length') -eq 1000 ]] || { echo "not 1000 tables" >&2; exit 1; }
served=()
printed=()
for ((r = 0; r < RUNS; r++)); do
  sleep 0.6 # past the half interval: the next fetch takes a fresh sample
  read -r wall _ < <("$WORK/client_time" curl -fsS -o /dev/null "$URL")
  served+=("$wall")
  read -r wall _ < <("$WORK/client_time" "$BIN/heron-stat" -i 0 --json)
  printed+=("$wall")
done
a=$(median "${served[@]}")
b=$(median "${printed[@]}")
printf '\n1,000 tables, median of %d interleaved rounds (wall)\n' "$RUNS"
printf '%-36s %8s ms\n' "curl /api/v1/sample" "$a" "heron-stat -i 0 --json" "$b"
printf '%-36s %8.2fx\n' "served / printed" "$(echo "$a / $b" | bc -l)"
printf '%-36s %8s bytes\n' "document" "$(curl -fsS "$URL" | wc -c)"
