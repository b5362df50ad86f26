"""Tests of the simulated IBM i FTP server itself, driven with ftplib.

The end-to-end tests of the client trust this simulator, so its protocol
details, save/restore semantics and fault injection are pinned here.
"""

import ftplib
import io
import os
import socket
import threading
import time

import pytest

import simlib
from simlib import Dir, File, Link, cl_path, savf

SAVF_DEV = "DEV('/QSYS.LIB/QTEMP.LIB/%s.FILE')"
RST_DEV = SAVF_DEV % "SAVTEMP"
FTP_ERRORS = (ftplib.error_reply, ftplib.error_temp, ftplib.error_perm,
              ftplib.error_proto)


def reply(f, line):
    """The server's reply to a command, whatever its code."""
    try:
        return f.sendcmd(line)
    except FTP_ERRORS as e:
        return str(e)


def rcmd(f, cl):
    return reply(f, "RCMD " + cl)


def retr(f, path):
    buf = io.BytesIO()
    f.retrbinary("RETR " + path, buf.write, blocksize=1 << 20)
    return buf.getvalue()


def stor(f, path, data):
    return f.storbinary("STOR " + path, io.BytesIO(data), blocksize=1 << 20)


def list_raw(f, path):
    """Raw LIST data (bytes, line ends untouched) and the final reply."""
    f.voidcmd("TYPE A")
    conn = f.transfercmd("LIST " + path)
    chunks = []
    with conn:
        while True:
            b = conn.recv(65536)
            if not b:
                break
            chunks.append(b)
    return b"".join(chunks), f.voidresp()


def list_lines(f, path):
    data, _ = list_raw(f, path)
    return data.decode("utf-8", "surrogateescape").split("\r\n")[:-1]


def save_obj(sim, path, extra=""):
    """SAV path into a new save file and return the image bytes."""
    f = sim.ftp()
    try:
        assert rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)").startswith("250")
        r = rcmd(f, "SAV %s OBJ((%s)) SUBTREE(*ALL) PRECHK(*NO) UPDHST(*NO) "
                    "SAVACT(*YES)%s" % (SAVF_DEV % "SAV1", cl_path(path),
                                        extra))
        assert r.startswith("250 "), r
        return retr(f, savf("SAV1")), r
    finally:
        f.quit()


def upload_savtemp(sim, image):
    """A logged-in session whose SAVTEMP holds image."""
    f = sim.ftp()
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAVTEMP)").startswith("250")
    assert stor(f, savf("SAVTEMP"), image).startswith("226")
    return f


# --- environment, login, greeting, system information


def test_runs_in_private_namespace_with_distinct_addresses(sim_factory):
    assert os.environ.get("VONDRAL_NETNS") == "1"
    a, b = sim_factory(), sim_factory()
    assert a.addr != b.addr
    fa, fb = a.ftp(), b.ftp()
    assert fa.sock.getpeername() == (a.addr, 21)
    assert fb.sock.getpeername() == (b.addr, 21)
    fa.quit()
    fb.quit()
    assert a.sessions() == [1] and b.sessions() == [1]


def test_login_rules_and_default_greeting(sim_factory):
    sim = sim_factory(config={"users": {"qsecofr": "secret",
                                        "Backup": "Pw'd"}})
    f = sim.connect()
    assert f.getwelcome() == ("220-QTCP at SIM.EXAMPLE.\n"
                              "220 Connection will close if idle more than "
                              "5 minutes.")
    # nothing but login-free commands before PASS
    assert reply(f, "PWD").startswith("530")
    with pytest.raises(ftplib.error_perm, match="^530"):
        f.login("qsecofr", "SECRET")      # passwords are case-sensitive
    with pytest.raises(ftplib.error_perm, match="^530"):
        f.login("nobody", "secret")
    assert f.login("QSecOfr", "secret").startswith("230")  # names are not
    f.quit()
    g = sim.connect()
    assert g.login("BACKUP", "Pw'd").startswith("230")
    g.quit()
    lines = sim.lines(1)
    assert lines[:3] == ["PWD", "USER qsecofr", "PASS SECRET"]
    assert "PASS secret" in lines and lines[-1] == "QUIT"
    assert sim.lines(2) == ["USER BACKUP", "PASS Pw'd", "QUIT"]


