"""The fault matrix: the control connection dropped at every command of
every protected operation of a backup and of a restore, data connections
broken in mid-transfer, refused re-logins and a stalled transfer. For each
fault the outcome the program promises is checked, and every archive is
read back entry by entry."""
import re

import pytest

import simlib
import os
import subprocess

from ctarread import read_archive
from vlib import backup, creds, has_fail, restore, terminated, vondral

CTAR = os.environ.get("CTAR_BIN") or str(simlib.repo_root() / "build" / "ctar")

TREE = {
    "data": {"a.txt": "a" * 5000, "sub": {"b.txt": "b" * 300}},
    "QSYS.LIB": {"LIB1.LIB": {"F.FILE": "f" * 700}},
    "QDLS": {"FOLDER": {"DOC": "d" * 900}},
    ".sim": {"security": {"QSECOFR": "s"}, "config": {"LIND": "c"}},
}
OBJECTS = ["/Security Data", "/System Configuration", "/QDLS", "/QSYS.LIB/LIB1.LIB", "/data"]
LOGIN = ("USER ", "PASS ", "CWD /", "SYST", "TIME ", "QUIT")
# Commands after which a save or restore can no longer be repeated.
AFTER_POINT_OF_NO_RETURN = ("PASV", "RETR ", "STOR ", "RCMD RST", "MKD ")
SAVED_BY = {"SAVSECDTA": "/Security Data", "SAVCFG": "/System Configuration", "SAVDLO": "/QDLS",
            "SAVLIB": "/QSYS.LIB/LIB1.LIB", "SAV": "/data"}
EMPTY = {".sim": {"security": {}, "config": {}}}
# A file of each object, found on a server only once the object is restored.
MARKERS = {"/data": "data/a.txt", "/QSYS.LIB/LIB1.LIB": "QSYS.LIB/LIB1.LIB/F.FILE",
           "/QDLS": "QDLS/FOLDER/DOC", "/Security Data": ".sim/security/QSECOFR",
           "/System Configuration": ".sim/config/LIND"}

FIGURES = {"faults tried": 0, "survived as promised": 0, "archives verified": 0}


@pytest.fixture(scope="module", autouse=True)
def report_figures(request):
    yield
    request.config.fault_matrix_figures = (
        "fault matrix: %d faults tried, %d survived as promised, %d archives verified"
        % (FIGURES["faults tried"], FIGURES["survived as promised"], FIGURES["archives verified"]))


def verified(archive, **kwargs):
    """The archive's entries, after the program's own verifier and an
    independent reader both found it whole: no hidden entries, an end
    block, nothing behind it."""
    check = subprocess.run([CTAR, "verify", str(archive)], capture_output=True, text=True,
                           timeout=60)
    assert check.returncode == 0, (archive, check.stdout, check.stderr)
    entries = read_archive(archive, **kwargs)
    FIGURES["archives verified"] += 1
    return entries


def all_commands(sim):
    return [(rec["session"], rec["cmd"]) for rec in sim.commands()]


def fault_at(everything, commands, index):
    """A fault plan hitting exactly the index-th of `commands`; the server
    counts matches over all sessions (`everything`, in the order sent)."""
    target = commands[index]
    occurrence = commands[:index + 1].count(target)
    position = [i for i, item in enumerate(everything) if item == target][occurrence - 1]
    nth = [c for _, c in everything[:position + 1]].count(target[1])
    return {"match": "^%s$" % re.escape(target[1]), "nth": nth, "action": "close"}


def owner_of(commands, index):
    """The object whose save the index-th command belongs to: the save
    command that follows it (or precedes it, for PASV and RETR)."""
    session = commands[index][0]
    same = [c for s, c in commands if s == session]
    position = sum(1 for s, _ in commands[:index + 1] if s == session) - 1
    saves = [i for i, c in enumerate(same) if c.startswith("RCMD SAV")]
    after = [i for i in saves if i >= position]
    i = after[0] if after and not same[position].startswith(("PASV", "RETR")) else \
        max(i for i in saves if i <= position)
    return SAVED_BY[same[i].split()[1]]


