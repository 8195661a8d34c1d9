#!/usr/bin/env bash
# heron-stat's own health: a root that cannot be listed and an EXPR that
# matches nothing are one line and status 1 (--check: UNKNOWN), never "no
# tables, all fine"; a region whose used count is garbage is a warning and
# leaves the occupancy alone; --exclude, --timeout and a '|' in a table name
# under --check; the note on unknown clients when not root.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
command -v jq >/dev/null || fail "jq is not installed"

# run_stat EXPECTED_STATUS ARGS...: heron-stat's standard output in $OUT.
run_stat() {
  local expected=$1 status=0
  shift
  OUT=$("$STAT" "$@" 2>"$WORK/err") || status=$?
  [[ $status -eq $expected ]] || fail "heron-stat $* exited $status, not $expected: $OUT $(cat "$WORK/err")"
}

# A wrong root, three ways.
touch "$WORK/plain"
for root in "$WORK/missing" "$WORK/plain"; do
  HERON_ROOT=$root run_stat 1 -i 0
  [[ $(wc -l <<<"$OUT") -eq 1 && $OUT == "collection root $root "* ]] || fail "root $root: $OUT"
  echo "text: $OUT"
  HERON_ROOT=$root run_stat 1 --json -i 0
  [[ $(jq -r .root_ok <<<"$OUT") == false && $(jq -r .root_error <<<"$OUT") == "collection root $root "* ]] ||
    fail "root $root as JSON: $OUT"
  HERON_ROOT=$root run_stat 3 --check
  [[ $OUT == "HERON UNKNOWN - collection root $root "* ]] || fail "root $root under --check: $OUT"
done
HERON_ROOT=$WORK/missing run_stat 1 -i 0
[[ $OUT == "collection root $WORK/missing does not exist" ]] || fail "missing root: $OUT"
HERON_ROOT=$WORK/plain run_stat 1 -i 0
[[ $OUT == "collection root $WORK/plain is not a directory" ]] || fail "not a directory: $OUT"

"$SIM" create orders >/dev/null
"$SIM" create 'x|y=1;2' >/dev/null
"$SIM" create --type 3 kept >/dev/null

# An EXPR that matches nothing says how many tables there are.
run_stat 1 -i 0 ordres
[[ $OUT == "no table matches ordres under $HERON_ROOT (3 tables there)" ]] || fail "no match: $OUT"
run_stat 3 --check 'md/*'
[[ $OUT == "HERON UNKNOWN - no table matches md/* under $HERON_ROOT (3 tables there)" ]] || fail "no match: $OUT"
run_stat 1 --json -i 0 ordres
jq -r '.problems[].text' <<<"$OUT" | matches -x "no table matches ordres under $HERON_ROOT (3 tables there)" ||
  fail "no match as JSON: $OUT"

# A '|' in a name stays out of the performance data.
run_stat 2 --check
first=$(head -1 <<<"$OUT")
[[ $(tr -cd '|' <<<"$OUT" | wc -c) -eq 1 ]] || fail "a name added a '|': $OUT"
matches -F 'x\x7cy=1;2' <<<"$OUT" || fail "the name is not shown escaped: $OUT"
[[ $first == *" oldest_heartbeat=U;5;;0; "* ]] || fail "no oldest heartbeat in: $first"
echo "check: $first"

# --exclude leaves tables out; the archive alone is healthy.
run_stat 2 --check --exclude orders
[[ $OUT == "HERON CRITICAL - 1 of 2 tables dead: x\x7cy=1;2 | tables=2 "* ]] || fail "--exclude orders: $OUT"
run_stat 0 --check --exclude orders --exclude 'x*' --exclude missing
[[ $OUT == "HERON OK - 1 tables ok | tables=1 "* ]] || fail "--exclude twice: $OUT"

# --timeout: a sample slower than that is UNKNOWN, in one line.
run_stat 3 --check --timeout 0.000001
[[ $OUT == "HERON UNKNOWN - no sample within 1e-06 s (--timeout)" ]] || fail "--timeout: $OUT"
run_stat 0 --check --timeout 60 kept

