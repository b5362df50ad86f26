import os
import re
import subprocess

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PREFIX = re.compile(r"^\[\d\d:\d\d:\d\d\] \[T(\d\d+)\] ")


def binary():
    return os.environ.get("VONDRAL_BIN") or os.path.join(ROOT, "build", "vondral")


class Result:
    def __init__(self, proc):
        self.status = proc.returncode
        self.out = proc.stdout
        self.err = proc.stderr

    @staticmethod
    def _strip(text):
        lines = []
        for line in text.splitlines():
            m = PREFIX.match(line)
            assert m, "line without the log prefix: %r" % line
            lines.append(line[m.end():])
        return lines

    @property
    def err_lines(self):
        return self._strip(self.err)

    @property
    def out_lines(self):
        return self._strip(self.out)


@pytest.fixture
def run():
    def _run(*args, **kwargs):
        proc = subprocess.run([binary(), *args], capture_output=True, text=True,
                              timeout=30, **kwargs)
        return Result(proc)
    return _run


@pytest.fixture
def usage_lines():
    with open(os.path.join(os.path.dirname(__file__), "usage.golden")) as f:
        return f.read().splitlines()
