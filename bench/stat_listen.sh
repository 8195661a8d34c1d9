#!/usr/bin/env bash
# heron-stat --listen: the cost of one /metrics scrape of 100 tables on a host
# with 1,000 extra processes, side by side with `heron -A` on the same host,
# and the memory of the server over 1,000 scrapes.
#
#   bench/stat_listen.sh [BUILD_DIR] [RUNS] [SCRAPES]   (defaults: build, 15, 1000)
#   MEMORY_ONLY=1 bench/stat_listen.sh ...               (the memory part alone)
#
# Scrape: RUNS interleaved rounds; each round times one `curl /metrics` and
# one `heron -A` (bench/client_time.c: wall and CPU of the command; the CPU
# of a scrape is curl's, so for the scrape only the wall time compares).
# Memory: a fresh `heron-stat --listen` over the same 100 tables, SCRAPES
# scrapes one after another; VmRSS and RssAnon (the heap and stacks, without
# the pages of shared libraries and mapped table files, which the kernel
# brings in and reclaims on its own) every 100 scrapes, and VmHWM (the peak)
# at the end.
set -euo pipefail

BUILD=${1:-build}
RUNS=${2:-15}
SCRAPES=${3:-1000}
source "$(dirname "$0")/lib.sh"
bench_init "$BUILD" /tmp heron-stat-bench client_mapper.c client_time.c

bench_tables
mkdir -p "$WORK/scratch"
for i in $(seq -w 0 29); do head -c 4096 /dev/zero >"$WORK/scratch/lib$i.so"; done
ROOT=$(realpath "$HERON_ROOT")

if [[ -z ${MEMORY_ONLY:-} ]]; then
  # 1,000 extra processes with 60-80 line maps files; every tenth maps a table
  # read-only.
  for ((i = 1; i <= 1000; i++)); do
    args=("$WORK/scratch" 26 22)
    ((i % 10 == 2)) && args+=("$ROOT/$(printf 't%02d' $((i % 100)))")
    "$WORK/client_mapper" "${args[@]}" &
    PIDS+=($!)
  done

  bench_listen metrics
  sleep 1
  echo "processes on the host: $(ls -d /proc/[0-9]* 2>/dev/null | wc -l) (1000 extra, 10 writers)"
  curl -fsS -o "$WORK/metrics" "$URL"
  echo "one scrape: $(grep -c '^heron_writer_up{' "$WORK/metrics") tables, $(wc -c <"$WORK/metrics") bytes," \
    "$(grep -c '^heron_writer_up{.*} 1$' "$WORK/metrics") writers up"

  median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {printf "%.1f", a[int((NR+1)/2)]}'; }

  # CPU time of a process so far, in milliseconds (utime + stime).
  cpu_ms() { awk -v hz="$(getconf CLK_TCK)" '{print ($14 + $15) * 1000 / hz}' "/proc/$1/stat"; }

  scrape_walls=()
  heron_walls=()
  heron_cpus=()
  sample_secs=()
  server_cpu_before=$(cpu_ms "$STAT_PID")
  for ((r = 0; r < RUNS; r++)); do
    read -r wall _ < <("$WORK/client_time" curl -fsS -o /dev/null "$URL")
    scrape_walls+=("$wall")
    read -r wall cpu < <("$WORK/client_time" "$BIN/heron" -A)
    heron_walls+=("$wall")
    heron_cpus+=("$cpu")
  done
  server_cpu=$(echo "($(cpu_ms "$STAT_PID") - $server_cpu_before) / $RUNS" | bc -l)
  # The server's own time to take a sample, as it reports it.
  for ((r = 0; r < 5; r++)); do
    sample_secs+=("$(curl -fsS "$URL" | awk '/^heron_stat_sample_duration_seconds / {print $2 * 1000}')")
  done
  scrape=$(median "${scrape_walls[@]}")
  heron=$(median "${heron_walls[@]}")
  printf '\nmedian of %d interleaved rounds, 1000 extra processes, 100 tables\n' "$RUNS"
  printf '%-28s %10s ms\n' "curl /metrics (wall)" "$scrape"
  printf '%-28s %10s ms   (CPU %s ms)\n' "heron -A (wall)" "$heron" "$(median "${heron_cpus[@]}")"
  printf '%-28s %10s ms   (median of 5)\n' "sample inside the server" "$(median "${sample_secs[@]}")"
  printf '%-28s %10.1f ms   (mean, from /proc/PID/stat)\n' "server CPU per scrape" "$server_cpu"
  printf '%-28s %10.2fx\n' "scrape / heron -A (wall)" "$(echo "$scrape / $heron" | bc -l)"
  printf '%-28s %10.2fx\n' "server CPU / heron -A CPU" "$(echo "$server_cpu / $(median "${heron_cpus[@]}")" | bc -l)"

fi

# Memory over SCRAPES scrapes, without the extra processes.
if [[ -z ${MEMORY_ONLY:-} ]]; then
  kill "${PIDS[@]:10}" 2>/dev/null || true
  kill "$STAT_PID" 2>/dev/null || true
  sleep 1
fi
bench_listen metrics
status_kb() { awk -v k="$1:" '$1 == k {print $2}' "/proc/$STAT_PID/status"; }
done_scrapes=0
scrape_batch() {
  local n=$1
  curl -fsS -o /dev/null "$URL?[1-$n]"
  done_scrapes=$((done_scrapes + n))
}
rss_series=()
anon_series=()
scrape_batch 100
rss100=$(status_kb VmRSS)
anon100=$(status_kb RssAnon)
rss_series+=("$rss100")
anon_series+=("$anon100")
while ((done_scrapes < SCRAPES)); do
  scrape_batch 100
  rss_series+=("$(status_kb VmRSS)")
  anon_series+=("$(status_kb RssAnon)")
done
printf '\nheron-stat --listen, 100 tables, every 100 scrapes (kB)\n'
printf 'VmRSS:  %s\nRssAnon: %s\n' "${rss_series[*]}" "${anon_series[*]}"
rss_end=$(status_kb VmRSS)
anon_end=$(status_kb RssAnon)
hwm=$(status_kb VmHWM)
printf '\nheron-stat --listen, 100 tables, %d scrapes one after another\n' "$done_scrapes"
printf '%-28s %10s kB\n' "VmRSS after scrape 100" "$rss100" "VmRSS after scrape $done_scrapes" "$rss_end" \
  "VmHWM (peak)" "$hwm"
printf '%-28s %10s kB\n' "VmRSS growth 100 -> $done_scrapes" "$((rss_end - rss100))" \
  "RssAnon growth 100 -> $done_scrapes" "$((anon_end - anon100))"
