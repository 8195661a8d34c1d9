#!/usr/bin/env bash
# Soak: several writers flat out (growing their queues, switching tables,
# creating and deleting regions), shadows coming and going, and every heron
# report in a loop against them. Fails on a crash or a failed report, on a
# torn record in what heron prints, and on any table file that heron alone
# could have changed.
#
# HERON_SOAK_SECONDS sets the length (default 40 s; make test keeps it).
source "$(dirname "$0")/sim_lib/common.sh"
SOAK=${HERON_SOAK_SECONDS:-40}
PAYLOAD_MAX=200
LIVE=(soak/a soak/b soak/c)
STILL=soak/still

for t in "${LIVE[@]}" "$STILL"; do
  "$SIM" create "$t" --capacity 512 >/dev/null
done
# A table whose writer has stopped: nothing may change in it from here on.
"$SIM" write "$STILL" --flat-out --duration 1 --payload-max $PAYLOAD_MAX >/dev/null

snapshot() {
  local f
  for f in "$HERON_ROOT/$STILL"/* "$HERON_ROOT"/soak/[abc]/owner; do
    printf '%s %s\n' "$(stat -c '%n %i %s %Y %y' "$f")" "$(sha256sum <"$f" | cut -c1-64)"
  done
}
snapshot >"$WORK/before.txt"

declare -A WRITERS
for t in "${LIVE[@]}"; do
  log=$WORK/writer.${t//\//_}.log
  nice -n 10 "$SIM" write "$t" --flat-out --payload-max $PAYLOAD_MAX --grow-every 20000 --max-capacity 16384 \
    --region-every 7000 >"$log" 2>&1 &
  pid=$!
  STARTED+=("$pid")
  WRITERS[$t]=$pid
  wait_for_line "$log" "^writer $pid attached" 10 || fail "writer of $t did not attach: $(cat "$log")"
done

# A record is torn when the size heron prints is not the one the writer gave
# that sequence (the writer derives it from the sequence alone), or when a
# region entry's text names a sequence whose letter it does not carry.
check_records() {
  awk -v span=$((PAYLOAD_MAX - 7)) '
    BEGIN { k = 2654435761 % span; bad = 0; n = 0; cur = 4294967296 }
    # Only published slots are records: with -e a table is dumped whole,
    # and slots at or past its currentPos may be mid-write.
    /currentPos:[0-9]+/ { cur = $0; sub(/.*currentPos:/, "", cur); cur += 0 }
    /^pos: [0-9]+ .*seq: [0-9]+ .*size: [0-9]+/ && $2 + 0 >= cur { next }
    /seq: [0-9]+ .*size: [0-9]+/ {
      seq = $0; sub(/.*seq: /, "", seq); sub(/ .*/, "", seq)
      size = $0; sub(/.*size: /, "", size); sub(/[^0-9].*/, "", size)
      want = 8 + ((seq % span) * k) % span
      n++
      if (size + 0 != want) { print "torn notification: " $0 " (size " want " expected)"; bad = 1 }
    }
    /\|seq=[0-9]+ [a-z]/ {
      text = $0; sub(/.*\|seq=/, "", text)
      seq = text; sub(/ .*/, "", seq)
      letter = substr(text, length(seq) + 2, 1)
      want = sprintf("%c", 97 + seq % 26)
      n++
      if (letter != want) { print "torn entry: " $0 " (letter " want " expected)"; bad = 1 }
    }
    END { print n > "/dev/stderr"; exit bad }' "$1" 2>>"$WORK/records.txt"
}

run_heron() {
  local status=0
  timeout 60 "$HERON" "$@" >"$WORK/out.txt" 2>"$WORK/err.txt" || status=$?
  runs=$((runs + 1))
  if [[ $status -ge 124 ]]; then
    fail "heron $* crashed or hung (status $status): $(tail -3 "$WORK/err.txt")"
  fi
  [[ $status -eq 0 ]] || fail "heron $* exited with $status: $(tail -3 "$WORK/err.txt")"
  if grep -q -E 'AddressSanitizer|runtime error:|LeakSanitizer' "$WORK/err.txt"; then
    fail "heron $* reported: $(grep -m3 -E 'AddressSanitizer|runtime error:' "$WORK/err.txt")"
  fi
  check_records "$WORK/out.txt" || fail "heron $* printed a torn record: $(check_records "$WORK/out.txt" | head -3)"
}

shadows=()
runs=0
end=$((SECONDS + SOAK))
round=0
while [[ $SECONDS -lt $end ]]; do
  round=$((round + 1))
  t=${LIVE[$((round % 3))]}
  # Shadows come and go: one more each round, the oldest leaves past four.
  "$SIM" shadow "$t" >/dev/null 2>&1 &
  shadows+=($!)
  STARTED+=($!)
  if [[ ${#shadows[@]} -gt 4 ]]; then
    kill -TERM "${shadows[0]}" 2>/dev/null || true
    wait "${shadows[0]}" 2>/dev/null || true
    shadows=("${shadows[@]:1}")
  fi
  run_heron -A
  run_heron -s "$t"
  run_heron -d -O "$t"
  run_heron -q "$t"
  run_heron -a -e "$t"
  run_heron -R "$t"
  run_heron -w "$t"
  run_heron -c "${WRITERS[$t]}"
  run_heron -a -e "$STILL"
  for w in "${LIVE[@]}"; do
    kill -0 "${WRITERS[$w]}" 2>/dev/null || fail "the writer of $w died: $(cat "$WORK/writer.${w//\//_}.log")"
  done
done

for pid in "${shadows[@]}"; do
  stop_pid "$pid" || true
done
for t in "${LIVE[@]}"; do
  stop_pid "${WRITERS[$t]}" || fail "the writer of $t exited with $?: $(cat "$WORK/writer.${t//\//_}.log")"
done

snapshot >"$WORK/after.txt"
diff "$WORK/before.txt" "$WORK/after.txt" >"$WORK/diff.txt" || fail "table files changed: $(cat "$WORK/diff.txt")"
records=$(awk '{s += $1} END {print s + 0}' "$WORK/records.txt")
[[ $records -gt 0 ]] || fail "no record was checked"
echo "soak: $SOAK s, $round rounds, $runs heron runs, $records records checked"
grep -h appended "$WORK"/writer.*.log || true
echo PASS
