"""--summary: the JSON document a backup or restore leaves at its end,
whatever the status, checked field by field against what the run printed."""
import datetime
import json
import os
import re

import pytest

import ctarlib
from ctarlib import Entry
from ctarread import read_archive
from vlib import after, backup, creds, restore, vondral

NO_SPECIALS = "/Security Data\n/System Configuration\n"
DATA = {"data": {"f%02d.txt" % i: "x" * (100 * i + 1) for i in range(12)}}


def version():
    line = vondral("--version").out_lines[0]
    name, number, _ = line.split(" ", 2)
    assert name == "vondral"
    return number


def read_summary(path):
    """The summary, parsed; nothing else may be left in its directory."""
    assert os.listdir(path.parent) == [path.name]
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def instant(text):
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", text), text
    return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ")


def printed_total(r, label):
    """A backup's closing count, as printed ("** Total Objects Failed   : 1")."""
    values = [int(l.split(":")[1]) for l in r.out_lines if re.match(r"\*\* Total Objects %s *:" % label, l)]
    return values[0] if values else 0


def check_common(s, mode, sim, status, meaning):
    assert s["program"] == "vondral"
    assert s["version"] == version()
    assert s["mode"] == mode
    assert s["server"] == sim.addr
    now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
    start, end = instant(s["start"]), instant(s["end"])
    assert start <= end <= now
    assert (now - start).total_seconds() < 120
    assert s["status"] == status
    assert s["status_meaning"] == meaning


def failure_message(r, path, before):
    """The failure message printed last before the line `before` names the
    object path: its text, a two-line message kept whole."""
    lines = r.err_lines
    at = lines.index(before + path)
    text = lines[at - 1]
    if text.startswith("  "):  # the quoted reply under a failure line
        text = lines[at - 2] + "\n" + text
    return text


@pytest.mark.parametrize("case, config, include, args, status, meaning", [
    ("all saved", {}, "/data\n", [], 0, "every object saved"),
    ("one of twelve failed",
     {"replies": [{"match": "f00\\.txt", "reply": "550 CPF3781 Object not found."}]},
     "/data\n", [], 1,
     "some objects failed (up to 9 % with parse errors counted), a save was partial, or an "
     "include path matched nothing"),
    ("partial and missing",
     {"replies": [{"match": "f03\\.txt", "apply": True,
                   "reply": "550 CPF3771 12 objects saved. 3 objects not saved.."}]},
     "/data\n/nothere\n", ["-p", "no"], 1,
     "some objects failed (up to 9 % with parse errors counted), a save was partial, or an "
     "include path matched nothing"),
    ("two of twelve failed",
     {"replies": [{"match": "f0[01]\\.txt", "reply": "550 CPF3781 Object not found."}]},
     "/data\n", [], 2, "more than 9 % of the objects failed"),
])
def test_a_backup_summary_holds_what_the_run_printed(sim_factory, tmp_path, case, config, include,
                                                     args, status, meaning):
    sim = sim_factory(tree=DATA, config=config)
    summary = tmp_path / "report" / "run.json"
    summary.parent.mkdir()
    r = backup(sim, tmp_path, "-m", "0", "--summary", summary, *args, include=include,
               exclude=NO_SPECIALS)
    assert r.status == status, r.out + r.err
    s = read_summary(summary)
    check_common(s, "backup", sim, status, meaning)
    assert s["archive"] == {"path": str(r.archive), "size": os.path.getsize(r.archive)}
    assert s["bytes"] == sum(len(e.data) for e in read_archive(r.archive))
    assert s["counts"] == {"attempted": printed_total(r, "Attempted"),
                           "failed": printed_total(r, "Failed"),
                           "partial": printed_total(r, "Partial"),
                           "restored": None, "skipped": None}
    failed = after("Backup Failure: ", r.err_lines)
    expected = [{"path": p, "reason": failure_message(r, p, "Backup Failure: ")} for p in failed]
    for missing in after("Object not found: ", r.out_lines):
        expected.append({"path": missing, "reason": "Object not found: " + missing})
    assert sorted(s["failed"], key=str) == sorted(expected, key=str)
    assert len(s["failed"]) == s["counts"]["failed"]
    assert len(s["partial"]) == s["counts"]["partial"]
    for o in s["partial"]:
        # the server's reply to the save, as the -n list names the object
        assert o["reason"] == "550 CPF3771 12 objects saved. 3 objects not saved.."
        assert o["path"] + ": 3 objects not saved" in r.notbackedup


def test_a_backup_that_cannot_log_in_reports_255_and_no_archive(sim_factory, tmp_path):
    sim = sim_factory(tree=DATA)
    summary = tmp_path / "report" / "run.json"
    summary.parent.mkdir()
    r = vondral("-s", sim.addr, "-c", creds(password="wrong"), "-b", tmp_path / "a.ctar",
                "--summary", summary)
    assert r.status == 255
    assert not (tmp_path / "a.ctar").exists()
    s = read_summary(summary)
    check_common(s, "backup", sim, 255,
                 "bad options or path files, login failed, the archive could not be written, "
                 "flushed or renamed (no archive is made; an old one stays)")
    assert s["archive"] == {"path": str(tmp_path / "a.ctar"), "size": None}
    assert s["bytes"] is None
    assert set(s["counts"].values()) == {None}
    assert s["failed"] == [] and s["partial"] == []


