"""The progress line of a backup or restore: drawn at the bottom of a real
terminal (a pseudo-terminal here), erased before every log line and drawn
again after it, never wider than the terminal, left nowhere on the screen
at the end; and never written when standard error is not a terminal."""
import fcntl
import os
import re
import select
import struct
import subprocess
import termios
import time

import pytest

import simlib
from vlib import Run, creds

COLUMNS = 100
NARROW = 60  # where the lines of a restore from a pipe are cut
# Saves and restores that take a while, so that the line is drawn more than
# once while no log line is written; one object fails, so that a line on
# standard error comes between draws too.
SLOW = [{"match": r"RCMD .*f01", "action": "delay", "seconds": 2.2},
        {"match": r"RCMD RST", "nth": 1, "action": "delay", "seconds": 2.2}]
FAIL = [{"match": r"RCMD .*f03", "reply": "550 CPF3781 Object not found."}]
TREE = {"data": {"f%02d.txt" % i: "y" * (3000 * (i + 1)) for i in range(14)}}
OBJECTS = 16  # the fourteen files, the profiles and the configuration
DRAW = re.compile(r"vondral: (\d+)(?:/(\d+) objects| entr(?:y|ies)), ")
LOG = re.compile(r"\[\d\d:\d\d:\d\d\] \[T\d\d\] ")


def run_on(args, stderr_tty, stdout_tty, stdin=None, columns=COLUMNS, timeout=60):
    """Runs vondral with standard error and/or standard output on a
    pseudo-terminal `columns` wide; (status, terminal bytes, stdout bytes
    when not on the terminal, stderr bytes when not on the terminal)."""
    master, slave = os.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    proc = subprocess.Popen([simlib.vondral_bin(), *map(str, args)],
                            stdin=stdin if stdin is not None else subprocess.DEVNULL,
                            stdout=slave if stdout_tty else subprocess.PIPE,
                            stderr=slave if stderr_tty else subprocess.PIPE)
    os.close(slave)
    pipes = [p for p in (proc.stdout, proc.stderr) if p is not None]
    got = {p: b"" for p in pipes}
    screen = b""
    deadline = time.monotonic() + timeout
    open_ends = [master, *pipes]
    try:
        while open_ends:
            assert time.monotonic() < deadline, "vondral did not end in time"
            ready, _, _ = select.select(open_ends, [], [], 0.5)
            for end in ready:
                try:
                    data = os.read(end if end == master else end.fileno(), 65536)
                except OSError:  # the terminal's last writer is gone
                    data = b""
                if not data:
                    open_ends.remove(end)
                elif end == master:
                    screen += data
                else:
                    got[end] += data
        status = proc.wait(timeout=10)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        os.close(master)
    return status, screen, got.get(proc.stdout, b""), got.get(proc.stderr, b"")


def emulate(screen, columns=COLUMNS):
    """The rows a terminal shows after `screen` (carriage return, line feed
    and printable text), each with trailing blanks dropped."""
    rows, row, col = [], [], 0
    for ch in screen.decode("utf-8", "replace"):
        if ch == "\r":
            col = 0
        elif ch == "\n":
            rows.append("".join(row).rstrip())
            row, col = [], 0
        else:
            assert col < columns, "a line wider than the terminal: %r" % "".join(row)
            if col == len(row):
                row.append(ch)
            else:
                row[col] = ch
            col += 1
    return rows, "".join(row).rstrip()


def draws(screen):
    """The progress lines drawn, in order."""
    return [m.group(0) + piece[m.end():] for piece in screen.decode().split("\r")
            for m in [DRAW.match(piece)] if m]


def check_screen(screen, want_lines, columns=COLUMNS):
    """What the terminal shows at the end is the log lines and nothing else:
    no status text is left anywhere, the last row is empty; every log line
    written while the line was shown was preceded by its erasure and
    followed by a redraw."""
    rows, last = emulate(screen, columns)
    assert last == "", "the progress line stayed: %r" % last
    assert rows == want_lines
    text = screen.decode()
    drawn = draws(screen)
    assert drawn, "no progress line was drawn"
    for line in drawn:
        assert len(line) <= columns - 1, line
    # Log lines between the first and the last draw.
    first = text.index("\rvondral: ")
    last_draw = text.rindex("\rvondral: ")
    starts = [m.start() for m in LOG.finditer(text)]
    inside = [(at, following) for at, following in zip(starts, starts[1:] + [len(text)])
              if first < at < last_draw]
    assert inside, "no log line was written while the progress line was shown"
    for at, following in inside:
        # Erased: a carriage return, blanks over the line, a carriage return.
        assert re.search(r"\r +\r\Z", text[:at]), text[max(0, at - 200):at + 80]
        # Drawn again once the message (a quoted reply may add lines) ends.
        message, _, rest = text[at:following].partition("\rvondral: ")
        assert rest, "not drawn again after %r" % message
        assert message.endswith("\r\n") and "\r" not in message.replace("\r\n", ""), message


def objects_counted(drawn):
    return [(int(m.group(1)), int(m.group(2))) for m in map(DRAW.match, drawn)]


