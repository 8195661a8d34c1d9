# Starting and inspecting `heron-sim demo` for the demo_* tests.

# start_demo [demo options]: sets DEMO_PID and DEMO_LOG once it runs.
# Each start gets a log of its own: with one shared file, the background
# child truncates it only once it runs, and the wait below could meanwhile
# read the previous demo's "demo running" and signal a demo not yet started.
start_demo() {
  DEMO_STARTS=$((${DEMO_STARTS:-0} + 1))
  DEMO_LOG=$WORK/demo.$DEMO_STARTS.log
  : >"$DEMO_LOG"
  "$SIM" demo "$@" >"$DEMO_LOG" 2>&1 &
  DEMO_PID=$!
  STARTED+=("$DEMO_PID")
  wait_for_line "$DEMO_LOG" '^demo running' 20 || fail "the demo did not start: $(cat "$DEMO_LOG")"
}

# The pids of every process the demo started, from its table.
demo_child_pids() {
  awk '/^  table +type +writer +shadows/ {on = 1; next}
       on && NF == 0 {exit}
       on {for (i = 3; i <= NF; i++) if ($i ~ /^[0-9]+$/) print $i}' "$DEMO_LOG"
}

# True while a pid still runs heron-sim (not merely reused).
is_sim() {
  [[ -r /proc/$1/cmdline ]] && tr '\0' ' ' <"/proc/$1/cmdline" 2>/dev/null | matches 'heron-sim'
}

# none_runs PIDS...: true when none of them is a running heron-sim.
none_runs() {
  local pid
  for pid in "$@"; do
    is_sim "$pid" && return 1
  done
  return 0
}

# assert_all_gone PIDS...: soon none of them runs any more. That they die
# with the demo is the point, not how fast: the deadline leaves room for a
# dozen exits under the sanitizers on busy cores.
assert_all_gone() {
  local pid left=""
  wait_until 30 none_runs "$@" && return 0
  for pid in "$@"; do
    is_sim "$pid" && left="$left $pid"
  done
  fail "processes left behind:$left"
}

# assert_clean_end WHEN PIDS...: the demo, told to stop or stopping by
# itself, exits with status 0, the PIDS (its children) end with it, and the
# collection is left empty. WHEN says which stop, for the failure message.
assert_clean_end() {
  local when=$1 status=0
  shift
  wait "$DEMO_PID" || status=$?
  [[ $status -eq 0 ]] || fail "the demo exited with $status $when"
  assert_all_gone "$@"
  [[ -z $(ls -A "$HERON_ROOT") ]] || fail "the demo left $(ls -A "$HERON_ROOT") $when"
}
