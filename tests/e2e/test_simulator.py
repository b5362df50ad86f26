"""Tests of the simulated IBM i FTP server itself, driven with ftplib.

The client's end-to-end tests trust this simulator; what they rely on
without checking it themselves is pinned here: save files per session,
save and restore semantics, listing lines and fault injection.
"""

import contextlib
import ftplib
import io
import os
import select
import socket
import threading
import time

import pytest

import simlib
from simlib import Dir, File, Link, cl_path, savf

SAVF_DEV = "DEV('/QSYS.LIB/QTEMP.LIB/%s.FILE')"


def reply(f, line=None):
    """The server's reply to line (or the pending one), whatever its code."""
    try:
        return f.voidresp() if line is None else f.sendcmd(line)
    except ftplib.Error as e:
        return str(e)


def rcmd(f, cl):
    return reply(f, "RCMD " + cl)


def sav(path, extra=""):
    return "SAV %s OBJ((%s)) SUBTREE(*ALL)%s" % (SAVF_DEV % "SAV1", cl_path(path), extra)


def rst(path, crtprndir=True):
    return "RST %s OBJ((%s)) SUBTREE(*ALL) ALWOBJDIF(*ALL)%s" % (
        SAVF_DEV % "SAVTEMP", cl_path(path), " CRTPRNDIR(*YES)" if crtprndir else "")


def retr(f, path):
    buf = io.BytesIO()
    f.retrbinary("RETR " + path, buf.write, blocksize=1 << 20)
    return buf.getvalue()


def stor(f, path, data):
    return f.storbinary("STOR " + path, io.BytesIO(data), blocksize=1 << 20)


def drain(conn):
    """Everything a data connection delivers until the server closes it."""
    chunks = []
    with conn:
        while chunk := conn.recv(65536):
            chunks.append(chunk)
    return b"".join(chunks)


def save(sim, cl):
    """Run the save command cl into a new QTEMP/SAV1: (image, reply)."""
    f = sim.ftp()
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)").startswith("250")
    r = rcmd(f, cl)
    image = retr(f, savf("SAV1"))
    f.quit()
    return image, r


def restore(sim, image, *commands):
    """Upload image as QTEMP/SAVTEMP in a new session; replies to commands."""
    f = sim.ftp()
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAVTEMP)").startswith("250")
    stor(f, savf("SAVTEMP"), image)
    replies = [rcmd(f, cl) for cl in commands]
    f.quit()
    return replies


# --- what the client parses: greeting, SYST and listings


# test_login runs the client against the second one without seeing what it got
@pytest.mark.parametrize("config, release, time_reply", [
    ({}, "V5R4M0", "250"),
    ({"release": "V5R3M0", "time_supported": False}, "V5R3M0", "500 Unknown command"),
])
def test_greeting_syst_and_time(sim_factory, config, release, time_reply):
    f = sim_factory(config=config).connect()
    assert f.getwelcome() == ("220-QTCP at SIM.EXAMPLE.\n"
                              "220 Connection will close if idle more than 5 minutes.")
    f.login("qsecofr", "secret")
    assert reply(f, "SYST") == ('215  OS/400 is the remote operating system. '
                                'The TCP/IP version is "%s".' % release)
    assert reply(f, "TIME 86400 86400").startswith(time_reply)
    f.quit()


def list_raw(f, path):
    """Raw LIST data (line ends untouched) and the final reply."""
    f.voidcmd("TYPE A")
    data = drain(f.transfercmd("LIST " + path))
    return data, f.voidresp()


