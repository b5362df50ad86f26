"""How a run ends when asked to: SIGTERM, SIGINT and SIGHUP end it with
128 + the signal, every wait gives up within a short grace even against a
server that never stops talking or sending, a transfer whose data flows is
finished, and the archive appears only when whole (written under a
temporary name, renamed onto its place at the end)."""
import io
import json
import os
import re
import signal
import subprocess
import tarfile
import time
import types

import pytest

import ctarlib
import simlib
from ctarread import read_archive
from vlib import Run, creds, has_fail

CTAR = os.environ.get("CTAR_BIN") or str(simlib.repo_root() / "build" / "ctar")

TERM, INT, HUP = signal.SIGTERM, signal.SIGINT, signal.SIGHUP
# A request is honoured within the client's grace (TerminationGraceMs);
# BOUND leaves time for the way out (a QUIT, the archive flushed to disk).
GRACE = 5
BOUND = 20

TREE = {
    "data": {"a.txt": "a" * 5000, "sub": {"b.txt": "b" * 300}},
    "QSYS.LIB": {"LIB1.LIB": {"F.FILE": "f" * 700}},
    "QDLS": {"FOLDER": {"DOC": "d" * 900}},
    ".sim": {"security": {"QSECOFR": "s"}, "config": {"LIND": "c"}},
}
SPECIAL = {"/Security Data", "/System Configuration"}  # always saved first
OLD_ARCHIVE = b"an archive of an earlier night\n" * 40


