#!/usr/bin/env bash
# heron-stat's command line: usage errors are one line on standard error and
# status 2 (with --check, one UNKNOWN line on standard output and status 3); --help and --version; -o writes atomically and never inside the
# root; a report that cannot be written is one line and status 1.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat

usage_error() {
  local status=0
  "$STAT" "$@" >"$WORK/out" 2>"$WORK/err" || status=$?
  [[ $status -eq 2 ]] || fail "heron-stat $* exited $status, not 2: $(cat "$WORK/err")"
  [[ ! -s $WORK/out ]] || fail "heron-stat $* wrote to standard output: $(cat "$WORK/out")"
  [[ $(wc -l <"$WORK/err") -eq 1 ]] || fail "heron-stat $* said $(wc -l <"$WORK/err") lines: $(cat "$WORK/err")"
  grep -q '^heron-stat: ' "$WORK/err" || fail "heron-stat $*: $(cat "$WORK/err")"
  echo "heron-stat $*: $(cat "$WORK/err")"
}

usage_error --bogus
usage_error -i
usage_error --interval abc
usage_error -i -1
usage_error -i nan
usage_error --stale 0
usage_error --stale
usage_error --warn-alloc 150
usage_error --crit-alloc x
usage_error --json --prometheus
usage_error --listen ''
usage_error -o '' --prometheus
usage_error -w
usage_error --warn-alloc 0x10
usage_error --crit-alloc 1e2
usage_error -i +1
usage_error --stale inf
usage_error --timeout 5
usage_error --exclude
usage_error --watch -i 0
usage_error --listen
usage_error --listen nonsense
usage_error --no-clients --all-roots
usage_error one two
usage_error -o "$HERON_ROOT/metrics.prom" --prometheus
mkdir -p "$HERON_ROOT/sub"
usage_error --prometheus -o "$HERON_ROOT/sub/x.prom"
[[ ! -e $HERON_ROOT/metrics.prom && -z $(ls -A "$HERON_ROOT/sub") ]] || fail "a file was written inside the root"

# With --check a monitoring host reads standard output: a usage error is one
# UNKNOWN line there and status 3.
check_usage_error() {
  local status=0
  "$STAT" "$@" >"$WORK/out" 2>"$WORK/err" || status=$?
  [[ $status -eq 3 ]] || fail "heron-stat $* exited $status, not 3: $(cat "$WORK/out" "$WORK/err")"
  [[ ! -s $WORK/err ]] || fail "heron-stat $* wrote to standard error: $(cat "$WORK/err")"
  [[ $(wc -l <"$WORK/out") -eq 1 ]] || fail "heron-stat $* said $(wc -l <"$WORK/out") lines: $(cat "$WORK/out")"
  grep -q '^HERON UNKNOWN - usage error: ' "$WORK/out" || fail "heron-stat $*: $(cat "$WORK/out")"
  echo "heron-stat $*: $(cat "$WORK/out")"
}
check_usage_error --check --json
check_usage_error --watch --check
check_usage_error --check --bogus
check_usage_error --warn-alloc 0x10 --check
check_usage_error --check --crit-alloc 80
check_usage_error --check --warn-alloc 95 --crit-alloc 90.5
check_usage_error --check --timeout 0
check_usage_error --check -o "$HERON_ROOT/verdict.txt"
# Decimal thresholds are read as written.
"$STAT" --check --warn-alloc 12.5 --crit-alloc 12.5 >"$WORK/out" || true
matches 'alloc_max=[0-9]*%;12.5;12.5;0;100 ' "$WORK/out" || fail "decimal thresholds: $(cat "$WORK/out")"

"$STAT" --help >"$WORK/help" || fail "--help failed"
for word in EXPR --all-roots --interval --watch --json --prometheus --output --listen --check --stale --warn-alloc \
  --crit-alloc --no-clients --exclude --timeout --per-region --version Examples; do
  grep -q -- "$word" "$WORK/help" || fail "--help does not mention $word"
done
[[ $("$STAT" --version) =~ ^heron-stat\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version: $("$STAT" --version)"

"$SIM" create t >/dev/null
# -o: the file is replaced, no temporary is left beside it.
out=$WORK/out.d/heron.prom
mkdir -p "$WORK/out.d"
echo stale >"$out"
"$STAT" --prometheus -o "$out" || fail "-o failed"
grep -q '^heron_stat_tables 1$' "$out" || fail "-o wrote: $(head -3 "$out")"
[[ $(ls -A "$WORK/out.d") == heron.prom ]] || fail "left beside the file: $(ls -A "$WORK/out.d")"
# Region series: per entry size unless --per-region asks for each id.
grep -q '^heron_region_occupancy_ratio{table="t",entry_size="[0-9]*"} ' "$out" || fail "no region series per entry size"
! grep -q 'region="' "$out" || fail "region ids without --per-region"
"$STAT" --prometheus --per-region t | matches '^heron_region_occupancy_ratio{table="t",entry_size="[0-9]*",region="[0-9]*"} ' ||
  fail "--per-region gives no series per region id"
# An output directory that does not exist: one line, status 1, nothing left.
status=0
"$STAT" --prometheus -o "$WORK/missing/heron.prom" 2>"$WORK/err" || status=$?
[[ $status -eq 1 && $(wc -l <"$WORK/err") -eq 1 ]] || fail "-o into a missing directory: $status $(cat "$WORK/err")"
# A full device: one line, status 1.
if [[ -w /dev/full ]]; then
  for mode in "" --json --prometheus; do
    status=0
    "$STAT" -i 0 $mode >/dev/full 2>"$WORK/err" || status=$?
    [[ $status -eq 1 && $(wc -l <"$WORK/err") -eq 1 ]] || fail "write to /dev/full ($mode): $status $(cat "$WORK/err")"
  done
  echo "write failure: $(cat "$WORK/err")"
fi
echo PASS
