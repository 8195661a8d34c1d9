#!/usr/bin/env bash
# heron-stat --capture against a writer appending flat out, many times
# (HERON_CAPTURE_ROUNDS, default 8, half of them zstd): every bundle's queue
# files read offline with no restart, the manifest's sequence and sums match
# the copies, --from gives the manifest's sample, and the table files are
# neither opened for writing nor changed. Then the output rules and bundles
# that are damaged.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
ROUNDS=${HERON_CAPTURE_ROUNDS:-8}

"$SIM" create orders >/dev/null
"$SIM" create md/eu/quotes --capacity 4096 >/dev/null
start_writer orders --flat-out --region-every 5000
root=$(cd "$HERON_ROOT" && pwd -P)
quiet_sums() { (cd "$root/md/eu/quotes" && sha256sum -- *); }
quiet_before=$(quiet_sums)

# check_bundle_of TABLE BUNDLE: the bundle against its own manifest and heron.
check_bundle_of() {
  local table=$1 bundle=$2 out=$WORK/x
  rm -rf "$out" && mkdir "$out"
  tar -xf "$bundle" -C "$out" || fail "tar cannot extract $bundle"
  jq -e '.format_version == 1 and (.capture.end >= .capture.start) and (.host | length > 0)' \
    "$out/manifest.json" >/dev/null || fail "manifest head: $(head -c 400 "$out/manifest.json")"
  local torn
  torn=$(jq -r '.files[] | select(.torn and (.path | test("relay|quarry"))) | .path' "$out/manifest.json")
  [[ -z $torn ]] || fail "torn queue or allocator copies in $bundle: $torn"
  # Each file's sum in the manifest is the sum of the bytes in the bundle.
  jq -r '.files[] | "\(.sha256)  \(.path)"' "$out/manifest.json" >"$WORK/sums"
  (cd "$out" && sha256sum --quiet -c "$WORK/sums") || fail "manifest sums differ from $bundle's files"
  local report
  report=$(HERON_ROOT=$out/tables "$HERON" -q -e "$table") || fail "heron -q -e on the copy failed: $report"
  matches -x 'Restarted 0 times' <<<"$report" || fail "the copied queue needed restarts: $(tail -2 <<<"$report")"
  local copied manifest
  copied=$(HERON_ROOT=$out/tables "$HERON" -s "$table" | sed -n 's/^\tLatest writer sequence:\([0-9]*\)$/\1/p')
  manifest=$(jq --arg t "$table" '.sample.tables[] | select(.name == $t) | .queues.sequence' "$out/manifest.json")
  [[ -n $copied && $copied == "$manifest" ]] || fail "manifest sequence $manifest, copied queue $copied"
  jq -e --arg t "$table" '.tables[] | select(.name == $t) | .processes[] | select(.maps | length > 0) | .command |
    test("heron-sim write " + $t)' "$out/manifest.json" >/dev/null || fail "the writer is not among the processes"
  # --from renders the very sample the manifest holds.
  diff <("$STAT" --from "$bundle" --json | jq -S .) <(jq -S .sample "$out/manifest.json") >"$WORK/from.diff" ||
    fail "--from differs from the manifest's sample: $(head -20 "$WORK/from.diff")"
}
check_bundle() { check_bundle_of orders "$1"; }

for ((round = 1; round <= ROUNDS; round++)); do
  bundle=$WORK/capture.$round.tar
  ((round % 2 == 0)) && bundle+=.zst
  "$STAT" --capture "$bundle" -i 0.1 2>"$WORK/capture.err" || fail "capture $round: $(cat "$WORK/capture.err")"
  check_bundle "$bundle"
done
[[ $(quiet_sums) == "$quiet_before" ]] || fail "a capture changed a table file"
jq -e '.sample.tables[] | select(.name == "orders") | .state == "ok" and .queues.rate_per_second > 0' \
  "$WORK/x/manifest.json" >/dev/null || fail "the sample lacks the writer's state or rate"
