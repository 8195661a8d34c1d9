#!/usr/bin/env bash
# heron-stat -o replaces only a regular file of its own choosing: what exists
# and is not a regular file (a device, a FIFO, a directory, a link) is refused
# with one line and status 2 before anything is written, and one that turns
# into something else later ends the watch with status 1, left alone. The
# root is compared by whole path components. A failed write is status 1.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
"$SIM" create t >/dev/null

# refused FILE WHY: status 2, one line naming WHY, nothing beside FILE.
refused() {
  local file=$1 why=$2 status=0 before
  before=$(ls -A "$(dirname "$file")")
  "$STAT" --prometheus -o "$file" >"$WORK/out" 2>"$WORK/err" || status=$?
  [[ $status -eq 2 ]] || fail "-o $file exited $status, not 2: $(cat "$WORK/err")"
  [[ $(wc -l <"$WORK/err") -eq 1 && ! -s $WORK/out ]] || fail "-o $file said: $(cat "$WORK/out" "$WORK/err")"
  matches -F "$why" "$WORK/err" || fail "-o $file: $(cat "$WORK/err")"
  [[ $(ls -A "$(dirname "$file")") == "$before" ]] || fail "-o $file left a file beside it"
  echo "-o $file: $(cat "$WORK/err")"
}

mkdir -p "$WORK/out.d"
mkfifo "$WORK/out.d/fifo"
refused "$WORK/out.d/fifo" "which is not a regular file"
[[ -p $WORK/out.d/fifo ]] || fail "the FIFO was replaced"
mkdir "$WORK/out.d/dir"
refused "$WORK/out.d/dir" "which is not a regular file"
ln -s "$WORK/out.d/elsewhere" "$WORK/out.d/link"
refused "$WORK/out.d/link" "which is not a regular file"
[[ -L $WORK/out.d/link ]] || fail "the link was replaced"
if [[ $(id -u) -eq 0 ]]; then
  # A device of our own, like /dev/null (character device 1:3): a test that
  # fails must not cost the machine its /dev/null.
  mknod "$WORK/out.d/null" c 1 3
  refused "$WORK/out.d/null" "which is not a regular file"
  [[ -c $WORK/out.d/null ]] || fail "the device was replaced"
fi
# A table of another collection.
OTHER=$WORK/other
mkdir -p "$OTHER"
HERON_ROOT=$OTHER "$SIM" create u >/dev/null
refused "$OTHER/u/metrics.prom" "inside a table's directory"
refused "$HERON_ROOT/t/../metrics.prom" "inside the collection root"
ln "$HERON_ROOT/t/relay.1" "$WORK/out.d/relay.prom"
refused "$WORK/out.d/relay.prom" "which is a table's file"
[[ $(stat -c %h "$HERON_ROOT/t/relay.1") == 2 ]] || fail "the hard link to relay.1 was replaced"

# Outside the root by whole components, even when the root does not exist.
for root in "$HERON_ROOT" "$WORK/absent"; do
  mkdir -p "$root-other"
  file=$root-other/sibling.prom
  # A root that does not exist fails the run (status 1) after the report
  # saying so is written.
  status=0
  HERON_ROOT=$root "$STAT" --prometheus -o "$file" 2>"$WORK/err" || status=$?
  [[ $status -eq 0 || ($status -eq 1 && $root == "$WORK/absent") ]] || fail "-o $file (root $root): $(cat "$WORK/err")"
  matches '^heron_stat_tables ' "$file" || fail "-o $file wrote: $(head -3 "$file")"
done
"$STAT" --prometheus -o "$HERON_ROOT/../beside.prom" 2>"$WORK/err" || fail "-o ROOT/../beside.prom: $(cat "$WORK/err")"
matches '^heron_stat_tables ' "$WORK/beside.prom" || fail "-o ROOT/../beside.prom wrote: $(head -3 "$WORK/beside.prom")"
# Through a root that does not exist the kernel finds no such directory, but
# that is no reason to call the file inside the root.
status=0
HERON_ROOT=$WORK/absent "$STAT" --prometheus -o "$WORK/absent/../x.prom" 2>"$WORK/err" || status=$?
[[ $status -eq 1 ]] || fail "-o ABSENT/../x.prom exited $status: $(cat "$WORK/err")"
matches 'cannot create a temporary file' "$WORK/err" || fail "-o ABSENT/../x.prom: $(cat "$WORK/err")"

# A failed write (a file size limit of 0): one line, status 1, the old file
# kept and no temporary left.
echo old >"$WORK/out.d/kept.prom"
status=0
# Standard error into a pipe: the limit holds for files only.
err=$(bash -c 'ulimit -f 0; trap "" XFSZ; exec "$0" "$@"' "$STAT" --prometheus -o "$WORK/out.d/kept.prom" 2>&1) ||
  status=$?
echo "$err" >"$WORK/err"
[[ $status -eq 1 && $(wc -l <"$WORK/err") -eq 1 ]] || fail "failed write: status $status: $err"
matches 'File too large' "$WORK/err" || fail "failed write: $err"
[[ $(cat "$WORK/out.d/kept.prom") == old ]] || fail "the old file was changed"
[[ -z $(ls -A "$WORK/out.d" | grep '\.tmp\.') ]] || fail "a temporary was left: $(ls -A "$WORK/out.d")"
echo "failed write: $(cat "$WORK/err")"

# A FIFO put in the file's place while --watch runs: the watch ends with
# status 1 and the FIFO stays.
watched=$WORK/out.d/watched.prom
"$STAT" --watch --prometheus -i 0.1 -o "$watched" 2>"$WORK/watch.err" &
watch_pid=$!
STARTED+=("$watch_pid")
wait_until 10 test -f "$watched" || fail "--watch -o wrote nothing"
# The FIFO takes the file's place in one rename: with a report every 0.1 s,
# one could land between an rm and a mkfifo.
mkfifo "$WORK/out.d/fifo.next"
mv -T "$WORK/out.d/fifo.next" "$watched"
gone() { ! kill -0 "$1" 2>/dev/null; }
wait_until 30 gone "$watch_pid" || fail "--watch went on with a FIFO in place: $(ls -l "$watched")"
status=0
wait "$watch_pid" || status=$?
[[ $status -eq 1 ]] || fail "--watch with a FIFO in place ended with $status: $(cat "$WORK/watch.err")"
[[ -p $watched ]] || fail "the FIFO was replaced"
matches 'not a regular file any more' "$WORK/watch.err" || fail "--watch said: $(cat "$WORK/watch.err")"
echo "--watch: $(cat "$WORK/watch.err")"
echo PASS
