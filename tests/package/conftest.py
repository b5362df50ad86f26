"""The Debian package, built once per test session with `make deb` against
the build directory the suite uses (BUILD_DIR, as ctest sets it; by
default build/)."""
import os
import re
import subprocess
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("BUILD_DIR") or REPO / "build")


def project_version():
    """The version project() in CMakeLists.txt sets, the one source of it."""
    m = re.search(r"^project\(vondral VERSION (\S+)", (REPO / "CMakeLists.txt").read_text(), re.M)
    assert m, "no project(vondral VERSION ...) in CMakeLists.txt"
    return m.group(1)


def architecture():
    return subprocess.check_output(["dpkg", "--print-architecture"], text=True).strip()


@pytest.fixture(scope="session")
def deb():
    """Path of the package `make deb` made."""
    path = BUILD / ("vondral_%s_%s.deb" % (project_version(), architecture()))
    if path.exists():
        path.unlink()  # a package from an earlier run proves nothing
    r = subprocess.run(["make", "--no-print-directory", "BUILD=%s" % BUILD, "deb"], cwd=REPO,
                       capture_output=True, text=True, timeout=600, stdin=subprocess.DEVNULL)
    assert r.returncode == 0, r.stdout + r.stderr
    assert path.is_file(), "make deb made no %s:\n%s" % (path.name, r.stdout)
    return path


@pytest.fixture(scope="session")
def unpacked(deb, tmp_path_factory):
    """The package's files, unpacked (dpkg-deb -x) into a directory."""
    root = tmp_path_factory.mktemp("unpacked")
    subprocess.run(["dpkg-deb", "-x", str(deb), str(root)], check=True, timeout=60)
    return root
