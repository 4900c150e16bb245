#!/usr/bin/env python3
"""The test/code line ratio: non-blank, non-comment lines of the tests
(tests/, python/tests/) against those of the code (src/, tools/, examples/,
bench/, the Python package and the fuzz targets).

    scripts/test_ratio.py [ROOT]
"""
import os
import sys

TESTS = ["tests", "python/tests"]
FUZZ = "tests/fuzz"
CODE = ["src", "tools", "examples", "bench", "python/clipdec", "python/clipdec_module.cpp", FUZZ]
SOURCES = (".cpp", ".h", ".py")


def files(root, path):
    full = os.path.join(root, path)
    if os.path.isfile(full):
        yield full
        return
    for directory, _, names in os.walk(full):
        for name in names:
            if name.endswith(SOURCES):
                yield os.path.join(directory, name)


def lines(path):
    """Lines that are neither blank nor comments (//, /* */, #)."""
    count, in_block = 0, False
    hash_comments = path.endswith(".py")
    with open(path, errors="replace") as f:
        for line in f:
            text = line.strip()
            if in_block:
                in_block = "*/" not in text
                continue
            if not text or text.startswith("//") or (hash_comments and text.startswith("#")):
                continue
            if text.startswith("/*"):
                in_block = "*/" not in text
                continue
            count += 1
    return count


def main(root):
    fuzz = os.path.join(root, FUZZ)
    tests = sum(lines(f) for p in TESTS for f in files(root, p) if not f.startswith(fuzz))
    code = sum(lines(f) for p in CODE for f in files(root, p))
    print("test/code lines: %d / %d = %.2f" % (tests, code, tests / code))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