for mode in "" --prometheus; do
  "$STAT" --from "$bundle" $mode >"$WORK/mode.out" || fail "--from $mode failed"
  matches orders "$WORK/mode.out" || fail "--from $mode does not show orders: $(head -3 "$WORK/mode.out")"
done
# The table without a writer was dead at capture: the verdict says so.
status=0
"$STAT" --from "$bundle" --check >"$WORK/mode.out" || status=$?
[[ $status == 2 ]] && matches '^HERON CRITICAL - 1 of 2 tables dead: md/eu/quotes' "$WORK/mode.out" ||
  fail "--from --check: status $status, $(cat "$WORK/mode.out")"

# --diff of two bundles: the advance is the difference of their sequences.
sequence_of() { tar -xOf "$1" manifest.json | jq '.sample.tables[] | select(.name == "orders") | .queues.sequence'; }
first=$WORK/capture.1.tar
"$STAT" --diff "$first" "$bundle" --json >"$WORK/diff.json" || fail "--diff failed"
expected=$(($(sequence_of "$bundle") - $(sequence_of "$first")))
jq -e --argjson n "$expected" '.tables[] | select(.name == "orders") | .queues.advance == $n and .queues.rate_per_second > 0
  and .writer_changed == false' "$WORK/diff.json" >/dev/null || fail "--diff advance is not $expected: $(cat "$WORK/diff.json")"
"$STAT" --diff "$first" "$bundle" >"$WORK/diff.txt" || fail "--diff text failed"
matches -x 'md/eu/quotes  dead, no change' "$WORK/diff.txt" || fail "--diff of the quiet table: $(cat "$WORK/diff.txt")"
"$STAT" --diff "$bundle" - >"$WORK/diff.txt" || fail "--diff against the live root failed"
matches -E "^  sequence $(sequence_of "$bundle") -> [0-9]+ \\(\\+[1-9]" "$WORK/diff.txt" ||
  fail "--diff against the live root: $(cat "$WORK/diff.txt")"

# Elsewhere, later: another root, and the writer gone since; the bundle
# still says what was.
"$STAT" --from "$bundle" --json | jq -S . >"$WORK/here.json"
stop_pid "$WRITER_PID" || true
HERON_ROOT=/nonexistent/root "$STAT" --from "$bundle" --json | jq -S . >"$WORK/elsewhere.json" ||
  fail "--from under another root failed"
diff "$WORK/here.json" "$WORK/elsewhere.json" >/dev/null || fail "--from depends on the live root or writer"
start_writer orders --flat-out --region-every 5000

# A 32-bit writer's table reads the same (needs the 32-bit build).
M32=${HERON_M32_BIN:-${HERON_SOURCE:-$(cd "$(dirname "$0")/../.." && pwd)}/build-m32/bin}
if [[ -x $M32/heron-sim ]]; then
  "$M32/heron-sim" create narrow >/dev/null
  "$M32/heron-sim" write narrow --rate 5000 >"$WORK/narrow.log" 2>&1 &
  STARTED+=($!)
  wait_for_line "$WORK/narrow.log" '^writer .* attached' 10 || fail "the 32-bit writer did not attach"
  "$STAT" --capture "$WORK/narrow.tar" -i 0.1 narrow 2>"$WORK/capture.err" || fail "$(cat "$WORK/capture.err")"
  check_bundle_of narrow "$WORK/narrow.tar"
else
  echo "no 32-bit build at $M32: the 32-bit writer's case is skipped"
fi

# Several EXPRs: each table once; one that matches nothing is said.
"$STAT" --capture "$WORK/some.tar" -i 0 orders 'md/*' orders nomatch 2>"$WORK/capture.err" ||
  fail "capture of several EXPRs: $(cat "$WORK/capture.err")"
[[ $(tar -xOf "$WORK/some.tar" manifest.json | jq -c '[.sample.tables[].name]') == '["md/eu/quotes","orders"]' ]] ||
  fail "several EXPRs captured: $(tar -xOf "$WORK/some.tar" manifest.json | jq -c '[.sample.tables[].name]')"
