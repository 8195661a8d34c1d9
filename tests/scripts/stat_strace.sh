#!/usr/bin/env bash
# heron-stat under strace in every mode against a live table: table files
# are opened read-only and mapped read-only, and nothing is created, renamed
# or removed under the root, and each table directory is read once.
source "$(dirname "$0")/sim_lib/common.sh"
# LeakSanitizer cannot run under ptrace: in the sanitizer build the traced
# programs run without the leak check (the untraced tests keep it).
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
STAT=$BIN/heron-stat
command -v strace >/dev/null || fail "strace is not installed (scripts/install-deps.sh installs it)"

"$SIM" create traced >/dev/null
start_writer traced --rate 5000 --region-every 50
start_shadow traced
wait_until 10 writer_wrote traced || fail "the writer of traced published nothing"
root=$(cd "$HERON_ROOT" && pwd -P)
# The writer renames region files into place while this runs; a name that
# vanishes between readdir and stat is not an error here. The region files
# are filtered from the output: find's -prune still lets some of them
# through when they come and go during its walk.
listing() {
  (cd "$root" && find . -ignore_readdir_race | grep -v '^\./traced/region\.' | sort)
}
before=$(listing)

check() {
  local log=$WORK/strace.log status=0
  strace -f -y -e trace=open,openat,mmap,creat,mkdir,mkdirat,rename,renameat,renameat2,unlink,unlinkat,link,linkat,truncate,ftruncate,symlink,symlinkat \
    -o "$log" "$@" >"$WORK/out.txt" 2>&1 || status=$?
  [[ $status -eq 0 || $status -eq 2 ]] || fail "$* exited with $status: $(head -5 "$WORK/out.txt")"
  local bad
  bad=$(grep -F "$root/" "$log" | grep -E '^[0-9]+ +open(at)?\(' | grep -E 'O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|O_APPEND' || true)
  [[ -z $bad ]] || fail "$* opened a table file for writing: $bad"
  bad=$(grep -F "$root/" "$log" | grep -E '^[0-9]+ +mmap\(' | grep -v 'PROT_READ, MAP_SHARED' || true)
  [[ -z $bad ]] || fail "$* mapped a table file other than read-only and shared: $bad"
  bad=$(grep -F "$root" "$log" | grep -E '^[0-9]+ +(creat|mkdir|mkdirat|rename|renameat2?|unlink|unlinkat|link|linkat|truncate|ftruncate|symlink|symlinkat)\(' || true)
  [[ -z $bad ]] || fail "$* changed the root: $bad"
  grep -F "$root/traced/relay.1" "$log" | matches 'O_RDONLY' || fail "$* did not read relay.1: $(head -3 "$WORK/out.txt")"
  grep -F "$root/traced/quarry" "$log" | grep -E '^[0-9]+ +mmap\(' | matches 'PROT_READ' || fail "$* did not map quarry"
  [[ $(listing) == "$before" ]] || fail "$* left files under the root: $(diff <(echo "$before") <(listing))"
  echo "$*: $(grep -cF "$root/" "$log") calls on table files, none writable"
}

check "$STAT" -i 0
check "$STAT" -i 0.2 traced
check "$STAT" --json -i 0.2
check "$STAT" --prometheus
check "$STAT" --prometheus -o "$WORK/heron.prom"
check "$STAT" --check
check "$STAT" --no-clients -i 0
check "$STAT" --all-roots -i 0
# 5 s: a sample under strace, with the sanitizers on busy cores, can take
# more than a second.
check timeout --preserve-status -s INT 5 "$STAT" --watch -i 0.5
check timeout --preserve-status -s INT 5 "$STAT" --watch --json -i 0.5

# One sample reads each table directory once: the walk that finds a table
# hands its listing to the region reader.
strace -f -e trace=openat -o "$WORK/dirs.log" "$STAT" --no-clients -i 0 >/dev/null 2>&1 || fail "heron-stat failed"
opens=$(grep -cF "\"$root/traced\", O_RDONLY|O_NONBLOCK|O_CLOEXEC|O_DIRECTORY" "$WORK/dirs.log" || true)
[[ $opens == 1 ]] || fail "heron-stat opened the table directory $opens times: $(grep -F "$root/traced\"" "$WORK/dirs.log")"
echo PASS
