#!/usr/bin/python3
"""`make bench`: vondral against curl and against the limits of this machine.

Runs inside a private network namespace (tools/netns.sh), where the
simulated IBM i listens on 127.0.0.x port 21, once in clear and once with
FTPS (its own test CA, made with openssl). Every comparison runs both
sides in the same run against the same server, alternating their order,
several times; the table shows medians and ratios. The table is printed
and written to bench/results.md together with the machine's figures.

    tools/netns.sh /usr/bin/python3 bench/run_bench.py [--gib 2] [--reps 5]
"""

import argparse
import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "bench"))

from common import (PASSWORD, USER, Run, fmt, log, median,  # noqa: E402
                    vondral_bin, verdict)
import certs  # noqa: E402
import scale_bench  # noqa: E402
import link_bench  # noqa: E402
import simlib  # noqa: E402

GIB = 1 << 30
CURL_FORMAT = "%{time_pretransfer} %{time_total} %{size_download} " \
              "%{size_upload}\\n"
WALKS = (("10 k", "/walk10k", 10000), ("100 k", "/walk100k", 100000),
         ("1 M", "/walk1m", 1000000))


def own_line(output, pattern, name=None):
    """Seconds from the program's own report line (the one that follows
    "Backup Success: name" on the same thread when name is given)."""
    thread = None
    if name is not None:
        for line in output.splitlines():
            m = re.search(r"\[(T\d+)\] Backup Success: (.*)$", line)
            if m and m.group(2) == name:
                thread = m.group(1)
    for line in output.splitlines():
        if thread is not None and "[%s]" % thread not in line:
            continue
        m = re.search(pattern + r"\s+([0-9.]+) s", line)
        if m:
            return float(m.group(1))
    raise SystemExit("no line %r in the output:\n%s" % (pattern, output))


# --- the bench


