"""The scheduled backup's script (packaging/vondral-backup, run by
vondral-backup@NAME.service): a run against the simulator with a
configuration file and a CREDENTIALS_DIRECTORY as systemd would give it,
the archives it keeps and removes, its failures, and the configuration
files it refuses."""
import datetime
import json
import os
import re
import subprocess
from pathlib import Path

import pytest

import simlib
from ctarread import read_archive

SCRIPT = simlib.repo_root() / "packaging" / "vondral-backup"
CTAR = os.environ.get("CTAR_BIN") or str(simlib.repo_root() / "build" / "ctar")
DATA = {"data": {"f%02d.txt" % i: "x" * (100 * i + 1) for i in range(6)}}
DATED = re.compile(r"^prod-(\d{8}-\d{6})\.ctar$")


class Setup:
    """A configuration prod.conf, its include file, the archive directory,
    the passphrase in a credentials directory and a bin directory with the
    programs under test first on PATH."""

    def __init__(self, tmp_path, sim, keep=3, password=simlib.DEFAULT_PASSWORD, extra=""):
        self.tmp = tmp_path
        self.archives = tmp_path / "archives"
        self.archives.mkdir()
        (tmp_path / "prod.include").write_text("/data\n")
        self.conf = tmp_path / "prod.conf"
        self.conf.write_text("SERVER=%s\nUSER=%s\nINCLUDE=%s\nARCHIVE_DIR=%s\nKEEP=%d\n%s"
                             % (sim.addr if sim else "127.0.0.1", simlib.DEFAULT_USER,
                                tmp_path / "prod.include", self.archives, keep, extra))
        self.creds = tmp_path / "credentials"
        self.creds.mkdir()
        (self.creds / "passphrase").write_text(password + "\n")
        self.bin = tmp_path / "bin"
        self.bin.mkdir()
        os.symlink(simlib.vondral_bin(), self.bin / "vondral")
        os.symlink(CTAR, self.bin / "ctar")

    def wrap(self, program, script):
        """Puts a shell script in place of a program; $REAL is the real one."""
        real = os.readlink(self.bin / program)
        (self.bin / program).unlink()
        (self.bin / program).write_text("#!/bin/sh\nREAL=%s\n%s" % (real, script))
        (self.bin / program).chmod(0o755)

    def run(self, *args):
        args = args or ("-f", str(self.conf))
        r = subprocess.run([str(SCRIPT), *args], capture_output=True, text=True, timeout=180,
                           env=dict(os.environ, CREDENTIALS_DIRECTORY=str(self.creds),
                                    PATH="%s:%s" % (self.bin, os.environ["PATH"])))
        return r

    def files(self):
        return sorted(os.listdir(self.archives))


def old_archives(directory, count, name="prod"):
    """count archives of earlier days (any content: the script never reads
    old ones), each with its summary; oldest first."""
    made = []
    for day in range(count):
        stem = "%s-202001%02d-020000.ctar" % (name, day + 1)
        (directory / stem).write_text("old %d\n" % day)
        (directory / (stem + ".json")).write_text("{}\n")
        made.append(stem)
    return made


def test_a_run_makes_a_verified_archive_named_by_the_date_and_its_summary(sim_factory, tmp_path):
    sim = sim_factory(tree=DATA)
    s = Setup(tmp_path, sim)
    before = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0, tzinfo=None)
    r = s.run()
    after = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
    assert r.returncode == 0, r.stdout + r.stderr
    archive = [f for f in s.files() if DATED.match(f)]
    assert len(archive) == 1 and s.files() == [archive[0], archive[0] + ".json"], s.files()
    made = datetime.datetime.strptime(DATED.match(archive[0]).group(1), "%Y%m%d-%H%M%S")
    assert before <= made <= after  # UTC
    path = s.archives / archive[0]
    assert any(e.name.startswith("/data") for e in read_archive(path)), path
    verify = subprocess.run([CTAR, "verify", str(path)], capture_output=True, timeout=60)
    assert verify.returncode == 0
    summary = json.loads((s.archives / (archive[0] + ".json")).read_text())
    assert (summary["mode"], summary["status"], summary["archive"]["path"]) == \
        ("backup", 0, str(path))
    # The passphrase went by file, from the credentials directory.
    assert "PASS " + simlib.DEFAULT_PASSWORD in sim.lines()


def test_a_run_by_name_reads_the_file_of_that_name(tmp_path):
    """NAME without -f is /etc/vondral/NAME.conf, which is not there."""
    s = Setup(tmp_path, None)
    r = s.run("--check", "no-such-server-here")
    assert r.returncode != 0
    assert "/etc/vondral/no-such-server-here.conf" in r.stderr


