"""Building the include tree against the simulated server: special objects,
wild cards, exclusions, the date cut-off, refused listings and recovery."""
import time

from simlib import Dir, File
from vlib import Run, has_fail, treewalk

OLD = time.time() - 3 * 365 * 86400
TREE = {
    "home": {
        "alice": {"notes.txt": File("n", mtime=OLD), "new.txt": "fresh",
                  "deep": {"x.txt": File("x", mtime=OLD)}},
        "bob": {"b.txt": "b"},
    },
    "QSYS.LIB": {"ABC.LIB": {"F.FILE": File("f", mtime=OLD)}, "ABX.LIB": {},
                 "XYZ.LIB": {"G.FILE": "g"}, "JOE.USRPRF": "p"},
    "QDLS": {"FOLDER": {"D.DOC": "d"}},
    "etc": {"motd": "m"},
    ".sim": {"security": {}, "config": {}},
}
SPECIAL = ["/Security Data", "/System Configuration"]


def write(tmp_path, name, text):
    p = tmp_path / name
    p.write_text(text)
    return p


def test_whole_server_without_include(sim_factory):
    sim = sim_factory(tree=TREE)
    w = treewalk(sim)
    assert w.status == 0, w.err
    assert w.files[-3:] == SPECIAL + ["/QDLS"]
    # Libraries are single objects of the library directory, which is never
    # saved whole; /QDLS is one object of the root.
    assert "/QSYS.LIB/ABC.LIB" in w.files and "/QSYS.LIB/JOE.USRPRF" not in w.files
    assert "/QDLS" in w.files
    assert w.dirs["/QSYS.LIB"]["partial"] == "1"
    assert "/home/alice/deep/x.txt" in w.files
    assert w.dirs["/home"]["count"] == "4"
    # One listing to resolve "/", then one per directory walked.
    assert int(w.summary["calls"]) == 1 + len([d for d in w.dirs if d])


def test_wild_card_library_selection_and_bad_wild_cards(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    inc = write(tmp_path, "inc", "/QSYS.LIB/AB*.LIB\n/home/a*/x\nnoslash\n/QSYS.LIB/NONE*.LIB\n")
    w = treewalk(sim, "-i", inc)
    assert w.status == 0, w.err
    assert w.files == SPECIAL + ["/QSYS.LIB/ABC.LIB", "/QSYS.LIB/ABX.LIB"]
    err = Run.strip(w.err)
    assert has_fail(err, "backup", "wild card error: /home/a*/x")
    assert has_fail(err, "backup", "Invalid object: noslash")
    lists = [c for c in sim.lines() if c.startswith("LIST")]
    assert lists == ["LIST /QSYS.LIB", "LIST /QSYS.LIB"]  # nothing listed for the bad ones


def test_overlapping_include_paths_are_kept_twice(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    inc = write(tmp_path, "inc", "/home\n/home\n")
    w = treewalk(sim, "-i", inc)
    assert w.status == 0, w.err
    assert w.files.count("/home/bob/b.txt") == 2


def test_special_objects_are_excluded_only_by_name(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    inc = write(tmp_path, "inc", "/etc\n")
    exc = write(tmp_path, "exc", "/Security Data\n/home\n")
    w = treewalk(sim, "-i", inc, "-e", exc)
    assert w.status == 0, w.err
    assert sorted(w.files) == ["/System Configuration", "/etc/motd"]


def test_exclusions_below_the_walk_mark_the_directory_partial(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    exc = write(tmp_path, "exc", "/home/alice/deep\n/etc\n")
    w = treewalk(sim, "-e", exc)
    assert w.status == 0, w.err
    assert "/home/alice/deep/x.txt" not in w.files and "/etc/motd" not in w.files
    assert "/etc" not in w.dirs  # a top-level exclude names the root entry
    assert w.dirs["/home/alice"]["partial"] == "1"
    assert w.dirs["/home"]["partial"] == "1"
    assert w.dirs["/home/bob"]["partial"] == "0"


def test_date_drops_old_files_but_never_libraries(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    cutoff = int(time.time() - 86400)
    w = treewalk(sim, "-d", cutoff)
    assert w.status == 0, w.err
    assert "/home/alice/new.txt" in w.files
    assert "/home/alice/notes.txt" not in w.files
    assert "/home/alice/deep/x.txt" not in w.files
    assert w.dirs["/home/alice"]["partial"] == "0"  # dropping by date is not partial
    # Under --date libraries are directories, listed so their contents are dated.
    assert "/QSYS.LIB/ABC.LIB" in w.dirs and "/QSYS.LIB/XYZ.LIB/G.FILE" in w.files
    assert "/QSYS.LIB/ABC.LIB/F.FILE" not in w.files


def test_refused_listing_turns_a_directory_into_one_object_of_its_parent(sim_factory):
    sim = sim_factory(tree=TREE, config={"cpf3caa_paths": ["/home/alice"]})
    w = treewalk(sim)
    assert w.status == 0, w.err
    assert "/home/alice" in w.files
    assert "/home/alice" not in w.dirs  # skipped by the walk from now on
    assert w.dirs["/home"]["partial"] == "1"
    assert not any(c == "LIST /home/alice/deep" for c in sim.lines())


def test_refused_listing_of_the_library_directory_is_fatal_for_it(sim_factory):
    sim = sim_factory(tree=TREE, config={"cpf3caa_paths": ["/QSYS.LIB"]})
    w = treewalk(sim)
    err = Run.strip(w.err)
    assert has_fail(err, "ftp", "/QSYS.LIB is exempt")
    assert has_fail(err, "ftp", "LIST command failed")
    assert has_fail(err, "backup", "list failed")
    assert w.status == 0  # the walk goes on with the other directories
    assert "/home/bob/b.txt" in w.files


def test_garbage_listing_lines_are_counted_and_the_walk_goes_on(sim_factory):
    sim = sim_factory(tree=TREE, config={"extra_list_lines": {"/home/bob": [
        "total 3", "-rw-r--r--   1 QSYS 0 5 Foo 99 2009 junk"]}})
    w = treewalk(sim)
    assert w.status == 0, w.err
    assert w.summary["errors"] == "2"
    assert w.dirs["/home/bob"]["partial"] == "1"
    assert has_fail(Run.strip(w.err), "backup", "2 parse errors in directory /home/bob")
    assert "/etc/motd" in w.files


def test_recovery_during_listing_setup_runs_it_again(sim_factory):
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^TYPE A", "nth": 1, "action": "close"}]})
    w = treewalk(sim)
    assert w.status == 0, w.err
    assert has_fail(Run.strip(w.err), "ftp", "recovering checkpoint")
    assert "/home/bob/b.txt" in w.files
    first, second = sim.lines(1), sim.lines(2)
    assert first[-1] == "TYPE A"
    assert second[5:10] == ["STRU F", "MODE S", "TYPE A", "SITE LISTFMT 1", "SITE NAMEFMT 1"]


def test_recovery_during_list_fails_that_listing_only(sim_factory):
    sim = sim_factory(tree=TREE, config={"faults": [
        {"match": "^LIST /home/bob$", "nth": 1, "action": "close"}]})
    w = treewalk(sim)
    assert w.status == 0, w.err
    err = Run.strip(w.err)
    assert has_fail(err, "ftp", "recovering checkpoint")
    assert has_fail(err, "backup", "list failed")
    assert sum(1 for c in sim.lines() if c == "LIST /home/bob") == 1  # never repeated
    assert "/etc/motd" in w.files
