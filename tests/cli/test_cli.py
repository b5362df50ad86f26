"""The command line as an operator meets it, before any server is involved."""
import os
import re

import pytest


def test_no_options_asks_for_a_server_and_prints_the_golden_usage(run, usage_lines):
    r = run()
    assert r.status == 255
    assert r.out == ""
    for line in r.err.splitlines():
        assert re.match(r"^\[\d\d:\d\d:\d\d\] \[T00\] ", line), line
    assert r.err_lines == ["vondral: you must provide a server name"] + usage_lines


def test_help_alone_prints_usage_and_fails(run, usage_lines):
    r = run("--help")
    assert r.status == 255
    assert r.err_lines == usage_lines


def test_stray_words_are_reported_before_the_usage(run, usage_lines):
    r = run("--help", "stray", "more")
    assert r.status == 255
    assert r.err_lines[:2] == ["vondral: unknown argument: stray",
                               "vondral: unknown argument: more"]
    assert r.err_lines[2:] == usage_lines


def test_program_name_is_the_last_path_component(run, tmp_path):
    link = tmp_path / "other-name"
    os.symlink(os.path.abspath(os.environ.get("VONDRAL_BIN") or "build/vondral"), link)
    import subprocess
    p = subprocess.run([str(link)], capture_output=True, text=True)
    assert "] other-name: you must provide a server name" in p.stderr
    assert "usage: other-name [ options ]" in p.stderr


def test_missing_credentials(run, usage_lines):
    r = run("-s", "host")
    assert r.status == 255
    assert r.err_lines == ["vondral: you must provide login credentials"] + usage_lines


@pytest.mark.parametrize("args, messages", [
    (["--wait", "100000"], ["invalid argument: --wait 100000"]),
    (["--wait", "-2"], ["invalid argument: --wait -2"]),
    # Only whole numbers: a typo must not reach the server's save command.
    (["--wait", "12abc"], ["invalid argument: --wait 12abc"]),
    (["--wait", " 5"], ["invalid argument: --wait  5"]),
    (["--wait", "+5"], ["invalid argument: --wait +5"]),
    (["--wait", ""], ["invalid argument: --wait "]),
    (["--timeout", "5x"], ["invalid argument: --timeout 5x"]),
    # Yes/no options take nothing else: "-p 2121" used to mean "no".
    (["--precheck", "2121"], ["invalid argument: --precheck 2121"]),
    (["--precheck", "nope"], ["invalid argument: --precheck nope"]),
    (["-x", "on"], ["invalid argument: --threading on"]),
    (["-x", "yess"], ["invalid argument: --threading yess"]),
    (["-x", ""], ["invalid argument: --threading "]),
    (["--timeout", "0"], ["invalid argument: --timeout 0"]),
    (["--timeout", "100000"], ["invalid argument: --timeout 100000"]),
    (["--sessions", "0"], ["invalid argument: --sessions 0"]),
    (["--sessions", "17"], ["invalid argument: --sessions 17"]),
    (["--sessions", "4x"], ["invalid argument: --sessions 4x"]),
    (["--sessions", "0x4"], ["invalid argument: --sessions 0x4"]),
    (["--list", "3x"], ["vondral: '3x' can't parse file descriptor".replace("'3x' ", "'3x': ")]),
    (["--notbackedup", "zz"], ["vondral: 'zz': can't parse file descriptor"]),
    (["--maxblocksize", "12q"], ["vondral: '12q': can't parse block size"]),
    (["--maxblocksize", "-1"], ["vondral: '-1': can't parse block size"]),
    (["--maxblocksize", "99999999999999999999999"],
     ["vondral: '99999999999999999999999': can't parse block size"]),
    (["--date", "99999999999999999999"], ["vondral: '99999999999999999999': can't parse timestamp"]),
    (["--notbackedup", "99999999999"], ["vondral: '99999999999': can't parse file descriptor"]),
    (["--list", "-3"], ["vondral: '-3': can't parse file descriptor"]),
    (["--date", "yesterday"], ["vondral: 'yesterday': can't parse timestamp"]),
    (["-vx"], ["vondral: verbose value must be a number"]),
    (["--verbose=3y"], ["vondral: verbose value must be a number"]),
    (["--include", "/nonexistent/inc"],
     ["vondral: fopen(/nonexistent/inc): No such file or directory"]),
    (["--exclude", "/nonexistent/exc"],
     ["vondral: fopen(/nonexistent/exc): No such file or directory"]),
    (["--Catalog", "/nonexistent/dir/cat"],
     ["vondral: Failed to open catalog file /nonexistent/dir/cat"]),
    (["--list", "77"], ["vondral: fdopen(77): Bad file descriptor"]),
    (["-c", "user"], ["vondral: Missing password in credentials"]),
    (["-c", "user:ftp:x"], ["vondral: bad where following user name"]),
    (["-c", "user:fd:4x"], ["vondral: Bad file descriptor '4x'"]),
    # One way of encrypting; a CA file is checked now and means nothing
    # without TLS.
    (["--tls", "--tls-implicit"],
     ["vondral: --tls-implicit: only one of --tls and --tls-implicit may be given"]),
    (["--tls-implicit", "--tls"], ["vondral: --tls: only one of --tls and --tls-implicit may be given"]),
    (["--tls", "--cacert", "/nonexistent/ca.pem"],
     ["vondral: --cacert /nonexistent/ca.pem: No such file or directory"]),
    (["--cacert", "/dev/null"], ["vondral: --cacert needs --tls or --tls-implicit"]),
])
def test_each_bad_option_has_its_message(run, usage_lines, args, messages):
    r = run("-s", "host", "-c", "u:here:p", *args)
    assert r.status == 255
    assert r.err_lines == messages + usage_lines


