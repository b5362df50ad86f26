#!/usr/bin/python3
"""How `ctar list` scales: with the number of entries, not with the bytes.

Builds sparse archives (every entry's data is a hole, so a terabyte of
archive costs a few megabytes of disk) with a small generator linked against
the program's own library, which writes every header with BuildCtarHeader
and the end with BuildCtarSentinel. Then times `ctar list` on archives of
the same number of entries with ever larger data, and of ever more entries
with the same data.

    make && bench/ctar_list.py [--entries 5000] [--check]

--check exits with status 1 when the time grows with the data size (the
largest data takes more than three times as long as the smallest), so the
benchmark can guard the property as well as show it.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
BUILD = REPO / "build"

GENERATOR = r"""
// Writes an archive of COUNT entries of SIZE data bytes each; the data is
// left as a hole. Headers come from the library, like those of a backup.
#include <fcntl.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include "archive/ctar_format.h"
#include "support/text.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const long count = atol(argv[2]);
  const unsigned long long size = strtoull(argv[3], nullptr, 10);
  int fd = open(argv[1], O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) { perror(argv[1]); return 1; }
  time_t now = time(nullptr);
  struct tm local{};
  localtime_r(&now, &local);
  unsigned char block[CtarBlockSize];
  char name[64];
  for (long i = 0; i < count; i++) {
    // Libraries and IFS directories, both saved whole.
    if (i % 2)
      FormatBounded(name, sizeof name, "/QSYS.LIB/L%07ld.LIB", i);
    else
      FormatBounded(name, sizeof name, "/home/user%07ld", i);
    BuildCtarHeader(block, name, size, 0040755, local);
    if (write(fd, block, sizeof block) != (ssize_t)sizeof block) { perror("write"); return 1; }
    if (lseek(fd, (off_t)CtarPaddedSize(size), SEEK_CUR) < 0) { perror("lseek"); return 1; }
  }
  if (write(fd, BuildCtarSentinel(block), sizeof block) != (ssize_t)sizeof block) {
    perror("write");
    return 1;
  }
  return close(fd) == 0 ? 0 : 1;
}
"""


def build_generator(work):
    library = BUILD / "libvondral_core.a"
    if not library.exists():
        sys.exit("build the library first: make")
    source = work / "ctar_gen.cpp"
    source.write_text(GENERATOR)
    binary = work / "ctar_gen"
    subprocess.run(["g++", "-std=c++20", "-O2", "-I", str(REPO / "src"), str(source),
                    str(library), "-lpthread", "-o", str(binary)], check=True)
    return binary


def human(n):
    for unit in ("B", "KiB", "MiB", "GiB", "TiB", "PiB"):
        if n < 1024 or unit == "PiB":
            return "%.1f %s" % (n, unit)
        n /= 1024


def time_list(ctar, archive, runs):
    """Best of several runs of `ctar list`, in seconds, and the line count."""
    best, lines = None, 0
    for _ in range(runs):
        start = time.perf_counter()
        proc = subprocess.run([ctar, "list", str(archive)], stdout=subprocess.PIPE, check=True)
        elapsed = time.perf_counter() - start
        lines = proc.stdout.count(b"\n")
        best = elapsed if best is None else min(best, elapsed)
    return best, lines


def measure(ctar, generator, work, count, size, runs):
    archive = work / "bench.ctar"
    subprocess.run([str(generator), str(archive), str(count), str(size)], check=True,
                   stderr=subprocess.DEVNULL)
    apparent = archive.stat().st_size
    on_disk = archive.stat().st_blocks * 512
    seconds, lines = time_list(ctar, archive, runs)
    assert lines == count, (lines, count)
    archive.unlink()
    print("%8d entries  data %10s each  archive %10s (%9s on disk)  %7.3f s  %9.0f entries/s"
          % (count, human(size), human(apparent), human(on_disk), seconds, count / seconds))
    return seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--entries", type=int, default=5000)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--ctar", default=os.environ.get("CTAR_BIN", str(BUILD / "ctar")))
    args = parser.parse_args()
    if not Path(args.ctar).exists():
        sys.exit("no %s: run make first" % args.ctar)

    work = Path(tempfile.mkdtemp(prefix="ctar-bench-"))
    try:
        generator = build_generator(work)
        print("Same number of entries, ever larger data:")
        # 4 KiB to 3 GiB per entry (sizes above 2 GiB take the base-64 size
        # form): 5000 entries make almost 15 TiB, within what ext4 allows.
        sizes = [4 << 10, 1 << 20, 64 << 20, 1 << 30, 3 << 30]
        times = []
        for size in sizes:
            try:
                times.append(measure(args.ctar, generator, work, args.entries, size, args.runs))
            except subprocess.CalledProcessError:
                print("(the file system refuses a file of %s; stopping here)"
                      % human(args.entries * (size + 512)))
                break
        print("\nSame data, ever more entries:")
        for count in (args.entries // 4, args.entries, args.entries * 4):
            measure(args.ctar, generator, work, count, 1 << 20, args.runs)

        ratio = times[-1] / times[0]
        print("\nTime for %s per entry / time for %s per entry: %.2f"
              % (human(sizes[len(times) - 1]), human(sizes[0]), ratio))
        if args.check and ratio > 3:
            print("FAIL: listing time grows with the data size")
            return 1
        return 0
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
