"""The README's examples, run as written, so that the text cannot drift from
the programs.

Every indented code block of README.md must follow a marker line
`<!-- readme-test: KIND -->`; an unmarked block fails the test. KIND is

  make      each `make TARGET` line: the target must exist (`make -n TARGET`);
            MAKE_TARGETS says where each is run for real, or why not.
  run       each command runs, in order, in one working directory, against a
            simulated server of the sample tree.
  synopsis  each line is a usage line: the words in capitals are filled in
            (ARCHIVE, NAME..., DIR, OUT) and every optional part is given.
  config    a configuration file of the scheduled backup, its path on the
            first line (`# /etc/vondral/NAME.conf`): the real script
            (packaging/vondral-backup --check) must accept it.
  setup     the scheduled backup's set-up as root (dpkg, systemctl): not run
            here; each command has its entry in SETUP, which checks that it
            names what the package, the units and the config block name.

A command of a `run` block is a line that is neither empty nor a comment,
with `\\` continuations joined. Comment lines starting with `#  ` (two
blanks) right after a command show its output; what the test makes of them
is said in EXPECTED. The README's text is changed only by these rules:

  - `ibmi.example.com` becomes the simulator's address;
  - the user stays `qsecofr` (the simulator's); its passphrase is in
    $IBMI_PASS and in /etc/vondral.key (for `file:` and `3<`);
  - local absolute paths under /backup, /etc and /tmp (a word of their own,
    or after `<`, `>`, `:` or `=`) move under the working directory
    (server paths such as /QSYS.LIB/... are untouched);
    /etc/vondral/ibmi-ca.pem is the test CA, whose server certificate the
    simulator presents to `--tls`;
  - `vondral` and `ctar` are the programs under test (first on PATH).

Every command has its entry in EXPECTED (a command of the README without
one, or an entry whose command left the README, fails the test), so none is
skipped unnoticed.
"""
import gzip
import os
import re
import shutil
import subprocess

import pytest

import simlib
from ctarread import read_archive
from test_ctar_tool import older_broken_archive
from vlib import PREFIX, decoded

README = simlib.repo_root() / "README.md"
MARKER = re.compile(r"^<!-- readme-test: (\S+) -->$")
KINDS = ("make", "run", "synopsis", "config", "setup")
LOCAL = re.compile(r"(?<![^\s<>:=])/(backup|etc|tmp)(?=/)")
CTAR = os.environ.get("CTAR_BIN") or str(simlib.repo_root() / "build" / "ctar")


def blocks(text):
    """[(marker kind or None, [lines without the indent])] of every indented
    code block; blank lines inside a block are kept."""
    found, lines = [], text.splitlines()
    i = 0
    while i < len(lines):
        if lines[i].startswith("    ") and (i == 0 or not lines[i - 1].strip()
                                            or MARKER.match(lines[i - 1])):
            m = MARKER.match(lines[i - 1]) if i else None
            body = []
            while i < len(lines) and (lines[i].startswith("    ") or not lines[i].strip()):
                body.append(lines[i][4:])
                i += 1
            while body and not body[-1].strip():
                body.pop()
            found.append((m.group(1) if m else None, body))
        else:
            i += 1
    return found


def commands(body):
    """[(command, [output lines])]: comments are dropped but for `#  `
    lines right after a command, which are its output."""
    out, pending = [], ""
    for line in body:
        if pending:
            line = pending + " " + line.strip()
            pending = ""
        stripped = line.strip()
        if stripped.startswith("#  ") and out and out[-1][2]:
            out[-1][1].append(stripped[3:])
            continue
        if out:
            out[-1][2] = False
        if not stripped or stripped.startswith("#"):
            continue
        if stripped.endswith("\\"):
            pending = stripped[:-1].rstrip()
            continue
        out.append([" ".join(stripped.split()), [], True])
    return [(c, o) for c, o, _ in out]


def readme_blocks(kind):
    return [b for k, b in blocks(README.read_text()) if k == kind]


def test_every_example_block_is_marked():
    found = blocks(README.read_text())
    assert found, "no indented block found: the parser no longer reads the README"
    unmarked = [b[0] for k, b in found if k not in KINDS]
    assert not unmarked, "blocks without a known readme-test marker: %r" % unmarked


# --- the make block


def make_targets():
    targets = []
    for body in readme_blocks("make"):
        for command, _ in commands(body):
            words = command.split("#")[0].split()
            assert words[0] == "make", command
            targets.append(words[1] if len(words) > 1 else "all")
    return targets


