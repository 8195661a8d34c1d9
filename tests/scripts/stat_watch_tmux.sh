#!/usr/bin/env bash
# heron-stat --watch in a real terminal (tmux): the interactive view fits
# 80x24 with 60 tables (summary, problems, header and the worst rows on
# the screen), colours dead rows, answers every key, turns a SIGKILLed
# writer's row dead within two intervals, lays itself out again on a
# resize, and quits with q (status 0). NO_COLOR drops the colour;
# TERM=dumb gets plain appended blocks without an escape code.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
command -v tmux >/dev/null || fail "tmux is not installed (scripts/install-deps.sh installs it)"
SOCKET=heron-stat-test-$$
trap 'tmux -L "$SOCKET" kill-server 2>/dev/null || true; cleanup' EXIT

for i in $(seq -w 1 59); do
  "$SIM" create "idle/t$i" >/dev/null
done
"$SIM" create live >/dev/null
# A name wider than 80 columns, in two-column characters: shortened on the
# screen by display width.
LONG="idle/t00-名前-$(printf 'x%.0s' $(seq 1 90))"
"$SIM" create "$LONG" >/dev/null
start_writer live --rate 2000

# open NAME WIDTH HEIGHT [ENV...]: the view in a new tmux session.
open() {
  local name=$1 width=$2 height=$3
  shift 3
  # The pane's `sleep 60` only keeps the pane open once heron-stat has ended,
  # so that its exit line can be read; the session is killed before then.
  local command="env HERON_ROOT='$HERON_ROOT' $* '$STAT' --watch -i 1; echo \"exit status \$?\" >'$WORK/exit.$name'; sleep 60"
  if tmux -L "$SOCKET" has-session 2>/dev/null; then
    tmux -L "$SOCKET" new-session -d -s "$name" -x "$width" -y "$height" "$command"
  else
    tmux -L "$SOCKET" -f /dev/null new-session -d -s "$name" -x "$width" -y "$height" "$command"
  fi
}
screen() { tmux -L "$SOCKET" capture-pane -p -t "$1"; }
coloured() { tmux -L "$SOCKET" capture-pane -p -e -t "$1"; }
keys() { tmux -L "$SOCKET" send-keys -t "$@"; }
shows() { screen "$1" | matches -E "$2"; }
# see SESSION REGEX WHAT: waits until the screen shows REGEX.
see() { wait_until 10 shows "$1" "$2" || fail "$3: $(screen "$1")"; }

open v 80 24
see v '^61 tables: 60 dead, 1 ok' "no summary line first"
see v '^TABLE +STATE +PID +BEAT' "no header"
screen v | matches -E '^critical  idle/t00-名前-x+…$' || fail "problems not under the summary: $(screen v)"
screen v | matches -E 'more problems' || fail "59 problems were not cut to the room: $(screen v)"
screen v | tail -1 | matches '^sort: state  61 of 61 tables' || fail "no status line at the bottom: $(screen v)"
[[ $(screen v | wc -l) -eq 24 ]] || fail "not 24 lines: $(screen v)"
# Nothing wraps: the row of a table holds its figures.
screen v | matches -E '^idle/t01 +dead +- +- ' || fail "a dead row is not one line: $(screen v)"
screen v | matches -E '^idle/t00-名前-x*… +dead ' || fail "the long name is not shortened: $(screen v | cat -A | head -20)"
screen v | matches SEQUENCE && fail "SEQUENCE should be dropped at 80 columns: $(screen v)"
coloured v | grep ' dead ' | matches $'\e\\[[0-9;]*31m' || fail "dead rows are not red: $(coloured v | cat -v)"
echo "80x24: summary, problems, header, worst first, dead rows red"

# Keys.
keys v End
see v '^live +ok ' "End did not reach the last table"
keys v Home
wait_until 10 bash -c "! tmux -L '$SOCKET' capture-pane -p -t v | grep -q '^live '" || fail "Home: $(screen v)"
first=$(screen v | grep -m1 '^idle/')
keys v PageDown Down Up PageUp
see v "^${first%% *} " "PgDn, Down, Up, PgUp did not come back to the top"
keys v s
see v '^sort: name' "s did not sort by name"
for sort in rate fill allocation state; do
  keys v s
  see v "^sort: $sort" "s did not cycle to $sort"
