"""The ctar tool end to end: on archives written by real backups against the
simulated server, on the same archives damaged on purpose, and on the trace
a broken retrieval leaves. Every archive is also read back by the
independent reader in ctarread.py, so the tool is checked against a second
opinion rather than against itself."""

import json
import os
import re
import stat
import subprocess
import tarfile
import time
from types import SimpleNamespace

import pytest

import ctarlib
import simlib
from ctarread import read_archive
from vlib import after, backup, decoded, restore

KIND = {"/Security Data": "security data", "/System Configuration": "configuration",
        "/QDLS": "documents", "/QSYS.LIB/PAYROLL.LIB": "library",
        "/QSYS.LIB/SALES.LIB": "library", "/home": "IFS"}
LINE = re.compile(r"^(?:0x(?P<offset>[0-9A-F]{10}) )?(?P<kind>IFS|library|documents|"
                  r"security data|configuration) +(?P<size>\d+) "
                  r"(?P<time>\d{4}-\d\d-\d\d \d\d:\d\d) (?P<name>.*)$")

# Exit statuses, as the manual page and --help give them.
WHOLE, DAMAGED, NOT_ARCHIVE, UNREADABLE, NOT_FOUND, USAGE = 0, 1, 2, 3, 5, 64
CTAR = os.environ.get("CTAR_BIN") or str(simlib.repo_root() / "build" / "ctar")


def ctar(*args, stdin=None, data=None, timeout=60):
    """Runs ctar; data (bytes) is fed through a pipe as standard input."""
    proc = subprocess.run([CTAR, *map(str, args)], input=data, stdin=stdin,
                          capture_output=True, timeout=timeout)
    proc.out, proc.err = decoded(proc.stdout), decoded(proc.stderr)
    return proc


def listed(text, prefix=""):
    """The fields of every listing line (of those starting with prefix)."""
    rows = []
    for line in after(prefix, text.splitlines()):
        m = LINE.match(line)
        assert m, line
        rows.append(m.groupdict())
    return rows


def names(text, prefix=""):
    return [row["name"] for row in listed(text, prefix)]


def older_broken_archive(good, broken_entry, blocks=3):
    """The archive that a backup made before failed retrievals were cut
    back left behind when the retrieval of entry `broken_entry` lost its
    control connection after `blocks` blocks of data: the old end block
    stayed, the partial data behind it, and every later retrieval wrote its
    header over the last block before it."""
    data = good.read_bytes()
    entries = read_archive(good)
    ends = [e.offset for e in entries[1:]] + [len(data) - 512]
    before = data[:entries[broken_entry].offset]
    partial = entries[broken_entry].data[:blocks * 512]
    later = data[ends[broken_entry]:]
    return before + ctarlib.sentinel() + partial[:-512] + later


@pytest.fixture(scope="module")
def backups(tmp_path_factory):
    """A whole backup of the sample tree, and the same backup as an older
    client left it when its second retrieval broke after some data."""
    if not simlib.in_netns():
        pytest.fail("end-to-end tests must run inside tests/e2e/run_in_netns.sh")
    b = SimpleNamespace()
    work = tmp_path_factory.mktemp("ctar")
    b.source = simlib.make_tree(work / "source", simlib.sample_tree(now=1_700_000_000))
    sim = simlib.Sim(simlib.next_address(), b.source, {}, state_dir=work / "sim-good").start()
    try:
        b.good_run = backup(sim, work, "-x", "no", tag="good")
    finally:
        sim.stop()
    b.good = b.good_run.archive
    assert b.good_run.status == 0, b.good_run.err
    b.entries = read_archive(b.good)
    assert b.entries[1].name == "/System Configuration" and b.entries[1].size > 3 * 512
    b.broken = work / "broken.ctar"
    b.broken.write_bytes(older_broken_archive(b.good, 1))
    b.broken_later = [e.name for e in b.entries[2:]]
    return b


def written(tmp_path, data, name="damaged.ctar"):
    path = tmp_path / name
    path.write_bytes(data)
    return path


def directory(tmp_path, name):
    path = tmp_path / name
    path.mkdir()
    return path


# --- a whole archive


