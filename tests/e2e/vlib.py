"""Running the real binary in end-to-end tests and reading its output."""
import re
import subprocess

import simlib

PREFIX = re.compile(r"^\[\d\d:\d\d:\d\d\] \[T(\d\d+)\] ")


class Run:
    def __init__(self, proc):
        self.status = proc.returncode
        self.out = proc.stdout
        self.err = proc.stderr

    @staticmethod
    def strip(text):
        """Lines without the log prefix. Messages of two lines (a failure and
        the server's reply text, indented by two blanks) and raw echoes carry
        the prefix on their first line only; those lines are kept as they
        stand."""
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
    proc = subprocess.run([simlib.vondral_bin(), *map(str, args)], capture_output=True,
                          text=True, errors="surrogateescape", timeout=timeout, **kwargs)
    return Run(proc)


def creds(user="qsecofr", password="secret"):
    return "%s:here:%s" % (user, password)


def fail_line(module, text):
    """A pattern for an internal failure line of the given module."""
    return re.compile(r"^vondral\[%s\.cpp,\d+\]: %s$" % (re.escape(module), re.escape(text)))


def has_fail(lines, module, text):
    pattern = fail_line(module, text)
    return any(pattern.match(line) for line in lines)


def tool(name):
    """A test driver of the build (build/tests/NAME)."""
    return str(simlib.repo_root() / "build" / "tests" / name)


class Walk:
    """The include tree as the treewalk driver prints it."""

    def __init__(self, proc):
        self.status = proc.returncode
        self.err = proc.stderr
        self.dirs = {}
        self.files = []
        self.summary = {}
        for line in proc.stdout.splitlines():
            if line.startswith("D "):
                path, _, rest = line[2:].rpartition(" size=")
                fields = dict(f.split("=") for f in ("size=" + rest).split() if "=" in f)
                self.dirs[path] = fields
            elif line.startswith("F "):
                path, _, rest = line[2:].rpartition(" size=")
                self.files.append(path)
            elif line.startswith("calls="):
                self.summary = dict(f.split("=") for f in line.split())


def treewalk(sim, *args, user="qsecofr", password="secret"):
    proc = subprocess.run([tool("treewalk"), sim.addr, user, password, *map(str, args)],
                          capture_output=True, text=True, timeout=120)
    return Walk(proc)
