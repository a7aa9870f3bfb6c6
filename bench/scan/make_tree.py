#!/usr/bin/env python3
"""Builds a deterministic web-root-like tree for the scan benchmark.

usage: make_tree.py DIR [FILES]   (default 20000 files)
A tenth of the files are scripts; sizes are mixed (most small, a few large);
directories nest up to four levels. A few files carry text the starter rules
match, so both tools do real work on matches too.
"""
import os
import random
import sys

def main():
    root = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    rng = random.Random(20261122)
    words = [b"alpha", b"beta", b"gamma", b"delta", b"<div>", b"</div>", b"function",
             b"return", b"$value", b"echo", b"class", b"public", b"import", b"var"]
    dirs = [root]
    for top in range(20):
        for mid in range(5):
            for leaf in range(3):
                dirs.append(os.path.join(root, f"site{top}", f"app{mid}", f"part{leaf}"))
    for d in dirs:
        os.makedirs(d, exist_ok=True)
    total = 0
    for i in range(count):
        d = dirs[rng.randrange(len(dirs))]
        script = i % 10 == 0
        ext = rng.choice([".php", ".jsp", ".aspx"]) if script else rng.choice(
            [".html", ".css", ".js", ".txt", ".png", ".json"])
        r = rng.random()
        size = rng.randint(200, 4000) if r < 0.7 else rng.randint(4000, 64000) if r < 0.99 else rng.randint(64000, 1000000)
        chunks = []
        n = 0
        while n < size:
            w = words[rng.randrange(len(words))]
            chunks.append(w)
            chunks.append(b" ")
            n += len(w) + 1
        body = b"".join(chunks)[:size]
        if script and i % 500 == 0:
            body = b"<?php @eval($_POST['cmd']); ?>\n" + body
        with open(os.path.join(d, f"file{i}{ext}"), "wb") as f:
            f.write(body)
        total += len(body)
    print(f"{count} files, {total / 1048576:.1f} MiB in {root}")

if __name__ == "__main__":
    main()