def test_list_and_verify_agree_with_the_entries_from_file_and_pipe(backups):
    entries = backups.entries
    assert sorted(e.name for e in entries) == sorted(KIND)

    plain = ctar("list", backups.good)
    assert plain.returncode == WHOLE and plain.err == ""
    rows = listed(plain.out)
    assert [(r["name"], int(r["size"]), r["kind"], r["offset"]) for r in rows] == \
        [(e.name, e.size, KIND[e.name], None) for e in entries]
    assert [r["time"] for r in rows] == \
        [time.strftime("%Y-%m-%d %H:%M", time.localtime(e.mtime)) for e in entries]
    verbose = ctar("list", "-v", backups.good).out
    assert [int(r["offset"], 16) for r in listed(verbose)] == [e.offset for e in entries]
    # Standard input through a pipe cannot seek; the listing is the same.
    piped = ctar("list", "-v", "-", data=backups.good.read_bytes())
    assert piped.returncode == WHOLE and piped.out == verbose

    doc = json.loads(ctar("list", "--json", backups.good).out)
    assert doc["whole"] is True and doc["status"] == 0 and doc["problem"] is None
    # A whole directory keeps its ".savf" in the stored name only.
    assert doc["entries"] == [
        {"offset": e.offset, "kind": KIND[e.name], "size": e.size, "mtime": e.mtime,
         "name": e.name, "stored_name": e.stored_name} for e in entries]
    assert "/home.savf" in [d["stored_name"] for d in doc["entries"]]

    r = ctar("verify", "-v", backups.good)
    assert r.returncode == WHOLE, r.out + r.err
    assert names(r.out, "entry: ") == [e.name for e in entries]
    last = r.out.splitlines()[-1]
    assert last.startswith("result: whole: 6 entries, ")
    assert last.endswith("the sentinel at offset 0x%X" % (os.path.getsize(backups.good) - 512))


def test_extract_writes_each_save_file_byte_for_byte(backups, tmp_path):
    every = directory(tmp_path, "every")
    r = ctar("extract", backups.good, "-C", every)
    assert r.returncode == WHOLE, r.err
    files = {"/Security Data": "Security Data.savf",
             "/System Configuration": "System Configuration.savf", "/QDLS": "QDLS.savf",
             "/QSYS.LIB/PAYROLL.LIB": "QSYS.LIB_PAYROLL.LIB.savf",
             "/QSYS.LIB/SALES.LIB": "QSYS.LIB_SALES.LIB.savf", "/home": "home.savf"}
    assert sorted(os.listdir(every)) == sorted(files.values())
    assert r.out.splitlines() == ["%s -> %s" % (e.name, files[e.name]) for e in backups.entries]
    for e in backups.entries:
        path = every / files[e.name]
        assert path.read_bytes() == e.data, e.name
        st = os.stat(path)
        assert stat.S_IMODE(st.st_mode) == 0o600 and int(st.st_mtime) == e.mtime

    # Named entries only, from a pipe; a name that is not there is reported.
    some = directory(tmp_path, "some")
    r = ctar("extract", "-", "/QDLS", "/QSYS.LIB/NOSUCH.LIB", "-C", some,
             data=backups.good.read_bytes())
    assert r.returncode == NOT_FOUND
    assert os.listdir(some) == ["QDLS.savf"]
    assert (some / "QDLS.savf").read_bytes() == (every / "QDLS.savf").read_bytes()
    assert "ctar: /QSYS.LIB/NOSUCH.LIB: not in the archive standard input" in r.err


def test_awkward_names_are_escaped_in_listings_and_made_safe_as_files(tmp_path):
    long_name = "/deep/" + "x" * 390
    entry_names = ["/a\nb", "/x/y", "/x_y", "-rf", "/.profile", "/caf\udce9", long_name]
    entries = [ctarlib.Entry(n, b"%d" % i * 700) for i, n in enumerate(entry_names)]
    archive = tmp_path / "names.ctar"
    ctarlib.write_archive(archive, entries)

    r = ctar("list", archive)
    assert r.returncode == WHOLE
    # A newline in a name must not break the line.
    assert names(r.out) == ["/a\\nb"] + entry_names[1:]
    doc = json.loads(ctar("list", "--json", archive).out)
    # Bytes that are no UTF-8 come out as the characters of the same value.
    assert [d["name"] for d in doc["entries"]] == \
        [n.replace("\udce9", "\u00e9") for n in entry_names]

    out = directory(tmp_path, "out")
    r = ctar("extract", archive, "-C", out)
    assert r.returncode == WHOLE, r.err
    # No name leaves the directory, hides itself or reads as an option;
    # names that come out alike stay apart; a long one is cut to fit.
    files = [b"a_b.savf", b"x_y.savf", b"x_y~2.savf", b"_rf.savf", b"_profile.savf",
             b"caf\xe9.savf", b"deep_" + b"x" * 238 + b".savf"]
    assert sorted(os.listdir(os.fsencode(out))) == sorted(files)
    for entry, file in zip(entries, files):
        assert (out / os.fsdecode(file)).read_bytes() == entry.data
    assert [os.fsencode(l.rsplit(" -> ", 1)[1]) for l in r.out.splitlines()] == files


