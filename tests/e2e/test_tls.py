"""FTPS (RFC 4217), explicit and implicit, and IPv6 with EPSV (RFC 2428):
the simulator's FTPS, checked with Python's own FTPS client, so the
refusals the client is tested against are known to be what they claim."""
import ftplib
import io
import socket
import ssl

import pytest

import simlib
from simlib import File


OLD = 1_500_000_000
TREE = simlib.sample_tree(now=OLD)
# larger than a TLS record and than the simulator's TLS send chunk
TREE["home"]["alice"]["big.bin"] = File(bytes(range(251)) * 9000, 0o600)
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


def peer(sim):
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


@pytest.mark.parametrize("cert, cafile, error", [
    ("expired", True, "certificate has expired"),
    ("wrong_name", True, "IP address mismatch"),
    ("self_signed", True, "self-signed certificate"),
    ("good", False, "unable to get local issuer certificate"),
])
def test_simulator_certificates_fail_verification_as_named(sim_factory, tls_certs, cert, cafile,
                                                           error):
    sim = tls_sim(sim_factory, tls_certs, cert=cert)
    ctx = ssl.create_default_context(**({"cafile": str(tls_certs.ca)} if cafile else {}))
    f = simlib.ResumingFTP_TLS(context=ctx, timeout=10)
    f.connect(sim.addr, sim.port)
    with pytest.raises(ssl.SSLCertVerificationError, match=error):
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