# keep, older archives of this name, failed ones among them (by index)
RETENTION = [
    (1, 0, ()),
    (1, 3, ()),
    (3, 2, ()),
    (3, 5, ()),
    (2, 4, (3,)),  # the newest old one failed: it is neither kept nor counted
]


@pytest.mark.parametrize("keep,older,failed", RETENTION)
def test_a_verified_run_keeps_the_newest_archives(sim_factory, tmp_path, keep, older, failed):
    sim = sim_factory(tree=DATA)
    s = Setup(tmp_path, sim, keep=keep)
    made = old_archives(s.archives, older)
    for i in failed:
        os.rename(s.archives / made[i], s.archives / (made[i] + ".failed"))
    good = [m for i, m in enumerate(made) if i not in failed]
    others = old_archives(s.archives, 2, name="test")  # another server's
    (s.archives / "prod-notes.txt").write_text("mine\n")
    r = s.run()
    assert r.returncode == 0, r.stdout + r.stderr
    new = [f for f in s.files() if DATED.match(f) and f not in made]
    assert len(new) == 1
    stay = good[max(0, len(good) - (keep - 1)):] if keep > 1 else []
    want = {new[0], *stay, *others, "prod-notes.txt"}
    want |= {f + ".json" for f in (new[0], *stay, *others)}
    want |= {made[i] + ".failed" for i in failed} | {made[i] + ".json" for i in failed}
    assert set(s.files()) == want


def wrong_passphrase(s):
    (s.creds / "passphrase").write_text("wrong\n")


# how the backup fails -> its exit status, whether an archive is left (set aside)
BACKUP_FAILURES = [
    ("login refused", wrong_passphrase, 255, False),
    ("one object of eight failed", None, 2, True),  # over 9 %: status 2
]


@pytest.mark.parametrize("case,spoil,status,left", BACKUP_FAILURES, ids=[c[0] for c in BACKUP_FAILURES])
def test_a_failed_backup_removes_nothing(sim_factory, tmp_path, case, spoil, status, left):
    config = {}
    if spoil is None:
        config = {"replies": [{"match": r"f02\.txt", "reply": "550 CPF3781 Object not found."}]}
    sim = sim_factory(tree=DATA, config=config)
    # -m 0: object by object, so that one file can fail
    s = Setup(tmp_path, sim, keep=1, extra="OPTIONS=-m 0\n")
    if spoil:
        spoil(s)
    made = old_archives(s.archives, 3)
    r = s.run()
    assert r.returncode == status, r.stdout + r.stderr
    assert "no old archive removed" in r.stderr
    for m in made:
        assert (s.archives / m).read_text().startswith("old ")
    new = [f for f in s.files() if f not in made and not f.endswith(".json")
           and f[:-len(".json")] not in made]
    if left:
        assert len(new) == 1 and new[0].endswith(".ctar.failed"), s.files()
    else:
        assert new == [], s.files()
    # Its summary tells what happened.
    summaries = [f for f in s.files() if f.endswith(".json") and f[:-5] not in made]
    assert len(summaries) == 1
    assert json.loads((s.archives / summaries[0]).read_text())["status"] == status


VERIFY_FAILURES = [
    ("ctar fails", 'exit 1\n'),
    # the disk lost the archive's end between the backup and the check
    ("archive cut short", 'truncate -s -1000 "$2"\nexec "$REAL" "$@"\n'),
]


@pytest.mark.parametrize("case,wrapper", VERIFY_FAILURES, ids=[c[0] for c in VERIFY_FAILURES])
def test_a_failed_verify_removes_nothing(sim_factory, tmp_path, case, wrapper):
    sim = sim_factory(tree=DATA)
    s = Setup(tmp_path, sim, keep=1)
    s.wrap("ctar", wrapper)
    made = old_archives(s.archives, 2)
    r = s.run()
    assert r.returncode == 1, r.stdout + r.stderr
    assert "ctar verify failed" in r.stderr
    new = [f for f in s.files() if f not in made and f[:-5] not in made]
    assert len([f for f in new if f.endswith(".ctar.failed")]) == 1, s.files()
    assert not [f for f in new if DATED.match(f)], "a failed archive kept its counted name"
    for m in made:
        assert (s.archives / m).exists() and (s.archives / (m + ".json")).exists()