def test_list_seeks_over_the_data_of_huge_entries(tmp_path):
    """Sparse entries of 40 GiB each: reading their data would take minutes,
    seeking over it takes nothing."""
    big = 40 << 30
    archive = tmp_path / "sparse.ctar"
    offsets = []
    with open(archive, "wb") as f:
        for i in range(3):
            offsets.append(f.tell())
            f.write(ctarlib.header("/QSYS.LIB/BIG%d.LIB" % i, big + i, ctarlib.DIRECTORY))
            f.seek(big + i + len(ctarlib.padding(big + i)), os.SEEK_CUR)  # a hole
        f.write(ctarlib.sentinel())
    start = time.monotonic()
    r = ctar("list", "-v", archive, timeout=20)
    elapsed = time.monotonic() - start
    assert r.returncode == WHOLE, r.err
    assert [(int(x["offset"], 16), int(x["size"])) for x in listed(r.out)] == \
        [(offsets[i], big + i) for i in range(3)]
    assert elapsed < 5, elapsed


# --- damaged archives and bad input


def test_truncated_archives(backups, tmp_path):
    data = backups.good.read_bytes()
    last = backups.entries[-1]

    inside = written(tmp_path, data[:last.offset + 512 + 100], "inside.ctar")
    r = ctar("list", inside)
    assert r.returncode == DAMAGED
    assert len(listed(r.out)) == len(backups.entries)  # the header of the last one is whole
    assert "truncated: the data of %s (header at offset 0x%X" % (last.name, last.offset) in r.err
    doc = json.loads(ctar("list", "--json", inside).out)
    assert doc["whole"] is False and doc["status"] == DAMAGED and "truncated" in doc["problem"]
    r = ctar("verify", inside)
    assert r.returncode == DAMAGED and "damaged: truncated: the data of " + last.name in r.out
    # Extract leaves no half save file behind, but writes the others.
    out = directory(tmp_path, "x")
    assert ctar("extract", inside, "-C", out).returncode == DAMAGED
    assert len(os.listdir(out)) == len(backups.entries) - 1
    r = ctar("salvage", inside, tmp_path / "inside-salvaged.ctar")
    assert r.returncode == DAMAGED  # an entry was lost
    assert "dropped: 0x%010X %d bytes: the truncated entry %s" % (
        last.offset, 612, last.name) in r.out
    assert [e.name for e in read_archive(tmp_path / "inside-salvaged.ctar")] == \
        [e.name for e in backups.entries[:-1]]

    no_end = written(tmp_path, data[:-512], "noend.ctar")
    r = ctar("list", no_end)
    assert r.returncode == DAMAGED and "ends at offset 0x%X without its sentinel" % (
        len(data) - 512) in r.err
    assert ctar("verify", no_end).returncode == DAMAGED
    # Every entry is whole: salvage only adds the sentinel.
    r = ctar("salvage", no_end, tmp_path / "noend-salvaged.ctar")
    assert r.returncode == WHOLE, r.out + r.err
    assert (tmp_path / "noend-salvaged.ctar").read_bytes() == data


def test_flipped_header_bit(backups, tmp_path):
    data = bytearray(backups.good.read_bytes())
    hit = backups.entries[2]
    data[hit.offset + 3] ^= 0x04
    path = written(tmp_path, bytes(data))

    r = ctar("list", path)
    assert r.returncode == DAMAGED
    assert names(r.out) == [e.name for e in backups.entries[:2]]
    assert "bad header checksum at offset 0x%X" % hit.offset in r.err

    r = ctar("verify", path)
    assert r.returncode == DAMAGED
    assert "damaged: bad header checksum at offset 0x%X: a restore stops here" % hit.offset \
        in r.out.splitlines()
    # The entries behind the damaged one are found again by their headers.
    assert names(r.out, "hidden: ") == [e.name for e in backups.entries[3:]]

    out = tmp_path / "salvaged.ctar"
    r = ctar("salvage", path, out)
    assert r.returncode == DAMAGED
    assert "dropped: 0x%010X %d bytes: the entry whose header at 0x%X is damaged" % (
        hit.offset, backups.entries[3].offset - hit.offset, hit.offset) in r.out
    assert [(e.name, e.data) for e in read_archive(out)] == \
        [(e.name, e.data) for e in backups.entries if e is not hit]