def test_list_lines(sim_factory):
    now = time.time()
    old = time.mktime((2009, 1, 2, 12, 0, 0, 0, 0, -1))
    ages = {"recent": -3, "day179": -179, "day181": -181, "future": 40}
    sim = sim_factory(tree={"home": {
        "old.dat": File(b"x" * 12345, 0o640, old),
        "shared": Dir({}, 0o2777, old),
        "lnk": Link("old.dat", old),
        **{name: File(b"1", 0o644, now + days * 86400) for name, days in ages.items()},
    }, ".sim": {"security": {}}})
    f = sim.ftp()
    data, final = list_raw(f, "/home")
    assert final.startswith("250")
    assert data.endswith(b"\r\n") and b"\n" not in data.replace(b"\r\n", b"")
    lines = data.decode().split("\r\n")[:-1]
    by_name = {line.split(None, 8)[8].split(" -> ")[0]: line for line in lines}
    assert len(by_name) == len(lines) and list(by_name) == sorted(by_name)
    expected = {
        "old.dat": "-rw-r-----   1 QSYS     0          12345 Jan  2  2009 old.dat",
        "shared": "drwxrwsrwx   2 QSYS     0        %7d Jan  2  2009 shared"
                  % os.stat(sim.root / "home/shared").st_size,
        "lnk": "lrwxrwxrwx   1 QSYS     0              7 Jan  2  2009 lnk -> old.dat",
    }
    for name, days in ages.items():
        # the time of day up to 180 days back, the year otherwise
        shape = "%b %e %H:%M" if -180 < days < 0 else "%b %e  %Y"
        expected[name] = "-rw-r--r--   1 QSYS     0              1 %s %s" % (
            time.strftime(shape, time.localtime(now + days * 86400)), name)
    assert by_name == expected
    assert list_raw(f, "/home/old.dat")[0] == expected["old.dat"].encode() + b"\r\n"
    for path in ("/.sim", "/.sim/security", "/home/none"):
        with pytest.raises(ftplib.error_perm, match="^550"):
            list_raw(f, path)
    f.quit()


# --- save files in QTEMP, SAV and RST


def test_save_files_belong_to_their_session_and_live_outside_the_tree(sim_factory):
    sim = sim_factory(tree={"home": {"x.txt": "data"}, ".sim": {"security": {}}})
    before = simlib.tree_digest(sim.root, mtimes=True)
    f, g = sim.ftp(), sim.ftp()
    assert rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)") == \
        "550 CPF9812 File SAV1 in library QTEMP not found."
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)").startswith("250")
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)").startswith("550 CPF5813")
    assert retr(f, savf("SAV1")) == b""
    # another session sees none of it, and may have a SAV1 of its own
    assert rcmd(g, sav("/home")).startswith("550 CPF9812")
    for transfer in (lambda: retr(g, savf("SAV1")), lambda: stor(g, savf("SAV1"), b"abc")):
        with pytest.raises(ftplib.error_perm, match="^550 CPF9812"):
            transfer()
    assert rcmd(g, "CRTSAVF FILE(QTEMP/SAV1)").startswith("250")

    assert rcmd(f, sav("/home")) == "250 2 objects saved."
    image = retr(f, "/qsys.lib/qtemp.lib/sav1.savf")  # any case
    assert image and retr(g, savf("SAV1")) == b""
    # a failed save leaves the previous image in place
    for missing in ("/home/none", "/.sim/security"):
        assert rcmd(f, sav(missing)).startswith("550 CPF3781"), missing
        assert retr(f, savf("SAV1")) == image, missing
    assert rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)").startswith("250")
    assert retr(f, savf("SAV1")) == b""
    f.quit()
    g.quit()
    assert simlib.tree_digest(sim.root, mtimes=True) == before
    # and they go with the session
    work = sim.state_dir / "work"
    deadline = time.time() + 5
    while any(work.iterdir()) and time.time() < deadline:
        time.sleep(0.05)
    assert list(work.iterdir()) == []


AWKWARD = "/home/it's a \"dir\""


def awkward_tree():
    old = time.time() - 1000 * 86400
    return {"home": {"it's a \"dir\"": Dir({
        "plain.txt": File("plain\n", 0o644, old),
        "name with  blanks ": File(b"blanks", 0o600),
        "say \"hi\" it's.bin": File(bytes(range(256)) * 300, 0o640, old),
        "ünïcödé.txt": "unicode",
        "sub dir": Dir({"deep": {"deeper.txt": "deep"},
                        "empty": Dir({}, 0o700, old)}, 0o750, old),
        "lnk": Link("plain.txt"),
        "dangling": Link("/nowhere/at all"),
    }, 0o2755, old), "other.txt": "not saved"}}


