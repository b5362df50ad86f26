"""A shell beside a simulated IBM i, to try the programs by hand. Run through
`make try`, inside a private network namespace: the server listens on a
loopback address that exists only there, and it is stopped when the shell
ends, however it ends. Commands may be piped in instead of typed."""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import simlib  # noqa: E402

ADDRESS = "127.0.0.2"


def main():
    if not simlib.in_netns():
        sys.exit("tools/try.py runs inside tools/netns.sh (make try)")
    work = tempfile.mkdtemp(prefix="vondral-try-")
    tree = os.path.join(work, "server")
    simlib.make_tree(tree, simlib.sample_tree())
    sim = simlib.Sim(ADDRESS, tree, None, state_dir=os.path.join(work, "sim"))
    user, password = simlib.DEFAULT_USER.upper(), simlib.DEFAULT_PASSWORD
    try:
        sim.start()
        print("A simulated IBM i listens on %s (FTP, port %d), in a network of its own."
              % (ADDRESS, sim.port))
        print("  user %s, passphrase %s; its files are under %s" % (user, password, tree))
        print("  try:  vondral -s %s -c %s:here:%s -t" % (ADDRESS, user, password))
        print("        vondral -s %s -c %s:here:%s -b try.ctar -v && ctar list try.ctar"
              % (ADDRESS, user, password))
        print("The server stops when this shell exits (exit or Ctrl-D).", flush=True)
        env = dict(os.environ, VONDRAL_TRY_SERVER=ADDRESS,
                   VONDRAL_TRY_SIM_PID=str(sim.proc.pid))
        shell = os.environ.get("SHELL") or "/bin/sh"
        # Ctrl-C belongs to the shell and what it runs; here it would stop
        # the server under them.
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        return subprocess.run([shell], env=env, cwd=work,
                              preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL)
                              ).returncode
    finally:
        sim.stop()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
