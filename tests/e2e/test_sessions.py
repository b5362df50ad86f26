"""--sessions N: more sessions save the objects of one kind side by side.
The archive holds the same entries with the same bytes as with one session
(in the order they were saved), every failure still counts, and a session
that cannot log in leaves its share to the others."""
import re

import pytest

import simlib
from ctarread import read_archive
from vlib import after, backup, restore

FILES = 14
TREE = {"data": {"f%02d.txt" % i: "z" * (700 * i + 3) for i in range(FILES)}}
INCLUDE = "/data/*\n"
NO_SPECIALS = "/Security Data\n/System Configuration\n"


def names(path):
    return sorted(e.name for e in read_archive(path))


def restores_to_the_source(sim_factory, source, archive):
    """The archive, restored into an empty server, gives the source's /data."""
    target = sim_factory()
    r = restore(target, archive)
    assert r.status == 0, r.err
    assert simlib.compare_trees(source.root / "data", target.root / "data") == []


def saving_sessions(sim):
    """The sessions that ran a save of /data, and how many each ran."""
    counts = {}
    for c in sim.commands():
        if re.match(r"RCMD SAV .*/data/", c["cmd"]):
            counts[c["session"]] = counts.get(c["session"], 0) + 1
    return counts


@pytest.fixture
def one_session(sim_factory, tmp_path):
    """The entries a single session's archive holds, for comparison."""
    sim = sim_factory(tree=TREE)
    (tmp_path / "one").mkdir()
    r = backup(sim, tmp_path / "one", include=INCLUDE, exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    return names(r.archive)


@pytest.mark.parametrize("sessions, used", [(2, 2), (4, 4), (16, 14)])
def test_more_sessions_save_the_same_entries(one_session, sim_factory, tmp_path, sessions, used):
    sim = sim_factory(tree=TREE)
    r = backup(sim, tmp_path, "--sessions", sessions, include=INCLUDE, exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    assert names(r.archive) == one_session
    restores_to_the_source(sim_factory, sim, r.archive)
    # As many sessions as asked for log in beside the main one (never more
    # than there are objects), and the saves were shared among them; a late
    # one may find nothing left to take.
    logged_in = {c["session"] for c in sim.commands() if c["cmd"].startswith("PASS ")}
    assert len(logged_in) == 1 + used
    counts = saving_sessions(sim)
    assert 2 <= len(counts) <= used and sum(counts.values()) == FILES, counts
    assert sorted(after("Backup Success: ", r.out_lines)) == sorted("/data/f%02d.txt" % i for i in range(FILES))
    assert sorted(r.catalog) == sorted(after("Backup Success: ", r.out_lines))


def test_every_failure_counts_whichever_session_had_it(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE, config={"replies": [
        {"match": r"RCMD SAV .*f0[37]\.txt", "reply": "550 CPF3781 Object not found."}]})
    r = backup(sim, tmp_path, "--sessions", 3, include=INCLUDE, exclude=NO_SPECIALS)
    assert r.status == 2  # 2 of 14 is more than one in ten
    assert sorted(after("Backup Failure: ", r.err_lines)) == ["/data/f03.txt", "/data/f07.txt"]
    assert sorted(r.notbackedup) == ["/data/f03.txt", "/data/f07.txt"]
    assert "** Total Objects Attempted: %d" % FILES in r.out_lines
    assert "** Total Objects Failed   : 2" in r.out_lines
    assert len(names(r.archive)) == FILES - 2


def test_a_session_refused_at_login_leaves_its_share_to_the_others(one_session, sim_factory, tmp_path):
    # The main session and the /data worker log in; the three extra
    # sessions of the kind are refused.
    sim = sim_factory(tree=TREE, config={"refuse_logins_after": 2})
    r = backup(sim, tmp_path, "--sessions", 4, include=INCLUDE, exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    assert names(r.archive) == one_session
    restores_to_the_source(sim_factory, sim, r.archive)
    assert len(saving_sessions(sim)) == 1
    refused = [l for l in r.err_lines if re.search(r"vondral\[backup\.cpp,\d+\]: extra session: login failed$", l)]
    assert len(refused) == 3, r.err_lines



def paced_backup(sim_factory, tmp_path, tree, rate):
    """A backup of tree with two sessions whose first retrieval is paced
    at rate bytes per second: every entry is in the archive. Returns the
    commands the server received and the index of the paced RETR."""
    sim = sim_factory(tree=tree, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": "pace_data", "bytes_per_second": rate}]})
    r = backup(sim, tmp_path, "--sessions", 2, include=INCLUDE, exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    assert len(read_archive(r.archive)) == len(tree["data"])
    commands = sim.commands()
    return commands, next(i for i, c in enumerate(commands) if c["cmd"].startswith("RETR "))



def test_a_session_retrieves_while_another_holds_the_archive(sim_factory, tmp_path):
    # The first retrieval is paced to take about two seconds, holding the
    # archive all that time; yet the other session's save, PASV and RETR
    # go ahead, and only its data waits for the archive. Were the archive
    # taken before the RETR, no other session's RETR could come before the
    # paced retrieval's entry is closed.
    tree = {"data": {"big.dat": "b" * 60000, **{"f%d.txt" % i: "s" * 900 for i in range(5)}}}
    sim = sim_factory(tree=tree, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": "pace_data", "bytes_per_second": 40000}]})
    r = backup(sim, tmp_path, "--sessions", 2, include=INCLUDE, exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    restores_to_the_source(sim_factory, sim, r.archive)
    commands = sim.commands()
    paced = next(i for i, c in enumerate(commands) if c["cmd"].startswith("RETR "))
    owner, began = commands[paced]["session"], commands[paced]["t"]
    ended = next(c["t"] for c in commands[paced + 1:] if c["session"] == owner)
    assert ended - began > 1.0, "the paced retrieval was not slow"
    early = [c for c in commands if c["session"] != owner and c["cmd"].startswith("RETR ")
             and began < c["t"] < ended - 0.5]
    assert early, [(c["session"], c["cmd"], round(c["t"] - began, 2)) for c in commands[paced:]]
