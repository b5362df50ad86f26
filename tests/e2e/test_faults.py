"""The fault matrix: the control connection dropped at every command of
every protected operation of a backup and of a restore, data connections
broken in mid-transfer, refused re-logins and a stalled transfer. For each
fault the outcome the program promises is checked, and every archive is
read back entry by entry."""
import re

import pytest

import simlib
from ctarread import read_archive
from vlib import Run, creds, has_fail, vondral

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

FIGURES = {"faults tried": 0, "survived as promised": 0, "archives verified": 0}


@pytest.fixture(scope="module", autouse=True)
def report_figures(request):
    yield
    request.config.fault_matrix_figures = (
        "fault matrix: %d faults tried, %d survived as promised, %d archives verified"
        % (FIGURES["faults tried"], FIGURES["survived as promised"], FIGURES["archives verified"]))


def verified(archive, **kwargs):
    entries = read_archive(archive, **kwargs)
    FIGURES["archives verified"] += 1
    return entries


def backup(sim, tmp_path, tag, *args, timeout=120):
    archive = tmp_path / ("%s.ctar" % tag)
    nbu = tmp_path / ("%s.nbu" % tag)
    with open(nbu, "w") as f:
        r = vondral("-s", sim.addr, "-c", creds(), "-b", archive, "-x", "no", "-n", f.fileno(),
                    *args, pass_fds=(f.fileno(),), timeout=timeout)
    r.archive = archive
    r.notbackedup = Run.strip(nbu.read_text())
    return r


def all_commands(sim):
    return [(rec["session"], rec["cmd"]) for rec in sim.commands()]


def worker_commands(sim):
    """(session, command) of every command the workers sent, login aside."""
    return [(s, c) for s, c in all_commands(sim) if s != 1 and not c.startswith(LOGIN)]


def fault_at(everything, commands, index, action="close"):
    """A fault plan hitting exactly the index-th of `commands`; the server
    counts matches over all sessions (`everything`, in the order sent)."""
    session, command = commands[index]
    occurrence = sum(1 for s, c in commands[:index + 1] if (s, c) == (session, command))
    seen = 0
    for position, item in enumerate(everything):
        if item == (session, command):
            seen += 1
            if seen == occurrence:
                break
    nth = sum(1 for _, c in everything[:position + 1] if c == command)
    return {"match": "^%s$" % re.escape(command), "nth": nth, "action": action}


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
    save = same[i]
    if "SAVSECDTA" in save:
        return "/Security Data"
    if "SAVCFG" in save:
        return "/System Configuration"
    if "SAVDLO" in save:
        return "/QDLS"
    if "SAVLIB" in save:
        return "/QSYS.LIB/LIB1.LIB"
    return "/data"


def test_backup_survives_a_dropped_control_connection_at_every_command(sim_factory, tmp_path):
    baseline_sim = sim_factory(tree=TREE)
    base = backup(baseline_sim, tmp_path, "baseline")
    assert base.status == 0, base.err
    assert sorted(e.name for e in verified(base.archive)) == sorted(OBJECTS)
    commands = worker_commands(baseline_sim)
    everything = all_commands(baseline_sim)
    assert len(commands) > 25
    for index, (_, command) in enumerate(commands):
        FIGURES["faults tried"] += 1
        sim = sim_factory(tree=TREE, config={"faults": [fault_at(everything, commands, index)]})
        r = backup(sim, tmp_path, "case%d" % index)
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
    r = backup(source, tmp_path, "source")
    assert r.status == 0, r.err
    source.stop()
    return r.archive, source.root


def empty_server(sim_factory, config=None):
    return sim_factory(tree={".sim": {"security": {}, "config": {}}}, config=config)


def restore(sim, archive):
    return vondral("-s", sim.addr, "-c", creds(), "-r", archive)


def restored_objects(root):
    found = set()
    for path, name in (("data/a.txt", "/data"), ("QSYS.LIB/LIB1.LIB/F.FILE", "/QSYS.LIB/LIB1.LIB"),
                       ("QDLS/FOLDER/DOC", "/QDLS"), (".sim/security/QSECOFR", "/Security Data"),
                       (".sim/config/LIND", "/System Configuration")):
        if (root / path).exists():
            found.add(name)
    return found


def test_restore_survives_a_dropped_control_connection_at_every_command(sim_factory, tmp_path):
    archive, source_root = make_archive(sim_factory, tmp_path)
    baseline = empty_server(sim_factory)
    r = restore(baseline, archive)
    assert r.status == 0, r.err
    assert not simlib.compare_trees(source_root, baseline.root)
    everything = all_commands(baseline)
    commands = [(s, c) for s, c in everything if not c.startswith(LOGIN)]
    order = [e.name for e in verified(archive)]
    assert commands[-1][1] == "RCMD RSTAUT USRPRF(*ALL)"
    for index, (_, command) in enumerate(commands):
        FIGURES["faults tried"] += 1
        sim = empty_server(sim_factory, {"faults": [fault_at(everything, commands, index)]})
        r = restore(sim, archive)
        assert has_fail(r.err_lines, "ftp", "recovering checkpoint"), (command, r.err)
        got = restored_objects(sim.root)
        # Which entry was being restored: count the uploads before the fault.
        entry = order[sum(1 for _, c in commands[:index] if c.startswith("STOR "))
                      - (1 if command.startswith("RCMD RST") and "RSTAUT" not in command else 0)] \
            if "RSTAUT" not in command else None
        if command.startswith(AFTER_POINT_OF_NO_RETURN) and entry:
            assert got == set(OBJECTS) - {entry}, (command, r.err)
            assert has_fail(r.err_lines, "restore", "failed to restore object at offset 0x%X"
                            % next(e.offset for e in read_archive(archive) if e.name == entry))
            # Only the last entry's outcome decides the result.
            assert r.status == (255 if entry == order[-1] else 0), (command, r.err)
        else:
            assert got == set(OBJECTS), (command, r.err)
            assert r.status == 0, (command, r.err)
        FIGURES["survived as promised"] += 1
        sim.stop()


