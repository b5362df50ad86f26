"""What `make bench` takes from the simulator: prebuilt save images served
with sendfile (`large_saves`), listings of objects that exist nowhere else
(`synthetic_listings`), and the client's way through them, byte for byte."""

import io
import os
import re
import tarfile

from ctarread import read_archive
from simlib import cl_path, savf
from vlib import creds, treewalk, vondral

SIZE = 3 * (1 << 20) + 512  # a few of the restore's read-ahead stretches


def save_large(f, name, create=True):
    """A save of /bench/big into QTEMP/name: the bytes RETR serves then."""
    if create:
        f.sendcmd("RCMD CRTSAVF FILE(QTEMP/%s)" % name)
    r = f.sendcmd("RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/%s.FILE') OBJ((%s))"
                  % (name, cl_path("/bench/big")))
    assert r.startswith("250 1 objects saved"), r
    buf = io.BytesIO()
    f.retrbinary("RETR " + savf(name), buf.write, blocksize=1 << 20)
    return buf.getvalue()


def big_server(sim_factory):
    sim = sim_factory(config={"large_saves": {"/bench/big": SIZE}}, tree={"bench": {}})
    # the object must exist for a listing to show it; a hole of its size will do
    with open(sim.root / "bench" / "big", "wb") as f:
        f.truncate(SIZE)
    return sim


def test_large_save_is_a_well_formed_image_that_stays_intact(sim_factory):
    f = big_server(sim_factory).ftp()
    image = save_large(f, "SAV1")
    assert len(image) == SIZE
    with tarfile.open(fileobj=io.BytesIO(image)) as t:
        assert t.getnames() == ["manifest.json", "o"] and t.getmember("o").size > SIZE - 4096
        assert b'"placeholder": true' in t.extractfile("manifest.json").read()
    # Every save links the one prebuilt image; clearing or storing must not reach it.
    f.sendcmd("RCMD CLRSAVF FILE(QTEMP/SAV1)")
    assert save_large(f, "SAV1", create=False) == image
    f.storbinary("STOR " + savf("SAV1"), io.BytesIO(b"x" * 1000))
    assert save_large(f, "SAV2") == image
    f.quit()


def test_the_walk_finds_every_synthetic_object(sim_factory, tmp_path):
    sim = sim_factory(config={"synthetic_listings": {"/walk": 3001}})
    (tmp_path / "include.txt").write_text("/walk\n")
    w = treewalk(sim, "-i", tmp_path / "include.txt")
    assert w.status == 0 and w.summary["errors"] == "0", w.err
    assert sorted(d for d in w.dirs if d) == ["/walk"] + ["/walk/D%06d" % i for i in range(4)]
    assert len([p for p in w.files if p.startswith("/walk/")]) == 3001
    # k = 1000 to a directory, the last one the rest
    assert [p for p in w.files if p.startswith("/walk/D000003/")] == [
        "/walk/D000003/OBJ0000000.DAT"]


def test_backup_and_restore_of_a_large_save_move_the_same_bytes(sim_factory, tmp_path):
    sim = big_server(sim_factory)
    f = sim.ftp()
    image = save_large(f, "SAV1")
    f.quit()
    (tmp_path / "inc").write_text("/bench/big\n")
    (tmp_path / "exc").write_text("/Security Data\n/System Configuration\n")
    archive = tmp_path / "big.ctar"
    r = vondral("-s", sim.addr, "-c", creds(), "-b", archive, "-i", tmp_path / "inc",
                "-e", tmp_path / "exc", "-v2")
    assert r.status == 0, r.err
    # the line the bench takes the transfer time from
    assert any(re.fullmatch(r"Xfer: +[\d.]+ s [\d.]+ [ KMG]?B/s", l) for l in r.out_lines), r.out
    assert [(e.name, e.size) for e in read_archive(archive)] == [("/bench/big", SIZE)]
    data = archive.read_bytes()
    assert data[512:512 + SIZE] == image and len(data) == 512 + SIZE + 512
    # The server parses the uploaded image before it restores it (as a sparse
    # file), so a byte out of place, read ahead from file or pipe, fails it.
    size = tarfile.open(fileobj=io.BytesIO(image)).getmember("o").size
    target = big_server(sim_factory)
    big = target.root / "bench" / "big"
    for source, piped in ((archive, None), ("-", data)):
        os.unlink(big)
        r = vondral("-s", target.addr, "-c", creds(), "-r", source, "-i", tmp_path / "inc",
                    input=piped)
        assert r.status == 0, (source, r.err)
        st = os.stat(big)
        assert st.st_size == size and st.st_blocks * 512 < size, source