# Every target of the README, and why it is only dry-run here.
MAKE_TARGETS = {
    "all": "ctest runs on its build; tests/make runs it again through install and try",
    "install": "system-wide here; tests/make installs into a DESTDIR and uninstalls",
    "uninstall": "tests/make, after its install",
    "demo": "the ctest test demo runs tools/demo.py, which it runs",
    "try": "tests/make feeds it a script",
    "test": "it is the run this test is part of",
    "bench": "twenty minutes and 5 GiB of disk; run by hand (bench/results.md)",
    "deb": "tests/package runs it once per run and checks and installs the package",
}


def test_every_make_target_of_the_readme_is_accounted_for():
    assert sorted(make_targets()) == sorted(MAKE_TARGETS)


@pytest.mark.parametrize("target", make_targets())
def test_each_make_target_of_the_readme_exists(target):
    r = subprocess.run(["make", "-n", target], cwd=simlib.repo_root(), capture_output=True,
                       text=True, timeout=120)
    assert r.returncode == 0, r.stderr


# --- the run blocks


def listing_columns(line):
    """(kind, name) of a `ctar list` line: kind, size, date, time, name."""
    m = re.match(r"^(\S.*?)\s+\d+ \d{4}-\d\d-\d\d \d\d:\d\d (/.*)$", line)
    assert m, line
    return m.group(1), m.group(2)


def no_output(r, ctx, sample):
    assert r.stdout == "" and r.stderr == "", (r.stdout, r.stderr)


def login_only(r, ctx, sample):
    lines = ctx.sim.lines()
    assert [c.split()[0] for c in lines[:2]] == ["USER", "PASS"], lines
    assert not any(c.startswith(("LIST", "RETR", "STOR", "RCMD")) for c in lines), lines


def include_written(r, ctx, sample):
    assert (ctx.work / "include.txt").read_text().splitlines() == ["/home", "/QSYS.LIB"]


def listed_objects(r, ctx, sample):
    """The list descriptor gets exactly what is under /home and the
    libraries, and none of the log lines."""
    root = ctx.sim.root
    want = ["/home/%s%s" % (n, "/" if (root / "home" / n).is_dir() else "")
            for n in os.listdir(root / "home")]
    want += ["/QSYS.LIB/" + n for n in os.listdir(root / "QSYS.LIB") if n.endswith(".LIB")]
    assert sorted((ctx.work / "objects.txt").read_text().splitlines()) == sorted(want)
    assert "Total Run Time" in r.stdout  # the log line that stays out of the list


def shows_objects(r, ctx, sample):
    assert r.stdout == (ctx.work / "objects.txt").read_text()
    assert not any(PREFIX.match(line) for line in r.stdout.splitlines())


def whole_backup(r, ctx, sample):
    names = [e.name for e in read_archive(ctx.work / "backup" / "ibmi.ctar")]
    assert "/QSYS.LIB/PAYROLL.LIB" in names and "/home" in names, names
    catalog = (ctx.work / "backup" / "ibmi.catalog").read_text().splitlines()
    assert any(line.startswith("/home/") for line in catalog), catalog
    assert (ctx.work / "backup" / "failed.txt").read_text() == ""


def renaming_include(r, ctx, sample):
    assert (ctx.work / "include.txt").read_text() == \
        "/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/PAYTEST.LIB\n"


def gzip_the_backup(ctx):
    """The README's restore reads a gzipped archive: the backup above, gzipped."""
    data = (ctx.work / "backup" / "ibmi.ctar").read_bytes()
    (ctx.work / "ibmi.ctar.gz").write_bytes(gzip.compress(data))


def restored_under_new_name(r, ctx, sample):
    lib = ctx.sim.root / "QSYS.LIB"
    assert (lib / "PAYTEST.LIB").is_dir()
    assert simlib.tree_digest(lib / "PAYTEST.LIB") == simlib.tree_digest(lib / "PAYROLL.LIB")
    assert set(os.listdir(lib)) == ctx.before_restore | {"PAYTEST.LIB"}


def encrypted_backup(r, ctx, sample):
    assert "AUTH TLS" in ctx.sim.lines() and "PROT P" in ctx.sim.lines(), ctx.sim.lines()
    assert "/QSYS.LIB/PAYROLL.LIB" in [e.name for e in read_archive(ctx.work / "backup"
                                                                     / "ibmi.ctar")]


def archive_made(r, ctx, sample):
    assert read_archive(ctx.work / "backup" / "ibmi.ctar")