# A region whose used count is garbage: a warning, no occupancy from it.
region=$HERON_ROOT/kept/region.1
[[ -f $region ]] || fail "no region.1 in $(ls "$HERON_ROOT/kept")"
printf '\377\377\377\377' | dd of="$region" bs=1 seek=16 conv=notrunc status=none
units=$(od -An -tu4 -j12 -N4 "$region" | tr -d ' ')
run_stat 0 --json -i 0 kept
[[ $(jq -r '.tables[0].allocator.region_list[0].consistent' <<<"$OUT") == false ]] || fail "region consistent: $OUT"
[[ $(jq -r '.tables[0].allocator.used_bytes' <<<"$OUT") == 0 ]] || fail "garbage raised the occupancy: $OUT"
jq -r '.tables[0].problems[] | .severity + " " + .text' <<<"$OUT" |
  matches -x "warning region 1 of kept is inconsistent: used count 4294967295, bitmap 0, units $units" ||
  fail "no problem for the region: $OUT"
run_stat 1 --check kept
[[ $(sed -n 2p <<<"$OUT") == "WARNING: kept: region 1 of kept is inconsistent: used count 4294967295, bitmap 0, units $units" ]] ||
  fail "region under --check: $OUT"
echo "region: $(sed -n 2p <<<"$OUT")"

# --listen with a wrong root keeps serving: /healthz 503 with the reason,
# /metrics 200 with heron_stat_root_ok 0. A root that appears makes it well.
real_root=$HERON_ROOT
export HERON_ROOT=$WORK/no-such-root
start_stat_listen
status=$(curl -s -o "$WORK/health" -w '%{http_code}' "$URL/healthz")
[[ $status == 503 ]] || fail "/healthz with a missing root answered $status"
matches -xF "collection root $WORK/no-such-root does not exist" "$WORK/health" || fail "/healthz said: $(cat "$WORK/health")"
curl -fsS "$URL/metrics" >"$WORK/metrics" || fail "/metrics with a missing root failed"
matches -x 'heron_stat_root_ok 0' "$WORK/metrics" || fail "no heron_stat_root_ok 0: $(grep root_ok "$WORK/metrics")"
mkdir -p "$WORK/no-such-root"
status=$(curl -s -o "$WORK/health" -w '%{http_code}' "$URL/healthz")
[[ $status == 200 ]] || fail "/healthz once the root exists answered $status: $(cat "$WORK/health")"
curl -fsS "$URL/metrics" | matches -x 'heron_stat_root_ok 1' || fail "no heron_stat_root_ok 1 once the root exists"
kill -TERM "$STAT_PID"
wait "$STAT_PID" || fail "heron-stat --listen ended with $?"
export HERON_ROOT=$real_root
echo "listen: /healthz 503 and root_ok 0 for a missing root, 200 once it exists"

# Not root: one line says that clients are unknown.
if [[ $(id -u) -eq 0 ]] && command -v setpriv >/dev/null; then
  chmod 755 "$WORK"
  mkdir -p "$WORK/bin"
  cp "$STAT" "$WORK/bin/"
  chmod -R a+rX "$WORK/bin" "$HERON_ROOT"
  as_nobody() { setpriv --reuid 65534 --regid 65534 --clear-groups "$WORK/bin/heron-stat" "$@"; }
  note='clients unknown (not root): dead writers are judged by pid and heartbeat only; run as root or with CAP_SYS_PTRACE to see them'
  as_nobody -i 0 orders | matches -xF "$note" || fail "the text view does not say clients are unknown"
  { as_nobody --check orders || true; } | matches -xF "$note" || fail "--check does not say clients are unknown"
  [[ $(as_nobody --json -i 0 orders | jq -r .clients_known) == false ]] || fail "clients_known as nobody"
  run_stat 0 -i 0 orders
  matches -F 'clients unknown' <<<"$OUT" && fail "as root the clients are known: $OUT"
  [[ $("$STAT" --json -i 0 orders | jq -r .clients_known) == true ]] || fail "clients_known as root"
fi
echo PASS
