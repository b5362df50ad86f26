"""Running the real binary in end-to-end tests and reading its output."""
import re
import signal
import subprocess
import time

import simlib

PREFIX = re.compile(r"^\[\d\d:\d\d:\d\d\] \[T(\d\d+)\] ")


def decoded(data):
    """Output as text, the way text=True reads it, undecodable bytes kept."""
    if isinstance(data, str):
        return data
    return data.decode("utf-8", "surrogateescape").replace("\r\n", "\n").replace("\r", "\n")


class Run:
    def __init__(self, proc):
        self.status = proc.returncode
        self.out, self.err = (decoded(s) for s in (proc.stdout, proc.stderr))

    @staticmethod
    def strip(text):
        """Lines without the log prefix. The second line of a failure (the
        server's reply, indented by two blanks) and raw echoes carry no
        prefix; they are kept as they stand."""
        lines = []
        for line in text.splitlines():
            m = PREFIX.match(line)
            lines.append(line[m.end():] if m else line)
        return lines

    @staticmethod
    def threads(text):
        """(thread number, text) for every line."""
        out = []
        for line in text.splitlines():
            m = PREFIX.match(line)
            assert m, line
            out.append((int(m.group(1)), line[m.end():]))
        return out

    @property
    def out_lines(self):
        return self.strip(self.out)

    @property
    def err_lines(self):
        return self.strip(self.err)


def vondral(*args, timeout=120, **kwargs):
    """Runs the client to its end; input= (bytes) goes to standard input."""
    proc = subprocess.run([simlib.vondral_bin(), *map(str, args)], capture_output=True,
                          timeout=timeout, **kwargs)
    return Run(proc)


def creds(user="qsecofr", password="secret"):
    return "%s:here:%s" % (user, password)


def backup(sim, work, *args, include=None, exclude=None, tag="a", timeout=120):
    """A backup into work/TAG.ctar with its catalog and not-backed-up list
    beside it; include and exclude are the texts of the path files. The Run
    carries .archive, .catalog (lines) and .notbackedup (lines)."""
    extra = []
    for option, text, suffix in (("-i", include, ".inc"), ("-e", exclude, ".exc")):
        if text is not None:
            (work / (tag + suffix)).write_text(text)
            extra += [option, work / (tag + suffix)]
    archive, catalog, nbu = (work / (tag + s) for s in (".ctar", ".catalog", ".nbu"))
    with open(nbu, "w") as f:
        r = vondral("-s", sim.addr, "-c", creds(), "-b", archive, "-C", catalog,
                    "-n", f.fileno(), *extra, *args, pass_fds=(f.fileno(),), timeout=timeout)
    r.archive = archive
    r.catalog = catalog.read_text().splitlines() if catalog.exists() else []
    r.notbackedup = Run.strip(nbu.read_text())
    return r


def restore(sim, archive, *args, **kwargs):
    return vondral("-s", sim.addr, "-c", creds(), "-r", archive, *args, **kwargs)


def terminated(sim, *args, when, count=1):
    """Runs the client against sim and sends it SIGTERM once the server has
    seen `count` commands matching the pattern `when`."""
    proc = subprocess.Popen([simlib.vondral_bin(), "-s", sim.addr, "-c", creds(),
                             *map(str, args)], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        deadline = time.monotonic() + 20
        while sum(1 for c in sim.lines() if re.search(when, c)) < count:
            assert time.monotonic() < deadline and proc.poll() is None, "never saw " + when
            time.sleep(0.02)
        proc.send_signal(signal.SIGTERM)
        proc.stdout, proc.stderr = proc.communicate(timeout=60)
    finally:
        if proc.poll() is None:  # given up on: not left behind
            proc.kill()
            proc.communicate()
    return Run(proc)


def after(prefix, lines):
    """The rest of every line that starts with prefix."""
    return [line[len(prefix):] for line in lines if line.startswith(prefix)]


def has_fail(lines, module, text):
    """Whether one of lines is an internal failure line of the module."""
    pattern = re.compile(r"^vondral\[%s\.cpp,\d+\]: %s$" % (re.escape(module), re.escape(text)))
    return any(pattern.match(line) for line in lines)


def tool(name):
    """A test driver of the build (build/tests/NAME)."""
    return str(simlib.repo_root() / "build" / "tests" / name)


class Walk:
    """The include tree as the treewalk driver prints it."""

    def __init__(self, proc):
        self.status, self.err = proc.returncode, proc.stderr
        self.dirs, self.files, self.summary = {}, [], {}
        for line in proc.stdout.splitlines():
            path, _, rest = line[2:].rpartition(" size=")
            if line.startswith("D "):
                self.dirs[path] = dict(f.split("=") for f in ("size=" + rest).split() if "=" in f)
            elif line.startswith("F "):
                self.files.append(path)
            elif line.startswith("calls="):
                self.summary = dict(f.split("=") for f in line.split())


def treewalk(sim, *args, user="qsecofr", password="secret"):
    proc = subprocess.run([tool("treewalk"), sim.addr, user, password, *map(str, args)],
                          capture_output=True, text=True, timeout=120)
    return Walk(proc)
