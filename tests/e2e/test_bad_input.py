"""Bad input of every kind must end in a clear message and a clean exit:
never a crash, never a hang. Every case pins the exact status, which a
crash (a negative status) could never give; a hang runs into the time-out
of the run."""
import io
import re
import tarfile

import pytest

from ctarread import read_archive
from vlib import backup, creds, has_fail, restore, vondral

TREE = {
    "data": {"a.txt": "a" * 700, "b.txt": "b" * 1300},
    ".sim": {"security": {"P": "p"}, "config": {"C": "c"}},
}
EMPTY = {".sim": {"security": {}, "config": {}}}
LOGIN = ["USER qsecofr", "PASS secret", "CWD /", "SYST", "TIME 86400 86400"]


@pytest.fixture
def small_archive(sim_factory, tmp_path):
    r = backup(sim_factory(tree=TREE), tmp_path, "-m", "0", tag="small")
    assert r.status == 0, r.err
    assert len(read_archive(r.archive)) == 4
    return r.archive.read_bytes()


def read_archive_bytes(data):
    import tempfile
    with tempfile.NamedTemporaryFile() as f:
        f.write(data)
        f.flush()
        return read_archive(f.name)


def restore_bytes(sim, tmp_path, data, name="bad.ctar"):
    path = tmp_path / name
    path.write_bytes(data)
    return restore(sim, path, timeout=60)


def test_a_flipped_bit_in_any_header_byte_is_caught(sim_factory, tmp_path, small_archive):
    sim = sim_factory(tree=EMPTY)
    second = [e.offset for e in read_archive_bytes(small_archive)][1]
    for offset in range(0, 512, 7):  # a bit in every field, checksum included
        # In the first header: no CTAR archive at all, nothing is sent.
        data = bytearray(small_archive)
        data[offset] ^= 1 << (offset % 8)
        r = restore_bytes(sim, tmp_path, bytes(data))
        assert r.status == 255, offset
        assert r.err_lines == ["vondral: %s: not a CTAR archive: its first block is no CTAR "
                               "header" % (tmp_path / "bad.ctar")], (offset, r.err)
        # In a later header: the entries before it are restored, then the
        # run ends.
        data = bytearray(small_archive)
        data[second + offset] ^= 1 << (offset % 8)
        r = restore_bytes(sim, tmp_path, bytes(data))
        assert r.status == 255, offset
        assert "vondral: bad header checksum at offset 0x%X" % second in r.err_lines, (offset, r.err)
    assert len(sim.sessions()) == len(range(0, 512, 7))


def test_truncated_at_every_block_boundary(sim_factory, tmp_path, small_archive):
    sim = sim_factory(tree=EMPTY)
    for end in range(0, len(small_archive), 512):
        r = restore_bytes(sim, tmp_path, small_archive[:end])
        assert r.status == 255, end
        assert any("read short header" in line for line in r.err_lines), (end, r.err)


def test_not_archives(sim_factory, tmp_path):
    sim = sim_factory(tree=EMPTY)
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        info = tarfile.TarInfo("hello.txt")
        info.size = 5
        tar.addfile(info, io.BytesIO(b"hello"))
    not_ctar = "not a CTAR archive: its first block is no CTAR header"
    cases = {"tar": (buffer.getvalue(), not_ctar),
             "text": (b"not an archive\n" * 100, not_ctar),
             "zeros": (bytes(4096), not_ctar),
             "empty": (b"", None)}
    for what, (data, message) in cases.items():
        r = restore_bytes(sim, tmp_path, data, what)
        assert r.status == 255, what
        if message:
            assert r.err_lines == ["vondral: %s: %s" % (tmp_path / what, message)], what
        else:
            assert has_fail(r.err_lines, "restore", "read short header at offset 0x0"), r.err
    # /proc refuses direct I/O; the file is read the ordinary way, and its
    # text is no archive.
    r = restore(sim, "/proc/self/status")
    assert r.status == 255 and r.err_lines == ["vondral: /proc/self/status: " + not_ctar]
    r = restore(sim, tmp_path)
    assert r.status == 255
    assert len(r.err_lines) == 1 and re.fullmatch(
        r"vondral\[restore\.cpp,\d+\]: read\(%s, 0x[0-9A-F]+, 512\): Is a directory"
        % re.escape(str(tmp_path)), r.err_lines[0]), r.err
    r = restore(sim, tmp_path / "missing")
    assert r.status == 255
    assert has_fail(r.err_lines, "restore",
                    "open(%s): No such file or directory" % (tmp_path / "missing"))
    # Nothing is sent to the server for a file that is no archive: the first
    # block is judged before the login.
    assert sim.sessions() == []


