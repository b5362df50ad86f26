"""Restore mode end to end: archives built by tests/e2e/ctarlib.py from save
images that a simulated server made of a source tree, restored with
`vondral -r` into fresh, empty simulated servers. Broken connections and
SIGTERM during a restore belong to the fault matrix (test_faults.py)."""

import io
import random
import re
import tarfile
from types import SimpleNamespace

import pytest

import ctarlib
import simlib
from ctarlib import Entry
from simlib import File, cl_path, savf
from vlib import after, has_fail, restore

OLD = 1_500_000_000
LONG = "/deep/" + "d" * 60 + "/" + "e" * 60 + "/" + "f" * 60  # 188 characters

# The sample tree with a file larger than the restore reads ahead at once
# and a name that needs the long-name pieces; a user profile outside a
# library is no object a backup saves, so the source holds none.
SOURCE = simlib.sample_tree(now=OLD)
SOURCE["home"]["alice"]["big.bin"] = File(random.Random(6).randbytes(3 << 20), 0o600)
SOURCE[LONG.lstrip("/")] = {"leaf.txt": "deep leaf\n"}
del SOURCE["QSYS.LIB"]["JOE.USRPRF"]

SAVES = {
    **{path: "SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV1.FILE') OBJ((%s)) SUBTREE(*ALL)" % cl_path(path)
       for path in ("/home", "/home/alice", "/home/bob", LONG)},
    "/QSYS.LIB/PAYROLL.LIB": "SAVLIB LIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/QSYS.LIB/SALES.LIB": "SAVLIB LIB(SALES) DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/QDLS": "SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/Security Data": "SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV1)",
    "/System Configuration": "SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV1)",
}

LOGIN = ["USER qsecofr", "PASS secret", "CWD /", "SYST", "TIME 86400 86400"]
STOR = "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF"
RSTAUT = "RCMD RSTAUT USRPRF(*ALL)"
RSTLIB = ("RCMD RSTLIB SAVLIB(%s) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(%s) MBROPT(*ALL) "
          "ALWOBJDIF(*ALL)")
RSTDLO = "RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)"
RSTUSRPRF = "RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)"
RSTCFG = "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)"


@pytest.fixture(scope="module")
def source(tmp_path_factory):
    """A simulated server holding SOURCE, asked once for every save image."""
    if not simlib.in_netns():
        pytest.fail("end-to-end tests must run inside tests/e2e/run_in_netns.sh")
    root = simlib.make_tree(tmp_path_factory.mktemp("source"), SOURCE)
    sim = simlib.Sim(simlib.next_address(), root,
                     state_dir=tmp_path_factory.mktemp("source-sim")).start()
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

    def entry(path, **kwargs):
        """An archive entry holding the save image of path; IFS paths and
        libraries are stored as directories (".savf" names) by default."""
        kwargs.setdefault("directory", not path.startswith("/QDLS")
                          and path not in ("/Security Data", "/System Configuration"))
        return Entry(path, images[path], **kwargs)
    return SimpleNamespace(root=root, images=images, entry=entry)


def path_file(tmp_path, name, lines):
    path = tmp_path / name
    path.write_text("".join(line + "\n" for line in lines))
    return path


def restore_commands(sim):
    return [c for c in sim.lines() if c.startswith("RCMD RST")]


def rst(path, new=None, omit=()):
    """The RST command the client sends for one pair."""
    obj = cl_path(path) + (" *INCLUDE " + cl_path(new) if new else "")
    elements = "(%s)" % obj + "".join(" (%s *OMIT)" % cl_path(o) for o in omit)
    return ("RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(%s) SUBTREE(*ALL) "
            "ALWOBJDIF(*ALL) CRTPRNDIR(*Yes)" % elements)


def every_kind(source):
    return [source.entry("/home"),
            source.entry(LONG, size64=True),  # a long name and the base-64 size form
            source.entry("/QSYS.LIB/PAYROLL.LIB"),
            source.entry("/QSYS.LIB/SALES.LIB", directory=False),
            source.entry("/QDLS"),
            source.entry("/Security Data"),
            source.entry("/System Configuration")]