def verify_whole_and_damaged(r, ctx, sample):
    """A whole archive: status 0. The README's sample output is that of an
    older, damaged archive: the same command on one gives lines of the
    same kinds and status 1."""
    assert r.stdout.splitlines()[-1].startswith("result: whole"), r.stdout
    archive = ctx.work / "backup" / "ibmi.ctar"
    broken = ctx.work / "broken" / "backup" / "ibmi.ctar"
    broken.parent.mkdir(parents=True)
    broken.write_bytes(older_broken_archive(archive, 1))
    again = run_command(ctx, "ctar verify /backup/ibmi.ctar", base=ctx.work / "broken")
    assert again.returncode == 1, again.stdout + again.stderr
    heads = {tuple(line.split()[:2]) if line.startswith("result:") else line.split()[0]
             for line in sample}
    got = {tuple(line.split()[:2]) if line.startswith("result:") else line.split()[0]
           for line in again.stdout.splitlines()}
    assert heads <= got, (heads, again.stdout)


def salvaged(r, ctx, sample):
    assert [e.name for e in read_archive(ctx.work / "backup" / "ibmi-salvaged.ctar")] == \
        [e.name for e in read_archive(ctx.work / "backup" / "ibmi.ctar")]


def verified(r, ctx, sample):
    assert r.stdout.splitlines()[-1].startswith("result: whole"), r.stdout


def listed_like_the_sample(r, ctx, sample):
    got = {listing_columns(line) for line in r.stdout.splitlines()}
    assert sample and {listing_columns(line) for line in sample} <= got, r.stdout


def restored(r, ctx, sample):
    assert any(c.startswith("RCMD RST") for c in ctx.sim.lines()), ctx.sim.lines()


def made_directory(r, ctx, sample):
    assert (ctx.work / "tmp" / "savf").is_dir()


def extracted(r, ctx, sample):
    assert sample and all(line in (r.stdout + r.stderr).splitlines() for line in sample)
    for line in sample:
        saved = ctx.work / "tmp" / "savf" / line.split(" -> ")[1]
        assert saved.stat().st_size > 0


# README command (as the README has it, blanks squeezed) -> (status, check,
# preparation or None).
EXPECTED = {
    "vondral -s ibmi.example.com -c qsecofr:env:IBMI_PASS -t": (0, login_only, None),
    r"printf '/home\n/QSYS.LIB\n' > include.txt": (0, include_written, None),
    "vondral -s ibmi.example.com -c qsecofr:file:/etc/vondral.key -i include.txt -l 3 "
    "3>objects.txt": (0, listed_objects, None),
    "cat objects.txt": (0, shows_objects, None),
    "vondral -s ibmi.example.com -c qsecofr:fd:3 -b /backup/ibmi.ctar -C /backup/ibmi.catalog "
    "-n 4 3</etc/vondral.key 4>/backup/failed.txt": (0, whole_backup, None),
    "echo '/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/PAYTEST.LIB' > include.txt":
        (0, renaming_include, None),
    "zcat ibmi.ctar.gz | vondral -s ibmi.example.com -c qsecofr:env:IBMI_PASS -i include.txt "
    "-r -": (0, restored_under_new_name, gzip_the_backup),
    "vondral -s ibmi.example.com --tls --cacert /etc/vondral/ibmi-ca.pem -c qsecofr:env:IBMI_PASS "
    "-b /backup/ibmi.ctar": (0, encrypted_backup, None),
    "vondral -s ibmi.example.com -c qsecofr:fd:3 -b /backup/ibmi.ctar 3</etc/vondral.key":
        (0, archive_made, None),
    "ctar verify /backup/ibmi.ctar": (0, verify_whole_and_damaged, None),
    "ctar salvage /backup/ibmi.ctar /backup/ibmi-salvaged.ctar": (0, salvaged, None),
    "ctar verify /backup/ibmi-salvaged.ctar": (0, verified, None),
    "ctar list /backup/ibmi-salvaged.ctar": (0, listed_like_the_sample, None),
    "vondral -s ibmi.example.com -c qsecofr:env:IBMI_PASS -r /backup/ibmi-salvaged.ctar":
        (0, restored, None),
    "mkdir -p /tmp/savf": (0, made_directory, None),
    "ctar extract /backup/ibmi-salvaged.ctar /QSYS.LIB/PAYROLL.LIB -C /tmp/savf":
        (0, extracted, None),
}
# Checks that read the sample output lines; any other command with sample
# lines in the README fails, as its sample would go unchecked.
READS_SAMPLE = {verify_whole_and_damaged, listed_like_the_sample, extracted}


class Context:
    pass