def test_verify_checks_the_fields_a_restore_ignores(tmp_path):
    block = bytearray(ctarlib.header("/home/odd", 1000))
    block[265:277] = ctarlib.size_field(999)  # the copy of the size disagrees
    block[148:156] = b"%07o\0" % ctarlib.checksum(block)
    path = tmp_path / "odd.ctar"
    ctarlib.write_archive(path, [ctarlib.Entry("/home/even", b"e" * 10),
                                 bytes(block) + b"o" * 1000 + ctarlib.padding(1000)])
    assert ctar("list", path).returncode == WHOLE  # a restore reads it all the same
    r = ctar("verify", path)
    assert r.returncode == DAMAGED
    assert "damaged: the header of /home/odd at offset 0x400: its size copy is not as a " \
        "backup writes it" in r.out.splitlines()


def test_input_that_is_no_archive(tmp_path):
    text = written(tmp_path, b"not an archive\n" * 100, "notes.txt")
    member = written(tmp_path, b"m" * 3000, "member")
    tar = tmp_path / "real.tar"
    with tarfile.open(tar, "w", format=tarfile.GNU_FORMAT) as t:
        t.add(member, "member")
    empty = written(tmp_path, b"", "empty.ctar")
    folder = directory(tmp_path, "dir.ctar")
    no_header = "not a CTAR archive: its first block is no CTAR header"
    cases = [(text, NOT_ARCHIVE, no_header), (tar, NOT_ARCHIVE, no_header),
             (empty, NOT_ARCHIVE, "empty, not a CTAR archive"),
             (folder, NOT_ARCHIVE, "is a directory, not a CTAR archive"),
             (tmp_path / "missing.ctar", UNREADABLE, "cannot open: No such file or directory")]
    for path, status, message in cases:
        for command in (["list"], ["list", "--json"], ["verify"], ["extract", "-C", tmp_path],
                        ["salvage", tmp_path / "out.ctar"]):
            args = command[:1] + [path] + command[1:]
            r = ctar(*args)
            assert r.returncode == status, (args, r.err)
            assert r.err.splitlines()[-1] == "ctar: %s: %s" % (path, message), args
            if "--json" in command:
                assert json.loads(r.out)["status"] == status
    # Nothing was extracted or salvaged from any of them.
    assert sorted(os.listdir(tmp_path)) == ["dir.ctar", "empty.ctar", "member", "notes.txt",
                                            "real.tar"]


COMPRESSORS = ["gzip", "bzip2", "xz", "zstd"]


def compressed(path, tool):
    """The file at path compressed by the real tool, beside it."""
    out = path.with_name(path.name + "." + tool)
    with open(out, "wb") as f:
        subprocess.run([tool, "-c", str(path)], stdout=f, check=True, timeout=60)
    return out


def decompressed_into_ctar(tool, path, *args):
    """TOOL -dc PATH | ctar ARGS: ctar's result, after the tool's status was
    checked."""
    with subprocess.Popen([tool, "-dc", str(path)], stdout=subprocess.PIPE) as feed:
        r = ctar(*args, stdin=feed.stdout)
        feed.stdout.close()
        assert feed.wait(timeout=60) == 0, tool
    return r


