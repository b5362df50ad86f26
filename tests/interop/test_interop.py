"""The program against FTP servers the project did not write: stock
pyftpdlib and vsftpd, each started on a loopback address of the test's own
network namespace, in clear and over FTPS (RFC 4217)."""
import hashlib
import os
import re
import socket
import subprocess
import sys
import time

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
VONDRAL = os.environ.get("VONDRAL_BIN") or os.path.join(ROOT, "build", "vondral")
FTPXFER = os.environ.get("FTPXFER_BIN") or os.path.join(ROOT, "build", "tests", "ftpxfer")
SIZE = 10 * 1024 * 1024

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
import certs  # noqa: E402

# pyftpdlib's own FTPS handler, as its documentation sets it up: TLS
# required on the control and the data connections.
PYFTPDLIB_TLS = """
import sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import TLS_FTPHandler
from pyftpdlib.servers import FTPServer
addr, root, cert, key = sys.argv[1:]
authorizer = DummyAuthorizer()
authorizer.add_user("tester", "pw0rd", root, perm="elradfmwMT")
TLS_FTPHandler.authorizer = authorizer
TLS_FTPHandler.certfile = cert
TLS_FTPHandler.keyfile = key
TLS_FTPHandler.tls_control_required = True
TLS_FTPHandler.tls_data_required = True
FTPServer((addr, 21), TLS_FTPHandler).serve_forever()
"""

pytestmark = pytest.mark.skipif(os.environ.get("VONDRAL_NETNS") != "1",
                                reason="needs the private network namespace of run_in_netns.sh")


def wait_port(addr, port=21, deadline=10.0):
    end = time.time() + deadline
    while time.time() < end:
        try:
            socket.create_connection((addr, port), timeout=0.5).close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("server on %s:%d did not come up" % (addr, port))


def stop(proc):
    proc.terminate()
    try:
        proc.wait(timeout=5)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


def pyftpdlib(addr, root, command):
    """A pyftpdlib server started by command, serving root to tester."""
    proc = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_port(addr)
        yield addr, root, "tester", "pw0rd"
    finally:
        stop(proc)


@pytest.fixture
def pyftpdlib_server(tmp_path):
    root = tmp_path / "pyftpd"
    root.mkdir()
    addr = "127.0.0.201"
    yield from pyftpdlib(addr, root, ["/usr/bin/python3", "-m", "pyftpdlib", "-i", addr, "-p",
                                      "21", "-w", "-d", str(root), "-u", "tester", "-P", "pw0rd"])


@pytest.fixture(scope="module")
def test_certs(tmp_path_factory):
    return certs.make_certs(tmp_path_factory.mktemp("certs"))


@pytest.fixture
def pyftpdlib_tls_server(tmp_path, test_certs):
    root = tmp_path / "pyftpd"
    root.mkdir()
    addr = "127.0.0.203"
    cert, key = test_certs.good
    yield from pyftpdlib(addr, root, ["/usr/bin/python3", "-c", PYFTPDLIB_TLS, addr, str(root),
                                      str(cert), str(key)])


