"""Shared helpers for the end-to-end tests: the simulated IBM i server,
server trees, and the path of the client binary.

Tests run inside a private network namespace (tests/e2e/run_in_netns.sh),
where every simulated server gets its own 127.0.0.x address on port 21.
"""

import ftplib
import hashlib
import itertools
import json
import os
import select
import signal
import socket
import ssl
import stat
import subprocess
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
SIM_SCRIPT = REPO / "simulator" / "ibmi_sim.py"
PYTHON = "/usr/bin/python3"

DEFAULT_USER = "qsecofr"
DEFAULT_PASSWORD = "secret"


def repo_root():
    return REPO


def vondral_bin():
    """Path of the client binary: $VONDRAL_BIN (as ctest sets it), else the
    one `make` builds (build/vondral)."""
    env = os.environ.get("VONDRAL_BIN")
    return Path(env) if env else REPO / "build" / "vondral"


def in_netns():
    return os.environ.get("VONDRAL_NETNS") == "1"


_addresses = itertools.count()


def next_address():
    """A loopback address not handed out recently (127.0.0.2 .. .254)."""
    return "127.0.0.%d" % (next(_addresses) % 253 + 2)


class SimError(RuntimeError):
    pass


class Sim:
    """One simulated IBM i FTP server process.

    root: the server tree (objects are files and directories there).
    config: the simulator configuration (see simulator/README.md).
    state_dir: where config, log, stderr and session save files go; a new
    temporary directory when not given. It must not be inside root, so
    that trees can be compared byte for byte.
    port: by default 21, or 990 (ftps) when the config asks for implicit TLS.
    """

    def __init__(self, addr="127.0.0.5", root=None, config=None, port=None, state_dir=None):
        self.addr = addr
        if port is None:
            port = 990 if (config or {}).get("tls", {}).get("implicit") else 21
        self.port = port
        self.root = Path(root if root is not None else tempfile.mkdtemp(prefix="vondral-root-"))
        self.root.mkdir(parents=True, exist_ok=True)
        self.config = dict(config or {})
        self.state_dir = Path(state_dir if state_dir is not None
                              else tempfile.mkdtemp(prefix="vondral-sim-"))
        self.log_path = self.state_dir / "log.jsonl"
        self.stderr_path = self.state_dir / "stderr.txt"
        self.config_path = self.state_dir / "config.json"
        self.proc = None
        self.exit_status = None  # of the last stopped process

    @property
    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def start(self, timeout=10.0):
        """Launch the server and wait until it accepts connections. Starting
        again after stop() keeps the log and continues the session numbering."""
        if self.running:
            raise SimError("simulator already running")
        self.state_dir.mkdir(parents=True, exist_ok=True)
        self.config_path.write_text(json.dumps(self.config, indent=1))
        cmd = [PYTHON, str(SIM_SCRIPT), "--addr", self.addr, "--port", str(self.port),
               "--root", str(self.root), "--config", str(self.config_path),
               "--log", str(self.log_path), "--work", str(self.state_dir / "work"),
               "--first-session", str(max(self.sessions(), default=0) + 1)]
        with open(self.stderr_path, "ab") as err:
            self.proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=err,
                                         stdin=subprocess.DEVNULL,
                                         env=dict(os.environ, PYTHONDONTWRITEBYTECODE="1"))
        deadline = time.monotonic() + timeout
        out = b""
        while b"READY" not in out:
            left = deadline - time.monotonic()
            if left <= 0 or self.proc.poll() is not None:
                self.stop()
                raise SimError("simulator on %s did not start:\n%s"
                               % (self.addr, self.stderr_path.read_text(errors="replace")))
            if select.select([self.proc.stdout], [], [], left)[0]:
                out += os.read(self.proc.stdout.fileno(), 4096)
        return self

    def stop(self, timeout=5.0):
        """Terminate the server (SIGTERM, then SIGKILL); safe to repeat."""
        proc, self.proc = self.proc, None
        if proc is None:
            return
        if proc.poll() is None:
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(timeout)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        self.exit_status = proc.returncode
        if proc.stdout:
            proc.stdout.close()

    # --- clients

    def connect(self, timeout=10):
        """An ftplib connection, not logged in."""
        f = ftplib.FTP(timeout=timeout)
        f.connect(self.addr, self.port)
        return f

    def user(self):
        users = self.config.get("users") or {DEFAULT_USER: DEFAULT_PASSWORD}
        return next(iter(users.items()))

    def ftp(self, user=None, password=None, timeout=10):
        """An ftplib connection logged in with the configured user."""
        if user is None:
            user, password = self.user()
        f = self.connect(timeout)
        f.login(user, password)
        return f

    def ftp_tls(self, cafile, timeout=10, login=True):
        """An FTPS connection (explicit or implicit, as configured) that
        trusts cafile, logged in with PROT P unless login is false."""
        ctx = ssl.create_default_context(cafile=str(cafile))
        ctx.minimum_version = ssl.TLSVersion.TLSv1_2
        implicit = self.config.get("tls", {}).get("implicit", False)
        f = ResumingFTP_TLS(context=ctx, timeout=timeout, implicit=implicit)
        f.connect(self.addr, self.port)
        if login:
            f.login(*self.user())
            f.prot_p()
        return f

    # --- the log

    def records(self):
        """Every log record: commands, faults and connect/disconnect."""
        try:
            text = self.log_path.read_text(encoding="utf-8")
        except FileNotFoundError:
            return []
        out = []
        for line in text.splitlines():
            try:
                out.append(json.loads(line))
            except ValueError:
                pass  # an empty line, or the last one half written right now
        return out

    def commands(self):
        """Commands received: [{"session": n, "cmd": line, "t": time}]."""
        return [r for r in self.records() if "cmd" in r]

    def commands_of(self, session):
        return [r for r in self.commands() if r["session"] == session]

    def lines(self, session=None):
        """Just the command lines, optionally of one session."""
        return [r["cmd"] for r in self.commands() if session is None or r["session"] == session]

    def sessions(self):
        """Session ids seen so far (1 is the first connection)."""
        return sorted({r["session"] for r in self.records() if "session" in r})

    def faults(self):
        """Faults that fired: [{"session", "fault", "line", ...}]."""
        return [r for r in self.records() if "fault" in r]

    def wait_sessions_ended(self, timeout=10.0):
        """Wait until every session seen has ended ("disconnect" logged):
        what a client did just before it went away is then in the log."""
        deadline = time.monotonic() + timeout
        while True:
            events = [(r["session"], r["event"]) for r in self.records() if "event" in r]
            opened = {sid for sid, e in events if e == "connect"}
            if opened <= {sid for sid, e in events if e == "disconnect"}:
                return
            if time.monotonic() > deadline:
                raise SimError("sessions still open on %s: %s"
                               % (self.addr, sorted(opened)))
            time.sleep(0.02)

    # --- FTPS in the log

    def clear_lines(self):
        """Command lines received in clear on a server with FTPS, and the
        rest of a line cut short by a hang-up."""
        return [r.get("cmd", r.get("clear_rest")) for r in self.records()
                if r.get("clear") or "clear_rest" in r]

    def clear_data(self):
        """What data connections not under TLS brought in: [(bytes, the
        first 4 KiB as a latin-1 string)]."""
        return [(r["bytes"], r["clear_data"]) for r in self.records() if "clear_data" in r]

    def tls_events(self, on=None, event="tls"):
        """Handshakes (event "tls") or failed ones ("tls_failed") on the
        control or data connections."""
        return [r for r in self.records()
                if r.get("event") == event and on in (None, r["on"])]