def test_sav_retr_stor_rst_reproduces_tree_exactly(sim_factory):
    src = sim_factory(tree=awkward_tree())
    image, r = save(src, sav(AWKWARD, " PRECHK(*NO) UPDHST(*NO) SAVACT(*YES)"))
    n_objects = len(simlib.tree_digest(src.root / AWKWARD[1:])) + 1
    assert r == "250 %d objects saved." % n_objects
    dst = sim_factory()
    assert restore(dst, image, rst(AWKWARD)) == ["250 %d objects restored." % n_objects]
    assert simlib.compare_trees(src.root / AWKWARD[1:], dst.root / AWKWARD[1:],
                                mtimes=True) == []
    assert simlib.compare_trees(src.root, dst.root, exclude=["home/other.txt"]) == []


def test_rst_replaces_existing_objects_and_keeps_others(sim_factory):
    sim = sim_factory(tree=awkward_tree())
    image, _ = save(sim, sav(AWKWARD))
    saved = simlib.tree_digest(sim.root, mtimes=True)
    d = sim.root / AWKWARD[1:]
    (d / "plain.txt").write_text("changed after the save")
    (d / "new since save").write_text("stays")
    os.unlink(d / "lnk")
    (d / "lnk").write_text("a file where the link was")
    assert restore(sim, image, rst(AWKWARD))[0].startswith("250 ")
    assert (d / "new since save").read_text() == "stays"
    assert simlib.tree_digest(sim.root, mtimes=True,
                              exclude=[AWKWARD[1:] + "/new since save"]) == saved


def test_sav_chgperiod_keeps_changed_files_and_all_directories(sim_factory):
    old = time.mktime((2020, 6, 1, 12, 0, 0, 0, 0, -1))
    recent = time.mktime((2024, 3, 5, 10, 30, 0, 0, 0, -1))
    src = sim_factory(tree={"data": Dir({
        "old.txt": File("old", mtime=old),
        "new.txt": File("new", mtime=recent),
        "olddir": Dir({"o.txt": File("o", mtime=old)}, mtime=old),
        "mixed": Dir({"n.txt": File("n", mtime=recent), "o.txt": File("o", mtime=old)},
                     mtime=old),
    }, mtime=old)})
    # the period starts at the very second of the recent files
    image, r = save(src, sav("/data", " CHGPERIOD('03/05/24' '10:30:00')"))
    assert r == "250 5 objects saved."  # 3 directories and 2 files
    dst = sim_factory()
    assert restore(dst, image, rst("/data")) == ["250 5 objects restored."]
    assert sorted(simlib.tree_digest(dst.root / "data")) == [
        "mixed", "mixed/n.txt", "new.txt", "olddir"]


def test_restore_refusals_and_parents_made_beforehand(sim_factory):
    src = sim_factory(tree={"data": {"sub": {"f.txt": "f"}},
                            "QSYS.LIB": {"PAY.LIB": {"X.FILE": "x"}}})
    obj, _ = save(src, sav("/data/sub"))
    lib, _ = save(src, "SAVLIB LIB(PAY) DEV(*SAVF) SAVF(QTEMP/SAV1)")
    dst = sim_factory()
    # Without CRTPRNDIR(*YES) the parent must exist, as on older releases,
    # where the client makes it with MKD first.
    assert restore(dst, obj, rst("/data/sub", crtprndir=False)) == [
        "550 CPFA0DA Parent directory not found. 0 objects restored."]
    assert list(dst.root.iterdir()) == []
    f = dst.ftp()
    assert f.sendcmd("MKD /data").startswith("257")
    f.quit()
    assert restore(dst, obj, rst("/data/sub", crtprndir=False)) == ["250 2 objects restored."]
    assert (dst.root / "data/sub/f.txt").read_text() == "f"

    rstlib = "RSTLIB SAVLIB(%s) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(*SAVLIB)"
    wrong_kind = "550 CPF3782 Save file SAVTEMP in QTEMP does not contain the requested kind"
    cases = [
        (obj, rst("/data/sub/none"), "550 CPF3780 Object not found in save file. 0 objects"),
        (obj, rst("/data"), "550 CPF3780 Object not found in save file. 0 objects"),
        (obj, rstlib % "SUB", wrong_kind),
        (obj, "RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP)", wrong_kind),
        (lib, rst("/QSYS.LIB/PAY.LIB"), wrong_kind),
        (lib, rstlib % "OTHER", "550 CPF3780 Library OTHER not found in save file."),
        (b"", rst("/data/sub"), "550 CPF3743 Save file SAVTEMP in QTEMP contains no data."),
    ]
    for image, command, expected in cases:
        got = restore(dst, image, command)[0]
        assert got.startswith(expected), (command, got)
    assert not (dst.root / "QSYS.LIB").exists() and not (dst.root / "QDLS").exists()


