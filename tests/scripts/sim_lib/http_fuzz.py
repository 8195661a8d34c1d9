"""Randomised requests against heron-stat --listen (see http_clients.py)."""
import random
import re
import socket
import threading
import time

from http_clients import STATUS_LINE, Failure, Server, connect, fail, get


# Every status the server may answer a request it read.
VALID_STATUSES = {200, 400, 404, 405, 413, 414, 417, 431, 500, 501, 503, 505}
TOKEN = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_"


def token(rng, most):
    return "".join(rng.choice(TOKEN) for _ in range(rng.randint(1, most)))


def random_request(rng):
    """(method, bytes) of one generated request, complete up to its body."""
    method = rng.choice(["GET"] * 8 + ["HEAD"] * 2 + ["POST", "PUT", "DELETE", "OPTIONS", "BREW", "get", token(rng, 12)])
    path = rng.choice(["/healthz"] * 12 + ["/metrics"] + [
        "/", "/nowhere", "/healthz?x=1", "/metrics/", "/%00", "*", "http://x/healthz", "/" + token(rng, 200),
        "/" + "a" * rng.randint(1000, 20000)])
    version = rng.choice(["HTTP/1.1"] * 10 + ["HTTP/1.0", "HTTP/2.0", "HTTP/1.x", "HTTP/9.9"])
    headers = ["Host: x"] if rng.random() < 0.9 else []
    for _ in range(rng.choice([0, 0, 1, 3, 10, rng.randint(0, 60)])):
        size = rng.choice([0, 5, 50, 500, rng.randint(0, 4000), rng.randint(10000, 20000)])
        headers.append("%s: %s" % (token(rng, 30), "v" * size))
    body = b""
    if rng.random() < 0.1:
        body = b"b" * rng.choice([0, 3, 100, 5000])
        headers.append("Content-Length: %d" % len(body))
    elif rng.random() < 0.02:
        headers.append("Content-Length: " + rng.choice(["abc", "-1", "1 2", "99999999999999999999999"]))
        # The library answers such a request with its status line and
        # headers twice, then closes: only the statuses are checked.
        method = "BAD-LENGTH"
    line = "%s %s %s\r\n" % (method.replace("BAD-LENGTH", "GET"), path, version)
    return method, (line + "".join(h + "\r\n" for h in headers) + "\r\n").encode("latin-1") + body


def parse_answers(data, methods):
    """(answers, bytes) of the whole answers `data` begins with; fails on
    anything that is not a sequence of HTTP answers with valid statuses."""
    count, used = 0, 0
    while used < len(data):
        rest = data[used:]
        if count < len(methods) and methods[count] == "BAD-LENGTH":
            statuses = re.findall(rb"HTTP/1\.1 (\d\d\d) ", rest)
            if not rest.startswith(b"HTTP/1.1 ") or any(int(s) not in VALID_STATUSES for s in statuses):
                fail("a request with a malformed Content-Length answered %r" % rest[:300])
            return count + 1, len(data)
        if len(rest) >= 12 and not STATUS_LINE.match(rest[:rest.find(b"\r\n") + 2]):
            fail("not a valid status line: %r" % rest[:200])
        end = rest.find(b"\r\n\r\n")
        if end < 0:
            break
        status = int(STATUS_LINE.match(rest).group(1))
        if status not in VALID_STATUSES:
            fail("status %d: %r" % (status, rest[:200]))
        length = re.search(rb"\r\nContent-Length: (\d+)\r\n", rest[:end + 2], re.I)
        # A request line or header section over the library's limit may be
        # refused before its method is known: then with a body even for
        # HEAD, and the connection closed.
        head_only = methods[min(count, len(methods) - 1)] == "HEAD" and (
            status not in (414, 431) or len(rest) == end + 4)
        size = int(length.group(1)) if length and not head_only else 0
        if len(rest) < end + 4 + size:
            break
        used += end + 4 + size
        count += 1
    return count, used


def one_connection(port, rng, stats):
    """One connection: 1 to 4 pipelined requests, sometimes reset midway.
    The number of requests sent."""
    requests = [random_request(rng) for _ in range(rng.choice([1, 1, 1, 2, 4]))]
    methods = [method for method, _ in requests]
    payload = b"".join(raw for _, raw in requests)
    mode = rng.random()
    sock = connect(port, 15)
    try:
        if mode < 0.05:  # reset halfway through sending
            sock.sendall(payload[:rng.randint(0, len(payload))])
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            return len(requests)
        if mode < 0.08:  # bytes that are no request at all
            sock.sendall(bytes(rng.randrange(256) for _ in range(rng.randint(1, 300))) + b"\r\n\r\n")
            methods = ["GET"]
        else:
            sock.sendall(payload)
        if mode < 0.12:  # reset once sent, without reading
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            return len(requests)
        data = b""
        deadline = time.monotonic() + 20

        def parsed():
            try:
                return parse_answers(data, methods)
            except Failure as failure:
                shown = [raw[:60] + b"..." + raw[-30:] for _, raw in requests]
                fail("%s, answering %r" % (failure, shown))

        while parsed()[0] < len(requests):
            sock.settimeout(max(deadline - time.monotonic(), 0.001))
            chunk = sock.recv(65536)
            if not chunk:
                break
            data += chunk
        answers, used = parsed()
        if used < len(data):
            fail("an answer cut short: %r" % data[used:used + 300])
        with stats["lock"]:
            stats["answers"] += answers
    except (ConnectionResetError, BrokenPipeError):
        with stats["lock"]:
            stats["reset by server"] += 1
    except socket.timeout:
        fail("no end of answer within 20 s to %r" % payload[:300])
    finally:
        sock.close()
    return len(requests)


def fuzz(stat, total):
    server = Server(stat)
    lock = threading.Lock()
    stats = {"lock": threading.Lock(), "requests": 0, "answers": 0, "reset by server": 0, "rss": [], "failure": ""}

    def worker(seed):
        rng = random.Random(seed)
        while True:
            with lock:
                if stats["requests"] >= total or stats["failure"]:
                    return
            try:
                sent = one_connection(server.port, rng, stats)
            except Failure as failure:
                stats["failure"] = str(failure)
                return
            with lock:
                before = stats["requests"]
                stats["requests"] += sent
                if before < 1000 <= stats["requests"]:
                    stats["rss"].append(server.rss_kb())

    start = time.monotonic()
    workers = [threading.Thread(target=worker, args=(seed,)) for seed in range(8)]
    for thread in workers:
        thread.start()
    for thread in workers:
        thread.join()
    if stats["failure"]:
        fail(stats["failure"])
    if server.process.poll() is not None:
        fail("heron-stat ended with %d during the requests" % server.process.returncode)
    stats["rss"].append(server.rss_kb())
    if get(server.port, "/healthz", 5.0)[0] != 200:
        fail("GET /healthz not answered after the random requests")
    print("%d requests in %.1f s, %d answers, %d connections reset by the server; %d threads; "
          "VmRSS after the first 1000: %d kB, after the last: %d kB" %
          (stats["requests"], time.monotonic() - start, stats["answers"], stats["reset by server"],
           server.threads(), stats["rss"][0], stats["rss"][-1]))
    server.stop_within(1.0)
    return stats["rss"]
