#!/usr/bin/env bash
# scripts/beside.sh, which make test runs its side work with: the status is
# the command's, or 1 when only the work beside failed; the work beside runs
# at nice 19 and its output comes after the command's, with -q only when it
# failed.
source "$(dirname "$0")/sim_lib/common.sh"
BESIDE=$(dirname "$0")/../../scripts/beside.sh

run() {
  local status=0
  bash "$BESIDE" "$@" >"$WORK/out" 2>"$WORK/err" || status=$?
  echo "$status"
}

[[ $(run 'echo side' echo main) == 0 ]] || fail "both succeeding: not status 0"
[[ $(cat "$WORK/out") == $'main\nside' ]] || fail "output not in order: $(cat "$WORK/out")"
[[ $(run -q 'echo side' echo main) == 0 && $(cat "$WORK/out") == main ]] ||
  fail "-q showed a succeeding side's output: $(cat "$WORK/out")"
[[ $(run -q 'echo side; exit 4' echo main) == 1 ]] || fail "a failing side alone: not status 1"
[[ $(cat "$WORK/out") == $'main\nside' ]] || fail "-q hid a failing side's output: $(cat "$WORK/out")"
matches 'failed: echo side; exit 4' "$WORK/err" || fail "no line naming the failed side: $(cat "$WORK/err")"
[[ $(run 'exit 4' bash -c 'exit 3') == 3 ]] || fail "both failing: not the command's status"
[[ $(run 'true' bash -c 'exit 3') == 3 ]] || fail "a failing command: not its status"
[[ $(run 'nice' true) == 0 && $(cat "$WORK/out") == 19 ]] || fail "the side does not run at nice 19: $(cat "$WORK/out")"
echo PASS
