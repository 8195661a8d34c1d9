#!/usr/bin/env bash
# heron-stat --watch in a real terminal (tmux): the table is repainted in
# place (one header on the screen) with a changing sequence, and Ctrl-C ends
# it with status 0.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
command -v tmux >/dev/null || fail "tmux is not installed (scripts/install-deps.sh installs it)"
SOCKET=heron-stat-test-$$
trap 'tmux -L "$SOCKET" kill-server 2>/dev/null || true; cleanup' EXIT

"$SIM" create live >/dev/null
start_writer live --rate 2000

# The pane's `sleep 60` only keeps the pane open once heron-stat has ended;
# the test never waits for it (the server is killed on exit).
tmux -L "$SOCKET" -f /dev/null new-session -d -s watch -x 160 -y 40 \
  "HERON_ROOT='$HERON_ROOT' '$STAT' --watch -i 0.3 live; echo \"exit status \$?\" >'$WORK/exit'; sleep 60"

screen() { tmux -L "$SOCKET" capture-pane -p -t watch; }
# The sequence column of the table's row on the screen now.
sequence() { screen | awk '$1 == "live" {print $7}'; }

seen=()
last=""
deadline=$((SECONDS + 15))
while ((${#seen[@]} < 3 && SECONDS < deadline)); do
  s=$(sequence)
  if [[ -n $s && $s != "$last" ]]; then
    seen+=("$s")
    last=$s
  fi
  sleep 0.1
done
((${#seen[@]} >= 3)) || fail "the screen did not repaint with new sequences (seen: ${seen[*]:-none}): $(screen)"
((seen[0] < seen[1] && seen[1] < seen[2])) || fail "sequences do not grow: ${seen[*]}"
headers=$(screen | grep -c '^TABLE ')
[[ $headers -eq 1 ]] || fail "the view was appended, not repainted ($headers headers): $(screen)"
screen | matches '^heron-stat  ' || fail "no title line: $(screen)"
echo "repainted in place with sequences ${seen[*]}"

tmux -L "$SOCKET" send-keys -t watch C-c
wait_for_line "$WORK/exit" '^exit status' 10 || fail "Ctrl-C did not end the watch: $(screen)"
[[ $(cat "$WORK/exit") == "exit status 0" ]] || fail "Ctrl-C: $(cat "$WORK/exit")"
echo "Ctrl-C: $(cat "$WORK/exit")"
echo PASS
