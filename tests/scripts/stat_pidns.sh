#!/usr/bin/env bash
# Writers and heron-stat in different PID namespaces (a container that shares
# the collection root): a writer under `unshare --pid` is ok in every mode,
# with its host pid shown, and dead within 2 s of SIGKILL although a host
# process has its in-namespace pid (1); its shadow, in yet another
# namespace, is counted. heron-stat itself under `unshare --pid` cannot see
# the host's writer: ok while the heartbeat is fresh, stale once it is
# stopped, never dead, and it says the heartbeat was the evidence.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
[[ $(id -u) -eq 0 ]] || { echo "SKIP: unshare --pid needs root"; exit 77; }
unshare --pid --fork --mount-proc true 2>/dev/null || { echo "SKIP: unshare --pid is not allowed here"; exit 77; }
command -v jq >/dev/null || fail "jq is not installed (scripts/install-deps.sh installs it)"

# in_namespace LOG COMMAND...: runs COMMAND as pid 1 of a new PID namespace
# (with its own /proc); sets NS_PID to its host pid once LOG has a line.
in_namespace() {
  local log=$1
  shift
  unshare --pid --fork --mount-proc "$@" >"$log" 2>&1 &
  local outer=$!
  STARTED+=("$outer")
  wait_until 10 pgrep -P "$outer" >/dev/null || fail "nothing started under unshare: $(cat "$log")"
  NS_PID=$(pgrep -P "$outer")
  STARTED=("$NS_PID" "${STARTED[@]}")
  wait_until 10 test -s "$log" || fail "$* said nothing: $(cat "$log")"
}

# writer_field TABLE JQ-FILTER [heron-stat options]
writer_field() {
  local table=$1 filter=$2
  shift 2
  "$STAT" --json -i 0 "$@" | jq -r --arg t "$table" ".tables[] | select(.name == \$t) | $filter"
}

# The state compared last stays in STATE, for the failure message: sampled
# again, it could already have moved on.
state_is() {
  STATE=$(writer_field "$1" .state "${@:3}")
  [[ $STATE == "$2" ]]
}

"$SIM" create boxed >/dev/null
in_namespace "$WORK/boxed.log" "$SIM" write boxed --rate 1000
BOXED=$NS_PID
wait_for_line "$WORK/boxed.log" '^writer 1 attached to ' 10 || fail "boxed writer: $(cat "$WORK/boxed.log")"
in_namespace "$WORK/shadow.log" "$SIM" shadow boxed
SHADOW=$NS_PID
wait_for_line "$WORK/shadow.log" '^shadow 1 attached to ' 10 || fail "boxed shadow: $(cat "$WORK/shadow.log")"
ns=$(stat -L -c %i "/proc/$BOXED/ns/pid")
[[ $ns != "$(stat -L -c %i /proc/self/ns/pid)" ]] || fail "the writer runs in our own PID namespace"

# Found from the host, in every mode.
json=$("$STAT" --json -i 0 | jq -c '.tables[] | select(.name == "boxed")')
[[ $(jq -r .state <<<"$json") == ok ]] || fail "boxed is not ok: $json"
w=$(jq -c .writer <<<"$json")
[[ $(jq -r .pid <<<"$w") == "$BOXED" ]] || fail "pid is not the host pid $BOXED: $w"
[[ $(jq -r .namespace_pid <<<"$w") == 1 ]] || fail "namespace_pid is not 1: $w"
[[ $(jq -r .pid_namespace <<<"$w") == "$ns" ]] || fail "pid_namespace is not $ns: $w"
[[ $(jq -r '.liveness + " " + (.alive|tostring) + " " + (.maps_table|tostring)' <<<"$w") == "process true true" ]] ||
  fail "liveness: $w"
[[ $(jq -r '.clients.shadows == ['"$SHADOW"']' <<<"$json") == true ]] || fail "the boxed shadow is not counted: $json"
state_is boxed ok --no-clients || fail "boxed is not ok without the client walk"
"$STAT" -i 0 | matches -E "^boxed +ok +$BOXED " || fail "text view: $("$STAT" -i 0)"
"$STAT" --prometheus -i 0 | matches '^heron_writer_up{table="boxed"} 1$' || fail "prometheus: not up"
"$STAT" --check -i 0 >"$WORK/check.txt" || fail "--check: $(cat "$WORK/check.txt")"

# SIGKILL: host pid 1 runs, yet the writer is dead within 2 s.
kill -KILL "$BOXED"
wait_until 2 state_is boxed dead || fail "boxed is '$STATE' 2 s after SIGKILL"
state_is boxed dead --no-clients || fail "boxed is not dead without the client walk"
"$STAT" -i 0 | matches "boxed: writer 1 (pid namespace $ns) is not running" || fail "dead text: $("$STAT" -i 0)"
status=0
"$STAT" --check -i 0 >/dev/null || status=$?
[[ $status -eq 2 ]] || fail "--check status $status after SIGKILL, not 2"

# heron-stat inside a container; the writer on the host.
"$SIM" create host >/dev/null
start_writer host --rate 1000
inside() { unshare --pid --fork --mount-proc "$STAT" "$@"; }
w=$(inside --json -i 0 | jq -c '.tables[] | select(.name == "host")')
[[ $(jq -r .state <<<"$w") == ok ]] || fail "host writer from inside: $w"
[[ $(jq -r '.writer.liveness + " " + (.writer.pid|tostring) + " " + (.writer.alive|tostring)' <<<"$w") == \
  "heartbeat null null" ]] || fail "evidence from inside: $w"
inside -i 0 | matches -E "^host +ok +$WRITER_PID\\* " || fail "inside text: $(inside -i 0)"
inside -i 0 | matches "^\\* .*heartbeat" || fail "inside text has no note on the evidence: $(inside -i 0)"
inside --check -i 0 >/dev/null || fail "--check from inside is not OK"

# A stopped writer would not end on cleanup's SIGTERM.
trap 'kill -CONT "$WRITER_PID" 2>/dev/null; cleanup' EXIT
kill -STOP "$WRITER_PID"
inside_state() { [[ $(inside --json -i 0 --stale 1 | jq -r '.tables[] | select(.name == "host") | .state') == "$1" ]]; }
wait_until 5 inside_state stale || fail "stopped host writer is not stale from inside"
for _ in 1 2 3; do
  inside_state stale || fail "stopped host writer is not stale from inside: $(inside -i 0 --stale 1)"
done
status=0
inside --check -i 0 --stale 1 >/dev/null || status=$?
[[ $status -eq 1 ]] || fail "--check status $status from inside for a stopped writer, not 1"
kill -CONT "$WRITER_PID"
wait_until 5 inside_state ok || fail "resumed host writer is not ok from inside"
echo "PASS"
