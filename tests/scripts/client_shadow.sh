#!/usr/bin/env bash
# heron-sim shadow end to end: read-only and --rw attachments announced on
# stdout, seen by heron -w with the right role, gone after --duration.
source "$(dirname "$0")/sim_lib/common.sh"

"$SIM" create t >/dev/null
ROOT=$(realpath "$HERON_ROOT")

# Waits until file $1 holds a line, then prints the announced pid.
announced_pid() {
  wait_until 5 test -s "$1" || fail "no announcement in $1"
  awk '{print $2; exit}' "$1"
}

# The read-only shadow runs until told to stop: the checks below take as
# long as the machine makes them take, never racing a duration.
"$SIM" shadow t --rw >"$WORK/w.out" &
STARTED+=($!)
"$SIM" shadow t >"$WORK/s.out" &
STARTED+=($!)
writer=$(announced_pid "$WORK/w.out")
shadow=$(announced_pid "$WORK/s.out")
[[ "$(cat "$WORK/w.out")" == "shadow $writer attached to $ROOT/t" ]] || fail "writer announcement"
[[ "$(cat "$WORK/s.out")" == "shadow $shadow attached to $ROOT/t" ]] || fail "shadow announcement"

grep -q "$ROOT/t/relay.1$" "/proc/$shadow/maps" || fail "shadow does not map relay.1"
grep "$ROOT/t/relay.1$" "/proc/$shadow/maps" | matches ' r--s ' || fail "shadow mapping is not read-only"
grep "$ROOT/t/relay.1$" "/proc/$writer/maps" | matches ' rw-s ' || fail "--rw mapping is not read-write shared"

out=$("$HERON" -w t 2>/dev/null)
grep -qx "Writer: heron-sim-$writer(heron-sim)" <<<"$out" || fail "writer not listed: $out"
grep -qx "Shadow: heron-sim-$shadow(heron-sim)" <<<"$out" || fail "shadow not listed: $out"

# --duration ends a shadow by itself.
gone() { ! kill -0 "$1" 2>/dev/null; }
"$SIM" shadow t --duration 1 >"$WORK/d.out" &
STARTED+=($!)
brief=$(announced_pid "$WORK/d.out")
wait_until 10 gone "$brief" || fail "shadow still running after --duration"
out=$("$HERON" -w t 2>/dev/null)
grep -q "^Shadow: heron-sim-$brief(" <<<"$out" && fail "shadow still listed: $out"

# SIGTERM ends either role with status 0.
for pid in "$shadow" "$writer"; do
  kill -TERM "$pid"
  wait "$pid" || fail "shadow $pid did not exit cleanly on SIGTERM"
done

# A missing table is a one-line error and status 1.
if "$SIM" shadow nosuch 2>"$WORK/err"; then fail "shadow of a missing table succeeded"; fi
[[ $(wc -l <"$WORK/err") -eq 1 ]] || fail "error is not one line"
echo "1 passed, 0 failed"