def test_rstusrprf_new_adds_only_missing_profiles(sim_factory):
    src = sim_factory(tree={".sim": {"security": {"QSECOFR": "sec", "JOE": "joe"}}})
    dst = sim_factory(tree={".sim": {"security": {"QSECOFR": "changed"}}})
    image, _ = save(src, "SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV1) PRECHK(*NO)")
    assert restore(dst, image,
                   "RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)",
                   "RSTAUT USRPRF(*ALL)") == [
        "250 1 objects restored.", "250 Command RSTAUT successful."]
    sec = dst.root / ".sim/security"
    assert {p.name: p.read_text() for p in sec.iterdir()} == {"QSECOFR": "changed",
                                                             "JOE": "joe"}
    # special objects are reachable only through their commands
    f = dst.ftp()
    assert reply(f, "RETR /.sim/security/JOE").startswith("550")
    f.quit()


# --- fault injection and reply overrides


def test_close_at_nth_command_counts_over_all_sessions(sim_factory):
    sim = sim_factory(config={"faults": [{"match": "^NOOP", "nth": 3, "action": "close"}]})
    f, g = sim.ftp(), sim.ftp()
    assert f.sendcmd("NOOP").startswith("2")
    assert g.sendcmd("NOOP").startswith("2")
    with pytest.raises((EOFError, OSError)):
        f.sendcmd("NOOP")  # the server's third NOOP, though the session's second
    assert g.sendcmd("NOOP").startswith("2")  # it fires once, in one session only
    g.quit()
    assert sim.lines(1) == ["USER qsecofr", "PASS secret", "NOOP", "NOOP"]
    assert [(x["session"], x["fault"], x["line"]) for x in sim.faults()] == [
        (1, "close", "NOOP")]


def test_refuse_logins_after(sim_factory):
    sim = sim_factory(config={"refuse_logins_after": 1})
    f = sim.ftp()
    for _ in range(2):
        g = sim.connect()
        with pytest.raises(ftplib.error_perm, match="^530 Login incorrect."):
            g.login("qsecofr", "secret")
        g.close()
    assert f.sendcmd("NOOP").startswith("2")
    f.quit()
    assert [x["fault"] for x in sim.faults()] == ["refuse_login"] * 2


def test_close_data_after_bytes_on_retr_list_and_stor(sim_factory):
    content = os.urandom(100000)
    sim = sim_factory(tree={"d": {"f.bin": content}}, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": {"close_data_after": {"bytes": 1000}}},
        {"match": "^LIST", "nth": 1, "action": {"close_data_after": {"bytes": 10}}},
        {"match": "^STOR", "action": "close_data_after", "bytes": 5000},
    ]})
    f = sim.ftp()
    f.voidcmd("TYPE I")
    assert drain(f.transfercmd("RETR /d/f.bin")) == content[:1000]
    assert reply(f).startswith("426")
    assert retr(f, "/d/f.bin") == content  # nth 1 only
    f.voidcmd("TYPE A")
    assert len(drain(f.transfercmd("LIST /d"))) == 10
    assert reply(f).startswith("426")

    f.voidcmd("TYPE I")
    conn = f.transfercmd("STOR /d/up.bin")
    with contextlib.suppress(OSError), conn:  # the server hangs up midway
        conn.sendall(os.urandom(200000))
    assert reply(f).startswith("426")
    assert (sim.root / "d/up.bin").stat().st_size == 5000
    assert f.sendcmd("NOOP").startswith("2")  # the session goes on
    f.quit()
    assert [x["fault"] for x in sim.faults()] == ["close_data_after"] * 3