def test_a_restore_summary_counts_restored_and_skipped_entries(sim_factory, tmp_path):
    source = sim_factory(tree={"data": {"a.txt": "a" * 700, "b.txt": "b"},
                               "QSYS.LIB": {"PAY.LIB": {"F.FILE": "f"}}})
    made = backup(source, tmp_path, "-m", "0")
    assert made.status == 0, made.err
    entries = read_archive(made.archive)
    summary = tmp_path / "report" / "run.json"
    summary.parent.mkdir()
    (tmp_path / "only.inc").write_text("/data/a.txt\n/QSYS.LIB/PAY.LIB\n")
    target = sim_factory()
    r = restore(target, made.archive, "-i", tmp_path / "only.inc", "--summary", summary)
    assert r.status == 0, r.out + r.err
    s = read_summary(summary)
    check_common(s, "restore", target, 0, "every selected entry restored")
    assert s["archive"] == {"path": str(made.archive), "size": os.path.getsize(made.archive)}
    # Every header and the data of every entry, in whole blocks, was read.
    assert s["bytes"] == sum(512 + (e.size + 511) // 512 * 512 for e in entries)
    seen = after("Archive  : ", r.out_lines)
    assert len(seen) == len(entries)
    commands = [c for c in target.lines() if c.startswith("RCMD RST")]
    counts = s["counts"]
    assert counts["failed"] == 0 and counts["partial"] is None
    assert counts["restored"] + counts["skipped"] == len(entries)
    assert counts["attempted"] == counts["restored"]
    assert counts["restored"] == len(commands) == 2
    assert counts["skipped"] == len(entries) - 2
    assert s["failed"] == [] and s["partial"] == []


def test_a_restore_summary_names_the_failed_entry_and_the_servers_reply(sim_factory, tmp_path):
    archive = tmp_path / "bad.ctar"
    ctarlib.write_archive(archive, [Entry("/QSYS.LIB/BAD.LIB", b"not a save file" * 100,
                                          directory=True)])
    summary = tmp_path / "report" / "run.json"
    summary.parent.mkdir()
    sim = sim_factory()
    r = restore(sim, archive, "--summary", summary)
    assert r.status == 1
    s = read_summary(summary)
    check_common(s, "restore", sim, 1,
                 "the archive was read to its end block and at least one entry failed, or "
                 "entries lie hidden behind the end block")
    assert s["counts"] == {"attempted": 1, "failed": 1, "partial": None, "restored": 0,
                           "skipped": 0}
    lines = r.err_lines
    at = next(i for i, l in enumerate(lines) if re.match(r"vondral\[ftp\.cpp,\d+\]: RSTLIB command failed$", l))
    assert lines[at + 1].startswith("  550 CPF3743 ")
    assert s["failed"] == [{"path": after("Archive  : ", r.out_lines)[0],
                            "reason": lines[at] + "\n" + lines[at + 1]}]


def test_a_restore_that_cannot_log_in_reports_255(sim_factory, tmp_path):
    archive = tmp_path / "one.ctar"
    ctarlib.write_archive(archive, [Entry("/QDLS", b"x" * 600)])
    summary = tmp_path / "report" / "run.json"
    summary.parent.mkdir()
    sim = sim_factory()
    r = vondral("-s", sim.addr, "-c", creds(password="wrong"), "-r", archive, "--summary", summary)
    assert r.status == 255
    s = read_summary(summary)
    check_common(s, "restore", sim, 255,
                 "bad options, login failed, the archive unreadable, not a CTAR archive, a bad "
                 "header, cut short")
    assert s["archive"] == {"path": str(archive), "size": os.path.getsize(archive)}
    assert s["bytes"] is None and set(s["counts"].values()) == {None}


@pytest.mark.parametrize("password, status", [("secret", 3), ("wrong", 255)])
def test_a_summary_that_cannot_be_written_is_said_and_never_ends_in_success(sim_factory, tmp_path,
                                                                            password, status):
    sim = sim_factory(tree=DATA)
    summary = tmp_path / "missing" / "run.json"
    (tmp_path / "x.inc").write_text("/data\n")
    (tmp_path / "x.exc").write_text(NO_SPECIALS)
    r = vondral("-s", sim.addr, "-c", creds(password=password), "-b", tmp_path / "a.ctar",
                "-i", tmp_path / "x.inc", "-e", tmp_path / "x.exc", "--summary", summary)
    assert r.status == status, r.out + r.err
    assert re.match(r"vondral: --summary %s: can't create %s\.tmp\.\w{6}: No such file or directory$"
                    % (re.escape(str(summary)), re.escape(str(summary))), r.err_lines[-1])
    assert not summary.parent.exists()
    # The archive itself was made as usual: only the summary is missing.
    assert (tmp_path / "a.ctar").exists() == (password == "secret")
