#!/usr/bin/env bash
# heron-sim write: attaches and says so, stops on SIGTERM, SIGINT and
# --duration with status 0, bumps the ember instance on a restart, grows its
# queue and switches tables, and refuses a table that does not exist.
source "$(dirname "$0")/sim_lib/common.sh"

# u32 at byte OFFSET of FILE, u16 with WIDTH 2.
word() { od -An -t "u$3" -j "$2" -N "$3" "$1" | tr -d ' '; }

"$SIM" create w --capacity 64 >/dev/null
start_writer w --rate 5000 --grow-every 500 --max-capacity 256
ember=$HERON_ROOT/w/ember
[[ $(word "$ember" 16 4) == "$WRITER_PID" ]] || fail "ember writerPid is not the writer's pid"
[[ $(word "$ember" 14 2) == 0 && $(word "$ember" 20 4) == 0 ]] || fail "first start: instance and restarts not 0"
# grown_and_switched: the queue has reached 256 slots and switched tables.
grown_and_switched() {
  "$HERON" -s w >"$WORK/s.txt" 2>/dev/null &&
    grep -q 'Notifications: 256 ' "$WORK/s.txt" && grep -q 'epoch\[ SECONDARY \]: [1-9]' "$WORK/s.txt"
}
wait_until 20 grown_and_switched || fail "the queue did not grow to 256 and switch: $(cat "$WORK/s.txt")"
beat_after() { [[ $(word "$ember" 32 8) -gt $1 ]]; }
wait_until 10 beat_after "$(word "$ember" 32 8)" || fail "the ember heartbeat did not move"
stop_pid "$WRITER_PID" || fail "SIGTERM: writer exited with $?"
grep -q "appended [1-9][0-9]* notifications" "$WRITER_LOG" || fail "no summary line: $(cat "$WRITER_LOG")"

# The queue grew (64 -> 256 over 1000s of appends) and switched tables.
"$HERON" -s w >"$WORK/s.txt" 2>/dev/null || fail "heron -s w"
grep -q 'Notifications: 256 ' "$WORK/s.txt" || fail "the queue did not grow to 256: $(grep Notifications "$WORK/s.txt")"
grep -q 'epoch\[ SECONDARY \]: [1-9]' "$WORK/s.txt" || fail "the queue never switched tables"

# Restart: a new instance of the same table.
start_writer w --rate 100
[[ $(word "$ember" 14 2) == 1 && $(word "$ember" 20 4) == 1 ]] || fail "restart did not bump instance and restarts"
# A second writer on a table that has a live one is refused.
status=0
"$SIM" write w --rate 100 >/dev/null 2>"$WORK/second.txt" || status=$?
[[ $status -eq 1 ]] && grep -q "already has a writer (pid $WRITER_PID)" "$WORK/second.txt" ||
  fail "a second writer was not refused: status $status, $(cat "$WORK/second.txt")"
kill -INT "$WRITER_PID"
status=0
wait "$WRITER_PID" || status=$?
[[ $status -eq 0 ]] || fail "SIGINT: writer exited with $status"

# --duration: stops by itself.
status=0
timeout 10 "$SIM" write w --flat-out --duration 1 >"$WORK/d.txt" || status=$?
[[ $status -eq 0 ]] || fail "--duration: status $status"
head -1 "$WORK/d.txt" | matches "^writer [0-9]* attached to $(cd "$HERON_ROOT/w" && pwd -P)$" || fail "attach line: $(head -1 "$WORK/d.txt")"

# No table: one line, status 1.
status=0
"$SIM" write nosuch >/dev/null 2>"$WORK/err.txt" || status=$?
[[ $status -eq 1 && $(wc -l <"$WORK/err.txt") -eq 1 ]] || fail "nosuch: status $status, $(cat "$WORK/err.txt")"
[[ ! -e $HERON_ROOT/nosuch ]] || fail "write created files for a table that did not exist"
mkdir "$HERON_ROOT/empty"
status=0
"$SIM" write empty >/dev/null 2>&1 || status=$?
[[ $status -eq 1 && -z $(ls -A "$HERON_ROOT/empty") ]] || fail "write made files in a directory that is no table"
status=0
"$SIM" write w --rate abc >/dev/null 2>&1 || status=$?
[[ $status -eq 2 ]] || fail "--rate abc: status $status"
echo PASS
