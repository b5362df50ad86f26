#!/usr/bin/python3
"""A backup over a link with round trips, against what an operator would
script instead: one curl run per object with the same save commands.

Runs inside a private network namespace (tools/netns.sh). The simulated
IBM i holds every exchange for the round trip (`round_trip_ms`) and tc's
token bucket caps the namespace's loopback at the link's rate. The tree
is a realistic mix: a few hundred IFS files, libraries, document folders
and a few large objects (placeholder save images, so that a GiB costs no
disk).

    tools/netns.sh /usr/bin/python3 bench/link_bench.py [--rtt-ms 20]
        [--rate 1gbit] [--files 300] [--large-mib 256] [--reps 3]

Prints, for each side, the median wall time and the round trips per
object counted from the server's log.
"""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "bench"))

from common import PASSWORD, USER, log, vondral_bin  # noqa: E402
import simlib  # noqa: E402
from simlib import File  # noqa: E402

ADDR = "127.0.0.44"


def realistic_tree(files, large_count, large_bytes):
    """A server tree: `files` IFS files of sizes from 1 KiB to about 2 MiB
    spread over home directories, three libraries, document folders, and
    `large_count` large objects whose saves are placeholder images of
    `large_bytes` each. Returns (layout, large_saves)."""
    homes = {}
    for i in range(files):
        user = "user%02d" % (i % 12)
        size = 1024 << (i % 12)  # 1 KiB .. 2 MiB, a spread like a real /home
        homes.setdefault(user, {})["file%04d.dat" % i] = File(os.urandom(min(size, 4096)) * max(1, size // 4096))
    large = {}
    data = {}
    for i in range(large_count):
        name = "big%d.img" % i
        data[name] = File(b"")  # listed; its save is the placeholder image
        large["/data/%s" % name] = large_bytes
    layout = {
        "home": homes,
        "data": data,
        "QSYS.LIB": {
            "PAYROLL.LIB": {"EMP.FILE": os.urandom(200000), "CALC.PGM": os.urandom(50000)},
            "SALES.LIB": {"ORDERS.FILE": os.urandom(500000)},
            "STOCK.LIB": {"ITEMS.FILE": os.urandom(300000)},
        },
        "QDLS": {"FOLDER%d" % i: {"DOC%d.TXT" % j: "document %d %d\n" % (i, j) * 200 for j in range(5)}
                 for i in range(4)},
        ".sim": {"security": {"QSECOFR": "sec"}, "config": {"LIND1": "line"}},
    }
    return layout, large


def cap_link(rate):
    """Caps loopback at `rate` (tc tbf); False when tc refuses."""
    done = subprocess.run(["tc", "qdisc", "replace", "dev", "lo", "root", "tbf", "rate", rate,
                           "burst", "1mb", "latency", "100ms"], capture_output=True, text=True)
    if done.returncode != 0:
        log("tc tbf refused (%s): the rate is not capped" % done.stderr.strip())
    return done.returncode == 0


def vondral_backup(vondral, work, include, extra):
    archive = work / "link.ctar"
    t0 = time.monotonic()
    r = subprocess.run([str(vondral), "-s", ADDR, "-c", "%s:here:%s" % (USER, PASSWORD), "-b", archive,
                        "-i", include, *extra], capture_output=True, text=True)
    took = time.monotonic() - t0
    if r.returncode != 0:
        raise SystemExit("vondral failed (%d):\n%s%s" % (r.returncode, r.stdout[-2000:], r.stderr[-2000:]))
    archive.unlink()
    return took


def objects_of(commands):
    """Each object vondral saved, as the save commands before its RETR in
    its session: [(session, [RCMD lines], RETR path)]."""
    pending, found = {}, []
    for c in commands:
        line, session = c.get("cmd"), c.get("session")
        if not line:
            continue
        if line.startswith("RCMD "):
            pending.setdefault(session, []).append(line[5:])
        elif line.startswith("RETR "):
            found.append((session, pending.pop(session, []), line[5:]))
    return found


def curl_script(objects, work):
    """One curl run per object: a new session makes its save file, saves
    the object into it and fetches it, as an operator's script would."""
    out = work / "one.savf"
    t0 = time.monotonic()
    for _, saves, retr in objects:
        savf = re.search(r"QTEMP/(\w+)", " ".join(saves))
        name = savf.group(1) if savf else "SAV1"
        quotes = ["-Q", "RCMD CRTSAVF FILE(QTEMP/%s)" % name]
        for cl in saves:
            if not cl.startswith(("CLRSAVF", "CRTSAVF")):
                quotes += ["-Q", "RCMD " + cl]
        r = subprocess.run(["curl", "-sS", "--ftp-method", "nocwd", "-u", "%s:%s" % (USER, PASSWORD),
                            *quotes, "-o", str(out), "ftp://%s/%%2F%s" % (ADDR, retr.lstrip("/"))],
                           capture_output=True, text=True)
        if r.returncode != 0:
            raise SystemExit("curl failed for %s (%d): %s" % (retr, r.returncode, r.stderr))
        out.unlink()
    return time.monotonic() - t0


def exchanges_per_object(commands, objects):
    """Command lines the server received per object saved."""
    return len([c for c in commands if c.get("cmd")]) / max(1, len(objects))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rtt-ms", type=float, default=20)
    parser.add_argument("--rate", default="1gbit")
    parser.add_argument("--files", type=int, default=300)
    parser.add_argument("--large", type=int, default=3)
    parser.add_argument("--large-mib", type=int, default=256)
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--sessions", type=int, default=1, help="vondral's --sessions")
    args = parser.parse_args()
    if not os.environ.get("VONDRAL_NETNS") and not simlib.in_netns():
        raise SystemExit("run inside tools/netns.sh")
    vondral = vondral_bin()
    work = Path(tempfile.mkdtemp(prefix="vondral-link-", dir=os.environ.get("BENCH_DIR", "/var/tmp")))
    shm = Path(tempfile.mkdtemp(prefix="vondral-link-sim-", dir="/dev/shm"))
    sim = None
    try:
        layout, large = realistic_tree(args.files, args.large, args.large_mib << 20)
        simlib.make_tree(shm / "tree", layout)
        for path, size in large.items():
            os.truncate(shm / "tree" / path.lstrip("/"), size)
        capped = cap_link(args.rate)
        sim = simlib.Sim(ADDR, shm / "tree", {"round_trip_ms": args.rtt_ms, "large_saves": large,
                                              "idle_timeout": 3600}, state_dir=shm / "state")
        sim.start()
        include = work / "all.inc"
        # Every file, large object and library an entry of its own, as an
        # operator who restores them one by one would ask.
        users = sorted(layout["home"])
        include.write_text("".join("/home/%s/*\n" % u for u in users) + "/data/*\n/QSYS.LIB/*.LIB\n/QDLS\n")
        sides = {"vondral": [], "curl per object": []}
        objects = None
        for rep in range(args.reps):
            sim.clear_lines()
            extra = ["--sessions", str(args.sessions)] if args.sessions > 1 else []
            sides["vondral"].append(vondral_backup(vondral, work, include, extra))
            commands = sim.records()
            if objects is None:
                objects = objects_of(commands)
                per_object = exchanges_per_object(commands, objects)
            sim.clear_lines()
            sides["curl per object"].append(curl_script(objects, work))
            curl_per_object = exchanges_per_object(sim.records(), objects)
            log("round %d/%d: vondral %.1f s, curl %.1f s" % (rep + 1, args.reps, sides["vondral"][-1],
                                                              sides["curl per object"][-1]))
        v, c = statistics.median(sides["vondral"]), statistics.median(sides["curl per object"])
        print("link: %g ms round trip, rate %s%s; %d objects saved (%d IFS files, %d large of %d MiB)"
              % (args.rtt_ms, args.rate, "" if capped else " (not capped)", len(objects), args.files,
                 args.large, args.large_mib))
        print("| side | median wall s | commands per object |")
        print("|---|---|---|")
        print("| vondral | %.1f | %.1f |" % (v, per_object))
        print("| curl per object | %.1f | %.1f |" % (c, curl_per_object))
        print("vondral is %.2fx faster than the script" % (c / v))
    finally:
        if sim is not None:
            sim.stop()
        shutil.rmtree(work, ignore_errors=True)
        shutil.rmtree(shm, ignore_errors=True)


if __name__ == "__main__":
    main()
