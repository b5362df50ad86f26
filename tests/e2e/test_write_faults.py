"""Write faults at every write of the archive: a small backup is run once
clean to count the write calls it makes on its archive file, then once per
call number and kind of fault, with a shim (tests/tools/writefault.cpp,
loaded with LD_PRELOAD) failing that call: disk full from there on, one I/O
error, a short write, an interrupted write. A failed fdatasync before the
archive is put in place is tried as well. For each run the outcome the
program promises is checked, and every archive is read back entry by entry
and verified with ctar."""
import os
import re
import subprocess

import pytest

import simlib
from ctarread import read_archive
from vlib import after, backup

LIB = os.environ.get("WRITEFAULT_LIB") or str(simlib.repo_root() / "build" / "tests" / "libwritefault.so")
CTAR = os.environ.get("CTAR_BIN") or str(simlib.repo_root() / "build" / "ctar")


def sanitized_binary():
    """A sanitizer runtime insists on being the first library loaded: with
    the shim preloaded ahead of it, the program stops at start-up ("ASan
    runtime does not come first in initial library list"). The binary itself
    says whether it carries one, whatever its path or the options of the
    run (e2e-asan runs this suite against build/asan/vondral)."""
    with open(simlib.vondral_bin(), "rb") as f:
        image = f.read()
    return any(mark in image for mark in (b"__asan_init", b"__tsan_init", b"__msan_init"))


pytestmark = pytest.mark.skipif(
    sanitized_binary(), reason="the client is built with a sanitizer, whose runtime must be "
    "loaded first: the write-fault shim cannot be preloaded into it")

OLD = 1_700_000_000
TREE = {
    "data": simlib.Dir({"a.txt": simlib.File("a" * 5000, mtime=OLD),
                        "sub": simlib.Dir({"b.txt": simlib.File("b" * 300, mtime=OLD)}, mtime=OLD)},
                       mtime=OLD),
    "QSYS.LIB": simlib.Dir({"LIB1.LIB": simlib.Dir({"F.FILE": simlib.File("f" * 700, mtime=OLD)},
                                                   mtime=OLD)}, mtime=OLD),
    "QDLS": simlib.Dir({"FOLDER": simlib.Dir({"DOC": simlib.File("d" * 900, mtime=OLD)}, mtime=OLD)},
                       mtime=OLD),
    ".sim": {"security": {"QSECOFR": simlib.File("s", mtime=OLD)},
             "config": {"LIND": simlib.File("c", mtime=OLD)}},
}
OBJECTS = ["/Security Data", "/System Configuration", "/QDLS", "/QSYS.LIB/LIB1.LIB", "/data"]
# The simulator's save images are tar streams, whole 512-byte blocks. For
# save files of other lengths, whose last block the client pads, some
# transfers are cut after an odd number of bytes while the server still
# replies 226: (retrieval number, bytes). One stays under a block, so its
# only data write is the padded block; the others have whole blocks before
# their padding, past the manifest (whose creation time varies by run).
CUTS = [(2, 300), (4, 1300), (5, 5000)]
CONFIG = {
    "faults": [{"match": "^RETR ", "nth": n, "action": "close_data_after", "bytes": b} for n, b in CUTS],
    "replies": [{"match": "^RETR ", "nth": n, "reply": "226 Transfer complete.", "apply": True}
                for n, _ in CUTS],
}
OLD_ARCHIVE = b"an older archive, to be left as it is by a run that fails\n" * 40
KINDS = ["enospc", "eio", "short", "eintr"]

FIGURES = {"faults tried": 0, "survived as promised": 0, "archives verified": 0}


@pytest.fixture(scope="module", autouse=True)
def report_figures(request):
    yield
    if not FIGURES["faults tried"]:
        return
    line = "write faults: %d faults tried, %d survived as promised, %d archives verified" % (
        FIGURES["faults tried"], FIGURES["survived as promised"], FIGURES["archives verified"])
    earlier = getattr(request.config, "fault_matrix_figures", None)
    request.config.fault_matrix_figures = earlier + "\n" + line if earlier else line


