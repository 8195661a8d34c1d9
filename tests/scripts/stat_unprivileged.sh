#!/usr/bin/env bash
# heron-stat run as an unprivileged user (setpriv) cannot read other users'
# memory maps: the clients of a table with a writer and a shadow show as
# unknown, never as none, and the writer is still judged alive by its pid;
# a table directory it cannot list is broken, not empty.
source "$(dirname "$0")/sim_lib/common.sh"
[[ $(id -u) -eq 0 ]] || { echo "SKIP: needs root to switch to an unprivileged user"; exit 77; }
command -v setpriv >/dev/null || fail "setpriv is not installed (util-linux)"
command -v jq >/dev/null || fail "jq is not installed"

"$SIM" create watched >/dev/null
start_writer watched --rate 1000
start_shadow watched
wait_until 10 writer_wrote watched || fail "the writer of watched published nothing"
# The checkout may live under a directory the user cannot enter: run a copy.
chmod 755 "$WORK"
mkdir -p "$WORK/bin"
cp "$BIN/heron-stat" "$WORK/bin/"
chmod -R a+rX "$WORK/bin" "$HERON_ROOT"
as_nobody() { setpriv --reuid 65534 --regid 65534 --clear-groups "$WORK/bin/heron-stat" "$@"; }

# As root first: the walk sees both.
[[ $("$BIN/heron-stat" --json -i 0 | jq -r '.tables[0].clients.shadows | length') == 1 ]] ||
  fail "as root the shadow is not seen"

json=$(as_nobody --json -i 0) || fail "heron-stat as nobody failed"
[[ $(jq -r '.tables[0].clients.known' <<<"$json") == false ]] || fail "clients known as nobody: $json"
[[ $(jq -r '.tables[0].clients.shadows' <<<"$json") == null ]] || fail "shadows not null as nobody: $json"
[[ $(jq -r '.tables[0].writer.alive' <<<"$json") == true ]] || fail "writer not alive as nobody: $json"
[[ $(jq -r '.tables[0].state' <<<"$json") == ok ]] || fail "state as nobody: $(jq -r '.tables[0].state' <<<"$json")"
line=$(as_nobody -i 0 | sed -n 2p)
[[ $(awk '{print $6}' <<<"$line") == '?' ]] || fail "the text view does not show unknown shadows: $line"
if as_nobody --prometheus | matches '^heron_table_shadows{'; then
  fail "a shadow count was exported as nobody"
fi
echo "as nobody: $line"

# A table directory the user may enter but not list: its regions cannot be
# seen, so the table is broken with that reason, not an empty allocator.
"$SIM" create closed >/dev/null
chmod -R a+rX "$HERON_ROOT/closed"
chmod 711 "$HERON_ROOT/closed"
json=$(as_nobody --json -i 0 closed) || true
[[ $(jq -r '.tables[0].state' <<<"$json") == broken ]] || fail "an unlistable table as nobody: $json"
jq -r '.tables[0].problems[].text' <<<"$json" | matches "cannot list .*closed: Permission denied" ||
  fail "an unlistable table does not say why: $json"
[[ $(jq -r '.tables[0].allocator' <<<"$json") == null ]] || fail "an unlistable table has allocator figures: $json"
echo PASS