def test_backup_survives_a_dropped_control_connection_at_every_command(sim_factory, tmp_path):
    baseline_sim = sim_factory(tree=TREE)
    base = backup(baseline_sim, tmp_path, "-x", "no", tag="baseline")
    assert base.status == 0, base.err
    assert sorted(e.name for e in verified(base.archive)) == sorted(OBJECTS)
    everything = all_commands(baseline_sim)
    # The workers' commands, login aside (session 1 only walks the tree).
    commands = [(s, c) for s, c in everything if s != 1 and not c.startswith(LOGIN)]
    assert len(commands) > 25
    for index, (_, command) in enumerate(commands):
        FIGURES["faults tried"] += 1
        sim = sim_factory(tree=TREE, config={"faults": [fault_at(everything, commands, index)]})
        r = backup(sim, tmp_path, "-x", "no", tag="case%d" % index)
        entries = verified(r.archive)
        assert has_fail(r.err_lines, "ftp", "recovering checkpoint"), (command, r.err)
        if command.startswith(AFTER_POINT_OF_NO_RETURN):
            lost = owner_of(commands, index)
            assert r.status == 2, (command, r.err)  # one of five objects
            assert r.notbackedup == [lost], command
            assert sorted(e.name for e in entries) == sorted(set(OBJECTS) - {lost})
        else:
            # Before the point of no return the whole save runs again.
            assert r.status == 0, (command, r.err)
            assert sorted(e.name for e in entries) == sorted(OBJECTS), command
        FIGURES["survived as promised"] += 1
        sim.stop()


def make_archive(sim_factory, tmp_path):
    source = sim_factory(tree=TREE)
    r = backup(source, tmp_path, "-x", "no", tag="source")
    assert r.status == 0, r.err
    source.stop()
    return r.archive, source.root


def restored_objects(root):
    return {name for name, path in MARKERS.items() if (root / path).exists()}


def test_restore_survives_a_dropped_control_connection_at_every_command(sim_factory, tmp_path):
    archive, source_root = make_archive(sim_factory, tmp_path)
    baseline = sim_factory(tree=EMPTY)
    r = restore(baseline, archive)
    assert r.status == 0, r.err
    assert not simlib.compare_trees(source_root, baseline.root)
    everything = all_commands(baseline)
    commands = [(s, c) for s, c in everything if not c.startswith(LOGIN)]
    offsets = {e.name: e.offset for e in verified(archive)}
    order = list(offsets)
    assert commands[-1][1] == "RCMD RSTAUT USRPRF(*ALL)"
    for index, (_, command) in enumerate(commands):
        FIGURES["faults tried"] += 1
        sim = sim_factory(tree=EMPTY, config={"faults": [fault_at(everything, commands, index)]})
        r = restore(sim, archive)
        assert has_fail(r.err_lines, "ftp", "recovering checkpoint"), (command, r.err)
        got = restored_objects(sim.root)
        # Which entry was being restored: count the uploads before the fault
        # (a restore command belongs to the upload before it).
        uploads = sum(1 for _, c in commands[:index] if c.startswith("STOR "))
        entry = None if "RSTAUT" in command else \
            order[uploads - 1 if command.startswith("RCMD RST") else uploads]
        if command.startswith(AFTER_POINT_OF_NO_RETURN) and entry:
            assert got == set(OBJECTS) - {entry}, (command, r.err)
            assert has_fail(r.err_lines, "restore",
                            "failed to restore object at offset 0x%X" % offsets[entry])
            # Read to its end with one entry failed, wherever it stood.
            assert r.status == 1, (command, r.err)
        else:
            assert got == set(OBJECTS), (command, r.err)
            assert r.status == 0, (command, r.err)
        FIGURES["survived as promised"] += 1
        sim.stop()


@pytest.mark.parametrize("action", [{"close_data_after": {"bytes": 3000}},
                                    {"close_data_after": {"bytes": 0}}, "close_after_data"])