@pytest.fixture
def tree(tmp_path):
    """One server tree for every run of a test, so that the mtimes in the
    save images stay the same from run to run."""
    return simlib.make_tree(tmp_path / "tree", TREE)


def faulted_backup(sim, work, tag, kind=None, at=None):
    """A backup of sim into work/TAG.ctar with the shim loaded; the Run
    carries .calls, the write calls the shim saw on the archive."""
    archive = work / (tag + ".ctar")
    count = work / (tag + ".calls")
    env = {"LD_PRELOAD": LIB, "WRITEFAULT_PATH": os.path.realpath(archive), "WRITEFAULT_COUNT": str(count)}
    if kind:
        env.update(WRITEFAULT_KIND=kind, WRITEFAULT_AT=str(at or 0))
    with pytest.MonkeyPatch.context() as patch:
        for name, value in env.items():
            patch.setenv(name, value)
        r = backup(sim, work, "-x", "no", tag=tag)
    assert r.status != 127, "the shim refused its configuration: " + r.err
    r.calls = int(count.read_text()) if count.exists() else 0
    return r


CREATED = re.compile(rb'"created": [-+0-9.eE]+')
# Entries whose header carries the time of the run rather than an mtime.
SAVED_NOW = ("/Security Data", "/System Configuration")


def comparable(entry):
    """An entry without what changes from one save of the same tree to the
    next: the time the save image was made, in the manifest and in the
    header of the manifest member (its time, its length, its checksum)."""
    head = bytearray(entry.data[:512])
    head[124:156] = bytes(32)
    manifest = CREATED.sub(b'"created": 0', entry.data[512:1024]).rstrip(b"\0")
    mtime = None if entry.name in SAVED_NOW else entry.mtime
    return (entry.name, entry.stored_name, entry.size, entry.mode, mtime,
            bytes(head), manifest, entry.data[1024:])


def verified(archive):
    """The archive's entries, after ctar has called it whole."""
    check = subprocess.run([CTAR, "verify", str(archive)], capture_output=True, text=True, timeout=60)
    assert check.returncode == 0, "ctar verify: %s%s" % (check.stdout, check.stderr)
    FIGURES["archives verified"] += 1
    return read_archive(archive)


def leftovers(work, tag):
    return sorted(p.name for p in work.glob(tag + ".ctar.partial*"))


def writes_of(entries):
    """The write calls on the archive that make up each entry, in order, as
    the archive's layout demands them: the whole blocks of the save file in
    one write (all of it arrives in one transfer buffer), the last block
    padded with zeros, a new end block behind the data, and the header over
    the old end block. Before any entry, the end block of the empty
    archive."""
    calls = [(None, "end block of the empty archive")]
    for e in entries:
        if e.size >= 512:
            calls.append((e.name, "whole blocks"))
        if e.size % 512:
            calls.append((e.name, "padded last block"))
        calls += [(e.name, "new end block"), (e.name, "header over the old end block")]
    return calls


def baseline(sim_factory, tree, work):
    sim = sim_factory(root=tree, config=CONFIG)
    r = faulted_backup(sim, work, "clean")
    sim.stop()
    assert r.status == 0, r.err
    entries = verified(r.archive)
    assert [e.name for e in entries] == OBJECTS
    padded = [e.name for e in entries if e.size % 512]
    assert len(padded) == len(CUTS), "save files with a padded last block: %s" % padded
    calls = writes_of(entries)
    assert r.calls == len(calls), "the clean run made %d writes on its archive, the layout says %d: %s" % (
        r.calls, len(calls), calls)
    return r, entries, calls


