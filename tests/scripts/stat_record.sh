#!/usr/bin/env bash
# heron-stat --record: the directory stays within --record-max-bytes, the
# oldest file going first, across a restart and on a full disk (a small
# tmpfs, when this test may mount one); --from DIR [--at TIME] renders the
# recorded samples.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
BUDGET=16384
REC=$WORK/rec

"$SIM" create orders >/dev/null
start_writer orders --rate 2000

total_bytes() { cat "$1"/heron-stat.*.ndjson.zst 2>/dev/null | wc -c; }
files() { ls "$1" | grep -c '^heron-stat\..*\.ndjson\.zst$' || true; }
latest_time() { "$STAT" --from "$1" --json 2>/dev/null | jq .time; }
# Conditions polled with wait_until, evaluated afresh on each try.
recorded() { [[ -n $(ls "$1" 2>/dev/null) ]]; }
moved_on() { [[ $(latest_time "$1") != "$2" ]]; }
disk_full() { (($(df --output=avail -B1 "$1" | tail -1) < 8192)); }

start_recorder() {
  "$STAT" --record "$1" -i 0.05 --record-max-bytes "$2" 2>>"$WORK/record.err" &
  RECORDER=$!
  STARTED+=("$RECORDER")
}

# The recordings' size, read while the recorder is stopped: a listing read
# while it runs can count both the oldest file, removed meanwhile, and the
# frame appended in its place. Fails when the recorder does not stop.
bytes_at_rest() {
  pause_pid "$RECORDER" || return 1
  total_bytes "$REC"
  kill -CONT "$RECORDER"
}

# within_budget_until SECONDS COMMAND...: COMMAND comes true, and the
# recordings never exceed the budget meanwhile.
within_budget_until() {
  local deadline=$(($(date +%s) + $1)) bytes
  shift
  until "$@"; do
    bytes=$(bytes_at_rest) || fail "the recorder did not stop on SIGSTOP"
    ((bytes <= BUDGET)) || fail "recordings take $bytes bytes, over $BUDGET"
    (($(date +%s) < deadline)) || return 1
    sleep 0.05
  done
}

start_recorder "$REC" $BUDGET
wait_until 20 recorded "$REC" || fail "nothing recorded: $(cat "$WORK/record.err")"
first=$(ls "$REC" | sort | head -1)
within_budget_until 30 test ! -e "$REC/$first" || fail "the oldest file was never removed"
stop_pid "$RECORDER" || fail "the recorder did not end with status 0 on SIGTERM"
(($(total_bytes "$REC") <= BUDGET)) || fail "over budget after the stop"

"$STAT" --from "$REC" --json >"$WORK/latest.json" || fail "--from DIR failed"
jq -e '.tables[0].name == "orders" and .tables[0].state == "ok" and .tables[0].queues.rate_per_second > 0' \
  "$WORK/latest.json" >/dev/null || fail "the latest recorded sample: $(head -c 300 "$WORK/latest.json")"
oldest=$("$STAT" --from "$REC" --at 0 --json | jq .time)
latest=$(jq .time "$WORK/latest.json")
[[ $(jq -n "$oldest < $latest") == true ]] || fail "oldest $oldest is not before latest $latest"
# A time between two samples picks the nearer one.
at=$("$STAT" --from "$REC" --at "$(jq -n "$oldest + 0.01")" --json | jq .time)
[[ $at == "$oldest" ]] || fail "--at next to the oldest gave $at, not $oldest"
"$STAT" --from "$REC" --at "$(date -u -d "@${latest%.*}" '+%Y-%m-%d %H:%M:%S')" --check >"$WORK/check.out" ||
  fail "--from DIR --check: $(cat "$WORK/check.out")"
matches '^HERON OK - 1 table' "$WORK/check.out" || fail "--check from the recording: $(cat "$WORK/check.out")"

# A restart adds to the recordings and keeps the budget.
count=$(files "$REC")
start_recorder "$REC" $BUDGET
within_budget_until 20 moved_on "$REC" "$latest" || fail "the restarted recorder added nothing"
stop_pid "$RECORDER" || true
(($(total_bytes "$REC") <= BUDGET)) || fail "over budget after a restart"
echo "recorded $count then $(files "$REC") files within $BUDGET bytes"

# A full disk: the oldest recordings make room, the recording goes on.
SMALL=$WORK/small
mkdir "$SMALL"
if mount -t tmpfs -o size=96k tmpfs "$SMALL" 2>/dev/null; then
  trap 'umount "$SMALL" 2>/dev/null || true; cleanup' EXIT
  start_recorder "$SMALL/rec" $((1 << 30))
  wait_until 30 disk_full "$SMALL" || fail "the small disk never filled"
  full=$(latest_time "$SMALL/rec")
  wait_until 20 moved_on "$SMALL/rec" "$full" || fail "no sample recorded once the disk was full"
  kill -0 "$RECORDER" || fail "the recorder died on a full disk: $(cat "$WORK/record.err")"
  stop_pid "$RECORDER" || true
  umount "$SMALL"
else
  echo "no tmpfs mount here: full-disk case skipped"
fi

# Refusals: inside the root, a bad --at, an empty directory.
status=0
"$STAT" --record "$HERON_ROOT/rec" -i 1 2>"$WORK/err" || status=$?
[[ $status == 2 && ! -e $HERON_ROOT/rec ]] || fail "--record inside the root: status $status"
status=0
"$STAT" --from "$REC" --at yesterday 2>"$WORK/err" || status=$?
[[ $status == 1 && $(wc -l <"$WORK/err") == 1 ]] || fail "--at yesterday: status $status, $(cat "$WORK/err")"
mkdir "$WORK/empty"
status=0
"$STAT" --from "$WORK/empty" 2>"$WORK/err" || status=$?
[[ $status == 1 ]] && matches 'no recorded sample' "$WORK/err" || fail "--from an empty directory: status $status"
echo PASS
