#!/usr/bin/env bash
# heron -f and heron-stat -o under strace, in each mode, with good and bad
# output files: nothing but the output file itself (or, for heron-stat, its
# own temporary beside it) is opened for writing, created, truncated or
# renamed over; a FIFO, a device, a link to a table file or a hard link to
# one is never opened for writing, and a table file is never touched.
source "$(dirname "$0")/sim_lib/common.sh"
# LeakSanitizer cannot run under ptrace: in the sanitizer build the traced
# programs run without the leak check (the untraced tests keep it).
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
STAT=$BIN/heron-stat
command -v strace >/dev/null || fail "strace is not installed (scripts/install-deps.sh installs it)"

"$SIM" create traced >/dev/null
start_writer traced --rate 2000
root=$(cd "$HERON_ROOT" && pwd -P)
OUT=$WORK/out
mkdir -p "$OUT"
mkfifo "$OUT/fifo"
ln "$root/traced/relay.1" "$OUT/hardlink"
ln -s "$root/traced/owner" "$OUT/symlink"
bad_targets=("$OUT/fifo" "$OUT/hardlink" "$OUT/symlink")
if [[ $(id -u) -eq 0 ]]; then
  mknod "$OUT/null" c 1 3
  bad_targets+=("$OUT/null")
fi
relay_before=$(md5sum <"$root/traced/relay.1" | cut -c1-8)

# traced ALLOWED COMMAND...: runs COMMAND under strace; every open for writing,
# creation, truncation, rename or link must name ALLOWED (a regular output
# file), its temporary (".NAME.tmp.*" beside it) or /proc/self/fd/N (the
# output file, already open).
traced() {
  local allowed=$1 log=$WORK/strace.log
  shift
  strace -f -e trace=open,openat,creat,rename,renameat,renameat2,link,linkat,truncate,ftruncate,mknod,mknodat \
    -o "$log" "$@" >"$WORK/cmd.out" 2>&1 || true
  local writes name
  writes=$(grep -E '^[0-9]+ +(open(at)?\(.*(O_WRONLY|O_RDWR|O_CREAT|O_TRUNC)|creat|rename|link|truncate|mknod)' "$log" |
    grep -v ' = -1 ' || true)
  while IFS= read -r line; do
    [[ -n $line ]] || continue
    name=$(sed -n 's/^[^"]*"\([^"]*\)".*/\1/p' <<<"$line")
    case $name in
      "$allowed" | "$(dirname "$allowed")/.$(basename "$allowed").tmp."* | /proc/self/fd/[0-9]*) ;;
      *) fail "$* wrote to what is not its output: $line" ;;
    esac
    if [[ $line =~ rename ]]; then
      [[ $line == *"\"$allowed\""* ]] || fail "$* renamed over something else: $line"
    fi
  done <<<"$writes"
  grep -F "$root/" "$log" | grep -E 'O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|rename|link\(|truncate' |
    grep -v ' = -1 ' && fail "$* wrote under the root"
  echo "$*: $(grep -c . <<<"$writes") writing calls, all on its own output"
}

# Good outputs: written in every mode.
for mode in "-s traced" "-a -e traced" "-R traced" "-q traced" "-w traced" "-A"; do
  # shellcheck disable=SC2086
  traced "$OUT/report.txt" "$HERON" $mode -f "$OUT/report.txt"
  [[ -s $OUT/report.txt ]] || fail "heron $mode -f wrote nothing: $(cat "$WORK/cmd.out")"
done
for mode in "--prometheus" "--json -i 0" "-i 0" "--check"; do
  # shellcheck disable=SC2086
  traced "$OUT/metrics.prom" "$STAT" $mode -o "$OUT/metrics.prom"
  [[ -s $OUT/metrics.prom ]] || fail "heron-stat $mode -o wrote nothing: $(cat "$WORK/cmd.out")"
done
traced "$OUT/metrics.prom" timeout --preserve-status -s INT 1 "$STAT" --watch --prometheus -i 0.2 -o "$OUT/metrics.prom"

# Bad outputs: refused, never opened for writing, never replaced.
for target in "${bad_targets[@]}" "$root/traced/relay.1" "$root/traced/new"; do
  for mode in "-s traced" "-a traced" "-w traced" "-A"; do
    # shellcheck disable=SC2086
    traced /none "$HERON" $mode -f "$target"
    matches -Fx "Error opening $target" "$WORK/cmd.out" || fail "heron $mode -f $target: $(cat "$WORK/cmd.out")"
  done
  for mode in "--prometheus" "--watch --json -i 0.2"; do
    # shellcheck disable=SC2086
    traced /none "$STAT" $mode -o "$target"
    matches "^heron-stat: refusing to write $target" "$WORK/cmd.out" ||
      fail "heron-stat $mode -o $target: $(cat "$WORK/cmd.out")"
  done
done
[[ -p $OUT/fifo && -L $OUT/symlink && -f $OUT/hardlink && ! -e $root/traced/new ]] || fail "a bad target was replaced"
[[ $(stat -c %h "$root/traced/relay.1") == 2 ]] || fail "the hard link to relay.1 was replaced"
[[ $(id -u) -ne 0 || -c $OUT/null ]] || fail "the device was replaced"
# The writer keeps writing relay.1, so its bytes change; a truncation would
# have left it short.
[[ $(stat -c %s "$root/traced/relay.1") -gt 0 ]] || fail "relay.1 was truncated (was $relay_before)"
echo PASS
