"""The Makefile's operator targets: install and uninstall into a DESTDIR, the
check that names what the build lacks, and `make try` fed from a pipe.

BUILD_DIR (as ctest sets it) is the configured build directory the targets
use; by default the `build/` that `make` makes."""
import os
import re
import stat
import subprocess
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
BUILD = os.environ.get("BUILD_DIR") or str(REPO / "build")
INSTALLED = {"bin/vondral": 0o755, "bin/ctar": 0o755,
             "share/man/man1/vondral.1": 0o644, "share/man/man1/ctar.1": 0o644}


def make(*args, timeout=300, **kwargs):
    return subprocess.run(["make", "--no-print-directory", "BUILD=" + BUILD, *args], cwd=REPO,
                          capture_output=True, text=True, timeout=timeout, **kwargs)


def files_under(root):
    return {str(p.relative_to(root)) for p in Path(root).rglob("*") if not p.is_dir()}


# prefix, files there before the install (which must survive the uninstall)
INSTALLS = [
    ("/usr/local", []),
    ("/usr/local", ["usr/local/bin/other", "usr/local/share/man/man1/other.1"]),
    ("/opt/vondral", ["opt/vondral/bin/vondral.old"]),
]


@pytest.mark.parametrize("prefix,before", INSTALLS)
def test_uninstall_removes_exactly_what_install_put_in_place(prefix, before, tmp_path):
    dest = tmp_path / "dest"
    for name in before:
        (dest / name).parent.mkdir(parents=True, exist_ok=True)
        (dest / name).write_text("not ours\n")
    r = make("install", "DESTDIR=%s" % dest, "PREFIX=" + prefix)
    assert r.returncode == 0, r.stdout + r.stderr
    ours = {prefix.strip("/") + "/" + name: mode for name, mode in INSTALLED.items()}
    assert files_under(dest) == set(ours) | set(before)
    for name, mode in ours.items():
        assert stat.S_IMODE((dest / name).stat().st_mode) == mode, name
    for program in ("vondral", "ctar"):
        assert (dest / prefix.strip("/") / "bin" / program).read_bytes() == \
            Path(BUILD, program).read_bytes()

    r = make("uninstall", "DESTDIR=%s" % dest, "PREFIX=" + prefix)
    assert r.returncode == 0, r.stdout + r.stderr
    assert files_under(dest) == set(before)
    for name in before:
        assert (dest / name).read_text() == "not ours\n"


# what is on PATH -> what the check names (libssl-dev: the compiler cannot
# find the OpenSSL 3 headers)
CHECKS = [
    ({"cmake", "make", "g++"}, ""),
    ({"make", "g++"}, "cmake"),
    ({"cmake", "g++"}, "make"),
    ({"cmake", "make"}, "g++"),
    ({"cmake", "make", "g++ without headers"}, "libssl-dev"),
    ({"g++ without headers"}, "cmake make libssl-dev"),
    (set(), "cmake g++ make"),
]


def fake_path(directory, tools):
    """A PATH holding the tools named (as scripts that succeed, or a g++ that
    fails as one without the headers would) and the few commands the check
    itself runs."""
    directory.mkdir()
    for tool in tools:
        name = tool.split()[0]
        status = 1 if "without headers" in tool else 0
        (directory / name).write_text("#!/bin/sh\nexit %d\n" % status)
        (directory / name).chmod(0o755)
    for real in ("id", "dirname", "cat"):
        os.symlink("/usr/bin/" + real, directory / real)
    return str(directory)


@pytest.mark.parametrize("tools,missing", CHECKS)
def test_the_build_check_names_what_is_missing(tools, missing, tmp_path):
    r = subprocess.run(["/bin/sh", str(REPO / "tools" / "check-build.sh")], capture_output=True,
                       text=True, timeout=60,
                       env={"PATH": fake_path(tmp_path / "bin", tools), "VONDRAL_NO_INSTALL": "1"})
    assert r.stdout == ""
    if not missing:
        assert (r.returncode, r.stderr) == (0, "")
    else:
        assert r.returncode == 1
        assert r.stderr.splitlines()[0] == "the build needs: " + missing


