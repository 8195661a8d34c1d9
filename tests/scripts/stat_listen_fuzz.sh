#!/usr/bin/env bash
# heron-stat --listen under 10,000 generated requests (methods, paths,
# header counts and sizes, bodies, pipelining, bytes that are no request,
# connections reset halfway): it never dies, every answer is a valid HTTP
# status line with its whole body, it still answers afterwards and stops
# with status 0 on SIGTERM, and its VmRSS after the last requests is within
# 1.5 MB of its VmRSS after the first thousand.
source "$(dirname "$0")/sim_lib/common.sh"

STAT=$BIN/heron-stat
[[ -x $STAT ]] || fail "$STAT is not built"
command -v python3 >/dev/null || fail "python3 is missing"

# ASan keeps freed blocks in its quarantine: RSS grows whatever the program
# does, so the memory check runs in the ordinary build only.
growth=1536
if sanitized_build; then
  growth=-1
fi
python3 "$(dirname "$0")/sim_lib/http_clients.py" fuzz "$STAT" 10000 "$growth" || fail "see above"
echo PASS
