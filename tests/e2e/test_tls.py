"""FTPS (RFC 4217), explicit and implicit, and IPv6 with EPSV (RFC 2428).

First the simulator's FTPS, checked with Python's own FTPS client, so the
refusals the client is tested against are known to be what they claim;
then the client: round trips that must give what a run in clear gives,
refusals that must end the run without a byte of the login or of the data
in clear, and IPv6."""
import ftplib
import io
import re
import socket
import ssl
import sys
import time
from pathlib import Path

import pytest

import simlib
from simlib import File
from vlib import backup, creds, restore, vondral

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))
from archive_digest import digest  # noqa: E402

OLD = 1_500_000_000
TREE = simlib.sample_tree(now=OLD)
# larger than a TLS record and than the simulator's TLS send chunk
TREE["home"]["alice"]["big.bin"] = File(bytes(range(251)) * 9000, 0o600)
# no object a backup saves: a restored tree could not hold it
del TREE["QSYS.LIB"]["JOE.USRPRF"]
NO_SPECIALS = "/Security Data\n/System Configuration\n"
MODES = {"explicit": "--tls", "implicit": "--tls-implicit"}
FAIL_HEAD = r"vondral\[socket\.cpp,\d+\]: "
DATA_COMMANDS = ("LIST", "NLST", "RETR", "STOR")


def tls_config(certs, cert="good", **settings):
    path, key = getattr(certs, cert)
    return {"tls": {"cert": str(path), "key": str(key), **settings}}


def tls_sim(sim_factory, certs, mode="explicit", cert="good", config=None, **kwargs):
    cfg = dict(config or {})
    cfg.update(tls_config(certs, cert, implicit=mode == "implicit", **cfg.pop("tls", {})))
    return sim_factory(config=cfg, **kwargs)


def verbose(run, what):
    """The -v4 lines about TLS connections of one kind ("control" or
    "data"), without the program's name before them."""
    head = "TLS %s connection to " % what
    lines = [l[len("vondral: "):] if l.startswith("vondral: ") else l
             for l in run.out_lines + run.err_lines]
    return [l for l in lines if l.startswith(head)]


def peer(sim):
    """The server as the client's messages name it: [::1]:21 for IPv6."""
    return ("[%s]" % sim.addr if ":" in sim.addr else sim.addr) + ":%d" % sim.port


# --- the simulator's FTPS, through Python's FTPS client

@pytest.mark.parametrize("mode, addr", [("explicit", None), ("implicit", None),
                                        ("explicit", "::1")])
def test_simulator_moves_data_under_tls_resuming_the_control_session(sim_factory, tls_certs,
                                                                     mode, addr):
    sim = tls_sim(sim_factory, tls_certs, mode, tree={"home": {"a.bin": b"\x01" * 700000}},
                  addr=addr)
    f = sim.ftp_tls(tls_certs.ca)
    got = io.BytesIO()
    f.retrbinary("RETR /home/a.bin", got.write)
    f.storbinary("STOR /home/b.bin", io.BytesIO(b"\x02" * 900000))
    listing = []
    f.retrlines("LIST /home", listing.append)
    f.quit()
    sim.wait_sessions_ended()
    assert got.getvalue() == b"\x01" * 700000
    assert (sim.root / "home" / "b.bin").read_bytes() == b"\x02" * 900000
    assert [line.split()[-1] for line in listing] == ["a.bin", "b.bin"]
    assert sim.clear_lines() == (["AUTH TLS"] if mode == "explicit" else [])
    assert sim.clear_data() == []
    data = sim.tls_events("data")
    assert len(data) == 3 and all(e["reused"] for e in data)
    assert not sim.tls_events(event="tls_eof_without_close_notify")
    passive = [c for c in sim.lines() if c in ("PASV", "EPSV")]
    assert passive == ["EPSV" if addr else "PASV"] * 3


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("cert, cafile, error", [
    ("expired", True, "certificate has expired"),
    ("wrong_name", True, "IP address mismatch"),
    ("self_signed", True, "self-signed certificate"),
    ("good", False, "unable to get local issuer certificate"),
])
def test_simulator_certificates_fail_verification_as_named(sim_factory, tls_certs, mode, cert,
                                                           cafile, error):
    sim = tls_sim(sim_factory, tls_certs, mode, cert=cert)
    ctx = ssl.create_default_context(**({"cafile": str(tls_certs.ca)} if cafile else {}))
    f = simlib.ResumingFTP_TLS(context=ctx, timeout=10, implicit=mode == "implicit")
    with pytest.raises(ssl.SSLCertVerificationError, match=error):
        f.connect(sim.addr, sim.port)
        f.auth()
    f.close()
    sim.wait_sessions_ended()
    assert [e["on"] for e in sim.tls_events(event="tls_failed")] == ["control"]