"$STAT" --from "$WORK/some.tar" >"$WORK/some.txt" || true
matches '^warning   no table matches nomatch under ' "$WORK/some.txt" || fail "the unmatched EXPR: $(cat "$WORK/some.txt")"

# Read-only toward the tables, whatever runs meanwhile.
if command -v strace >/dev/null; then
  # LeakSanitizer cannot run under ptrace: off for the traced run of the
  # sanitizer build.
  ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" \
    strace -f -e trace=open,openat,creat,truncate -o "$WORK/strace.log" "$STAT" --capture "$WORK/traced.tar" -i 0 \
    2>/dev/null || fail "capture under strace failed"
  bad=$(grep -F "$root/" "$WORK/strace.log" | grep -E 'O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|creat\(|truncate\(' || true)
  [[ -z $bad ]] || fail "capture opened a table file for writing: $bad"
fi

# Output rules: never inside the root, never over what is not a regular
# file, a failed write is status 1 and leaves nothing behind.
status=0
"$STAT" --capture "$root/inside.tar" -i 0 2>"$WORK/err" || status=$?
[[ $status == 2 && ! -e $root/inside.tar ]] || fail "a bundle inside the root: status $status"
mkfifo "$WORK/fifo"
status=0
"$STAT" --capture "$WORK/fifo" -i 0 2>"$WORK/err" || status=$?
[[ $status == 2 && -p $WORK/fifo ]] || fail "a bundle over a FIFO: status $status, $(cat "$WORK/err")"
status=0
"$STAT" --capture "$WORK/no/such/dir/b.tar" -i 0 2>"$WORK/err" || status=$?
[[ $status == 1 && $(wc -l <"$WORK/err") == 1 ]] || fail "an unwritable bundle: status $status, $(cat "$WORK/err")"
status=0
"$STAT" --capture "$WORK/none.tar" -i 0 'no/such/*' 2>"$WORK/err" || status=$?
[[ $status == 1 && ! -e $WORK/none.tar ]] || fail "a capture of nothing: status $status"

# Damaged bundles: one line, status 1.
size=$(stat -c %s "$WORK/capture.1.tar")
for cut in 100 $((size / 2)) $((size - 1500)); do
  head -c "$cut" "$WORK/capture.1.tar" >"$WORK/cut.tar"
  status=0
  "$STAT" --from "$WORK/cut.tar" >"$WORK/out" 2>"$WORK/err" || status=$?
  [[ $status == 1 && $(wc -l <"$WORK/err") == 1 && ! -s $WORK/out ]] ||
    fail "a bundle cut at $cut: status $status, $(cat "$WORK/err")"
done
status=0
"$STAT" --diff "$WORK/cut.tar" - 2>"$WORK/err" || status=$?
[[ $status == 1 && $(wc -l <"$WORK/err") == 1 ]] || fail "--diff of a cut bundle: status $status"
# Damage inside the copied files (tar still reads them): the readers of the
# copies say what is wrong, nothing crashes.
RANDOM=20261125
for ((i = 0; i < ${HERON_CAPTURE_DAMAGE:-25}; i++)); do
  cp "$WORK/capture.1.tar" "$WORK/damaged.tar"
  for ((j = 0; j < 8; j++)); do
    offset=$(((RANDOM * 32768 + RANDOM) % size))
    printf "\\x$(printf %02x $((RANDOM % 256)))" | dd of="$WORK/damaged.tar" bs=1 seek="$offset" conv=notrunc 2>/dev/null
  done
  status=0
  "$STAT" --from "$WORK/damaged.tar" --json >/dev/null 2>"$WORK/err" || status=$?
  ((status <= 1)) || fail "--from a damaged bundle ended with status $status: $(head -2 "$WORK/err")"
done

status=0
"$STAT" --from "$WORK/no-such.tar" 2>"$WORK/err" || status=$?
[[ $status == 1 ]] || fail "a missing bundle: status $status"
echo "PASS ($ROUNDS captures)"