def test_greeting_syst_and_time_are_configurable(sim_factory):
    default = sim_factory()
    f = default.ftp()
    assert f.sendcmd("SYST") == ('215  OS/400 is the remote operating '
                                 'system. The TCP/IP version is "V5R4M0".')
    assert f.sendcmd("TIME 86400 86400").startswith("250")
    f.quit()

    custom = sim_factory(config={"greeting": ["HELLO THERE"],
                                 "release": "V7R3M0",
                                 "time_supported": False})
    f = custom.connect()
    assert f.getwelcome() == "220 HELLO THERE"
    f.login("qsecofr", "secret")
    assert f.sendcmd("SYST").endswith('The TCP/IP version is "V7R3M0".')
    assert reply(f, "TIME 86400 86400") == "500 Unknown command"
    f.quit()

    three = sim_factory(config={"greeting": ["a", "b", "c"],
                                "syst_reply": "215 OS/400 is the remote "
                                              "operating system, V4R5M0"})
    f = three.connect()
    assert f.getwelcome() == "220-a\n220-b\n220 c"
    f.login("qsecofr", "secret")
    assert f.sendcmd("SYST") == ("215 OS/400 is the remote operating "
                                 "system, V4R5M0")
    f.quit()


def test_session_settings_and_directories(sim_factory):
    sim = sim_factory(tree={"home": {"a b": {}}, "f.txt": "x"})
    f = sim.ftp()
    assert f.sendcmd("STRU F").startswith("250")
    assert reply(f, "STRU R").startswith("504")
    assert f.sendcmd("MODE S").startswith("200")
    assert reply(f, "MODE B").startswith("504")
    assert f.sendcmd("TYPE I").startswith("200")
    assert f.sendcmd("TYPE A").startswith("200")
    assert reply(f, "TYPE E").startswith("504")
    assert f.sendcmd("SITE NAMEFMT 1").startswith("250")
    assert f.sendcmd("SITE LISTFMT 1").startswith("250")
    assert reply(f, "SITE NAMEFMT 7").startswith("501")
    assert f.sendcmd("NOOP").startswith("2")
    assert reply(f, "FEAT") == "500 Unknown command"

    assert f.sendcmd("MKD /home/a b/it's \"new\"").startswith("257")
    assert (sim.root / "home/a b/it's \"new\"").is_dir()
    assert reply(f, "MKD /home/a b").startswith("550")        # exists
    assert reply(f, "MKD /home/nope/x").startswith("550")     # no parent
    assert not (sim.root / "home/nope").exists()

    assert f.sendcmd("CWD /home/a b").startswith("250")
    assert f.pwd() == "/home/a b"
    assert reply(f, "CWD /f.txt").startswith("550")           # not a dir
    assert reply(f, "CWD /.sim").startswith("550")            # hidden
    assert f.pwd() == "/home/a b"
    f.quit()


# --- save files in QTEMP


def test_save_files_follow_crtsavf_clrsavf_rules_per_session(sim_factory):
    sim = sim_factory(tree={"home": {"x.txt": "data"}})
    before = simlib.tree_digest(sim.root, mtimes=True)
    f, g = sim.ftp(), sim.ftp()
    assert rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)") == \
        "550 CPF9812 File SAV1 in library QTEMP not found."
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)").startswith("250")
    assert rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)").startswith("550 CPF5813")
    assert retr(f, savf("SAV1")) == b""
    # saving needs the save file of this very session
    r = rcmd(g, "SAV %s OBJ((%s)) SUBTREE(*ALL)" % (SAVF_DEV % "SAV1",
                                                   cl_path("/home")))
    assert r.startswith("550 CPF9812")
    with pytest.raises(ftplib.error_perm, match="^550"):
        retr(g, savf("SAV1"))
    with pytest.raises(ftplib.error_perm, match="^550"):
        stor(g, savf("SAVTEMP"), b"abc")
    assert rcmd(g, "CRTSAVF FILE(QTEMP/SAV1)").startswith("250")

    r = rcmd(f, "SAV %s OBJ((%s)) SUBTREE(*ALL)" % (SAVF_DEV % "SAV1",
                                                   cl_path("/home")))
    assert r == "250 2 objects saved."
    assert len(retr(f, "/qsys.lib/qtemp.lib/sav1.savf")) > 0  # any case
    assert retr(g, savf("SAV1")) == b""
    assert rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)").startswith("250")
    assert retr(f, savf("SAV1")) == b""
    f.quit()
    g.quit()
    # save files live outside the server tree and go with their session
    assert simlib.tree_digest(sim.root, mtimes=True) == before
    work = sim.state_dir / "work"
    deadline = time.time() + 5
    while any(work.iterdir()) and time.time() < deadline:
        time.sleep(0.05)
    assert list(work.iterdir()) == []


