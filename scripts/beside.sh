#!/usr/bin/env bash
# beside.sh [-q] BACKGROUND COMMAND...: runs the shell command BACKGROUND at
# the lowest priority while COMMAND runs, then waits for it. BACKGROUND's
# output comes after COMMAND's, in one piece (with -q only when it failed).
# The status is COMMAND's, or 1 when only BACKGROUND failed.
#
# The tests spend much of their time waiting on the programs they start:
# work beside them at nice 19 takes the idle cores, not the tests' own.
set -uo pipefail
quiet=0
if [ "${1:-}" = -q ]; then
  quiet=1
  shift
fi
background=${1:?usage: beside.sh [-q] BACKGROUND COMMAND...}
shift
log=$(mktemp)
trap 'rm -f "$log"' EXIT
nice -n 19 bash -c "$background" >"$log" 2>&1 &
pid=$!
"$@"
status=$?
wait "$pid"
background_status=$?
if [ "$background_status" -ne 0 ] || [ "$quiet" -eq 0 ]; then
  cat "$log"
fi
if [ "$background_status" -ne 0 ]; then
  echo "beside.sh: failed: $background" >&2
  [ "$status" -ne 0 ] || status=1
fi
exit "$status"