def run_command(ctx, command, base=None):
    """Runs one README command with the substitutions of this module."""
    base = base or ctx.work
    text = command.replace("ibmi.example.com", ctx.sim.addr)
    text = LOCAL.sub(lambda m: str(base) + m.group(0), text)
    env = dict(os.environ, PATH="%s:%s" % (ctx.bin, os.environ["PATH"]),
               IBMI_PASS=simlib.DEFAULT_PASSWORD)
    r = subprocess.run(["/bin/sh", "-c", text], cwd=ctx.work, env=env, capture_output=True,
                       timeout=120)
    r.stdout, r.stderr = decoded(r.stdout), decoded(r.stderr)
    return r


def run_blocks():
    return [commands(body) for body in readme_blocks("run")]


def test_every_readme_command_has_its_expectation():
    seen = [c for block in run_blocks() for c, _ in block]
    assert sorted(set(seen) - set(EXPECTED)) == [], "README commands the test does not know"
    assert sorted(set(EXPECTED) - set(seen)) == [], "expectations of commands no longer there"
    unread = [c for block in run_blocks() for c, sample in block
              if sample and EXPECTED[c][1] not in READS_SAMPLE]
    assert unread == [], "sample output that nothing checks"


@pytest.mark.parametrize("block", run_blocks(), ids=lambda b: b[0][0].split(" # ")[0][:40])
def test_readme_block_runs_as_written(block, sim_factory, tls_certs, tmp_path):
    ctx = Context()
    ctx.work = tmp_path / "work"
    (ctx.work / "backup").mkdir(parents=True)
    (ctx.work / "tmp").mkdir()
    (ctx.work / "etc" / "vondral").mkdir(parents=True)
    (ctx.work / "etc" / "vondral.key").write_text(simlib.DEFAULT_PASSWORD + "\n")
    shutil.copy(tls_certs.ca, ctx.work / "etc" / "vondral" / "ibmi-ca.pem")
    ctx.bin = tmp_path / "bin"
    ctx.bin.mkdir()
    os.symlink(simlib.vondral_bin(), ctx.bin / "vondral")
    os.symlink(CTAR, ctx.bin / "ctar")
    tree = simlib.sample_tree()
    del tree["QSYS.LIB"]["JOE.USRPRF"]  # no object a backup saves
    config = None
    if any("--tls" in c for c, _ in block):
        cert, key = tls_certs.good
        config = {"tls": {"cert": str(cert), "key": str(key)}}
    ctx.sim = sim_factory(tree=tree, config=config)
    ctx.before_restore = set(os.listdir(ctx.sim.root / "QSYS.LIB"))
    for command, sample in block:
        status, check, prepare = EXPECTED[command]
        if prepare:
            prepare(ctx)
        r = run_command(ctx, command)
        assert r.returncode == status, (command, r.stdout, r.stderr)
        check(r, ctx, sample)


# --- the synopsis block

PLACEHOLDERS = {"ARCHIVE": "archive.ctar", "NAME...": "/QSYS.LIB/PAYROLL.LIB",
                "DIR": "savf", "OUT": "out.ctar"}


def synopses():
    lines = []
    for body in readme_blocks("synopsis"):
        lines += [line.split("#")[0].strip() for line in body if line.strip()]
    return lines


def filled(synopsis):
    """The synopsis with every optional part given and the capitals filled."""
    words = [w.strip("[]") for w in synopsis.split()]
    unknown = [w for w in words
               if not w.startswith("-") and w.rstrip(".").isupper() and w not in PLACEHOLDERS]
    assert not unknown, "no value for %r" % unknown
    return [PLACEHOLDERS.get(w, w) for w in words]


@pytest.mark.parametrize("synopsis", synopses())
def test_ctar_synopsis_runs_with_every_part_given(synopsis, sim_factory, tmp_path):
    tree = simlib.sample_tree()
    sim = sim_factory(tree=tree)
    r = subprocess.run([simlib.vondral_bin(), "-s", sim.addr, "-c", "qsecofr:here:secret",
                        "-b", tmp_path / "archive.ctar"], capture_output=True, timeout=120)
    assert r.returncode == 0, r.stderr
    (tmp_path / "savf").mkdir()
    words = filled(synopsis)
    assert words[0] == "ctar", synopsis
    r = subprocess.run([CTAR, *words[1:]], cwd=tmp_path, capture_output=True, text=True,
                       timeout=60)
    assert r.returncode == 0, (words, r.stdout, r.stderr)
    assert r.stdout.strip(), words


# --- the forms of -v the options table gives


def verbose_forms():
    """(form, refused) of every `-v...` the README's -v row shows."""
    row = next(line for line in README.read_text().splitlines()
               if line.startswith("| `-v`, `--verbose`"))
    meaning = row.split("|")[3]
    forms = []
    for part in re.split(r"[;,(]", meaning):
        for form in re.findall(r"`(-v[^`]*)`", part):
            forms.append((form, "refused" in part))
    return forms


