#!/usr/bin/env bash
# heron-stat --listen and HTTP: a request of 8 MiB answered 414 or 431
# while it is still being sent, pipelined requests answered in order, an
# answer that closes the connection says "Connection: close" and no
# Keep-Alive, requests on a kept-alive connection answered without the
# delayed-ACK wait, 503 beyond the connection limit; --help says what
# ":PORT" listens on, and a host name that does not resolve says why.
source "$(dirname "$0")/sim_lib/common.sh"

STAT=$BIN/heron-stat
[[ -x $STAT ]] || fail "$STAT is not built"
command -v python3 >/dev/null || fail "python3 is missing"

python3 "$(dirname "$0")/sim_lib/http_clients.py" protocol "$STAT" || fail "see above"

"$STAT" --help >"$WORK/help" || fail "--help failed"
matches -F ':PORT listens on every IPv4 address' "$WORK/help" || fail "--help does not say what :PORT does"

status=0
"$STAT" --listen no-such-host.invalid:9464 >"$WORK/out" 2>"$WORK/err" || status=$?
[[ $status -eq 1 ]] || fail "an unresolvable host ended with $status"
[[ $(wc -l <"$WORK/err") -eq 1 ]] || fail "not one line: $(cat "$WORK/err")"
matches '^heron-stat: cannot listen on no-such-host.invalid:9464: cannot resolve no-such-host.invalid: .' \
  "$WORK/err" || fail "unclear: $(cat "$WORK/err")"
echo PASS