class ResumingFTP_TLS(ftplib.FTP_TLS):
    """ftplib's FTPS client, but its data connections resume the control
    connection's TLS session (as servers that require reuse want), and
    with implicit=True it speaks TLS from the first byte."""

    def __init__(self, implicit=False, **kwargs):
        self.implicit = implicit
        super().__init__(**kwargs)

    def connect(self, host, port, timeout=-999, source_address=None):
        if not self.implicit:
            return super().connect(host, port)
        self.host, self.port = host, port
        sock = socket.create_connection((host, port), self.timeout)
        self.sock = self.context.wrap_socket(sock, server_hostname=host)
        self.af = self.sock.family
        self.file = self.sock.makefile("r", encoding=self.encoding)
        self.welcome = self.getresp()
        return self.welcome

    def ntransfercmd(self, cmd, rest=None):
        conn, size = ftplib.FTP.ntransfercmd(self, cmd, rest)
        if self._prot_p:
            conn = self.context.wrap_socket(conn, server_hostname=self.host,
                                            session=self.sock.session)
        return conn, size


# --- server trees

class File:
    def __init__(self, data=b"", mode=None, mtime=None):
        self.data = data.encode("utf-8") if isinstance(data, str) else data
        self.mode = mode
        self.mtime = mtime


class Dir:
    def __init__(self, children=None, mode=None, mtime=None):
        self.children = children or {}
        self.mode = mode
        self.mtime = mtime


class Link:
    def __init__(self, target, mtime=None):
        self.target = target
        self.mtime = mtime