# configuration lines after a good file's (or instead of it) -> the line
# named, and what the message says
BAD_CONFIGS = [
    ("unknown key", "FOO=1\n", 6, "unknown key 'FOO'"),
    ("shell code line", "touch /tmp/owned\n", 6, "not KEY=VALUE"),
    ("command substitution", "OPTIONS=$(touch /tmp/owned)\n", 6, "values are literal"),
    ("variable", "EXCLUDE=$HOME/prod.exclude\n", 6, "values are literal"),
    ("backquotes", "OPTIONS=`id`\n", 6, "values are literal"),
    ("quoted value", 'EXCLUDE="/etc/vondral/prod.exclude"\n', 6, "values are literal"),
    ("keep zero", None, 5, "KEEP must be a whole number"),
    ("keep word", None, 5, "KEEP must be a whole number"),
    ("key twice", "SERVER=other\n", 6, "SERVER given twice"),
    ("relative include", None, 3, "INCLUDE must be an absolute path"),
    ("user with colon", None, 2, "USER may not hold ':'"),
    ("missing key", None, None, "ARCHIVE_DIR missing"),
]
REPLACED = {"keep zero": ("KEEP=1", "KEEP=0"), "keep word": ("KEEP=1", "KEEP=seven"),
            "relative include": ("INCLUDE=/", "INCLUDE="), "user with colon": ("USER=", "USER=a:"),
            "missing key": ("ARCHIVE_DIR=", "#ARCHIVE_DIR=")}


@pytest.mark.parametrize("case,extra,line,message", BAD_CONFIGS, ids=[c[0] for c in BAD_CONFIGS])
@pytest.mark.parametrize("check", [False, True], ids=["run", "check"])
def test_a_bad_configuration_is_refused_and_nothing_runs(tmp_path, case, extra, line, message,
                                                        check):
    s = Setup(tmp_path, None, keep=1, extra=extra or "")
    if case in REPLACED:
        old, new = REPLACED[case]
        s.conf.write_text(s.conf.read_text().replace(old, new, 1))
    for program in ("vondral", "ctar"):
        s.wrap(program, "touch %s/ran-%s\n" % (tmp_path, program))
    r = s.run(*(["--check"] if check else []), "-f", str(s.conf))
    assert r.returncode == 78, r.stdout + r.stderr
    where = "%s, line %d: " % (s.conf, line) if line else "%s: " % s.conf
    assert r.stderr.startswith("vondral-backup: " + where), r.stderr
    assert message in r.stderr
    assert not list(tmp_path.glob("ran-*")) and s.files() == []
    assert not Path("/tmp/owned").exists()


def test_the_good_configuration_of_these_tests_passes_the_check(tmp_path):
    """The base the table above spoils is itself accepted."""
    s = Setup(tmp_path, None, extra="EXCLUDE=/x y/prod.exclude\nOPTIONS=--tls -z 2\n")
    r = s.run("--check", "-f", str(s.conf))
    assert (r.returncode, r.stderr) == (0, ""), r.stderr


def test_the_shipped_example_configuration_passes_the_check(tmp_path):
    r = subprocess.run([str(SCRIPT), "--check", "-f",
                        str(simlib.repo_root() / "packaging" / "example.conf")],
                       capture_output=True, text=True, timeout=30)
    assert (r.returncode, r.stderr) == (0, ""), r.stderr


@pytest.mark.parametrize("case,creds", [("no credentials directory", None),
                                        ("no passphrase in it", "empty")])
def test_a_run_without_the_passphrase_is_refused(tmp_path, case, creds):
    s = Setup(tmp_path, None)
    s.wrap("vondral", "touch %s/ran\n" % tmp_path)
    env = dict(os.environ, PATH="%s:%s" % (s.bin, os.environ["PATH"]))
    env.pop("CREDENTIALS_DIRECTORY", None)
    if creds:
        (tmp_path / creds).mkdir()
        env["CREDENTIALS_DIRECTORY"] = str(tmp_path / creds)
    r = subprocess.run([str(SCRIPT), "-f", str(s.conf)], capture_output=True, text=True,
                       timeout=60, env=env)
    assert r.returncode == 78 and "passphrase" in r.stderr.lower(), r.stderr
    assert not (tmp_path / "ran").exists() and s.files() == []


def test_extra_options_and_the_exclude_file_reach_vondral(tmp_path):
    """OPTIONS is split at blanks, never globbed; EXCLUDE becomes -e."""
    s = Setup(tmp_path, None, extra="EXCLUDE=/x y/ex\nOPTIONS=--tls -z 2 *\n")
    s.wrap("vondral", "for a; do echo \"[$a]\"; done > %s/args\n" % tmp_path)
    s.wrap("ctar", "exit 0\n")
    r = s.run()
    assert r.returncode == 0, r.stderr
    args = (tmp_path / "args").read_text().split("\n")[:-1]
    archive = next(a for a in args if a.endswith(".ctar]"))[1:-1]
    assert args == ["[-s]", "[127.0.0.1]", "[-c]", "[qsecofr:file:%s/passphrase]" % s.creds,
                    "[-i]", "[%s]" % (tmp_path / "prod.include"), "[-e]", "[/x y/ex]",
                    "[-b]", "[%s]" % archive, "[--summary]", "[%s.json]" % archive,
                    "[--tls]", "[-z]", "[2]", "[*]"]
