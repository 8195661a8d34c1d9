"""Drives heron-stat's live page in a running headless Chromium over the
DevTools protocol (a WebSocket; a small client here, standard library only),
for tests/scripts/stat_page_chromium.sh.

  page_check.py live DEVTOOLS_PORT STATE_FILE VICTIM_NAME VICTIM_PID SHOT STAT_PID

One page, loaded once, is watched while things happen to it: every table of
STATE_FILE (lines "NAME<TAB>STATE", names as the page must show them) is on
it with its state; VICTIM_PID gets SIGKILL and its row must say dead within
two of the page's refreshes; a click on that row opens its detail; a click
on a header sorts; the screenshot goes to SHOT; then heron-stat (STAT_PID)
hangs (SIGSTOP) and the page must say that its data is stale, and no more
once it answers again (SIGCONT), and again once it is gone (SIGTERM). Prints what it
saw; exits 1 with a line saying what went wrong.
"""

import base64
import json
import os
import signal
import socket
import struct
import sys
import time
import urllib.request


def fail(message):
    print("FAIL: " + message, file=sys.stderr)
    sys.exit(1)


class DevTools:
    """One page target's WebSocket: commands in order, events kept."""

    def __init__(self, url, timeout=30):
        assert url.startswith("ws://")
        hostport, path = url[len("ws://"):].split("/", 1)
        host, port = hostport.rsplit(":", 1)
        self.sock = socket.create_connection((host, int(port)), timeout=timeout)
        key = base64.b64encode(os.urandom(16)).decode()
        self.sock.sendall(
            ("GET /%s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n" % (path, hostport, key)).encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self.sock.recv(1)
            if not chunk:
                fail("DevTools closed the connection during the handshake")
            head += chunk
        if not head.startswith(b"HTTP/1.1 101"):
            fail("DevTools refused the WebSocket: %r" % head[:200])
        self.next_id = 0
        self.events = []

    def _exact(self, n):
        data = b""
        while len(data) < n:
            chunk = self.sock.recv(n - len(data))
            if not chunk:
                fail("DevTools closed the connection")
            data += chunk
        return data

    def _send(self, opcode, payload):
        mask = os.urandom(4)
        size = len(payload)
        if size < 126:
            head = struct.pack("!BB", 0x80 | opcode, 0x80 | size)
        elif size < 65536:
            head = struct.pack("!BBH", 0x80 | opcode, 0x80 | 126, size)
        else:
            head = struct.pack("!BBQ", 0x80 | opcode, 0x80 | 127, size)
        masked = bytes(b ^ mask[i % 4] for i, b in enumerate(payload))
        self.sock.sendall(head + mask + masked)

    def _message(self):
        parts = []
        while True:
            first, second = self._exact(2)
            size = second & 0x7F
            if size == 126:
                size = struct.unpack("!H", self._exact(2))[0]
            elif size == 127:
                size = struct.unpack("!Q", self._exact(8))[0]
            payload = self._exact(size)
            opcode = first & 0x0F
            if opcode == 0x9:  # ping
                self._send(0xA, payload)
                continue
            if opcode == 0x8:
                fail("DevTools closed the WebSocket")
            parts.append(payload)
            if first & 0x80:
                return json.loads(b"".join(parts).decode())

    def call(self, method, **params):
        self.next_id += 1
        self._send(0x1, json.dumps({"id": self.next_id, "method": method, "params": params}).encode())
        while True:
            message = self._message()
            if message.get("id") == self.next_id:
                if "error" in message:
                    fail("%s: %s" % (method, message["error"]))
                return message.get("result", {})
            self.events.append(message)

    def evaluate(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in result:
            fail("the page threw on %s: %s" % (expression, result["exceptionDetails"]))
        return result["result"].get("value")

    def dialogs(self):
        return [e for e in self.events if e.get("method") == "Page.javascriptDialogOpening"]


ROWS = "[...document.querySelectorAll('#rows tr')].map(tr => [tr.cells[0].textContent, tr.dataset.state])"
REFRESHES = "Number(document.body.dataset.refreshes || 0)"


def poll(page, expression, done, seconds, what):
    """Evaluates `expression` every 100 ms until done(value); fails at the deadline."""
    deadline = time.monotonic() + seconds
    while True:
        value = page.evaluate(expression)
        if done(value):
            return value
        if time.monotonic() > deadline:
            fail("%s: not within %d s; last seen %r" % (what, seconds, value))
        time.sleep(0.1)


def page_target(port):
    deadline = time.monotonic() + 30
    while True:
        try:
            with urllib.request.urlopen("http://127.0.0.1:%d/json/list" % port, timeout=5) as answer:
                targets = [t for t in json.load(answer) if t.get("type") == "page"]
            if targets:
                return targets[0]["webSocketDebuggerUrl"]
        except OSError:
            pass
        if time.monotonic() > deadline:
            fail("no page target on DevTools port %d" % port)
        time.sleep(0.1)


def check_tables(page, expected):
    rows = poll(page, ROWS, lambda rows: sorted(map(tuple, rows)) == sorted(expected.items()), 20,
                "every table with its state")
    print("page shows %d tables: %s" % (len(rows), ", ".join("%s %s" % (n, s) for n, s in rows)))
    elements = page.evaluate("document.querySelectorAll('img, svg, iframe, object, embed').length")
    if elements != 0:
        fail("%d elements from a table name made it into the page" % elements)
    if page.dialogs():
        fail("a dialog opened: a name ran as script: %r" % page.dialogs())


def check_kill(page, victim, pid):
    before = page.evaluate(REFRESHES)
    os.kill(pid, signal.SIGKILL)
    # The refresh under way may have sampled before the kill; the next cannot.
    seen = poll(page, "[%s, (%s).find(r => r[0] === %s)]" % (REFRESHES, ROWS, json.dumps(victim)),
                lambda v: v[1] is not None and v[1][1] == "dead", 20, victim + " dead")
    if seen[0] > before + 2:
        fail("%s dead only %d refreshes after SIGKILL" % (victim, seen[0] - before))
    print("%s dead %d refresh(es) after SIGKILL" % (victim, seen[0] - before))
    first = page.evaluate("document.querySelector('#rows tr').cells[0].textContent")
    if first != victim:
        fail("worst first: the first row is %r, not the dead %r" % (first, victim))


def check_sort_and_detail(page, victim):
    page.evaluate("document.querySelector('th[data-key=name]').click()")
    names = page.evaluate("[...document.querySelectorAll('#rows tr')].map(tr => tr.cells[0].textContent)")
    if names != sorted(names):
        fail("a click on the table header did not sort by name: %r" % names)
    page.evaluate("document.querySelector('th[data-key=name]').click()")
    names = page.evaluate("[...document.querySelectorAll('#rows tr')].map(tr => tr.cells[0].textContent)")
    if names != sorted(names, reverse=True):
        fail("a second click did not reverse the order: %r" % names)
    page.evaluate("document.querySelector('th[data-key=state]').click()")
    page.evaluate("[...document.querySelectorAll('#rows tr')].find(tr => tr.cells[0].textContent === %s).click()"
                  % json.dumps(victim))
    detail = poll(page, "[document.getElementById('detail').hidden, document.getElementById('detail-name')"
                  ".textContent, [...document.querySelectorAll('#detail-body h3')].map(h => h.textContent)]",
                  lambda d: not d[0], 5, "the detail after a click")
    if detail[1] != victim or "Writer" not in detail[2] or "Queues" not in detail[2]:
        fail("detail of the clicked row: %r" % detail)
    print("sorted by name both ways; detail of %s: %s" % (victim, ", ".join(detail[2])))


def live(port, state_file, victim, victim_pid, shot, stat_pid):
    expected = {}
    with open(state_file, encoding="utf-8") as lines:
        for line in lines:
            name, state = line.rstrip("\n").split("\t")
            expected[name] = state
    page = DevTools(page_target(port))
    page.call("Page.enable")
    page.call("Runtime.enable")
    check_tables(page, expected)
    check_kill(page, victim, victim_pid)
    check_sort_and_detail(page, victim)
    page.evaluate("window.scrollTo(0, 0)")
    image = page.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"]
    with open(shot, "wb") as out:
        out.write(base64.b64decode(image))
    print("screenshot: %s" % shot)
    check_stale(page, stat_pid)


BANNER = "[document.getElementById('stale').hidden, document.getElementById('stale').textContent]"


def check_stale(page, stat_pid):
    if page.evaluate("document.body.dataset.stale") != "false":
        fail("stale while the server answers")
    # A server that hangs: its answers stop coming, nothing fails outright.
    os.kill(stat_pid, signal.SIGSTOP)
    try:
        banner = poll(page, BANNER, lambda b: not b[0], 10, "the stale banner while the server hangs")
    finally:
        os.kill(stat_pid, signal.SIGCONT)
    print("server stopped (SIGSTOP): %s" % banner[1])
    poll(page, BANNER, lambda b: b[0], 10, "the banner gone once the server answers again")
    os.kill(stat_pid, signal.SIGTERM)
    banner = poll(page, BANNER, lambda b: not b[0], 10, "the stale banner once the server is gone")
    print("server gone (SIGTERM): %s" % banner[1])
    if not banner[1].startswith("Stale: "):
        fail("banner: %r" % banner[1])


if __name__ == "__main__":
    if len(sys.argv) != 8 or sys.argv[1] != "live":
        fail("usage: page_check.py live DEVTOOLS_PORT STATE_FILE VICTIM_NAME VICTIM_PID SHOT STAT_PID")
    live(int(sys.argv[2]), sys.argv[3], sys.argv[4], int(sys.argv[5]), sys.argv[6], int(sys.argv[7]))