def make_tree(root, layout):
    """Create files below root from a nested dict.

    Keys are names (or relative paths with "/"); values are bytes or str
    (a file), a dict (a directory), or File/Dir/Link for modes, mtimes
    and symbolic links. Directory mtimes are applied after their content.
    """
    root = Path(root)
    root.mkdir(parents=True, exist_ok=True)
    late = []

    def build(base, entries):
        for name, value in entries.items():
            path = base / name
            path.parent.mkdir(parents=True, exist_ok=True)
            if isinstance(value, dict):
                value = Dir(value)
            if isinstance(value, (bytes, str)):
                value = File(value)
            if isinstance(value, Dir):
                path.mkdir(exist_ok=True)
                build(path, value.children)
                late.append((path, value.mode, value.mtime))
            elif isinstance(value, Link):
                if os.path.lexists(path):
                    os.unlink(path)
                os.symlink(value.target, path)
                if value.mtime is not None:
                    os.utime(path, (value.mtime, value.mtime), follow_symlinks=False)
            elif isinstance(value, File):
                path.write_bytes(value.data)
                if value.mode is not None:
                    os.chmod(path, value.mode)
                if value.mtime is not None:
                    os.utime(path, (value.mtime, value.mtime))
            else:
                raise TypeError("bad tree entry %r: %r" % (name, value))

    build(root, layout)
    for path, mode, mtime in reversed(late):
        if mode is not None:
            os.chmod(path, mode)
        if mtime is not None:
            os.utime(path, (mtime, mtime))
    return root


def sample_tree(now=None):
    """A small server tree with the awkward cases a backup must survive:
    names with blanks, apostrophes and double quotes, an empty directory, a
    symbolic link, binary data, old and recent mtimes, libraries, document
    folders, non-library QSYS.LIB objects, security data and configuration."""
    old = (time.time() if now is None else now) - 400 * 86400
    return {
        "home": {
            "alice": {
                "notes.txt": File("hello\n", 0o640, old),
                "a b": {"it's \"quoted\".txt": File(b"quote\n" * 100), "empty dir": {}},
                "bin.dat": File(bytes(range(256)) * 64, 0o600),
                "link to notes": Link("notes.txt"),
            },
            "bob": Dir({"report.csv": "a,b\n1,2\n"}, 0o750),
        },
        "QSYS.LIB": {
            "PAYROLL.LIB": {"EMP.FILE": b"EMPDATA" * 50, "CALC.PGM": b"\x00\x01PGM"},
            "SALES.LIB": {"ORDERS.FILE": b"ORDERS"},
            "JOE.USRPRF": b"profile",
        },
        "QDLS": {"FOLDER1": {"DOC1.TXT": "doc one"}, "DOC2.TXT": "doc two"},
        ".sim": {"security": {"QSECOFR": "sec", "JOE": "joe"},
                 "config": {"LIND1": "line", "CTLD1": "ctl"}},
    }


def tree_digest(root, modes=True, mtimes=False, exclude=()):
    """{relative path: description} of everything below root.

    Files are described by size and SHA-256, links by their target,
    directories by kind; modes and (integer) mtimes of files, links and
    directories are added on request. exclude: relative paths left out
    together with what is below them.
    """
    root = Path(root)
    exclude = [e.strip("/") for e in exclude]
    out = {}
    for dirpath, dirnames, filenames in os.walk(root):
        dirnames.sort()
        for name in sorted(dirnames + filenames):
            full = os.path.join(dirpath, name)
            rel = os.path.relpath(full, root)
            if any(rel == e or rel.startswith(e + "/") for e in exclude):
                if name in dirnames:
                    dirnames.remove(name)
                continue
            st = os.lstat(full)
            if stat.S_ISLNK(st.st_mode):
                desc = ("link", os.readlink(full))
                if name in dirnames:
                    dirnames.remove(name)  # os.walk would not enter anyway
            elif stat.S_ISDIR(st.st_mode):
                desc = ("dir",)
            elif stat.S_ISREG(st.st_mode):
                with open(full, "rb") as f:
                    desc = ("file", st.st_size, hashlib.file_digest(f, "sha256").hexdigest())
            else:
                desc = ("other", stat.S_IFMT(st.st_mode))
            if modes and not stat.S_ISLNK(st.st_mode):
                desc += ("mode=%o" % stat.S_IMODE(st.st_mode),)
            if mtimes:
                desc += ("mtime=%d" % int(st.st_mtime),)
            out[rel] = desc
    return out


def compare_trees(a, b, **kwargs):
    """Differences between two trees as readable lines ([] when equal).
    Keyword arguments are those of tree_digest."""
    da, db = tree_digest(a, **kwargs), tree_digest(b, **kwargs)
    diffs = []
    for rel in sorted(set(da) | set(db)):
        if rel not in db:
            diffs.append("only in %s: %s" % (a, rel))
        elif rel not in da:
            diffs.append("only in %s: %s" % (b, rel))
        elif da[rel] != db[rel]:
            diffs.append("differs: %s: %r != %r" % (rel, da[rel], db[rel]))
    return diffs


def cl_path(path):
    """A server path the way the client writes it inside a CL command.

    Inside '...' an apostrophe is doubled, inside "..." a double quote is
    doubled; the client doubles both everywhere: '"/a ""b""/it''s"'.
    """
    return "'\"%s\"'" % path.replace("'", "''").replace('"', '""')


def savf(name):
    """Server path of a save file in the session's QTEMP library."""
    return "/QSYS.LIB/QTEMP.LIB/%s.SAVF" % name