done
keys v / l i v
see v '^filter: liv_' "/ did not open the filter"
keys v Enter
see v '1 of 61 tables' "the filter did not apply"
keys v Enter
see v "^writer +pid $WRITER_PID +heartbeat" "Enter did not open the detail"
see v '^  queue 1 \[' "no queue with a fill bar in the detail"
see v '^  #[0-9]+ +[0-9]+ B +\[' "no region with an occupancy bar in the detail"
keys v Escape
see v '^TABLE ' "Esc did not go back"
keys v p
see v '^PAUSED' "p did not pause"
# The sample time (HH:MM:SS UTC) of the summary moves again once resumed.
paused=$(screen v | head -1 | grep -oE '[0-9]{2}:[0-9]{2}:[0-9]{2} UTC')
keys v p
see v '^61 tables' "p did not resume"
wait_until 10 bash -c "! tmux -L '$SOCKET' capture-pane -p -t v | head -1 | grep -q '$paused'" ||
  fail "no new sample after resuming: $(screen v | head -1)"
keys v '?'
see v '^Keys' "? did not show the keys"
keys v Escape
see v '^TABLE ' "Esc did not leave the keys"
echo "keys: End Home PgDn Down Up PgUp s / Enter Esc p ?"

# A writer SIGKILLed while the view is open: dead within two intervals,
# counted in samples (the time on the summary line), not in milliseconds:
# on busy cores a sample can take longer than its interval.
see v '^live +ok ' "the live table is not ok"
sample_time() { head -1 <<<"$1" | grep -oE '[0-9]{2}:[0-9]{2}:[0-9]{2} UTC'; }
shown=$(sample_time "$(screen v)")
samples_since=0
# dead_yet: the live row shows dead; counts the samples shown meanwhile.
dead_yet() {
  local now time
  now=$(screen v)
  time=$(sample_time "$now")
  if [[ -n $time && $time != "$shown" ]]; then
    shown=$time
    samples_since=$((samples_since + 1))
  fi
  matches -E '^live +dead ' <<<"$now"
}
kill -KILL "$WRITER_PID"
killed=$(date +%s%N)
wait_until 10 dead_yet || fail "the killed writer's row did not turn dead: $(screen v)"
took=$((($(date +%s%N) - killed) / 1000000))
((samples_since <= 2)) || fail "the row turned dead $samples_since samples after the kill, more than two intervals"
echo "SIGKILL: dead on the screen $samples_since samples ($took ms) after the kill"

# Resize: laid out again for 200x50, with every column.
tmux -L "$SOCKET" resize-window -t v -x 200 -y 50
see v '^TABLE +STATE +PID +BEAT +RESTARTS +SHADOWS +SEQUENCE +RATE/S +Q +FILL +SWITCH +ALLOC +FULLEST' \
  "not laid out again for 200 columns"
wait_until 10 bash -c "[[ \$(tmux -L '$SOCKET' capture-pane -p -t v | wc -l) -eq 50 ]]" || fail "not 50 lines"
tmux -L "$SOCKET" resize-window -t v -x 80 -y 24
wait_until 10 bash -c "! tmux -L '$SOCKET' capture-pane -p -t v | grep -q SEQUENCE" || fail "not laid out for 80: $(screen v)"
echo "resize: 200x50 shows every column, 80x24 drops them again"

keys v q
wait_for_line "$WORK/exit.v" '^exit status' 10 || fail "q did not end the view: $(screen v)"
[[ $(cat "$WORK/exit.v") == "exit status 0" ]] || fail "q: $(cat "$WORK/exit.v")"
echo "q: $(cat "$WORK/exit.v")"

# NO_COLOR: the same view without colour.
open n 200 50 NO_COLOR=1
see n '^idle/t01 +dead ' "NO_COLOR: no view"
coloured n | grep ' dead ' | matches $'\e\\[[0-9;]*3[0-7]m' && fail "NO_COLOR still colours: $(coloured n | cat -v)"
keys n C-c
wait_for_line "$WORK/exit.n" '^exit status' 10 || fail "Ctrl-C did not end the view: $(screen n)"
[[ $(cat "$WORK/exit.n") == "exit status 0" ]] || fail "Ctrl-C: $(cat "$WORK/exit.n")"
echo "NO_COLOR: no colour; Ctrl-C: $(cat "$WORK/exit.n")"

# TERM=dumb: plain blocks, appended, with no escape code at all.
open d 160 40 TERM=dumb
tmux -L "$SOCKET" pipe-pane -t d -o "cat >'$WORK/dumb.raw'"
wait_until 10 bash -c "[[ \$(grep -c '^heron-stat  ' '$WORK/dumb.raw' 2>/dev/null) -ge 2 ]]" ||
  fail "TERM=dumb: no appended blocks: $(cat -v "$WORK/dumb.raw")"
keys d C-c
wait_for_line "$WORK/exit.d" '^exit status' 10 || fail "Ctrl-C did not end the dumb view"
matches $'\e' "$WORK/dumb.raw" && fail "TERM=dumb got escape codes: $(cat -v "$WORK/dumb.raw" | head)"
grep '^TABLE ' "$WORK/dumb.raw" | matches SEQUENCE || fail "TERM=dumb: not the plain table"
echo "TERM=dumb: plain appended blocks, no escape code"
echo PASS
