"""What `make deb` makes: its control fields, every file it holds with its
mode, the programs and manual pages in it, and a real install and removal
with dpkg (as root only, and only when no vondral package is installed)."""
import gzip
import os
import re
import shutil
import stat
import subprocess
from pathlib import Path

import pytest

from conftest import REPO, architecture, project_version

# path in the package -> mode; directories the package makes for itself
# and nobody else owns are listed too
FILES = {
    "usr/bin/vondral": 0o755,
    "usr/bin/ctar": 0o755,
    "usr/lib/vondral/vondral-backup": 0o755,
    "usr/share/man/man1/vondral.1.gz": 0o644,
    "usr/share/man/man1/ctar.1.gz": 0o644,
    "usr/share/man/man8/vondral-backup.8.gz": 0o644,
    "usr/share/bash-completion/completions/vondral": 0o644,
    "usr/share/bash-completion/completions/ctar": 0o644,
    "lib/systemd/system/vondral-backup@.service": 0o644,
    "lib/systemd/system/vondral-backup@.timer": 0o644,
    "usr/share/doc/vondral/README.md": 0o644,
    "usr/share/doc/vondral/architecture.md": 0o644,
    "usr/share/doc/vondral/reliability.md": 0o644,
    "usr/share/doc/vondral/summary.md": 0o644,
    "usr/share/doc/vondral/copyright": 0o644,
    "usr/share/doc/vondral/examples/example.conf": 0o644,
    "usr/share/doc/vondral/examples/example.include": 0o644,
}
# directories of this package alone (removed with it) -> mode
OWN_DIRECTORIES = {
    "etc/vondral": 0o750,
    "usr/lib/vondral": 0o755,
    "usr/share/doc/vondral": 0o755,
    "usr/share/doc/vondral/examples": 0o755,
}
# the source of each file that is a copy of one in the tree
SOURCES = {
    "usr/lib/vondral/vondral-backup": "packaging/vondral-backup",
    "usr/share/bash-completion/completions/vondral": "packaging/completion/vondral",
    "usr/share/bash-completion/completions/ctar": "packaging/completion/ctar",
    "lib/systemd/system/vondral-backup@.service": "packaging/vondral-backup@.service",
    "lib/systemd/system/vondral-backup@.timer": "packaging/vondral-backup@.timer",
    "usr/share/doc/vondral/README.md": "README.md",
    "usr/share/doc/vondral/summary.md": "docs/summary.md",
    "usr/share/doc/vondral/examples/example.conf": "packaging/example.conf",
    "usr/share/man/man1/vondral.1.gz": "docs/vondral.1",
    "usr/share/man/man1/ctar.1.gz": "docs/ctar.1",
    "usr/share/man/man8/vondral-backup.8.gz": "docs/vondral-backup.8",
}


def control(deb):
    """The control fields of the package (dpkg-deb -I), continuation lines
    joined to their field."""
    text = subprocess.check_output(["dpkg-deb", "-f", str(deb)], text=True)
    fields, last = {}, None
    for line in text.splitlines():
        if line.startswith(" ") and last:
            fields[last] += "\n" + line[1:]
        else:
            last, _, value = line.partition(":")
            fields[last] = value.strip()
    return fields


def contents(deb):
    """{path: (type, mode, owner)} of every member (dpkg-deb -c)."""
    out = {}
    for line in subprocess.check_output(["dpkg-deb", "-c", str(deb)], text=True).splitlines():
        perms, owner, _size, _date, _time, name = line.split(None, 5)
        name = name.split(" -> ")[0].lstrip(".").strip("/")
        if name:
            mode = sum(0o400 >> i if c != "-" else 0 for i, c in enumerate(perms[1:10]))
            out[name] = (perms[0], mode, owner)
    return out


@pytest.mark.parametrize("field,check", [
    ("Package", lambda v: v == "vondral"),
    ("Version", lambda v: v == project_version()),
    ("Architecture", lambda v: v == architecture()),
    ("Maintainer", lambda v: re.fullmatch(r"[^<>]+ <[^<>@\s]+@[^<>@\s]+>", v)),
    ("Section", lambda v: v == "admin"),
    ("Priority", lambda v: v == "optional"),
    # computed from the programs' libraries: OpenSSL 3 and the C library
    ("Depends", lambda v: re.search(r"(^|, )libssl3( |,|$)", v) and re.search(r"(^|, )libc6 ", v)),
    ("Description", lambda v: len(v.splitlines()) >= 3 and "IBM i" in v),
])
def test_control_field(deb, field, check):
    fields = control(deb)
    assert field in fields, fields
    assert check(fields[field]), (field, fields[field])


def test_the_package_name_carries_version_and_architecture(deb):
    fields = control(deb)
    assert deb.name == "vondral_%s_%s.deb" % (fields["Version"], fields["Architecture"])


def test_the_package_holds_exactly_its_files_with_their_modes(deb):
    found = contents(deb)
    files = {name: mode for name, (kind, mode, _) in found.items() if kind != "d"}
    assert files == FILES
    for name, mode in OWN_DIRECTORIES.items():
        assert found[name][:2] == ("d", mode), (name, found[name])
    assert {owner for _, _, owner in found.values()} == {"root/root"}
    # The operator's directory is shipped empty: no configuration in /etc.
    assert [n for n in found if n.startswith("etc/")] == ["etc/vondral"]


@pytest.mark.parametrize("member,source", sorted(SOURCES.items()))
def test_a_packaged_file_is_the_one_of_the_tree(unpacked, member, source):
    data = (unpacked / member).read_bytes()
    if member.endswith(".gz"):
        data = gzip.decompress(data)
    assert data == (REPO / source).read_bytes()


