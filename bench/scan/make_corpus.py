#!/usr/bin/env python3
"""Builds the scan benchmark's deterministic corpus: a tree of text, random
binary, zero-heavy and executable-like files with planted matches, and four
signature sets written three ways (a vrkutil database, YARA rules, a ClamAV
database), plus the detections every scanner must report, as
"path<TAB>name" lines.

The signatures are like the ones scanners carry (the same rules as
bench/patterns/signature_sets.h): 8 to 24 literal bytes of any value; a
third with one or two gaps of up to 254 bytes, a quarter of those right
after the first byte. Sets: the first 1,000, 10,000 and 50,000 patterns of
one list, and the 50,000 with 1% of them (never planted ones) opening with
bytes common in files (zeros, 0xFF runs, instruction prologues, "MZ", text).
The planted patterns are among the first 1,000, so every set expects the
same detections.

ClamAV body signatures need two bytes between jumps; a pattern with a
single byte between gaps (or before its first gap) goes to ClamAV as a
logical signature: its longest literal run as the trigger, the whole
pattern as a PCRE subsignature.

usage: make_corpus.py OUTDIR [--mib M] [--patterns N]
"""
import argparse
import os
import random

GAP_AFTER_FIRST = 4     # one gapped pattern in 4 has its first gap right after byte 0
COMMON_OPENINGS = [b"\x00\x00", b"\x00\x00\x00\x00", b"\xff\xff", b"\xff\xff\xff\xff", b"\x55\x8b\xec",
                   b"MZ\x90\x00", b"\x8b\x45\x08", b"\x89\x45\xfc", b"\xe8\x00\x00\x00", b"  ", b"the ",
                   b"\r\n"]


def make_pattern(rng, opening=b""):
    """Elements: ("lit", bytes) and ("gap", K) alternating, starting with a literal."""
    n = rng.randint(8, 24)
    # At least 8 random bytes besides a common opening, so that the data
    # never matches a pattern by chance.
    n = max(n, len(opening) + 8)
    lits = bytearray(opening + bytes(rng.randrange(256) for _ in range(n - len(opening))))
    cuts = set()
    if rng.randrange(3) == 0:
        for g in range(rng.randint(1, 2)):
            if g == 0 and rng.randrange(GAP_AFTER_FIRST) == 0:
                cuts.add(1)
            else:
                cuts.add(rng.randint(2, n - 2))
    parts, prev = [], 0
    for c in sorted(cuts):
        parts.append(("lit", bytes(lits[prev:c])))
        skip = rng.randint(0, 16) if rng.randrange(2) else rng.randint(17, 254)
        parts.append(("gap", skip))
        prev = c
    parts.append(("lit", bytes(lits[prev:])))
    return parts


def render(parts, style):
    out = []
    for kind, v in parts:
        if kind == "lit":
            out.append(" ".join("%02X" % b for b in v) if style != "clam" else v.hex())
        else:
            out.append({"vrk": "{0-%d}" % v, "yara": "[0-%d]" % v, "clam": "{0-%d}" % v}[style])
    return (" " if style != "clam" else "").join(out)


def clam_line(name, parts):
    lits = [v for kind, v in parts if kind == "lit"]
    if all(len(v) >= 2 for v in lits):
        return "ndb", "%s:0:*:%s" % (name, render(parts, "clam"))
    trigger = max(lits, key=len).hex()
    regex = ""
    for kind, v in parts:
        regex += "".join("\\x%02x" % b for b in v) if kind == "lit" else "[\\x00-\\xff]{0,%d}" % v
    return "ldb", "%s;Engine:81-255,Target:0;0&1;%s;0/%s/s" % (name, trigger, regex)


def instance(rng, parts):
    out = bytearray()
    for kind, v in parts:
        out += v if kind == "lit" else rng.randbytes(rng.randint(0, v))
    return bytes(out)


# ---- data ----

WORDS = [b"the ", b"scan ", b"file ", b"value ", b"return ", b"int ", b"data ", b"buffer ", b"error ",
         b"config ", b"user ", b"table\n", b"{ ", b"} ", b"= ", b"0x10;\n", b"if (x) ", b"while ", b"<div>",
         b"</div>\n", b"http://", b"\r\n"]


