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

import pytest

import ctarlib
import simlib
from ctarread import read_archive
from vlib import Run, creds, vondral

KIND = {"/Security Data": "security data", "/System Configuration": "configuration",
        "/QDLS": "documents", "/QSYS.LIB/PAYROLL.LIB": "library",
        "/QSYS.LIB/SALES.LIB": "library", "/home": "IFS"}
LINE = re.compile(r"^(?:0x(?P<offset>[0-9A-F]{10}) )?(?P<kind>IFS|library|documents|"
                  r"security data|configuration) +(?P<size>\d+) "
                  r"(?P<time>\d{4}-\d\d-\d\d \d\d:\d\d) (?P<name>.*)$")

# Exit statuses, as the manual page and --help give them.
WHOLE, DAMAGED, NOT_ARCHIVE, UNREADABLE, NOT_FOUND, USAGE = 0, 1, 2, 3, 5, 64


def ctar_bin():
    env = os.environ.get("CTAR_BIN")
    return env if env else str(simlib.repo_root() / "build" / "ctar")


def ctar(*args, stdin=None, data=None, timeout=60):
    """Runs ctar; data (bytes) is fed through a pipe as standard input."""
    proc = subprocess.run([ctar_bin(), *map(str, args)], input=data, stdin=stdin,
                          capture_output=True, timeout=timeout)
    proc.out = proc.stdout.decode("utf-8", "surrogateescape")
    proc.err = proc.stderr.decode("utf-8", "surrogateescape")
    return proc


def listed(text):
    rows = []
    for line in text.splitlines():
        m = LINE.match(line)
        assert m, line
        rows.append(m.groupdict())
    return rows


class Backups:
    """A whole backup of the sample tree, and one whose second retrieval
    broke after its data (the control connection closed before the 226),
    with later objects saved all the same."""


@pytest.fixture(scope="module")
def backups(tmp_path_factory):
    if not simlib.in_netns():
        pytest.fail("end-to-end tests must run inside tests/e2e/run_in_netns.sh")
    b = Backups()
    work = tmp_path_factory.mktemp("ctar")
    b.source = simlib.make_tree(work / "source", simlib.sample_tree(now=1_700_000_000))
    for name, faults in (("good", []),
                         ("broken", [{"match": "^RETR", "nth": 2,
                                      "action": "close_after_data"}])):
        sim = simlib.Sim(simlib.next_address(), b.source, {"faults": faults},
                         state_dir=work / ("sim-" + name))
        sim.start()
        try:
            archive = work / (name + ".ctar")
            run = vondral("-s", sim.addr, "-c", creds(), "-b", archive, "-x", "no")
        finally:
            sim.stop()
        setattr(b, name, archive)
        setattr(b, name + "_run", run)
    assert b.good_run.status == 0, b.good_run.err
    assert b.broken_run.status == 2, b.broken_run.err
    b.entries = read_archive(b.good)
    return b


def damaged_copy(tmp_path, data, name="damaged.ctar"):
    path = tmp_path / name
    path.write_bytes(data)
    return path


# --- a whole archive


def test_list_text_json_and_pipe_agree_with_the_entries(backups):
    entries = backups.entries
    assert sorted(e.name for e in entries) == sorted(KIND)

    plain = ctar("list", backups.good)
    assert plain.returncode == WHOLE and plain.err == ""
    rows = listed(plain.out)
    assert [(r["name"], int(r["size"]), r["kind"]) for r in rows] == \
        [(e.name, e.size, KIND[e.name]) for e in entries]
    assert [r["time"] for r in rows] == \
        [time.strftime("%Y-%m-%d %H:%M", time.localtime(e.mtime)) for e in entries]
    assert all(r["offset"] is None for r in rows)

    verbose = listed(ctar("list", "-v", backups.good).out)
    assert [int(r["offset"], 16) for r in verbose] == [e.offset for e in entries]

    doc = json.loads(ctar("list", "--json", backups.good).out)
    assert doc["whole"] is True and doc["status"] == 0 and doc["problem"] is None
    assert doc["entries"] == [
        {"offset": e.offset, "kind": KIND[e.name], "size": e.size, "mtime": e.mtime,
         "name": e.name, "stored_name": e.stored_name} for e in entries]
    # A whole directory keeps its ".savf" in the stored name only.
    home = next(d for d in doc["entries"] if d["name"] == "/home")
    assert home["stored_name"] == "/home.savf"

    # Standard input through a pipe cannot seek; the listing is the same.
    piped = ctar("list", "-v", "-", data=backups.good.read_bytes())
    assert piped.returncode == WHOLE and piped.out == ctar("list", "-v", backups.good).out


