#!/usr/bin/env bash
# make demo: installs what is missing, builds, starts a live demo collection
# in a temporary HERON_ROOT, runs each heron report against it with a title
# line, and stops everything again.
#
#   bash scripts/demo.sh [BUILD_DIR]      (make demo does this)
#
# DEMO_WARMUP (seconds the writers run before the first report, default 2)
# and DEMO_LINES (lines shown of each report, default 40; 0 shows all).
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build}
WARMUP=${DEMO_WARMUP:-2}
LINES=${DEMO_LINES:-40}

bash scripts/install-deps.sh
if [[ ! -f $BUILD/build.ninja ]]; then
  cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$BUILD" -j "$(nproc)" --target heron_launcher heron-sim heron-stat
BIN=$(cd "$BUILD/bin" && pwd)

HERON_ROOT=$(mktemp -d "${TMPDIR:-/tmp}/heron-demo.XXXXXX")
export HERON_ROOT
LOG=$HERON_ROOT.log
DEMO_PID=""
finish() {
  if [[ -n $DEMO_PID ]] && kill -0 "$DEMO_PID" 2>/dev/null; then
    kill -INT "$DEMO_PID" 2>/dev/null || true
    wait "$DEMO_PID" 2>/dev/null || true
  fi
  rm -f "$LOG"
  rmdir "$HERON_ROOT" 2>/dev/null || true
}
trap finish EXIT
trap 'exit 130' INT TERM

title() {
  if [[ -t 1 ]]; then
    printf '\n\033[1m==> %s\033[0m\n' "$*"
  else
    printf '\n==> %s\n' "$*"
  fi
}

title "heron-sim demo (HERON_ROOT=$HERON_ROOT)"
"$BIN/heron-sim" demo --duration 600 >"$LOG" 2>&1 &
DEMO_PID=$!
for _ in $(seq 1 200); do
  grep -q '^demo running' "$LOG" && break
  kill -0 "$DEMO_PID" 2>/dev/null || break
  sleep 0.1
done
cat "$LOG"
grep -q '^demo running' "$LOG" || { echo "the demo did not start" >&2; exit 1; }

TABLE=md/eu/quotes
WRITER=$(sed -n 's/^  heron -c \([0-9][0-9]*\) .*/\1/p' "$LOG" | head -1)
REGION=$(sed -n 's/^  heron -R -r \([0-9][0-9]*\) .*/\1/p' "$LOG" | head -1)
if [[ -z $REGION ]]; then
  REGION=$(ls "$HERON_ROOT/$TABLE" | sed -n 's/^region\.\([0-9][0-9]*\)$/\1/p' | sort -n | head -1)
fi
REGION=${REGION:-1}
sleep "$WARMUP"

failed=0
run() {
  local what=$1
  shift
  title "heron $*   ($what)"
  local status=0 out
  out=$(mktemp)
  "$BIN/heron" "$@" >"$out" 2>&1 || status=$?
  if [[ $LINES -gt 0 && $(wc -l <"$out") -gt $LINES ]]; then
    head -n "$LINES" "$out"
    echo "... ($(wc -l <"$out") lines in all; DEMO_LINES=0 shows everything)"
  else
    cat "$out"
  fi
  rm -f "$out"
  if [[ $status -ne 0 ]]; then
    echo "!! heron $* exited with status $status"
    failed=$((failed + 1))
  fi
}

run "every table, its capacity, writer and shadows" -A
run "owner, queue headers and allocator totals" -s "$TABLE"
run "the same with one row per region" -d "$TABLE"
run "the live notifications of the active queue" -q "$TABLE"
run "the entries of region $REGION" -R -r "$REGION" "$TABLE"
run "the processes attached to the table" -w "$TABLE"
run "the tables that the writer $WRITER is attached to" -c "$WRITER"

title "heron-stat   (every table's state, writer, rate, queue and allocator at a glance)"
status=0
"$BIN/heron-stat" || status=$?
if [[ $status -ne 0 ]]; then
  echo "!! heron-stat exited with status $status"
  failed=$((failed + 1))
fi

title "stopping the demo"
kill -INT "$DEMO_PID"
wait "$DEMO_PID" || true
tail -n +$(($(grep -n '^demo running' "$LOG" | cut -d: -f1) + 1)) "$LOG"
DEMO_PID=""
if [[ -n $(ls -A "$HERON_ROOT") ]]; then
  echo "!! the demo left files under $HERON_ROOT" >&2
  failed=$((failed + 1))
fi
if [[ $failed -ne 0 ]]; then
  echo "$failed step(s) failed" >&2
  exit 1
fi
echo
echo "All reports ran. Start your own with: $BIN/heron-sim demo   (Ctrl-C stops it)"