# --- SAV / RST


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
    image, r = save_obj(src, AWKWARD)
    n_objects = len(simlib.tree_digest(src.root / AWKWARD[1:])) + 1
    assert r == "250 %d objects saved." % n_objects
    # the log keeps the command exactly as it came, CL doubling included
    assert ("OBJ(('\"/home/it''s a \"\"dir\"\"\"')) SUBTREE(*ALL)"
            in [c for c in src.lines() if c.startswith("RCMD SAV ")][0])

    dst = sim_factory()
    assert list(dst.root.iterdir()) == []
    f = upload_savtemp(dst, image)
    r = rcmd(f, "RST %s OBJ((%s)) SUBTREE(*ALL) ALWOBJDIF(*ALL) "
                "CRTPRNDIR(*YES)" % (RST_DEV, cl_path(AWKWARD)))
    assert r == "250 %d objects restored." % n_objects
    f.quit()
    assert simlib.compare_trees(src.root / AWKWARD[1:],
                                dst.root / AWKWARD[1:], mtimes=True) == []
    assert simlib.compare_trees(src.root, dst.root,
                                exclude=["home/other.txt"]) == []


def test_rst_replaces_existing_files_and_keeps_others(sim_factory):
    sim = sim_factory(tree=awkward_tree())
    image, _ = save_obj(sim, AWKWARD)
    saved = simlib.tree_digest(sim.root, mtimes=True)
    d = sim.root / AWKWARD[1:]
    (d / "plain.txt").write_text("changed after the save")
    (d / "new since save").write_text("stays")
    os.unlink(d / "lnk")
    (d / "lnk").write_text("a file where the link was")
    f = upload_savtemp(sim, image)
    r = rcmd(f, "RST %s OBJ((%s)) SUBTREE(*ALL) ALWOBJDIF(*ALL)"
             % (RST_DEV, cl_path(AWKWARD)))
    assert r.startswith("250 ")
    f.quit()
    assert (d / "new since save").read_text() == "stays"
    assert simlib.tree_digest(sim.root, mtimes=True, exclude=[
        AWKWARD[1:] + "/new since save"]) == saved


def test_sav_of_missing_object_keeps_previous_image(sim_factory):
    sim = sim_factory(tree={"home": {"a": "1"}, ".sim": {"security": {}}})
    f = sim.ftp()
    rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)")
    assert rcmd(f, "SAV %s OBJ((%s))" % (SAVF_DEV % "SAV1",
                                         cl_path("/home"))).startswith("250")
    first = retr(f, savf("SAV1"))
    for missing in ("/home/none", "/.sim/security"):
        r = rcmd(f, "SAV %s OBJ((%s))" % (SAVF_DEV % "SAV1",
                                          cl_path(missing)))
        assert r.startswith("550 CPF3781"), r
        assert retr(f, savf("SAV1")) == first
    f.quit()


def test_sav_chgperiod_keeps_changed_files_and_all_directories(sim_factory):
    old = time.mktime((2020, 6, 1, 12, 0, 0, 0, 0, -1))
    recent = time.mktime((2024, 3, 5, 10, 30, 0, 0, 0, -1))
    src = sim_factory(tree={"data": Dir({
        "old.txt": File("old", mtime=old),
        "new.txt": File("new", mtime=recent),
        "olddir": Dir({"o.txt": File("o", mtime=old)}, mtime=old),
        "mixed": Dir({"n.txt": File("n", mtime=recent),
                      "o.txt": File("o", mtime=old)}, mtime=old),
    }, mtime=old)})
    # the period starts at the very second of the recent files
    image, r = save_obj(src, "/data",
                        " CHGPERIOD('03/05/24' '10:30:00')")
    assert r == "250 5 objects saved."  # 3 directories and 2 files
    dst = sim_factory()
    f = upload_savtemp(dst, image)
    assert rcmd(f, "RST %s OBJ((%s)) SUBTREE(*ALL) CRTPRNDIR(*YES)"
                % (RST_DEV, cl_path("/data"))).startswith("250 5 ")
    f.quit()
    got = sorted(simlib.tree_digest(dst.root / "data"))
    assert got == ["mixed", "mixed/n.txt", "new.txt", "olddir"]


