"""Backups end to end against the simulated server, each archive read back
entry by entry. Broken connections at every step are the business of
test_faults.py; the tests here that ThreadSanitizer runs (tsan-backup)
put several workers under a signal, a broken retrieval and load."""
import os
import re
import subprocess
import time

import pytest

import simlib
from ctarread import read_archive
from simlib import File
from vlib import Run, after, backup, creds, has_fail, terminated

OLD = time.time() - 3 * 365 * 86400
CUTOFF = int(time.time() - 86400)
NO_SPECIALS = "/Security Data\n/System Configuration\n"
SAMPLE = simlib.sample_tree()
DATED = {"data": {"old": {"o.txt": File("o", mtime=OLD)},
                  "new": {"n.txt": "fresh", "o2.txt": File("o", mtime=OLD)}},
         "QSYS.LIB": {"NEWLIB.LIB": {"F.FILE": "f"},
                      "OLDLIB.LIB": {"F.FILE": File("f", mtime=OLD)}}}


def names(r):
    return [e.name for e in read_archive(r.archive)]


def test_whole_server_special_objects_first_then_one_unit_per_kind_object(sim_factory, tmp_path):
    sim = sim_factory(tree=SAMPLE)
    r = backup(sim, tmp_path, "-v2")
    assert r.status == 0, r.err
    entries = read_archive(r.archive)
    assert [e.name for e in entries[:2]] == ["/Security Data", "/System Configuration"]
    kinds = {e.name: e.image()[0]["kind"] for e in entries}
    assert kinds == {"/Security Data": "SECDTA", "/System Configuration": "CFG", "/QDLS": "DLO",
                     "/QSYS.LIB/PAYROLL.LIB": "LIB", "/QSYS.LIB/SALES.LIB": "LIB", "/home": "OBJ"}
    home = next(e for e in entries if e.name == "/home")
    assert home.stored_name == "/home.savf" and home.mode & 0o040000
    # The special objects run alone, first, in the first worker thread.
    success = [(t, line) for t, line in Run.threads(r.out) if line.startswith("Backup Success: ")]
    assert success[:2] == [(1, "Backup Success: /Security Data"),
                           (1, "Backup Success: /System Configuration")]
    # Each worker saves into the save file named by its thread number.
    numbers = {int(n) for c in sim.lines() if c.startswith("RCMD SAV")
               for n in re.findall(r"QTEMP(?:\.LIB)?/SAV(\d+)", c)}
    assert numbers == {t for t, line in success}
    assert "** Total Objects Attempted: 10" in r.out_lines
    assert "** Total Objects Failed   : 0" in r.out_lines
    assert any(re.fullmatch(r"Size: \d+\.\d{3} [ KMG]B", line) for line in r.out_lines)
    # The catalog: every saved file, a directory's subdirectories first.
    assert r.catalog[:2] == ["/Security Data", "/System Configuration"]
    assert [c for c in r.catalog if c.startswith("/home/")] == [
        "/home/alice/a b/it's \"quoted\".txt", "/home/alice/bin.dat",
        "/home/alice/link to notes", "/home/alice/notes.txt", "/home/bob/report.csv"]


@pytest.mark.parametrize("tree, args, include, exclude, saved, sent", [
    (SAMPLE, (), "/QSYS.LIB/PAY*.LIB\n", NO_SPECIALS, ["/QSYS.LIB/PAYROLL.LIB"],
     "RCMD SAVLIB LIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAV1) PRECHK(*YES) UPDHST(*NO) "
     "SAVACT(*SYNCLIB) SAVACTWAIT(120) ACCPTH(*YES)"),
    # The directory is split around what the exclusion leaves out.
    (SAMPLE, (), "/home\n", NO_SPECIALS + "/home/bob\n", ["/home/alice"],
     "OBJ(('\"/home/alice\"'))"),
    # File by file; quotes inside the path are doubled for the CL string.
    (SAMPLE, ("-m", "0"), "/home\n", NO_SPECIALS,
     ["/home/alice/notes.txt", "/home/alice/bin.dat", "/home/alice/link to notes",
      "/home/alice/a b/it's \"quoted\".txt", "/home/alice/a b/empty dir", "/home/bob/report.csv"],
     "OBJ(('\"/home/alice/a b/it''s \"\"quoted\"\".txt\"'))"),
    # Only what changed: a library of old files is left out, a directory
    # with something new is saved whole and the server picks by the date.
    (DATED, ("-d", CUTOFF), None, NO_SPECIALS, ["/QSYS.LIB/NEWLIB.LIB", "/data"],
     " CHGPERIOD(%s)" % time.strftime("'%m/%d/%y' '%H:%M:%S'", time.localtime(CUTOFF))),
], ids=["wild card", "exclude", "file by file", "date"])
def test_what_the_options_choose_is_what_the_archive_holds(sim_factory, tmp_path, tree, args,
                                                           include, exclude, saved, sent):
    sim = sim_factory(tree=tree)
    r = backup(sim, tmp_path, *args, include=include, exclude=exclude)
    assert r.status == 0, r.err
    assert sorted(names(r)) == sorted(saved)
    assert any(sent in c for c in sim.lines() if c.startswith("RCMD SAV")), sim.lines()


