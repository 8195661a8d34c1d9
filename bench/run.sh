#!/usr/bin/env bash
# Everything in bench/, one after the other, with short settings: the three
# Google Benchmark programs, then the end-to-end scripts (client discovery,
# the queue dump, the writer's rate under reports, many tables, heron-stat's
# sample and its /metrics server) and the client chart. The figures in bench/README.md come from longer runs of the
# same programs (the commands are given there).
#
#   bash bench/run.sh [BUILD_DIR]
set -euo pipefail
BUILD=${1:-build}
HERE=$(cd "$(dirname "$0")" && pwd)
BIN=$BUILD/bin

section() { printf '\n=== %s\n' "$*"; }

section client_bench
"$BIN/client_bench" --benchmark_min_time=0.05
section quarry_bench
"$BIN/quarry_bench" --benchmark_min_time=0.05 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
section relay_scan_bench
"$BIN/relay_scan_bench" --benchmark_min_time=0.05 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

section "client.sh (100 and 1,000 extra processes) and chart.sh"
DATA=$(mktemp "${TMPDIR:-/tmp}/heron-bench-data.XXXXXX")
trap 'rm -f "$DATA"' EXIT
SIZES="100 1000" DATA=$DATA bash "$HERE/client.sh" "$BUILD" 3
bash "$HERE/chart.sh" "$DATA" "$BUILD/clients.png"
section relay.sh
RUNS=3 bash "$HERE/relay.sh" "$BUILD"
section writer.sh
PAIRS=1 SECONDS_EACH=2 bash "$HERE/writer.sh" "$BUILD"
section tables.sh
bash "$HERE/tables.sh" "$BUILD" 3 100 1000
section stat.sh
TABLES=100 bash "$HERE/stat.sh" "$BUILD" 3
section stat_listen.sh
bash "$HERE/stat_listen.sh" "$BUILD" 3 200
