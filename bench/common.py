"""What the bench scripts share: the server's user, logging to standard
error, one client run with its figures taken from the kernel, and the
table helpers."""

import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
if str(REPO / "tests" / "e2e") not in sys.path:
    sys.path.insert(0, str(REPO / "tests" / "e2e"))

USER, PASSWORD = "qsecofr", "secret"
TICK = os.sysconf("SC_CLK_TCK")


def log(text):
    print(text, file=sys.stderr, flush=True)


def median(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def vondral_bin():
    return Path(os.environ.get("VONDRAL_BIN", REPO / "build" / "vondral"))


class Run:
    """One client process: wall seconds, CPU seconds (user + sys of the
    child, from wait4), its output, and the server's CPU meanwhile.

    With peak set, also its peak resident set in KiB (peak_kib). wait4's
    own figure will not do: a process keeps the largest resident set of
    whatever ran before its exec, and a child started by this Python
    process starts from Python's. GNU time forks the client from a small
    process and reports the client's own."""

    def __init__(self, cmd, server_pid, out_dir, peak=False):
        self.cmd = [str(c) for c in cmd]
        out = tempfile.NamedTemporaryFile(dir=out_dir, delete=False)
        peak_file = None
        if peak:
            peak_file = tempfile.NamedTemporaryFile(dir=out_dir, delete=False)
            peak_file.close()
            self.cmd = ["/usr/bin/time", "-q", "-f", "%M", "-o",
                        peak_file.name] + self.cmd
        cpu0 = process_cpu(server_pid)
        t0 = time.monotonic()
        proc = subprocess.Popen(self.cmd, stdout=out, stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL)
        _, status, usage = os.wait4(proc.pid, 0)
        self.wall = time.monotonic() - t0
        self.server_cpu = process_cpu(server_pid) - cpu0
        proc.returncode = os.waitstatus_to_exitcode(status)
        self.status = proc.returncode
        self.cpu = usage.ru_utime + usage.ru_stime
        self.peak_kib = None
        if peak_file:
            text = Path(peak_file.name).read_text().split()
            os.unlink(peak_file.name)
            self.peak_kib = int(text[-1]) if text else None
            self.cmd = self.cmd[6:]
        out.close()
        self.output = Path(out.name).read_text(errors="replace")
        os.unlink(out.name)

    def check(self, what):
        if self.status != 0:
            raise SystemExit("%s failed (status %d):\n%s\n%s"
                             % (what, self.status, " ".join(self.cmd),
                                self.output[-3000:]))
        return self


def process_cpu(pid):
    """User + system CPU seconds of a process and its threads so far."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def fmt(v, digits=3):
    return "-" if v is None else ("%.*f" % (digits, v))


def verdict(ok):
    return "**met**" if ok else "**missed**"
