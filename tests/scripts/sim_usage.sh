#!/usr/bin/env bash
# heron-sim usage errors: an unknown option or command, a misspelt option, a
# missing value and a value out of range each give exactly one line on
# standard error and status 2, and nothing is created or changed under the
# root; --help and --version answer on standard output with status 0.
source "$(dirname "$0")/sim_lib/common.sh"

"$SIM" create t2 >/dev/null
# Every file under the root with its size and modification time.
snapshot() { find "$HERON_ROOT" -printf '%p %s %T@\n' | LC_ALL=C sort; }
before=$(snapshot)

# usage_error ARGS...: status 2, one line on stderr, nothing on stdout, the
# root unchanged. Each call is given as one string, split on blanks.
usage_error() {
  local status=0
  # shellcheck disable=SC2086
  "$SIM" $1 >"$WORK/out.txt" 2>"$WORK/err.txt" </dev/null || status=$?
  [[ $status -eq 2 ]] || fail "heron-sim $1: status $status, want 2; stderr: $(cat "$WORK/err.txt")"
  [[ $(wc -l <"$WORK/err.txt") -eq 1 ]] || fail "heron-sim $1: want one line on stderr, got: $(cat "$WORK/err.txt")"
  [[ ! -s $WORK/out.txt ]] || fail "heron-sim $1: printed on stdout: $(cat "$WORK/out.txt")"
  [[ $(snapshot) == "$before" ]] || fail "heron-sim $1 changed the root: $(diff <(echo "$before") <(snapshot))"
  if [[ -n ${2:-} ]]; then
    grep -q -- "$2" "$WORK/err.txt" || fail "heron-sim $1: the message does not name '$2': $(cat "$WORK/err.txt")"
  fi
}

usage_error "demo --bogus" "--bogus"
usage_error "write t2 --rat 5" "--rat"
usage_error "write t2 --rate" "--rate"
usage_error "create t1 --capacity abc" "--capacity"
usage_error "create t1 --capacity 0" "--capacity"
usage_error "demo --rate 0" "--rate"
# More of the same kind.
usage_error "" "command"
usage_error "bogus" "bogus"
usage_error "--bogus" "--bogus"
usage_error "create" "NAME"
usage_error "create t1 extra" "extra"
usage_error "create t1 --capacity 4294967296" "--capacity"
usage_error "create t1 --capacity -1" "--capacity"
usage_error "create t1 --regions 64by256" "--regions"
usage_error "create t1 --regions 0x16" "--regions"
usage_error "create t1 --regions 64x0" "--regions"
usage_error "create t1 --regions 64x256," "--regions"
usage_error "create t1 --regions 64x256 --no-regions" "--no-regions"
usage_error "create t1 --type-name ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456" "--type-name"
usage_error "write t2 --rate 0" "--rate"
usage_error "write t2 --rate 1.5" "--rate"
usage_error "write t2 --rate 5 --flat-out" "--flat-out"
usage_error "write t2 --duration -1" "--duration"
usage_error "write t2 --payload-max 7" "--payload-max"
usage_error "write t2 --max-capacity 0" "--max-capacity"
usage_error "shadow" "NAME"
usage_error "shadow t2 --duration soon" "--duration"
usage_error "remove" "NAME"
usage_error "remove t2 t3" "t3"
usage_error "demo extra" "extra"
usage_error "demo --duration" "--duration"
[[ -f $HERON_ROOT/t2/owner && ! -e $HERON_ROOT/t1 ]] || fail "the root changed"
# An argument with a line end or an escape in it is still quoted on one line.
status=0
"$SIM" $'bo\ngus\e[2J' >/dev/null 2>"$WORK/err.txt" || status=$?
[[ $status -eq 2 && $(wc -l <"$WORK/err.txt") -eq 1 ]] || fail "a command with a line end: status $status, $(cat "$WORK/err.txt")"
! grep -q $'\e' "$WORK/err.txt" || fail "an escape character reached stderr"

# Help and version: stdout, status 0.
out=$("$SIM" --help) || fail "--help: status $?"
for word in create remove write shadow demo --capacity --regions --rate --flat-out --duration --keep --rw Examples: HERON_ROOT; do
  grep -q -- "$word" <<<"$out" || fail "--help does not mention $word"
done
out=$("$SIM" write --help) || fail "write --help: status $?"
grep -q -- '--payload-max' <<<"$out" || fail "write --help lacks --payload-max"
grep -q '^Examples:' <<<"$out" || fail "write --help has no examples"
out=$("$SIM" --version) || fail "--version: status $?"
[[ $out =~ ^heron-sim\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version printed '$out'"

# Options may still be given as --key=value, and the last of two counts.
"$SIM" create t3 --capacity=8 --capacity 16 --regions=16x4 >/dev/null || fail "create t3 --capacity=8 --capacity 16"
"$HERON" -s t3 >"$WORK/s.txt" 2>/dev/null || fail "heron -s t3"
grep -q 'Notifications: 16 ' "$WORK/s.txt" || fail "t3 does not hold 16 notifications a queue"
echo PASS