class Bench:
    def __init__(self, args):
        self.args = args
        self.vondral = vondral_bin()
        self.tools = REPO / "build" / "bench"
        base = args.dir or os.environ.get("BENCH_DIR") or "/var/tmp"
        self.work = Path(tempfile.mkdtemp(prefix="vondral-bench-", dir=base))
        # The server keeps its save files and tree in memory when it can,
        # so that what is measured is the client.
        shm = "/dev/shm" if os.access("/dev/shm", os.W_OK) else str(self.work)
        self.server_dir = Path(tempfile.mkdtemp(prefix="vondral-bench-sim-",
                                                dir=shm))
        gib = args.gib
        self.sizes = [int(gib * GIB / 4) // 512 * 512,
                      int(gib * GIB / 2) // 512 * 512,
                      int(gib * GIB) // 512 * 512]
        self.addr = "127.0.0.42"
        self.tls_addr = "127.0.0.43"
        self.results = {}
        self.resident_after_evict = 0

    def object_path(self, size):
        return "/bench/big%d" % size

    def cleanup(self):
        shutil.rmtree(self.work, ignore_errors=True)
        shutil.rmtree(self.server_dir, ignore_errors=True)

    # --- the server

    def start_server(self):
        root = self.server_dir / "tree"
        (root / ".sim" / "security").mkdir(parents=True)
        (root / ".sim" / "config").mkdir(parents=True)
        (root / "bench").mkdir()
        for size in self.sizes:
            # the object the listing shows; its save is the prebuilt image
            with open(root / "bench" / ("big%d" % size), "wb") as f:
                f.truncate(size)
        config = {
            "large_saves": {self.object_path(s): s for s in self.sizes},
            "synthetic_listings": {path: n for _, path, n in WALKS},
            "idle_timeout": 3600,
        }
        self.sim = simlib.Sim(self.addr, root, config,
                              state_dir=self.server_dir / "state")
        self.sim.start()
        # The same server with explicit FTPS, serving the same tree.
        made = certs.make_certs(self.work / "certs")
        cert, key = made.good
        self.tls_sim = simlib.Sim(
            self.tls_addr, root,
            dict(config, tls={"cert": str(cert), "key": str(key)}),
            state_dir=self.server_dir / "state-tls")
        self.tls_sim.start()
        # how each client reaches each server: address, vondral's options,
        # curl's options
        self.over = {
            "clear": (self.sim, self.addr, [], []),
            "tls": (self.tls_sim, self.tls_addr, ["--tls", "--cacert", made.ca],
                    ["--ssl-reqd", "--cacert", str(made.ca)]),
        }
        self.include = {}
        for size in self.sizes:
            p = self.work / ("include-%d.txt" % size)
            p.write_text(self.object_path(size) + "\n")
            self.include[size] = p
        self.exclude = self.work / "exclude.txt"
        self.exclude.write_text("/Security Data\n/System Configuration\n")

    def run(self, cmd, over="clear"):
        return Run(cmd, self.over[over][0].proc.pid, self.work)

    # --- backup: vondral -b against curl's download

    def vondral_backup(self, size, archive, over="clear"):
        _, addr, flags, _ = self.over[over]
        r = self.run([self.vondral, "-s", addr, "-c",
                      "%s:here:%s" % (USER, PASSWORD), "-b", archive,
                      "-i", self.include[size], "-e", self.exclude, "-v2",
                      *flags], over)
        r.check("vondral -b")
        r.transfer = own_line(r.output, r"Xfer:", self.object_path(size))
        return r

    def curl_download(self, size, out, over="clear"):
        _, addr, _, flags = self.over[over]
        r = self.run(["curl", "-sS", "--ftp-method", "nocwd", *flags,
                      "-u", "%s:%s" % (USER, PASSWORD),
                      "-Q", "RCMD CRTSAVF FILE(QTEMP/BENCH)",
                      "-Q", "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/BENCH.FILE') "
                      "OBJ(('%s'))" % self.object_path(size),
                      "-o", out, "-w", CURL_FORMAT,
                      "ftp://%s/%%2FQSYS.LIB/QTEMP.LIB/BENCH.SAVF"
                      % addr], over)
        r.check("curl download")
        pre, total, got, _ = r.output.split()[-4:]
        if int(float(got)) != size:
            raise SystemExit("curl downloaded %s bytes, not %d" % (got, size))
        r.transfer = float(total) - float(pre)
        return r

    def alternate(self, label, size, reps, sides):
        """Runs both sides `reps` times in turns, each round starting with
        the other one, after an unrecorded warm-up round. `sides` maps a
        name to a function running that side once."""
        runs = {who: [] for who in sides}
        names = list(sides)
        for i in range(reps + 1):
            for who in names if i % 2 == 0 else names[::-1]:
                r = sides[who]()
                if i > 0:
                    runs[who].append(r)
            log("  %s %.2f GiB round %d/%d done" % (label, size / GIB, i, reps))
        return runs

    def backup(self, size, reps, over="clear"):
        archive = self.work / "backup.ctar"
        download = self.work / "download.savf"

        def vondral():
            r = self.vondral_backup(size, archive, over)
            archive.unlink()
            return r

        def curl():
            r = self.curl_download(size, download, over)
            download.unlink()
            return r

        return self.alternate("backup (%s)" % over, size, reps,
                              {"vondral": vondral, "curl": curl})

    def keep_archive(self, size):
        """An archive holding the entry, on disk, and curl's download of
        the same save file; both must carry the same bytes."""
        archive = self.work / ("restore-%d.ctar" % size)
        image = self.work / ("image-%d.savf" % size)
        self.vondral_backup(size, archive)
        self.curl_download(size, image)
        same = subprocess.run(["cmp", "-s", "-i", "512:0", "-n", str(size),
                               str(archive), str(image)]).returncode == 0
        if not same or archive.stat().st_size != 512 + size + 512:
            raise SystemExit("the archive does not hold the bytes curl got")
        # The restore reads the archive with direct I/O, from the device;
        # nothing written before may still be on its way there meanwhile.
        for path in (archive, image):
            with open(path, "rb+") as f:
                os.fsync(f.fileno())
        os.sync()
        return archive, image

    # --- restore: vondral -r against curl's upload

    def vondral_restore(self, size, archive, over="clear"):
        _, addr, flags, _ = self.over[over]
        r = self.run([self.vondral, "-s", addr, "-c",
                      "%s:here:%s" % (USER, PASSWORD), "-r", archive,
                      "-i", self.include[size], "-v2", *flags], over)
        r.check("vondral -r")
        r.transfer = own_line(r.output, r"Transfer :")
        return r

    def curl_upload(self, size, image, over="clear"):
        _, addr, _, flags = self.over[over]
        r = self.run(["curl", "-sS", "--ftp-method", "nocwd", *flags,
                      "-u", "%s:%s" % (USER, PASSWORD),
                      "-Q", "RCMD CRTSAVF FILE(QTEMP/BENCH)",
                      "-T", image, "-w", CURL_FORMAT,
                      "ftp://%s/%%2FQSYS.LIB/QTEMP.LIB/BENCH.SAVF"
                      % addr], over)
        r.check("curl upload")
        pre, total, _, sent = r.output.split()[-4:]
        if int(float(sent)) != size:
            raise SystemExit("curl uploaded %s bytes, not %d" % (sent, size))
        r.transfer = float(total) - float(pre)
        return r

    def restore(self, size, reps, archive, image, over="clear", cold=True):
        """Cold (the default): before every run of either side, both the
        archive and curl's copy leave the page cache, so that both read
        their input from the device."""
        def first(run, path):
            def once():
                if cold:
                    self.evict(archive, image)
                return run(size, path, over)
            return once
        return self.alternate("restore (%s)" % over, size, reps, {
            "vondral": first(self.vondral_restore, archive),
            "curl": first(self.curl_upload, image)})

    def evict(self, *paths):
        """Drops the files' clean pages from the page cache (no root
        needed) and checks with fincore that nothing stayed; the most that
        stayed is kept for the report."""
        for path in paths:
            left = None
            for _ in range(5):
                fd = os.open(path, os.O_RDONLY)
                try:
                    os.fdatasync(fd)
                    os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
                finally:
                    os.close(fd)
                left = resident_bytes(path)
                if left == 0:
                    break
            self.resident_after_evict = max(self.resident_after_evict, left)

    # --- walks of synthetic listings

    def walk(self, path, reps):
        inc = self.work / ("walk%s.txt" % path.replace("/", "-"))
        inc.write_text(path + "\n")
        out = []
        for _ in range(reps):
            r = self.run([self.tools / "bench_walk", self.addr, USER,
                          PASSWORD, inc]).check("bench_walk")
            figures = json.loads(r.output.strip().splitlines()[-1])
            figures["wall_s"] = r.wall
            figures["server_cpu_s"] = r.server_cpu
            out.append(figures)
        return out

    # --- in-process and machine figures

    def limits(self):
        r = subprocess.run([str(self.tools / "bench_limits"), str(self.work),
                            str(self.sizes[-1]), "3"], capture_output=True,
                           text=True, check=True)
        return {d["test"]: d for d in map(json.loads,
                                          r.stdout.strip().splitlines())}

    def listing(self):
        r = subprocess.run([str(self.tools / "bench_listing"),
                            "--benchmark_format=json",
                            "--benchmark_repetitions=3",
                            "--benchmark_report_aggregates_only=true"],
                           capture_output=True, text=True, check=True)
        data = json.loads(r.stdout)
        rate = [b for b in data["benchmarks"]
                if b.get("aggregate_name") == "median"][0]["lines_per_s"]
        t = subprocess.run([str(self.tools / "bench_listing"), "--tree"],
                           capture_output=True, text=True, check=True)
        return rate, json.loads(t.stdout)


# --- the table


def side(runs, size):
    gb = size / 1e9
    return {
        "own": median([gb / r.transfer for r in runs]),
        "wall": median([gb / r.wall for r in runs]),
        "cpu": median([r.cpu / (size / GIB) for r in runs]),
        "server": median([r.server_cpu / (size / GIB) for r in runs]),
        "busy": median([r.server_cpu / r.transfer for r in runs]),
        "transfer_s": median([r.transfer for r in runs]),
        "cpu_s": median([r.cpu for r in runs]),
        "wall_s": median([r.wall for r in runs]),
    }


def comparison(title, v, c, size, reps, target_rate):
    rate_ratio = v["own"] / c["own"]
    cpu_ratio = v["cpu"] / c["cpu"]
    lines = [
        "### %s, %.2f GiB save file (median of %d runs each)" % (
            title, size / GIB, reps), "",
        "| figure | vondral | curl | vondral / curl |",
        "|---|---:|---:|---:|",
        "| transfer throughput, own report (GB/s) | %s | %s | %s |" % (
            fmt(v["own"]), fmt(c["own"]), fmt(rate_ratio, 2)),
        "| throughput by the wall clock, whole run (GB/s) | %s | %s | %s |"
        % (fmt(v["wall"]), fmt(c["wall"]), fmt(v["wall"] / c["wall"], 2)),
        "| client CPU, user + sys (s per GiB) | %s | %s | %s |" % (
            fmt(v["cpu"]), fmt(c["cpu"]), fmt(cpu_ratio, 2)),
        "| server CPU (s per GiB) | %s | %s | |" % (
            fmt(v["server"]), fmt(c["server"])),
        "| server CPU / transfer time (1.00 = one core busy) | %s | %s | |"
        % (fmt(v["busy"], 2), fmt(c["busy"], 2)),
        "",
    ]
    checks = [("%s throughput >= %.1fx curl's" % (title.split(":")[0].lower(),
                                                   target_rate),
               rate_ratio >= target_rate, "%.3fx" % rate_ratio)]
    return lines, checks, rate_ratio, cpu_ratio


def scaling_rows(kind, per_size, sizes):
    rows = []
    base = per_size[sizes[0]]
    for s in sizes:
        v = per_size[s]
        rows.append("| %s %.2f GiB | %s | %s | %s | %.2fx | %.2fx | %.0fx |"
                    % (kind, s / GIB, fmt(v["transfer_s"]), fmt(v["wall_s"]),
                       fmt(v["cpu_s"]), v["transfer_s"] / base["transfer_s"],
                       v["cpu_s"] / base["cpu_s"], s / sizes[0]))
    return rows


def per_byte_growth(per_size, sizes, key):
    """Growth of a figure from the smallest to the largest size, per byte."""
    first, last = per_size[sizes[0]], per_size[sizes[-1]]
    return (last[key] / first[key]) / (sizes[-1] / sizes[0])


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--gib", type=float, default=float(
        os.environ.get("BENCH_GIB", 2)), help="size of the large save file")
    ap.add_argument("--reps", type=int, default=int(
        os.environ.get("BENCH_REPS", 7)), help="runs of the main comparison")
    ap.add_argument("--dir", help="scratch directory on the archive's file "
                    "system (default $BENCH_DIR or /var/tmp)")
    ap.add_argument("--scale", default=os.environ.get(
        "BENCH_SCALE", ",".join(map(str, scale_bench.COUNTS))),
        help="object counts of the scale bench (bench/scale_bench.py), "
        "smallest first; empty: none")
    ap.add_argument("--out", default=str(REPO / "bench" / "results.md"))
    args = ap.parse_args()
    if not simlib.in_netns():
        raise SystemExit("run me through tools/netns.sh (make bench)")
    if shutil.which("curl") is None:
        raise SystemExit("curl is missing (make bench installs it as root)")

    started = time.monotonic()
    load0 = os.getloadavg()
    b = Bench(args)
    checks = []
    out = []
    try:
        log("machine limits ...")
        limits = b.limits()
        log("listing parser and tree ...")
        parse_rate, tree = b.listing()
        b.start_server()
        small_reps = max(3, args.reps - 2)
        backup, restore = {}, {}
        for size in b.sizes:
            reps = args.reps if size == b.sizes[-1] else small_reps
            log("backup of %.2f GiB ..." % (size / GIB))
            backup[size] = b.backup(size, reps)
            archive, image = b.keep_archive(size)
            log("restore of %.2f GiB ..." % (size / GIB))
            restore[size] = b.restore(size, reps, archive, image)
            if size == b.sizes[-1]:
                # The same with the archive in memory: no device in the way
                # (tmpfs has no direct I/O; the reads go through the cache).
                log("restore of %.2f GiB from memory ..." % (size / GIB))
                in_memory = b.server_dir / "memory.ctar"
                memory_image = b.server_dir / "memory.savf"
                shutil.copyfile(archive, in_memory)
                shutil.copyfile(image, memory_image)
                restore_memory = b.restore(size, small_reps, in_memory,
                                           memory_image, cold=False)
                in_memory.unlink()
                memory_image.unlink()
                log("backup and restore of %.2f GiB over FTPS ..."
                    % (size / GIB))
                backup_tls = b.backup(size, small_reps, "tls")
                restore_tls = b.restore(size, small_reps, archive, image,
                                        "tls")
            archive.unlink()
            image.unlink()
        walks = {}
        for label, path, n in WALKS:
            log("walk of %s objects ..." % label)
            walks[n] = b.walk(path, 3)
        log("backup over a link with round trips ...")
        link = link_bench.measure(b.vondral, reps=max(3, small_reps - 2))
    finally:
        for sim in (getattr(b, "sim", None), getattr(b, "tls_sim", None)):
            if sim:
                sim.stop()
        b.cleanup()
    scale = ([], [])
    if args.scale:
        log("backup and restore of many small objects ...")
        scale = scale_bench.measure(
            sorted(int(c) for c in args.scale.split(",")),
            args.dir or os.environ.get("BENCH_DIR") or "/var/tmp",
            tree["bytes_per_object"])
    load1 = os.getloadavg()
    elapsed = time.monotonic() - started

    big = b.sizes[-1]
    vb = side(backup[big]["vondral"], big)
    cb = side(backup[big]["curl"], big)
    vr = side(restore[big]["vondral"], big)
    cr = side(restore[big]["curl"], big)

    mem = 0
    with open("/proc/meminfo") as f:
        for line in f:
            if line.startswith("MemTotal:"):
                mem = int(line.split()[1]) * 1024
    cpu_model = ""
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu_model = line.split(":", 1)[1].strip()
                break
    curl_version = subprocess.run(["curl", "--version"], capture_output=True,
                                  text=True).stdout.split("\n")[0]
    out += [
        "# vondral benchmarks",
        "",
        "Run of %s by `make bench` (%.0f s)." % (
            datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S %Z").strip(),
            elapsed),
        "",
        "Machine: %d CPUs (`nproc`), %.1f GiB memory, kernel %s, %s; "
        "%s." % (os.cpu_count(), mem / GIB, platform.release(), cpu_model,
                 curl_version),
        "Load average (1, 5, 15 min) at the start %.2f %.2f %.2f, at the "
        "end %.2f %.2f %.2f: the machine is shared, so every comparison "
        "ran both sides in turn in the same run and the figures are "
        "medians." % (load0 + load1),
        "Server: the simulator (`simulator/ibmi_sim.py`, one Python thread "
        "per session) on loopback in a private network namespace, its save "
        "files on tmpfs; the save file is a prebuilt image (`large_saves`). "
        "Archive and curl's files: %s (%s)." % (
            args.dir or os.environ.get("BENCH_DIR") or "/var/tmp",
            filesystem_of(args.dir or os.environ.get("BENCH_DIR")
                          or "/var/tmp")),
        "",
    ]
    lines, chk, rate_ratio, cpu_ratio = comparison(
        "Backup: `vondral -b` against `curl` downloading the save file",
        vb, cb, big, args.reps, 1.5)
    out += lines
    checks += chk
    checks.append(("backup client CPU per GiB <= 0.7x curl's",
                   cpu_ratio <= 0.7, "%.3fx" % cpu_ratio))
    lines, chk, rrate, rcpu = comparison(
        "Restore from a cold archive: `vondral -r` against `curl -T` "
        "uploading the same bytes", vr, cr, big, args.reps, 1.0)
    out += lines[:-1] + [
        "Cold on both sides: before every run of either, the archive and "
        "curl's copy of the save file were dropped from the page cache "
        "(`posix_fadvise(POSIX_FADV_DONTNEED)` after `fdatasync`; `fincore` "
        "found at most %d bytes of them left resident), so vondral reads "
        "its archive with direct I/O from the device, as it must, and curl "
        "reads its copy from the device through the page cache."
        % b.resident_after_evict, ""]
    checks += chk
    checks.append(("restore client CPU per GiB <= 1.0x curl's", rcpu <= 1.0,
                   "%.3fx" % rcpu))
    vm = side(restore_memory["vondral"], big)
    cm = side(restore_memory["curl"], big)
    lines, _, mrate, _ = comparison(
        "Restore with the archive in memory (tmpfs: no direct I/O there, "
        "so vondral reads it through the page cache, one read at a time, "
        "as curl does), against `curl -T` of a copy there too",
        vm, cm, big, small_reps, 1.0)
    out += lines
    for title, runs in (
            ("Backup over FTPS: `vondral -b --tls` against `curl "
             "--ssl-reqd` downloading the save file", backup_tls),
            ("Restore over FTPS: `vondral -r --tls` against `curl "
             "--ssl-reqd -T` uploading the same bytes", restore_tls)):
        lines, chk, _, tcpu = comparison(title, side(runs["vondral"], big),
                                         side(runs["curl"], big), big,
                                         small_reps, 1.0)
        checks += chk
        checks.append(("%s client CPU per GiB <= 1.0x curl's"
                       % title.split(":")[0].lower(), tcpu <= 1.0,
                       "%.3fx" % tcpu))
        out += lines[:-1] + [
            "The server encrypts and decrypts in Python's ssl module "
            "(OpenSSL), one thread per session, without sendfile.%s" % (
                " Cold on both sides, as above." if "Restore" in title
                else ""), ""]

    lim = limits
    out += [
        "### Limits of this machine (median of 3, %.2f GiB each)" % (
            big / GIB), "",
        "| limit | GB/s | CPU s per GiB |", "|---|---:|---:|",
    ]
    for key, label in (
            ("tcp_loopback", "single-stream loopback TCP, 64 KiB reads"),
            ("tcp_to_file", "loopback TCP into a new file, 64 KiB blocks "
             "(the backup's data path without FTP)"),
            ("file_write", "sequential 64 KiB writes to a new file on the "
             "archive's file system (page cache)"),
            ("file_write_sync", "the same, fdatasync'd (the device)"),
            ("direct_64k", "O_DIRECT reads of 64 KiB, one in flight"),
            ("direct_64k_x4", "O_DIRECT reads of 64 KiB, four in flight"),
            ("direct_1m", "O_DIRECT reads of 1 MiB, one in flight"),
            ("direct_1m_x4", "O_DIRECT reads of 1 MiB, four in flight (the "
             "restore's read-ahead)")):
        d = lim[key]
        out.append("| %s | %s | %s |" % (label, fmt(d["gbps"]),
                                          fmt(d["cpu_s_per_gib"])))
    out.append("")

    per_object = tree["bytes_per_object"]
    out += [
        "### Listing", "",
        "| figure | value | target |", "|---|---:|---:|",
        "| listing parser, 1 M realistic lines cut from 64 KiB chunks, "
        "parsed and placed in the tree (lines/s, one core, median of 3) "
        "| %.2f M | >= 2 M |" % (parse_rate / 1e6),
        "| object tree of %d objects (%d files in %d directories), heap "
        "bytes per object | %.1f | <= 200 |" % (
            tree["objects"] + tree["directories"], tree["objects"],
            tree["directories"], per_object),
        "",
    ]
    checks.append(("listing parser >= 2 M lines/s", parse_rate >= 2e6,
                   "%.2f M" % (parse_rate / 1e6)))
    checks.append(("tree <= 200 bytes per object", per_object <= 200,
                   "%.1f" % per_object))

    out += [
        "### Scaling (medians; transfer seconds from the program's own "
        "line, client CPU user + sys)", "",
        "| run | transfer s | wall s | client CPU s | transfer time growth "
        "| CPU growth | bytes |",
        "|---|---:|---:|---:|---:|---:|---:|",
    ]
    vbs = {s: side(backup[s]["vondral"], s) for s in b.sizes}
    vrs = {s: side(restore[s]["vondral"], s) for s in b.sizes}
    out += scaling_rows("backup", vbs, b.sizes)
    out += scaling_rows("restore", vrs, b.sizes)
    out += ["", "| walk of listed objects | listings | walk s | planning s "
            "| client CPU s | server CPU s | walk time growth | CPU growth |",
            "|---|---:|---:|---:|---:|---:|---:|---:|"]
    worst = 0.0
    ns = [n for _, _, n in WALKS]

    def walk_time(n):
        return median([x["walk_s"] + x["plan_s"] for x in walks[n]])

    def walk_cpu(n):
        return median([x["cpu_s"] + x["server_cpu_s"] for x in walks[n]])

    for label, _, n in WALKS:
        w = walks[n]
        growth = cpu_growth = ""
        if n != ns[0]:
            g = walk_time(n) / walk_time(n // 10)
            worst = max(worst, g)
            growth = "%.2fx" % g
            cpu_growth = "%.2fx" % (walk_cpu(n) / walk_cpu(n // 10))
        out.append("| %s (%d files found) | %d | %s | %s | %s | %s | %s | %s |"
                   % (label, w[0]["files"], w[0]["listings"],
                      fmt(median([x["walk_s"] for x in w])),
                      fmt(median([x["plan_s"] for x in w])),
                      fmt(median([x["cpu_s"] for x in w])),
                      fmt(median([x["server_cpu_s"] for x in w])),
                      growth, cpu_growth))
    out.append("")
    checks.append(("10x the objects cost <= 12x the walk time",
                   worst <= 12, "%.2fx at worst" % worst))
    for kind, per_size in (("backup", vbs), ("restore", vrs)):
        g = per_byte_growth(per_size, b.sizes, "transfer_s")
        c = per_byte_growth(per_size, b.sizes, "cpu_s")
        checks.append(("%s: %.0fx the bytes cost <= %.1fx the transfer time"
                       % (kind, b.sizes[-1] / b.sizes[0],
                          1.2 * b.sizes[-1] / b.sizes[0]), g <= 1.2,
                       "%.2fx (CPU %.2fx)" % (g * b.sizes[-1] / b.sizes[0],
                                              c * b.sizes[-1] / b.sizes[0])))

    lines, chk = link_bench.link_section(link)
    out += lines
    checks += chk
    out += scale[0]
    checks += scale[1]

    out += ["### Targets", "", "| target | result | |", "|---|---:|---|"]
    for name, ok, value in checks:
        out.append("| %s | %s | %s |" % (name, value, verdict(ok)))
    out.append("")
    notes = REPO / "bench" / "notes.md"
    if notes.exists():
        out += [notes.read_text().rstrip(), ""]
    text = "\n".join(out)
    print(text)
    Path(args.out).write_text(text)


def resident_bytes(path):
    """Bytes of the file in the page cache, by fincore (util-linux)."""
    r = subprocess.run(["fincore", "--bytes", "--noheadings", "--raw",
                        "--output", "RES", str(path)],
                       capture_output=True, text=True, check=True)
    return int(r.stdout.split()[0])


def filesystem_of(path):
    try:
        r = subprocess.run(["df", "--output=fstype", path],
                           capture_output=True, text=True)
        return r.stdout.split()[-1]
    except (OSError, IndexError):
        return "?"


if __name__ == "__main__":
    main()