def test_stall_data_and_close_after_data(sim_factory):
    content = os.urandom(50000)
    sim = sim_factory(tree={"f.bin": content}, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": {"stall_data": {"bytes": 100}}},
        {"match": "^RETR", "nth": 2, "action": "close_after_data"},
    ]})
    f = sim.ftp()
    f.voidcmd("TYPE I")
    conn = f.transfercmd("RETR /f.bin")
    conn.settimeout(1.0)
    got = b""
    with pytest.raises(socket.timeout):
        while True:
            chunk = conn.recv(65536)
            assert chunk, "the stalled connection must stay open"
            got += chunk
    assert got == content[:100]
    conn.close()  # the client gives up
    assert reply(f).startswith("426")
    assert f.sendcmd("NOOP").startswith("2")
    # all the data, then the control connection goes without a 226
    assert drain(f.transfercmd("RETR /f.bin")) == content
    with pytest.raises(EOFError):
        f.voidresp()
    f.close()


def test_delay_holds_only_its_own_session(sim_factory):
    sim = sim_factory(config={"faults": [
        {"match": "^NOOP", "action": {"delay": {"seconds": 1.5}}}]})
    slow, fast = sim.ftp(), sim.ftp()
    t0 = time.monotonic()
    th = threading.Thread(target=slow.sendcmd, args=("NOOP",))
    th.start()
    time.sleep(0.2)
    assert fast.pwd() == "/"
    assert time.monotonic() - t0 < 0.7
    th.join(5)
    assert time.monotonic() - t0 >= 1.4
    slow.quit()
    fast.quit()


ROUND_TRIP = 0.4


def timed(action):
    t0 = time.monotonic()
    result = action()
    return time.monotonic() - t0, result


@pytest.mark.parametrize("what, action, trips", [
    ("one command", lambda f: f.sendcmd("NOOP"), 1),
    ("two commands one after the other", lambda f: (f.sendcmd("NOOP"), f.sendcmd("NOOP")), 2),
    # Sent in one write: they cross the link together.
    ("two commands sent together",
     lambda f: (f.sock.sendall(b"NOOP\r\nNOOP\r\n"), f.getresp(), f.getresp()), 1),
    # ftplib sends TYPE A, PASV, then LIST, and the data connection is one more.
    ("a listing", lambda f: f.retrlines("LIST /", lambda line: None), 4),
])
def test_a_round_trip_is_paid_per_exchange_not_per_line(sim_factory, what, action, trips):
    sim = sim_factory(config={"round_trip_ms": ROUND_TRIP * 1000})
    f = sim.ftp()
    took, _ = timed(lambda: action(f))
    # At least the round trips; well under one more (a loaded machine adds
    # a little, never a whole round trip of 0.4 s).
    assert trips * ROUND_TRIP - 0.02 <= took < (trips + 0.75) * ROUND_TRIP, (what, took)
    f.quit()


def test_reply_overrides(sim_factory):
    partial = ("550-CPF3771 Partial save.\n"
               "550 CPF3771 1 objects saved. 1 objects not saved.")
    sim = sim_factory(tree={"a": {"x": "1"}, "b": {"y": "2"}}, config={"replies": [
        {"match": "^RCMD SAV .*\"/a\"", "reply": "550 CPF3771 12 objects saved. 3 not saved."},
        {"match": "^RCMD SAV .*\"/b\"", "nth": 2, "apply": True, "reply": partial},
    ]})
    f = sim.ftp()
    rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)")
    # replaced without being carried out: the save file stays empty
    assert rcmd(f, sav("/a")) == "550 CPF3771 12 objects saved. 3 not saved."
    assert retr(f, savf("SAV1")) == b""
    # only the second /b save is answered so, and it is carried out
    assert rcmd(f, sav("/b")) == "250 2 objects saved."
    first = retr(f, savf("SAV1"))
    rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)")
    assert rcmd(f, sav("/b")) == partial
    assert first and len(retr(f, savf("SAV1"))) == len(first)
    assert rcmd(f, sav("/b")) == "250 2 objects saved."
    f.quit()