def test_rst_with_include_and_omit(sim_factory):
    tree = {"data": {"keep": {"a.txt": "a", "c.txt": "c",
                              "skip": {"b.txt": "b"},
                              "skip2": {"x": "x"}},
                     "other": {"d.txt": "d"}}}
    src = sim_factory(tree=tree)
    image, _ = save_obj(src, "/data")
    dst = sim_factory(tree={"restored": {}})
    f = upload_savtemp(dst, image)
    r = rcmd(f, "RST %s OBJ((%s *INCLUDE %s) (%s *OMIT) (%s *OMIT)) "
                "SUBTREE(*ALL) ALWOBJDIF(*ALL)"
             % (RST_DEV, cl_path("/data/keep"), cl_path("/restored/k"),
                cl_path("/data/keep/skip"), cl_path("/restored/k/skip2")))
    assert r == "250 3 objects restored."
    # a single file from inside the image, to its own path
    r = rcmd(f, "RST %s OBJ((%s)) CRTPRNDIR(*YES)"
             % (RST_DEV, cl_path("/data/other/d.txt")))
    assert r == "250 1 objects restored."
    f.quit()
    assert sorted(simlib.tree_digest(dst.root)) == [
        "data", "data/other", "data/other/d.txt", "restored",
        "restored/k", "restored/k/a.txt", "restored/k/c.txt"]
    assert (dst.root / "restored/k/a.txt").read_text() == "a"


def test_rst_refusals(sim_factory):
    src = sim_factory(tree={"data": {"sub": {"f.txt": "f"}}})
    image, _ = save_obj(src, "/data/sub")
    dst = sim_factory()
    f = upload_savtemp(dst, image)
    cmd = "RST %s OBJ((%s)) SUBTREE(*ALL) ALWOBJDIF(*ALL)" % (
        RST_DEV, cl_path("/data/sub"))
    assert rcmd(f, cmd) == ("550 CPFA0DA Parent directory not found. "
                            "0 objects restored.")
    assert rcmd(f, "RST %s OBJ((%s *INCLUDE %s))" % (
        RST_DEV, cl_path("/data/sub"), cl_path("/x/y/z"))).startswith(
            "550 CPFA0DA")
    assert list(dst.root.iterdir()) == []
    assert rcmd(f, "RST %s OBJ((%s)) CRTPRNDIR(*YES)" % (
        RST_DEV, cl_path("/data/sub/none"))) == (
            "550 CPF3780 Object not found in save file. 0 objects restored.")
    assert rcmd(f, "RST %s OBJ((%s)) CRTPRNDIR(*YES)" % (
        RST_DEV, cl_path("/data"))).startswith("550 CPF3780")
    # the wrong kind of image for the restore command
    assert rcmd(f, "RSTLIB SAVLIB(DATA) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) "
                   "RSTLIB(*SAVLIB)").startswith("550")
    assert rcmd(f, "RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP)"
                ).startswith("550")
    # lower-case CRTPRNDIR value works too
    assert rcmd(f, cmd + " CRTPRNDIR(*Yes)") == "250 2 objects restored."
    assert (dst.root / "data/sub/f.txt").read_text() == "f"
    # empty and garbage save files
    assert rcmd(f, "CLRSAVF FILE(QTEMP/SAVTEMP)").startswith("250")
    assert rcmd(f, cmd) == ("550 CPF3743 Save file SAVTEMP in QTEMP "
                            "contains no data.")
    stor(f, savf("SAVTEMP"), b"this is not a save file" * 100)
    assert rcmd(f, cmd).startswith("550 CPF3743")
    f.quit()


# --- libraries, documents, security data, configuration


def test_savlib_rstlib_with_rename(sim_factory):
    sim = sim_factory(tree=simlib.sample_tree())
    f = sim.ftp()
    rcmd(f, "CRTSAVF FILE(QTEMP/SAV3)")
    assert rcmd(f, "SAVLIB LIB(NOSUCH) DEV(*SAVF) SAVF(QTEMP/SAV3)"
                ).startswith("550 CPF3781")
    r = rcmd(f, "SAVLIB LIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAV3) PRECHK(*NO)"
                " UPDHST(*NO) SAVACT(*SYNCLIB) SAVACTWAIT(*NOMAX) "
                "ACCPTH(*YES)")
    assert r == "250 2 objects saved from library PAYROLL."
    image = retr(f, savf("SAV3"))
    f.quit()

    f = upload_savtemp(sim, image)
    assert rcmd(f, "RSTLIB SAVLIB(SALES) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) "
                   "RSTLIB(X)").startswith("550")
    assert rcmd(f, "RST %s OBJ((%s)) CRTPRNDIR(*YES)" % (
        RST_DEV, cl_path("/QSYS.LIB/PAYROLL.LIB"))).startswith("550")
    r = rcmd(f, "RSTLIB SAVLIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) "
                "RSTLIB(PAYCOPY) MBROPT(*ALL) ALWOBJDIF(*ALL)")
    assert r.startswith("250 2 objects restored")
    f.quit()
    lib = sim.root / "QSYS.LIB"
    assert simlib.compare_trees(lib / "PAYROLL.LIB", lib / "PAYCOPY.LIB",
                                mtimes=True) == []

    fresh = sim_factory()
    f = upload_savtemp(fresh, image)
    assert rcmd(f, "RSTLIB SAVLIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) "
                   "RSTLIB(*SAVLIB) MBROPT(*ALL) ALWOBJDIF(*ALL)"
                ).startswith("250 2 ")
    f.quit()
    assert simlib.compare_trees(lib / "PAYROLL.LIB",
                                fresh.root / "QSYS.LIB/PAYROLL.LIB") == []


