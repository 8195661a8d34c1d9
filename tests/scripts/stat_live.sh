#!/usr/bin/env bash
# heron-stat against live heron-sim tables: rates within 10 % of the
# writers' configured rates, a killed writer dead within one interval and
# CRITICAL for --check, a stopped writer stale after --stale, a restarted
# writer's restarts one up, and damaged tables broken with their reason while
# the others are still reported.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
command -v jq >/dev/null || fail "jq is not installed (scripts/install-deps.sh installs it)"

# field TABLE JQ-FILTER [heron-stat options]: one figure of one table.
field() {
  local table=$1 filter=$2
  shift 2
  "$STAT" --json "$@" | jq -r --arg t "$table" ".tables[] | select(.name == \$t) | $filter"
}

# wait_for TABLE JQ-FILTER VALUE SECONDS [heron-stat options]: polls one-sample
# JSON until the figure equals VALUE; fails at the deadline.
wait_for() {
  local table=$1 filter=$2 want=$3 limit=$4 got=""
  shift 4
  local deadline=$((SECONDS + limit))
  while ((SECONDS < deadline)); do
    got=$(field "$table" "$filter" -i 0 "$@")
    [[ $got == "$want" ]] && return 0
    sleep 0.1
  done
  fail "$table: $filter is '$got', not '$want' after ${limit}s"
}

for t in fast slow victim; do "$SIM" create "$t" >/dev/null; done
start_writer fast --rate 4000
FAST_PID=$WRITER_PID
start_writer slow --rate 500
SLOW_PID=$WRITER_PID
start_writer victim --rate 1000
VICTIM_PID=$WRITER_PID
start_shadow fast