# --- the helper library


def test_tree_helpers_detect_every_kind_of_difference(tmp_path):
    layout = {"d": {"f": File("abc", 0o644, 1000000000), "l": Link("f"), "e": {}}}
    a = simlib.make_tree(tmp_path / "a", layout)
    b = simlib.make_tree(tmp_path / "b", layout)
    assert simlib.compare_trees(a, b, mtimes=True) == []
    assert os.stat(a / "d/f").st_mtime == 1000000000

    (b / "d/f").write_text("abd")  # same size, other bytes
    os.utime(b / "d/f", (1000000000, 1000000000))
    assert simlib.compare_trees(a, b) == [
        "differs: d/f: %r != %r" % (simlib.tree_digest(a)["d/f"], simlib.tree_digest(b)["d/f"])]
    (b / "d/f").write_text("abc")
    os.chmod(b / "d/f", 0o600)
    assert len(simlib.compare_trees(a, b)) == 1
    assert simlib.compare_trees(a, b, modes=False) == []
    os.utime(b / "d/f", (1000000005, 1000000005))
    assert simlib.compare_trees(a, b, modes=False) == []
    assert len(simlib.compare_trees(a, b, modes=False, mtimes=True)) == 1
    os.unlink(b / "d/l")
    os.symlink("g", b / "d/l")
    os.rmdir(b / "d/e")
    (b / "d/new").write_text("")
    diffs = simlib.compare_trees(a, b, modes=False)
    assert len(diffs) == 3
    assert "only in %s: d/e" % a in diffs and "only in %s: d/new" % b in diffs
    assert simlib.compare_trees(a, b, modes=False, exclude=["d/e", "d/new", "d/l"]) == []
    assert simlib.cl_path("/a \"b\"/it's") == "'\"/a \"\"b\"\"/it''s\"'"


# --- hostile servers: replies without end, dripping data, bottomless trees


def read_for(sock, seconds):
    """What arrives on sock within `seconds` (less when it is closed)."""
    sock.settimeout(0.05)
    got = b""
    deadline = time.monotonic() + seconds
    for _ in range(100000):
        if time.monotonic() >= deadline:
            break
        try:
            chunk = sock.recv(65536)
        except socket.timeout:
            continue
        if not chunk:
            break
        got += chunk
    return got


def session_ended(sim, session, seconds=5):
    deadline = time.monotonic() + seconds
    for _ in range(1000):
        if any(r.get("session") == session and r.get("event") == "disconnect"
               for r in sim.records()):
            return True
        if time.monotonic() >= deadline:
            break
        time.sleep(0.05)
    return False


@pytest.mark.parametrize("ending", ["client hangs up", "server stops"])
@pytest.mark.parametrize("config, command, code, first", [
    ({"endless_greeting": True}, None, b"220-", b"220-QTCP at SIM.EXAMPLE."),
    ({"faults": [{"match": "^NOOP$", "action": "endless_reply"}]}, b"NOOP\r\n", b"250-",
     None),
], ids=["greeting", "reply"])
def test_endless_replies_never_end_until_one_side_does(sim_factory, config, command, code,
                                                       first, ending):
    sim = sim_factory(config=config)
    if command is None:
        sock = socket.create_connection((sim.addr, 21), timeout=5)
        hang_up = sock.close
    else:
        f = sim.ftp()
        sock, hang_up = f.sock, f.close  # its reader holds the socket too
        sock.sendall(command)
    lines = read_for(sock, 1.5).split(b"\r\n")[:-1]  # the last one may be cut
    # one line every 10 ms: far more than a reply has, none of them final
    assert len(lines) >= 20 and all(line.startswith(code) for line in lines), lines[:30]
    assert first is None or lines[0] == first
    if ending == "client hangs up":
        hang_up()
        assert session_ended(sim, 1)
    else:
        t0 = time.monotonic()
        sim.stop()
        assert sim.exit_status == 0 and time.monotonic() - t0 < 3
        sock.settimeout(3)
        assert not all(sock.recv(65536) for _ in range(1000))  # what was left, then the end
        hang_up()


