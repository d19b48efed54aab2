#!/usr/bin/env python3
"""Builds the scan benchmark's deterministic corpus: a tree of small and large
files (executable-like and text content) with planted matches, and one
signature set of byte patterns with gaps (plus a few MD5 signatures) written
three ways: a vrkutil database, YARA rules and a ClamAV database (.ndb for
patterns, .hdb for MD5). Also writes the detections every scanner must
report, as "path<TAB>name" lines.

usage: make_corpus.py OUTDIR [--gib G] [--patterns N]
"""
import argparse
import hashlib
import os
import random

WORDS = [b"the ", b"scan ", b"file ", b"value ", b"return ", b"int ", b"data ", b"buffer ", b"error ",
         b"config ", b"user ", b"table\n", b"{ ", b"} ", b"= ", b"0x10;\n", b"if (x) ", b"while "]


def text_bytes(rng, size):
    out = bytearray()
    while len(out) < size:
        out += rng.choice(WORDS)
    return bytes(out[:size])


def exe_bytes(rng, size):
    # An MZ/PE-like head, then code-like bytes: frequent opcodes, zero runs.
    head = bytearray(b"MZ" + bytes(58) + (128).to_bytes(4, "little") + bytes(64) + b"PE\0\0")
    body = bytearray(rng.randbytes(max(0, size - len(head))))
    for i in range(0, len(body), 97):
        body[i:i + 8] = b"\x55\x8b\xec\x83\xec\x10\x00\x00"
    return bytes((head + body)[:size])


def make_pattern(rng):
    """A pattern of 12 to 24 literal bytes with one or two gaps of up to 16."""
    n = rng.randint(12, 24)
    lits = [rng.randrange(256) for _ in range(n)]
    # Bytes 0xDD and 0xDF cannot stand in a program after the literal head.
    lits = [b if b not in (0xDD, 0xDF) else 0x41 for b in lits]
    # Every literal run keeps at least 4 bytes (clamscan refuses shorter ones).
    cuts = [rng.randint(4, n - 4)]
    if n >= 16 and rng.random() < 0.5:
        cuts = sorted([rng.randint(4, n // 2 - 2), rng.randint(n // 2 + 2, n - 4)])
    parts, prev = [], 0
    for c in cuts:
        parts.append(("lit", lits[prev:c]))
        parts.append(("gap", rng.randint(1, 16)))
        prev = c
    parts.append(("lit", lits[prev:]))
    return parts


def render(parts, style):
    out = []
    for kind, v in parts:
        if kind == "lit":
            out.append(" ".join("%02X" % b for b in v) if style != "clam" else "".join("%02x" % b for b in v))
        else:
            out.append({"vrk": "{0-%d}" % v, "yara": "[0-%d]" % v, "clam": "{0-%d}" % v}[style])
    return (" " if style != "clam" else "").join(out)


def instance(rng, parts):
    out = bytearray()
    for kind, v in parts:
        if kind == "lit":
            out += bytes(v)
        else:
            # Skip bytes that cannot be mistaken for the byte that follows.
            out += bytes([0x20] * rng.randint(0, v))
    return bytes(out)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("out")
    ap.add_argument("--gib", type=float, default=1.0)
    ap.add_argument("--patterns", type=int, default=1200)
    a = ap.parse_args()
    rng = random.Random(20261122)
    tree = os.path.join(a.out, "tree")
    os.makedirs(tree, exist_ok=True)

    pats = [make_pattern(rng) for _ in range(a.patterns)]
    names = ["Bench.Pattern.%04d" % i for i in range(a.patterns)]
    total = int(a.gib * (1 << 30))
    large_total = total // 2
    expected = []
    md5_sigs = []

    def write(rel, data, plants):
        path = os.path.join(tree, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        data = bytearray(data)
        for off, pi in plants:
            inst = instance(rng, pats[pi])
            data[off:off + len(inst)] = inst
            expected.append((path, names[pi]))
        with open(path, "wb") as f:
            f.write(data)
        return path, bytes(data)

    # Large files: 8 of equal size, a few plants each, some across 1 MiB borders.
    nlarge = 8
    lsize = large_total // nlarge
    for i in range(nlarge):
        gen = exe_bytes if i % 2 == 0 else text_bytes
        plants = [(((1 << 20) * (j + 1) - 7) % (lsize - 64), rng.randrange(a.patterns)) for j in range(3)]
        write("large/big%02d.bin" % i, gen(rng, lsize), sorted(set(plants)))

    # Small files until the total is reached; one in 20 carries a plant.
    done, i = large_total, 0
    while done < total:
        size = rng.randint(1024, 96 * 1024)
        gen = exe_bytes if i % 3 == 0 else text_bytes
        plants = []
        if i % 20 == 7:
            plants = [(rng.randrange(0, size - 64), rng.randrange(a.patterns))]
        path, data = write("small/d%03d/f%06d.%s" % (i // 500, i, "exe" if gen is exe_bytes else "txt"),
                           gen(rng, size), plants)
        if i % 997 == 3:
            name = "Bench.Md5.%06d" % i
            md5_sigs.append((hashlib.md5(data).hexdigest(), len(data), name))
            expected.append((path, name))
        done += size
        i += 1

    sigs = os.path.join(a.out, "sigs")
    os.makedirs(sigs, exist_ok=True)
    with open(os.path.join(sigs, "bench.vdb"), "w") as f:
        for n, p in zip(names, pats):
            f.write("%s pattern %s\n" % (n, render(p, "vrk")))
        for h, _, n in md5_sigs:
            f.write("%s md5 %s\n" % (n, h))
    with open(os.path.join(sigs, "bench.yar"), "w") as f:
        f.write('import "hash"\n\n')
        for n, p in zip(names, pats):
            f.write("rule %s { strings: $a = { %s } condition: $a }\n" % (n.replace(".", "_"), render(p, "yara")))
        for h, size, n in md5_sigs:
            f.write('rule %s { condition: filesize == %d and hash.md5(0, filesize) == "%s" }\n'
                    % (n.replace(".", "_"), size, h))
    with open(os.path.join(sigs, "bench.ndb"), "w") as f:
        for n, p in zip(names, pats):
            f.write("%s:0:*:%s\n" % (n, render(p, "clam")))
    with open(os.path.join(sigs, "bench.hdb"), "w") as f:
        for h, size, n in md5_sigs:
            f.write("%s:%d:%s\n" % (h, size, n))
    with open(os.path.join(a.out, "expected.tsv"), "w") as f:
        for path, name in sorted(set(expected)):
            f.write("%s\t%s\n" % (path, name))
    print("corpus: %d files, %.2f GiB, %d patterns, %d md5, %d expected detections"
          % (i + nlarge, total / (1 << 30), a.patterns, len(md5_sigs), len(set(expected))))


if __name__ == "__main__":
    main()
