"""List mode: the objects directly under each include path, one per line."""
import os

import pytest

from simlib import File
from vlib import creds, has_fail, vondral

TREE = {
    "home": {"alice": {"notes.txt": "x"}, "bob": {}, "readme": "r"},
    "QSYS.LIB": {"PAYROLL.LIB": {"EMP.FILE": "e"}, "SALES.LIB": {}, "JOE.USRPRF": "p",
                 "QGPL.LIB": {}},
    "QDLS": {"FOLDER1": {}},
    "etc": {"motd": "hello"},
    ".sim": {"security": {"QSECOFR": "s"}, "config": {}},
}


def run_list(sim, tmp_path, *args, include=None):
    out = tmp_path / "list.out"
    extra = []
    if include is not None:
        inc = tmp_path / "include.txt"
        inc.write_text(include)
        extra = ["-i", inc]
    with open(out, "w") as f:
        r = vondral("-s", sim.addr, "-c", creds(), "-l", str(f.fileno()), *extra, *args,
                    pass_fds=(f.fileno(),))
    return r, out.read_text().splitlines()


def test_root_is_listed_with_one_leading_slash_and_directories_marked(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    r, lines = run_list(sim, tmp_path)
    assert r.status == 0, r.err
    assert sorted(lines) == ["/QDLS/", "/QSYS.LIB/", "/etc/", "/home/"]
    lists = [c for c in sim.lines() if c.startswith("LIST")]
    assert lists == ["LIST /"]


def test_libraries_only_under_qsys_lib_and_no_doubled_slash(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    r, lines = run_list(sim, tmp_path, "-v1", include="/QSYS.LIB\n/home/\n")
    assert r.status == 0, r.err
    assert lines == ["/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/QGPL.LIB", "/QSYS.LIB/SALES.LIB",
                     "/home/alice/", "/home/bob/", "/home/readme"]
    assert "vondral: ignoring non-library JOE.USRPRF under /QSYS.LIB" in r.err_lines
    # The set-up is sent once; the second listing sends only PASV and LIST.
    cmds = [c for c in sim.lines() if not c.startswith(("USER", "PASS", "CWD", "SYST", "TIME"))]
    assert cmds == ["STRU F", "MODE S", "TYPE A", "SITE LISTFMT 1", "SITE NAMEFMT 1", "PASV",
                    "LIST /QSYS.LIB", "PASV", "LIST /home/", "QUIT"]


def test_a_line_split_across_two_data_blocks_is_printed_once(sim_factory, tmp_path):
    # Well over one 64 KiB transfer block, so some line straddles the boundary.
    names = ["file-%04d-%s" % (i, "x" * 60) for i in range(1500)]
    sim = sim_factory(tree={"big": {n: "" for n in names}})
    r, lines = run_list(sim, tmp_path, include="/big\n")
    assert r.status == 0, r.err
    assert lines == ["/big/" + n for n in sorted(names)]


def test_failed_listing_does_not_stop_the_others(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE, config={"cpf3caa_paths": ["/home"]})
    r, lines = run_list(sim, tmp_path, include="/home\n/etc\n")
    assert r.status == 255
    assert lines == ["/etc/motd"]
    assert has_fail(r.err_lines, "ftp", "LIST command failed")
    assert any("CPF3CAA" in line for line in r.err_lines)
    assert has_fail(r.err_lines, "vondral", "list failed")


def test_empty_include_file_is_refused(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    r, lines = run_list(sim, tmp_path, include="")
    assert r.status == 255
    assert "vondral: empty include list" in r.err_lines
    assert lines == []


def split_listing(at):
    """Listing lines for extra_list_lines whose bytes (each line and its
    CR LF) put a line's CR at offset `at`, its LF at `at` + 1."""
    lines, used, i = [], 0, 0
    while True:
        line = "-rw-r--r--   1 QSYS     0             10 Jan  2  2009 f%05d" % i
        if used + len(line) + 2 > at - 80:
            break
        lines.append(line)
        used += len(line) + 2
        i += 1
    last = "-rw-r--r--   1 QSYS     0             10 Jan  2  2009 "
    lines.append(last + "z" * (at - used - len(last)))
    assert used + len(lines[-1]) == at
    return lines


@pytest.mark.parametrize("boundary", [65536 - 1, 2 * 65536 - 1])
def test_a_line_end_split_across_two_data_blocks_is_one_line_end(sim_factory, tmp_path,
                                                                   boundary):
    # The server's listing of an empty directory is exactly these lines, so
    # the CR of one falls on the last byte of a 64 KiB block and its LF on
    # the first byte of the next, followed by one more line.
    lines = split_listing(boundary)
    tail = "drwxr-xr-x   2 QSYS     0           8192 Mar  5 14:07 after"
    sim = sim_factory(tree={"big": {}}, config={"extra_list_lines": {"/big": lines + [tail]}})
    r, out = run_list(sim, tmp_path, include="/big\n")
    assert r.status == 0, r.err
    names = [line.rsplit(" ", 1)[1] for line in lines]
    assert out == ["/big/" + n for n in names] + ["/big/after/"]


def test_a_last_line_without_a_line_end_is_listed(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE, config={"unterminated_last_line": ["/home", "/etc"]})
    r, lines = run_list(sim, tmp_path, include="/home\n/etc\n")
    assert r.status == 0, r.err
    assert lines == ["/home/alice/", "/home/bob/", "/home/readme", "/etc/motd"]