def special_round_trip(src, dst, save_cl, restore_cl):
    f = src.ftp()
    rcmd(f, "CRTSAVF FILE(QTEMP/SAV9)")
    r = rcmd(f, save_cl)
    assert r.startswith("250 "), r
    image = retr(f, savf("SAV9"))
    f.quit()
    f = upload_savtemp(dst, image)
    r = rcmd(f, restore_cl)
    f.quit()
    return r


def test_savdlo_rstdlo_and_savcfg_rstcfg(sim_factory):
    src = sim_factory(tree=simlib.sample_tree())
    dst = sim_factory(tree={".sim": {"config": {"LIND1": "old"}}})
    r = special_round_trip(
        src, dst, "SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV9) "
                  "SAVACT(*YES)",
        "RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)")
    assert r == "250 3 objects restored."
    assert simlib.compare_trees(src.root / "QDLS", dst.root / "QDLS",
                                mtimes=True) == []
    r = special_round_trip(
        src, dst, "SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV9) PRECHK(*NO)",
        "RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)")
    assert r == "250 2 objects restored."
    assert simlib.compare_trees(src.root / ".sim/config",
                                dst.root / ".sim/config") == []


def test_savsecdta_rstusrprf_restores_only_new_profiles(sim_factory):
    src = sim_factory(tree={".sim": {"security": {"QSECOFR": "sec",
                                                  "JOE": "joe"}}})
    dst = sim_factory(tree={".sim": {"security": {"QSECOFR": "changed"}}})
    r = special_round_trip(
        src, dst, "SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV9) PRECHK(*NO)",
        "RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) "
        "ALWOBJDIF(*ALL)")
    assert r == "250 1 objects restored."
    sec = dst.root / ".sim/security"
    assert (sec / "QSECOFR").read_text() == "changed"
    assert (sec / "JOE").read_text() == "joe"
    f = dst.ftp()
    assert rcmd(f, "RSTAUT USRPRF(*ALL)") == \
        "250 Command RSTAUT successful."
    assert rcmd(f, "DSPJOB OUTPUT(*PRINT)") == \
        "250 Command DSPJOB successful."
    # special objects are reachable only through their commands
    assert reply(f, "RETR /.sim/security/JOE").startswith("550")
    f.quit()
    assert "RCMD DSPJOB OUTPUT(*PRINT)" in dst.lines()


def test_empty_save_config_leaves_save_file_empty(sim_factory):
    sim = sim_factory(tree=simlib.sample_tree(),
                      config={"empty_save": ["/home/alice", "PAYROLL"]})
    f = sim.ftp()
    rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)")
    assert rcmd(f, "SAV %s OBJ((%s))" % (SAVF_DEV % "SAV1",
                                         cl_path("/home/alice"))
                ).startswith("250")
    assert retr(f, savf("SAV1")) == b""
    assert rcmd(f, "SAVLIB LIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAV1)"
                ).startswith("250")
    assert retr(f, savf("SAV1")) == b""
    assert rcmd(f, "SAVLIB LIB(SALES) DEV(*SAVF) SAVF(QTEMP/SAV1)"
                ).startswith("250")
    assert len(retr(f, savf("SAV1"))) > 0
    f.quit()


def test_large_object_round_trip(sim_factory):
    src = sim_factory(tree={"big": {}})
    big = os.urandom(1 << 20) * 24 + b"tail"
    (src.root / "big/blob.bin").write_bytes(big)
    t0 = time.monotonic()
    image, _ = save_obj(src, "/big")
    assert len(image) > len(big)
    dst = sim_factory()
    f = upload_savtemp(dst, image)
    assert rcmd(f, "RST %s OBJ((%s)) CRTPRNDIR(*YES)"
                % (RST_DEV, cl_path("/big"))).startswith("250 2 ")
    f.quit()
    assert (dst.root / "big/blob.bin").read_bytes() == big
    assert time.monotonic() - t0 < 20


# --- ordinary files