def test_a_retrieval_that_does_not_complete_leaves_no_trace(sim_factory, tmp_path, action):
    # Whatever arrived of the save file is cut away again: no partial entry,
    # the old end block stays the end, and every later entry is reachable.
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^RETR", "nth": 2, "action": action}]})
    r = backup(sim, tmp_path, "-x", "no", tag="data")
    assert r.status == 2, r.err
    assert r.notbackedup == ["/System Configuration"]
    assert "Backup Failure: /System Configuration" in r.err_lines
    names = [e.name for e in verified(r.archive)]
    assert sorted(names) == sorted(set(OBJECTS) - {"/System Configuration"})
    FIGURES["survived as promised"] += 1


def test_data_connection_broken_in_mid_restore(sim_factory, tmp_path):
    # The entry fails, the rest of it is skipped, later entries go on.
    FIGURES["faults tried"] += 1
    archive, _ = make_archive(sim_factory, tmp_path)
    target = sim_factory(tree=EMPTY, config={"faults": [
        {"match": "^STOR", "nth": 3, "action": "close_data_after", "bytes": 1000}]})
    r = restore(target, archive)
    order = [e.name for e in verified(archive)]
    assert restored_objects(target.root) == set(OBJECTS) - {order[2]}, r.err
    assert r.status == 1, r.err
    FIGURES["survived as promised"] += 1


def test_refused_relogin_fails_the_object_cleanly(sim_factory, tmp_path):
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={
        "refuse_logins_after": 3,
        "faults": [{"match": "^RCMD SAVDLO", "nth": 1, "action": "close"}]})
    r = backup(sim, tmp_path, "-x", "no", tag="relogin")
    assert has_fail(r.err_lines, "ftp", "can't recover checkpoint"), r.err
    assert "/QDLS" in r.notbackedup
    assert r.status == 2
    verified(r.archive)
    FIGURES["survived as promised"] += 1


@pytest.mark.parametrize("named", ["127.0.0.254", "192.0.2.1"])
def test_a_passive_reply_naming_another_host_moves_no_data_there(sim_factory, tmp_path, named):
    # Only the port of a 227 reply is used: every data connection goes to
    # the server the control connection reached, so the backup and the
    # restore are whole although each reply names a host that is not there.
    FIGURES["faults tried"] += 1
    config = {"pasv_address": named}
    source = sim_factory(tree=TREE, config=config)
    r = backup(source, tmp_path, "-x", "no", "-v4", tag="hostile")
    assert r.status == 0, r.err
    assert "PASV address %s ignored: the data connection goes to %s" % (named, source.addr) in r.out_lines
    assert not [line for line in r.out_lines + r.err_lines if named + ":" in line]
    target = sim_factory(tree=EMPTY, config=config)
    back = restore(target, r.archive)
    assert back.status == 0, back.err
    assert not simlib.compare_trees(source.root, target.root)
    FIGURES["survived as promised"] += 1


GIVEN_UP = "reply longer than 1000 lines or 262144 bytes: connection given up"


@pytest.mark.parametrize("match", ["^PASS ", "^PASV$", "^RCMD SAVDLO"])
def test_a_line_end_split_between_two_sends_is_one_line_end(sim_factory, tmp_path, match):
    # Every reply to the matched command comes as "...\r", a pause, "\n":
    # read as one line at once, never a wait for a poll step (60 s) that
    # fails the command.
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": match, "action": "split_line_end", "seconds": 0.2}]})
    r = backup(sim, tmp_path, "-x", "no", tag="split", timeout=40)
    assert r.status == 0, r.err
    assert not [line for line in r.err_lines if "timedout" in line], r.err
    assert sum(1 for c in sim.lines() if re.search(match, c)) >= 1
    assert sorted(e.name for e in verified(r.archive)) == sorted(OBJECTS)
    FIGURES["survived as promised"] += 1


def test_a_greeting_that_never_ends_is_given_up(sim_factory):
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"endless_greeting": True, "talk_pace": 0})
    r = vondral("-s", sim.addr, "-c", creds(), "-t", timeout=30)
    assert has_fail(r.err_lines, "socket", GIVEN_UP), r.err
    assert has_fail(r.err_lines, "socket", "couldn't open control connection"), r.err
    assert r.status == 255, r.err
    assert sim.lines() == []  # not a word said to it
    FIGURES["survived as promised"] += 1


