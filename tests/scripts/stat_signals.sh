#!/usr/bin/env bash
# A stop signal ends heron-stat soon even while its reader has stopped
# reading: --watch --json into a FIFO whose reader holds it open and reads
# nothing fills the pipe, and SIGTERM or SIGINT still ends it (status 0)
# within about a second, not when the reader goes.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
for name in a b c d e; do
  "$SIM" create "md/$name" >/dev/null
done

# written PID: bytes the process has written so far.
written() { awk '/^wchar:/ { print $2 }' "/proc/$1/io"; }
# stuck PID: true when PID, which samples every 10 ms, has written nothing
# more over the last ten checks (half a second): it waits for its reader.
# How much the pipe holds depends on how the writes fall into its pages.
stuck() {
  local now
  now=$(written "$1")
  if ((now > 0 && now == last)); then
    ((++same >= 10))
  else
    same=0
    last=$now
    return 1
  fi
}
# ended PID: PID has exited (gone, or a zombie not yet reaped).
ended() { [[ ! -e /proc/$1/io || -z $(ps -o stat= -p "$1" | grep -v Z) ]]; }

for signal in TERM INT; do
  rm -f "$WORK/fifo"
  mkfifo "$WORK/fifo"
  # A reader that opens the pipe and never reads it: heron-stat's writes
  # fill it and block. Killed by the cleanup.
  sleep 600 <"$WORK/fifo" &
  reader=$!
  STARTED+=("$reader")
  "$STAT" --watch --json -i 0.01 >"$WORK/fifo" 2>"$WORK/err" &
  pid=$!
  STARTED+=("$pid")
  last=-1
  same=0
  wait_until 30 stuck "$pid" || fail "heron-stat never filled the pipe: $(written "$pid") bytes"
  start=$(date +%s%N)
  kill -"$signal" "$pid"
  wait_until 5 ended "$pid" ||
    fail "SIG$signal did not end heron-stat while its reader did not read"
  status=0
  wait "$pid" || status=$?
  elapsed=$((($(date +%s%N) - start) / 1000000))
  [[ $status -eq 0 ]] || fail "SIG$signal: status $status: $(cat "$WORK/err")"
  [[ ! -s $WORK/err ]] || fail "SIG$signal: said $(cat "$WORK/err")"
  echo "SIG$signal ended heron-stat blocked on its output after $elapsed ms"
  kill "$reader"
  wait "$reader" 2>/dev/null || true
done
echo PASS
