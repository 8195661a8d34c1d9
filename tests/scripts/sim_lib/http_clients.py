#!/usr/bin/env python3
"""HTTP clients that test heron-stat --listen from outside: held slow and
idle connections, protocol details, and randomised requests.

    http_clients.py slow STAT       200 idle + 50 dripping connections
    http_clients.py protocol STAT   pipelining, Connection: close, 503, NODELAY
    http_clients.py fuzz STAT N     N generated requests, answers checked

STAT is the heron-stat binary; each command starts its own
`STAT --listen 127.0.0.1:0` and stops it with SIGTERM, which must end it
with status 0 within 1 s. Prints what it measured; exits 1 with a line
starting FAIL on the first failure.
"""
import atexit
import os
import re
import signal
import socket
import statistics
import subprocess
import sys
import threading
import time

# Nothing is written beside the sources (http_fuzz imports this module).
sys.dont_write_bytecode = True

STATUS_LINE = re.compile(rb"HTTP/1\.[01] ([1-5][0-9][0-9]) [^\r\n]*\r\n")


class Failure(Exception):
    pass


def fail(message):
    raise Failure(message)


class Server:
    """A heron-stat --listen of our own."""

    def __init__(self, stat):
        self.process = subprocess.Popen([stat, "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
        line = self.process.stdout.readline().decode()
        match = re.fullmatch(r"listening on 127\.0\.0\.1:(\d+)\n", line)
        if not match:
            fail("heron-stat did not listen: %r %r" % (line, self.process.stderr.read()))
        self.port = int(match.group(1))
        atexit.register(self._kill)

    def _kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def rss_kb(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def threads(self):
        return len(os.listdir("/proc/%d/task" % self.process.pid))

    def stop_within(self, seconds):
        """SIGTERM; fails unless it ends with status 0 within `seconds`."""
        start = time.monotonic()
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            fail("still running %.1f s after SIGTERM" % seconds)
        took = time.monotonic() - start
        err = self.process.stderr.read().decode()
        if status != 0:
            fail("ended with status %d on SIGTERM: %s" % (status, err))
        print("SIGTERM to exit: %.0f ms" % (took * 1000))


def connect(port, timeout=5.0):
    sock = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    return sock


def read_until_closed(sock, deadline):
    """Everything the server sends until it closes the connection; None
    when the deadline passes first."""
    data = b""
    while True:
        left = deadline - time.monotonic()
        if left <= 0:
            return None
        sock.settimeout(left)
        try:
            chunk = sock.recv(65536)
        except socket.timeout:
            return None
        except ConnectionResetError:
            return data
        if not chunk:
            return data
        data += chunk


class Reader:
    """Answers read one by one from a connection, pipelined ones included."""

    def __init__(self, sock):
        self.sock = sock
        self.data = b""

    def _fill(self, deadline):
        left = deadline - time.monotonic()
        if left <= 0:
            return False
        self.sock.settimeout(left)
        try:
            chunk = self.sock.recv(65536)
        except (socket.timeout, ConnectionResetError):
            return False
        self.data += chunk
        return bool(chunk)

    def response(self, deadline, head_only=False):
        """(status, headers text, body); status 0 when none came before the
        deadline or the connection ended."""
        while b"\r\n\r\n" not in self.data:
            if not self._fill(deadline):
                return 0, "", b""
        head, _, self.data = self.data.partition(b"\r\n\r\n")
        match = STATUS_LINE.match(head + b"\r\n")
        if not match:
            fail("not an HTTP status line: %r" % head[:200])
        length = re.search(rb"\r\nContent-Length: (\d+)", head, re.I)
        want = 0 if head_only or not length else int(length.group(1))
        while len(self.data) < want and self._fill(deadline):
            pass
        body, self.data = self.data[:want], self.data[want:]
        return int(match.group(1)), head.decode("latin-1"), body


def read_response(sock, deadline, head_only=False):
    """One answer on a connection that carries no other."""
    return Reader(sock).response(deadline, head_only)


def get(port, path, timeout):
    """GET on a fresh connection with a deadline for the whole exchange."""
    deadline = time.monotonic() + timeout
    try:
        sock = connect(port, timeout)
        sock.sendall(("GET %s HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n" % path).encode())
        answer = read_response(sock, deadline)
        sock.close()
        return answer
    except OSError:
        return 0, "", b""


def closed_by_peer(sock):
    """True once the server has closed `sock`, a non-blocking socket."""
    try:
        return sock.recv(1) == b""
    except BlockingIOError:
        return False
    except OSError:
        return True


class Drippers:
    """Connections that send one byte of a never-ending header a second,
    each noting when the server closed it."""

    def __init__(self, port, count):
        self.socks = [connect(port) for _ in range(count)]
        for sock in self.socks:
            sock.setblocking(False)  # a timeout would make recv wait
        self.opened = time.monotonic()
        self.closed_at = {}
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        text = b"GET /metrics HTTP/1.1\r\nHost: x\r\nX-Slow: " + b"a" * 100000
        at = 0
        while not self.stop.is_set() and len(self.closed_at) < len(self.socks):
            for number, sock in enumerate(self.socks):
                if number in self.closed_at:
                    continue
                try:
                    sock.send(text[at:at + 1])
                    gone = closed_by_peer(sock)
                except OSError:
                    gone = True
                if gone:
                    self.closed_at[number] = time.monotonic() - self.opened
            at += 1
            self.stop.wait(1.0)

    def close(self):
        self.stop.set()
        self.thread.join()
        for sock in self.socks:
            sock.close()


def slow(stat):
    server = Server(stat)
    idle = [connect(server.port) for _ in range(200)]
    drippers = Drippers(server.port, 50)
    for path in ("/metrics", "/healthz"):
        start = time.monotonic()
        status, _, _ = get(server.port, path, 1.0)
        if status != 200:
            fail("with 200 idle and 50 dripping connections held, GET %s was not answered within 1 s" % path)
        print("GET %s with 250 slow connections held: %.1f ms" % (path, (time.monotonic() - start) * 1000))
    print("server with 250 slow connections held: %d threads, VmRSS %d kB" % (server.threads(), server.rss_kb()))
    if server.threads() > 8:
        fail("%d threads serve 250 connections" % server.threads())
    deadline = time.monotonic() + 25
    while len(drippers.closed_at) < 50 and time.monotonic() < deadline:
        time.sleep(0.1)
    times = sorted(drippers.closed_at.values())
    drippers.close()
    if len(times) < 50:
        fail("%d of 50 dripping connections still open after 25 s" % (50 - len(times)))
    print("dripping connections dropped after %.1f to %.1f s" % (times[0], times[-1]))
    if times[0] < 9 or times[-1] > 15:
        fail("dripping connections dropped after %.1f to %.1f s, expected about 10 s" % (times[0], times[-1]))
    for sock in idle:
        sock.close()
    # And a stop with connections held, idle and halfway through a request.
    held = [connect(server.port) for _ in range(200)]
    for sock in held[:100]:
        sock.sendall(b"GET /metrics HTTP/1.1\r\nHo")
    if get(server.port, "/healthz", 5.0)[0] != 200:
        fail("no answer with 200 connections held")
    server.stop_within(1.0)
    for sock in held:
        sock.close()


def check_pipelining(port):
    sock = connect(port)
    requests = [("GET", "/healthz"), ("GET", "/nowhere"), ("HEAD", "/metrics"), ("GET", "/metrics"),
                ("GET", "/healthz")]
    sock.sendall(b"".join(b"%s %s HTTP/1.1\r\nHost: x\r\n\r\n" % (m.encode(), p.encode()) for m, p in requests))
    got = []
    reader = Reader(sock)
    for method, _ in requests:
        status, head, body = reader.response(time.monotonic() + 10, head_only=method == "HEAD")
        got.append((status, "version=0.0.4" in head, body[:3]))
    sock.close()
    want = [(200, False, b"ok\n"), (404, False, b"not"), (200, True, b""), (200, True, b"# H"), (200, False, b"ok\n")]
    if got != want:
        fail("5 pipelined requests were answered %r, expected %r" % (got, want))
    print("5 pipelined requests: 5 answers in order")


def check_connection_close(port):
    for method in ("GET", "POST", "BREW"):
        sock = connect(port)
        sock.sendall(b"%s /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n" % method.encode())
        status, head, _ = read_response(sock, time.monotonic() + 10)
        rest = read_until_closed(sock, time.monotonic() + 10)
        sock.close()
        if status == 0 or not re.search(r"\r\nConnection: close(\r|$)", head, re.I) or "keep-alive" in head.lower():
            fail("%s with Connection: close answered %d: %r" % (method, status, head))
        if rest is None:
            fail("%s with Connection: close: the connection stayed open" % method)
    print("answers that close say Connection: close and no Keep-Alive")


def check_kept_alive_is_fast(port):
    """Requests after the first on a kept-alive connection; without
    TCP_NODELAY each waits for the client's delayed ACK (about 40 ms)."""
    sock = connect(port)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    took = []
    reader = Reader(sock)
    for _ in range(15):
        start = time.monotonic()
        sock.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n")
        status, _, _ = reader.response(time.monotonic() + 10)
        if status != 200:
            fail("a kept-alive GET /healthz answered %d" % status)
        took.append((time.monotonic() - start) * 1000)
    sock.close()
    later = statistics.median(took[1:])
    print("kept-alive GET /healthz: first %.1f ms, median of the next 14 %.1f ms" % (took[0], later))
    if later >= 30:
        fail("requests on a kept-alive connection take %.1f ms (median)" % later)


def check_overload(port):
    held = [connect(port) for _ in range(400)]
    deadline = time.monotonic() + 10
    status, head = 0, ""
    while status != 503 and time.monotonic() < deadline:
        status, head, _ = get(port, "/healthz", 5.0)
    if status != 503 or not re.search(r"\r\nConnection: close", head, re.I):
        fail("with 400 connections held a request answered %d: %r" % (status, head))
    for sock in held:
        sock.close()
    deadline = time.monotonic() + 10
    while status != 200 and time.monotonic() < deadline:
        status, _, _ = get(port, "/healthz", 5.0)
    if status != 200:
        fail("still %d once the 400 connections were closed" % status)
    print("beyond the connection limit: 503 with Connection: close; 200 again once they close")


def check_oversized_answered(port):
    """A request line or header of 8 MiB is answered 414 or 431 while the
    client is still sending (more than the sockets' buffers hold): the
    answer must reach it, not a reset."""
    got = {}
    big = b"a" * (8 << 20)
    for attempt in range(10):
        request = (b"GET /metrics?" + big + b" HTTP/1.1\r\nHost: x\r\n\r\n" if attempt % 2 else
                   b"GET /metrics HTTP/1.1\r\nHost: x\r\nX-Big: " + big + b"\r\n\r\n")
        sock = connect(port)
        try:
            sock.sendall(request)
            status = Reader(sock).response(time.monotonic() + 10)[0]
        except OSError as error:
            status = type(error).__name__
        sock.close()
        got[status] = got.get(status, 0) + 1
    if set(got) - {414, 431}:
        fail("10 requests of 8 MiB were answered %r" % got)
    print("10 requests of 8 MiB: %r" % got)


def protocol(stat):
    server = Server(stat)
    check_oversized_answered(server.port)
    check_pipelining(server.port)
    check_connection_close(server.port)
    check_kept_alive_is_fast(server.port)
    check_overload(server.port)
    server.stop_within(1.0)


def main():
    try:
        run(sys.argv)
    except Failure as failure:
        print("FAIL: %s" % failure, file=sys.stderr)
        sys.exit(1)


def run(argv):
    if len(argv) < 3:
        fail("usage: http_clients.py slow|protocol|fuzz STAT [N [MAX_GROWTH_KB]]")
    command, stat = argv[1], argv[2]
    if command == "slow":
        slow(stat)
    elif command == "protocol":
        protocol(stat)
    elif command == "fuzz":
        from http_fuzz import fuzz
        rss = fuzz(stat, int(argv[3]))
        growth = int(argv[4]) if len(argv) > 4 else -1
        if growth >= 0 and rss[-1] > rss[0] + growth:
            fail("VmRSS grew from %d kB to %d kB" % (rss[0], rss[-1]))
    else:
        fail("unknown command " + command)


if __name__ == "__main__":
    # One module object for this file, also when http_fuzz imports it: one
    # Failure class.
    import http_clients

    http_clients.main()