def test_a_reply_that_never_ends_fails_its_command_like_a_broken_connection(sim_factory, tmp_path):
    # Given up at the bound, the connection goes the way of a dropped one:
    # the session is recovered, the save runs again and the backup is whole.
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"talk_pace": 0, "faults": [
        {"match": "^RCMD SAVDLO", "nth": 1, "action": "endless_reply"}]})
    r = backup(sim, tmp_path, "-x", "no", tag="endless", timeout=60)
    assert has_fail(r.err_lines, "socket", GIVEN_UP), r.err
    assert has_fail(r.err_lines, "ftp", "recovering checkpoint"), r.err
    assert r.status == 0, r.err
    assert sum(1 for c in sim.lines() if c.startswith("RCMD SAVDLO")) == 2
    assert sorted(e.name for e in verified(r.archive)) == sorted(OBJECTS)
    FIGURES["survived as promised"] += 1


@pytest.mark.slow
def test_stalled_data_connection_gives_up_after_the_timeout(sim_factory, tmp_path):
    # One minute of silence with --timeout 1: the transfer is given up (both
    # connections dropped, the session recovered), the object fails, the
    # rest goes on.
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": "stall_data", "bytes": 0}]})
    r = backup(sim, tmp_path, "-x", "no", "-z", "1", tag="stall", timeout=300)
    assert has_fail(r.err_lines, "socket", "poll(): timedout after 60.00s (60.00s)"), r.err
    assert has_fail(r.err_lines, "ftp", "recovering checkpoint"), r.err
    assert r.notbackedup == ["/Security Data"]
    assert len(verified(r.archive)) == 4
    FIGURES["survived as promised"] += 1


@pytest.mark.parametrize("phase", ["^LIST /data$", "^RCMD SAVDLO", "^RETR", "^TYPE I$"])
def test_sigterm_during_a_backup_leaves_whole_entries(sim_factory, tmp_path, phase):
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": phase, "nth": 1, "action": "delay", "seconds": 0.5}]})
    r = terminated(sim, "-b", tmp_path / "term.ctar", when=phase)
    assert r.status == 143, r.err
    assert has_fail(r.err_lines, "backup", "Backup Terminated Cleanly")
    assert "** Backup Complete" not in r.out
    assert not list(tmp_path.glob("term.ctar.partial*"))
    if phase.startswith("^LIST"):
        # Ended during the listing walk: no worker starts, and an archive of
        # nothing is not put in place.
        assert not (tmp_path / "term.ctar").exists()
        assert not any(c.startswith("RCMD SAV") for c in sim.lines())
    else:
        # Every worker ends right after the entry it is on.
        names = [e.name for e in verified(tmp_path / "term.ctar")]
        assert 0 < len(names) <= 5
    FIGURES["survived as promised"] += 1


@pytest.mark.parametrize("phase", ["^STOR", "^RCMD RSTLIB", "^RCMD RSTUSRPRF"])
def test_sigterm_during_a_restore_finishes_the_entry_then_stops(sim_factory, tmp_path, phase):
    FIGURES["faults tried"] += 1
    archive, _ = make_archive(sim_factory, tmp_path)
    sim = sim_factory(tree=EMPTY, config={"faults": [
        {"match": phase, "nth": 1, "action": "delay", "seconds": 0.5}]})
    r = terminated(sim, "-r", archive, when=phase)
    assert r.status == 143, r.err
    assert has_fail(r.err_lines, "restore", "Restore Terminated Cleanly")
    # The entries up to the one being restored, and not one more.
    restored = restored_objects(sim.root)
    current = sum(1 for c in sim.lines() if c.startswith("STOR "))
    assert restored == {e.name for e in read_archive(archive)[:current]}, (r.out, r.err)
    # Authorities follow profiles even on the way out.
    assert ("RCMD RSTAUT USRPRF(*ALL)" in sim.lines()) == ("/Security Data" in restored)
    FIGURES["survived as promised"] += 1