def program_version(root, program):
    r = subprocess.run([str(root / "usr/bin" / program), "--version"], capture_output=True,
                       text=True, timeout=30)
    return r.returncode, r.stdout + r.stderr


def test_the_packaged_programs_run_and_tell_the_version(unpacked):
    status, out = program_version(unpacked, "vondral")
    assert status == 0 and re.search(r"\bvondral %s\b" % re.escape(project_version()), out), out
    r = subprocess.run([str(unpacked / "usr/bin/ctar"), "--help"], capture_output=True,
                       text=True, timeout=30)
    assert r.returncode == 0 and r.stdout.startswith("Usage: ctar"), r.stdout + r.stderr


@pytest.mark.parametrize("page,title", [
    ("usr/share/man/man1/vondral.1.gz", "VONDRAL(1)"),
    ("usr/share/man/man1/ctar.1.gz", "CTAR(1)"),
    ("usr/share/man/man8/vondral-backup.8.gz", "VONDRAL-BACKUP(8)"),
])
def test_a_manual_page_renders_without_warnings(unpacked, page, title):
    if not shutil.which("man"):
        pytest.skip("man (man-db) is not installed")
    r = subprocess.run(["man", "--warnings=w", "-l", str(unpacked / page)], capture_output=True,
                       text=True, timeout=60,
                       env=dict(os.environ, LC_ALL="C.UTF-8", MANWIDTH="80", MANPAGER="cat",
                                PAGER="cat"))
    assert r.returncode == 0 and r.stderr == "", r.stderr
    assert r.stdout.lstrip().startswith(title), r.stdout[:200]
    assert "NAME" in r.stdout and "SEE ALSO" in r.stdout


def verify_units(unit_dir, instance="test"):
    return subprocess.run(["systemd-analyze", "verify", "--man=no", "--generators=no",
                           "%s/vondral-backup@%s.service" % (unit_dir, instance),
                           "%s/vondral-backup@%s.timer" % (unit_dir, instance)],
                          capture_output=True, text=True, timeout=60)


@pytest.mark.parametrize("spoil", [None, ("service", "Bogus=1\n"),
                                   ("timer", "[Timer]\nOnCalendar=not a time\n")])
def test_systemd_analyze_accepts_the_units(tmp_path, spoil):
    """The templates as the tree has them, with the script at the path the
    package puts it replaced by the tree's copy (systemd checks that it is
    there). A spoiled copy shows that a fault would be seen."""
    if not shutil.which("systemd-analyze"):
        pytest.skip("systemd-analyze (systemd) is not installed")
    for kind in ("service", "timer"):
        text = (REPO / "packaging" / ("vondral-backup@." + kind)).read_text()
        text = text.replace("ExecStart=/usr/lib/vondral/vondral-backup ",
                            "ExecStart=%s " % (REPO / "packaging" / "vondral-backup"))
        if spoil and spoil[0] == kind:
            text += spoil[1]
        (tmp_path / ("vondral-backup@." + kind)).write_text(text)
    r = verify_units(tmp_path)
    if spoil is None:
        assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    else:
        assert r.returncode != 0 or "vondral-backup@" in r.stderr, r.stderr


# --- installing for real


def installed_state():
    r = subprocess.run(["dpkg-query", "-W", "-f=${Status}", "vondral"], capture_output=True,
                       text=True)
    return r.stdout if r.returncode == 0 else ""


def dpkg(*args):
    r = subprocess.run(["dpkg", *args], capture_output=True, text=True, timeout=300,
                       env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    assert r.returncode == 0, (args, r.stdout, r.stderr)
    return r


def enabled_links():
    """Anything in /etc/systemd naming our units (an enabled unit)."""
    etc = Path("/etc/systemd")
    return [str(p) for p in etc.rglob("vondral*")] if etc.is_dir() else []


@pytest.mark.parametrize("how", ["-r", "-P"])
def test_install_and_remove_leave_nothing_behind(deb, how):
    if os.getuid() != 0:
        pytest.skip("dpkg -i needs root (the suite runs as root in CI)")
    if installed_state() and "not-installed" not in installed_state():
        pytest.skip("a vondral package is installed already (%s); it is not this test's to "
                    "remove" % installed_state())
    members = contents(deb)
    ours = set(FILES) | set(OWN_DIRECTORIES)
    assert not [p for p in ours if os.path.lexists("/" + p)], "files of vondral lie around"
    try:
        dpkg("-i", str(deb))
        assert installed_state() == "install ok installed"
        for name in FILES:
            st = os.lstat("/" + name)
            assert stat.S_IMODE(st.st_mode) == members[name][1], name
        assert stat.S_IMODE(os.stat("/etc/vondral").st_mode) == 0o750
        status, out = program_version(Path("/"), "vondral")
        assert status == 0 and project_version() in out, out
        assert enabled_links() == [], "installing enabled a unit"
        if shutil.which("systemd-analyze"):
            r = verify_units("/lib/systemd/system")
            assert (r.returncode, r.stderr) == (0, ""), r.stderr
    finally:
        dpkg(how, "vondral")
    assert installed_state() in ("", "deinstall ok config-files" if how == "-r" else "",
                                 "unknown ok not-installed")
    assert [p for p in ours if os.path.lexists("/" + p)] == []
    if how == "-r":
        dpkg("-P", "vondral")
    assert installed_state() in ("", "unknown ok not-installed")