def test_the_readme_shows_accepted_and_refused_verbose_forms():
    assert {refused for _, refused in verbose_forms()} == {True, False}, verbose_forms()


@pytest.mark.parametrize("form,refused", verbose_forms())
def test_verbose_form_of_the_readme(form, refused, sim_factory):
    sim = sim_factory()
    r = subprocess.run([simlib.vondral_bin(), *form.split(), "-s", sim.addr,
                        "-c", "qsecofr:here:secret", "-t"], capture_output=True, timeout=60)
    assert r.returncode == (255 if refused else 0), r.stderr
    assert bool(sim.lines()) != refused  # a refused command line reaches no server


# --- the scheduled backup: the config block and the set-up lines

SCRIPT = simlib.repo_root() / "packaging" / "vondral-backup"
PACKAGING = simlib.repo_root() / "packaging"


def config_blocks():
    return readme_blocks("config")


def config_of_readme():
    """(path named on the block's first line, {key: value}) of the one
    config block."""
    found = config_blocks()
    assert len(found) == 1, found
    body = found[0]
    m = re.fullmatch(r"# (/etc/vondral/[\w.@-]+\.conf)", body[0])
    assert m, "the config block does not start with its path: %r" % body[0]
    values = dict(line.split("=", 1) for line in body[1:] if line and not line.startswith("#"))
    return m.group(1), values


@pytest.mark.parametrize("body", config_blocks())
def test_readme_config_block_is_accepted_by_the_script(body, tmp_path):
    path, _ = config_of_readme()
    conf = tmp_path / os.path.basename(path)
    conf.write_text("\n".join(body) + "\n")
    r = subprocess.run([str(SCRIPT), "--check", "-f", str(conf)], capture_output=True,
                       text=True, timeout=30)
    assert (r.returncode, r.stderr) == (0, ""), r.stderr


def instance():
    return os.path.basename(config_of_readme()[0])[:-len(".conf")]


def the_package_built(words):
    version = re.search(r"^project\(vondral VERSION (\S+)",
                        (simlib.repo_root() / "CMakeLists.txt").read_text(), re.M).group(1)
    arch = subprocess.check_output(["dpkg", "--print-architecture"], text=True).strip()
    assert words == ["dpkg", "-i", "build/vondral_%s_%s.deb" % (version, arch)]


def include_from_the_example(words):
    assert words[:2] == ["cp", "/usr/share/doc/vondral/examples/example.include"]
    assert (PACKAGING / "example.include").is_file()
    assert words[2:] == [config_of_readme()[1]["INCLUDE"]]


def archive_directory(words):
    assert words == ["mkdir", "-p", config_of_readme()[1]["ARCHIVE_DIR"]]


def passphrase_file(words):
    """The file the service loads the passphrase from, private to root."""
    service = (PACKAGING / "vondral-backup@.service").read_text()
    source = re.search(r"^LoadCredential=passphrase:(\S+)$", service, re.M).group(1)
    assert words == ["install", "-m", "0600", "/dev/null", source.replace("%i", instance())]


def unit(words):
    """systemctl or journalctl on an instance of one of the templates, the
    one of the config block."""
    name = words[-1]
    m = re.fullmatch(r"vondral-backup@([\w.-]+)\.(service|timer)", name)
    assert m and m.group(1) == instance(), name
    assert (PACKAGING / ("vondral-backup@." + m.group(2))).is_file()


SETUP = {
    "dpkg -i build/vondral_1.0.0_amd64.deb": the_package_built,
    "cp /usr/share/doc/vondral/examples/example.include /etc/vondral/prod.include":
        include_from_the_example,
    "mkdir -p /var/backups/vondral": archive_directory,
    "install -m 0600 /dev/null /etc/vondral/prod.passphrase": passphrase_file,
    "systemctl enable --now vondral-backup@prod.timer": unit,
    "systemctl start vondral-backup@prod.service": unit,
    "systemctl status vondral-backup@prod.service": unit,
    "journalctl -u vondral-backup@prod.service": unit,
}


def setup_commands():
    return [command.split(" # ")[0].strip() for body in readme_blocks("setup")
            for command, _ in commands(body)]


def test_every_setup_command_has_its_check():
    assert sorted(setup_commands()) == sorted(SETUP)


@pytest.mark.parametrize("command", setup_commands())
def test_readme_setup_command_names_what_the_package_has(command):
    SETUP[command](command.split())