def test_verify_accepts_a_whole_backup(backups):
    r = ctar("verify", "-v", backups.good)
    assert r.returncode == WHOLE, r.out + r.err
    lines = r.out.splitlines()
    assert [listed(line[len("entry: "):])[0]["name"] for line in lines[:-1]] == \
        [e.name for e in backups.entries]
    sentinel = os.path.getsize(backups.good) - 512
    assert lines[-1].startswith("result: whole: 6 entries, ")
    assert lines[-1].endswith("the sentinel at offset 0x%X" % sentinel)


def test_extract_writes_each_save_file_byte_for_byte(backups, tmp_path):
    every = tmp_path / "every"
    every.mkdir()
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
    some = tmp_path / "some"
    some.mkdir()
    r = ctar("extract", "-", "/QDLS", "/QSYS.LIB/NOSUCH.LIB", "-C", some,
             data=backups.good.read_bytes())
    assert r.returncode == NOT_FOUND
    assert os.listdir(some) == ["QDLS.savf"]
    qdls = next(e for e in backups.entries if e.name == "/QDLS")
    assert (some / "QDLS.savf").read_bytes() == qdls.data
    assert "ctar: /QSYS.LIB/NOSUCH.LIB: not in the archive standard input" in r.err


def test_awkward_names_are_escaped_in_listings_and_made_safe_as_files(tmp_path):
    long_name = "/deep/" + "x" * 390
    names = ["/a\nb", "/x/y", "/x_y", "-rf", "/.profile", "/caf\udce9", long_name]
    entries = [ctarlib.Entry(n, b"%d" % i * 700) for i, n in enumerate(names)]
    archive = tmp_path / "names.ctar"
    ctarlib.write_archive(archive, entries)

    r = ctar("list", archive)
    assert r.returncode == WHOLE
    # A newline in a name must not break the line.
    assert [row["name"] for row in listed(r.out)] == ["/a\\nb"] + names[1:]
    doc = json.loads(ctar("list", "--json", archive).out)
    # Bytes that are no UTF-8 come out as the characters of the same value.
    assert [d["name"] for d in doc["entries"]] == \
        [n.replace("\udce9", "\u00e9") for n in names]

    out = tmp_path / "out"
    out.mkdir()
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


# --- damaged archives and bad input