def text_bytes(rng, size):
    words = rng.choices(WORDS, k=size // 4 + 16)
    return b"".join(words)[:size]


def random_bytes(rng, size):
    return rng.randbytes(size)


def zero_heavy_bytes(rng, size):
    out = bytearray(size)
    i = rng.randrange(512)
    while i < size:
        k = rng.randrange(8)
        out[i:i + k] = rng.randbytes(k)[:max(0, size - i)]
        i += k + 16 + rng.randrange(512)
    return bytes(out[:size])


INSTRUCTIONS = [b"\x55\x8b\xec", b"\x8b\x45\x08", b"\x89\x45\xfc", b"\x83\xec", b"\x8b\xff\x55\x8b", b"\x5d\xc3",
                b"\xc3", b"\x50", b"\x51", b"\xe8", b"\xff\x15", b"\x74", b"\x75", b"\x85\xc0", b"\x33\xc0",
                b"\x8d\x45", b"\x6a\x00", b"\x83\xc4\x04", b"\x8b\x4d", b"\xc7\x45"]


def code_bytes(rng, size):
    # An MZ/PE head, then instructions with small operands, padding between
    # functions and ASCII names, drawn from a pool for speed.
    pool = []
    for _ in range(4096):
        kind = rng.randrange(40)
        if kind == 0:
            pool.append(bytes([rng.choice((0x00, 0xcc))]) * rng.randint(4, 31))
        elif kind == 1:
            pool.append(text_bytes(rng, rng.randint(6, 25)) + b"\x00")
        else:
            ops = bytes(rng.randrange(16) if rng.randrange(3) else rng.randrange(256) for _ in range(rng.randrange(5)))
            pool.append(rng.choice(INSTRUCTIONS) + ops)
    head = b"MZ\x90\x00" + bytes(56) + (128).to_bytes(4, "little") + bytes(64) + b"PE\x00\x00"
    body = b"".join(rng.choices(pool, k=size // 3 + 16))
    return (head + body)[:size]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("out")
    ap.add_argument("--mib", type=int, default=256)
    ap.add_argument("--patterns", type=int, default=50000)
    a = ap.parse_args()
    rng = random.Random(20261125)
    tree = os.path.join(a.out, "tree")
    os.makedirs(tree, exist_ok=True)

    pats = [make_pattern(rng) for _ in range(a.patterns)]
    names = ["Bench.Pattern.%05d" % i for i in range(a.patterns)]
    common = list(pats)
    for i in rng.sample(range(1000, a.patterns), a.patterns // 100):
        common[i] = make_pattern(rng, rng.choice(COMMON_OPENINGS))
    planted_from = min(1000, a.patterns)

    total = a.mib << 20
    expected = []
    kinds = [text_bytes, random_bytes, zero_heavy_bytes, code_bytes]

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

    # Large files: 8 of 4 MiB, one of each kind twice, plants across 1 MiB
    # borders and inside.
    done = 0
    for i in range(8):
        size = 4 << 20
        plants = [((1 << 20) * (j + 1) - 7, rng.randrange(planted_from)) for j in range(3)]
        plants.append(((3 << 20) + rng.randrange(1 << 19), rng.randrange(planted_from)))
        write("large/big%02d.bin" % i, kinds[i % 4](rng, size), sorted(set(plants)))
        done += size
    # Small files of 1 to 160 KiB until the total is reached; one in ten
    # carries a plant.
    i = 0
    while done < total:
        size = min(rng.randint(1024, 160 * 1024), total - done)
        if size < 64:
            break
        plants = [(rng.randrange(size - 8192 if size > 16384 else 1), rng.randrange(planted_from))] \
            if i % 10 == 7 and size > 8192 else []
        write("small/d%02d/f%05d.bin" % (i // 200, i), kinds[i % 4](rng, size), plants)
        done += size
        i += 1

    sigs = os.path.join(a.out, "sigs")
    os.makedirs(sigs, exist_ok=True)
    sets = [("1k", pats[:1000]), ("10k", pats[:10000]), ("50k", pats), ("50k-common", common)]
    for label, ps in sets:
        ps = ps[:a.patterns]
        with open(os.path.join(sigs, label + ".vdb"), "w") as f:
            for n, p in zip(names, ps):
                f.write("%s pattern %s\n" % (n, render(p, "vrk")))
        with open(os.path.join(sigs, label + ".yar"), "w") as f:
            for n, p in zip(names, ps):
                f.write("rule %s { strings: $a = { %s } condition: $a }\n" % (n.replace(".", "_"), render(p, "yara")))
        ndb, ldb = [], []
        for n, p in zip(names, ps):
            kind, line = clam_line(n, p)
            (ndb if kind == "ndb" else ldb).append(line)
        for ext, lines in (("ndb", ndb), ("ldb", ldb)):
            with open(os.path.join(sigs, "%s.%s" % (label, ext)), "w") as f:
                f.write("".join(line + "\n" for line in lines))
    with open(os.path.join(a.out, "expected.tsv"), "w") as f:
        for path, name in sorted(set(expected)):
            f.write("%s\t%s\n" % (path, name))
    print("corpus: %d files, %d MiB, sets of %s patterns, %d expected detections"
          % (i + 8, done >> 20, "/".join(str(len(s[:a.patterns])) for _, s in sets), len(set(expected))))


if __name__ == "__main__":
    main()
