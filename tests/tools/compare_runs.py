#!/usr/bin/python3
"""Compares two recordings of the end-to-end suite (tests/tools/record_runs.sh),
made with two builds of the program: every invocation's arguments, output,
status and the digests of the files it named. What legitimately differs
between two runs (clock, source line numbers in failure heads, temporary
paths, measured times and rates) is blanked first, and the lines of each
output are compared as a set, since threads order them as they run.

    compare_runs.py OLD_DIR NEW_DIR
Exits 0 when every test's invocations match, 1 otherwise (with a diff)."""
import collections
import difflib
import re
import sys
from pathlib import Path

RULES = [
    # Files that are not whole archives are mostly inputs a test damaged,
    # made from archives whose save images carry the time of the save.
    (re.compile(r"^bytes [0-9a-f]{64} ", re.M), "bytes - "),
    (re.compile(r"/[^\s:']*/build/"), "BUILD/"),
    (re.compile(r"\[\d\d:\d\d:\d\d\] "), "[T] "),
    (re.compile(r"\[([a-z_]+\.cpp),\d+\]"), r"[\1,N]"),
    (re.compile(r"pytest-\d+"), "pytest-N"),
    (re.compile(r"/tmp/tmp[\w]+"), "/tmp/TMP"),
    (re.compile(r"\.partial\.\w{6}\b"), ".partial.XXXXXX"),
    (re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d"), "DATE"),
    (re.compile(r"\b[A-Z][a-z]{2} [ \d]\d \d\d:\d\d\b"), "DATE"),
    (re.compile(r"\d+\.\d+ [KMG]?B/s"), "RATE"),
    (re.compile(r"\d+\.\d+"), "F"),
    (re.compile(r"0x[0-9A-F]{6,}"), "ADDRESS"),
    (re.compile(r"\b1[0-7]{10}\b"), "OCTAL-TIME"),
    (re.compile(r"\b1[78]\d{8}\b"), "EPOCH"),
    # Workers take their numbers in the order they first log.
    (re.compile(r"\[T0[1-9]\]"), "[Tw]"),
    (re.compile(r":\d{4,5}\b"), ":PORT"),
    (re.compile(r"\(\d+,\d+\)"), "(P,P)"),
]


def normal(text):
    for pattern, replacement in RULES:
        text = pattern.sub(replacement, text)
    return text


def read(path):
    try:
        return path.read_text(errors="surrogateescape")
    except FileNotFoundError:
        return "<missing>"


def transcripts(root):
    tests = collections.defaultdict(list)
    for run in sorted(Path(root).glob("run.*"), key=lambda p: p.stat().st_mtime):
        test = read(run / "test").strip().rsplit(" (", 1)[0]
        parts = [f"$ {' '.join(read(run / 'args').splitlines())}",
                 f"status {read(run / 'status').strip()}",
                 "--- out", *sorted(map(normal, read(run / "out").splitlines())),
                 "--- err", *sorted(map(normal, read(run / "err").splitlines())),
                 "--- files", read(run / "files")]
        tests[test].append(normal("\n".join(parts)))
    return tests


def main():
    old, new = transcripts(sys.argv[1]), transcripts(sys.argv[2])
    differing = 0
    for test in sorted(set(old) | set(new)):
        a = collections.Counter(old.get(test, []))
        b = collections.Counter(new.get(test, []))
        only_old, only_new = sorted((a - b).elements()), sorted((b - a).elements())
        if not only_old and not only_new:
            continue
        differing += 1
        print(f"=== {test}: {len(only_old)} run(s) only in the old recording, {len(only_new)} only in the new")
        for x, y in zip(only_old + [""] * len(only_new), only_new + [""] * len(only_old)):
            sys.stdout.writelines(difflib.unified_diff(x.splitlines(True), y.splitlines(True), "old", "new", n=1))
            print()
    print(f"{len(set(old) | set(new))} tests compared, {differing} differ")
    return 1 if differing else 0


if __name__ == "__main__":
    sys.exit(main())