def test_compressed_archives_are_named_with_the_way_to_decompress_them(tmp_path):
    archive = tmp_path / "small.ctar"
    ctarlib.write_archive(archive, [ctarlib.Entry("/QDLS", b"d" * 3000),
                                    ctarlib.Entry("/home", b"h" * 700, directory=True)])
    out = directory(tmp_path, "out")
    for tool in COMPRESSORS:
        packed = compressed(archive, tool)
        assert packed.read_bytes() != archive.read_bytes()
        hint = "ctar: %s: compressed with %s; decompress it first: %s -dc %s" % (
            packed, tool, tool, packed)
        cases = [(["list", packed], hint + " | ctar list -"),
                 (["list", "--json", packed], hint + " | ctar list -"),
                 (["verify", packed], hint + " | ctar verify -"),
                 (["extract", packed, "-C", out], hint + " | ctar extract -"),
                 (["salvage", packed, out / "new.ctar"],
                  hint + " > FILE && ctar salvage FILE OUT")]
        for args, message in cases:
            r = ctar(*args)
            assert r.returncode == NOT_ARCHIVE, (args, r.err)
            assert r.err.splitlines() == [message], args
            if "--json" in args:
                assert json.loads(r.out)["problem"] == message[len("ctar: "):]
        # Through a pipe the tool is put into it.
        for command in ("list", "verify", "extract"):
            r = ctar(command, "-", "-C", out, data=packed.read_bytes()) if command == "extract" \
                else ctar(command, "-", data=packed.read_bytes())
            assert r.returncode == NOT_ARCHIVE, (tool, command)
            assert r.err.splitlines() == [
                "ctar: standard input: compressed with %s; decompress it first: ... | %s -dc | "
                "ctar %s -" % (tool, tool, command)], (tool, command)
        # Decompressed as the message says, it is the archive again.
        r = decompressed_into_ctar(tool, packed, "verify", "-")
        assert r.returncode == WHOLE, (tool, r.out + r.err)
        assert r.out == ctar("verify", archive).out
    assert os.listdir(out) == []


def test_a_stream_is_listed_and_verified_as_the_file_is(backups, tmp_path):
    data = backups.good.read_bytes()
    last, hit = backups.entries[-1], backups.entries[2]
    flipped = bytearray(data)
    flipped[hit.offset + 3] ^= 0x04
    with_sentinel = len(data) - 512
    # name, bytes, where a restore stops before the end (or None) and how
    # many entries it reaches there.
    cases = [("whole", data, None, 0),
             ("cut in the data", data[:last.offset + 512 + 100], None, 0),
             ("cut in a header", data[:last.offset + 100], None, 0),
             ("cut near the end", data[:with_sentinel - 10], None, 0),
             ("no sentinel", data[:with_sentinel], None, 0),
             ("flipped header bit", bytes(flipped), hit.offset, 2),
             ("broken retrieval", backups.broken.read_bytes(),
              512 + backups.entries[0].size + len(ctarlib.padding(backups.entries[0].size)), 1)]
    for name, content, stop, reached in cases:
        path = written(tmp_path, content, "stream.ctar")
        for args in (["list", "-v"], ["verify", "-v"]):
            from_file = ctar(*args, path)
            piped = ctar(*args, "-", data=content)
            assert piped.returncode == from_file.returncode, (name, args, piped.err)
            assert (piped.returncode == WHOLE) == (name == "whole"), (name, args)
            assert piped.err == from_file.err.replace(str(path), "standard input"), (name, args)
            expected = from_file.out
            if args[0] == "verify" and stop is not None:
                # A stream is not searched behind the place where a restore
                # stops: no hidden entries, and the result says why.
                lines = from_file.out.splitlines()
                assert after("hidden: ", lines), name
                expected = "\n".join(
                    [l for l in lines[:-1] if not l.startswith("hidden: ")] +
                    ["result: damaged: a restore stops at offset 0x%X after %d %s; what lies "
                     "behind it was not searched for hidden entries, which needs a file (save "
                     "the stream to one and verify that)" %
                     (stop, reached, "entry" if reached == 1 else "entries")]) + "\n"
            assert piped.out == expected, (name, args)


def test_command_line_mistakes(backups, tmp_path):
    good = backups.good
    for args, message in [((), "no command given"),
                          (("lsit", good), "unknown command 'lsit'"),
                          (("verify", "--json", good), "--json applies to list only"),
                          (("list", "-C", tmp_path, good), "-C applies to extract only"),
                          (("list", good, good), "list takes one archive"),
                          (("salvage", good), "salvage takes an archive and an output file"),
                          (("list", "--bogus", good), "unknown option --bogus"),
                          (("salvage", good, good), "%s: is the archive being salvaged" % good)]:
        r = ctar(*args)
        assert r.returncode == USAGE, args
        assert message in r.err.splitlines()[0], (args, r.err)
    # Salvage cannot look ahead in a pipe; redirected from the file itself it can.
    r = ctar("salvage", "-", tmp_path / "out.ctar", data=good.read_bytes())
    assert r.returncode == USAGE
    assert r.err.splitlines() == ["ctar: standard input: salvage needs an archive it can seek "
                                  "in; save the stream to a file first"]
    assert not (tmp_path / "out.ctar").exists()
    with open(good, "rb") as f:
        assert ctar("salvage", "-", tmp_path / "out.ctar", stdin=f).returncode == WHOLE
    r = ctar("--help")
    assert r.returncode == 0 and "Exit status:" in r.out and r.err == ""


