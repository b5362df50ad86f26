"""Restore mode end to end: archives built by tests/e2e/ctarlib.py from save
images that a simulated server made of a source tree, restored with
`vondral -r` into fresh, empty simulated servers."""

import ftplib
import io
import random
import re
import signal
import subprocess
import time

import pytest

import ctarlib
import simlib
from ctarlib import Entry
from simlib import Dir, File, Link, cl_path, savf
from vlib import Run, creds, has_fail, vondral

OLD = 1_500_000_000
LONG = "/deep/" + "d" * 60 + "/" + "e" * 60 + "/" + "f" * 60  # 188 characters

SOURCE = {
    "home": {
        "alice": {
            "notes.txt": File("hello\n", 0o640, OLD),
            "a b": {
                "it's \"quoted\".txt": File(b"quote\n" * 100),
                "empty dir": {},
            },
            "big.bin": File(random.Random(6).randbytes(3 << 20), 0o600),
            "link to notes": Link("notes.txt"),
        },
        "bob": Dir({"report.csv": "a,b\n1,2\n"}, 0o750),
    },
    LONG.lstrip("/"): {"leaf.txt": "deep leaf\n"},
    "QSYS.LIB": {
        "PAYROLL.LIB": {"EMP.FILE": b"EMPDATA" * 50, "CALC.PGM": b"\x00\x01PGM"},
        "SALES.LIB": {"ORDERS.FILE": b"ORDERS"},
    },
    "QDLS": {"FOLDER1": {"DOC1.TXT": "doc one"}, "DOC2.TXT": "doc two"},
    ".sim": {"security": {"QSECOFR": "sec", "JOE": "joe"},
             "config": {"LIND1": "line", "CTLD1": "ctl"}},
}

SAVES = {
    "/home": "SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV1.FILE') OBJ((%s)) SUBTREE(*ALL)"
             % cl_path("/home"),
    "/home/alice": "SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV1.FILE') OBJ((%s)) SUBTREE(*ALL)"
                   % cl_path("/home/alice"),
    "/home/bob": "SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV1.FILE') OBJ((%s)) SUBTREE(*ALL)"
                 % cl_path("/home/bob"),
    LONG: "SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV1.FILE') OBJ((%s)) SUBTREE(*ALL)" % cl_path(LONG),
    "/QSYS.LIB/PAYROLL.LIB": "SAVLIB LIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/QSYS.LIB/SALES.LIB": "SAVLIB LIB(SALES) DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/QDLS": "SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/Security Data": "SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/System Configuration": "SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV1)",
}

LOGIN = ["USER qsecofr", "PASS secret", "CWD /", "SYST", "TIME 86400 86400"]
RSTAUT = "RCMD RSTAUT USRPRF(*ALL)"


class Source:
    def __init__(self, root, images):
        self.root = root
        self.images = images

    def entry(self, path, **kwargs):
        """An archive entry holding the save image of path; IFS paths and
        libraries are stored as directories (".savf" names) by default."""
        kwargs.setdefault("directory", not path.startswith("/QDLS")
                          and path not in ("/Security Data", "/System Configuration"))
        return Entry(path, self.images[path], **kwargs)


@pytest.fixture(scope="module")
def source(tmp_path_factory):
    """A simulated server holding SOURCE, asked once for every save image."""
    if not simlib.in_netns():
        pytest.fail("end-to-end tests must run inside tests/e2e/run_in_netns.sh")
    root = simlib.make_tree(tmp_path_factory.mktemp("source"), SOURCE)
    sim = simlib.Sim(simlib.next_address(), root,
                     state_dir=tmp_path_factory.mktemp("source-sim"))
    sim.start()
    try:
        f = sim.ftp()
        f.sendcmd("RCMD CRTSAVF FILE(QTEMP/SAV1)")
        images = {}
        for path, command in SAVES.items():
            f.sendcmd("RCMD CLRSAVF FILE(QTEMP/SAV1)")
            f.sendcmd("RCMD " + command)
            data = io.BytesIO()
            f.retrbinary("RETR " + savf("SAV1"), data.write, blocksize=1 << 20)
            images[path] = data.getvalue()
            assert images[path], path
        f.quit()
    finally:
        sim.stop()
    return Source(root, images)


