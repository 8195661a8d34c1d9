#!/usr/bin/env bash
# heron-sim shadow opens a table's files as every reader does: a symbolic
# link or a FIFO in place of relay.1 is refused at once as "not a regular
# file", never followed and never waited on.
source "$(dirname "$0")/sim_lib/common.sh"

for kind in link fifo; do
  "$SIM" create "$kind" >/dev/null
  rm "$HERON_ROOT/$kind/relay.1"
  case $kind in
    link) ln -s /etc/passwd "$HERON_ROOT/$kind/relay.1" ;;
    fifo) mkfifo "$HERON_ROOT/$kind/relay.1" ;;
  esac
  status=0
  timeout 20 "$SIM" shadow "$kind" --duration 1 >"$WORK/out" 2>"$WORK/err" || status=$?
  [[ $status -eq 1 ]] || fail "shadow over a $kind: status $status: $(cat "$WORK/err")"
  matches -F "heron-sim shadow: " "$WORK/err" || fail "shadow over a $kind said: $(cat "$WORK/err")"
  matches -F "/$kind/relay.1: not a regular file" "$WORK/err" || fail "shadow over a $kind said: $(cat "$WORK/err")"
  [[ ! -s $WORK/out ]] || fail "shadow over a $kind attached: $(cat "$WORK/out")"
  echo "$kind: $(cat "$WORK/err")"
done
echo PASS
