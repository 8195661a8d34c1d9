#!/usr/bin/env bash
# heron-stat --listen over a live demo collection, read by the Prometheus
# tools themselves: promtool accepts the exposition, and a real Prometheus
# server scraping every second answers queries for heron_writer_up and for
# the writers' rates. With the shipped rules evaluated every second, a
# writer killed with SIGKILL has its alert pending within 5 s, and a table
# removed has its alert pending within that alert's `for`. Without promtool
# or prometheus the test fails: they come with the Debian package prometheus
# (scripts/install-deps.sh).
source "$(dirname "$0")/sim_lib/common.sh"
source "$(dirname "$0")/sim_lib/demo.sh"
RULES=${HERON_SOURCE:?HERON_SOURCE must name the source directory}/docs/prometheus/heron-alerts.yml

STAT=$BIN/heron-stat
[[ -x $STAT ]] || fail "$STAT is not built"
for tool in promtool prometheus curl jq; do
  command -v "$tool" >/dev/null || fail "$tool is missing: install it with scripts/install-deps.sh"
done

RATE=40
start_demo --rate "$RATE"
WRITER_TABLES=(orders md/eu/quotes md/eu/trades md/us/quotes)

start_stat_listen

# The exposition as a scraper sees it.
curl -fsS -D "$WORK/headers" -o "$WORK/metrics" "http://127.0.0.1:$PORT/metrics" || fail "GET /metrics failed"
grep -qi '^content-type: text/plain; version=0.0.4; charset=utf-8' "$WORK/headers" ||
  fail "wrong content type: $(cat "$WORK/headers")"
promtool check metrics <"$WORK/metrics" >"$WORK/promtool.out" 2>&1 ||
  fail "promtool check metrics refused the exposition: $(cat "$WORK/promtool.out")"
for table in "${WRITER_TABLES[@]}"; do
  grep -q "^heron_writer_up{table=\"$table\"} 1$" "$WORK/metrics" || fail "no heron_writer_up 1 for $table"
done

# A Prometheus server of our own on a free port, scraping every second.
cat >"$WORK/prometheus.yml" <<EOF
global:
  scrape_interval: 1s
  scrape_timeout: 1s
  evaluation_interval: 1s
rule_files:
  - $RULES
scrape_configs:
  - job_name: heron
    static_configs:
      - targets: ['127.0.0.1:$PORT']
EOF
promtool check config "$WORK/prometheus.yml" >/dev/null || fail "promtool refused the test's configuration"

# A port is free until someone takes it: try a few.
PROM_PORT=""
for attempt in 1 2 3 4 5; do
  port=$((20000 + RANDOM % 40000))
  rm -rf "$WORK/tsdb"
  prometheus --config.file="$WORK/prometheus.yml" --storage.tsdb.path="$WORK/tsdb" \
    --web.listen-address="127.0.0.1:$port" --log.level=warn >"$WORK/prometheus.log" 2>&1 &
  PROM_PID=$!
  STARTED+=("$PROM_PID")
  for ((i = 0; i < 600; i++)); do
    if curl -fs "http://127.0.0.1:$port/-/ready" >/dev/null 2>&1; then
      PROM_PORT=$port
      break 2
    fi
    kill -0 "$PROM_PID" 2>/dev/null || break
    sleep 0.1
  done
  kill -TERM "$PROM_PID" 2>/dev/null || true
  wait "$PROM_PID" 2>/dev/null || true
  grep -q 'address already in use' "$WORK/prometheus.log" || fail "prometheus did not start: $(cat "$WORK/prometheus.log")"
done
[[ -n $PROM_PORT ]] || fail "prometheus found no free port"

# query EXPR: "TABLE VALUE" per series of an instant query.
query() {
  curl -fsS --get --data-urlencode "query=$1" "http://127.0.0.1:$PROM_PORT/api/v1/query" |
    jq -r 'select(.status == "success") | .data.result[] | "\(.metric.table) \(.value[1])"' | sort
}

# until_query EXPR SECONDS CHECK: runs the query until CHECK (a function
# reading its output) accepts it; the last answer is in $ANSWER.
until_query() {
  local expr=$1 limit=$(($2 * 4)) check=$3 i
  for ((i = 0; i < limit; i++)); do
    ANSWER=$(query "$expr" 2>/dev/null || true)
    "$check" <<<"$ANSWER" && return 0
    sleep 0.25
  done
  return 1
}

writers_up() {
  local table answer
  answer=$(cat)
  for table in "${WRITER_TABLES[@]}"; do
    grep -qx "$table 1" <<<"$answer" || return 1
  done
  # An archive kept without a writer has no writer to be up or down.
  ! grep -q "^archive/2025 " <<<"$answer"
}
until_query heron_writer_up 60 writers_up || fail "heron_writer_up from prometheus: '$ANSWER'"

