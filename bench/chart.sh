#!/usr/bin/env bash
# Bar chart of client discovery at 100, 1,000 and 10,000 extra processes:
# heron -A and heron -c PID against the floor, fuser and lsof (median wall
# and CPU time, logarithmic scale), from the DATA file of bench/client.sh.
#
#   bench/chart.sh DATA [PNG]          (PNG default: bench/clients.png)
#   bench/chart.sh --run [BUILD_DIR] [RUNS] [PNG]   runs client.sh first
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
if [[ ${1:-} == --run ]]; then
  BUILD=${2:-build}
  RUNS=${3:-5}
  PNG=${4:-$HERE/clients.png}
  DATA=$(mktemp "${TMPDIR:-/tmp}/heron-chart.XXXXXX")
  DATA_TMP=$DATA  # removed with the table below, by the one EXIT trap
  SIZES=${SIZES:-100 1000 10000} DATA=$DATA bash "$HERE/client.sh" "$BUILD" "$RUNS"
else
  DATA=${1:?usage: chart.sh DATA [PNG] | chart.sh --run [BUILD_DIR] [RUNS] [PNG]}
  PNG=${2:-$HERE/clients.png}
fi

# One row per size, one column per tool, wall then CPU.
TABLE=$(mktemp "${TMPDIR:-/tmp}/heron-chart-table.XXXXXX")
trap 'rm -f "$TABLE" ${DATA_TMP:-}' EXIT
awk '{wall[$1 "," $2] = $3; cpu[$1 "," $2] = $4; if (!($1 in seen)) {seen[$1] = 1; sizes[++n] = $1}}
     END {
       split("floor heron heron_c fuser lsof", tools, " ")
       printf "size"; for (t = 1; t <= 5; t++) printf " %s_wall %s_cpu", tools[t], tools[t]; printf "\n"
       for (i = 1; i <= n; i++) {
         printf "%s", sizes[i]
         for (t = 1; t <= 5; t++) printf " %s %s", wall[sizes[i] "," tools[t]], cpu[sizes[i] "," tools[t]]
         printf "\n"
       }
     }' "$DATA" >"$TABLE"

gnuplot <<PLOT
set terminal pngcairo size 1100,520 font ",10"
set output "$PNG"
set multiplot layout 1,2 title "Finding the clients of heron tables among N extra processes (median, ms, log scale)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set logscale y
set yrange [1:*]
set grid ytics
set key top left
set xlabel "extra processes"
set title "wall time"
plot "$TABLE" using 2:xtic(1) title "floor (read every maps)", '' using 4 title "heron -A", \
     '' using 6 title "heron -c PID", '' using 8 title "fuser FILE", '' using 10 title "lsof -t FILE"
set title "CPU time (user + system)"
plot "$TABLE" using 3:xtic(1) title "floor (read every maps)", '' using 5 title "heron -A", \
     '' using 7 title "heron -c PID", '' using 9 title "fuser FILE", '' using 11 title "lsof -t FILE"
unset multiplot
PLOT
echo "wrote $PNG"