def read_reply(sock):
    """The last line of a reply, read byte by byte: nothing of what
    follows is taken from the socket."""
    while True:
        line = b""
        while not line.endswith(b"\n"):
            line += sock.recv(1)
        if line[3:4] != b"-":
            return line.decode().strip()


@pytest.mark.parametrize("config, after_auth", [
    ({"replies": [{"match": "^AUTH", "reply": "534 Not now."}]}, "534 Not now."),
    ({"tls": {"max_version": "TLSv1_1"}}, "handshake"),
])
def test_simulator_logs_what_follows_a_failed_auth_in_clear(sim_factory, tls_certs, config,
                                                            after_auth):
    # The log is what the client's refusal tests rely on: a client that
    # went on in clear after AUTH must show up there.
    sim = tls_sim(sim_factory, tls_certs, config=config)
    sock = socket.create_connection((sim.addr, sim.port), timeout=10)
    read_reply(sock)
    sock.sendall(b"AUTH TLS\r\n")
    first = read_reply(sock)
    if after_auth == "handshake":
        assert first.startswith("234 ")
        ctx = ssl.create_default_context(cafile=str(tls_certs.ca))
        ctx.minimum_version = ssl.TLSVersion.TLSv1_2  # as the client asks
        with pytest.raises(ssl.SSLError, match="protocol version"):
            ctx.wrap_socket(sock.dup(), server_hostname=sim.addr)
    else:
        assert first == after_auth
    sock.sendall(b"USER qsecofr\r\nPASS secr")
    sock.close()
    sim.wait_sessions_ended()
    assert sim.clear_lines() == ["AUTH TLS", "USER qsecofr", "PASS secr"]


def test_simulator_logs_an_upload_in_clear_and_refuses_an_unresumed_session(sim_factory,
                                                                            tls_certs):
    sim = tls_sim(sim_factory, tls_certs, tree={"home": {"a.txt": "a"}})
    f = sim.ftp_tls(tls_certs.ca)
    f.prot_c()
    f.storbinary("STOR /home/clear.txt", io.BytesIO(b"in the clear" * 1000))
    f.prot_p()
    plain = ssl.create_default_context(cafile=str(tls_certs.ca))
    conn, _ = ftplib.FTP.ntransfercmd(f, "RETR /home/a.txt")
    # Python's own FTPS client starts a new session on every data connection.
    conn = plain.wrap_socket(conn, server_hostname=sim.addr)
    with pytest.raises(ftplib.error_perm, match="^522 .*session reuse required"):
        try:
            conn.recv(10)
        finally:
            conn.close()
            f.voidresp()
    f.close()
    sim.wait_sessions_ended()
    assert sim.clear_data() == [(12000, ("in the clear" * 1000)[:4096])]
    assert [e["reused"] for e in sim.tls_events("data")] == [False]