def restore(sim, archive, *args, **kwargs):
    return vondral("-s", sim.addr, "-c", creds(), "-r", archive, *args, **kwargs)


def path_file(tmp_path, name, lines):
    path = tmp_path / name
    path.write_text("".join(line + "\n" for line in lines))
    return path


def rcmds(sim):
    return [c for c in sim.lines() if c.startswith("RCMD ")]


def restore_commands(sim):
    return [c for c in rcmds(sim) if c.split()[1].startswith("RST")]


def rst(path, new=None, omit=(), release_v5r4=True):
    """The RST command the client sends for one pair."""
    obj = cl_path(path) + (" *INCLUDE " + cl_path(new) if new else "")
    elements = "(%s)" % obj + "".join(" (%s *OMIT)" % cl_path(o) for o in omit)
    return ("RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(%s) SUBTREE(*ALL) "
            "ALWOBJDIF(*ALL)%s" % (elements, " CRTPRNDIR(*Yes)" if release_v5r4 else ""))


RSTLIB = ("RCMD RSTLIB SAVLIB(%s) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(%s) MBROPT(*ALL) "
          "ALWOBJDIF(*ALL)")
RSTDLO = "RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)"
RSTUSRPRF = "RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)"
RSTCFG = "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)"


def every_kind(source):
    return [source.entry("/home"),
            source.entry(LONG, size64=True),  # a long name and the base-64 size form
            source.entry("/QSYS.LIB/PAYROLL.LIB"),
            source.entry("/QSYS.LIB/SALES.LIB", directory=False),
            source.entry("/QDLS"),
            source.entry("/Security Data"),
            source.entry("/System Configuration")]


# --- round trips


def test_round_trip_of_every_kind_leaves_identical_trees(source, sim_factory, tmp_path):
    archive = tmp_path / "all.ctar"
    entries = every_kind(source)
    data = ctarlib.write_archive(archive, entries)
    sim = sim_factory()
    r = restore(sim, archive, "-v2")
    assert r.status == 0, r.err
    assert simlib.compare_trees(source.root, sim.root) == []
    assert r.err_lines == []

    lines = sim.lines()
    assert lines[:5] == LOGIN and lines[-1] == "QUIT"
    # The first restore of the session creates the save file, later ones
    # clear it; the transfer settings go out once.
    assert rcmds(sim)[:2] == ["RCMD CLRSAVF FILE(QTEMP/SAVTEMP)", "RCMD CRTSAVF FILE(QTEMP/SAVTEMP)"]
    assert rcmds(sim).count("RCMD CRTSAVF FILE(QTEMP/SAVTEMP)") == 1
    assert rcmds(sim).count("RCMD CLRSAVF FILE(QTEMP/SAVTEMP)") == 7
    assert [c for c in lines if c in ("STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1")] == \
        ["STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1"]
    assert lines.count("STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF") == 7
    # Authorities come back once, after everything else.
    assert restore_commands(sim) == [
        rst("/home"), rst(LONG), RSTLIB % ("PAYROLL", "*SAVLIB"), RSTLIB % ("SALES", "*SAVLIB"),
        RSTDLO, RSTUSRPRF, RSTCFG, RSTAUT]

    out = r.out_lines
    archived = [l for l in out if l.startswith("Archive  : ")]
    assert archived == ["Archive  : " + p for p in
                        ["/home", LONG, "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/SALES.LIB", "/QDLS",
                         "/Security Data", "/System Configuration"]]
    assert [l for l in out if l.startswith("Restore Success: ")] == [
        "Restore Success: " + p for p in
        ["/home", LONG, "/QSYS.LIB/PAYROLL", "/QSYS.LIB/SALES", "/QDLS", "/Security Data",
         "/System Configuration"]]
    assert any(re.fullmatch(r"Transfer : +\d+\.\d{3} s \d+\.\d{3} [KMG]?B/s", l) for l in out)
    restored = [l for l in out if l.startswith("Restored ")]
    # The whole archive but its sentinel, in units of 1000 bytes.
    size = len(data) - ctarlib.BLOCK
    assert restored == [l for l in restored if re.fullmatch(
        r"Restored %.3f MBs in \d+\.\d{6} seconds" % (size / 1e6), l)] and len(restored) == 1


