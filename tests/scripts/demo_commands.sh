#!/usr/bin/env bash
# The demo starts; every report the demo suggests exits 0 against it; after
# Ctrl-C no process it started is left and the collection is gone.
source "$(dirname "$0")/sim_lib/common.sh"
source "$(dirname "$0")/sim_lib/demo.sh"

start_demo --duration 120
mapfile -t pids < <(demo_child_pids)
[[ ${#pids[@]} -ge 10 ]] || fail "expected at least 10 child processes, the demo lists ${#pids[@]}"
writer=$(sed -n 's/^  heron -c \([0-9][0-9]*\) .*/\1/p' "$DEMO_LOG")
region=$(sed -n 's/^  heron -R -r \([0-9][0-9]*\) .*/\1/p' "$DEMO_LOG")
[[ -n $writer ]] || fail "the demo names no writer pid"
[[ -n $region ]] || fail "the demo names no region id"
for table in orders md/eu/quotes md/eu/trades md/us/quotes cache/segment archive/2025; do
  [[ -f $HERON_ROOT/$table/owner ]] || fail "no table $table"
done
T=md/eu/quotes
# The reports below need the writers attached and writing.
live() {
  "$HERON" -A >"$WORK/all.txt" 2>/dev/null || return 1
  local table
  for table in orders md/eu/quotes md/eu/trades md/us/quotes; do
    grep -qF "$table" "$WORK/all.txt" || return 1
  done
  "$HERON" -c "$writer" 2>/dev/null | matches -F "$T" && "$HERON" -q "$T" 2>/dev/null | matches '^pos: '
}
wait_until 20 live || fail "the demo's tables never showed live clients and notifications: $(cat "$WORK/all.txt")"

commands=("-A" "-s $T" "-d $T" "-q $T" "-R -r $region $T" "-w $T" "-c $writer" "-a -e $T")
for args in "${commands[@]}"; do
  status=0
  # shellcheck disable=SC2086
  "$HERON" $args >"$WORK/out.txt" 2>"$WORK/err.txt" || status=$?
  [[ $status -eq 0 ]] || fail "heron $args exited with $status: $(head -3 "$WORK/err.txt")"
  [[ -s $WORK/out.txt ]] || fail "heron $args printed nothing"
done
# The reports see the live collection; heron lists tables of type 2 only,
# so neither the segment nor the archive (type 3).
"$HERON" -A >"$WORK/all.txt"
for table in orders md/eu/quotes md/eu/trades md/us/quotes; do
  grep -qF "$table" "$WORK/all.txt" || fail "heron -A does not show $table"
done
for table in cache/segment archive/2025; do
  if grep -qF "$table" "$WORK/all.txt"; then
    fail "heron -A shows $table"
  fi
done
[[ $(od -An -tu4 -j12 -N4 "$HERON_ROOT/archive/2025/owner" | tr -d ' ') == 3 ]] ||
  fail "archive/2025 is not of type 3 (archive)"
# A fresh demo is healthy: its archive needs no writer.
if [[ -x $BIN/heron-stat ]]; then
  status=0
  "$BIN/heron-stat" --check >"$WORK/check.txt" || status=$?
  [[ $status -eq 0 ]] || fail "heron-stat --check on the demo exited $status: $(cat "$WORK/check.txt")"
  matches '^HERON OK - 5 tables ok | ' "$WORK/check.txt" || fail "heron-stat --check: $(cat "$WORK/check.txt")"
fi
"$HERON" -c "$writer" >"$WORK/what.txt"
grep -qF "$T" "$WORK/what.txt" || fail "heron -c $writer does not show $T"

kill -INT "$DEMO_PID"
assert_clean_end "on SIGINT" "${pids[@]}"
echo PASS