def test_round_trip_of_every_kind_leaves_identical_trees(source, sim_factory, tmp_path):
    archive = tmp_path / "all.ctar"
    data = ctarlib.write_archive(archive, every_kind(source))
    sim = sim_factory()
    r = restore(sim, archive, "-v2")
    assert r.status == 0, r.err
    assert simlib.compare_trees(source.root, sim.root) == []
    assert r.err_lines == []

    lines = sim.lines()
    assert lines[:5] == LOGIN and lines[-1] == "QUIT"
    # The first restore of the session creates the save file, later ones
    # clear it; the transfer settings go out once.
    savfs = [c.split()[1] for c in lines if c.endswith("SAVF FILE(QTEMP/SAVTEMP)")]
    assert savfs == ["CLRSAVF", "CRTSAVF"] + ["CLRSAVF"] * 6
    assert [c for c in lines if c in ("STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1")] == \
        ["STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1"]
    assert lines.count(STOR) == 7
    # Authorities come back once, after everything else.
    assert restore_commands(sim) == [
        rst("/home"), rst(LONG), RSTLIB % ("PAYROLL", "*SAVLIB"), RSTLIB % ("SALES", "*SAVLIB"),
        RSTDLO, RSTUSRPRF, RSTCFG, RSTAUT]

    out = r.out_lines
    names = ["/home", LONG, "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/SALES.LIB", "/QDLS",
             "/Security Data", "/System Configuration"]
    assert after("Archive  : ", out) == names
    # A library is reported by its name without the ".LIB".
    assert after("Restore Success: ", out) == [n[:-4] if n.endswith(".LIB") else n
                                               for n in names]
    assert any(re.fullmatch(r"Transfer : +\d+\.\d{3} s \d+\.\d{3} [KMG]?B/s", l) for l in out)
    # The whole archive but its sentinel, in units of 1000 bytes.
    size = (len(data) - ctarlib.BLOCK) / 1e6
    restored = [l for l in out if l.startswith("Restored ")]
    assert len(restored) == 1
    assert re.fullmatch(r"Restored %.3f MBs in \d+\.\d{6} seconds" % size, restored[0])


def test_an_archive_of_nothing_but_its_sentinel_restores_nothing(sim_factory, tmp_path):
    archive = tmp_path / "empty.ctar"
    ctarlib.write_archive(archive, [])
    sim = sim_factory()
    r = restore(sim, archive)
    assert r.status == 0 and r.err_lines == [], r.err
    assert sim.lines() == LOGIN + ["QUIT"]
    assert any(re.fullmatch(r"Restored 0\.000 Bs in \d+\.\d{6} seconds", l) for l in r.out_lines)


def test_standard_input_through_a_pipe_gives_the_same_tree(source, sim_factory, tmp_path):
    junk = Entry("/junk", random.Random(7).randbytes(100_001))
    data = ctarlib.archive_bytes([junk] + every_kind(source))
    exclude = path_file(tmp_path, "exclude.txt", ["/junk"])
    sim = sim_factory()
    r = restore(sim, "-", "-e", exclude, input=data)
    assert r.status == 0, r.err
    # The excluded entry was read through without a word about seeking.
    assert r.err_lines == []
    assert simlib.compare_trees(source.root, sim.root) == []
    assert sim.lines().count(STOR) == 7


def test_include_and_exclude_choose_parts_and_new_places(source, sim_factory, tmp_path):
    archive = tmp_path / "a.ctar"
    ctarlib.write_archive(archive, [source.entry(p) for p in (
        "/home/alice", "/home/bob", "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/SALES.LIB", "/QDLS",
        "/Security Data", "/System Configuration")])
    include = path_file(tmp_path, "include.txt", [
        "/home/alice/a b",
        "/home/alice/notes.txt :: /restored/notes.txt",
        "/home/bob :: /restored/bob",
        "/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/PAYTEST.LIB",
        "/QSYS.LIB/*",  # wild cards play no part in a restore
        "/Security Data",
        "/System Configuration",
    ])
    exclude = path_file(tmp_path, "exclude.txt", ["/home/alice/a b/empty dir",
                                                  "/System Configuration"])
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
        RSTUSRPRF,  # named by the include file
        RSTAUT]
    assert sim.lines().count(STOR) == 4
    assert "vondral: /QSYS.LIB/SALES.LIB: not included" in r.err_lines
    assert "vondral: /QDLS: not included" in r.err_lines
    assert "vondral: /System Configuration: excluded" in r.err_lines
    assert after("Object   : ", r.out_lines) == ["/home/alice/a b", "/home/alice/notes.txt",
                                                  "/home/bob"]

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