def test_all_bad_options_are_reported_together(run, usage_lines):
    r = run("--wait", "-7", "--timeout", "x", "-l", "q", "-vz", "--bogus")
    assert r.status == 255
    # getopt_long reports the unknown option in libc's own words, unprefixed
    raw = r.err.splitlines()
    assert any("--bogus" in line and not line.startswith("[") for line in raw)
    r.err = "\n".join(line for line in raw if "--bogus" not in line)
    lines = r.err_lines
    assert lines[:4] == ["invalid argument: --wait -7", "invalid argument: --timeout x",
                         "vondral: 'q': can't parse file descriptor",
                         "vondral: verbose value must be a number"]
    assert lines[4:] == usage_lines


@pytest.mark.parametrize("args", [
    ["--wait", "-1"], ["--wait", "0"], ["--wait", "99999"], ["--wait", "007"],
    ["--precheck", "YES"], ["--precheck", "False"], ["--precheck", "1"], ["-p", "0"],
    ["-x", "true"], ["-x", "No"],
    ["--timeout", "99999"], ["--timeout", "1"], ["--sessions", "1"], ["--sessions", "16"], ["-v", "-v5"], ["-v", "-v"], ["--verbose=0x3"],
    ["--list", "0x1"], ["--notbackedup", "2"], ["--maxblocksize", "0x10"],
    ["--date", "0"], ["--precheck", "no"], ["-x", "0"], ["--include", "/dev/null"],
    ["--include", "/dev/null", "--include", "/dev/null"],
    ["--tls", "--tls"],
])
def test_good_options_pass_the_checks(run, usage_lines, args):
    # Nothing listens on port 21 inside the test's network namespace: a run
    # whose options are all accepted gets as far as connecting.
    r = run("-s", "127.0.0.1", "-c", "u:here:p", *args)
    assert r.status == 255
    lines = r.err_lines
    assert re.match(r"vondral\[socket\.cpp,\d+\]: connect\(, 127\.0\.0\.1:21\): "
                    r"Connection refused$", lines[0]), r.err
    assert re.match(r"vondral\[socket\.cpp,\d+\]: couldn't open control connection$",
                    lines[1]), r.err
    assert len(lines) == 2 and r.out == ""


def test_two_catalogs_leave_the_first_file_created_and_empty(run, tmp_path):
    first, second = tmp_path / "c1", tmp_path / "c2"
    first.write_text("old content")
    r = run("-s", "127.0.0.1", "-c", "u:here:p", "-C", str(first), "-C", str(second))
    assert r.status == 255
    assert first.read_text() == "" and second.exists()


def test_credentials_from_a_file_are_never_echoed(run, tmp_path):
    key = tmp_path / "key"
    key.write_text("TopSecret")
    r = run("-s", "127.0.0.1", "-c", "u:file:%s" % key, "-v5")
    assert "vondral: Passphrase truncated to 9 bytes" in r.err_lines
    assert "TopSecret" not in r.out + r.err


