"""The simulator's stand-ins for a large server that `make bench` uses:
prebuilt save images (`large_saves`) and listings of objects that exist
nowhere but in the listing (`synthetic_listings`); and the client's own
path through them: a backup of such an image and its restore, byte for
byte, with the archive read ahead from a file or taken from a pipe.
"""

import ftplib
import io
import os
import subprocess
import tarfile

import simlib
from ctarread import read_archive
from simlib import cl_path, savf
from vlib import creds, treewalk, vondral

SIZE = 3 * (1 << 20) + 512  # a few of the restore's read-ahead stretches


def rcmd(f, cl):
    try:
        return f.sendcmd("RCMD " + cl)
    except ftplib.all_errors as e:
        return str(e)


def retr(f, path):
    buf = io.BytesIO()
    f.retrbinary("RETR " + path, buf.write, blocksize=1 << 20)
    return buf.getvalue()


def save_large(f, name="SAV1", path="/bench/big", create=True):
    if create:
        assert rcmd(f, "CRTSAVF FILE(QTEMP/%s)" % name).startswith("250")
    r = rcmd(f, "SAV DEV('/QSYS.LIB/QTEMP.LIB/%s.FILE') OBJ((%s))"
             % (name, cl_path(path)))
    assert r.startswith("250 1 objects saved"), r
    return retr(f, savf(name))


def big_server(sim_factory, size=SIZE):
    sim = sim_factory(config={"large_saves": {"/bench/big": size}},
                      tree={"bench": {}, ".sim": {"security": {},
                                                  "config": {}}})
    with open(sim.root / "bench" / "big", "wb") as f:
        f.truncate(size)
    return sim


def test_large_save_is_a_well_formed_image_of_the_size_asked(sim_factory):
    sim = big_server(sim_factory)
    f = sim.ftp()
    image = save_large(f)
    assert len(image) == SIZE
    with tarfile.open(fileobj=io.BytesIO(image)) as t:
        members = t.getmembers()
        assert [m.name for m in members] == ["manifest.json", "o"]
        assert b'"placeholder": true' in t.extractfile("manifest.json").read()
        assert members[1].size > SIZE - 4096
    # Clearing, saving again and storing into the linked save file leave
    # the prebuilt image as it was.
    assert rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)").startswith("250")
    assert retr(f, savf("SAV1")) == b""
    assert save_large(f, "SAV1", create=False) == image
    f.storbinary("STOR " + savf("SAV1"), io.BytesIO(b"x" * 1000))
    assert save_large(f, "SAV2") == image
    f.quit()


def test_a_placeholder_image_restores_as_a_sparse_file(sim_factory):
    sim = big_server(sim_factory)
    f = sim.ftp()
    image = save_large(f)
    os.unlink(sim.root / "bench" / "big")
    assert rcmd(f, "CRTSAVF FILE(QTEMP/UP)").startswith("250")
    f.storbinary("STOR " + savf("UP"), io.BytesIO(image), blocksize=1 << 20)
    r = rcmd(f, "RST DEV('/QSYS.LIB/QTEMP.LIB/UP.FILE') OBJ((%s))"
             % cl_path("/bench/big"))
    assert r.startswith("250 1 objects restored"), r
    f.quit()
    st = os.stat(sim.root / "bench" / "big")
    assert st.st_size == tarfile.open(fileobj=io.BytesIO(image)).getmember("o").size
    assert st.st_blocks * 512 < st.st_size


def test_synthetic_listing_shows_directories_then_their_files(sim_factory):
    sim = sim_factory(config={"synthetic_listings": {
        "/walk": {"objects": 2500, "per_directory": 1000}}})
    f = sim.ftp()
    lines = []
    f.retrlines("LIST /", lines.append)
    assert any(line.startswith("d") and line.endswith(" walk") for line in lines)
    dirs = []
    f.retrlines("LIST /walk", dirs.append)
    assert [d.split()[-1] for d in dirs] == ["D000000", "D000001", "D000002"]
    assert all(d.startswith("drwx") for d in dirs)
    files = []
    f.retrlines("LIST /walk/D000002", files.append)
    assert len(files) == 500
    assert files[0].split()[-1] == "OBJ0000000.DAT"
    assert files[-1].split()[-1] == "OBJ0000499.DAT"
    assert all(line.startswith("-rwx") for line in files)
    names = []
    f.retrlines("NLST /walk/D000001", names.append)
    assert names[0] == "OBJ0000000.DAT" and len(names) == 1000
    assert names[-1] == "OBJ0000999.DAT"
    f.quit()


def test_the_walk_finds_every_synthetic_object(sim_factory, tmp_path):
    sim = sim_factory(config={"synthetic_listings": {"/walk": 3001}})
    inc = tmp_path / "include.txt"
    inc.write_text("/walk\n")
    w = treewalk(sim, "-i", inc)
    assert w.status == 0, w.err
    found = [p for p in w.files if p.startswith("/walk/")]
    assert len(found) == 3001
    assert w.summary["errors"] == "0"
    assert w.summary["calls"] == "6"  # / (to find /walk), /walk, its four directories


def test_backup_and_restore_of_a_large_save_move_the_same_bytes(sim_factory, tmp_path):
    sim = big_server(sim_factory)
    f = sim.ftp()
    image = save_large(f)
    f.quit()
    inc = tmp_path / "include.txt"
    inc.write_text("/bench/big\n")
    exc = tmp_path / "exclude.txt"
    exc.write_text("/Security Data\n/System Configuration\n")
    archive = tmp_path / "big.ctar"
    r = vondral("-s", sim.addr, "-c", creds(), "-b", archive, "-i", inc, "-e", exc, "-v2")
    assert r.status == 0, r.err
    assert any(line.startswith("Xfer: ") for line in r.out_lines)
    entries = list(read_archive(archive))
    assert [(e.name, e.size) for e in entries] == [("/bench/big", SIZE)]
    data = archive.read_bytes()
    assert data[512:512 + SIZE] == image
    assert len(data) == 512 + SIZE + 512

    # The upload of a restore carries the entry's bytes, from the file
    # (read ahead) and from a pipe alike.
    target = big_server(sim_factory)
    os.unlink(target.root / "bench" / "big")
    r = vondral("-s", target.addr, "-c", creds(), "-r", archive, "-i", inc, "-v2")
    assert r.status == 0, r.err
    assert any(line.startswith("Transfer : ") for line in r.out_lines)
    # (The server parses the uploaded image before it restores: a byte out
    # of place would fail the restore.)
    assert os.path.getsize(target.root / "bench" / "big") == \
        tarfile.open(fileobj=io.BytesIO(image)).getmember("o").size
    with open(archive, "rb") as source:
        r = subprocess.run([str(simlib.vondral_bin()), "-s", target.addr, "-c", creds(),
                            "-r", "-", "-i", str(inc)],
                           stdin=source, capture_output=True, text=True, timeout=120)
    assert r.returncode == 0, r.stderr
