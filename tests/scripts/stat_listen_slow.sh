#!/usr/bin/env bash
# heron-stat --listen with 200 idle and 50 one-byte-a-second connections
# held: a scrape on a new connection is still answered within 1 s by a
# server of a few threads, the dripping requests are dropped about 10 s
# after they began, and SIGTERM with 200 connections held ends the server
# with status 0 within 1 s.
source "$(dirname "$0")/sim_lib/common.sh"

STAT=$BIN/heron-stat
[[ -x $STAT ]] || fail "$STAT is not built"
command -v python3 >/dev/null || fail "python3 is missing"

python3 "$(dirname "$0")/sim_lib/http_clients.py" slow "$STAT" || fail "see above"
echo PASS
