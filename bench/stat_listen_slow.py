#!/usr/bin/env python3
"""Scrape latency of heron-stat --listen alone and with 200 idle plus 50
one-byte-a-second connections held, with its threads and VmRSS.

    stat_listen_slow.py STAT SCRAPES     (HERON_ROOT set by the caller)
"""
import os
import statistics
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "scripts", "sim_lib"))
import http_clients  # noqa: E402

# A request not answered within this counts as a timeout.
TIMEOUT = 10.0


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def latencies(port, path, count):
    """Milliseconds of `count` GETs on fresh connections, and the timeouts;
    stops after 5 timeouts."""
    took, timeouts = [], 0
    for _ in range(count):
        if timeouts == 5:
            break
        start = time.monotonic()
        status, _, _ = http_clients.get(port, path, TIMEOUT)
        if status == 200:
            took.append((time.monotonic() - start) * 1000)
        else:
            timeouts += 1
    return took, timeouts


def kept_alive(port, count):
    """Milliseconds of the requests after the first on one connection."""
    sock = http_clients.connect(port)
    reader = http_clients.Reader(sock)
    took = []
    for _ in range(count + 1):
        start = time.monotonic()
        sock.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
        if reader.response(time.monotonic() + TIMEOUT)[0] != 200:
            break
        took.append((time.monotonic() - start) * 1000)
    sock.close()
    return took[1:]


def show(label, took, timeouts):
    if took:
        print("%-44s median %8.1f ms   p99 %8.1f ms   (%d answered, %d not within %.0f s)" %
              (label, statistics.median(took), percentile(took, 0.99), len(took), timeouts, TIMEOUT))
    else:
        print("%-44s none answered within %.0f s (%d tries)" % (label, TIMEOUT, timeouts))


def main():
    stat, scrapes = sys.argv[1], int(sys.argv[2])
    server = http_clients.Server(stat)
    port = server.port
    http_clients.get(port, "/healthz", TIMEOUT)
    print("%s: %d threads, VmRSS %d kB after one request" % (stat, server.threads(), server.rss_kb()))
    show("GET /metrics, alone", *latencies(port, "/metrics", scrapes))
    show("GET /healthz, alone", *latencies(port, "/healthz", scrapes))
    again = kept_alive(port, scrapes)
    if again:
        print("%-44s median %8.1f ms" % ("GET /metrics again on a kept-alive connection", statistics.median(again)))
    print("after the scrapes: %d threads, VmRSS %d kB" % (server.threads(), server.rss_kb()))
    idle = [http_clients.connect(port) for _ in range(200)]
    drippers = http_clients.Drippers(port, 50)
    show("GET /metrics, 200 idle + 50 slow held", *latencies(port, "/metrics", scrapes))
    show("GET /healthz, 200 idle + 50 slow held", *latencies(port, "/healthz", scrapes))
    print("with 250 connections held: %d threads, VmRSS %d kB" % (server.threads(), server.rss_kb()))
    start = time.monotonic()
    server.process.terminate()
    try:
        server.process.wait(timeout=60)
        print("SIGTERM to exit with 250 connections held: %.0f ms, status %d" %
              ((time.monotonic() - start) * 1000, server.process.returncode))
    except http_clients.subprocess.TimeoutExpired:
        print("SIGTERM to exit with 250 connections held: still running after 60 s")
    drippers.close()
    for sock in idle:
        sock.close()


if __name__ == "__main__":
    try:
        main()
    except http_clients.Failure as failure:
        print("FAIL: %s" % failure, file=sys.stderr)
        sys.exit(1)
