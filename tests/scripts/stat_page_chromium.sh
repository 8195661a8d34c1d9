#!/usr/bin/env bash
# heron-stat's live page in a real browser (headless Chromium from Debian)
# against live heron-sim tables, one named like markup: the dumped DOM shows
# every table with its state and the hostile name as text (no element made
# from it); in one page left open, a writer's row says dead within two
# refreshes of its SIGKILL, headers sort, a click opens the detail, and the
# page says its data is stale while the server hangs and once it is gone.
# The screenshot is saved as $BUILD/test-artifacts/stat-page.png. Skipped
# (77) without chromium.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
CHROMIUM=$(command -v chromium || true)
if [[ -z $CHROMIUM ]]; then
  echo "SKIP: chromium is not installed (scripts/install-deps.sh installs it)"
  exit 77
fi
command -v python3 >/dev/null || fail "python3 is missing"
ARTIFACTS=$(cd "$BIN/.." && pwd)/test-artifacts
mkdir -p "$ARTIFACTS"

# Blanks and backslashes are refused in table names; this one still breaks
# out of an attribute and would run as script if it were parsed as markup.
HOSTILE=$'<svg/onload=alert(1)>"\'&amp;'
for t in orders md/eu/quotes victim "$HOSTILE"; do "$SIM" create "$t" >/dev/null; done
start_writer orders --rate 500
start_shadow orders
start_writer md/eu/quotes --rate 200
start_writer "$HOSTILE" --rate 100
start_writer victim --rate 100
VICTIM_PID=$WRITER_PID

"$STAT" --listen 127.0.0.1:0 -i 1 >"$WORK/stat.out" 2>"$WORK/stat.err" &
STAT_PID=$!
STARTED+=("$STAT_PID")
wait_for_line "$WORK/stat.out" '^listening on 127\.0\.0\.1:[0-9]*$' 10 ||
  fail "heron-stat did not listen: $(cat "$WORK/stat.out" "$WORK/stat.err")"
URL=http://$(sed -n 's/^listening on //p' "$WORK/stat.out")/

# Headless, as root, with a profile of its own, bounded in time.
BROWSER=(timeout 120 "$CHROMIUM" --headless --no-sandbox --disable-gpu --no-first-run
  --user-data-dir="$WORK/profile" --window-size=1400,1000)

# The DOM once the page has fetched a few samples (virtual time runs the
# page's timers without waiting for them).
dumped_rows() {
  "${BROWSER[@]}" --virtual-time-budget=3500 --dump-dom "$URL" >"$WORK/dom.html" 2>>"$WORK/chromium.err" ||
    fail "chromium --dump-dom failed: $(tail -5 "$WORK/chromium.err")"
  python3 - "$WORK/dom.html" <<'PY'
import html.parser, sys
class Rows(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.rows, self.cell, self.depth, self.tags, self.where = [], None, 0, [], []
    def handle_starttag(self, tag, attrs):
        self.tags.append(tag)
        if tag == "tbody":
            self.where.append(dict(attrs).get("id"))
        if tag == "tr" and self.where[-1:] == ["rows"]:
            self.rows.append([dict(attrs).get("data-state"), None])
        if tag == "td" and self.where[-1:] == ["rows"] and self.rows[-1][1] is None:
            self.cell = ""
    def handle_endtag(self, tag):
        if tag == "td" and self.cell is not None:
            self.rows[-1][1], self.cell = self.cell, None
        if tag == "tbody":
            self.where.pop()
    def handle_data(self, data):
        if self.cell is not None:
            self.cell += data
parser = Rows()
parser.feed(open(sys.argv[1], encoding="utf-8").read())
for state, name in parser.rows:
    print("%s\t%s" % (name, state))
print("elements\t%s" % " ".join(sorted(set(parser.tags))))
PY
}

printf '%s\tok\n' orders md/eu/quotes victim "$HOSTILE" | sort >"$WORK/expected"
dumped_rows >"$WORK/rows"
grep -v '^elements' "$WORK/rows" | sort >"$WORK/seen"
diff "$WORK/expected" "$WORK/seen" >"$WORK/diff" || fail "dumped DOM rows (name, state) differ: $(cat "$WORK/diff")"
echo "dumped DOM: $(wc -l <"$WORK/seen") tables, all ok"
elements=$(sed -n 's/^elements\t//p' "$WORK/rows")
for tag in svg img iframe object embed; do
  [[ " $elements " != *" $tag "* ]] || fail "a <$tag> element in the DOM: $elements"
done
matches -F '&lt;svg/onload=alert(1)&gt;"'"'"'&amp;amp;' "$WORK/dom.html" ||
  fail "the hostile name is not escaped text in the dumped DOM"
[[ $(grep -o '<script' "$WORK/dom.html" | wc -l) -eq 1 ]] || fail "more than the page's one script element"
matches 'data-refreshes="[2-9]' "$WORK/dom.html" || fail "the page did not refresh: $(grep -o '<body[^>]*>' "$WORK/dom.html")"
echo "hostile name shown as text, no element made from it"

# One page left open in real time, driven over the DevTools protocol.
rm -f "$WORK/profile/DevToolsActivePort"
"${BROWSER[@]}" --remote-debugging-port=0 "$URL" 2>>"$WORK/chromium.err" &
BROWSER_PID=$!
STARTED+=("$BROWSER_PID")
wait_until 30 test -s "$WORK/profile/DevToolsActivePort" ||
  fail "chromium did not open its DevTools port: $(tail -5 "$WORK/chromium.err")"
DEVTOOLS_PORT=$(head -1 "$WORK/profile/DevToolsActivePort")
printf '%s\tok\n' orders md/eu/quotes victim "$HOSTILE" >"$WORK/states"
python3 "$(dirname "$0")/sim_lib/page_check.py" live "$DEVTOOLS_PORT" "$WORK/states" victim "$VICTIM_PID" \
  "$ARTIFACTS/stat-page.png" "$STAT_PID" || fail "see above"
stop_pid "$BROWSER_PID" || true
wait "$VICTIM_PID" 2>/dev/null || true
wait "$STAT_PID" || fail "heron-stat ended with $? after SIGTERM"
echo PASS