# Each demo writer appends RATE notifications a second; once Prometheus holds
# a full 5 s window of one-second scrapes (before that, rate() extrapolates
# from a partial window and reads low), its rate must say so within 25 %.
window_full() {
  local table answer
  answer=$(cat)
  for table in "${WRITER_TABLES[@]}"; do
    awk -v t="$table" '$1 == t && $2 >= 6 {found = 1} END {exit !found}' <<<"$answer" || return 1
  done
}
until_query 'count_over_time(heron_queue_sequence_total[7s])' 60 window_full ||
  fail "prometheus did not collect 7 s of scrapes: '$ANSWER'"
rates_match() {
  local table value answer
  answer=$(cat)
  for table in "${WRITER_TABLES[@]}"; do
    value=$(awk -v t="$table" '$1 == t {print $2}' <<<"$answer")
    [[ -n $value ]] || return 1
    awk -v v="$value" -v r="$RATE" 'BEGIN {exit !(v >= 0.75 * r && v <= 1.25 * r)}' || return 1
  done
}
until_query 'rate(heron_queue_sequence_total[5s])' 10 rates_match ||
  fail "rate(heron_queue_sequence_total[5s]) from prometheus, expected about $RATE/s: '$ANSWER'"

# alert_state NAME TABLE: the state of that alert for that table ("pending",
# "firing"), or nothing.
alert_state() {
  curl -fsS "http://127.0.0.1:$PROM_PORT/api/v1/alerts" |
    jq -r --arg a "$1" --arg t "$2" '.data.alerts[] | select(.labels.alertname == $a and .labels.table == $t) | .state'
}
alert_raised() { [[ -n $(alert_state "$1" "$2" 2>/dev/null) ]]; }
# rule_for NAME: the `for` of that alert in the shipped rules, in seconds.
rule_for() {
  awk -v a="$1" '$0 ~ "- alert: " a "$" {on = 1; next} on && /^ *for:/ {print $2; exit}' "$RULES" |
    awk '/s$/ {print $0 + 0} /m$/ {print $0 * 60}'
}

victim=md/us/quotes
victim_pid=$("$STAT" --json -i 0 | jq -r --arg t "$victim" '.tables[] | select(.name == $t) | .writer.pid')
[[ $victim_pid =~ ^[0-9]+$ ]] || fail "no writer pid for $victim: '$victim_pid'"
alert_raised HeronWriterDown "$victim" && fail "HeronWriterDown raised for $victim before its writer died"
killed_at=$(date +%s%N)
kill -KILL "$victim_pid"
# A scrape and an evaluation (1 s each) after the kill; well inside the
# rule's 30-s `for`, with room for busy cores.
wait_until 15 alert_raised HeronWriterDown "$victim" ||
  fail "HeronWriterDown not pending 15 s after SIGKILL of $victim's writer: $(curl -fsS "http://127.0.0.1:$PROM_PORT/api/v1/alerts")"
echo "HeronWriterDown $(alert_state HeronWriterDown "$victim") $((($(date +%s%N) - killed_at) / 1000000)) ms after SIGKILL of $victim's writer"

vanish_for=$(rule_for HeronTableVanished)
[[ $vanish_for -gt 0 ]] || fail "no for: of HeronTableVanished in $RULES"
alert_raised HeronTableVanished "$victim" && fail "HeronTableVanished raised for $victim before it was removed"
removed_at=$(date +%s%N)
rm -r "${HERON_ROOT:?}/$victim"
wait_until "$vanish_for" alert_raised HeronTableVanished "$victim" ||
  fail "HeronTableVanished not pending ${vanish_for} s after $victim was removed: $(curl -fsS "http://127.0.0.1:$PROM_PORT/api/v1/alerts")"
echo "HeronTableVanished $(alert_state HeronTableVanished "$victim") $((($(date +%s%N) - removed_at) / 1000000)) ms after $victim was removed"
alert_raised HeronTableVanished orders && fail "HeronTableVanished raised for orders, which is still there"

stop_pid "$PROM_PID" || fail "prometheus did not stop cleanly"
status=0
stop_pid "$STAT_PID" || status=$?
[[ $status -eq 0 ]] || fail "heron-stat --listen ended with $status on SIGTERM: $(cat "$WORK/stat.err")"
[[ ! -s $WORK/stat.err ]] || fail "heron-stat wrote to standard error: $(cat "$WORK/stat.err")"
echo PASS