def test_standard_input_through_a_pipe_gives_the_same_tree(source, sim_factory, tmp_path):
    junk = Entry("/junk", random.Random(7).randbytes(100_001))
    data = ctarlib.archive_bytes([junk] + every_kind(source))
    exclude = path_file(tmp_path, "exclude.txt", ["/junk"])
    sim = sim_factory()
    out, err = tmp_path / "out.txt", tmp_path / "err.txt"
    with open(out, "w") as o, open(err, "w") as e:
        proc = subprocess.Popen(
            [simlib.vondral_bin(), "-s", sim.addr, "-c", creds(), "-e", exclude, "-r", "-"],
            stdin=subprocess.PIPE, stdout=o, stderr=e)
        # Odd pieces, so that blocks arrive split across reads.
        for at in range(0, len(data), 777):
            proc.stdin.write(data[at:at + 777])
            proc.stdin.flush()
        proc.stdin.close()
        proc.wait(timeout=60)
    proc.stdout, proc.stderr = out.read_text(), err.read_text()
    r = Run(proc)
    assert r.status == 0, r.err
    # The excluded entry was read through without a word about seeking.
    assert r.err_lines == []
    assert simlib.compare_trees(source.root, sim.root) == []
    assert sim.lines().count("STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF") == 7


# --- include and exclude


def test_include_and_exclude_choose_parts_and_new_places(source, sim_factory, tmp_path):
    entries = [source.entry("/home/alice"), source.entry("/home/bob"),
               source.entry("/QSYS.LIB/PAYROLL.LIB"), source.entry("/QSYS.LIB/SALES.LIB"),
               source.entry("/QDLS"), source.entry("/Security Data"),
               source.entry("/System Configuration")]
    archive = tmp_path / "a.ctar"
    ctarlib.write_archive(archive, entries)
    include = path_file(tmp_path, "include.txt", [
        "/home/alice/a b",
        "/home/alice/notes.txt :: /restored/notes.txt",
        "/home/bob :: /restored/bob",
        "/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/PAYTEST.LIB",
        "/QSYS.LIB/*",  # wild cards play no part in a restore
    ])
    exclude = path_file(tmp_path, "exclude.txt", [
        "/home/alice/a b/empty dir",
        "/System Configuration",
    ])
    sim = sim_factory()
    r = restore(sim, archive, "-i", include, "-e", exclude, "-v")
    assert r.status == 0, r.err

    # One upload for /home/alice, one RST for each included line beneath it,
    # the exclusion as *OMIT.
    assert restore_commands(sim) == [
        rst("/home/alice/a b", omit=["/home/alice/a b/empty dir"]),
        rst("/home/alice/notes.txt", "/restored/notes.txt"),
        rst("/home/bob", "/restored/bob"),
        RSTLIB % ("PAYROLL", "PAYTEST"),
        RSTUSRPRF,  # never tested against the include file
        RSTAUT]
    assert sim.lines().count("STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF") == 4
    assert "vondral: /QSYS.LIB/SALES.LIB: not included" in r.err_lines
    assert "vondral: /QDLS: not included" in r.err_lines
    assert "vondral: /System Configuration: excluded" in r.err_lines
    assert [l for l in r.out_lines if l.startswith("Object   : ")] == [
        "Object   : /home/alice/a b", "Object   : /home/alice/notes.txt",
        "Object   : /home/bob"]

    digest = simlib.tree_digest(sim.root)
    src = simlib.tree_digest(source.root)
    assert sorted(digest) == sorted([
        "home", "home/alice", "home/alice/a b", "home/alice/a b/it's \"quoted\".txt",
        "restored", "restored/notes.txt", "restored/bob", "restored/bob/report.csv",
        "QSYS.LIB", "QSYS.LIB/PAYTEST.LIB", "QSYS.LIB/PAYTEST.LIB/EMP.FILE",
        "QSYS.LIB/PAYTEST.LIB/CALC.PGM", ".sim", ".sim/security", ".sim/security/QSECOFR",
        ".sim/security/JOE"])
    assert digest["restored/bob/report.csv"] == src["home/bob/report.csv"]
    assert digest["restored/notes.txt"] == src["home/alice/notes.txt"]
    assert digest["QSYS.LIB/PAYTEST.LIB/EMP.FILE"] == src["QSYS.LIB/PAYROLL.LIB/EMP.FILE"]