# Rates: two samples 2 s apart.
json=$("$STAT" --json -i 2)
for pair in fast:4000 slow:500; do
  name=${pair%%:*} want=${pair##*:}
  rate=$(jq -r --arg t "$name" '.tables[] | select(.name == $t) | .queues.rate_per_second' <<<"$json")
  awk -v r="$rate" -v w="$want" 'BEGIN { exit !(r >= w * 0.9 && r <= w * 1.1) }' ||
    fail "$name: rate $rate is not within 10 % of $want"
  echo "rate of $name: $rate/s (configured $want/s)"
done
[[ $(jq -r '.interval_seconds >= 1.9' <<<"$json") == true ]] || fail "interval: $(jq .interval_seconds <<<"$json")"
[[ $(jq -r '.tables[] | select(.name == "fast") | .clients.shadows | length' <<<"$json") == 1 ]] ||
  fail "fast: the shadow is not counted"
[[ $(jq -r '.tables[] | select(.name == "fast") | .state' <<<"$json") == ok ]] || fail "fast is not ok"

# SIGKILL: dead in the next sample of one interval, and --check CRITICAL.
kill -KILL "$VICTIM_PID"
state=$(field victim .state -i 1)
[[ $state == dead ]] || fail "victim is '$state' one interval after SIGKILL"
status=0
"$STAT" --check >"$WORK/check.txt" || status=$?
[[ $status -eq 2 ]] || fail "--check exited $status after SIGKILL: $(cat "$WORK/check.txt")"
head -1 "$WORK/check.txt" | matches '^HERON CRITICAL - .*dead: victim' || fail "check line: $(head -1 "$WORK/check.txt")"
grep -q "^CRITICAL: victim: writer $VICTIM_PID is not running$" "$WORK/check.txt" ||
  fail "no problem line naming victim: $(cat "$WORK/check.txt")"
wait "$VICTIM_PID" 2>/dev/null || true
[[ $(field victim .state -i 0) == dead ]] || fail "victim is not dead once reaped"
echo "SIGKILL: dead, --check status 2 naming victim"

# SIGSTOP: stale once the heartbeat is older than --stale, ok again after SIGCONT.
kill -STOP "$FAST_PID"
wait_for fast .state stale 10 --stale 1
"$STAT" -i 0 --stale 1 fast | matches '^warning   fast: heartbeat .* s old (stale after 1 s)$' ||
  fail "no stale problem line: $("$STAT" -i 0 --stale 1 fast)"
kill -CONT "$FAST_PID"
wait_for fast .state ok 10 --stale 1
echo "SIGSTOP: stale after --stale 1, ok again after SIGCONT"

# --watch --prometheus on a pipe: one exposition per sample and nothing
# between them (no title line), so that each one parses.
# Run in the foreground under timeout: a background job of a script starts
# with SIGINT ignored. Two samples take 0.5 s after the first; the rest of
# the 5 s is room for busy cores.
timeout --preserve-status -s INT 5 "$STAT" --watch --prometheus -i 0.5 >"$WORK/watch.prom" ||
  fail "--watch --prometheus did not end with status 0"
[[ $(grep -c '^# TYPE heron_table_state gauge$' "$WORK/watch.prom") -ge 2 ]] || fail "--watch --prometheus: fewer than two samples"
stray=$(grep -v '^# \(HELP\|TYPE\) heron_\|^heron_' "$WORK/watch.prom" || true)
[[ -z $stray ]] || fail "--watch --prometheus wrote lines that are not metrics: $(head -3 <<<"$stray")"

# Restart: restarts one up, a new instance.
before=$(field slow .writer.restarts -i 0)
stop_pid "$SLOW_PID" || true
start_writer slow --rate 500
after=$(field slow .writer.restarts -i 0)
[[ $after -eq $((before + 1)) ]] || fail "restarts went from $before to $after"
[[ $(field slow .writer.pid -i 0) == "$WRITER_PID" ]] || fail "the new writer pid is not shown"
echo "restart: restarts $before -> $after"

# Damaged tables: each broken with its reader's reason; the others still shown.
for t in norelay badrelay badquarry badowner shortember; do "$SIM" create "$t" >/dev/null; done
rm "$HERON_ROOT/norelay/relay.2"
head -c 64 /dev/urandom >"$HERON_ROOT/badquarry/quarry"
printf 'garbage' >"$HERON_ROOT/badowner/owner"
printf 'short' >"$HERON_ROOT/shortember/ember"
printf 'HRNXXXXX' | dd of="$HERON_ROOT/badrelay/relay.2" conv=notrunc status=none
json=$("$STAT" --json -i 0 2>"$WORK/stat.err")
[[ ! -s $WORK/stat.err ]] || fail "a sample with damaged tables wrote to standard error: $(cat "$WORK/stat.err")"
reason() { jq -r --arg t "$1" '.tables[] | select(.name == $t) | [.state, (.problems[] | .text)] | join(" | ")' <<<"$json"; }
[[ $(reason norelay) == "broken | $HERON_ROOT/norelay/relay.2: No such file or directory"* ]] ||
  fail "norelay: $(reason norelay)"
[[ $(reason badrelay) == "broken | Relay $HERON_ROOT/badrelay validation failed: bad magic 0x"* ]] ||
  fail "badrelay: $(reason badrelay)"
[[ $(reason badquarry) == "broken | $HERON_ROOT/badquarry/quarry: not a region allocator file"* ]] ||
  fail "badquarry: $(reason badquarry)"
[[ $(reason badowner) == "broken | $HERON_ROOT/badowner/owner: 7 bytes, shorter than its 128-byte header"* ]] ||
  fail "badowner: $(reason badowner)"
[[ $(reason shortember) == "broken | $HERON_ROOT/shortember/ember: 5 bytes, shorter than its 64-byte header"* ]] ||
  fail "shortember: $(reason shortember)"
[[ $(jq -r '.tables[] | select(.name == "fast") | .state' <<<"$json") == ok ]] || fail "fast is not reported ok"
[[ $(jq -r '.tables | length' <<<"$json") -eq 8 ]] || fail "not every table is reported: $(jq -c '[.tables[].name]' <<<"$json")"
"$STAT" -i 0 | matches "^critical  badquarry: $HERON_ROOT/badquarry/quarry: not a region allocator file$" ||
  fail "the text view does not give the reason: $("$STAT" -i 0)"
echo "damaged tables: broken with their reasons, the others still reported"

# --all-roots: a table under another root that a process maps is shown by its
# full path; without it only the root's tables are.
mkdir -p "$WORK/other"
HERON_ROOT=$WORK/other "$SIM" create away >/dev/null
HERON_ROOT=$WORK/other "$SIM" write away --rate 100 >"$WORK/away.log" 2>&1 &
STARTED+=("$!")
wait_for_line "$WORK/away.log" "attached to" 10 || fail "the writer of away did not attach: $(cat "$WORK/away.log")"
away=$(cd "$WORK/other/away" && pwd -P)
[[ $(field "$away" .state -i 0 --all-roots) == ok ]] || fail "--all-roots does not show $away: $("$STAT" -i 0 --all-roots)"
[[ -z $(field "$away" .state -i 0) ]] || fail "$away is shown without --all-roots"
echo "--all-roots: $away shown"
echo PASS
