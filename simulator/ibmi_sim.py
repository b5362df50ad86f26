#!/usr/bin/python3
"""A simulated IBM i FTP server for end-to-end tests of the backup client.

The whole server state is a directory (the "server tree"); see README.md
for its layout, the command line and the configuration keys.

Control connections are handled by pyftpdlib, one thread per session.
Data connections are served by the session's own thread with plain
blocking-style socket loops: that keeps byte-exact control for the fault
injection (drop after n bytes, stall, drip, pace, chunked listings) and
lets a slow or sleeping session never hold up another one.
"""

import argparse
import json
import logging
import os
import posixpath
import re
import select
import shutil
import signal
import socket
import ssl
import sys
import tempfile
import threading
import time
import traceback
from datetime import datetime

HERE = os.path.dirname(os.path.abspath(__file__))
if HERE not in sys.path:
    sys.path.insert(0, HERE)

from pyftpdlib.handlers import FTPHandler  # noqa: E402
from pyftpdlib.ioloop import RetryError  # noqa: E402
from pyftpdlib.servers import ThreadedFTPServer  # noqa: E402

import clparse  # noqa: E402
import listing  # noqa: E402
import savimage  # noqa: E402

STOP = threading.Event()

DEFAULT_GREETING = ["QTCP at SIM.EXAMPLE.",
                    "Connection will close if idle more than 5 minutes."]
DEFAULT_RELEASE = "V5R4M0"

SAVF_PATH_RE = re.compile(
    r"^/QSYS\.LIB/QTEMP\.LIB/([A-Z0-9_#@$]{1,10})\.(?:SAVF|FILE)$", re.I)
SAVF_NAME_RE = re.compile(
    r"^(?:(QTEMP|\*LIBL|\*CURLIB)/)?([A-Z0-9_#@$]{1,10})$", re.I)

POLL = 0.25          # how often blocked loops look at STOP
TALK_PACE = 0.01     # seconds between the lines of a reply that never ends
IO_CHUNK = 1 << 20   # receive buffer for STOR
SEND_CHUNK = 1 << 22  # sendfile request size for RETR

DATA_ACTIONS = ("close_data_after", "stall_data", "close_after_data",
                "drip_data", "pace_data")
PACE_STEP = 0.05     # seconds between the chunks of a paced transfer
HANDSHAKE_TIMEOUT = 10  # seconds a TLS handshake may take
TLS_CHUNK = 1 << 18  # file bytes read per TLS send (no sendfile under TLS)
CLEAR_KEPT = 4096    # bytes of a data connection in clear kept in the log
# what a non-blocking socket (plain or TLS) says when it must be tried again
RETRY = (BlockingIOError, InterruptedError, ssl.SSLWantReadError,
         ssl.SSLWantWriteError)
TLS_COMMANDS = ("AUTH", "PBSZ", "PROT")


class Rule:
    """A configured fault or reply override, with its own match counter."""

    def __init__(self, entry, kind):
        self.entry = entry
        self.regex = re.compile(entry["match"])
        self.nth = entry.get("nth")
        self.seen = 0
        if kind == "fault":
            action = entry.get("action")
            if isinstance(action, dict):
                (self.action, params), = action.items()
                self.params = dict(params or {})
            else:
                self.action = action
                self.params = {k: v for k, v in entry.items()
                               if k not in ("match", "nth", "action")}
            known = ("close", "delay", "endless_reply",
                     "split_line_end") + DATA_ACTIONS
            if self.action not in known:
                raise ValueError("unknown fault action %r" % (self.action,))
        else:
            self.reply = entry["reply"]
            self.apply = bool(entry.get("apply", False))

    def hit(self, line):
        """Count a matching line; True when this rule fires for it."""
        if not self.regex.search(line):
            return False
        self.seen += 1
        return self.nth is None or self.seen == int(self.nth)


class SimState:
    """What all sessions share: the tree, the config, the log, counters."""

    def __init__(self, root, config, log_path, work_base, first_session=1):
        self.root = os.path.abspath(root)
        self.config = config
        self.lock = threading.Lock()
        self.next_session = first_session
        self.logins = 0
        self.log = open(log_path, "a", encoding="utf-8") if log_path else None
        self.work_base = work_base
        self.users = {k.upper(): v for k, v in
                      config.get("users", {"qsecofr": "secret"}).items()}
        self.faults = [Rule(f, "fault") for f in config.get("faults", [])]
        self.replies = [Rule(r, "reply") for r in config.get("replies", [])]
        self.cpf3caa = {norm(p) for p in config.get("cpf3caa_paths", [])}
        self.extra_lines = {norm(k): v for k, v in
                            config.get("extra_list_lines", {}).items()}
        self.refuse_after = config.get("refuse_logins_after")
        # objects whose save is a prebuilt placeholder image of a given
        # size, made once and hard-linked into each session's save file
        self.large_saves = {norm(k): int(v) for k, v in
                            config.get("large_saves", {}).items()}
        self.large_images = {}
        self.synthetic = {}
        for k, v in config.get("synthetic_listings", {}).items():
            if not isinstance(v, dict):
                v = {"objects": v}
            self.synthetic[norm(k)] = (int(v["objects"]),
                                       max(1, int(v.get("per_directory",
                                                        1000))))
        self._synthetic_cache = {}
        # hostile servers: trees without a bottom, listings cut short
        self.endless = {norm(p) for p in config.get("endless_depth", [])}
        self.unterminated = {norm(p) for p in
                             config.get("unterminated_last_line", [])}
        # FTPS (RFC 4217); one context for every connection, so a data
        # connection can resume the TLS session of its control connection
        self.tls = config.get("tls")
        self.tls_context = tls_context(self.tls) if self.tls else None

    # --- log

    def record(self, rec):
        if self.log is None:
            return
        rec.setdefault("t", time.time())
        line = json.dumps(rec, ensure_ascii=True)
        with self.lock:
            if not self.log.closed:
                self.log.write(line + "\n")
                self.log.flush()

    def new_session(self):
        with self.lock:
            sid = self.next_session
            self.next_session += 1
            return sid

    # --- rules

    def fired_faults(self, line):
        with self.lock:
            return [r for r in self.faults if r.hit(line)]

    def reply_for(self, line):
        with self.lock:
            chosen = None
            for r in self.replies:
                if r.hit(line) and chosen is None:
                    chosen = r
            return chosen

    def login_allowed(self):
        with self.lock:
            if self.refuse_after is not None and \
                    self.logins >= int(self.refuse_after):
                return False
            self.logins += 1
            return True

    # --- paths

    def fs_path(self, server_path):
        """File system path for an absolute server path, None if hidden.

        Names under /QSYS.LIB and /QDLS are case-insensitive on IBM i, so
        there a differently cased existing entry is used when the exact
        name does not exist.
        """
        parts = [p for p in server_path.split("/") if p]
        if parts and parts[0] == ".sim":
            return None
        cur = self.root
        folding = bool(parts) and parts[0].upper() in ("QSYS.LIB", "QDLS")
        for part in parts:
            nxt = os.path.join(cur, part)
            if folding and not os.path.lexists(nxt):
                try:
                    names = os.listdir(cur)
                except OSError:
                    names = []
                for n in names:
                    if n.upper() == part.upper():
                        nxt = os.path.join(cur, n)
                        break
            cur = nxt
        return cur

    def special(self, name):
        return os.path.join(self.root, ".sim", name)

    # --- large saves and synthetic listings (benchmarks)

    def large_image(self, path):
        """The placeholder image file for a large_saves path, made once."""
        with self.lock:
            image = self.large_images.get(path)
            if image is None:
                image = os.path.join(self.work_base, "large-%d.savf"
                                     % len(self.large_images))
                savimage.write_placeholder_image(
                    image, {"kind": "OBJ", "path": path},
                    self.large_saves[path])
                self.large_images[path] = image
            return image

    def synthetic_listing(self, path, names_only):
        """Listing bytes of a synthetic_listings path (or of one of its
        directories), None for any other path."""
        parent, _, leaf = path.rpartition("/")
        if path in self.synthetic:
            objects, per = self.synthetic[path]
            count = (objects + per - 1) // per
            names = ["D%06d" % i for i in range(count)]
            return _synthetic_lines(names, True, names_only,
                                    self.config, self._synthetic_dates())
        if parent in self.synthetic and re.fullmatch(r"D\d{6}", leaf):
            objects, per = self.synthetic[parent]
            first = int(leaf[1:]) * per
            if first >= objects:
                return None
            # Every directory holds the same names, so its listing is made
            # once and cut for the last, shorter directory: a walk of a
            # million objects costs the server little more than sending.
            key = ("files", per, names_only)
            with self.lock:
                made = self._synthetic_cache.get(key)
                if made is None:
                    names = ["OBJ%07d.DAT" % i for i in range(per)]
                    lines = _synthetic_lines(names, False, names_only,
                                             self.config,
                                             self._synthetic_dates(),
                                             joined=False)
                    ends, at = [], 0
                    for line in lines:
                        at += len(line)
                        ends.append(at)
                    made = (b"".join(lines), ends)
                    self._synthetic_cache[key] = made
            payload, ends = made
            return payload[:ends[min(objects - first, per) - 1]]
        return None

    def synthetic_entries_in(self, path):
        """Names of synthetic and endless roots directly inside the
        directory path."""
        return sorted({p.rpartition("/")[2]
                       for p in list(self.synthetic) + list(self.endless)
                       if (p.rpartition("/")[0] or "/") == path})

    def endless_listing(self, path, names_only):
        """Listing bytes of an endless_depth path or of any depth of "d"
        below it (one directory "d"), None for any other path."""
        for top in self.endless:
            below = path[len(top):] if path.startswith(top) else None
            if below is not None and re.fullmatch(r"(?:/d)*", below):
                return _synthetic_lines(["d"], True, names_only, self.config,
                                        self._synthetic_dates())
        return None

    def _synthetic_dates(self):
        dates = self._synthetic_cache.get("dates")
        if dates is None:
            now = time.time()
            # recent entries show a time of day, older ones a year
            dates = [listing.format_date(now - d * 86400 - d * 61, now)
                     for d in range(1, 400, 7)]
            self._synthetic_cache["dates"] = dates
        return dates