def test_without_threading_workers_run_one_after_another(sim_factory, tmp_path):
    sim = sim_factory(tree=SAMPLE)
    assert backup(sim, tmp_path, "-x", "no").status == 0
    workers = [sim.commands_of(s) for s in sim.sessions() if s != 1]
    assert len(workers) == 4
    for a, b in zip(workers, workers[1:]):
        assert a[-1]["cmd"] == "QUIT" and a[-1]["t"] <= b[0]["t"]


@pytest.mark.parametrize("count, failures, status", [(10, 1, 2), (11, 1, 1), (11, 0, 0)])
def test_failed_objects_are_listed_and_decide_the_status(sim_factory, tmp_path, count,
                                                         failures, status):
    # 1 of 10 failed is 10 %: status 2; 1 of 11 is 9 %: status 1.
    replies = [{"match": "f00\\.txt", "reply": "550 CPF3781 Object not found."}] * failures
    sim = sim_factory(tree={"data": {"f%02d.txt" % i: "x" for i in range(count)}},
                      config={"replies": replies})
    r = backup(sim, tmp_path, "-m", "0", include="/data\n", exclude=NO_SPECIALS)
    assert r.status == status, r.out + r.err
    assert len(names(r)) == count - failures
    assert r.notbackedup == ["/data/f00.txt"] * failures
    assert "** Total Objects Failed   : %d" % failures in r.out_lines
    assert ("Backup Failure: /data/f00.txt" in r.err_lines) == bool(failures)
    assert has_fail(r.err_lines, "ftp", "SAV command failed") == bool(failures)


def test_four_workers_never_interleave_entries(sim_factory, tmp_path):
    tree = {
        "ifs": {"d%02d" % i: {"f.bin": os.urandom(3000 + 97 * i)} for i in range(40)},
        "QSYS.LIB": {"L%02d.LIB" % i: {"O.FILE": os.urandom(2000 + 31 * i)} for i in range(30)},
        "QDLS": {"F": {"DOC": os.urandom(70000)}},
        ".sim": {"security": {"A": "a"}, "config": {"B": "b"}},
    }
    sim = sim_factory(tree=tree)
    r = backup(sim, tmp_path, "-m", "0")
    assert r.status == 0, r.err
    entries = read_archive(r.archive)
    assert len(entries) == 2 + 40 + 30 + 1
    for e in entries:
        manifest, members = e.image()
        assert manifest["path"] == e.name or manifest.get("library") in e.name


def test_sigterm_ends_every_worker_after_its_entry(sim_factory, tmp_path):
    # Four workers, each saving file by file, when the signal comes.
    sim = sim_factory(tree={"data": {"f%02d.txt" % i: "x" * 100 for i in range(12)}},
                      config={"faults": [{"match": "^RCMD SAV DEV", "action": "delay",
                                          "seconds": 0.3}]})
    r = terminated(sim, "-b", tmp_path / "t.ctar", "-m", "0", when="^RCMD SAV DEV", count=3)
    assert r.status == 143, r.err
    assert has_fail(r.err_lines, "backup", "Backup Terminated Cleanly")
    assert 0 < len(read_archive(tmp_path / "t.ctar")) < 2 + 12  # whole entries, then the end
    assert "** Backup Complete" not in r.out


def test_recovery_during_retr_cuts_the_entry_back_and_later_entries_stay_reachable(sim_factory,
                                                                                  tmp_path):
    sim = sim_factory(tree=SAMPLE, config={"faults": [
        {"match": "^RETR", "nth": 2, "action": "close_after_data"}]})
    r = backup(sim, tmp_path, "-x", "no")
    assert r.status == 2, r.err  # 1 of 6 failed
    assert has_fail(r.err_lines, "ftp", "recovering checkpoint")
    assert "Backup Failure: /System Configuration" in r.err_lines
    # The data of the broken retrieval is cut away again: every later entry
    # is reachable, and nothing lies behind the end block.
    saved = after("Backup Success: ", r.out_lines)
    assert [e.name for e in read_archive(r.archive)] == saved
    assert len(saved) == 5