def test_too_long_library_destination_is_refused_with_nothing_sent(source, sim_factory, tmp_path):
    archive = tmp_path / "lib.ctar"
    ctarlib.write_archive(archive, [source.entry("/QSYS.LIB/PAYROLL.LIB")])
    include = path_file(tmp_path, "include.txt",
                        ["/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/ALONGLIBNAME.LIB"])
    sim = sim_factory()
    r = restore(sim, archive, "-i", include)
    assert r.status == 255
    assert sim.lines() == LOGIN + ["QUIT"]
    assert has_fail(r.err_lines, "ftp", "bad library destination")
    assert has_fail(r.err_lines, "restore", "library restore failed")
    assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x0")
    assert not any(l.startswith("Restored ") for l in r.out_lines)


def test_release_v5r3m0_makes_parents_with_mkd(source, sim_factory, tmp_path):
    archive = tmp_path / "v5r3.ctar"
    ctarlib.write_archive(archive, [source.entry("/home/bob"), source.entry(LONG)])
    include = path_file(tmp_path, "include.txt", ["/home/bob :: /new/place/bob", LONG])
    sim = sim_factory(config={"release": "V5R3M0"})
    r = restore(sim, archive, "-i", include)
    assert r.status == 0, r.err
    after_stor = []
    for line in sim.lines()[len(LOGIN):]:
        if line.startswith(("MKD ", "RCMD RST ")):
            after_stor.append(line)
    parts = LONG.split("/")[1:]
    assert after_stor == [
        "MKD /new", "MKD /new/place", rst("/home/bob", "/new/place/bob", release_v5r4=False)] + [
        "MKD /" + "/".join(parts[:n]) for n in range(1, len(parts))] + [
        rst(LONG, release_v5r4=False)]
    digest = simlib.tree_digest(sim.root)
    assert "new/place/bob/report.csv" in digest
    assert LONG.lstrip("/") + "/leaf.txt" in digest


# --- failures


def test_a_failed_entry_counts_only_when_it_is_the_last(source, sim_factory, tmp_path):
    bad = Entry("/QSYS.LIB/BAD.LIB", b"not a save file" * 100, directory=True)
    good = source.entry("/home/bob")
    sim = sim_factory()

    archive = tmp_path / "bad-good.ctar"
    ctarlib.write_archive(archive, [bad, good])
    r = restore(sim, archive)
    assert r.status == 0, r.err
    assert has_fail(r.err_lines, "ftp", "RSTLIB command failed")
    assert "  550 CPF3743 Save file SAVTEMP in QTEMP contains data that cannot be restored." \
        in r.err_lines
    assert has_fail(r.err_lines, "restore", "library restore failed")
    assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x0")
    assert "Restore Success: /home/bob" in r.out_lines
    assert any(l.startswith("Restored ") for l in r.out_lines)

    archive = tmp_path / "good-bad.ctar"
    entries = [good, bad]
    ctarlib.write_archive(archive, entries)
    r = restore(sim, archive)
    assert r.status == 255
    offset = ctarlib.entry_offsets(entries)[1]
    assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x%X" % offset)
    assert not any(l.startswith("Restored ") for l in r.out_lines)