def test_data_connection_broken_in_mid_transfer(sim_factory, tmp_path):
    # Backup: the entry is completed from what arrived, the object failed.
    FIGURES["faults tried"] += 2
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^RETR", "nth": 5, "action": "close_data_after", "bytes": 3000}]})
    r = backup(sim, tmp_path, "data")
    assert r.status == 2, r.err
    assert r.notbackedup == ["/data"]
    entries = verified(r.archive)
    partial = [e for e in entries if e.name == "/data"]
    assert partial and partial[0].size < 8192
    FIGURES["survived as promised"] += 1
    # Restore: the entry fails, the rest of it is skipped, later entries go on.
    archive, _ = make_archive(sim_factory, tmp_path)
    target = empty_server(sim_factory, {"faults": [
        {"match": "^STOR", "nth": 3, "action": "close_data_after", "bytes": 1000}]})
    r = restore(target, archive)
    order = [e.name for e in verified(archive)]
    assert restored_objects(target.root) == set(OBJECTS) - {order[2]}, r.err
    assert r.status == 0, r.err
    FIGURES["survived as promised"] += 1


def test_refused_relogin_fails_the_object_cleanly(sim_factory, tmp_path):
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={
        "refuse_logins_after": 3,
        "faults": [{"match": "^RCMD SAVDLO", "nth": 1, "action": "close"}]})
    r = backup(sim, tmp_path, "relogin")
    assert has_fail(r.err_lines, "ftp", "can't recover checkpoint"), r.err
    assert "/QDLS" in r.notbackedup
    assert r.status == 2
    verified(r.archive)
    FIGURES["survived as promised"] += 1


@pytest.mark.slow
def test_stalled_data_connection_gives_up_after_the_timeout(sim_factory, tmp_path):
    # One minute of silence with --timeout 1: the transfer is given up (both
    # connections dropped, the session recovered), the object fails, the
    # rest goes on.
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": "stall_data", "bytes": 0}]})
    r = backup(sim, tmp_path, "stall", "-z", "1", timeout=300)
    assert has_fail(r.err_lines, "socket", "poll(): timedout after 60.00s (60.00s)"), r.err
    assert has_fail(r.err_lines, "ftp", "recovering checkpoint"), r.err
    assert r.notbackedup == ["/Security Data"]
    assert len(verified(r.archive)) == 4
    FIGURES["survived as promised"] += 1


def wait_for_command(sim, pattern, deadline=20.0):
    import time
    end = time.time() + deadline
    while time.time() < end:
        if any(re.search(pattern, c) for c in sim.lines()):
            return
        time.sleep(0.02)
    raise AssertionError("the server never saw %s" % pattern)


@pytest.mark.parametrize("phase", ["^LIST /data$", "^RCMD SAVDLO", "^RETR", "^TYPE I$"])
def test_sigterm_during_a_backup_leaves_whole_entries(sim_factory, tmp_path, phase):
    import signal
    import subprocess
    FIGURES["faults tried"] += 1
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": phase, "nth": 1, "action": "delay", "seconds": 0.5}]})
    archive = tmp_path / "term.ctar"
    proc = subprocess.Popen([str(simlib.vondral_bin()), "-s", sim.addr, "-c", creds(), "-b",
                             str(archive)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True)
    wait_for_command(sim, phase)
    proc.send_signal(signal.SIGTERM)
    out, err = proc.communicate(timeout=60)
    assert proc.returncode == 143, (phase, err)
    assert has_fail(Run.strip(err), "backup", "Backup Terminated Cleanly")
    entries = verified(archive)
    # Every worker ends right after the entry it is on; the first worker's
    # second special object is never reached when the signal came early.
    names = [e.name for e in entries]
    assert 0 < len(entries) <= 5
    if phase.startswith("^LIST"):
        assert names[0] == "/Security Data" and "/System Configuration" not in names
    FIGURES["survived as promised"] += 1


@pytest.mark.parametrize("phase", ["^STOR", "^RCMD RSTLIB", "^RCMD RSTUSRPRF"])
def test_sigterm_during_a_restore_finishes_the_entry_then_stops(sim_factory, tmp_path, phase):
    import signal
    import subprocess
    FIGURES["faults tried"] += 1
    archive, _ = make_archive(sim_factory, tmp_path)
    sim = empty_server(sim_factory, {"faults": [
        {"match": phase, "nth": 1, "action": "delay", "seconds": 0.5}]})
    proc = subprocess.Popen([str(simlib.vondral_bin()), "-s", sim.addr, "-c", creds(), "-r",
                             str(archive)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True)
    wait_for_command(sim, phase)
    proc.send_signal(signal.SIGTERM)
    out, err = proc.communicate(timeout=60)
    assert proc.returncode == 143, (phase, err)
    assert has_fail(Run.strip(err), "restore", "Restore Terminated Cleanly")
    restored = restored_objects(sim.root)
    order = [e.name for e in read_archive(archive)]
    # The entries up to the one being restored, and not one more.
    current = sum(1 for c in sim.lines() if c.startswith("STOR "))
    assert restored == set(order[:current]), (phase, out, err)
    # Authorities follow profiles even on the way out.
    assert ("RCMD RSTAUT USRPRF(*ALL)" in sim.lines()) == ("/Security Data" in restored)
    FIGURES["survived as promised"] += 1