@pytest.mark.parametrize("lines, restored", [
    # One library under a new name: user profiles and configuration stay as
    # they are on the server.
    (["/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/PAYTEST.LIB"], [RSTLIB % ("PAYROLL", "PAYTEST")]),
    (["/QSYS.LIB/PAYROLL.LIB", "/Security Data"],
     [RSTUSRPRF, RSTLIB % ("PAYROLL", "*SAVLIB"), RSTAUT]),
    (["/System Configuration"], [RSTCFG]),
])
def test_with_an_include_file_profiles_and_configuration_come_back_only_when_named(
        source, sim_factory, tmp_path, lines, restored):
    archive = tmp_path / "a.ctar"
    ctarlib.write_archive(archive, [source.entry(p) for p in (
        "/Security Data", "/System Configuration", "/QSYS.LIB/PAYROLL.LIB")])
    sim = sim_factory()
    r = restore(sim, archive, "-i", path_file(tmp_path, "include.txt", lines), "-v")
    assert r.status == 0, r.err
    assert restore_commands(sim) == restored
    for special in ("/Security Data", "/System Configuration"):
        assert ("vondral: %s: not included" % special in r.err_lines) == (special not in lines)


def test_a_library_the_server_cannot_restore_fails_with_the_servers_reply(sim_factory, tmp_path):
    archive = tmp_path / "bad.ctar"
    ctarlib.write_archive(archive, [Entry("/QSYS.LIB/BAD.LIB", b"not a save file" * 100,
                                          directory=True)])
    r = restore(sim_factory(), archive)
    assert r.status == 1  # read to its end, one entry failed
    assert has_fail(r.err_lines, "ftp", "RSTLIB command failed")
    assert "  550 CPF3743 Save file SAVTEMP in QTEMP contains data that cannot be restored." \
        in r.err_lines
    assert has_fail(r.err_lines, "restore", "library restore failed")
    assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x0")
    assert not any(l.startswith("Restore Success") for l in r.out_lines)


def test_damaged_archives_end_the_run_but_authorities_still_come_back(source, sim_factory,
                                                                     tmp_path):
    profiles, bob = source.entry("/Security Data"), source.entry("/home/bob")
    sim = sim_factory()
    archive = tmp_path / "damaged.ctar"

    # A zero block is no end marker.
    first = ctarlib.entry_offsets([profiles, bytes(512)])[1]
    ctarlib.write_archive(archive, [profiles, bytes(512)])
    r = restore(sim, archive)
    assert r.status == 255
    assert "vondral: bad header checksum at offset 0x%X" % first in r.err_lines
    assert restore_commands(sim) == [RSTUSRPRF, RSTAUT]
    assert "Restore Success: /Security Data" in r.out_lines

    # A size field that is not octal digits ended by a NUL.
    ctarlib.write_archive(archive, [profiles, ctarlib.header("/home/x", 0,
                                                             size_bytes=b"0000000012x\0")])
    r = restore(sim, archive)
    assert r.status == 255
    assert has_fail(r.err_lines, "restore", "bad file size at offset 0x%X" % first)

    # An archive that ends inside an entry's data.
    whole = ctarlib.write_archive(archive, [profiles, bob])
    archive.write_bytes(whole[:first + ctarlib.BLOCK + 1000])
    before = len(restore_commands(sim))
    r = restore(sim, archive)
    assert r.status == 255
    assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x%X" % first)
    # The skip of what the upload left runs past the end; the next header
    # is then missing.
    assert has_fail(r.err_lines, "restore", "read short header at offset 0x%X"
                    % ctarlib.entry_offsets([profiles, bob, b""])[2])
    assert restore_commands(sim)[before:] == [RSTUSRPRF, rst("/home/bob"), RSTAUT]


