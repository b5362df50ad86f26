"""Bad input of every kind must end in a clear message and a clean exit:
never a crash, never a hang."""
import os
import signal

import pytest

from ctarread import read_archive
from vlib import Run, creds, has_fail, vondral

TREE = {
    "data": {"a.txt": "a" * 700, "b.txt": "b" * 1300},
    ".sim": {"security": {"P": "p"}, "config": {"C": "c"}},
}


def assert_clean(r, what):
    """Exited by itself (no signal), with a status the program documents."""
    assert r.status in (0, 1, 2, 255), (what, r.status, r.err[-2000:])
    assert -r.status not in (signal.SIGSEGV, signal.SIGABRT, signal.SIGBUS, signal.SIGFPE)


@pytest.fixture
def small_archive(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    archive = tmp_path / "small.ctar"
    r = vondral("-s", sim.addr, "-c", creds(), "-b", archive, "-m", "0")
    assert r.status == 0, r.err
    assert len(read_archive(archive)) == 4
    sim.stop()
    return archive.read_bytes()


def restore_bytes(sim, tmp_path, data, name="bad.ctar"):
    path = tmp_path / name
    path.write_bytes(data)
    return vondral("-s", sim.addr, "-c", creds(), "-r", path, timeout=60)


def test_a_flipped_bit_in_any_header_byte_is_caught(sim_factory, tmp_path, small_archive):
    sim = sim_factory(tree={".sim": {"security": {}, "config": {}}})
    for offset in range(0, 512, 7):  # a bit in every field, checksum included
        data = bytearray(small_archive)
        data[offset] ^= 1 << (offset % 8)
        r = restore_bytes(sim, tmp_path, bytes(data))
        assert_clean(r, offset)
        assert r.status == 255, offset
        assert "vondral: bad header checksum at offset 0x0" in r.err_lines, (offset, r.err)


def test_truncated_at_every_block_boundary(sim_factory, tmp_path, small_archive):
    sim = sim_factory(tree={".sim": {"security": {}, "config": {}}})
    for end in range(0, len(small_archive), 512):
        r = restore_bytes(sim, tmp_path, small_archive[:end])
        assert_clean(r, end)
        assert r.status == 255, end
        assert any("read short header" in line for line in r.err_lines), (end, r.err)


def test_not_archives(sim_factory, tmp_path):
    sim = sim_factory(tree={".sim": {"security": {}, "config": {}}})
    import io
    import tarfile
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        info = tarfile.TarInfo("hello.txt")
        info.size = 5
        tar.addfile(info, io.BytesIO(b"hello"))
    cases = {"tar": buffer.getvalue(), "empty": b"", "text": b"not an archive\n" * 100,
             "zeros": bytes(4096)}
    for what, data in cases.items():
        r = restore_bytes(sim, tmp_path, data, what)
        assert_clean(r, what)
        assert r.status == 255, what
        assert ("vondral: bad header checksum" in r.err or "read short header" in r.err), what
    (tmp_path / "dir").mkdir()
    r = vondral("-s", sim.addr, "-c", creds(), "-r", tmp_path / "dir")
    assert_clean(r, "directory")
    assert r.status == 255
    r = vondral("-s", sim.addr, "-c", creds(), "-r", tmp_path / "missing")
    assert r.status == 255
    assert has_fail(r.err_lines, "restore",
                    "open(%s): No such file or directory" % (tmp_path / "missing"))


def test_listing_garbage_nul_bytes_and_over_long_lines(sim_factory, tmp_path):
    junk = ["\x00\x00\x00", "drwxr-xr-x" + " x" * 3000, "-rw-r--r-- 1 A B 9 Jan  2  2009 " +
            "n" * 5000, "total 0", "\udcff\udcfe binary", "-rw-r--r-- 1 A B 9 Foo 12 2009 f"]
    sim = sim_factory(tree=TREE, config={"extra_list_lines": {"/data": junk}})
    r = vondral("-s", sim.addr, "-c", creds(), "-b", tmp_path / "a.ctar", "-m", "0")
    assert_clean(r, "listing")
    assert "** Parsing Errors : %d" % len(junk) in r.out_lines, r.out
    assert any("parse errors in directory /data" in line for line in r.err_lines)
    # Both real files were still saved; the errors decide the status.
    assert len(read_archive(tmp_path / "a.ctar")) == 4
    assert r.status == 2


def test_over_long_include_lines_and_bad_credentials(sim_factory, tmp_path):
    sim = sim_factory(tree=TREE)
    inc = tmp_path / "inc"
    inc.write_text("/" + "x" * 9000 + "\n/data\n")
    with open(tmp_path / "list", "w") as out:
        r = vondral("-s", sim.addr, "-c", creds(), "-i", inc, "-l", out.fileno(),
                    pass_fds=(out.fileno(),))
    assert_clean(r, "include")
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
