#!/usr/bin/env python3
"""The test/code line ratio: non-blank, non-comment lines of the tests
(tests/, python/tests/) against those of the code (src/, tools/, examples/,
bench/, the Python package and the fuzz targets).

The first line counts sources (.cpp, .h, .py); the second counts every file of
those folders (build files, shell scripts, suppressions, type stubs too), so
that neither figure hides test code that lives outside a source file.

    scripts/test_ratio.py [ROOT]
"""
import os
import sys

TESTS = ["tests", "python/tests"]
FUZZ = "tests/fuzz"
CODE = ["src", "tools", "examples", "bench", "python/clipdec", "python/clipdec_module.cpp", FUZZ]
SOURCES = (".cpp", ".h", ".py")
SKIPPED_DIRS = ("regressions", "__pycache__")  # fuzz inputs, compiled Python


def files(root, path, every=False):
    full = os.path.join(root, path)
    if os.path.isfile(full):
        yield full
        return
    for directory, subdirs, names in os.walk(full):
        subdirs[:] = [d for d in subdirs if d not in SKIPPED_DIRS]
        for name in names:
            if every or name.endswith(SOURCES):
                yield os.path.join(directory, name)


def lines(path):
    """Lines that are neither blank nor comments (//, /* */, and # outside C++)."""
    count, in_block = 0, False
    hash_comments = not path.endswith((".cpp", ".h"))
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


def ratio(root, every):
    fuzz = os.path.join(root, FUZZ)
    tests = sum(lines(f) for p in TESTS for f in files(root, p, every) if not f.startswith(fuzz))
    code = sum(lines(f) for p in CODE for f in files(root, p, every))
    return tests, code


def main(root):
    for every, what in ((False, "test/code lines"), (True, "every file")):
        tests, code = ratio(root, every)
        print("%s: %d / %d = %.3f" % (what, tests, code, tests / code))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
