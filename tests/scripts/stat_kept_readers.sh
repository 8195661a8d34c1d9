#!/usr/bin/env bash
# heron-stat --watch keeps each table's readers from one sample to the next:
# an unchanged table's files are not opened again, while a table replaced
# under the same name (other queue capacity, other regions) or removed shows
# as it is now from the next samples on, a queue header damaged in place is
# noticed, a kept sample says what a fresh one says of the same files, and
# the kept files are mapped no further than what is read of them.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
command -v strace >/dev/null || fail "strace is not installed (scripts/install-deps.sh installs it)"

"$SIM" create md/a --capacity 64 --regions 64x16 >/dev/null
"$SIM" create md/b --capacity 64 --regions 64x16 >/dev/null
"$SIM" create md/c --capacity 64 >/dev/null
OUT=$WORK/watch.ndjson
"$STAT" --watch -i 0.1 --json --no-clients >"$OUT" 2>"$WORK/stat.err" &
STAT_PID=$!
STARTED+=("$STAT_PID")
samples() { wc -l <"$OUT"; }
at_least() { (($(samples) >= $1)); }
wait_until 30 at_least 2 || fail "no samples: $(cat "$WORK/stat.err")"

# The kept readers map each table file's header (a region's with its
# bitmap) and no more: one page each here, where a whole region.1 is two.
root=$(realpath "$HERON_ROOT")
page=$(getconf PAGESIZE)
# Read with heron-stat stopped: a maps file read line by line while its
# process maps and unmaps can shift under the reader.
pause_pid "$STAT_PID" || fail "heron-stat did not stop on SIGSTOP"
maps=$(<"/proc/$STAT_PID/maps")
kill -CONT "$STAT_PID"
mapped=0
while read -r range _ _ _ _ file; do
  [[ $file == "$root"/*/relay.[12] || $file == "$root"/*/quarry || $file == "$root"/*/region.* ]] || continue
  length=$((16#${range#*-} - 16#${range%-*}))
  ((length == page)) || fail "$file is mapped $length bytes: $(grep -F "$root" <<<"$maps")"
  mapped=$((mapped + 1))
done <<<"$maps"
# Queues and allocator of each table, a region each of md/a and md/b at least.
((mapped >= 11)) || fail "$mapped table files mapped, not 11 or more: $(grep -F "$root" <<<"$maps")"

# From now on every open of the sampler is traced.
strace -f -qq -e trace=openat -p "$STAT_PID" -o "$WORK/trace" 2>"$WORK/strace.err" &
TRACER=$!
STARTED+=("$TRACER")
wait_until 10 test -s "$WORK/trace" || fail "strace did not attach: $(cat "$WORK/strace.err")"
traced_from=$(samples)
wait_until 30 at_least $((traced_from + 3)) || fail "the samples stopped"

"$SIM" remove md/b >/dev/null
"$SIM" create md/b --capacity 128 --regions 64x16,256x4 >/dev/null
"$SIM" remove md/c >/dev/null
replaced=$(samples)
# after N: the last whole sample begun after the Nth (a sample is written
# in pieces: a line not yet ended is not one); false while there is none
# (jq -e takes an empty input for true).
after() {
  local n
  n=$(samples)
  ((n >= $1 + 2)) && sed -n "${n}p" "$OUT"
}
now() { after "$replaced"; }
seen_now() {
  now | jq -e '[.tables[].name] == ["md/a", "md/b"] and
    (.tables[1].queues.tables[0].capacity == 128) and (.tables[1].allocator.regions == 2)' >/dev/null 2>&1
}
wait_until 30 seen_now || fail "the replaced and removed tables are not shown as they are: $(now | head -c 600)"
wait_until 30 at_least $((replaced + 4)) || fail "the samples stopped"
stop_pid "$TRACER" || true

opened() { grep -c "md/$1/$2\"" "$WORK/trace" || true; }
for file in owner relay.1 relay.2 quarry region.1; do
  (($(opened a "$file") == 0)) || fail "md/a/$file was opened $(opened a "$file") times in samples where nothing changed"
done
(($(opened b relay.1) >= 1 && $(opened b region.2) >= 1)) ||
  fail "the replaced md/b was not read again: $(grep md/b "$WORK/trace" | head -5)"

# A queue header damaged in place with the file's id kept (as a write
# through a mapping leaves it): the kept reader checks the headers again.
# heron-stat is stopped meanwhile, so that no sample sees the passing mtime.
pause_pid "$STAT_PID" || fail "heron-stat did not stop on SIGSTOP"
touch -r "$HERON_ROOT/md/a/relay.1" "$WORK/mtime"
printf 'XXXXXXXX' | dd of="$HERON_ROOT/md/a/relay.1" conv=notrunc status=none
touch -m -r "$WORK/mtime" "$HERON_ROOT/md/a/relay.1"
kill -CONT "$STAT_PID"
damaged=$(samples)
# The sample that showed it is kept in SEEN, for the comparison below.
broken() { SEEN=$(after "$damaged") && jq -e '.tables[0].state == "broken"' <<<"$SEEN" >/dev/null 2>&1; }
wait_until 30 broken || fail "a damaged queue header went unnoticed: $(jq -c '.tables[0].problems' <<<"$SEEN")"

# Kept and fresh readers say the same of the same files.
facts='[.tables[] | {name, state, problems, owner, queues: (.queues | del(.rate_per_second, .seconds_to_switch)),
  allocator: (.allocator | del(.allocations_per_second, .releases_per_second))}]'
kept=$(jq -S "$facts" <<<"$SEEN")
fresh=$("$STAT" -i 0 --json --no-clients | jq -S "$facts")
[[ $kept == "$fresh" ]] || fail "a kept sample differs from a fresh one: $(diff <(echo "$kept") <(echo "$fresh") | head -20)"
stop_pid "$STAT_PID" || fail "heron-stat --watch did not end with status 0 on SIGTERM"
echo "ok: $(samples) samples, $(grep -c openat "$WORK/trace") opens traced"