def test_sentinel_only_archive_restores_nothing_and_succeeds(sim_factory, tmp_path):
    archive = tmp_path / "empty.ctar"
    ctarlib.write_archive(archive, [])
    sim = sim_factory()
    r = restore(sim, archive)
    assert r.status == 0, r.err
    assert sim.lines() == LOGIN + ["QUIT"]
    assert any(re.fullmatch(r"Restored 0\.000 Bs in \d+\.\d{6} seconds", l) for l in r.out_lines)
    assert r.err_lines == []


def test_damaged_archives_end_the_run_but_authorities_still_come_back(source, sim_factory,
                                                                     tmp_path):
    profiles = source.entry("/Security Data")
    first = ctarlib.BLOCK + len(profiles.data) + len(ctarlib.padding(len(profiles.data)))
    sim = sim_factory()

    # A zero block is no end marker.
    archive = tmp_path / "zero.ctar"
    ctarlib.write_archive(archive, [profiles, bytes(512)])
    r = restore(sim, archive)
    assert r.status == 255
    assert "vondral: bad header checksum at offset 0x%X" % first in r.err_lines
    assert restore_commands(sim) == [RSTUSRPRF, RSTAUT]
    assert "Restore Success: /Security Data" in r.out_lines

    # A size field that is not octal digits ended by a NUL.
    archive = tmp_path / "size.ctar"
    ctarlib.write_archive(archive, [ctarlib.header("/home/x", 0, size_bytes=b"0000000012x\0")])
    r = restore(sim, archive)
    assert r.status == 255
    assert has_fail(r.err_lines, "restore", "bad file size at offset 0x0")

    # An archive that ends inside an entry's data.
    archive = tmp_path / "cut.ctar"
    whole = ctarlib.write_archive(archive, [profiles, source.entry("/home/bob")])
    archive.write_bytes(whole[:first + ctarlib.BLOCK + 1000])
    before = len(restore_commands(sim))
    r = restore(sim, archive)
    assert r.status == 255
    assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x%X" % first)
    # The skip of what the upload left runs past the end; the next header
    # is then missing.
    bob = len(source.images["/home/bob"])
    assert has_fail(r.err_lines, "restore", "read short header at offset 0x%X"
                    % (first + ctarlib.BLOCK + bob + len(ctarlib.padding(bob))))
    assert restore_commands(sim)[before:] == [RSTUSRPRF, rst("/home/bob"), RSTAUT]


def test_classified_failure_replies(source, sim_factory, tmp_path):
    archive = tmp_path / "bob.ctar"
    ctarlib.write_archive(archive, [source.entry("/home/bob")])
    partly = "550 CPF3773 5 objects restored. 2 not restored."
    sim = sim_factory(config={"replies": [{"match": "^RCMD RST ", "reply": partly,
                                           "apply": True}]})
    r = restore(sim, archive)
    assert r.status == 0, r.err
    assert has_fail(r.err_lines, "ftp", "RST command failed")
    assert "  " + partly in r.err_lines
    assert not any(l.startswith("Restore Success") for l in r.out_lines)
    assert any(l.startswith("Restored ") for l in r.out_lines)

    # The count stands behind an earlier 'o': the reply is not understood.
    job_log = "550 CPF3773 See job log. 5 objects restored."
    sim = sim_factory(config={"replies": [{"match": "^RCMD RST ", "reply": job_log}]})
    r = restore(sim, archive)
    assert r.status == 255
    assert "  " + job_log in r.err_lines
    assert has_fail(r.err_lines, "restore", "IFS object restore failed")


