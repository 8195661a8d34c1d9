#!/usr/bin/env bash
# The demo stops by itself after --duration, on SIGTERM, and when killed
# outright its children die with it; --keep keeps the collection.
source "$(dirname "$0")/sim_lib/common.sh"
source "$(dirname "$0")/sim_lib/demo.sh"

# --duration: ends on its own, removes everything.
start_demo --duration 2
mapfile -t pids < <(demo_child_pids)
timeout 20 tail --pid="$DEMO_PID" -f /dev/null || fail "the demo outlived --duration"
assert_clean_end "after --duration" "${pids[@]}"

# SIGTERM: the same clean stop.
start_demo
mapfile -t pids < <(demo_child_pids)
kill -TERM "$DEMO_PID"
assert_clean_end "on SIGTERM" "${pids[@]}"

# --keep: processes stop, tables stay.
start_demo --keep
mapfile -t pids < <(demo_child_pids)
kill -INT "$DEMO_PID"
wait "$DEMO_PID" || true
assert_all_gone "${pids[@]}"
[[ -f $HERON_ROOT/md/eu/quotes/owner ]] || fail "--keep did not keep md/eu/quotes"
for table in orders md/eu/quotes md/eu/trades md/us/quotes cache/segment archive/2025; do
  "$SIM" remove "$table" || fail "cannot remove $table"
done
rm -rf "${HERON_ROOT:?}"/*

# SIGKILL: no chance to clean up, but every child dies with the demo.
start_demo
mapfile -t pids < <(demo_child_pids)
kill -KILL "$DEMO_PID"
wait "$DEMO_PID" 2>/dev/null || true
assert_all_gone "${pids[@]}"
echo PASS