def test_listing_garbage_nul_bytes_and_over_long_lines(sim_factory, tmp_path):
    junk = ["\x00\x00\x00", "drwxr-xr-x" + " x" * 3000, "-rw-r--r-- 1 A B 9 Jan  2  2009 " +
            "n" * 5000, "total 0", "\udcff\udcfe binary", "-rw-r--r-- 1 A B 9 Foo 12 2009 f"]
    sim = sim_factory(tree=TREE, config={"extra_list_lines": {"/data": junk}})
    r = backup(sim, tmp_path, "-m", "0")
    assert "** Parsing Errors : %d" % len(junk) in r.out_lines, r.out
    assert any("parse errors in directory /data" in line for line in r.err_lines)
    # Both real files were still saved; the errors decide the status.
    assert len(read_archive(r.archive)) == 4
    assert r.status == 2


@pytest.mark.parametrize("name", ["../../etc", "../etc/passwd", "a/../../etc/passwd", "x/",
                                  "/etc/passwd"])
def test_listed_names_with_a_slash_are_parse_errors_never_walked_or_saved(sim_factory, tmp_path,
                                                                        name):
    # A hostile listing of /data names things outside it; each such line is
    # an error like any line that cannot be read, and nothing it names is
    # listed, saved or written to the archive or the catalog.
    tree = dict(TREE, etc={"passwd": "root:x:0:0"})
    lines = ["-rw-r--r--   1 QSYS 0 10 Jan  2  2009 " + name,
             "drwxr-xr-x   1 QSYS 0 8192 Jan  2  2009 " + name]
    sim = sim_factory(tree=tree, config={"extra_list_lines": {"/data": lines}})
    r = backup(sim, tmp_path, "-m", "0", include="/data\n")
    for line in lines:
        assert has_fail(r.err_lines, "backup", 'name holds a "/": ' + line), r.err
    assert has_fail(r.err_lines, "backup", "2 parse errors in directory /data"), r.err
    assert "** Parsing Errors : 2" in r.out_lines, r.out
    assert [c for c in sim.lines() if "etc" in c] == []
    assert sorted(e.name for e in read_archive(r.archive)) == [
        "/Security Data", "/System Configuration", "/data/a.txt", "/data/b.txt"]
    assert not [c for c in r.catalog if "etc" in c]
    # The errors decide the status, as for any line that cannot be read.
    assert r.status == 2


def test_over_long_include_lines_and_bad_credentials(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    inc = tmp_path / "inc"
    inc.write_text("/data\n/" + "x" * 9000 + "\n")
    with open(tmp_path / "list", "w") as out:
        r = vondral("-s", sim.addr, "-c", creds(), "-i", inc, "-l", out.fileno(),
                    pass_fds=(out.fileno(),))
    # Refused as a whole before the login: no line can name a server path
    # that long.
    assert r.status == 255
    assert r.err_lines[0] == "vondral: %s, line 2: longer than 4095 characters" % inc
    assert (tmp_path / "list").read_text() == "" and sim.sessions() == []
    empty = tmp_path / "empty.key"
    empty.write_text("")
    r = vondral("-s", sim.addr, "-c", "qsecofr:file:%s" % empty, "-t")
    assert r.status == 255
    assert "vondral: Passphrase truncated to 0 bytes" in r.err_lines
    assert has_fail(r.err_lines, "vondral", "login failed")
    r = vondral("-s", sim.addr, "-c", "qsecofr:file:%s" % tmp_path, "-t")
    assert r.status == 255
    assert r.err_lines[0] == "vondral: read(%s): Is a directory" % tmp_path
    assert r.err_lines[1] == "usage: vondral [ options ]"