@pytest.mark.parametrize("length, fails", [(395, False), (396, True), (450, True)])
def test_a_name_no_entry_header_can_hold_fails_its_object(sim_factory, tmp_path, length, fails):
    # A directory entry's name carries ".savf": 395 + 5 characters still
    # fit the 400 a header holds, one more would be cut and could collide.
    parts, left = [], length - len("/x")
    while left > 0:
        part = min(100, left - 1)
        parts.append("d" * part)
        left -= part + 1
    top = "/" + "/".join(parts)
    name = top + "/x"
    assert len(name) == length
    sim = sim_factory(tree={name.lstrip("/"): {"f.txt": "f"}})
    r = backup(sim, tmp_path, include=name + "\n", exclude=NO_SPECIALS)
    assert (r.status != 0) == fails, r.err
    if fails:
        assert has_fail(r.err_lines, "backup", "path too long")
        assert "Backup Failure: %s" % name in r.err_lines
        assert r.notbackedup == [name]
        assert not r.archive.exists()  # nothing saved, and the run failed
        assert not any(c.startswith("RCMD SAV ") for c in sim.lines())
    else:
        assert names(r) == [name]


def test_failures_of_directory_units_add_up(sim_factory, tmp_path):
    # Two directories saved whole fail (one of them empty), one is saved.
    tree = {"a": {"f1": "1", "f2": "2"}, "b": {}, "c": {"f3": "3"}}
    replies = [{"match": "OBJ\\(\\('\"/(a|b)\"'", "reply": "550 CPF3781 Object not found."}]
    sim = sim_factory(tree=tree, config={"replies": replies})
    r = backup(sim, tmp_path, include="/a\n/b\n/c\n", exclude=NO_SPECIALS)
    assert "** Total Objects Failed   : 3" in r.out_lines, r.out
    assert "** Total Objects Attempted: 4" in r.out_lines, r.out
    assert r.status == 2
    assert sorted(r.notbackedup) == ["/a", "/b"]
    assert names(r) == ["/c"]


@pytest.mark.parametrize("partial, missing, status, lines", [
    (False, False, 0, []),
    (True, False, 1, ["** Total Objects Partial  : 1"]),
    (False, True, 1, []),
])
def test_partial_saves_and_missing_include_paths_are_not_success(sim_factory, tmp_path, partial,
                                                                  missing, status, lines):
    tree = {"data": {"f%02d.txt" % i: "x" for i in range(12)}}
    config = {}
    if partial:
        config["replies"] = [{"match": "f03\\.txt", "apply": True,
                              "reply": "550 CPF3771 12 objects saved. 3 objects not saved.."}]
    include = "/data\n" + ("/nothere\n" if missing else "")
    sim = sim_factory(tree=tree, config=config)
    r = backup(sim, tmp_path, "-m", "0", "-p", "no", include=include, exclude=NO_SPECIALS)
    assert r.status == status, r.out + r.err
    totals = [l for l in r.out_lines if l.startswith("** Total Objects")]
    assert totals[2:] == lines
    assert totals[1] == "** Total Objects Failed   : %d" % (1 if missing else 0)
    assert len(names(r)) == 12  # a partial save keeps its entry
    if partial:
        assert "Backup Success: /data/f03.txt" in r.out_lines
        assert "/data/f03.txt: 3 objects not saved" in r.notbackedup
    if missing:
        assert "Object not found: /nothere" in r.out_lines
        assert "/nothere" in r.notbackedup


def test_the_archive_appears_only_when_whole(sim_factory, tmp_path):
    old = tmp_path / "a.ctar"
    old.write_bytes(b"yesterday's archive")
    os.chmod(old, 0o644)
    # A run that fails (the include list cannot be built) leaves the old
    # archive as it was, and no temporary file.
    broken = sim_factory(tree=SAMPLE, config={"replies": [
        {"match": "^LIST /$", "reply": "550 Specified directory does not exist."}]})
    r = backup(broken, tmp_path, include="/home\n")
    assert r.status == 255, r.err
    assert old.read_bytes() == b"yesterday's archive"
    assert not list(tmp_path.glob("a.ctar.partial*"))
    # A run that ends well replaces it; the new file is private.
    r = backup(sim_factory(tree=SAMPLE), tmp_path)
    assert r.status == 0, r.err
    assert len(names(r)) == 6
    assert os.stat(old).st_mode & 0o777 == 0o600
    assert not list(tmp_path.glob("a.ctar.partial*"))