def _synthetic_lines(names, directories, names_only, config, dates,
                     joined=True):
    if names_only:
        lines = [n.encode("ascii") + b"\r\n" for n in names]
        return b"".join(lines) if joined else lines
    owner = str(config.get("list_owner", "QSYS"))
    group = str(config.get("list_group", "0"))
    mode = "drwxrwsrwx" if directories else "-rwxrwx---"
    head = "%s %3d %-8s %-8s " % (mode, 2 if directories else 1, owner,
                                  group)
    n_dates = len(dates)
    lines = [("%s%7d %s %s\r\n" % (head, 8192 if directories
                                   else (i * 7919) % 10000000,
                                   dates[i % n_dates], name)).encode("ascii")
             for i, name in enumerate(names)]
    return b"".join(lines) if joined else lines


def tls_context(cfg):
    """The server's TLS context: TLS 1.2 and later unless max_version
    (a name of ssl.TLSVersion) asks for an older protocol only, to make
    every modern client's handshake fail."""
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(cfg["cert"], cfg["key"])
    # a peer that hangs up without close_notify is noticed and logged
    ctx.options &= ~getattr(ssl, "OP_IGNORE_UNEXPECTED_EOF", 0)
    if cfg.get("max_version"):
        ctx.set_ciphers("DEFAULT:@SECLEVEL=0")
        ctx.minimum_version = ssl.TLSVersion.MINIMUM_SUPPORTED
        ctx.maximum_version = ssl.TLSVersion[cfg["max_version"]]
    else:
        ctx.minimum_version = ssl.TLSVersion.TLSv1_2
    return ctx


def tls_details(sock):
    version = sock.version()
    cipher = sock.cipher()
    return {"version": version, "cipher": cipher[0] if cipher else None}


def norm(path):
    """Normalise an absolute server path (no trailing or double slashes)."""
    p = posixpath.normpath("/" + path.lstrip("/"))
    return "/" + p.lstrip("/")


class DataAborted(Exception):
    """The data connection went away or was dropped on purpose."""