def test_ordinary_files_and_case_insensitive_qsys(sim_factory):
    sim = sim_factory(tree=simlib.sample_tree())
    f = sim.ftp()
    payload = os.urandom(300000)
    assert stor(f, "/home/bob/up load.bin", payload).startswith("226")
    assert (sim.root / "home/bob/up load.bin").read_bytes() == payload
    assert retr(f, "/home/bob/up load.bin") == payload
    assert retr(f, "/qsys.lib/payroll.lib/emp.file") == b"EMPDATA" * 50
    for bad in ("RETR /home/bob", "RETR /home/none",
                "STOR /home/none/x", "STOR /home/bob"):
        with pytest.raises(ftplib.error_perm, match="^550"):
            if bad.startswith("RETR"):
                retr(f, bad[5:])
            else:
                stor(f, bad[5:], b"x")
    f.quit()


# --- listings


def fmt_date(t, recent):
    lt = time.localtime(t)
    return time.strftime("%b %e %H:%M" if recent else "%b %e  %Y", lt)


def test_list_format(sim_factory):
    now = time.time()
    old = time.mktime((2009, 1, 2, 12, 0, 0, 0, 0, -1))
    tree = {
        "home": Dir({
            "old.dat": File(b"x" * 12345, 0o640, old),
            "recent.txt": File(b"r", 0o644, now - 3 * 86400),
            "day179": File(b"a", 0o644, now - 179 * 86400),
            "day181": File(b"b", 0o644, now - 181 * 86400),
            "future": File(b"f", 0o644, now + 40 * 86400),
            "shared": Dir({}, 0o2777, old),
            "it's a \"name\"": File(b"q", 0o600, old),
            "lnk": Link("old.dat", old),
        }),
        "QSYS.LIB": {"PAYROLL.LIB": {"EMP.FILE": "e"}, "JOE.USRPRF": "p"},
        "QDLS": {},
        ".sim": {"security": {}},
    }
    sim = sim_factory(tree=tree)
    f = sim.ftp()
    data, final = list_raw(f, "/home")
    assert final.startswith("2")
    assert data.endswith(b"\r\n") and data.count(b"\r\n") == 8
    assert b"\n" not in data.replace(b"\r\n", b"")
    lines = data.decode().split("\r\n")[:-1]
    names = [l.split(None, 8)[8].split(" -> ")[0] for l in lines]
    assert names == sorted(names)
    by_name = dict(zip(names, lines))
    assert by_name["old.dat"] == ("-rw-r-----   1 QSYS     0          12345 "
                                  "Jan  2  2009 old.dat")
    assert by_name["recent.txt"].endswith(
        "1 %s recent.txt" % fmt_date(now - 3 * 86400, True))
    assert by_name["day179"].endswith(fmt_date(now - 179 * 86400, True)
                                      + " day179")
    assert by_name["day181"].endswith(fmt_date(now - 181 * 86400, False)
                                      + " day181")
    assert by_name["future"].endswith(fmt_date(now + 40 * 86400, False)
                                      + " future")
    dsize = os.stat(sim.root / "home/shared").st_size
    assert by_name["shared"] == ("drwxrwsrwx   2 QSYS     0        %7d "
                                 "Jan  2  2009 shared" % dsize)
    assert by_name["lnk"] == ("lrwxrwxrwx   1 QSYS     0              7 "
                              "Jan  2  2009 lnk -> old.dat")
    assert by_name["it's a \"name\""].startswith("-rw-------")

    top = [l.split(None, 8)[8] for l in list_lines(f, "/")]
    assert top == ["QDLS", "QSYS.LIB", "home"]
    qsys = list_lines(f, "/QSYS.LIB")
    assert qsys[0].startswith("-") and qsys[0].endswith(" JOE.USRPRF")
    assert qsys[1].startswith("d") and qsys[1].endswith(" PAYROLL.LIB")
    one = list_lines(f, "/home/old.dat")
    assert one == [by_name["old.dat"]]
    for hidden in ("/.sim", "/.sim/security", "/home/none"):
        with pytest.raises(ftplib.error_perm, match="^550"):
            list_raw(f, hidden)
    f.quit()