def elapsed_ticked(screen):
    """True when two draws in a row, with no log line between them, show
    different elapsed times: the line moves on its own."""
    pieces = re.split(r"(?=\rvondral: )", screen.decode())
    times = []
    for piece in pieces:
        m = re.match(r"\rvondral: .*?, (\d+:\d\d) elapsed", piece)
        if m and not LOG.search(piece):
            times.append(m.group(1))
        else:
            times.append(None)
    return any(a and b and a != b for a, b in zip(times, times[1:]))


@pytest.fixture
def slow_server(sim_factory):
    return sim_factory(config={"faults": SLOW, "replies": FAIL}, tree=TREE)


def backup_args(sim, work):
    (work / "data.inc").write_text("/data/*\n")
    return ["-s", sim.addr, "-c", creds(), "-b", work / "a.ctar", "-i", work / "data.inc"]


def test_a_backup_on_a_terminal_shows_its_progress_between_the_log_lines(slow_server, tmp_path):
    status, screen, _, _ = run_on(backup_args(slow_server, tmp_path), stderr_tty=True, stdout_tty=True)
    assert status == 1  # one object failed
    rows = emulate(screen)[0]
    assert all(LOG.match(row) or row.startswith("  ") for row in rows), [r for r in rows if not LOG.match(r)]
    assert any("Backup Failure: /data/f03.txt" in row for row in rows)
    check_screen(screen, rows)
    counted = objects_counted(draws(screen))
    # Every draw knows the plan; the count only grows, and reaches the end
    # before the line goes.
    assert {total for _, total in counted} == {OBJECTS}
    dones = [done for done, _ in counted]
    assert dones == sorted(dones) and dones[0] < OBJECTS
    assert max(dones) >= OBJECTS - 1
    assert elapsed_ticked(screen), "the elapsed time never moved between log lines"
    # The object in hand is named while it is saved.
    assert any(d.endswith(", /data/f01.txt") for d in draws(screen))
    assert any(re.search(r", \d+:\d\d left, ", d) for d in draws(screen))


@pytest.mark.parametrize("stderr_tty, stdout_tty, drawn", [
    (True, False, True),    # standard output to a file or pipe, the terminal keeps the line
    (False, True, False),   # the line belongs to standard error alone
    (False, False, False),  # a scheduler's pipes
])
def test_the_line_is_drawn_only_on_a_terminal_and_reaches_nothing_else(slow_server, tmp_path,
                                                                      stderr_tty, stdout_tty, drawn):
    status, screen, out, err = run_on(backup_args(slow_server, tmp_path), stderr_tty, stdout_tty)
    assert status == 1
    for captured in (out, err):
        assert b"\r" not in captured and b"vondral: " not in captured, captured[-300:]
        Run.strip(captured.decode())  # every line still parses as a log line
    assert bool(draws(screen)) == drawn
    if drawn:
        # The terminal holds only standard error's lines, whole.
        rows = emulate(screen)[0]
        assert rows and all(LOG.match(row) or row.startswith("  ") for row in rows), rows
        assert not any("Backup Success" in row for row in rows)
        check_screen(screen, rows)
    else:
        assert b"\r" not in screen.replace(b"\r\n", b"\n")


@pytest.mark.parametrize("through_stdin", [False, True])
def test_a_restore_on_a_terminal_counts_entries_and_knows_the_size_of_a_file(slow_server, sim_factory,
                                                                            tmp_path, through_stdin):
    status, _, _, _ = run_on(backup_args(slow_server, tmp_path), stderr_tty=False, stdout_tty=False)
    assert status == 1
    archive = tmp_path / "a.ctar"
    target = sim_factory(config={"faults": SLOW})
    columns = NARROW if through_stdin else COLUMNS
    args = ["-s", target.addr, "-c", creds(), "-r", "-" if through_stdin else archive]
    # A pipe: standard input redirected from the file would be the file.
    with subprocess.Popen(["cat", archive], stdout=subprocess.PIPE) as cat:
        status, screen, _, _ = run_on(args, stderr_tty=True, stdout_tty=True,
                                      stdin=cat.stdout if through_stdin else None, columns=columns)
    assert status == 0
    rows = emulate(screen, columns)[0]
    check_screen(screen, rows, columns)
    drawn = draws(screen)
    size = os.path.getsize(archive)
    if through_stdin:
        assert not any(" of " in d or " left" in d for d in drawn), drawn
    else:
        whole = "%.1f KiB" % (size / 1024)
        assert all((" of %s, " % whole) in d for d in drawn), (whole, drawn)
        assert any(re.search(r", \d+:\d\d left, ", d) for d in drawn), drawn
    entries = [int(DRAW.match(d).group(1)) for d in drawn]
    assert entries == sorted(entries)
    if through_stdin:
        # A line longer than the terminal is cut one column short of its width.
        assert max(len(d) for d in drawn) == NARROW - 1, drawn
    else:
        assert any(d.endswith(", /Security Data") for d in drawn), drawn
    assert elapsed_ticked(screen)