def test_simulator_plain_data_keeps_the_data_connection_in_clear(sim_factory, tls_certs):
    sim = tls_sim(sim_factory, tls_certs, config={"tls": {"plain_data": "^RETR"}},
                  tree={"home": {"a.txt": "not a TLS record"}})
    f = sim.ftp_tls(tls_certs.ca)
    listing = []
    f.retrlines("LIST /home", listing.append)
    with pytest.raises(ssl.SSLError):
        f.retrbinary("RETR /home/a.txt", lambda data: None)
    f.close()
    sim.wait_sessions_ended()
    assert len(listing) == 1
    assert len(sim.tls_events("data")) == 1  # the listing's


# --- the client over FTPS

def check_nothing_in_clear(sim, mode, run):
    """Every session logged in under TLS: in clear only AUTH TLS (none
    with implicit TLS), PBSZ and PROT before any data connection, every
    data connection under TLS and resuming the session, ended with
    close_notify; the passphrase in no output."""
    sim.wait_sessions_ended()
    sessions = sim.sessions()
    assert sim.clear_lines() == (["AUTH TLS"] * len(sessions) if mode == "explicit" else [])
    assert sim.clear_data() == []
    assert len(sim.tls_events("control")) == len(sessions)
    for sid in sessions:
        lines = sim.lines(sid)
        login = lines.index("USER qsecofr")
        assert lines[:login] == (["AUTH TLS"] if mode == "explicit" else [])
        data = [i for i, c in enumerate(lines) if c.startswith(DATA_COMMANDS)]
        if data:
            assert lines.index("PBSZ 0") < lines.index("PROT P") < data[0]
    transfers = [c for c in sim.lines() if c.startswith(DATA_COMMANDS)]
    # a session dropped at a transfer command never got to its data
    dropped = [f["line"] for f in sim.faults() if f["fault"] == "close"]
    transfers = len(transfers) - sum(1 for c in dropped if c.startswith(DATA_COMMANDS))
    assert len(sim.tls_events("data")) == transfers
    assert all(e["reused"] for e in sim.tls_events("data"))
    assert not sim.tls_events(event="tls_failed")
    assert not sim.tls_events(event="tls_eof_without_close_notify")
    assert "secret" not in run.out + run.err


@pytest.mark.parametrize("mode", MODES)
def test_backup_and_restore_over_tls_match_the_run_in_clear(sim_factory, tls_certs, tmp_path,
                                                            mode):
    root = simlib.make_tree(tmp_path / "source", TREE)
    plain = backup(sim_factory(root=root), tmp_path, tag="plain")
    assert plain.status == 0, plain.err
    sim = tls_sim(sim_factory, tls_certs, mode, root=root)
    secured = backup(sim, tmp_path, MODES[mode], "--cacert", tls_certs.ca, tag="tls")
    assert secured.status == 0, secured.err
    assert digest(secured.archive) == digest(plain.archive)
    assert sorted(secured.catalog) == sorted(plain.catalog)  # workers append in any order
    check_nothing_in_clear(sim, mode, secured)

    target = tls_sim(sim_factory, tls_certs, mode)
    r = restore(target, secured.archive, MODES[mode], "--cacert", tls_certs.ca)
    assert r.status == 0, r.err
    assert simlib.compare_trees(root, target.root) == []
    check_nothing_in_clear(target, mode, r)
    assert "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF" in target.lines()


def run_list(sim, tmp_path, *args):
    n = len(list(tmp_path.glob("list*.out")))
    out, include = tmp_path / ("list%d.out" % n), tmp_path / ("list%d.inc" % n)
    include.write_text("/home/alice\n/QSYS.LIB\n/QDLS\n")
    with open(out, "w") as f:
        r = vondral("-s", sim.addr, "-c", creds(), "-l", str(f.fileno()), "-i", include, *args,
                    pass_fds=(f.fileno(),))
    return r, out.read_text().splitlines()


