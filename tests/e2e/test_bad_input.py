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


def restore_bytes(sim, tmp_path, data, name="bad.ctar"):
    path = tmp_path / name
    path.write_bytes(data)
    return restore(sim, path, timeout=60)


def test_a_flipped_bit_in_any_header_byte_is_caught(sim_factory, tmp_path, small_archive):
    sim = sim_factory(tree=EMPTY)
    for offset in range(0, 512, 7):  # a bit in every field, checksum included
        data = bytearray(small_archive)
        data[offset] ^= 1 << (offset % 8)
        r = restore_bytes(sim, tmp_path, bytes(data))
        assert r.status == 255, offset
        assert "vondral: bad header checksum at offset 0x0" in r.err_lines, (offset, r.err)


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
    cases = {"tar": buffer.getvalue(), "empty": b"", "text": b"not an archive\n" * 100,
             "zeros": bytes(4096)}
    for what, data in cases.items():
        r = restore_bytes(sim, tmp_path, data, what)
        assert r.status == 255, what
        assert ("vondral: bad header checksum" in r.err or "read short header" in r.err), what
    # /proc refuses direct I/O; the file is read the ordinary way, and its
    # text is no archive.
    r = restore(sim, "/proc/self/status")
    assert r.status == 255 and r.err_lines == ["vondral: bad header checksum at offset 0x0"]
    # A read that fails is reported after the header was judged.
    r = restore(sim, tmp_path)
    assert r.status == 255
    assert r.err_lines[0] == "vondral: bad header checksum at offset 0x0"
    assert re.fullmatch(r"vondral\[restore\.cpp,\d+\]: read\(%s, 0x[0-9A-F]+, 512\): "
                        r"Is a directory" % re.escape(str(tmp_path)), r.err_lines[1])
    r = restore(sim, tmp_path / "missing")
    assert r.status == 255
    assert has_fail(r.err_lines, "restore",
                    "open(%s): No such file or directory" % (tmp_path / "missing"))
    # Every session was ended; nothing reached the server but the tar
    # file's first entry, whose header is also a valid CTAR header.
    sessions = sim.sessions()
    assert len(sessions) == len(cases) + 3
    assert [sim.lines(s) for s in sessions[1:]] == [LOGIN + ["QUIT"]] * (len(sessions) - 1)


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


def test_over_long_include_lines_and_bad_credentials(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    inc = tmp_path / "inc"
    inc.write_text("/" + "x" * 9000 + "\n/data\n")
    with open(tmp_path / "list", "w") as out:
        r = vondral("-s", sim.addr, "-c", creds(), "-i", inc, "-l", out.fileno(),
                    pass_fds=(out.fileno(),))
    assert r.status == 255  # the over-long pieces cannot be listed
    assert "/data/a.txt" in (tmp_path / "list").read_text().splitlines()
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
