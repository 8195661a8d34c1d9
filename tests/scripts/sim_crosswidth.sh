#!/usr/bin/env bash
# Cross-width: tables written by the 64-bit heron-sim are read by the 32-bit
# heron, and the other way round, and both widths print the same dump of a
# table whose writer has stopped.
#
# Needs the 32-bit build: `make m32` (build-m32/ at the top of the source
# tree; HERON_M32_BIN names another bin directory). Without it the test says
# so and passes as skipped.
source "$(dirname "$0")/sim_lib/common.sh"
M32=${HERON_M32_BIN:-${HERON_SOURCE:-$(cd "$(dirname "$0")/../.." && pwd)}/build-m32/bin}
if [[ ! -x $M32/heron || ! -x $M32/heron-sim ]]; then
  echo "SKIP: no 32-bit build at $M32 (run 'make m32' first)"
  exit 0
fi
file -L "$M32/heron-sim" 2>/dev/null | grep -q '32-bit' || [[ ! -x /usr/bin/file ]] || fail "$M32/heron-sim is not 32-bit"

# cross WRITER_BIN READER_BIN NAME
cross() {
  local wbin=$1 rbin=$2 name=$3 log=$WORK/$3.writer.log
  "$wbin/heron-sim" create "$name" --capacity 256 >/dev/null || fail "create $name with $wbin"
  "$wbin/heron-sim" write "$name" --rate 20000 --grow-every 3000 --max-capacity 2048 --region-every 2500 \
    >"$log" 2>&1 &
  local pid=$!
  STARTED+=("$pid")
  wait_for_line "$log" "^writer $pid attached" 10 || fail "writer of $name did not attach: $(cat "$log")"
  sleep 1
  local args
  for args in "-s" "-d" "-q" "-a -e" "-R" "-w"; do
    # shellcheck disable=SC2086
    "$rbin/heron" $args "$name" >"$WORK/out.txt" 2>"$WORK/err.txt" ||
      fail "$rbin/heron $args $name (writer $wbin) exited with $?: $(tail -2 "$WORK/err.txt")"
  done
  "$rbin/heron" -A >"$WORK/out.txt" || fail "$rbin/heron -A"
  grep -qF "\"$name\"" "$WORK/out.txt" || fail "$rbin/heron -A does not show $name"
  grep -q "seq: [0-9]" <("$rbin/heron" -q "$name") || fail "$rbin/heron -q $name shows no notification"
  stop_pid "$pid" || fail "writer $wbin of $name exited with $?"

  # Writer stopped: both widths must print the same dump, byte for byte,
  # apart from the scan's own timing line.
  local a b
  for args in "-s" "-d" "-a -e" "-R -e" "-w"; do
    # shellcheck disable=SC2086
    a=$("$BIN/heron" $args "$name" 2>&1 | grep -v -E 'scanned in|Restarted')
    # shellcheck disable=SC2086
    b=$("$M32/heron" $args "$name" 2>&1 | grep -v -E 'scanned in|Restarted')
    [[ $a == "$b" ]] || fail "heron $args $name differs between widths: $(diff <(echo "$a") <(echo "$b") | head -5)"
  done
  echo "$name: written by $wbin, read by $rbin: ok"
}

cross "$BIN" "$M32" wide64
cross "$M32" "$BIN" wide32
echo PASS
