"""Logging in: the test mode, refused logins and the mode choice."""
import re
import subprocess
import time

import simlib
from vlib import creds, has_fail, vondral

LOGIN = ["USER qsecofr", "PASS secret", "CWD /", "SYST", "TIME 86400 86400"]


def test_test_mode_logs_in_and_out_and_reports_the_run_time(sim_factory):
    sim = sim_factory()
    r = vondral("-s", sim.addr, "-c", creds(), "-t")
    assert r.status == 0, r.err
    assert sim.lines() == LOGIN + ["QUIT"]
    assert re.fullmatch(r"\*\* Total Run Time: \d+\.\d{3} seconds", r.out_lines[-1])
    assert r.err_lines == []


def test_test_mode_wins_over_every_other_mode(sim_factory, tmp_path):
    sim = sim_factory()
    r = vondral("-s", sim.addr, "-c", creds(), "-t", "-b", tmp_path / "a.ctar",
                "-l", "1", "-r", "-")
    assert r.status == 0, r.err
    assert sim.lines() == LOGIN + ["QUIT"]
    assert not (tmp_path / "a.ctar").exists()


def test_refused_login_still_quits_and_fails(sim_factory):
    sim = sim_factory()
    r = vondral("-s", sim.addr, "-c", creds(password="wrong"), "-t")
    assert r.status == 255
    assert has_fail(r.err_lines, "ftp", "PASS command failed")
    assert has_fail(r.err_lines, "vondral", "login failed")
    assert sim.lines()[-1] == "QUIT"
    assert "Total Run Time" not in r.out


def test_no_mode_logs_in_says_so_and_still_quits(sim_factory):
    sim = sim_factory()
    r = vondral("-s", sim.addr, "-c", creds())
    assert r.status == 255
    assert r.err_lines[0] == "vondral: don't know what to do"
    assert r.err_lines[1] == "usage: vondral [ options ]"
    assert sim.lines() == LOGIN + ["QUIT"]
    assert "** Total Run Time" in r.out


def test_verbose_trace_shows_the_dialogue_but_never_the_password(sim_factory):
    sim = sim_factory(config={"users": {"qsecofr": "Pa55:word"}})
    r = vondral("-s", sim.addr, "-c", "qsecofr:here:Pa55:word", "-t", "-v5")
    assert r.status == 0, r.err
    # At -v4 the bytes received are echoed as they come, so a chunk of
    # several reply lines carries the prefix only on its first.
    assert '] vondral: sent command "PASS ********"\n' in r.out
    assert '] vondral: sent command "USER qsecofr"\n' in r.out
    assert "] vondral: FTP control connected to %s:21\n" % sim.addr in r.out
    assert "Pa55:word" not in r.out + r.err


def test_release_from_syst_and_servers_without_time(sim_factory):
    sim = sim_factory(config={"release": "V5R3M0", "time_supported": False})
    r = vondral("-s", sim.addr, "-c", creds(), "-t")
    assert r.status == 0
    assert has_fail(r.err_lines, "ftp", "TIME command failed")
    sim2 = sim_factory(config={"syst_reply": "215 UNIX Type: L8"})
    r = vondral("-s", sim2.addr, "-c", creds(), "-t")
    assert r.status == 0
    assert has_fail(r.err_lines, "ftp", "invalid SYST reply")


def test_unknown_host_and_closed_port(sim_factory):
    sim = sim_factory(start=False)
    r = vondral("-s", sim.addr, "-c", creds(), "-t")
    assert r.status == 255
    assert has_fail(r.err_lines, "socket", "connect(, %s:21): Connection refused" % sim.addr)
    assert "Total Run Time" not in r.out


def test_the_passphrase_given_here_is_gone_from_the_process_arguments(sim_factory):
    # ps and /proc/PID/cmdline show every user the arguments of a process:
    # once read, the passphrase of "here" is overwritten in place, while the
    # user name and the rest of the command line stay readable.
    password = "Sup3r-S3cret-Phrase"
    sim = sim_factory(config={"users": {"qsecofr": password},
                              "faults": [{"match": "^SYST$", "action": "delay", "seconds": 3}]})
    proc = subprocess.Popen([simlib.vondral_bin(), "-s", sim.addr, "-c", creds(password=password), "-t"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        deadline = time.monotonic() + 10
        while "SYST" not in sim.lines():
            assert time.monotonic() < deadline and proc.poll() is None, "the login never reached SYST"
            time.sleep(0.02)
        with open("/proc/%d/cmdline" % proc.pid, "rb") as f:
            shown = f.read()
        out, err = proc.communicate(timeout=20)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.communicate()
    assert proc.returncode == 0, err
    assert password.encode() not in shown
    assert b"qsecofr:here:" in shown
    assert sim.addr.encode() in shown
    # The server got the real passphrase all the same.
    assert "PASS " + password in sim.lines()