def vsftpd(tmp_path, addr, settings=(), port=21):
    """A vsftpd serving anonymous logins with uploads to /up; settings
    are added to its configuration."""
    if os.environ.get("VONDRAL_REAL_ROOT") != "1":
        pytest.skip("vsftpd refuses to serve inside a user namespace (500 OOPS: setgroups); "
                    "it runs only when the tests are started as real root")
    if not os.path.exists("/usr/sbin/vsftpd"):
        pytest.skip("vsftpd is not installed")
    anon = tmp_path / "anon"
    upload = anon / "up"
    upload.mkdir(parents=True)
    os.chmod(anon, 0o555)
    os.chmod(upload, 0o777)
    os.makedirs("/var/run/vsftpd/empty", exist_ok=True)
    conf = tmp_path / "vsftpd.conf"
    conf.write_text("\n".join([
        "listen=YES", "listen_ipv6=NO", "listen_address=%s" % addr, "listen_port=%d" % port,
        "background=NO", "anonymous_enable=YES", "no_anon_password=YES",
        "anon_root=%s" % anon, "write_enable=YES", "anon_upload_enable=YES",
        "anon_umask=022", "local_enable=NO", "pasv_enable=YES", "seccomp_sandbox=NO",
        "xferlog_enable=NO", "secure_chroot_dir=/var/run/vsftpd/empty", *settings, "",
    ]))
    proc = subprocess.Popen(["/usr/sbin/vsftpd", str(conf)], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    try:
        wait_port(addr, port)
        yield addr, anon, "anonymous", "guest"
    finally:
        stop(proc)


@pytest.fixture
def vsftpd_server(tmp_path):
    yield from vsftpd(tmp_path, "127.0.0.202")


@pytest.fixture(params=["explicit", "implicit"])
def vsftpd_tls_server(tmp_path, test_certs, request):
    """vsftpd with FTPS required for the login and every data connection,
    data connections resuming the control connection's TLS session."""
    cert, key = test_certs.good
    implicit = request.param == "implicit"
    settings = ["ssl_enable=YES", "allow_anon_ssl=YES", "force_anon_logins_ssl=YES",
                "force_anon_data_ssl=YES", "force_local_logins_ssl=YES",
                "force_local_data_ssl=YES", "require_ssl_reuse=YES",
                # Debian's vsftpd 3.0.3 knows no ssl_tlsv1_2: "ssl_tlsv1" is
                # TLS 1.x, and the system's OpenSSL settings start it at 1.2
                "ssl_sslv2=NO", "ssl_sslv3=NO", "ssl_tlsv1=YES",
                "rsa_cert_file=%s" % cert, "rsa_private_key_file=%s" % key,
                "implicit_ssl=%s" % ("YES" if implicit else "NO")]
    for server in vsftpd(tmp_path, "127.0.0.204", settings, 990 if implicit else 21):
        yield server + (["--tls-implicit" if implicit else "--tls", "--cacert", str(test_certs.ca)],)


def run_vondral(*args):
    return subprocess.run([VONDRAL, *args], capture_output=True, text=True, timeout=60)


def payload(path):
    data = hashlib.sha256(b"seed").digest() * (SIZE // 32)
    path.write_bytes(data)
    return hashlib.sha256(data).hexdigest()


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def check_test_mode(addr, user, password, flags=()):
    r = run_vondral("-s", addr, "-c", "%s:here:%s" % (user, password), "-t", *flags)
    assert r.returncode == 0, r.stderr
    assert re.search(r"\] \*\* Total Run Time: \d+\.\d{3} seconds\n", r.stdout), r.stdout
    # These servers are no IBM i: no quoted release, and perhaps no TIME.
    assert "invalid SYST reply" in r.stderr
    assert password not in r.stdout + r.stderr
    return r


def check_transfers(addr, user, password, remote_dir, local_dir, served_dir, flags=()):
    source = local_dir / "source.bin"
    want = payload(source)
    put = subprocess.run([FTPXFER, *flags, addr, user, password, "stor", str(source),
                          remote_dir + "/stored.bin"], capture_output=True, text=True, timeout=60)
    assert put.returncode == 0, put.stderr
    assert digest(served_dir / "stored.bin") == want
    back = local_dir / "back.bin"
    get = subprocess.run([FTPXFER, *flags, addr, user, password, "retr",
                          remote_dir + "/stored.bin",
                          str(back)], capture_output=True, text=True, timeout=60)
    assert get.returncode == 0, get.stderr
    assert back.stat().st_size == SIZE and digest(back) == want


def test_stock_pyftpdlib_test_mode_and_ten_mib_both_ways(pyftpdlib_server, tmp_path):
    addr, root, user, password = pyftpdlib_server
    r = check_test_mode(addr, user, password)
    assert "TIME command failed" in r.stderr  # tolerated: the login still counts
    check_transfers(addr, user, password, "", tmp_path, root)


def test_vsftpd_test_mode_and_ten_mib_both_ways(vsftpd_server, tmp_path):
    addr, anon, user, password = vsftpd_server
    check_test_mode(addr, user, password)
    check_transfers(addr, user, password, "/up", tmp_path, anon / "up")


def test_stock_pyftpdlib_over_tls_test_mode_and_ten_mib_both_ways(pyftpdlib_tls_server,
                                                                 tmp_path, test_certs):
    addr, root, user, password = pyftpdlib_tls_server
    flags = ["--tls", "--cacert", str(test_certs.ca)]
    check_test_mode(addr, user, password, flags)
    check_transfers(addr, user, password, "", tmp_path, root, flags)


def test_vsftpd_over_tls_test_mode_and_ten_mib_both_ways(vsftpd_tls_server, tmp_path):
    addr, anon, user, password, flags = vsftpd_tls_server
    check_test_mode(addr, user, password, flags)
    check_transfers(addr, user, password, "/up", tmp_path, anon / "up", flags)