def test_truncated_archives(backups, tmp_path):
    data = backups.good.read_bytes()
    last = backups.entries[-1]

    inside = damaged_copy(tmp_path, data[:last.offset + 512 + 100], "inside.ctar")
    r = ctar("list", inside)
    assert r.returncode == DAMAGED
    assert len(listed(r.out)) == len(backups.entries)  # the header of the last one is whole
    assert "truncated: the data of %s (header at offset 0x%X" % (last.name, last.offset) in r.err
    doc = json.loads(ctar("list", "--json", inside).out)
    assert doc["whole"] is False and doc["status"] == DAMAGED and "truncated" in doc["problem"]
    r = ctar("verify", inside)
    assert r.returncode == DAMAGED and "damaged: truncated: the data of " + last.name in r.out
    # Extract leaves no half save file behind, but writes the others.
    out = tmp_path / "x"
    out.mkdir()
    r = ctar("extract", inside, "-C", out)
    assert r.returncode == DAMAGED
    assert len(os.listdir(out)) == len(backups.entries) - 1
    r = ctar("salvage", inside, tmp_path / "inside-salvaged.ctar")
    assert r.returncode == DAMAGED  # an entry was lost
    assert "dropped: 0x%010X %d bytes: the truncated entry %s" % (
        last.offset, 612, last.name) in r.out
    assert [e.name for e in read_archive(tmp_path / "inside-salvaged.ctar")] == \
        [e.name for e in backups.entries[:-1]]

    no_end = damaged_copy(tmp_path, data[:-512], "noend.ctar")
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
    path = damaged_copy(tmp_path, bytes(data))

    r = ctar("list", path)
    assert r.returncode == DAMAGED
    assert [row["name"] for row in listed(r.out)] == [e.name for e in backups.entries[:2]]
    assert "bad header checksum at offset 0x%X" % hit.offset in r.err

    r = ctar("verify", path)
    assert r.returncode == DAMAGED
    assert "damaged: bad header checksum at offset 0x%X: a restore stops here" % hit.offset \
        in r.out.splitlines()
    # The entries behind the damaged one are found again by their headers.
    assert [listed(l[len("hidden: "):])[0]["name"] for l in r.out.splitlines()
            if l.startswith("hidden: ")] == [e.name for e in backups.entries[3:]]

    out = tmp_path / "salvaged.ctar"
    r = ctar("salvage", path, out)
    assert r.returncode == DAMAGED
    assert "dropped: 0x%010X %d bytes: the entry whose header at 0x%X is damaged" % (
        hit.offset, backups.entries[3].offset - hit.offset, hit.offset) in r.out
    salvaged = read_archive(out)
    expect = [e for e in backups.entries if e is not hit]
    assert [(e.name, e.data) for e in salvaged] == [(e.name, e.data) for e in expect]


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
    text = tmp_path / "notes.txt"
    text.write_text("not an archive\n" * 100)
    tar = tmp_path / "real.tar"
    member = tmp_path / "member"
    member.write_bytes(b"m" * 3000)
    with tarfile.open(tar, "w", format=tarfile.GNU_FORMAT) as t:
        t.add(member, "member")
    empty = tmp_path / "empty.ctar"
    empty.write_bytes(b"")
    directory = tmp_path / "dir.ctar"
    directory.mkdir()
    cases = [(text, NOT_ARCHIVE, "not a CTAR archive: its first block is no CTAR header"),
             (tar, NOT_ARCHIVE, "not a CTAR archive: its first block is no CTAR header"),
             (empty, NOT_ARCHIVE, "empty, not a CTAR archive"),
             (directory, NOT_ARCHIVE, "is a directory, not a CTAR archive"),
             (tmp_path / "missing.ctar", UNREADABLE, "cannot open: No such file or directory")]
    for path, status, message in cases:
        for command in (["list"], ["list", "--json"], ["verify"], ["extract", "-C", tmp_path],
                        ["salvage"]):
            args = command[:1] + [path] + command[1:]
            if command == ["salvage"]:
                args.append(tmp_path / "out.ctar")
            r = ctar(*args)
            assert r.returncode == status, (args, r.err)
            assert r.err.splitlines()[-1] == "ctar: %s: %s" % (path, message), args
            if "--json" in command:
                assert json.loads(r.out)["status"] == status
    assert not (tmp_path / "out.ctar").exists()
    assert sorted(os.listdir(tmp_path)) == ["dir.ctar", "empty.ctar", "member", "notes.txt",
                                            "real.tar"]


def test_command_line_mistakes(backups, tmp_path):
    for args, message in [((), "no command given"),
                          (("lsit", backups.good), "unknown command 'lsit'"),
                          (("verify", "--json", backups.good), "--json applies to list only"),
                          (("list", "-C", tmp_path, backups.good), "-C applies to extract only"),
                          (("list", backups.good, backups.good), "list takes one archive"),
                          (("salvage", backups.good),
                           "salvage takes an archive and an output file"),
                          (("list", "--bogus", backups.good), "unknown option --bogus"),
                          (("salvage", backups.good, backups.good),
                           "%s: is the archive being salvaged" % backups.good)]:
        r = ctar(*args)
        assert r.returncode == USAGE, args
        assert message in r.err.splitlines()[0], (args, r.err)
    # A pipe cannot be looked ahead in.
    r = ctar("verify", "-", data=backups.good.read_bytes())
    assert r.returncode == USAGE and "verify needs an archive it can seek in" in r.err
    # Redirected from the file itself it can.
    with open(backups.good, "rb") as f:
        assert ctar("verify", "-", stdin=f).returncode == WHOLE
    r = ctar("--help")
    assert r.returncode == 0 and "Exit status:" in r.out and r.err == ""