@pytest.mark.parametrize("command", ["RETR /d/f.bin", "LIST /d"])
def test_drip_data_sends_a_few_bytes_at_a_time_forever(sim_factory, command):
    content = os.urandom(300)
    sim = sim_factory(tree={"d": {"f.bin": content}}, config={"faults": [
        {"match": "^(RETR|LIST)", "nth": 1, "action": "drip_data",
         "bytes": 40, "interval": 0.1}]})
    f = sim.ftp()
    f.voidcmd("TYPE I")
    conn = f.transfercmd(command)
    got = read_for(conn, 2.0)
    # after the first transfer the fault is spent: the real data, in one go
    payload = content if command.startswith("RETR") else None
    assert not select.select([f.sock], [], [], 0)[0]  # no final reply meanwhile
    conn.close()  # the client gives up
    assert reply(f).startswith("426")
    if payload is None:
        payload = drain(f.transfercmd(command))
        assert reply(f).startswith("2")
    # about 20 drops of at most 40 bytes in 2 s: the data, over and over
    assert len(payload) < len(got) <= 25 * 40
    assert got == (payload * (len(got) // len(payload) + 1))[:len(got)]
    assert f.sendcmd("NOOP").startswith("2")
    f.quit()


def test_pace_data_sends_everything_at_the_rate(sim_factory):
    content = os.urandom(150000)
    sim = sim_factory(tree={"f.bin": content}, config={"faults": [
        {"match": "^RETR", "nth": 1, "action": "pace_data", "bytes_per_second": 100000}]})
    f = sim.ftp()
    took = []
    for _ in range(2):  # paced, then (the fault spent) at full speed
        t0 = time.monotonic()
        assert retr(f, "/f.bin") == content
        took.append(time.monotonic() - t0)
    assert 1.3 < took[0] < 3 and took[1] < 0.5, took
    f.quit()


def test_endless_depth_lists_one_directory_d_at_every_depth(sim_factory):
    sim = sim_factory(tree={"home": {"x.txt": "1"}}, config={"endless_depth": ["/home/deep"]})
    f = sim.ftp()
    parent = list_raw(f, "/home")[0].decode().split("\r\n")[:-1]
    by_name = {line.split(None, 8)[8]: line for line in parent}
    assert sorted(by_name) == ["deep", "x.txt"] and by_name["deep"].startswith("d")
    for depth in (0, 1, 7, 60):
        data, final = list_raw(f, "/home/deep" + "/d" * depth)
        lines = data.decode().split("\r\n")
        assert final.startswith("250") and len(lines) == 2 and lines[1] == "", depth
        assert lines[0].startswith("d") and lines[0].split(None, 8)[8] == "d", depth
    assert f.nlst("/home/deep/d/d") == ["d"]
    for missing in ("/home/deep/e", "/home/deep/d/dd", "/home/deeper"):
        with pytest.raises(ftplib.error_perm, match="^550"):
            list_raw(f, missing)
    f.quit()


@pytest.mark.parametrize("path, config", [
    ("/home", {}),
    ("/home/a.txt", {}),
    ("/syn", {"synthetic_listings": {"/syn": 3}}),
    ("/home/deep/d", {"endless_depth": ["/home/deep"]}),
])
def test_unterminated_last_line_loses_only_its_line_end(sim_factory, path, config):
    tree = {"home": {"a.txt": "1", "b.txt": "22"}}
    whole = sim_factory(tree=tree, config=config)
    # one tree for both servers: two trees made a moment apart may straddle a
    # minute and list different dates
    cut = sim_factory(root=whole.root,
                      config=dict(config, unterminated_last_line=[path]))
    f, g = whole.ftp(), cut.ftp()
    expected = list_raw(f, path)[0]
    data, final = list_raw(g, path)
    assert final.startswith("250")
    assert expected.endswith(b"\r\n") and data == expected[:-2]
    # other listings keep their line ends
    assert list_raw(g, "/home/b.txt")[0] == list_raw(f, "/home/b.txt")[0]
    f.quit()
    g.quit()