@pytest.mark.parametrize("text, errors", [
    # Comments, blank lines and Windows line ends are fine.
    ("# nightly\n\n/home\r\n/QSYS.LIB/PAY*.LIB\n", None),
    ("   \n", ["line 1: not a full server path:    "]),
    ("home\n", ["line 1: not a full server path: home"]),
    ("/a\n\n# x\nQSYS.LIB/X.LIB\r\n/b\n  /c\n", [
        "line 4: not a full server path: QSYS.LIB/X.LIB",
        "line 6: not a full server path:   /c"]),
    ("/" + "x" * 5000 + "\n", ["line 1: longer than 4095 characters"]),
])
@pytest.mark.parametrize("option", ["--include", "--exclude"])
def test_path_files_are_checked_before_anything_is_sent(run, usage_lines, tmp_path, option,
                                                        text, errors):
    # Nothing listens here: a file that passes gets as far as connecting,
    # one that does not ends before, with every bad line named.
    path = tmp_path / "paths"
    path.write_text(text)
    r = run("-s", "127.0.0.1", "-c", "u:here:p", "-t", option, str(path))
    assert r.status == 255
    if errors is None:
        assert "Connection refused" in r.err_lines[0], r.err
    else:
        assert r.err_lines == ["vondral: %s, %s" % (path, e) for e in errors] + usage_lines


@pytest.mark.parametrize("make, kind", [
    (lambda p: p.mkdir(), "is a directory"),
    (lambda p: os.mkfifo(p), "is a pipe"),
    (lambda p: os.symlink("/dev/null", p), "is a character device"),
])
def test_a_backup_path_that_is_no_regular_file_is_refused_before_connecting(run, tmp_path,
                                                                             make, kind):
    target = tmp_path / "archive"
    make(target)
    r = run("-s", "127.0.0.1", "-c", "u:here:p", "-b", str(target))
    assert r.status == 255
    assert len(r.err_lines) == 1 and r.err_lines[0].startswith("vondral: --backup %s: %s"
                                                                % (target, kind)), r.err
    assert sorted(os.listdir(tmp_path)) == ["archive"]  # no temporary file


def test_a_backup_into_a_missing_directory_is_refused_before_connecting(run, tmp_path):
    r = run("-s", "127.0.0.1", "-c", "u:here:p", "-b", str(tmp_path / "no" / "a.ctar"))
    assert r.status == 255
    assert len(r.err_lines) == 1
    assert re.match(r"vondral\[backup\.cpp,\d+\]: open\(%s\): No such file or directory$"
                    % re.escape(str(tmp_path / "no" / "a.ctar.partial")), r.err_lines[0]), r.err


def test_a_backup_that_cannot_log_in_leaves_no_file_and_an_old_archive_untouched(run, tmp_path):
    old = tmp_path / "a.ctar"
    old.write_bytes(b"old archive")
    r = run("-s", "127.0.0.1", "-c", "u:here:p", "-b", str(old))
    assert r.status == 255 and "Connection refused" in r.err
    assert sorted(os.listdir(tmp_path)) == ["a.ctar"] and old.read_bytes() == b"old archive"


def test_a_link_to_a_missing_archive_names_where_it_is_made(run, tmp_path):
    # The link's target is the new archive; its directory must exist.
    link = tmp_path / "current.ctar"
    os.symlink(tmp_path / "missing" / "a.ctar", link)
    r = run("-s", "127.0.0.1", "-c", "u:here:p", "-b", str(link))
    assert r.status == 255
    assert re.match(r"vondral\[backup\.cpp,\d+\]: open\(%s\): No such file or directory$"
                    % re.escape(str(tmp_path / "missing" / "a.ctar.partial")), r.err_lines[0]), r.err


def project_version():
    """The version project() of CMakeLists.txt sets: the one place it is kept."""
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    with open(os.path.join(root, "CMakeLists.txt")) as f:
        return re.search(r"^project\(vondral VERSION (\d+\.\d+\.\d+)", f.read(), re.M).group(1)


@pytest.mark.parametrize("args", [
    ["--version"],
    ["--version", "--help"],
    ["--help", "--version"],
    ["-s", "127.0.0.1", "-c", "u:here:p", "-b", "/nonexistent/a.ctar", "--version"],
    ["-t", "--version", "-r", "-"],
])
def test_version_wins_over_every_mode_and_needs_no_server(run, args):
    import ssl
    r = run(*args)
    assert r.status == 0, r.err
    assert r.err == ""
    # The TLS library is the one the process loaded, as Python's ssl sees it.
    assert r.out_lines == ["vondral %s (%s)" % (project_version(), ssl.OPENSSL_VERSION)]


@pytest.mark.parametrize("args, first", [
    (["--version", "--wait", "x"], "invalid argument: --wait x"),
    (["--version", "stray"], "vondral: unknown argument: stray"),
    (["--version", "--cacert", "/dev/null"], "vondral: --cacert needs --tls or --tls-implicit"),
])
def test_a_bad_command_line_is_refused_even_with_version(run, usage_lines, args, first):
    r = run(*args)
    assert r.status == 255
    assert r.out == ""
    assert r.err_lines == [first] + usage_lines