def test_progress_is_shown_when_asked_and_only_then(backups):
    r = ctar("verify", "--progress", backups.good)
    assert r.returncode == WHOLE
    size = os.path.getsize(backups.good)
    assert r.err.endswith("ctar: verify: %.1f KiB of %.1f KiB (100 %%)\n" % (size / 1024,
                                                                              size / 1024))
    # Standard error is no terminal here, and the archive is small.
    assert ctar("verify", backups.good).err == ""
    assert ctar("verify", "--no-progress", backups.good).err == ""


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
    rows = listed(r.out)
    assert [(int(x["offset"], 16), int(x["size"])) for x in rows] == \
        [(offsets[i], big + i) for i in range(3)]
    assert elapsed < 5, elapsed


# --- a broken retrieval


def hidden_names(verify_out):
    return [listed(l[len("hidden: "):])[0]["name"] for l in verify_out.splitlines()
            if l.startswith("hidden: ")]


def test_broken_retrieval_hidden_entries_are_salvaged_and_restored(backups, sim_factory,
                                                                   tmp_path):
    run = backups.broken_run
    assert "Backup Failure: /System Configuration" in run.err_lines
    saved = [l[len("Backup Success: "):] for l in run.out_lines
             if l.startswith("Backup Success: ")]
    assert saved[0] == "/Security Data"
    later = saved[1:]
    assert sorted(later) == ["/QDLS", "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/SALES.LIB", "/home"]

    # What a restore sees: the first entry, then the old sentinel.
    reachable = read_archive(backups.broken, allow_trailing=True)
    assert [e.name for e in reachable] == ["/Security Data"]
    sentinel = reachable[0].offset + 512 + len(ctarlib.padding(reachable[0].size)) + \
        reachable[0].size
    r = ctar("list", backups.broken)
    assert r.returncode == DAMAGED
    assert [row["name"] for row in listed(r.out)] == ["/Security Data"]
    assert "behind the sentinel at offset 0x%X" % sentinel in r.err

    r = ctar("verify", backups.broken)
    assert r.returncode == DAMAGED
    assert hidden_names(r.out) == later
    assert r.out.splitlines()[-1] == (
        "result: damaged: a restore stops at offset 0x%X after 1 entry; 4 more entries lie "
        "behind it (ctar salvage writes an archive that holds them)" % sentinel)

    out = tmp_path / "salvaged.ctar"
    r = ctar("salvage", backups.broken, out)
    assert r.returncode == WHOLE, r.out + r.err
    lines = r.out.splitlines()
    assert [listed(l[len("recovered: "):])[0]["name"] for l in lines
            if l.startswith("recovered: ")] == later
    dropped = [l for l in lines if l.startswith("dropped: ")]
    assert len(dropped) == 1 and dropped[0].startswith("dropped: 0x%010X " % (sentinel + 512))
    assert "(the partial save file of a broken retrieval)" in dropped[0]
    assert stat.S_IMODE(os.stat(out).st_mode) == 0o600
    assert ctar("verify", out).returncode == WHOLE
    # The same archive to standard output, the report then on standard error.
    piped = ctar("salvage", backups.broken, "-")
    assert piped.returncode == WHOLE and piped.stdout == out.read_bytes()
    assert piped.err.splitlines() == lines[:-1] + [lines[-1].replace(str(out), "standard output")]

    # The salvaged entries are the hidden ones, byte for byte.
    salvaged = read_archive(out)
    raw = backups.broken.read_bytes()
    first_hidden = int(listed(lines[0][len("recovered: "):])[0]["offset"], 16)
    hidden = read_archive(raw[first_hidden:])
    assert [(e.name, e.data) for e in salvaged] == \
        [(reachable[0].name, reachable[0].data)] + [(e.name, e.data) for e in hidden]

    # A restore of the broken archive brings back only the first entry; of
    # the salvaged one everything that the backup saved.
    # The restore of the broken archive even reports success: it stops at the
    # old sentinel as at any end.
    partial = sim_factory()
    r = vondral("-s", partial.addr, "-c", creds(), "-r", backups.broken)
    assert r.status == 0, r.err
    assert [l for l in r.out_lines if l.startswith("Archive  : ")] == ["Archive  : /Security Data"]
    assert not (partial.root / "home").exists()
    sim = sim_factory()
    r = vondral("-s", sim.addr, "-c", creds(), "-r", out)
    assert r.status == 0, r.err
    # The configuration was the broken retrieval; a user profile outside a
    # library is no object a backup saves.
    assert simlib.compare_trees(backups.source, sim.root,
                                exclude=[".sim/config", "QSYS.LIB/JOE.USRPRF"]) == []