class SimHandler(FTPHandler):
    state = None  # SimState, set before the server starts

    # Only the commands the IBM i server offers the client; pyftpdlib's
    # table is replaced so nothing else is answered by accident. "auth"
    # says whether a login is needed first.
    proto_cmds = {
        name: dict(perm=None, auth=auth, arg=None, help="")
        for name, auth in (
            ("USER", False), ("PASS", False), ("QUIT", False),
            ("SYST", False), ("NOOP", False), ("PWD", True),
            ("XPWD", True), ("CWD", True), ("CDUP", True), ("PASV", True),
            ("EPSV", True), ("LIST", True), ("NLST", True), ("RETR", True),
            ("STOR", True), ("MKD", True), ("XMKD", True), ("TYPE", True),
            ("STRU", True), ("MODE", True), ("SITE", True), ("RCMD", True),
            ("TIME", True), ("ABOR", True), ("AUTH", False),
            ("PBSZ", False), ("PROT", False))
    }

    def __init__(self, conn, server, ioloop=None):
        self.sid = self.state.new_session()
        self.cwd = "/"
        self.savfs = {}
        self.workdir = None
        self._pasv = None
        self._data = None
        self._override = None
        self._data_faults = []
        self._split = None
        self._cur_line = ""
        self._gone = False
        self._greeting_talks = False
        self._tls_control = False   # the control connection is under TLS
        self._tls_pending = False   # implicit TLS: handshake still to do
        self._prot_p = False        # PROT P: data connections under TLS
        self._refusal = None        # final reply when no data connection
        self.timeout = int(self.state.config.get("idle_timeout", 300))
        # A link of this round trip between client and server (see
        # "round_trip_ms" in README.md); 0: none.
        self._round_trip = float(self.state.config.get("round_trip_ms", 0)) / 1000
        self._arrived = 0.0  # when the bytes being handled were received
        super().__init__(conn, server, ioloop)

    # --- plumbing

    def push(self, s):
        super(FTPHandler, self).push(s.encode("utf-8", "surrogateescape"))

    def respond(self, resp, logfun=None):
        if self._override is not None and resp[:1] in "2345":
            resp, self._override = self._override, None
        self._last_response = resp
        if self._split is not None:
            # Everything up to the last CR, then, after a pause, the LF:
            # one line end in two TCP sends.
            pause = float(self._split.params.get("seconds", 0.2))
            self._split = None
            text = "".join(line.rstrip("\r") + "\r\n" for line in resp.split("\n"))
            self._send_now(text[:-1].encode("utf-8", "surrogateescape"))
            STOP.wait(pause)
            self._send_now(b"\n")
            return
        for line in resp.split("\n"):
            self.push(line.rstrip("\r") + "\r\n")

    def _send_now(self, data):
        """Sends what is queued, then data, before returning."""
        sock = self.socket
        pending = b"".join(bytes(p) for p in self.producer_fifo if p) + data
        self.producer_fifo.clear()
        while pending and not STOP.is_set():
            select.select([], [sock], [], POLL)
            try:
                pending = pending[sock.send(pending):]
            except (BlockingIOError, InterruptedError):
                pass
            except OSError:
                return

    def handle(self):
        self.state.record({"session": self.sid, "event": "connect"})
        if self.state.tls and self.state.tls.get("implicit"):
            # the handshake blocks: it is done in the session's own thread
            self._tls_pending = True
            return
        self._greet()

    def _greet(self):
        lines = self.state.config.get("greeting", DEFAULT_GREETING)
        if isinstance(lines, str):
            lines = [lines]
        if self.state.config.get("endless_greeting"):
            # Every line a continuation line; the session's own thread then
            # goes on talking (see add_channel).
            for line in lines:
                self.push("220-%s\r\n" % line)
            self._greeting_talks = True
            return
        for line in lines[:-1]:
            self.push("220-%s\r\n" % line)
        self.push("220 %s\r\n" % (lines[-1] if lines else ""))

    def add_channel(self, map=None, events=None):
        super().add_channel(map, events)
        if self._tls_pending and self.ioloop is not self.server.ioloop:
            self._tls_pending = False
            if self._start_control_tls():
                self._greet()
            # else: no greeting; whatever arrives in clear is still logged
        # handle() runs in the thread that accepts connections, which must
        # never block; the session's thread registers the connection with
        # its own loop here, and a greeting that never ends is talked there.
        if self._greeting_talks and self.ioloop is not self.server.ioloop:
            self._greeting_talks = False
            self.call_later(0, self._talk_forever, "220",
                            "The greeting goes on")

    def close(self):
        if not self._gone:
            self._gone = True
            rest = b"".join(self._in_buffer) + (self.ac_in_buffer or b"")
            if rest and self.state.tls is not None and not self._tls_control:
                # a line cut short by the hang-up still counts as sent
                self.state.record({"session": self.sid, "clear_rest":
                                   rest.decode("latin-1")})
            self._close_data()
            if self.workdir:
                shutil.rmtree(self.workdir, ignore_errors=True)
            self.state.record({"session": self.sid, "event": "disconnect"})
        super().close()

    def _close_data(self):
        for attr in ("_pasv", "_data"):
            s = getattr(self, attr)
            if s is not None:
                try:
                    s.close()
                except OSError:
                    pass
                setattr(self, attr, None)

    def _drop_session(self):
        """Vanish like a broken connection: no reply, sockets closed."""
        self._close_data()
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.close()

    def _talk_forever(self, code, text):
        """Send continuation lines "code-text (n)." one every TALK_PACE
        seconds, never the final line, until the client closes the control
        connection or the server stops; then the session is dropped. What
        the client sends meanwhile is read and ignored."""
        sock = self.socket
        # replies still queued by the connection go out first, in order
        pending = b"".join(bytes(p) for p in self.producer_fifo if p)
        self.producer_fifo.clear()
        n = 0
        next_line = time.monotonic()
        while not STOP.is_set() and not self._closed:
            now = time.monotonic()
            if now >= next_line and len(pending) < 65536:
                n += 1
                pending += ("%s-%s (%d).\r\n" % (code, text, n)).encode()
                next_line = now + float(self.state.config.get("talk_pace",
                                                              TALK_PACE))
            r, w, _ = select.select([sock], [sock] if pending else [], [],
                                    max(0.0, min(POLL, next_line - now)))
            try:
                if r and not sock.recv(65536):
                    break  # the client hung up
                if w:
                    pending = pending[sock.send(pending):]
            except RETRY:
                pass
            except OSError:
                break
        self._drop_session()

    # --- TLS on the control connection

    def send(self, data):
        if not self._tls_control:
            return super().send(data)
        try:
            return self.socket.send(data)
        except RETRY:
            return 0
        except OSError:
            self.handle_close()
            return 0

    def recv(self, buffer_size):
        if not self._tls_control:
            return super().recv(buffer_size)
        try:
            data = self.socket.recv(buffer_size)
        except RETRY:
            raise RetryError
        except OSError:
            data = b""
        if not data:
            self.handle_close()
        return data

    def handle_read(self):
        super().handle_read()
        # decrypted bytes already inside the TLS layer wake no poll
        while self._tls_control and not self._closed and \
                self.socket.pending():
            super().handle_read()

    def _start_control_tls(self):
        """Handshake on the control connection (blocking, bounded). True
        when it is under TLS; on failure the connection stays in clear, so
        a client that goes on without TLS is caught in the log."""
        plain = self.socket
        pending = b"".join(bytes(p) for p in self.producer_fifo if p)
        self.producer_fifo.clear()
        plain.settimeout(HANDSHAKE_TIMEOUT)  # replies before TLS go out whole
        try:
            plain.sendall(pending)
        except OSError:
            pass
        ok, tls = self._handshake(plain, "control")
        if not ok:
            plain = socket.socket(fileno=tls.detach())
            plain.setblocking(False)
            self.socket = plain
            return False
        tls.setblocking(False)
        self.socket = tls
        self._tls_control = True
        return True

    def _handshake(self, sock, on):
        """The server's side of a TLS handshake on sock, bounded in time
        and logged: (True, TLS socket), or (False, the TLS socket, still
        open) after a failure."""
        sock.settimeout(HANDSHAKE_TIMEOUT)
        tls = self.state.tls_context.wrap_socket(
            sock, server_side=True, do_handshake_on_connect=False,
            suppress_ragged_eofs=False)
        try:
            tls.do_handshake()
        except (OSError, ValueError) as e:
            self.state.record({"session": self.sid, "event": "tls_failed",
                               "on": on, "error": str(e)})
            return False, tls
        rec = dict(tls_details(tls), session=self.sid, event="tls", on=on)
        if on == "data":
            rec["reused"] = tls.session_reused
        self.state.record(rec)
        return True, tls

    def ftp_AUTH(self, arg):
        if self._tls_control:
            self.respond("503 Security environment already established.")
        elif arg.strip().upper() not in ("TLS", "TLS-C", "SSL"):
            self.respond("504 Security mechanism %s not supported." % arg)
        else:
            self.respond("234 Security environment established - ready "
                         "for negotiation.")
            self._start_control_tls()

    def ftp_PBSZ(self, arg):
        if not self._tls_control:
            self.respond("503 Security data exchange not complete.")
        else:
            self.respond("200 PBSZ=0")

    def ftp_PROT(self, arg):
        level = arg.strip().upper()
        if not self._tls_control:
            self.respond("503 Security data exchange not complete.")
        elif level in ("P", "C"):
            self._prot_p = level == "P"
            self.respond("200 Protection level set to %s."
                         % ("Private" if self._prot_p else "Clear"))
        elif level in ("S", "E"):
            self.respond("536 Protection level %s not supported." % level)
        else:
            self.respond("504 Protection level %s not understood." % level)

    def _data_tls(self, conn):
        """The accepted data connection under TLS, or None (then
        self._refusal is the reply) when its handshake fails or, with
        require_reuse, it does not resume the control connection's
        session."""
        ok, tls = self._handshake(conn, "data")
        if not ok:
            tls.close()
            return None
        if self.state.tls.get("require_reuse", True) and \
                not tls.session_reused:
            self._refusal = "522 SSL connection failed: session reuse " \
                            "required."
            tls.close()
            return None
        tls.setblocking(False)
        return tls

    def _plain_data(self):
        """Whether the configuration keeps this command's data connection
        in clear despite PROT P: plain_data true, or a regex it matches."""
        plain = self.state.tls.get("plain_data", False)
        if isinstance(plain, str):
            return re.search(plain, self._cur_line) is not None
        return bool(plain)

    @staticmethod
    def _close_notify(conn):
        """End TLS on a data connection with close_notify, without waiting
        for the client's."""
        if isinstance(conn, ssl.SSLSocket):
            try:
                conn.unwrap()
            except (OSError, ValueError):
                pass

    def _restart_idle_timer(self):
        if self._idler is not None and not self._idler.cancelled:
            self._idler.reset()

    def handle_read(self):
        # Every line of one receive arrived together: a client that sends
        # several commands at once waits one round trip for all of them.
        self._arrived = time.monotonic()
        super().handle_read()

    def _cross_link(self, since):
        """Waits until a round trip has passed since `since`: the command
        crossed the link and its reply crosses back."""
        if self._round_trip > 0:
            STOP.wait(max(0.0, since + self._round_trip - time.monotonic()))

    def collect_incoming_data(self, data):
        self._in_buffer.append(data)
        self._in_buffer_len += len(data)
        if self._in_buffer_len > 64 * 1024:
            self.respond("500 Command too long.")
            self._in_buffer = []
            self._in_buffer_len = 0

    def found_terminator(self):
        if self._gone or self._closed:
            return  # lines that were still buffered when the session ended
        self._restart_idle_timer()
        raw = b"".join(self._in_buffer)
        self._in_buffer = []
        self._in_buffer_len = 0
        line = raw.decode("utf-8", "surrogateescape")
        st = self.state
        self._cross_link(self._arrived)
        # the log is written before anything happens, so a test still sees
        # the command even when it makes the session vanish
        rec = {"session": self.sid, "cmd": line}
        if st.tls is not None and not self._tls_control:
            rec["clear"] = True
        st.record(rec)
        fired = st.fired_faults(line)
        for rule in fired:
            st.record({"session": self.sid, "fault": rule.action,
                       "line": line, "params": rule.params})
        if any(r.action == "close" for r in fired):
            self._drop_session()
            return
        for rule in fired:
            if rule.action == "delay":
                STOP.wait(float(rule.params.get("seconds", 1)))
        if STOP.is_set():
            return
        if any(r.action == "endless_reply" for r in fired):
            self._talk_forever("250", "The reply goes on")
            return
        reply = st.reply_for(line)
        if reply is not None and not reply.apply:
            # A refused transfer closes the passive connection the client
            # opened for it, as an IBM i does.
            if line[:4].upper() in ("RETR", "STOR", "LIST", "NLST"):
                self._close_data()
            self.respond(reply.reply)
            return
        self._override = reply.reply if reply is not None else None
        self._data_faults = [r for r in fired if r.action in DATA_ACTIONS]
        self._split = next((r for r in fired
                            if r.action == "split_line_end"), None)
        self._cur_line = line
        try:
            self.dispatch(line)
        except Exception as e:  # a simulator bug must not kill the session
            traceback.print_exc(file=sys.stderr)
            if not self._closed:
                self.respond("451 Simulator error: %s" % e)
        finally:
            self._override = None
            self._data_faults = []
            self._split = None

    def dispatch(self, line):
        cmd, _, arg = line.partition(" ")
        cmd = cmd.upper()
        if cmd == "SITE":
            sub, _, rest = arg.partition(" ")
            return self.site(sub.upper(), rest)
        entry = self.proto_cmds.get(cmd)
        if entry is None or (cmd in TLS_COMMANDS and self.state.tls is None):
            self.respond("500 Unknown command")
            return
        if entry["auth"] and not self.authenticated:
            self.respond("530 Log in with USER and PASS first.")
            return
        getattr(self, "ftp_" + cmd)(arg)

    def fault(self, action):
        for r in self._data_faults:
            if r.action == action:
                return r
        return None

    # --- login and session settings

    def ftp_USER(self, arg):
        self.authenticated = False
        self.username = arg.strip()
        self.respond("331 Enter password.")

    def ftp_PASS(self, arg):
        if not self.username:
            self.respond("503 Log in with USER first.")
            return
        expected = self.state.users.get(self.username.upper())
        if expected is None or expected != arg:
            self.respond("530 Login incorrect.")
            return
        if not self.state.login_allowed():
            self.state.record({"session": self.sid, "fault": "refuse_login",
                               "line": "PASS"})
            self.respond("530 Login incorrect.")
            return
        self.authenticated = True
        self.respond("230 %s logged on." % self.username.upper())

    def ftp_QUIT(self, arg):
        self.respond("221 QUIT subcommand received.")
        self._close_data()
        self.close_when_done()

    def ftp_SYST(self, arg):
        cfg = self.state.config
        if "syst_reply" in cfg:
            self.respond(cfg["syst_reply"])
        else:
            self.respond('215  OS/400 is the remote operating system. The '
                         'TCP/IP version is "%s".'
                         % cfg.get("release", DEFAULT_RELEASE))

    def ftp_NOOP(self, arg):
        self.respond("200 NOOP command successful.")

    def ftp_TIME(self, arg):
        if not self.state.config.get("time_supported", True):
            self.respond("500 Unknown command")
            return
        parts = arg.split()
        try:
            secs = [int(p) for p in parts]
            if not secs or len(secs) > 2 or min(secs) < 0:
                raise ValueError
        except ValueError:
            self.respond("501 TIME needs an inactivity and a data timeout.")
            return
        self.timeout = secs[0] or 0
        if self._idler is not None and not self._idler.cancelled:
            self._idler.cancel()
            self._idler = None
        if self.timeout:
            self._idler = self.ioloop.call_later(
                self.timeout, self.handle_timeout, _errback=self.handle_error)
        self.respond("250 Inactivity timer set to %d, data timer set to %d."
                     % (secs[0], secs[-1]))

    def ftp_TYPE(self, arg):
        t = arg.strip().upper()
        if t in ("A", "A N"):
            self._current_type = "a"
            self.respond("200 Representation type is ASCII nonprint.")
        elif t in ("I", "L 8"):
            self._current_type = "i"
            self.respond("200 Representation type is binary IMAGE.")
        else:
            self.respond("504 Type %s not supported." % arg)

    def ftp_STRU(self, arg):
        if arg.strip().upper() == "F":
            self.respond("250 Data structure is file.")
        else:
            self.respond("504 Data structure %s not supported." % arg)

    def ftp_MODE(self, arg):
        if arg.strip().upper() == "S":
            self.respond("200 Data transfer mode is stream.")
        else:
            self.respond("504 Data transfer mode %s not supported." % arg)

    def site(self, sub, arg):
        if not self.authenticated:
            self.respond("530 Log in with USER and PASS first.")
            return
        value = arg.strip()
        if sub == "NAMEFMT" and value in ("0", "1"):
            self.respond('250  Now using naming format "%s".' % value)
        elif sub == "LISTFMT" and value in ("0", "1"):
            self.respond('250  Now using list format "%s".' % value)
        elif sub in ("NAMEFMT", "LISTFMT"):
            self.respond("501 Parameter %s not valid for %s." % (value, sub))
        else:
            self.respond("250 SITE subcommand accepted.")

    # --- paths and directories

    def abspath(self, arg):
        if not arg:
            return self.cwd
        return norm(posixpath.join(self.cwd, arg))

    def ftp_PWD(self, arg):
        self.respond('257 "%s" is current directory.' % self.cwd)

    ftp_XPWD = ftp_PWD

    def ftp_CWD(self, arg):
        path = self.abspath(arg or "/")
        fs = self.state.fs_path(path)
        if fs is None or not os.path.isdir(fs):
            self.respond("550 Specified directory does not exist or cannot "
                         "be accessed.")
            return
        self.cwd = path
        self.respond('250 "%s" is current directory.' % path)

    def ftp_CDUP(self, arg):
        self.ftp_CWD("..")

    def ftp_MKD(self, arg):
        path = self.abspath(arg)
        fs = self.state.fs_path(path)
        if fs is None or path == "/":
            self.respond("550 Directory %s cannot be created." % path)
        elif os.path.lexists(fs):
            self.respond("550 Directory %s already exists." % path)
        elif not os.path.isdir(os.path.dirname(fs)):
            self.respond("550 Parent directory of %s not found." % path)
        else:
            os.mkdir(fs)
            self.respond('257 "%s" created.' % path)

    ftp_XMKD = ftp_MKD

    # --- data connections

    def ftp_PASV(self, arg):
        self._close_data()
        if self.socket.family != socket.AF_INET:
            self.respond("425 PASV is for IPv4; use EPSV.")
            return
        local_ip = self.socket.getsockname()[0]
        lst = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        lst.bind((local_ip, 0))
        lst.listen(4)
        self._pasv = lst
        port = lst.getsockname()[1]
        # A hostile server may name another host in its reply; the listener
        # is here all the same.
        named = self.state.config.get("pasv_address") or local_ip
        self.respond("227 Entering Passive Mode (%s,%d,%d)."
                     % (named.replace(".", ","), port >> 8, port & 255))

    def ftp_EPSV(self, arg):
        self._close_data()
        local_ip = self.socket.getsockname()[0]
        lst = socket.socket(self.socket.family, socket.SOCK_STREAM)
        lst.bind((local_ip, 0))
        lst.listen(4)
        self._pasv = lst
        self.respond("229 Entering Extended Passive Mode (|||%d|)."
                     % lst.getsockname()[1])

    def ftp_ABOR(self, arg):
        self._close_data()
        self.respond("226 ABOR command successful.")

    def _need_pasv(self):
        if self._pasv is None:
            self.respond("425 Use PASV first.")
            return False
        return True

    def _accept(self):
        """Accept the client's data connection (after the 1xx reply),
        under TLS after PROT P. None, with the reply given, when there is
        none."""
        conn = self._accept_plain()
        if conn is not None and self._prot_p and not self._plain_data():
            conn = self._data_tls(conn)
        self._data = conn
        if conn is None:
            self.respond(self._refusal or "425 Cannot open data connection.")
            self._refusal = None
        return conn

    def _accept_plain(self):
        lst, self._pasv = self._pasv, None
        deadline = time.time() + float(
            self.state.config.get("data_accept_timeout", 30))
        lst.settimeout(POLL)
        try:
            while True:
                try:
                    conn, _ = lst.accept()
                    break
                except socket.timeout:
                    if STOP.is_set() or time.time() > deadline:
                        return None
        finally:
            lst.close()
        # The client's connect took its round trip before it could send or
        # take anything.
        self._cross_link(time.monotonic())
        conn.setblocking(False)
        conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._data = conn
        return conn

    def _wait(self, conn, writing):
        """Block until conn is ready; raise DataAborted on stop or timeout."""
        limit = float(self.state.config.get("data_timeout", 300))
        deadline = time.time() + limit
        while True:
            if STOP.is_set():
                raise DataAborted("server stopping")
            if not writing and isinstance(conn, ssl.SSLSocket) and \
                    conn.pending():
                return  # decrypted already: no poll would report it
            if writing:
                _, w, _ = select.select([], [conn], [], POLL)
                if w:
                    return
            else:
                r, _, _ = select.select([conn], [], [], POLL)
                if r:
                    return
            if time.time() > deadline:
                raise DataAborted("data connection timed out")

    def _send(self, conn, data, budget):
        """Send bytes, stopping after budget bytes when budget is not None.

        Returns the number of bytes sent.
        """
        view = memoryview(data)
        if budget is not None:
            view = view[:max(0, budget)]
        sent = 0
        while sent < len(view):
            self._wait(conn, True)
            try:
                sent += conn.send(view[sent:sent + IO_CHUNK])
            except RETRY:
                continue
            except OSError as e:
                raise DataAborted(str(e))
        return sent

    def _send_file(self, conn, fd, size, budget):
        limit = size if budget is None else min(size, budget)
        if isinstance(conn, ssl.SSLSocket):
            # sendfile would put the file on the wire unencrypted
            offset = 0
            while offset < limit:
                chunk = os.pread(fd, min(TLS_CHUNK, limit - offset), offset)
                if not chunk:
                    break  # the file shrank meanwhile
                offset += self._send(conn, chunk, None)
            return offset
        offset = 0
        while offset < limit:
            self._wait(conn, True)
            try:
                n = os.sendfile(conn.fileno(), fd, offset,
                                min(SEND_CHUNK, limit - offset))
            except BlockingIOError:
                continue
            except OSError as e:
                raise DataAborted(str(e))
            if n == 0:
                break  # the file shrank meanwhile
            offset += n
        return offset

    def _drip(self, conn, pieces, size, interval):
        """Send the data `size` bytes every `interval` seconds, starting over
        at its end (NUL bytes when there is none), so it never ends.

        Ends like a stall: when the client closes the data connection or its
        control connection, sends another command, or the server stops.
        """
        drops = _drops(pieces, max(1, size))
        ctrl = self.socket
        pending = b""
        next_drop = time.monotonic()
        while not STOP.is_set():
            now = time.monotonic()
            if now >= next_drop and not pending:
                # a client that does not read gets no more than it takes
                pending = next(drops)
                next_drop = now + interval
            r, w, _ = select.select([conn, ctrl], [conn] if pending else [],
                                    [], max(0.0, min(POLL, next_drop - now)))
            try:
                if conn in r and not conn.recv(65536):
                    return
                if w:
                    pending = pending[conn.send(pending):]
            except RETRY:
                pass
            except OSError:
                return
            if ctrl in r:
                return

    def _send_paced(self, conn, pieces, rate):
        """Send all the data, a chunk every PACE_STEP seconds, at about
        `rate` bytes per second. True when it all went out."""
        step = max(1, int(rate * PACE_STEP))
        start = time.monotonic()
        sent = 0
        try:
            for chunk in _chunks(pieces, step):
                sent += self._send(conn, chunk, None)
                # ahead of the pace: wait until the rate allows the next one
                STOP.wait(max(0.0, start + sent / rate - time.monotonic()))
                if STOP.is_set():
                    raise DataAborted("server stopping")
        except DataAborted:
            self._aborted()
            return False
        return True

    def _stall(self, conn):
        """Keep the data connection open without sending anything more.

        Ends when the client closes it or its control connection, sends
        another command, or the server stops.
        """
        self._until_client_closes(conn, self.socket)

    @staticmethod
    def _until_client_closes(conn, ctrl=None, seconds=None):
        """Discard what arrives on conn until the client closes it, the
        control connection (when given) becomes readable, `seconds` pass,
        or the server stops."""
        deadline = None if seconds is None else time.monotonic() + seconds
        watched = [conn] if ctrl is None else [conn, ctrl]
        while not STOP.is_set():
            if deadline is not None and time.monotonic() >= deadline:
                return
            r, _, _ = select.select(watched, [], [], POLL)
            if conn in r:
                try:
                    if not conn.recv(65536):
                        return
                except RETRY:
                    pass
                except OSError:
                    return
            if ctrl is not None and ctrl in r:
                return

    def _await_client_close(self, conn):
        """Hold the control connection until the client has taken all data.

        "close_after_data" means the whole transfer went through before the
        session broke. Dropping the session while the data still sits in the
        client's socket lets the client see the hang-up first, so the fault
        would be a different one each run. The client closes its end once it
        has read the end of the data; a client that never does is given up
        on after a while.
        """
        self._close_notify(conn)
        try:
            conn.shutdown(socket.SHUT_WR)
        except OSError:
            return
        self._until_client_closes(conn, seconds=30)

    def _finish(self, ok_reply):
        """Close the data connection and give the final reply."""
        conn, self._data = self._data, None
        drop = self.fault("close_after_data")
        if conn is not None:
            if drop:
                self._await_client_close(conn)
            else:
                self._close_notify(conn)
            try:
                conn.close()
            except OSError:
                pass
        if drop:
            self._drop_session()
            return
        self._restart_idle_timer()
        self.respond(ok_reply)

    def _aborted(self):
        conn, self._data = self._data, None
        if conn is not None:
            try:
                conn.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            conn.close()
        self._restart_idle_timer()
        if not self._closed:
            self.respond("426 Connection closed; transfer aborted.")

    def _send_payload(self, conn, pieces):
        """Send a sequence of (kind, value) pieces honouring data faults.

        kind "bytes": value is bytes; "file": (fd, size).
        Returns True when everything went out, False after an abort.
        """
        drip = self.fault("drip_data")
        if drip is not None:
            self._drip(conn, pieces, int(drip.params.get("bytes", 1)),
                       float(drip.params.get("interval", 1)))
            self._aborted()
            return False
        pace = self.fault("pace_data")
        if pace is not None:
            return self._send_paced(conn, pieces,
                                    float(pace.params["bytes_per_second"]))
        drop = self.fault("close_data_after")
        stall = self.fault("stall_data")
        budget = None
        if drop is not None:
            budget = int(drop.params.get("bytes", 0))
        elif stall is not None:
            budget = int(stall.params.get("bytes", 0))
        try:
            for kind, value in pieces:
                if budget is not None and budget <= 0:
                    break
                if kind == "bytes":
                    n = self._send(conn, value, budget)
                else:
                    n = self._send_file(conn, value[0], value[1], budget)
                if budget is not None:
                    budget -= n
        except DataAborted:
            self._aborted()
            return False
        # the fault only fires when the transfer actually got that far
        if budget is not None and budget <= 0:
            if stall is not None:
                self._stall(conn)
            self._aborted()
            return False
        return True

    # --- save files of the session (library QTEMP)

    def savf_path(self, name):
        return self.savfs.get(name.upper())

    def savf_create(self, name):
        if self.workdir is None:
            self.workdir = tempfile.mkdtemp(prefix="s%d-" % self.sid,
                                            dir=self.state.work_base)
        path = os.path.join(self.workdir, name.upper() + ".SAVF")
        open(path, "wb").close()
        self.savfs[name.upper()] = path
        return path

    # --- listing

    def _list_payload(self, path, fs, names_only):
        """Listing bytes for a path, or None when it does not exist."""
        st = self.state
        if st.synthetic:
            synthetic = st.synthetic_listing(path, names_only)
            if synthetic is not None:
                return synthetic
        if st.endless:
            endless = st.endless_listing(path, names_only)
            if endless is not None:
                return endless
        if fs is None or not os.path.lexists(fs):
            return None
        cfg = st.config
        owner = str(cfg.get("list_owner", "QSYS"))
        group = str(cfg.get("list_group", "0"))
        now = time.time()
        lines = []
        if os.path.isdir(fs) and not os.path.islink(fs):
            names = sorted(os.listdir(fs))
            if path == "/":
                names = [n for n in names if n != ".sim"]
            for n in names:
                p = os.path.join(fs, n)
                try:
                    lines.append(n if names_only else
                                 listing.entry_line(p, n, owner, group, now))
                except OSError:
                    continue
            for n in st.synthetic_entries_in(path) \
                    if st.synthetic or st.endless else ():
                if n not in names:
                    lines.append(n if names_only else
                                 listing.format_line(
                                     n, os.stat(fs), None, owner, group,
                                     now))
        else:
            name = posixpath.basename(path)
            lines.append(name if names_only else
                         listing.entry_line(fs, name, owner, group, now))
        lines.extend(st.extra_lines.get(path, []))
        return b"".join(l.encode("utf-8", "surrogateescape") + b"\r\n"
                        for l in lines)

    def _do_list(self, arg, names_only):
        a = arg.strip()
        if a in ("-a", "-l", "-al", "-la"):
            a = ""
        path = self.abspath(arg if a else "")
        st = self.state
        if path in st.cpf3caa:
            self._close_data()
            self.respond("550 CPF3CAA List of objects not allowed for the "
                         "path.")
            return
        if not self._need_pasv():
            return
        payload = self._list_payload(path, st.fs_path(path), names_only)
        if payload and path in st.unterminated and payload.endswith(b"\r\n"):
            payload = payload[:-2]  # the last line loses its line end
        missing = "550 Specified directory does not exist or cannot be " \
                  "accessed."
        self.respond("125 List started.")
        conn = self._accept()
        if conn is None:
            return
        if payload is None:
            self._finish(missing)
            return
        if self._send_payload(conn, [("bytes", payload)]):
            self._finish("250 List completed.")

    def ftp_LIST(self, arg):
        self._do_list(arg, False)

    def ftp_NLST(self, arg):
        self._do_list(arg, True)

    # --- file transfer

    def ftp_RETR(self, arg):
        path = self.abspath(arg)
        m = SAVF_PATH_RE.match(path)
        if m:
            src = self.savf_path(m.group(1))
            if src is None:
                self._close_data()
                self.respond("550 CPF9812 File %s in library QTEMP not found."
                             % m.group(1).upper())
                return
        else:
            src = self.state.fs_path(path)
            if src is None or not os.path.isfile(src):
                self._close_data()
                self.respond("550 File %s not found." % path)
                return
        if not self._need_pasv():
            return
        fd = os.open(src, os.O_RDONLY)
        try:
            size = os.fstat(fd).st_size
            self.respond("150 Opening data connection.")
            conn = self._accept()
            if conn is None:
                return
            if self._send_payload(conn, [("file", (fd, size))]):
                self._finish("226 Transfer complete.")
        finally:
            os.close(fd)

    def ftp_STOR(self, arg):
        path = self.abspath(arg)
        m = SAVF_PATH_RE.match(path)
        if m:
            dst = self.savf_path(m.group(1))
            if dst is None:
                self._close_data()
                self.respond("550 CPF9812 File %s in library QTEMP not found."
                             % m.group(1).upper())
                return
        else:
            dst = self.state.fs_path(path)
            if dst is None or os.path.isdir(dst) or \
                    not os.path.isdir(os.path.dirname(dst)):
                self._close_data()
                self.respond("550 File %s cannot be created." % path)
                return
        if not self._need_pasv():
            return
        self.respond("150 Opening data connection.")
        conn = self._accept()
        if conn is None:
            return
        drop = self.fault("close_data_after")
        budget = int(drop.params.get("bytes", 0)) if drop else None
        if m:
            _unshare(dst)
        fd = os.open(dst, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
        try:
            budget = self._receive(conn, fd, budget)
        except DataAborted:
            self._aborted()
            return
        finally:
            os.close(fd)
        if budget is not None and budget <= 0:
            self._aborted()
            return
        self._finish("226 Transfer complete.")

    def _receive(self, conn, fd, budget):
        """Write what arrives on conn into fd until EOF or budget is used.

        Returns the budget left (None when unlimited).
        """
        buf = bytearray(IO_CHUNK)
        view = memoryview(buf)
        tls = isinstance(conn, ssl.SSLSocket)
        # with FTPS configured, what arrives in clear is logged
        clear = None if tls or self.state.tls is None else bytearray()
        clear_total = 0
        # Large reads: the socket counts as readable only once a good part
        # of a chunk has arrived (or the data has ended), so a fast upload
        # costs a few wake-ups per MiB instead of one per segment. Not with
        # FTPS: a close_notify, or a TLS hello sent to a server that stays
        # in clear, could sit below the mark unseen.
        try:
            if self.state.tls is None:
                conn.setsockopt(socket.SOL_SOCKET, socket.SO_RCVLOWAT,
                                IO_CHUNK // 2 if budget is None
                                else max(1, min(IO_CHUNK // 2, budget)))
        except OSError:
            pass
        try:
            while budget is None or budget > 0:
                self._wait(conn, False)
                want = IO_CHUNK if budget is None else min(IO_CHUNK, budget)
                try:
                    n = conn.recv_into(view, want)
                except RETRY:
                    continue
                except ssl.SSLEOFError:
                    self.state.record({"session": self.sid, "event":
                                       "tls_eof_without_close_notify"})
                    break
                except OSError as e:
                    raise DataAborted(str(e))
                if n == 0:
                    break
                if clear is not None:
                    clear_total += n
                    clear += view[:min(n, CLEAR_KEPT - len(clear))]
                self._write_all(fd, view, n)
                if budget is not None:
                    budget -= n
        finally:
            if clear_total:
                self.state.record({"session": self.sid, "bytes": clear_total,
                                   "clear_data": clear.decode("latin-1")})
        return budget

    @staticmethod
    def _write_all(fd, view, n):
        done = 0
        while done < n:
            done += os.write(fd, view[done:n])

    # --- remote commands

    def ftp_RCMD(self, arg):
        if not arg.strip():
            self.respond("501 RCMD needs a CL command.")
            return
        try:
            name, params, _ = clparse.parse(arg)
        except clparse.CLSyntaxError as e:
            self.respond("550 CPF0006 Errors occurred in command: %s." % e)
            return
        fn = getattr(self, "cl_" + name, None)
        if fn is None:
            self.respond("250 Command %s successful." % name)
            return
        self.respond(fn(params))

    def _savf_param(self, params):
        """Save file named by SAVF(QTEMP/X) or by DEV('<QTEMP path>.FILE').

        Returns (name, error reply or None).
        """
        dev = clparse.first(params, "DEV")
        savf = clparse.first(params, "SAVF")
        if savf is None and dev is not None and str(dev).upper() != "*SAVF":
            m = SAVF_PATH_RE.match(norm(str(dev)))
            if not m:
                return None, "550 CPF3793 Device %s not valid." % dev
            name = m.group(1).upper()
        else:
            m = SAVF_NAME_RE.match(str(savf or ""))
            if not m:
                return None, "550 CPF9812 File %s not found." % savf
            name = m.group(2).upper()
        if self.savf_path(name) is None:
            return name, ("550 CPF9812 File %s in library QTEMP not found."
                          % name)
        return name, None

    def cl_CRTSAVF(self, params):
        qualified = str(clparse.first(params, "FILE", ""))
        m = SAVF_NAME_RE.match(qualified)
        if not m:
            return "550 CPF7302 File %s not created." % qualified
        name = m.group(2).upper()
        if self.savf_path(name) is not None:
            return "550 CPF5813 File %s in library QTEMP already exists." \
                % name
        self.savf_create(name)
        return "250 Command CRTSAVF successful."

    def cl_CLRSAVF(self, params):
        qualified = str(clparse.first(params, "FILE", ""))
        m = SAVF_NAME_RE.match(qualified)
        name = m.group(2).upper() if m else qualified
        path = self.savf_path(name) if m else None
        if path is None:
            return "550 CPF9812 File %s in library QTEMP not found." % name
        _unshare(path)
        open(path, "wb").close()
        return "250 Command CLRSAVF successful."

    def cl_DLTF(self, params):
        qualified = str(clparse.first(params, "FILE", ""))
        m = SAVF_NAME_RE.match(qualified)
        name = m.group(2).upper() if m else qualified
        path = self.savf_path(name) if m else None
        if path is None:
            return "550 CPF2105 Object %s in QTEMP type *FILE not found." \
                % name
        os.unlink(path)
        del self.savfs[name]
        return "250 Command DLTF successful."

    def _save(self, name, meta, source, since=None, omit=(),
              synthesize=False, count_top=True):
        """Write an image of source into save file name; returns n saved."""
        entries = savimage.walk(source, since, omit, synthesize)
        dest = self.savf_path(name)
        # a failed save must leave the previous content in place
        tmp = dest + ".new"
        try:
            n = savimage.write_image(tmp, meta, entries)
            os.replace(tmp, dest)
        finally:
            if os.path.exists(tmp):
                os.unlink(tmp)
        if not count_top:
            n = max(0, n - 1)
        return n

    def cl_SAV(self, params):
        name, err = self._savf_param(params)
        if err:
            return err
        includes, omits = self._obj_elements(params)
        if not includes:
            return "550 CPD0072 Parameter OBJ required."
        path = includes[0][0]
        if path in self.state.large_saves:
            return self._save_large(name, path)
        fs = self.state.fs_path(path)
        if fs is None or not os.path.lexists(fs):
            return "550 CPF3781 Object %s not found. 0 objects saved." % path
        since = None
        period = params.get("CHGPERIOD")
        if period and isinstance(period[0], str) and \
                not period[0].startswith("*"):
            try:
                since = parse_cl_time(period[0],
                                      period[1] if len(period) > 1 else None)
            except ValueError:
                return "550 CPD0084 Value for CHGPERIOD not valid."
        omit_fs = [self.state.fs_path(o) for o in omits]
        omit_fs = [o for o in omit_fs if o]
        omit_fs.append(self.state.special(""))  # never save the .sim area
        meta = {"kind": "OBJ", "path": path, "changed_since": since}
        n = self._save(name, meta, fs, since, omit_fs)
        return "250 %d objects saved." % n

    def _save_large(self, name, path):
        """The save file becomes (a hard link to) the prebuilt image."""
        image = self.state.large_image(path)
        dest = self.savf_path(name)
        os.unlink(dest)
        try:
            os.link(image, dest)
        except OSError:
            shutil.copyfile(image, dest)
        return "250 1 objects saved."

    def cl_SAVLIB(self, params):
        name, err = self._savf_param(params)
        if err:
            return err
        lib = str(clparse.first(params, "LIB", "")).upper()
        libfs = self.state.fs_path("/QSYS.LIB/%s.LIB" % lib)
        if not lib or not os.path.isdir(libfs):
            return "550 CPF3781 Library %s not found." % lib
        meta = {"kind": "LIB", "library": lib,
                "path": "/QSYS.LIB/%s.LIB" % lib}
        n = self._save(name, meta, libfs, count_top=False)
        return "250 %d objects saved from library %s." % (n, lib)

    def _save_special(self, params, kind, key, source):
        name, err = self._savf_param(params)
        if err:
            return err
        n = self._save(name, {"kind": kind, "path": key}, source,
                       synthesize=True, count_top=False)
        return "250 %d objects saved." % n

    def cl_SAVDLO(self, params):
        return self._save_special(params, "DLO", "/QDLS",
                                  os.path.join(self.state.root, "QDLS"))

    def cl_SAVSECDTA(self, params):
        return self._save_special(params, "SECDTA", "/Security Data",
                                  self.state.special("security"))

    def cl_SAVCFG(self, params):
        return self._save_special(params, "CFG", "/System Configuration",
                                  self.state.special("config"))

    def _obj_elements(self, params):
        """OBJ(...) as ([(path, newpath or None)], [omitted paths])."""
        includes, omits = [], []
        for el in clparse.elements(params, "OBJ"):
            if not el or isinstance(el[0], list):
                continue
            path = norm(clparse.unquote_path(el[0]))
            flag = str(el[1]).upper() if len(el) > 1 else "*INCLUDE"
            if flag == "*OMIT":
                omits.append(path)
            else:
                new = None
                if len(el) > 2 and not isinstance(el[2], list):
                    new = norm(clparse.unquote_path(el[2]))
                includes.append((path, new))
        return includes, omits

    def _open_image(self, params, kind):
        """(Image, None) or (None, error reply) for a restore command."""
        name, err = self._savf_param(params)
        if err:
            return None, err
        path = self.savf_path(name)
        if os.path.getsize(path) == 0:
            return None, ("550 CPF3743 Save file %s in QTEMP contains no "
                          "data." % name)
        try:
            img = savimage.Image(path)
        except savimage.ImageError:
            return None, ("550 CPF3743 Save file %s in QTEMP contains data "
                          "that cannot be restored." % name)
        if img.kind != kind:
            img.close()
            return None, ("550 CPF3782 Save file %s in QTEMP does not "
                          "contain the requested kind of save data." % name)
        return img, None

    def cl_RST(self, params):
        img, err = self._open_image(params, "OBJ")
        if err:
            return err
        with img:
            includes, omits = self._obj_elements(params)
            if not includes:
                includes = [(img.saved_path, None)]
            crtprn = str(clparse.first(params, "CRTPRNDIR", "*NO")).upper()
            saved = img.saved_path

            def rel(p):
                if p == saved:
                    return ""
                if saved == "/":
                    return p.lstrip("/")
                if p.startswith(saved + "/"):
                    return p[len(saved) + 1:]
                return None

            plan = []
            for path, new in includes:
                r = rel(path)
                if r is None:
                    return ("550 CPF3780 Object not found in save file. "
                            "0 objects restored.")
                dest = new or path
                dest_fs = self.state.fs_path(dest)
                if dest_fs is None:
                    return "550 CPF3781 Object %s not valid. 0 objects " \
                           "restored." % dest
                parent = os.path.dirname(dest_fs)
                if not os.path.isdir(parent):
                    if crtprn != "*YES":
                        return ("550 CPFA0DA Parent directory not found. "
                                "0 objects restored.")
                os_omits = []
                for o in omits:
                    ro = rel(o)
                    if ro is None and new and (o == new or
                                               o.startswith(new + "/")):
                        ro = rel(path + o[len(new):])
                    os_omits.append(ro)
                plan.append((r, dest_fs, parent, os_omits))
            total = 0
            for r, dest_fs, parent, os_omits in plan:
                if not os.path.isdir(parent):
                    os.makedirs(parent)
                found, n = savimage.restore(img, r, dest_fs, os_omits)
                if not found:
                    return ("550 CPF3780 Object not found in save file. "
                            "%d objects restored." % total)
                total += n
        return "250 %d objects restored." % total

    def cl_RSTLIB(self, params):
        img, err = self._open_image(params, "LIB")
        if err:
            return err
        with img:
            want = str(clparse.first(params, "SAVLIB", "")).upper()
            have = str(img.meta.get("library", "")).upper()
            if want != have:
                return ("550 CPF3780 Library %s not found in save file. "
                        "0 objects restored." % want)
            new = str(clparse.first(params, "RSTLIB", "*SAVLIB")).upper()
            if new == "*SAVLIB":
                new = have
            dest = self.state.fs_path("/QSYS.LIB/%s.LIB" % new)
            os.makedirs(os.path.dirname(dest), exist_ok=True)
            _, n = savimage.restore(img, "", dest)
        return "250 %d objects restored to library %s." % (max(0, n - 1),
                                                            new)

    def _restore_special(self, params, kind, dest, only_new=False):
        img, err = self._open_image(params, kind)
        if err:
            return err
        with img:
            os.makedirs(os.path.dirname(dest), exist_ok=True)
            existed = os.path.isdir(dest)
            _, n = savimage.restore(img, "", dest, only_new=only_new)
            if not (only_new and existed):
                n -= 1  # the container itself is not an object
        return "250 %d objects restored." % max(0, n)

    def cl_RSTDLO(self, params):
        return self._restore_special(params, "DLO",
                                     os.path.join(self.state.root, "QDLS"))

    def cl_RSTUSRPRF(self, params):
        which = str(clparse.first(params, "USRPRF", "*NEW")).upper()
        return self._restore_special(params, "SECDTA",
                                     self.state.special("security"),
                                     only_new=(which != "*ALL"))

    def cl_RSTCFG(self, params):
        return self._restore_special(params, "CFG",
                                     self.state.special("config"))

    def cl_RSTAUT(self, params):
        return "250 Command RSTAUT successful."


def _chunks(pieces, size):
    """The (kind, value) pieces of a transfer as chunks of at most `size`
    bytes (a chunk never spans two pieces). Files are read chunk by chunk,
    however large they are."""
    for kind, value in pieces:
        length = len(value) if kind == "bytes" else value[1]
        for at in range(0, length, size):
            n = min(size, length - at)
            yield value[at:at + n] if kind == "bytes" \
                else os.pread(value[0], n, at)


def _drops(pieces, size):
    """The pieces as an endless series of `size`-byte drops, starting over
    at their end; NUL bytes when there is no data at all."""
    if not any(len(v) if k == "bytes" else v[1] for k, v in pieces):
        pieces = [("bytes", b"\0")]
    while True:
        yield from _chunks(pieces, size)


def _unshare(path):
    """A save file hard-linked to a large_saves image is unlinked before
    it is truncated or rewritten, so the image itself stays intact."""
    try:
        if os.stat(path).st_nlink > 1:
            os.unlink(path)
    except FileNotFoundError:
        pass


def parse_cl_time(date, clock):
    """CHGPERIOD start date 'mm/dd/yy' (or yyyy) and time 'hh:mm:ss'."""
    clock = clock if clock and not clock.startswith("*") else "00:00:00"
    clock = clock.replace(".", ":")
    if len(clock) == 6 and clock.isdigit():
        clock = "%s:%s:%s" % (clock[:2], clock[2:4], clock[4:])
    for fmt in ("%m/%d/%y %H:%M:%S", "%m/%d/%Y %H:%M:%S",
                "%m%d%y %H:%M:%S"):
        try:
            return datetime.strptime(date + " " + clock, fmt).timestamp()
        except ValueError:
            pass
    raise ValueError("bad date %r %r" % (date, clock))


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--addr", default="127.0.0.1")
    ap.add_argument("--port", type=int, default=21)
    ap.add_argument("--root", required=True)
    ap.add_argument("--config")
    ap.add_argument("--log")
    ap.add_argument("--work", help="directory for per-session save files "
                    "(default: a new temporary directory)")
    ap.add_argument("--first-session", type=int, default=1)
    args = ap.parse_args(argv)

    logging.basicConfig(level=logging.ERROR, stream=sys.stderr)
    config = {}
    if args.config:
        with open(args.config, encoding="utf-8") as f:
            config = json.load(f)
    own_work = args.work is None
    work = tempfile.mkdtemp(prefix="ibmi-sim-") if own_work else args.work
    os.makedirs(work, exist_ok=True)
    state = SimState(args.root, config, args.log, work, args.first_session)
    SimHandler.state = state

    ThreadedFTPServer.join_timeout = 1
    server = ThreadedFTPServer((args.addr, args.port), SimHandler,
                               backlog=64)
    server.max_cons = 512
    server.max_cons_per_ip = 0

    def on_term(signum, frame):
        STOP.set()
        # a session thread stuck somewhere must not keep the process alive
        threading.Timer(5, lambda: os._exit(0)).start()
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, on_term)
    signal.signal(signal.SIGINT, on_term)
    print("READY", flush=True)
    try:
        server.serve_forever(timeout=POLL)
    except SystemExit:
        pass
    finally:
        STOP.set()
        try:
            server.close_all()
        except Exception:
            pass
        if state.log:
            state.log.close()
        if own_work:
            shutil.rmtree(work, ignore_errors=True)
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(0)


if __name__ == "__main__":
    main()