@pytest.mark.parametrize("failing, status", [(None, 0), (0, 1), (1, 1), (2, 1)])
def test_the_status_counts_every_failed_entry_not_just_the_last(source, sim_factory, tmp_path,
                                                                failing, status):
    # A later success no longer hides an earlier failure.
    entries = [source.entry(p) for p in ("/home/alice", "/home/bob", "/QSYS.LIB/SALES.LIB")]
    if failing is not None:
        bad = entries[failing]
        entries[failing] = Entry(bad.name, b"not a save file" * 40, directory=True)
    archive = tmp_path / "a.ctar"
    ctarlib.write_archive(archive, entries)
    r = restore(sim_factory(), archive)
    assert r.status == status, r.err
    successes = [line for line in r.out_lines if line.startswith("Restore Success: ")]
    assert len(successes) == 3 - (failing is not None), r.out
    # The archive was read to its end either way.
    assert any(line.startswith("Restored ") for line in r.out_lines), r.out


def gnu_tar_bytes():
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.GNU_FORMAT) as tar:
        info = tarfile.TarInfo("o")
        info.size = 5
        tar.addfile(info, io.BytesIO(b"hello"))
    return buffer.getvalue()


@pytest.mark.parametrize("through_stdin", [False, True])
def test_a_tar_file_is_refused_before_anything_is_sent(sim_factory, tmp_path, through_stdin):
    # A tar member's header passes the checksum a restore checks; it must
    # still never be uploaded and restored as a save file.
    data = gnu_tar_bytes()
    path = tmp_path / "x.tar"
    path.write_bytes(data)
    sim = sim_factory()
    if through_stdin:
        r = restore(sim, "-", input=data)
        shown = "-"
    else:
        r = restore(sim, path)
        shown = str(path)
    assert r.status == 255
    assert r.err_lines == ["vondral: %s: not a CTAR archive: its first block is no CTAR header"
                           % shown]
    assert sim.sessions() == []


def test_a_header_behind_a_good_entry_that_no_backup_wrote_ends_the_restore(source, sim_factory,
                                                                           tmp_path):
    bob = source.entry("/home/bob")
    archive = tmp_path / "mixed.ctar"
    ctarlib.write_archive(archive, [bob, gnu_tar_bytes()[:1024]])
    at = ctarlib.entry_offsets([bob, b""])[1]
    r = restore(sim_factory(), archive)
    assert r.status == 255
    assert "Restore Success: /home/bob" in r.out_lines
    assert any(re.fullmatch(r"vondral: bad header at offset 0x%X: its .* is not as a backup "
                            r"writes it" % at, line) for line in r.err_lines), r.err


def test_entries_hidden_behind_the_end_block_are_reported(source, sim_factory, tmp_path):
    # An archive written before failed retrievals were cut back: a partial
    # save file behind the end block, then later entries.
    bob, alice = source.entry("/home/bob"), source.entry("/home/alice")
    visible = ctarlib.archive_bytes([bob])
    hidden = b"\x07" * 1500 + ctarlib.archive_bytes([alice])[512:]
    archive = tmp_path / "hidden.ctar"
    archive.write_bytes(visible + hidden)
    r = restore(sim_factory(), archive)
    assert r.status == 1
    assert "Restore Success: /home/bob" in r.out_lines
    end = len(visible) - 512
    assert ("vondral: %d bytes lie behind the end block at offset 0x%X: entries there were not "
            "restored (ctar salvage recovers them)" % (len(hidden), end)) in r.err_lines


@pytest.mark.parametrize("name, directory, restored_as", [
    ("/home/xfer/PTF.savf", False, "/home/xfer/PTF.savf"),
    ("/a.savfile", False, "/a.savfile"),
    ("/home/d.savf.old", True, "/home/d.savf.old"),
    ("/home/bob", True, "/home/bob"),  # the directory suffix goes again
])
def test_names_are_read_back_as_written(source, sim_factory, tmp_path, name, directory,
                                        restored_as):
    archive = tmp_path / "n.ctar"
    ctarlib.write_archive(archive, [Entry(name, source.images["/home/bob"], directory=directory)])
    sim = sim_factory(tree={"home": {"xfer": {}}})
    restore(sim, archive)
    assert rst(restored_as) in restore_commands(sim), restore_commands(sim)
