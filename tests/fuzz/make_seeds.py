#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: small valid files of each
format (and a few near misses), laid out byte by byte from the formats in
docs. Run from anywhere; it rewrites these seeds in tests/fuzz/corpus/
and leaves the regression inputs that fuzzing found beside them."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def put(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def text(s, n):
    return s.encode().ljust(n, b"\0")


def owner(kind, type_name):
    return (b"HRNOWNER" + struct.pack("<IIIHHQ", 1, kind, 4711, 4711, 1, 1764000000000000000)
            + text(type_name, 32) + text("host1", 64))


def ember(instance, restarts):
    return (b"HRNEMBER" + struct.pack("<IHHIIQQQQ", 1, 4711, instance, 4711, restarts,
                                       1764000000000000000, 1764000005000000000, 5000000000, 4026531836)
            + bytes(8))


def quarry(next_id, live, allocs, releases, in_use):
    return b"HRNQUARY" + struct.pack("<IIIIIIQQQQ", 1, 4096, 4095, next_id, live, 0, allocs, releases, in_use, 2)


def region(rid, units, unit_size, page, used):
    bitmap_bytes = (units + 7) // 8
    data_off = -(-(64 + bitmap_bytes) // page) * page
    size = -(-(data_off + units * unit_size) // page) * page
    head = b"HRNREGON" + struct.pack("<IIIIII", 1, units, len(used), unit_size, rid, page)
    head += struct.pack("<QIIQQ", 4, 64, data_off, 1764000000000000000, 0)
    body = bytearray(size)
    body[:64] = head
    for u in used:
        body[64 + u // 8] |= 1 << (u % 8)
        start = data_off + u * unit_size
        payload = b"entry %d payload" % u
        body[start:start + len(payload)] = payload[:unit_size]
    return bytes(body)


def relay(ember_instance, epochs, table_version, current, latest, capacity, slots, pos):
    head = b"HRNRELAY" + struct.pack("<IHH", 1, 4711, ember_instance)
    head += struct.pack("<QQIIII", epochs[0], epochs[1], 1, 0, table_version, current)
    head += struct.pack("<QQQ", 0, 0, latest)
    head += struct.pack("<II", 1, capacity)  # notifications: version, capacity
    body = bytearray(88 + 12 * capacity)
    body[:80] = head
    struct.pack_into("<I", body, 80, pos)
    for i, (seq, off, size) in enumerate(slots):
        struct.pack_into("<III", body, 84 + 12 * i, seq, off, size)
    return bytes(body)


def relay_pair(primary, secondary):
    return struct.pack("<I", len(primary)) + primary + secondary


def main():
    put("fuzz_owner", "table", owner(2, "HeronTable"))
    put("fuzz_owner", "archive", owner(3, "HeronTable"))
    put("fuzz_owner", "segment", owner(1, "Segment"))
    put("fuzz_owner", "short", owner(2, "HeronTable")[:40])
    put("fuzz_ember", "first-start", ember(1, 0))
    put("fuzz_ember", "restarted", ember(3, 2))
    put("fuzz_ember", "short", ember(1, 0)[:20])
    put("fuzz_quarry", "empty", quarry(1, 0, 0, 0, 0))
    put("fuzz_quarry", "busy", quarry(4, 3, 120, 40, 5120))
    put("fuzz_region", "small-pages", region(1, 16, 16, 64, [0, 3, 15]))
    put("fuzz_region", "page-4096", region(2, 8, 64, 4096, [1, 2]))
    put("fuzz_region", "empty", region(7, 4, 32, 128, []))
    slots = [(1, (1 << 20) | 0, 16), (2, (1 << 20) | 3, 16), (3, 0xFFFFFFFF, 16)]
    primary = relay(1, (1, 0), 1, 0, 3, 4, slots, 3)
    secondary = relay(1, (0, 0), 0, 0, 0, 4, [], 0)
    put("fuzz_relay", "primary-active", relay_pair(primary, secondary))
    switched = relay(1, (2, 1), 2, 1, 6, 4, slots + [(4, (2 << 20) | 1, 64)], 4)
    secondary2 = relay(1, (0, 0), 0, 0, 0, 4, [(5, (1 << 20) | 5, 8), (6, (1 << 20) | 6, 8)], 2)
    put("fuzz_relay", "switched", relay_pair(switched, secondary2))
    put("fuzz_relay", "grown", relay_pair(relay(1, (1, 0), 1, 0, 2, 8, slots[:2], 2), secondary))
    root = "/heron-fuzz/md/quotes"
    line = "7f3a1c000000-7f3a1c001000 {} 00000000 00:1a 123456                     {}\n"
    maps = (line.format("r-xp", "/usr/bin/fuzz-writer") + line.format("rw-s", root + "/relay.1")
            + line.format("rw-s", root + "/relay.2") + line.format("rw-s", root + "/ember")
            + line.format("r--s", "/heron-fuzz/orders/relay.1") + "7ffd5c1e0000-7ffd5c201000 rw-p 00000000 00:00 0\n")
    put("fuzz_maps", "writer", maps.encode())
    shadow = line.format("r--s", root + "/relay.1") + line.format("r--s", root + "/ember (deleted)")
    put("fuzz_maps", "shadow", shadow.encode())


if __name__ == "__main__":
    main()
