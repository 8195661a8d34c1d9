#!/usr/bin/env bash
# heron-stat --listen under abuse, over a live demo collection: clients that
# send half a request and stall, 100 scrapes at once, a 1 MB request line, a
# 1 MB header line, unknown paths and methods. It keeps answering the others,
# answers each abuse with the status HTTP gives it (414, 431, 404, 405),
# drops the stalled clients 10 s after they connected, its memory stays flat
# from one round to the next, and SIGTERM still stops it with status 0.
source "$(dirname "$0")/sim_lib/common.sh"
source "$(dirname "$0")/sim_lib/demo.sh"

STAT=$BIN/heron-stat
[[ -x $STAT ]] || fail "$STAT is not built"
command -v curl >/dev/null || fail "curl is missing: install it with scripts/install-deps.sh"

start_demo
start_stat_listen

rss_kb() { awk '/^VmRSS:/ {print $2}' "/proc/$STAT_PID/status"; }

# code [curl options] PATH: the status of one request.
code() {
  local path=${*: -1}
  curl -s -o /dev/null -w '%{http_code}' --max-time 20 "${@:1:$#-1}" "$URL$path"
}

expect_code() {
  local want=$1 got
  shift
  got=$(code "$@")
  [[ $got == "$want" ]] || fail "$* answered $got, expected $want"
}

# Opens a connection that sends half a request and then nothing; its
# descriptor is appended to STALLED.
STALLED=()
stall() {
  local fd
  exec {fd}<>"/dev/tcp/127.0.0.1/$PORT"
  printf 'GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Half: ' >&"$fd"
  STALLED+=("$fd")
}

# The status line answered to a request line of 1 MiB.
BIG=$(head -c 1048576 /dev/zero | tr '\0' a)
# raw_status FORMAT ARG: sends printf FORMAT ARG as a request on a new
# connection and prints the status line of the answer.
raw_status() {
  local fd line=""
  exec {fd}<>"/dev/tcp/127.0.0.1/$PORT"
  # The server may close before it has read everything: a failed write,
  # not SIGPIPE.
  # shellcheck disable=SC2059
  (
    trap '' PIPE
    printf "$1" "$2" 1>&"$fd"
  ) 2>/dev/null || true
  IFS= read -r -t 20 line <&"$fd" || true
  exec {fd}>&-
  printf '%s' "${line%$'\r'}"
}
huge_request_line() { raw_status 'GET /metrics?%s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n' "$BIG"; }
huge_header() { raw_status 'GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Big: %s\r\nConnection: close\r\n\r\n' "$BIG"; }

# 100 scrapes at once; each must be a full exposition.
parallel_scrapes() {
  rm -f "$WORK"/scrape_*
  curl -s --no-progress-meter --parallel --parallel-immediate --parallel-max 100 --max-time 60 -w '%{http_code}\n' \
    -o "$WORK/scrape_#1" "$URL/metrics?n=[1-100]" >"$WORK/codes" || true
  local ok
  ok=$(grep -c '^200$' "$WORK/codes" || true)
  [[ $ok -eq 100 ]] || fail "$ok of 100 concurrent scrapes answered 200: $(sort "$WORK/codes" | uniq -c | tr '\n' ' ')"
  local file
  for file in "$WORK"/scrape_*; do
    grep -q '^heron_writer_up{table="orders"} 1$' "$file" || fail "a concurrent scrape was incomplete: $(head -c 300 "$file")"
  done
}

abuse_round() {
  stall
  stall
  stall
  expect_code 200 /healthz
  parallel_scrapes
  local status
  # The server answers once its 16 KiB buffer is full, while the client is
  # still sending, and drains the rest so that the answer is not reset.
  status=$(huge_request_line)
  [[ $status == "HTTP/1.1 414 URI Too Long" || $status == "HTTP/1.1 431 Request Header Fields Too Large" ]] ||
    fail "a 1 MiB request line got '$status'"
  status=$(huge_header)
  [[ $status == "HTTP/1.1 431 Request Header Fields Too Large" ]] || fail "a 1 MiB header line got '$status'"
  expect_code 404 /index.html
  expect_code 404 /metricsx
  expect_code 404 /api/v1/sample/x
  expect_code 404 -X POST /nowhere
  expect_code 405 -X POST --data x /metrics
  expect_code 405 -X DELETE /healthz
  expect_code 405 -X POST --data x /api/v1/sample
  expect_code 405 -X BREW /metrics
  curl -s -o /dev/null -D "$WORK/allow" -X PUT --data x "$URL/metrics"
  grep -qi '^allow: GET, HEAD' "$WORK/allow" || fail "405 without Allow: $(cat "$WORK/allow")"
  expect_code 200 /healthz
  expect_code 200 /metrics
}

# Round 1, then the stalled clients must be dropped: the server closes them
# once their headers are 10 s overdue.
abuse_round
for fd in "${STALLED[@]}"; do
  timeout 20 cat <&"$fd" >/dev/null || fail "a stalled client was still connected after 20 s"
  exec {fd}>&-
done
STALLED=()
# Allocations settle in the first round; from then on memory must not grow
# with more of the same (a little slack for blocks still in use while the
# last answers go out).
first=$(rss_kb)
for _ in 2 3; do
  abuse_round
done
for ((i = 0; i < 5; i++)); do
  curl -fsS -o /dev/null "$URL/metrics?[1-20]" || fail "sequential scrapes failed"
done
last=$(rss_kb)
echo "VmRSS after round 1: $first kB, after round 3 and 100 more scrapes: $last kB"
if sanitized_build; then
  # ASan keeps freed blocks in its quarantine: RSS grows whatever the program
  # does. The flat-memory check runs in the ordinary build.
  echo "memory check not applied to the sanitizer build"
else
  ((last <= first + 1536)) || fail "memory grew from $first kB to $last kB"
fi
for fd in "${STALLED[@]}"; do
  exec {fd}>&-
done

status=0
stop_pid "$STAT_PID" || status=$?
[[ $status -eq 0 ]] || fail "heron-stat --listen ended with $status on SIGTERM: $(cat "$WORK/stat.err")"
echo PASS
