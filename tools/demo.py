"""A backup and a restore against simulated IBM i servers, shown step by
step. Run through `make demo`, inside a private network namespace."""
import os
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import simlib  # noqa: E402
from ctarread import read_archive  # noqa: E402


def step(text):
    print("\n==> " + text, flush=True)


def run(*args):
    print("$ " + " ".join(str(a) for a in args), flush=True)
    return subprocess.run([str(a) for a in args]).returncode


def main():
    work = tempfile.mkdtemp(prefix="vondral-demo-")
    source, target = os.path.join(work, "source"), os.path.join(work, "target")
    simlib.make_tree(source, simlib.sample_tree())
    os.makedirs(os.path.join(target, ".sim", "security"))
    os.makedirs(os.path.join(target, ".sim", "config"))
    vondral = simlib.vondral_bin()
    archive = os.path.join(work, "demo.ctar")
    catalog = os.path.join(work, "demo.catalog")
    first = simlib.Sim("127.0.0.10", source, None, state_dir=os.path.join(work, "sim1"))
    second = simlib.Sim("127.0.0.11", target, None, state_dir=os.path.join(work, "sim2"))
    try:
        first.start()
        step("Back up the sample server at 127.0.0.10 (catalog, -v2)")
        status = run(vondral, "-s", "127.0.0.10", "-c", "qsecofr:here:secret", "-b", archive,
                     "-C", catalog, "-v2")
        if status != 0:
            return status
        step("What the archive holds")
        for e in read_archive(archive):
            print("  %-40s %9d bytes  at offset %#x" % (e.name, e.size, e.offset))
        step("The catalog")
        with open(catalog) as f:
            print("".join("  " + line for line in f))
        second.start()
        step("Restore the archive into the empty server at 127.0.0.11")
        status = run(vondral, "-s", "127.0.0.11", "-c", "qsecofr:here:secret", "-r", archive)
        if status != 0:
            return status
        step("Compare the two servers' trees")
        # Only libraries are saved from QSYS.LIB; the sample's user profile
        # object there travels with the security data instead.
        differences = simlib.compare_trees(source, target, exclude=("QSYS.LIB/JOE.USRPRF",))
        if differences:
            print("\n".join("  " + d for d in differences))
            return 1
        print("  identical: every object, byte for byte")
        return 0
    finally:
        first.stop()
        second.stop()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