@pytest.mark.parametrize("mode", MODES)
def test_list_mode_over_tls_matches_the_run_in_clear(sim_factory, tls_certs, tmp_path, mode):
    root = simlib.make_tree(tmp_path / "source", TREE)
    plain, want = run_list(sim_factory(root=root), tmp_path)
    assert plain.status == 0, plain.err
    assert "/QSYS.LIB/PAYROLL.LIB" in want and len(want) > 5
    sim = tls_sim(sim_factory, tls_certs, mode, root=root)
    r, got = run_list(sim, tmp_path, MODES[mode], "--cacert", tls_certs.ca)
    assert r.status == 0, r.err
    assert got == want
    check_nothing_in_clear(sim, mode, r)


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("match, status, lost", [
    ("^RCMD SAVLIB", 0, []),                 # before the retrieval: saved again
    ("^RETR", 2, ["/QSYS.LIB/PAYROLL.LIB"]),  # after the point of no return
], ids=["before retrieval", "at retrieval"])
def test_a_dropped_control_connection_recovers_over_tls(sim_factory, tls_certs, tmp_path, mode,
                                                        match, status, lost):
    root = simlib.make_tree(tmp_path / "source", TREE)
    include = "/QSYS.LIB/PAYROLL.LIB\n"
    plain = backup(sim_factory(root=root), tmp_path, include=include, exclude=NO_SPECIALS,
                   tag="plain")
    assert plain.status == 0, plain.err
    sim = tls_sim(sim_factory, tls_certs, mode, root=root,
                  config={"faults": [{"match": match, "nth": 1, "action": "close"}]})
    r = backup(sim, tmp_path, MODES[mode], "--cacert", tls_certs.ca, include=include,
               exclude=NO_SPECIALS, tag="tls")
    assert [f["fault"] for f in sim.faults()] == ["close"]
    assert r.status == status, r.err
    assert r.notbackedup == lost
    assert "recovering checkpoint" in r.err
    if not lost:
        assert digest(r.archive) == digest(plain.archive)
    # the new session logged in under TLS again, like the first
    check_nothing_in_clear(sim, mode, r)