def test_make_stops_at_the_check_before_cmake(tmp_path):
    """`make` on a machine without cmake says so first, and runs no cmake."""
    path = fake_path(tmp_path / "bin", {"g++"})
    os.symlink(subprocess.check_output(["sh", "-c", "command -v make"], text=True).strip(),
               tmp_path / "bin" / "make")
    r = subprocess.run(["make", "--no-print-directory", "BUILD=" + str(tmp_path / "build")],
                       cwd=REPO, capture_output=True, text=True, timeout=60,
                       env={"PATH": path, "VONDRAL_NO_INSTALL": "1"})
    assert r.returncode != 0
    assert "the build needs: cmake" in r.stderr
    assert "cmake -S" not in r.stdout and not (tmp_path / "build").exists()


def test_try_opens_a_shell_beside_a_simulated_server_and_stops_it_after():
    proc = subprocess.Popen(["make", "--no-print-directory", "BUILD=" + BUILD, "try"], cwd=REPO,
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    try:
        banner = []
        for line in proc.stdout:
            banner.append(line)
            m = re.match(r"^\s+try:\s+(vondral .* -t)$", line.rstrip("\n"))
            if m:
                sample = m.group(1)
                break
        else:
            pytest.fail("no sample command line in:\n" + "".join(banner))
        assert re.search(r"user QSECOFR, passphrase \S+", "".join(banner)), banner
        # An interrupt (Ctrl-C at a terminal) is the shell's business: the
        # server beside it stays.
        script = ("echo vondral is $(command -v vondral); kill -INT $PPID; sleep 0.2; %s; "
                  "echo login status $?; "
                  "echo simulator $VONDRAL_TRY_SIM_PID; exit 7\n" % sample)
        rest, _ = proc.communicate(script, timeout=120)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.communicate()
    assert proc.returncode != 0 and "Error 7" in rest  # the shell's status comes through
    lines = rest.splitlines()
    found = re.search(r"^vondral is (.*)$", rest, re.M).group(1)
    assert os.path.realpath(found) == os.path.realpath(os.path.join(BUILD, "vondral"))
    assert "login status 0" in lines, rest
    pid = int(re.search(r"^simulator (\d+)$", rest, re.M).group(1))
    try:  # the number may be reused by then, but not by a simulator
        cmdline = Path("/proc/%d/cmdline" % pid).read_bytes()
    except FileNotFoundError:
        cmdline = b""
    assert b"ibmi_sim" not in cmdline, "the simulator outlived the shell"


def nothing_installed(directory):
    """A PATH on which dpkg-query knows no package."""
    directory.mkdir()
    (directory / "dpkg-query").write_text("#!/bin/sh\nexit 1\n")
    (directory / "dpkg-query").chmod(0o755)
    return "%s:%s" % (directory, os.environ["PATH"])


# package set -> the packages it must name on a machine that has none
SETS = [
    ("build", "cmake g++ make libssl-dev"),
    ("demo", "cmake g++ make libssl-dev python3-pyftpdlib iproute2 util-linux"),
    ("deb", "cmake g++ make libssl-dev dpkg-dev file gzip"),
]


@pytest.mark.parametrize("name,packages", SETS)
def test_a_package_set_names_its_packages_when_not_installing(name, packages, tmp_path):
    r = subprocess.run([str(REPO / "tools" / "install-deps.sh"), name], capture_output=True,
                       text=True, timeout=60,
                       env=dict(os.environ, PATH=nothing_installed(tmp_path / "bin"),
                                VONDRAL_NO_INSTALL="1"))
    assert r.returncode == 1 and r.stdout == ""
    assert r.stderr.splitlines()[0] == "missing Debian packages: " + packages


@pytest.mark.parametrize("target", ["demo", "try"])
def test_demo_and_try_name_their_packages_before_building(target, tmp_path):
    r = subprocess.run(["make", "--no-print-directory", "BUILD=" + str(tmp_path / "build"),
                        target], cwd=REPO, capture_output=True, text=True, timeout=60,
                       stdin=subprocess.DEVNULL,
                       env=dict(os.environ, PATH=nothing_installed(tmp_path / "bin"),
                                VONDRAL_NO_INSTALL="1"))
    assert r.returncode != 0
    assert "python3-pyftpdlib" in r.stderr.splitlines()[0], r.stderr
    assert not (tmp_path / "build").exists()