def test_list_refusal_chunks_and_extra_lines(sim_factory):
    tree = {"home": {"a": "1", "b": "2", "c": "3"}, "secret": {"x": "y"}}
    sim = sim_factory(tree=tree, config={
        "cpf3caa_paths": ["/secret"],
        "list_chunks": {"/home": [5, 7]},
        "list_chunk_pause": 0.3,
        "extra_list_lines": {"/home": ["garbage line", "\u0000\udcff"]},
        "list_missing_before_data": True,
    })
    f = sim.ftp()
    with pytest.raises(ftplib.error_perm,
                       match="^550 CPF3CAA List of objects not allowed"):
        list_raw(f, "/secret")
    with pytest.raises(ftplib.error_perm, match="^550"):
        list_raw(f, "/missing")
    f.voidcmd("TYPE A")
    conn = f.transfercmd("LIST /home")
    pieces = []
    with conn:
        while True:
            b = conn.recv(65536)
            if not b:
                break
            pieces.append(b)
    assert f.voidresp().startswith("2")
    assert [len(p) for p in pieces[:2]] == [5, 7]
    data = b"".join(pieces)
    assert data.endswith(b"\r\ngarbage line\r\n\x00\xff\r\n")
    assert data.count(b"\r\n") == 5
    listed = [l.split(None, 8)[8] for l in
              data.decode("latin-1").split("\r\n")[:3]]
    assert listed == ["a", "b", "c"]
    # the refusal is for that path only, not for what is below it
    assert list_lines(f, "/secret/x")[0].endswith(" x")
    f.quit()


# --- fault injection and reply overrides


def test_fault_close_at_nth_command(sim_factory):
    sim = sim_factory(config={"faults": [
        {"match": "^NOOP", "nth": 2, "action": "close"}]})
    f = sim.ftp()
    assert f.sendcmd("NOOP").startswith("2")
    with pytest.raises((EOFError, OSError)):
        f.sendcmd("NOOP")
    g = sim.ftp()
    assert g.sendcmd("NOOP").startswith("2")   # only the 2nd match fires
    g.quit()
    assert sim.lines(1) == ["USER qsecofr", "PASS secret", "NOOP", "NOOP"]
    faults = sim.faults()
    assert [(x["session"], x["fault"], x["line"]) for x in faults] == [
        (1, "close", "NOOP")]


def test_refuse_logins_after(sim_factory):
    sim = sim_factory(config={"refuse_logins_after": 1})
    f = sim.ftp()
    g = sim.connect()
    with pytest.raises(ftplib.error_perm, match="^530 Login incorrect."):
        g.login("qsecofr", "secret")
    g.close()
    assert f.sendcmd("NOOP").startswith("2")
    f.quit()
    assert [x["fault"] for x in sim.faults()] == ["refuse_login"]


def test_close_data_after_bytes_on_retr_list_and_stor(sim_factory):
    content = os.urandom(100000)
    sim = sim_factory(tree={"d": {"f.bin": content}}, config={"faults": [
        {"match": "^RETR", "nth": 1,
         "action": {"close_data_after": {"bytes": 1000}}},
        {"match": "^LIST", "nth": 1,
         "action": {"close_data_after": {"bytes": 10}}},
        {"match": "^STOR", "action": "close_data_after", "bytes": 5000},
    ]})
    f = sim.ftp()
    f.voidcmd("TYPE I")
    conn = f.transfercmd("RETR /d/f.bin")
    got = b""
    with conn:
        while True:
            b = conn.recv(65536)
            if not b:
                break
            got += b
    assert got == content[:1000]
    with pytest.raises(ftplib.error_temp, match="^426"):
        f.voidresp()
    assert retr(f, "/d/f.bin") == content       # nth 1 only

    f.voidcmd("TYPE A")
    conn = f.transfercmd("LIST /d")
    with conn:
        assert len(conn.recv(65536)) <= 10
    with pytest.raises(ftplib.error_temp, match="^426"):
        f.voidresp()

    f.voidcmd("TYPE I")
    conn = f.transfercmd("STOR /d/up.bin")
    try:
        conn.sendall(os.urandom(200000))
    except OSError:
        pass                                     # the server hung up
    conn.close()
    with pytest.raises(ftplib.error_temp, match="^426"):
        f.voidresp()
    assert (sim.root / "d/up.bin").stat().st_size == 5000
    assert f.sendcmd("NOOP").startswith("2")     # the session goes on
    f.quit()
    assert [x["fault"] for x in sim.faults()] == ["close_data_after"] * 3


def test_stall_data_and_close_after_data(sim_factory):
    content = os.urandom(50000)
    sim = sim_factory(tree={"f.bin": content}, config={"faults": [
        {"match": "^RETR", "nth": 1,
         "action": {"stall_data": {"bytes": 100}}},
        {"match": "^RETR", "nth": 2, "action": "close_after_data"},
    ]})
    f = sim.ftp()
    f.voidcmd("TYPE I")
    conn = f.transfercmd("RETR /f.bin")
    conn.settimeout(1.0)
    got = b""
    with pytest.raises(socket.timeout):
        while True:
            b = conn.recv(65536)
            assert b, "the stalled connection must stay open"
            got += b
    assert got == content[:100]
    conn.close()                                 # the client gives up
    with pytest.raises(ftplib.error_temp, match="^426"):
        f.voidresp()
    assert f.sendcmd("NOOP").startswith("2")

    conn = f.transfercmd("RETR /f.bin")
    got = b""
    with conn:
        while True:
            b = conn.recv(65536)
            if not b:
                break
            got += b
    assert got == content
    with pytest.raises(EOFError):
        f.voidresp()                             # no 226, connection gone
    f.close()