def test_progress_is_shown_when_asked_and_only_then(backups):
    r = ctar("verify", "--progress", backups.good)
    assert r.returncode == WHOLE
    size = os.path.getsize(backups.good) / 1024
    assert r.err.endswith("ctar: verify: %.1f KiB of %.1f KiB (100 %%)\n" % (size, size))
    # Standard error is no terminal here, and the archive is small.
    assert ctar("verify", backups.good).err == ""
    assert ctar("verify", "--no-progress", backups.good).err == ""


# --- a broken retrieval


def test_broken_retrieval_hidden_entries_are_salvaged_and_restored(backups, sim_factory,
                                                                   tmp_path):
    later = backups.broken_later
    assert sorted(later) == ["/QDLS", "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/SALES.LIB", "/home"]

    # What a restore sees: the first entry, then the old sentinel.
    reachable = read_archive(backups.broken, allow_trailing=True)
    assert [e.name for e in reachable] == ["/Security Data"]
    sentinel = 512 + reachable[0].size + len(ctarlib.padding(reachable[0].size))
    r = ctar("list", backups.broken)
    assert r.returncode == DAMAGED
    assert names(r.out) == ["/Security Data"]
    assert "behind the sentinel at offset 0x%X" % sentinel in r.err

    r = ctar("verify", backups.broken)
    assert r.returncode == DAMAGED
    assert names(r.out, "hidden: ") == later
    assert r.out.splitlines()[-1] == (
        "result: damaged: a restore stops at offset 0x%X after 1 entry; 4 more entries lie "
        "behind it (ctar salvage writes an archive that holds them)" % sentinel)

    out = tmp_path / "salvaged.ctar"
    r = ctar("salvage", backups.broken, out)
    assert r.returncode == WHOLE, r.out + r.err
    lines = r.out.splitlines()
    assert names(r.out, "recovered: ") == later
    dropped = after("dropped: ", lines)
    assert len(dropped) == 1 and dropped[0].startswith("0x%010X " % (sentinel + 512))
    assert "(the partial save file of a broken retrieval)" in dropped[0]
    assert stat.S_IMODE(os.stat(out).st_mode) == 0o600
    assert ctar("verify", out).returncode == WHOLE
    # The same archive to standard output, the report then on standard error.
    piped = ctar("salvage", backups.broken, "-")
    assert piped.returncode == WHOLE and piped.stdout == out.read_bytes()
    assert piped.err.splitlines() == lines[:-1] + [lines[-1].replace(str(out), "standard output")]

    # The salvaged entries are the hidden ones, byte for byte.
    first_hidden = int(listed(r.out, "recovered: ")[0]["offset"], 16)
    hidden = read_archive(backups.broken.read_bytes()[first_hidden:])
    assert [(e.name, e.data) for e in read_archive(out)] == \
        [(e.name, e.data) for e in reachable + hidden]

    # A restore of the broken archive stops at the old sentinel, and says
    # that entries lie hidden behind it; of the salvaged one everything
    # that the backup saved comes back.
    partial = sim_factory()
    r = restore(partial, backups.broken)
    assert r.status == 1, r.err
    assert after("Archive  : ", r.out_lines) == ["/Security Data"]
    assert not (partial.root / "home").exists()
    behind = os.path.getsize(backups.broken) - sentinel - 512
    assert ("vondral: %d bytes lie behind the end block at offset 0x%X: entries there were not "
            "restored (ctar salvage recovers them)" % (behind, sentinel)) in r.err_lines
    sim = sim_factory()
    r = restore(sim, out)
    assert r.status == 0, r.err
    # The configuration was the broken retrieval; a user profile outside a
    # library is no object a backup saves.
    assert simlib.compare_trees(backups.source, sim.root,
                                exclude=[".sim/config", "QSYS.LIB/JOE.USRPRF"]) == []
