#!/usr/bin/python3
"""How a backup and a restore scale with the number of objects.

Runs inside a private network namespace (tools/netns.sh). The simulated
IBM i serves a tree of N small IFS files (a few hundred bytes each, in
directories of 1000) for each N. `vondral -b` saves it with a largest
unit of one byte (`-m 1`), so that no directory is saved whole: every file
is an object of its own, with its own SAV, RETR and archive entry. The
tree is then moved aside on the server, `vondral -r` restores the archive
into its place, and the restored tree must hold the same files with the
same bytes.

For each run: wall time, the client's CPU (user + sys, from wait4), its
peak resident set (from GNU time, see common.Run) and the server's CPU. The
section it prints (and run_bench.py puts into bench/results.md) compares
10x the objects: the time may grow at most 12x, and the peak's growth per
object added may pass the listing tree's own bytes per object by 16 bytes
at most for a backup, which keeps the tree, and be 16 bytes at most for a
restore, which keeps none.

    tools/netns.sh env VONDRAL_BIN=... /usr/bin/python3 bench/scale_bench.py
        [--counts 10000,100000] [--tree-bytes 144.5] [--out FILE]
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from common import (PASSWORD, REPO, USER, Run, fmt, log,  # noqa: E402
                    vondral_bin, verdict)
import simlib  # noqa: E402

ADDR = "127.0.0.45"
PER_DIRECTORY = 1000
COUNTS = (10000, 100000)
# Growth limits: 10x the objects may cost this many times the time.
TIME_GROWTH = 12.0


def tree_name(count):
    return "scale%d" % count


def file_bytes(i):
    """The content of object i: 200 to 455 bytes of text that names it."""
    line = b"object %07d\n" % i
    return (line * 40)[:200 + i % 256]


def make_tree(base, count):
    """count files under base, PER_DIRECTORY to a directory."""
    for i in range(count):
        if i % PER_DIRECTORY == 0:
            directory = base / ("d%04d" % (i // PER_DIRECTORY))
            directory.mkdir(parents=True)
        with open(directory / ("f%07d.txt" % i), "wb") as f:
            f.write(file_bytes(i))


def same_trees(a, b):
    """Files below a and b with their bytes: (count, the first difference
    or None)."""
    seen = 0
    for directory, _, names in os.walk(a):
        rel = os.path.relpath(directory, a)
        for name in names:
            seen += 1
            with open(os.path.join(directory, name), "rb") as f:
                want = f.read()
            try:
                with open(os.path.join(b, rel, name), "rb") as f:
                    got = f.read()
            except OSError as e:
                return seen, "%s/%s: %s" % (rel, name, e)
            if got != want:
                return seen, "%s/%s differs" % (rel, name)
    restored = sum(len(names) for _, _, names in os.walk(b))
    if restored != seen:
        return seen, "%d files restored, %d saved" % (restored, seen)
    return seen, None


def synced(path):
    """The restore reads the archive with direct I/O from the device:
    nothing written before may still be on its way there."""
    with open(path, "rb+") as f:
        os.fsync(f.fileno())
    os.sync()


def roomy_ports():
    """Every RETR is a data connection that the simulator closes first, so
    each leaves its port in TIME_WAIT for a minute: at 500 objects a second
    the 28 000 ports the kernel hands out by default run short within a
    backup of 100 000. In the bench's own network namespace the range is
    widened and TIME_WAIT capped, as a server of that rate would be tuned;
    nothing outside the namespace changes."""
    for name, value in (("ip_local_port_range", "1024 65535"),
                        ("tcp_max_tw_buckets", "8192")):
        try:
            with open("/proc/sys/net/ipv4/" + name, "w") as f:
                f.write(value)
        except OSError as e:
            log("scale: cannot set %s (%s)" % (name, e))


class ScaleBench:
    def __init__(self, work_base, wrap=()):
        # A profiler to run the client under (--wrap), when one is given.
        self.wrap = list(wrap)
        self.vondral = vondral_bin()
        self.work = Path(tempfile.mkdtemp(prefix="vondral-scale-",
                                          dir=work_base))
        # The server's tree and save files in memory, so that what is
        # measured is the client and the simulator, not a disk.
        shm = "/dev/shm" if os.access("/dev/shm", os.W_OK) else str(self.work)
        self.server_dir = Path(tempfile.mkdtemp(prefix="vondral-scale-sim-",
                                                dir=shm))
        self.root = self.server_dir / "tree"
        (self.root / ".sim" / "security").mkdir(parents=True)
        (self.root / ".sim" / "config").mkdir(parents=True)
        self.exclude = self.work / "exclude.txt"
        self.exclude.write_text("/Security Data\n/System Configuration\n")
        self.sim = None

    def start(self):
        roomy_ports()
        self.sim = simlib.Sim(ADDR, self.root, {"idle_timeout": 3600},
                              state_dir=self.server_dir / "state")
        self.sim.start()

    def stop(self):
        if self.sim:
            self.sim.stop()
        shutil.rmtree(self.work, ignore_errors=True)
        shutil.rmtree(self.server_dir, ignore_errors=True)

    def run(self, args, what):
        r = Run([*self.wrap, self.vondral, "-s", ADDR, "-c", "%s:here:%s" % (USER, PASSWORD),
                 *args], self.sim.proc.pid, self.work, peak=True)
        if r.status != 0:
            # The lines that say what failed, not only the last ones.
            failed = [line for line in r.output.splitlines()
                      if "Fail" in line or "fail" in line][:20]
            log("\n".join(failed))
        return r.check(what)

    def one(self, count):
        """Backup and restore of a tree of count objects: their Runs."""
        name = tree_name(count)
        tree = self.root / name
        log("scale: making %d objects ..." % count)
        make_tree(tree, count)
        include = self.work / ("%s.txt" % name)
        include.write_text("/%s\n" % name)
        archive = self.work / ("%s.ctar" % name)
        log("scale: backup of %d objects ..." % count)
        backup = self.run(["-b", archive, "-i", include, "-e", self.exclude,
                           "-m", "1"], "vondral -b")
        entries = subprocess.run([str(REPO / "build" / "ctar"), "list",
                                  str(archive)], capture_output=True,
                                 text=True, check=True).stdout.count("\n")
        if entries != count:
            raise SystemExit("the archive of %d objects has %d entries"
                             % (count, entries))
        synced(archive)
        saved = self.server_dir / ("saved-" + name)
        tree.rename(saved)
        log("scale: restore of %d objects ..." % count)
        restore = self.run(["-r", archive], "vondral -r")
        seen, wrong = same_trees(saved, tree)
        if wrong or seen != count:
            raise SystemExit("the restore of %d objects: %s" % (count, wrong))
        shutil.rmtree(saved)
        shutil.rmtree(tree)
        archive.unlink()
        return backup, restore


def run_rows(runs, counts):
    """One table row for each run."""
    rows = []
    for kind, index in (("backup", 0), ("restore", 1)):
        for n in counts:
            r = runs[n][index]
            rows.append("| %s | %d | %s | %s | %s | %.1f | %s |" % (
                kind, n, fmt(r.wall, 2), fmt(r.cpu, 2), fmt(r.server_cpu, 2),
                r.peak_kib / 1024, fmt(r.wall / n * 1e3, 3)))
    return rows


def section(runs, counts, tree_bytes, load):
    """The markdown section and its [(target, ok, value)] checks."""
    small, large = counts[-2], counts[-1]
    factor = large / small
    lines = [
        "### Scale: backup and restore of many small objects", "",
        "An object is one IFS file of 200 to 455 bytes, in directories of "
        "%d, saved with `-m 1` so that every file is a unit of its own: a "
        "SAV into the save file, a RETR, an archive entry, and on restore "
        "an upload and an RST (into the tree moved aside, checked file by "
        "file afterwards). One run each; load average (1 min) %.2f at the "
        "start, %.2f at the end." % (PER_DIRECTORY, load[0], load[1]), "",
        "| run | objects | wall s | client CPU s | server CPU s "
        "| client peak RSS MiB | wall ms per object |",
        "|---|---:|---:|---:|---:|---:|---:|",
    ]
    lines += run_rows(runs, counts)
    lines += ["", "| %dx the objects (%d to %d) | backup | restore |" % (
        factor, small, large), "|---|---:|---:|"]
    checks = []
    growth = {}
    for kind, index in (("backup", 0), ("restore", 1)):
        a, b = runs[small][index], runs[large][index]
        growth[kind] = {
            "wall": b.wall / a.wall,
            "cpu": b.cpu / a.cpu,
            "server": b.server_cpu / a.server_cpu if a.server_cpu else None,
            "per_object": (b.peak_kib - a.peak_kib) * 1024.0
            / (large - small),
        }
    for label, key, digits, suffix in (
            ("wall time growth", "wall", 2, "x"),
            ("client CPU growth", "cpu", 2, "x"),
            ("server CPU growth", "server", 2, "x"),
            ("peak RSS growth per added object (bytes)", "per_object", 1, "")):
        lines.append("| %s | %s%s | %s%s |" % (
            label, fmt(growth["backup"][key], digits), suffix,
            fmt(growth["restore"][key], digits), suffix))
    lines.append("| the listing's object tree, bytes per object (heap) | "
                 "%s | none kept |" % fmt(tree_bytes, 1))
    lines.append("")
    for kind in ("backup", "restore"):
        g = growth[kind]["wall"]
        checks.append(("%s: %gx the objects cost <= %gx the time"
                       % (kind, factor, TIME_GROWTH * factor / 10),
                       g <= TIME_GROWTH * factor / 10, "%.2fx" % g))
    # Beyond the tree: the backup keeps the listing's tree for the run, the
    # restore keeps nothing per entry.
    beyond = {"backup": growth["backup"]["per_object"] - tree_bytes,
              "restore": growth["restore"]["per_object"]}
    for kind in ("backup", "restore"):
        checks.append(("%s: memory beyond the object tree flat (<= 16 bytes "
                       "per object)" % kind, beyond[kind] <= 16,
                       "%.1f B per object" % beyond[kind]))
    return lines, checks


def tree_bytes_per_object():
    """The listing's tree, heap bytes per object, from bench_listing when
    `make bench` built it."""
    tool = REPO / "build" / "bench" / "bench_listing"
    if not tool.exists():
        return None
    r = subprocess.run([str(tool), "--tree", "100000"], capture_output=True,
                       text=True, check=True)
    return json.loads(r.stdout)["bytes_per_object"]


def measure(counts, work_base, tree_bytes, wrap=()):
    """Runs the bench: (markdown lines, checks)."""
    if tree_bytes is None:
        tree_bytes = tree_bytes_per_object()
    if tree_bytes is None:
        raise SystemExit("no tree figure: give --tree-bytes or build "
                         "build/bench/bench_listing (make bench)")
    load0 = os.getloadavg()[0]
    b = ScaleBench(work_base, wrap)
    runs = {}
    try:
        b.start()
        for n in counts:
            started = time.monotonic()
            runs[n] = b.one(n)
            log("scale: %d objects done in %.0f s" % (
                n, time.monotonic() - started))
    finally:
        b.stop()
    return section(runs, counts, tree_bytes, (load0, os.getloadavg()[0]))


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--counts", default=",".join(map(str, COUNTS)),
                    help="object counts, smallest first; the last two are "
                    "compared")
    ap.add_argument("--tree-bytes", type=float,
                    help="heap bytes per object of the listing's tree "
                    "(default: bench_listing --tree)")
    ap.add_argument("--dir", help="scratch directory for the archives "
                    "(default $BENCH_DIR or /var/tmp)")
    ap.add_argument("--out", help="also write the section to this file")
    ap.add_argument("--wrap", default="", help="a command to run the "
                    "client under, for profiling (e.g. 'heaptrack -o "
                    "/tmp/h'); its figures are then the pair's")
    args = ap.parse_args()
    if not simlib.in_netns():
        raise SystemExit("run me through tools/netns.sh")
    counts = sorted(int(c) for c in args.counts.split(","))
    if len(counts) < 2:
        raise SystemExit("--counts needs two counts at least")
    lines, checks = measure(counts, args.dir or os.environ.get("BENCH_DIR")
                            or "/var/tmp", args.tree_bytes,
                            args.wrap.split())
    lines += ["| target | result | |", "|---|---:|---|"]
    for name, ok, value in checks:
        lines.append("| %s | %s | %s |" % (name, value, verdict(ok)))
    text = "\n".join(lines) + "\n"
    print(text)
    if args.out:
        Path(args.out).write_text(text)


if __name__ == "__main__":
    main()