def check_promises(r, work, tag, old, clean_entries):
    """What holds after any fault, whatever it hit. Returns the entries of
    the archive put in place (None when there is none)."""
    archive = r.archive
    assert not leftovers(work, tag), "temporary files left: %s" % leftovers(work, tag)
    successes = after("Backup Success: ", r.out_lines)
    # A failed run, and one that failed to save anything, makes no archive:
    # an older one stays as it was.
    if r.status == 255 or (r.status != 0 and not successes):
        if old is None:
            assert not archive.exists(), "an archive was put in place by a failed run"
        else:
            assert archive.read_bytes() == old, "a failed run changed the older archive"
        return [] if r.status != 255 else None
    assert r.status in (0, 1, 2), r.status
    entries = verified(archive)
    names = [e.name for e in entries]
    failures = after("Backup Failure: ", r.err_lines)
    missing = [s for s in successes if s not in names]
    assert not missing, "reported saved, but not in the archive: %s" % missing
    assert sorted(successes + failures) == sorted(OBJECTS), (successes, failures)
    assert sorted(r.notbackedup) == sorted(failures)
    # What is in the archive is what a clean run saves, whole.
    clean = {e.name: comparable(e) for e in clean_entries}
    assert [comparable(e) for e in entries] == [clean[n] for n in names], "entries differ from a clean run"
    return entries


@pytest.mark.parametrize("kind", KINDS)
def test_a_write_fault_at_every_write_of_the_archive(sim_factory, tmp_path, tree, kind):
    clean, clean_entries, calls = baseline(sim_factory, tree, tmp_path)
    wrong = []
    for at, (owner, role) in enumerate(calls, start=1):
        FIGURES["faults tried"] += 1
        tag = "%s%d" % (kind, at)
        # Every other run has an older archive in the way, which a failed
        # run must leave untouched; the others must leave no archive.
        old = OLD_ARCHIVE if at % 2 == 0 else None
        if old is not None:
            (tmp_path / (tag + ".ctar")).write_bytes(old)
        sim = sim_factory(root=tree, config=CONFIG)
        r = faulted_backup(sim, tmp_path, tag, kind, at)
        sim.stop()
        case = "%s at write %d (%s of %s)" % (kind, at, role, owner or "the backup")
        try:
            assert r.calls >= at, "the fault never fired: %d writes" % r.calls
            entries = check_promises(r, tmp_path, tag, old, clean_entries)
            failures = after("Backup Failure: ", r.err_lines)
            if kind in ("short", "eintr"):
                # Harmless: the same archive and output as without the fault.
                assert r.status == 0 and not failures, (r.status, r.err)
                assert after("Backup Success: ", r.out_lines) == OBJECTS
                assert len(entries) == len(clean_entries)
            elif owner is None:
                # Without its first end block the archive cannot be made.
                assert r.status == 255, r.status
            elif kind == "eio":
                # That one retrieval is cut back; the others are untouched.
                assert r.status == 2, (r.status, r.err)
                assert failures == [owner], failures
                assert [e.name for e in entries] == [n for n in OBJECTS if n != owner]
            else:
                # Disk full: this retrieval and every later one fail and are
                # cut back; the entries before them stay.
                lost = OBJECTS[OBJECTS.index(owner):]
                assert r.status == 2, (r.status, r.err)
                assert failures == lost, failures
                assert [e.name for e in entries] == [n for n in OBJECTS if n not in lost]
        except AssertionError as e:
            wrong.append("%s: %s\n    stderr: %s" % (case, e, " | ".join(r.err_lines)))
            continue
        FIGURES["survived as promised"] += 1
    assert not wrong, "%d of %d faults broke a promise:\n%s" % (len(wrong), len(calls), "\n".join(wrong))


@pytest.mark.parametrize("older", [True, False], ids=["older archive", "no archive"])
def test_a_failed_fdatasync_keeps_the_archive_out_of_place(sim_factory, tmp_path, tree, older):
    FIGURES["faults tried"] += 1
    if older:
        (tmp_path / "sync.ctar").write_bytes(OLD_ARCHIVE)
    sim = sim_factory(root=tree, config=CONFIG)
    r = faulted_backup(sim, tmp_path, "sync", "sync")
    assert r.status == 255, r.err
    assert any("fdatasync(" in line and "Input/output error" in line for line in r.err_lines), r.err
    check_promises(r, tmp_path, "sync", OLD_ARCHIVE if older else None, [])
    FIGURES["survived as promised"] += 1