def test_delay_holds_only_its_own_session(sim_factory):
    sim = sim_factory(config={"faults": [
        {"match": "^NOOP", "action": {"delay": {"seconds": 1.5}}}]})
    slow, fast = sim.ftp(), sim.ftp()
    took = {}

    def run():
        t0 = time.monotonic()
        slow.sendcmd("NOOP")
        took["slow"] = time.monotonic() - t0

    th = threading.Thread(target=run)
    th.start()
    time.sleep(0.2)
    t0 = time.monotonic()
    assert fast.pwd() == "/"
    took["fast"] = time.monotonic() - t0
    th.join(5)
    assert took["fast"] < 0.5 and took["slow"] >= 1.4
    slow.quit()
    fast.quit()


def test_reply_overrides(sim_factory):
    partial = ("550-CPF3771 Partial save.\n"
               "550 CPF3771 1 objects saved. 1 objects not saved.")
    sim = sim_factory(tree={"a": {"x": "1"}, "b": {"y": "2"}}, config={
        "replies": [
            {"match": "^RCMD SAV .*\"/a\"",
             "reply": "550 CPF3771 12 objects saved. 3 not saved."},
            {"match": "^RCMD SAV .*\"/b\"", "nth": 2, "apply": True,
             "reply": partial},
        ]})
    f = sim.ftp()
    rcmd(f, "CRTSAVF FILE(QTEMP/SAV1)")
    sav = "SAV %s OBJ((%s))" % (SAVF_DEV % "SAV1", "%s")
    # replaced without being carried out: the save file stays empty
    assert rcmd(f, sav % cl_path("/a")) == \
        "550 CPF3771 12 objects saved. 3 not saved."
    assert retr(f, savf("SAV1")) == b""
    # the first /b save is untouched, the second is carried out and
    # answered with the configured multi-line reply
    assert rcmd(f, sav % cl_path("/b")) == "250 2 objects saved."
    first = retr(f, savf("SAV1"))
    rcmd(f, "CLRSAVF FILE(QTEMP/SAV1)")
    assert rcmd(f, sav % cl_path("/b")) == partial
    assert len(retr(f, savf("SAV1"))) == len(first)
    assert rcmd(f, sav % cl_path("/b")) == "250 2 objects saved."
    f.quit()


# --- process lifecycle and the helper library


def test_stop_is_clean_idempotent_and_restart_continues_sessions(
        sim_factory):
    sim = sim_factory()
    idle = sim.ftp()                              # an open idle session
    busy = sim.ftp()
    busy.voidcmd("TYPE I")
    sim.stop()
    assert sim.exit_status == 0
    assert not sim.running
    sim.stop()
    idle.close()
    busy.close()
    sim.start()
    f = sim.ftp()
    f.quit()
    assert sim.sessions() == [1, 2, 3]
    assert sim.lines(3)[0] == "USER qsecofr"


def test_tree_helpers_detect_every_kind_of_difference(tmp_path):
    layout = {"d": {"f": File("abc", 0o644, 1000000000), "l": Link("f"),
                  "e": {}}}
    a = simlib.make_tree(tmp_path / "a", layout)
    b = simlib.make_tree(tmp_path / "b", layout)
    assert simlib.compare_trees(a, b, mtimes=True) == []
    assert os.stat(a / "d/f").st_mtime == 1000000000

    (b / "d/f").write_text("abd")                 # same size, other bytes
    os.utime(b / "d/f", (1000000000, 1000000000))
    assert simlib.compare_trees(a, b) == [
        "differs: d/f: %r != %r" % (simlib.tree_digest(a)["d/f"],
                                    simlib.tree_digest(b)["d/f"])]
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
    assert any(x.startswith("only in %s: d/e" % a) for x in diffs)
    assert any(x.startswith("only in %s: d/new" % b) for x in diffs)
    assert simlib.compare_trees(a, b, modes=False,
                                exclude=["d/e", "d/new", "d/l"]) == []
    assert simlib.cl_path("/a \"b\"/it's") == "'\"/a \"\"b\"\"/it''s\"'"
