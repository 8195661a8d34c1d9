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

"$SIM" shadow t --rw >"$WORK/w.out" &
STARTED+=($!)
"$SIM" shadow t --duration 1 >"$WORK/s.out" &
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

# --duration ends the shadow by itself.
gone() { ! kill -0 "$1" 2>/dev/null; }
wait_until 3 gone "$shadow" || fail "shadow still running after --duration"
out=$("$HERON" -w t 2>/dev/null)
grep -q "^Shadow:" <<<"$out" && fail "shadow still listed: $out"

# SIGTERM ends the writer-role shadow with status 0.
kill -TERM "$writer"
wait "$writer" || fail "shadow --rw did not exit cleanly on SIGTERM"

# A missing table is a one-line error and status 1.
if "$SIM" shadow nosuch 2>"$WORK/err"; then fail "shadow of a missing table succeeded"; fi
[[ $(wc -l <"$WORK/err") -eq 1 ]] || fail "error is not one line"
echo "1 passed, 0 failed"
