#!/usr/bin/env bash
# Cross-width: tables written by the 64-bit heron-sim are read by the 32-bit
# heron, and the other way round, and both widths print the same dump of a
# table whose writer has stopped.
#
# Needs the 32-bit build: `make m32` (build-m32/ at the top of the source
# tree; HERON_M32_BIN names another bin directory). Without it the test says
# so and reports itself skipped (status 77). Where the kernel cannot run 32-bit programs
# itself, they run under qemu-i386 (Debian qemu-user).
source "$(dirname "$0")/sim_lib/common.sh"
M32=${HERON_M32_BIN:-${HERON_SOURCE:-$(cd "$(dirname "$0")/../.." && pwd)}/build-m32/bin}
if [[ ! -x $M32/heron || ! -x $M32/heron-sim ]]; then
  echo "SKIP: no 32-bit build at $M32 (run 'make m32' first)"
  exit 77
fi
RUN32=()
if ! "$M32/heron" -h >/dev/null 2>&1; then
  command -v qemu-i386 >/dev/null ||
    fail "this kernel cannot run the 32-bit build and qemu-i386 is missing (apt-get install qemu-user)"
  RUN32=(qemu-i386)
  "${RUN32[@]}" "$M32/heron" -h >/dev/null || fail "$M32/heron does not run under qemu-i386"
  echo "running the 32-bit build under qemu-i386"
fi
H64=("$BIN/heron")
S64=("$BIN/heron-sim")
H32=("${RUN32[@]}" "$M32/heron")
S32=("${RUN32[@]}" "$M32/heron-sim")

# cross WIDTH NAME: a table written by the heron-sim of WIDTH (64 or 32),
# read by the heron of the other.
cross() {
  local width=$1 name=$2 log=$WORK/$2.writer.log
  local -n wsim=S$width
  local other=$((width == 64 ? 32 : 64))
  local -n rheron=H$other
  local wbin="$width-bit heron-sim" rbin="$other-bit heron"
  "${wsim[@]}" create "$name" --capacity 256 >/dev/null || fail "create $name with $wbin"
  "${wsim[@]}" write "$name" --rate 20000 --grow-every 3000 --max-capacity 2048 --region-every 2500 \
    >"$log" 2>&1 &
  local pid=$!
  STARTED+=("$pid")
  wait_for_line "$log" "^writer $pid attached" 10 || fail "writer of $name did not attach: $(cat "$log")"
  # Read once the writer has grown the queue and its notifications show.
  grown() {
    "${rheron[@]}" -s "$name" 2>/dev/null | matches 'Notifications: [0-9]* (v[2-9]' &&
      "${rheron[@]}" -q "$name" 2>/dev/null | matches 'seq: [1-9]'
  }
  wait_until 30 grown || fail "$rbin never saw the queue of $name grow (writer: $wbin)"
  local args
  for args in "-s" "-d" "-q" "-a -e" "-R" "-w"; do
    # shellcheck disable=SC2086
    "${rheron[@]}" $args "$name" >"$WORK/out.txt" 2>"$WORK/err.txt" ||
      fail "$rbin $args $name (writer: $wbin) exited with $?: $(tail -2 "$WORK/err.txt")"
  done
  "${rheron[@]}" -A >"$WORK/out.txt" || fail "$rbin -A"
  grep -qF "\"$name\"" "$WORK/out.txt" || fail "$rbin -A does not show $name"
  grep -q "seq: [0-9]" <("${rheron[@]}" -q "$name" 2>/dev/null) || fail "$rbin -q $name shows no notification"
  stop_pid "$pid" || fail "writer $wbin of $name exited with $?"

  # Writer stopped: both widths must print the same dump, byte for byte,
  # apart from the scan's own timing line.
  local a b
  for args in "-s" "-d" "-a -e" "-R -e" "-w"; do
    # shellcheck disable=SC2086
    a=$("${H64[@]}" $args "$name" 2>&1 | grep -v -E 'scanned in|Restarted')
    # shellcheck disable=SC2086
    b=$("${H32[@]}" $args "$name" 2>&1 | grep -v -E 'scanned in|Restarted')
    [[ $a == "$b" ]] || fail "heron $args $name differs between widths: $(diff <(echo "$a") <(echo "$b") | head -5)"
  done
  echo "$name: written by $wbin, read by $rbin: ok"
}

cross 64 wide64
cross 32 wide32
echo PASS