class Client:
    """The client run in the background, its output going to files."""

    def __init__(self, work, sim, args):
        self.sim = sim
        self.out_path, self.err_path = work / "out.txt", work / "err.txt"
        with open(self.out_path, "wb") as out, open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(
                [simlib.vondral_bin(), "-s", sim.addr, "-c", creds(), *map(str, args)],
                stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        self.signalled_at = None

    def wait_until(self, condition, what, seconds=20):
        deadline = time.monotonic() + seconds
        for _ in range(100000):
            if condition():
                return
            assert self.proc.poll() is None, "the client ended before " + what
            assert time.monotonic() < deadline, "never saw " + what
            time.sleep(0.02)
        pytest.fail("never saw " + what)

    def seen(self, pattern, count=1):
        """Waits until the server has logged `count` commands matching."""
        self.wait_until(lambda: sum(1 for c in self.sim.lines() if re.search(pattern, c)) >= count,
                        "%d x %s" % (count, pattern))

    def send(self, signum):
        self.proc.send_signal(signum)
        self.signalled_at = time.monotonic()
        self.signalled_wall = time.time()  # the clock of the server's log

    def finish(self, bound=BOUND):
        """Waits for the end, at most `bound` seconds after the last signal.
        The Run has .seconds: from that signal to the end."""
        try:
            self.proc.wait(max(0.0, self.signalled_at + bound - time.monotonic()))
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            pytest.fail("still running %ds after the signal: it needed SIGKILL" % bound)
        seconds = time.monotonic() - self.signalled_at
        run = Run(types.SimpleNamespace(returncode=self.proc.returncode,
                                        stdout=self.out_path.read_bytes(),
                                        stderr=self.err_path.read_bytes()))
        run.seconds = seconds
        return run


@pytest.fixture
def client(tmp_path):
    """Starts the client: client(sim, *args); none is left running."""
    started = []

    def start(sim, *args):
        work = tmp_path / ("run%d" % len(started))
        work.mkdir()
        started.append(Client(work, sim, args))
        return started[-1]

    yield start
    for c in started:
        if c.proc.poll() is None:
            c.proc.kill()
            c.proc.wait()


def temporaries(archive):
    """The temporary files beside an archive: NAME.partial[.XXXXXX]."""
    return sorted(p.name for p in archive.parent.iterdir()
                  if re.fullmatch(re.escape(archive.name) + r"\.partial(\.\w{6})?", p.name))


def verified_entries(archive):
    """`ctar verify` must call the archive whole; the names of its entries."""
    verify = subprocess.run([CTAR, "verify", archive], capture_output=True, text=True, timeout=120)
    assert verify.returncode == 0, verify.stdout + verify.stderr
    listing = subprocess.run([CTAR, "list", "--json", archive], capture_output=True, text=True,
                             timeout=120)
    assert listing.returncode == 0, listing.stderr
    return {e["name"] for e in json.loads(listing.stdout)["entries"]}


def old_archive(tmp_path, content=OLD_ARCHIVE):
    """The archive path, holding content (None: not there)."""
    archive = tmp_path / "night.ctar"
    if content is not None:
        archive.write_bytes(content)
    return archive


@pytest.mark.parametrize("signum", [TERM, INT, HUP], ids=["TERM", "INT", "HUP"])
def test_each_signal_ends_a_backup_with_its_status(sim_factory, client, tmp_path, signum):
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^RCMD SAVDLO", "action": "delay", "seconds": 1}]})
    archive = old_archive(tmp_path)
    c = client(sim, "-b", archive, "-x", "no")
    c.seen("^RCMD SAVDLO")
    c.send(signum)
    r = c.finish()
    assert r.status == 128 + signum, r.err
    assert has_fail(r.err_lines, "backup", "Backup Terminated Cleanly"), r.err
    assert "** Backup Complete" not in r.out
    # the entries completed before the request and the one under way, in
    # place of the old archive
    assert verified_entries(archive) == SPECIAL | {"/QDLS"}
    assert temporaries(archive) == []


def include(tmp_path, *paths):
    path = tmp_path / "include.txt"
    path.write_text("".join(p + "\n" for p in paths))
    return path


ENDLESS_GREETING = {"endless_greeting": True}


def endless_reply(pattern):
    return {"faults": [{"match": pattern, "action": "endless_reply"}]}


# Each wait against a server that never ends it: (server config, mode,
# the command after which the client waits, how often, the signal, what
# the archive's path held before, the entries the archive then holds;
# None: the path holds what it held before).
DEEP = {"endless_depth": ["/data/deep"]}
HOSTILE = [
    pytest.param(ENDLESS_GREETING, "backup", None, 1, TERM, OLD_ARCHIVE, None,
                 id="greeting"),
    pytest.param(endless_reply("^TIME "), "backup", "^TIME ", 1, INT, OLD_ARCHIVE, None,
                 id="TIME reply at login"),
    pytest.param(endless_reply("^RCMD SAV "), "backup", "^RCMD SAV ", 1, HUP, OLD_ARCHIVE,
                 SPECIAL | {"/QDLS", "/QSYS.LIB/LIB1.LIB"}, id="save reply"),
    # the third retrieval drips: only the two before it are whole
    pytest.param({"faults": [{"match": "^RETR", "nth": 3, "action": "drip_data",
                              "bytes": 100, "interval": 0.2}]},
                 "backup", "^RETR", 3, TERM, None, SPECIAL, id="dripping retrieval"),
    pytest.param(DEEP, "backup deep", "^LIST ", 40, INT, OLD_ARCHIVE, None, id="endless tree"),
    pytest.param(DEEP, "backup deep", "^LIST ", 40, HUP, None, None,
                 id="endless tree, no archive before"),
    pytest.param(ENDLESS_GREETING, "test", None, 1, HUP, None, None,
                 id="greeting, test mode"),
    pytest.param(endless_reply("^LIST "), "list", "^LIST ", 1, TERM, None, None,
                 id="LIST reply, list mode"),
]


@pytest.mark.parametrize("config, mode, when, count, signum, before, kept", HOSTILE)
def test_every_wait_gives_up_soon_after_a_request(sim_factory, client, tmp_path, config, mode,
                                                  when, count, signum, before, kept):
    sim = sim_factory(tree=TREE, config=config)
    archive = old_archive(tmp_path, before)
    args = {"backup": ["-b", archive, "-x", "no"],
            "backup deep": ["-b", archive, "-i", include(tmp_path, "/data/deep")],
            "test": ["-t"],
            "list": ["-l", "1", "-i", include(tmp_path, "/data")]}[mode]
    c = client(sim, *args)
    if when is None:
        c.wait_until(lambda: sim.sessions(), "a connection")
    else:
        c.seen(when, count)
    time.sleep(0.3)  # well inside the wait
    c.send(signum)
    r = c.finish()
    assert r.status == 128 + signum, (r.seconds, r.err)
    # once the grace is over nothing more is said to the server
    assert [x["cmd"] for x in sim.commands() if x["t"] > c.signalled_wall + GRACE + 1] == []
    if mode.startswith("backup"):
        assert temporaries(archive) == []
        if kept is None:
            assert (archive.read_bytes() if archive.exists() else None) == before
        else:
            assert verified_entries(archive) == kept


def test_a_flowing_transfer_is_finished_whole(sim_factory, client, tmp_path):
    # 8 MiB at 1 MiB/s: the transfer flows for longer than the grace
    content = os.urandom(8 << 20)
    sim = sim_factory(tree=dict(TREE, big=content), config={"faults": [
        {"match": "^RETR /QSYS.LIB/QTEMP.LIB/", "nth": 3, "action": "pace_data",
         "bytes_per_second": 1 << 20}]})
    archive = old_archive(tmp_path)
    c = client(sim, "-b", archive, "-x", "no", "-i", include(tmp_path, "/big"))
    c.seen("^RETR", 3)
    time.sleep(1)
    c.send(TERM)
    r = c.finish()
    assert r.status == 143, r.err
    assert r.seconds > GRACE  # waited for the data, not for the grace
    assert verified_entries(archive) == SPECIAL | {"/big"}
    # The finished entry is reported like any other, before the run ends.
    assert "Backup Success: /big" in r.out_lines, r.out
    big, = [e for e in read_archive(archive) if e.name == "/big"]
    with tarfile.open(fileobj=io.BytesIO(big.data)) as image:
        assert image.extractfile("o").read() == content
    assert temporaries(archive) == []


@pytest.mark.parametrize("in_the_way", [False, True], ids=["new", "partial exists"])
def test_the_archive_is_made_aside_and_put_in_place_on_termination(sim_factory, client,
                                                                   tmp_path, in_the_way):
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^RCMD SAVDLO", "action": "delay", "seconds": 1.5}]})
    archive = old_archive(tmp_path)
    stale = archive.parent / (archive.name + ".partial")
    if in_the_way:
        stale.write_bytes(b"someone else's")
    c = client(sim, "-b", archive, "-x", "no")
    c.seen("^RCMD SAVDLO")
    if in_the_way:  # a name of its own beside it
        made = [n for n in temporaries(archive) if n != stale.name]
        assert len(made) == 1 and re.fullmatch(re.escape(stale.name) + r"\.\w{6}", made[0])
    else:
        assert temporaries(archive) == [stale.name]
    assert archive.read_bytes() == OLD_ARCHIVE  # untouched while the run goes on
    c.send(TERM)
    r = c.finish()
    assert r.status == 143, r.err
    assert verified_entries(archive) == SPECIAL | {"/QDLS"}
    assert temporaries(archive) == ([stale.name] if in_the_way else [])
    if in_the_way:
        assert stale.read_bytes() == b"someone else's"


@pytest.mark.parametrize("first, second", [(TERM, INT), (HUP, TERM), (INT, HUP)],
                         ids=["TERM-INT", "HUP-TERM", "INT-HUP"])
def test_a_second_request_ends_the_run_at_once(sim_factory, client, tmp_path, first, second):
    sim = sim_factory(tree=TREE, config=endless_reply("^RCMD SAV "))
    archive = old_archive(tmp_path)
    c = client(sim, "-b", archive, "-x", "no")
    c.seen("^RCMD SAV ")
    c.send(first)
    time.sleep(0.5)  # the first one is being honoured: the grace runs
    assert c.proc.poll() is None
    c.send(second)
    r = c.finish(bound=2)
    assert r.status == 128 + second, r.err
    assert archive.read_bytes() == OLD_ARCHIVE
    assert temporaries(archive) == [archive.name + ".partial"]


def test_a_restore_from_a_pipe_that_stalls_ends_on_request(sim_factory, tmp_path):
    # The archive's writer sends an entry's header and some of its data,
    # then nothing: the upload's reads wait beside the termination wake-up
    # and give up once the grace has passed without data.
    sim = sim_factory(tree=TREE)
    header = ctarlib.header("/data/x", 100000)
    proc = subprocess.Popen([str(simlib.vondral_bin()), "-s", sim.addr, "-c", creds(), "-r", "-"],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        proc.stdin.write(header + b"x" * 4096)
        proc.stdin.flush()
        deadline = time.monotonic() + 20
        while not any(c.startswith("STOR") for c in sim.lines()):
            assert time.monotonic() < deadline and proc.poll() is None
            time.sleep(0.02)
        time.sleep(0.5)
        proc.send_signal(INT)
        started = time.monotonic()
        proc.wait(timeout=BOUND)  # the archive's pipe stays open all along
        assert GRACE - 1 < time.monotonic() - started < GRACE + 3
        proc.stdin.close()
        err = proc.stderr.read()
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.communicate()
    assert proc.returncode == 130, err
    assert b"Restore Terminated Cleanly" in err