@pytest.mark.parametrize("leftover", [False, True])
def test_while_the_backup_runs_the_old_archive_stays_and_a_new_name_is_written(sim_factory,
                                                                              tmp_path, leftover):
    old = tmp_path / "a.ctar"
    old.write_bytes(b"yesterday's archive")
    if leftover:
        (tmp_path / "a.ctar.partial").write_bytes(b"a run that died")
    sim = sim_factory(tree=SAMPLE, config={"faults": [
        {"match": "^RETR", "nth": 3, "action": "delay", "seconds": 1}]})
    proc = subprocess.Popen([str(simlib.vondral_bin()), "-s", sim.addr, "-c", creds(), "-x", "no",
                             "-b", str(old)], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        deadline = time.monotonic() + 20
        while sum(1 for c in sim.lines() if c.startswith("RETR")) < 3:
            assert time.monotonic() < deadline and proc.poll() is None
            time.sleep(0.02)
        during = sorted(p.name for p in tmp_path.glob("a.ctar*"))
        assert old.read_bytes() == b"yesterday's archive"
    finally:
        out, err = proc.communicate(timeout=60)
    assert proc.returncode == 0, err
    if leftover:
        assert len(during) == 3 and during[2].startswith("a.ctar.partial.")
        assert (tmp_path / "a.ctar.partial").read_bytes() == b"a run that died"
    else:
        assert during == ["a.ctar", "a.ctar.partial"]
    after_run = sorted(p.name for p in tmp_path.glob("a.ctar*"))
    assert after_run == ["a.ctar"] + (["a.ctar.partial"] if leftover else [])
    assert len(read_archive(old)) == 6


def test_a_last_listing_line_without_a_line_end_is_saved_like_any_other(sim_factory, tmp_path):
    # The last entry of /data (its only file) and of /data/sub arrive
    # without CR LF; both are still found and saved.
    tree = {"data": {"z.txt": "z", "sub": {"y.txt": "y"}}}
    sim = sim_factory(tree=tree, config={"unterminated_last_line": ["/data", "/data/sub"]})
    r = backup(sim, tmp_path, "-m", "0", include="/data\n", exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    assert sorted(names(r)) == ["/data/sub/y.txt", "/data/z.txt"]
    assert "** Parsing Errors" not in r.out


@pytest.mark.parametrize("target_exists", [False, True])
def test_an_archive_behind_a_link_is_made_at_the_links_target(sim_factory, tmp_path, target_exists):
    (tmp_path / "store").mkdir()
    target = tmp_path / "store" / "monday.ctar"
    if target_exists:
        target.write_bytes(b"last week")
    link = tmp_path / "current.ctar"
    os.symlink(os.path.relpath(target, tmp_path), link)
    r = backup(sim_factory(tree=SAMPLE), tmp_path, "-b", link, tag="x")
    assert r.status == 0, r.err
    assert os.path.islink(link) and len(read_archive(target)) == 6


def test_a_line_of_an_include_paths_listing_that_cannot_be_read_is_no_success(sim_factory,
                                                                             tmp_path):
    # The unreadable line may be the very directory the run should save.
    sim = sim_factory(tree={"data": {"a": "a"}}, config={"extra_list_lines": {
        "/": ["drwxr-xr-x   2 QSYS 0 8192 Xyz  5 14:07 hidden"]}})
    r = backup(sim, tmp_path, exclude=NO_SPECIALS)
    assert r.status == 2, r.out + r.err
    assert "** Parsing Errors : 1" in r.out_lines
    assert has_fail(r.err_lines, "backup", "1 parse errors in directory /")
    assert names(r) == ["/data"]


def test_an_unchanged_object_named_by_the_include_file_is_no_failure(sim_factory, tmp_path):
    sim = sim_factory(tree=DATED)
    r = backup(sim, tmp_path, "-d", CUTOFF, include="/data/old/o.txt\n/data/new/n.txt\n",
               exclude=NO_SPECIALS)
    assert r.status == 0, r.out + r.err
    assert not any(line.startswith("Object not found") for line in r.out_lines)
    assert r.notbackedup == []
    assert names(r) == ["/data/new/n.txt"]


def test_a_run_that_saved_nothing_and_failed_keeps_the_old_archive(sim_factory, tmp_path):
    old = tmp_path / "a.ctar"
    old.write_bytes(b"yesterday's archive")
    sim = sim_factory(tree=SAMPLE, config={"replies": [
        {"match": "^RCMD SAV", "reply": "550 CPF3781 Object not found."}]})
    r = backup(sim, tmp_path)
    assert r.status == 2
    assert has_fail(r.err_lines, "backup", "no entry was saved: no archive is made, an existing "
                    "one stays")
    assert old.read_bytes() == b"yesterday's archive"
    assert not list(tmp_path.glob("a.ctar.partial*"))


def test_an_empty_directory_alone_in_its_kind_is_saved(sim_factory, tmp_path):
    sim = sim_factory(tree={"home": {"empty": {}}})
    r = backup(sim, tmp_path, include="/home/empty\n", exclude=NO_SPECIALS)
    assert r.status == 0, r.out + r.err
    assert names(r) == ["/home/empty"]
