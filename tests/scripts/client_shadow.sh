#!/usr/bin/env bash
# heron-sim shadow end to end: read-only and --rw attachments announced on
# stdout, seen by heron -w with the right role, gone after --duration.
set -euo pipefail
BIN=${HERON_BIN:-build/bin}
HERON_ROOT=$(mktemp -d /tmp/heron-client-script.XXXXXX)
export HERON_ROOT
PIDS=()
# grep -q that reads its whole input, so that the writer of a pipe never
# dies of SIGPIPE under pipefail.
matches() {
  grep "$@" >/dev/null
}
cleanup() {
  if ((${#PIDS[@]})); then kill "${PIDS[@]}" 2>/dev/null || true; fi
  rm -rf "$HERON_ROOT"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

"$BIN/heron-sim" create t >/dev/null
ROOT=$(realpath "$HERON_ROOT")

# Waits until file $1 holds a line, then prints the announced pid.
announced_pid() {
  for _ in $(seq 100); do
    if [[ -s "$1" ]]; then awk '{print $2; exit}' "$1"; return; fi
    sleep 0.05
  done
  fail "no announcement in $1"
}

"$BIN/heron-sim" shadow t --rw >"$HERON_ROOT/w.out" &
PIDS+=($!)
"$BIN/heron-sim" shadow t --duration 1 >"$HERON_ROOT/s.out" &
PIDS+=($!)
writer=$(announced_pid "$HERON_ROOT/w.out")
shadow=$(announced_pid "$HERON_ROOT/s.out")
[[ "$(cat "$HERON_ROOT/w.out")" == "shadow $writer attached to $ROOT/t" ]] || fail "writer announcement"
[[ "$(cat "$HERON_ROOT/s.out")" == "shadow $shadow attached to $ROOT/t" ]] || fail "shadow announcement"

grep -q "$ROOT/t/relay.1$" "/proc/$shadow/maps" || fail "shadow does not map relay.1"
grep "$ROOT/t/relay.1$" "/proc/$shadow/maps" | matches ' r--s ' || fail "shadow mapping is not read-only"
grep "$ROOT/t/relay.1$" "/proc/$writer/maps" | matches ' rw-s ' || fail "--rw mapping is not read-write shared"

out=$("$BIN/heron" -w t 2>/dev/null)
grep -qx "Writer: heron-sim-$writer(heron-sim)" <<<"$out" || fail "writer not listed: $out"
grep -qx "Shadow: heron-sim-$shadow(heron-sim)" <<<"$out" || fail "shadow not listed: $out"

# --duration ends the shadow by itself.
for _ in $(seq 60); do
  kill -0 "$shadow" 2>/dev/null || break
  sleep 0.05
done
kill -0 "$shadow" 2>/dev/null && fail "shadow still running after --duration"
out=$("$BIN/heron" -w t 2>/dev/null)
grep -q "^Shadow:" <<<"$out" && fail "shadow still listed: $out"

# SIGTERM ends the writer-role shadow with status 0.
kill -TERM "$writer"
wait "$writer" || fail "shadow --rw did not exit cleanly on SIGTERM"

# A missing table is a one-line error and status 1.
if "$BIN/heron-sim" shadow nosuch 2>"$HERON_ROOT/err"; then fail "shadow of a missing table succeeded"; fi
[[ $(wc -l <"$HERON_ROOT/err") -eq 1 ]] || fail "error is not one line"
echo "1 passed, 0 failed"