@pytest.mark.parametrize("mode", MODES)
def test_verbose_output_names_version_and_cipher_once_per_connection(sim_factory, tls_certs,
                                                                     tmp_path, mode):
    sim = tls_sim(sim_factory, tls_certs, mode, root=simlib.make_tree(tmp_path / "s", TREE))
    r = backup(sim, tmp_path, "-v4", MODES[mode], "--cacert", tls_certs.ca,
               include="/home\n", exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    sim.wait_sessions_ended()
    control, data = verbose(r, "control"), verbose(r, "data")
    # what the server negotiated, as it says itself
    want_control = ["TLS control connection to %s: %s, cipher %s"
                    % (peer(sim), e["version"], e["cipher"]) for e in sim.tls_events("control")]
    assert sorted(control) == sorted(want_control)
    data_pattern = re.compile(r"TLS data connection to %s:\d+: (\S+), cipher (\S+), "
                              r"session (resumed|new)$" % re.escape(sim.addr))
    got = sorted(data_pattern.fullmatch(l).groups() for l in data)
    want = sorted((e["version"], e["cipher"], "resumed" if e["reused"] else "new")
                  for e in sim.tls_events("data"))
    assert got == want and len(got) >= 2
    assert "secret" not in r.out + r.err


# Each refusal: the server's configuration (None: no FTPS at all), its
# certificate, whether the client trusts the test CA (--cacert), the name
# the client is given for the server (None: its address), and the failure
# message after the failure head.
REFUSALS = [
    ("auth refused", {"replies": [{"match": "^AUTH", "reply": "534 TLS not available."}]},
     "good", True, None, r"AUTH TLS refused: 534 TLS not available\."),
    ("no FTPS at all", None, None, True, None, r"AUTH TLS refused: 500 Unknown command"),
    ("handshake", {"tls": {"max_version": "TLSv1_1"}}, "good", True, None,
     r"TLS handshake with {peer} failed: .*(protocol|version).*"),
    ("untrusted CA", {}, "good", False, None,
     r"TLS handshake with {peer} failed: .*(unable to get local issuer certificate"
     r"|self-signed certificate).*"),
    ("self-signed", {}, "self_signed", True, None,
     r"TLS handshake with {peer} failed: .*self-signed certificate.*"),
    ("wrong address", {}, "wrong_name", True, None,
     r"TLS handshake with {peer} failed: .*IP address mismatch.*"),
    ("wrong host name", {}, "wrong_name", True, "localhost",
     r"TLS handshake with {peer} failed: .*hostname mismatch.*"),
    ("expired", {}, "expired", True, None,
     r"TLS handshake with {peer} failed: .*certificate has expired.*"),
    ("expired, IPv6", {}, "expired", True, "::1",
     r"TLS handshake with {peer} failed: .*certificate has expired.*"),
    ("PBSZ refused", {"replies": [{"match": "^PBSZ", "reply": "534 No PBSZ here."}]},
     "good", True, None, r"PBSZ 0 refused: 534 No PBSZ here\."),
    ("PROT P refused", {"replies": [{"match": "^PROT", "reply": "534 Only in clear."}]},
     "good", True, None, r"PROT P refused: 534 Only in clear\."),
]
AFTER_LOGIN = ("PBSZ refused", "PROT P refused")


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("case, config, cert, trusted, name, message", REFUSALS,
                         ids=[c[0] for c in REFUSALS])
def test_a_refusal_ends_the_run_before_anything_goes_out_in_clear(
        sim_factory, tls_certs, tmp_path, mode, case, config, cert, trusted, name, message):
    if mode == "implicit" and "AUTH" in message:
        pytest.skip("implicit TLS sends no AUTH")
    # localhost is 127.0.0.1, an address the other tests never hand out
    addr = {"localhost": "127.0.0.1", "::1": "::1"}.get(name)
    if config is None:
        sim = sim_factory(tree=TREE, addr=addr)
    else:
        sim = tls_sim(sim_factory, tls_certs, mode, cert=cert, config=config, tree=TREE,
                      addr=addr)
    trust = ["--cacert", tls_certs.ca] if trusted else []
    r = vondral("-s", name or sim.addr, "-c", creds(), "-b", tmp_path / "a.ctar", MODES[mode],
                *trust)
    assert r.status == 255, r.err
    pattern = FAIL_HEAD + message.format(peer=re.escape(peer(sim)))
    assert any(re.fullmatch(pattern, line) for line in r.err_lines), r.err
    assert "secret" not in r.out + r.err
    assert not (tmp_path / "a.ctar").exists()
    sim.wait_sessions_ended()
    received = sim.lines()
    if case in AFTER_LOGIN:
        # the login went under TLS; no data connection follows the refusal
        assert not [c for c in received if c.startswith(DATA_COMMANDS + ("PASV", "EPSV"))]
        assert sim.clear_lines() == (["AUTH TLS"] if mode == "explicit" else [])
    else:
        # nothing more than the request for TLS: no login, not even QUIT
        assert received == (["AUTH TLS"] if mode == "explicit" else []), received
    assert sim.clear_data() == []


def test_data_connection_without_tls_fails_the_object_with_no_data_in_clear(sim_factory,
                                                                           tls_certs, tmp_path):
    # The listing goes under TLS; every retrieval's data connection stays
    # in clear, so the one object fails like a broken transfer.
    sim = tls_sim(sim_factory, tls_certs, config={"tls": {"plain_data": "^RETR"}}, tree=TREE)
    r = backup(sim, tmp_path, "--tls", "--cacert", tls_certs.ca, include="/home/bob\n",
               exclude=NO_SPECIALS)
    assert r.status == 2, r.err
    assert r.notbackedup == ["/home/bob"]
    pattern = FAIL_HEAD + r"TLS handshake on data connection with %s:\d+ failed: .+" \
        % re.escape(sim.addr)
    assert any(re.fullmatch(pattern, line) for line in r.err_lines), r.err
    sim.wait_sessions_ended()
    assert sim.clear_data() == []
    assert "secret" not in r.out + r.err


def test_restore_data_connection_without_tls_sends_no_archive_data_in_clear(sim_factory,
                                                                            tls_certs,
                                                                            tmp_path):
    source = sim_factory(tree=TREE)
    made = backup(source, tmp_path, include="/home\n", exclude=NO_SPECIALS)
    assert made.status == 0, made.err
    # The server takes the data connection in clear and, hearing no data,
    # gives up on it after a second.
    sim = tls_sim(sim_factory, tls_certs,
                  config={"tls": {"plain_data": True}, "data_timeout": 1})
    start = time.monotonic()
    r = restore(sim, made.archive, "--tls", "--cacert", tls_certs.ca)
    assert time.monotonic() - start < 30
    assert r.status == 1, r.err
    pattern = FAIL_HEAD + r"TLS handshake on data connection with %s:\d+ failed: .+" \
        % re.escape(sim.addr)
    assert any(re.fullmatch(pattern, line) for line in r.err_lines), r.err
    sim.wait_sessions_ended()
    # what came in clear is the client's handshake (a TLS record, 0x16 0x03),
    # never the archive's save image
    arrived = sim.clear_data()
    assert arrived and all(text.startswith("\x16\x03") and n < 4096 for n, text in arrived)
    assert not (sim.root / "home").exists()


@pytest.mark.parametrize("secured", [False, True], ids=["clear", "tls"])
def test_ipv6_round_trip_uses_epsv_and_matches_ipv4(sim_factory, tls_certs, tmp_path, secured):
    root = simlib.make_tree(tmp_path / "source", TREE)
    v4 = backup(sim_factory(root=root), tmp_path, tag="v4")
    assert v4.status == 0, v4.err
    extra = ("--tls", "--cacert", tls_certs.ca) if secured else ()

    def server(**kwargs):
        if secured:
            return tls_sim(sim_factory, tls_certs, addr="::1", **kwargs)
        return sim_factory(addr="::1", **kwargs)
    sim = server(root=root)
    v6 = backup(sim, tmp_path, "-v4", *extra, tag="v6")
    assert v6.status == 0, v6.err
    assert digest(v6.archive) == digest(v4.archive)
    passive = [c for c in sim.lines() if c in ("PASV", "EPSV")]
    assert passive and set(passive) == {"EPSV"}
    if secured:
        check_nothing_in_clear(sim, "explicit", v6)
        assert verbose(v6, "control")
        assert all(l.startswith("TLS control connection to [::1]:21: ")
                   for l in verbose(v6, "control"))
    sim.stop()  # ::1 port 21 is wanted again for the restore

    target = server()
    r = restore(target, v6.archive, *extra)
    assert r.status == 0, r.err
    assert simlib.compare_trees(root, target.root) == []
    assert set(c for c in target.lines() if c in ("PASV", "EPSV")) == {"EPSV"}


# --- a control connection that becomes readable with no reply byte in it

@pytest.mark.slow
@pytest.mark.parametrize("mode", MODES)
def test_a_reply_later_than_one_poll_step_after_a_session_ticket_is_waited_for(sim_factory,
                                                                              tls_certs,
                                                                              tmp_path, mode):
    # Under TLS 1.3 the server's session tickets arrive just after the login
    # begins: the connection is readable, yet holds no reply. A reply that
    # then takes longer than one poll step (60 s) must be waited for as it
    # is in clear, not taken for a silent connection at the first step.
    sim = tls_sim(sim_factory, tls_certs, mode, tree=TREE,
                  config={"faults": [{"match": "^USER", "action": "delay", "seconds": 75,
                                      "nth": 1}]})
    r = backup(sim, tmp_path, MODES[mode], "--cacert", tls_certs.ca,
               include="/home\n", exclude=NO_SPECIALS)
    assert r.status == 0, r.err
    assert not any("timedout on control read" in l for l in r.err_lines), r.err