def test_sigterm_lets_the_entry_finish_and_restores_authorities(source, sim_factory, tmp_path):
    archive = tmp_path / "term.ctar"
    ctarlib.write_archive(archive, [source.entry("/Security Data"), source.entry("/home/alice"),
                                    source.entry("/home/bob")])
    sim = sim_factory(config={"faults": [{"match": "^RCMD RST ", "action": "delay",
                                          "seconds": 1.5}]})
    proc = subprocess.Popen([simlib.vondral_bin(), "-s", sim.addr, "-c", creds(), "-r", archive],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    deadline = time.monotonic() + 20
    while not any(c.startswith("RCMD RST ") for c in sim.lines()):
        assert time.monotonic() < deadline and proc.poll() is None
        time.sleep(0.02)
    proc.send_signal(signal.SIGTERM)
    proc.stdout, proc.stderr = proc.communicate(timeout=30)
    r = Run(proc)
    assert r.status == 143
    assert has_fail(r.err_lines, "restore", "Restore Terminated Cleanly")
    assert "Restore Success: /home/alice" in r.out_lines
    assert "Archive  : /home/bob" not in r.out_lines
    assert restore_commands(sim) == [RSTUSRPRF, rst("/home/alice"), RSTAUT]
    assert "home/alice/big.bin" in simlib.tree_digest(sim.root)


# --- broken control connections


def test_broken_connection_during_the_settings_repeats_them(source, sim_factory, tmp_path):
    archive = tmp_path / "bob.ctar"
    ctarlib.write_archive(archive, [source.entry("/home/bob")])
    sim = sim_factory(config={"faults": [{"match": "^TYPE I", "nth": 1, "action": "close"}]})
    r = restore(sim, archive)
    assert r.status == 0, r.err
    assert has_fail(r.err_lines, "ftp", "recovering checkpoint")
    lines = sim.lines()
    assert lines.count("TYPE I") == 2 and lines.count("STRU F") == 2
    assert lines.count("STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF") == 1
    assert sim.sessions() == [1, 2]
    assert "home/bob/report.csv" in simlib.tree_digest(sim.root)


def test_broken_connection_during_or_after_stor_fails_the_entry(source, sim_factory, tmp_path):
    entries = [source.entry("/home/alice"), source.entry("/QDLS"), source.entry("/home/bob")]
    archive = tmp_path / "three.ctar"
    ctarlib.write_archive(archive, entries)
    sim = sim_factory(config={"faults": [
        {"match": "^STOR ", "nth": 1, "action": "close"},
        {"match": "^STOR ", "nth": 2, "action": "close_after_data"}]})
    r = restore(sim, archive)
    assert r.status == 0, r.err
    offsets = ctarlib.entry_offsets(entries)
    assert has_fail(r.err_lines, "restore", "IFS object restore failed")
    assert has_fail(r.err_lines, "restore", "DL objects restore failed")
    for offset in offsets[:2]:
        assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x%X" % offset)
    # Nothing of the two broken uploads was restored, and the last entry
    # was read from the right place.
    assert restore_commands(sim) == [rst("/home/bob")]
    assert sim.lines().count("STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF") == 3
    digest = simlib.tree_digest(sim.root)
    assert "home/bob/report.csv" in digest and "home/alice" not in digest


def test_an_archive_is_read_wherever_it_lies(sim_factory, tmp_path):
    sim = sim_factory()
    missing = tmp_path / "missing.ctar"
    r = restore(sim, missing)
    assert r.status == 255
    assert has_fail(r.err_lines, "restore", "open(%s): No such file or directory" % missing)
    assert sim.lines() == LOGIN + ["QUIT"]

    # /proc refuses direct I/O; the file is read the ordinary way, and its
    # text is no archive.
    r = restore(sim, "/proc/self/status")
    assert r.status == 255
    assert r.err_lines == ["vondral: bad header checksum at offset 0x0"]

    # A read that fails is reported after the header was judged.
    r = restore(sim, tmp_path)
    assert r.status == 255
    assert r.err_lines[0] == "vondral: bad header checksum at offset 0x0"
    assert re.fullmatch(r"vondral\[restore\.cpp,\d+\]: read\(%s, 0x[0-9A-F]+, 512\): "
                        r"Is a directory" % re.escape(str(tmp_path)), r.err_lines[1])
    assert sim.lines() == (LOGIN + ["QUIT"]) * 3
