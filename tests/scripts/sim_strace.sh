#!/usr/bin/env bash
# heron -a -e, -s, -w and -A under strace against a live table: no table file
# is opened for writing, and no table file is mapped writable and shared;
# the one-shot capacity summaries add no directory watch, and -A reads the
# directory of a table without clients once.
source "$(dirname "$0")/sim_lib/common.sh"
# LeakSanitizer cannot run under ptrace: in the sanitizer build the traced
# programs run without the leak check (the untraced tests keep it).
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
command -v strace >/dev/null || fail "strace is not installed (scripts/install-deps.sh installs it)"

"$SIM" create traced >/dev/null
start_writer traced --rate 5000
start_shadow traced
table=$(cd "$HERON_ROOT/traced" && pwd -P)

check() {
  local log=$WORK/strace.log status=0
  strace -f -y -e trace=open,openat,mmap,mmap2 -o "$log" "$HERON" "$@" >"$WORK/out.txt" 2>&1 || status=$?
  [[ $status -eq 0 ]] || fail "heron $* exited with $status: $(head -5 "$WORK/out.txt")"
  local bad
  bad=$(grep -F "$table/" "$log" | grep -E '^[0-9]+ +open(at)?\(' | grep -E 'O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|O_APPEND' || true)
  [[ -z $bad ]] || fail "heron $* opened a table file for writing: $bad"
  bad=$(grep -F "$table/" "$log" | grep -E '^[0-9]+ +mmap2?\(' | grep 'PROT_WRITE' | grep 'MAP_SHARED' || true)
  [[ -z $bad ]] || fail "heron $* mapped a table file writable and shared: $bad"
  echo "heron $*: $(grep -F "$table/" "$log" | grep -vc "^[0-9]* *---") calls on table files, none writable"
}

check -a -e traced
check -s traced
# The dump roads must really have read the queue file, or the checks above
# prove nothing.
grep -F "$table/relay.1" "$WORK/strace.log" | matches 'O_RDONLY' || fail "heron -s did not open relay.1"
check -w traced
check -A

# The capacity summaries of -A and -w read each table once and hold no
# region afterwards: they add no directory watch. A region dump keeps its
# watch, which tells it of a region deleted while it prints.
watches() {
  strace -f -e trace=inotify_add_watch -o "$WORK/watch.log" "$HERON" "$@" >/dev/null 2>&1 || fail "heron $* failed"
  grep -c '^[0-9]* *inotify_add_watch(' "$WORK/watch.log" || true
}
[[ $(watches -A) == 0 ]] || fail "heron -A added a directory watch: $(cat "$WORK/watch.log")"
[[ $(watches -w traced) == 0 ]] || fail "heron -w added a directory watch: $(cat "$WORK/watch.log")"
[[ $(watches -a traced) -ge 1 ]] || fail "heron -a added no directory watch: $(cat "$WORK/watch.log")"

# heron -A reads the directory of a table without clients once: the walk
# that finds the table hands its listing to the capacity summary.
"$SIM" create quiet >/dev/null
quiet=$(cd "$HERON_ROOT/quiet" && pwd -P)
strace -f -e trace=openat -o "$WORK/dirs.log" "$HERON" -A >"$WORK/out.txt" 2>&1 || fail "heron -A failed"
matches -Fx 'Heron table "quiet"' "$WORK/out.txt" || fail "heron -A did not list quiet: $(cat "$WORK/out.txt")"
opens=$(grep -cF "\"$quiet\", O_RDONLY|O_NONBLOCK|O_CLOEXEC|O_DIRECTORY" "$WORK/dirs.log" || true)
[[ $opens == 1 ]] || fail "heron -A opened the table directory $opens times: $(grep -F "$quiet" "$WORK/dirs.log")"
echo PASS
