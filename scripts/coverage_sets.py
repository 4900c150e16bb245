#!/usr/bin/env python3
"""Which lines and branches of src/ a command covers, and what a change to the
tests lost: the check behind condensing the suite without losing coverage.

    scripts/coverage_sets.py run BUILD OUT.json -- COMMAND...
        zero BUILD's counters, run COMMAND from the repository root, record
        the covered set (BUILD is scripts/coverage.sh's build-coverage)
    scripts/coverage_sets.py diff BEFORE.json AFTER.json
        what BEFORE covered and AFTER does not
    scripts/coverage_sets.py unique SET.json...
        per set, the lines and branches no other set covers (one set per
        suite shows what only that suite reaches)
"""
import collections
import json
import os
import subprocess
import sys
import tempfile

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))


def covered(build):
    with tempfile.NamedTemporaryFile(suffix=".json") as raw:
        subprocess.check_call(["gcovr", "--root", ROOT, "--filter", ROOT + "/src/", "--object-directory", build,
                               "--exclude-directories", ".*/CMakeFiles/[0-9.]+/.*", "--json", raw.name],
                              stderr=subprocess.DEVNULL)
        data = json.load(open(raw.name))
    lines, branches = set(), set()
    for f in data["files"]:
        for line in f["lines"]:
            if line.get("gcovr/noncode"):
                continue
            where = "%s:%d" % (f["file"], line["line_number"])
            if line["count"] > 0:
                lines.add(where)
            branches.update("%s:%d" % (where, i) for i, b in enumerate(line.get("branches", [])) if b["count"] > 0)
    return {"lines": sorted(lines), "branches": sorted(branches)}


def run(build, out, command):
    build = os.path.abspath(build)
    for directory, _, names in os.walk(build):
        for name in names:
            if name.endswith(".gcda"):
                os.remove(os.path.join(directory, name))
    print("exit code:", subprocess.call(command, cwd=ROOT), file=sys.stderr)
    sets = covered(build)
    json.dump(sets, open(out, "w"))
    print("covered: %d lines, %d branches" % (len(sets["lines"]), len(sets["branches"])))


def diff(before, after):
    b, a = json.load(open(before)), json.load(open(after))
    for kind in ("lines", "branches"):
        lost = sorted(set(b[kind]) - set(a[kind]))
        print("%s: %d before, %d after, %d lost" % (kind, len(b[kind]), len(a[kind]), len(lost)))
        for item in lost:
            print("  lost", item)


def unique(paths):
    sets = {os.path.basename(p)[:-5]: json.load(open(p)) for p in paths}
    for kind in ("lines", "branches"):
        owners = collections.Counter(x for s in sets.values() for x in s[kind])
        print("== %s only one set covers" % kind)
        for name, s in sorted(sets.items(), key=lambda item: sum(owners[x] == 1 for x in item[1][kind])):
            print("%5d of %5d  %s" % (sum(owners[x] == 1 for x in s[kind]), len(s[kind]), name))


if __name__ == "__main__":
    if len(sys.argv) >= 5 and sys.argv[1] == "run" and sys.argv[4] == "--":
        run(sys.argv[2], sys.argv[3], sys.argv[5:])
    elif len(sys.argv) == 4 and sys.argv[1] == "diff":
        diff(sys.argv[2], sys.argv[3])
    elif len(sys.argv) >= 3 and sys.argv[1] == "unique":
        unique(sys.argv[2:])
    else:
        sys.exit(__doc__)
