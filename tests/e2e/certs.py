"""Certificates for the TLS tests, made with the openssl command-line tool.

make_certs(directory) writes a test CA and server certificates beside it
and returns a Certs with their paths:

  good        signed by the CA, for every loopback address the tests hand
              out (127.0.0.1 .. 127.0.0.254), ::1 and localhost
  expired     the same names, signed by the CA, valid only in 2020
  wrong_name  signed by the CA, but for wrong.example and 192.0.2.7 only
  self_signed the same names as good, but signed by itself (not the CA)

Each server certificate is a (cert, key) pair of PEM files; `ca` is the CA
certificate a client is given with --cacert.
"""

import subprocess
from pathlib import Path

LOOPBACK_NAMES = ",".join(["DNS:localhost", "IP:::1"]
                          + ["IP:127.0.0.%d" % i for i in range(1, 255)])
WRONG_NAMES = "DNS:wrong.example,IP:192.0.2.7"

# `openssl ca` is the only way OpenSSL 3.0 signs a certificate whose
# validity lies wholly in the past (x509 -days cannot be negative); it
# wants a database and a serial file of its own.
CA_CONFIG = """\
[ ca ]
default_ca = test_ca
[ test_ca ]
dir = {dir}
database = {dir}/index.txt
new_certs_dir = {dir}/issued
serial = {dir}/serial
default_md = sha256
policy = any_name
copy_extensions = copy
unique_subject = no
[ any_name ]
commonName = supplied
[ server ]
basicConstraints = CA:FALSE
keyUsage = digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
"""


class Certs:
    def __init__(self, directory):
        d = Path(directory)
        self.dir = d
        self.ca = d / "ca.pem"
        self.ca_key = d / "ca.key"
        self.good = (d / "good.pem", d / "good.key")
        self.expired = (d / "expired.pem", d / "expired.key")
        self.wrong_name = (d / "wrong.pem", d / "wrong.key")
        self.self_signed = (d / "self.pem", d / "self.key")


def openssl(*args, cwd):
    subprocess.run(["openssl", *map(str, args)], cwd=cwd, check=True,
                   capture_output=True, timeout=60)


def _request(d, name, subject, names):
    """A new key and a certificate request carrying the names as SANs."""
    openssl("req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", name + ".key",
            "-out", name + ".csr", "-subj", "/CN=" + subject,
            "-addext", "subjectAltName=" + names, cwd=d)


def _sign(d, name, start, end):
    openssl("ca", "-batch", "-config", "ca.cnf", "-cert", "ca.pem", "-keyfile", "ca.key",
            "-extensions", "server", "-startdate", start, "-enddate", end, "-notext",
            "-in", name + ".csr", "-out", name + ".pem", cwd=d)


def make_certs(directory):
    d = Path(directory)
    (d / "issued").mkdir(parents=True, exist_ok=True)
    (d / "index.txt").write_text("")
    (d / "serial").write_text("1000\n")
    (d / "ca.cnf").write_text(CA_CONFIG.format(dir=d))
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key",
            "-out", "ca.pem", "-days", "30", "-subj", "/CN=vondral test CA",
            "-addext", "basicConstraints=critical,CA:TRUE",
            "-addext", "keyUsage=critical,keyCertSign,cRLSign", cwd=d)
    _request(d, "good", "sim.example", LOOPBACK_NAMES)
    _sign(d, "good", "20200101000000Z", "20991231000000Z")
    _request(d, "expired", "sim.example", LOOPBACK_NAMES)
    _sign(d, "expired", "20200101000000Z", "20200201000000Z")
    _request(d, "wrong", "wrong.example", WRONG_NAMES)
    _sign(d, "wrong", "20200101000000Z", "20991231000000Z")
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "self.key",
            "-out", "self.pem", "-days", "30", "-subj", "/CN=sim.example",
            "-addext", "subjectAltName=" + LOOPBACK_NAMES, cwd=d)
    return Certs(d)
