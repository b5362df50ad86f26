"""The bash completion of both programs, sourced in a bash that has nothing
of the bash-completion package, called as bash calls it (COMP_WORDS,
COMP_CWORD) in a directory of sample files. The option lists are checked
against the programs' own usage texts."""
import os
import re
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD, REPO

COMPLETION = REPO / "packaging" / "completion"
CALL = r'''
source "$1" || exit 90
rule=$(complete -p "$2") || exit 91
function=${rule#*-F } function=${function%% *}
shift 2
COMP_WORDS=("$@") COMP_CWORD=$CWORD COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
"$function"
printf '%s\n' "${COMPREPLY[@]}"
'''


@pytest.fixture
def sample_dir(tmp_path):
    for name in ("a.ctar", "b.ctar", "notes.txt", "include.txt"):
        (tmp_path / name).write_text("x")
    (tmp_path / "old").mkdir()
    (tmp_path / "old" / "c.ctar").write_text("x")
    return tmp_path


def complete(program, words, directory):
    """The candidates for the last of words (the word being completed)."""
    r = subprocess.run(["/bin/bash", "--norc", "--noprofile", "-c", CALL, "bash",
                        str(COMPLETION / program), program, program, *words],
                       cwd=directory, capture_output=True, text=True, timeout=30,
                       env={"PATH": "/usr/bin:/bin", "CWORD": str(len(words))})
    assert r.returncode == 0, r.stderr
    return set(filter(None, r.stdout.split("\n")))


def usage_options(program, *args):
    """Every option a program's usage text names: (-x, --long) pairs and
    lone --long ones."""
    r = subprocess.run([str(BUILD / program), *args], capture_output=True, text=True, timeout=30)
    text = r.stdout + r.stderr
    found = set()
    for m in re.finditer(r"^(?:\[[^]]*\] \[T\d+\] )?\s+(?:(-\w), )?\s*(--[\w-]+)", text, re.M):
        found |= {o for o in m.groups() if o}
    assert len(found) > 5, text
    return found


def test_vondral_completes_every_option_of_its_usage_text(sample_dir):
    assert complete("vondral", ["-"], sample_dir) == usage_options("vondral", "-h")


def test_ctar_completes_every_option_of_its_usage_text(sample_dir):
    every = set()
    for command in ("list", "extract"):
        every |= complete("ctar", [command, "-"], sample_dir)
    assert every == usage_options("ctar", "--help")


# words typed (the last being completed) -> the candidates
VONDRAL = [
    (["--ti"], {"--timeout"}),
    (["--tl"], {"--tls", "--tls-implicit"}),
    (["-s", "host", "--ve"], {"--verbose", "--version"}),
    (["-b", ""], {"a.ctar", "b.ctar", "notes.txt", "include.txt", "old"}),
    (["--restore", "a"], {"a.ctar"}),
    (["-i", "inc"], {"include.txt"}),
    (["--summary", "no"], {"notes.txt"}),
    (["--cacert", "old/"], {"old/c.ctar"}),
    (["-p", ""], {"yes", "no"}),
    (["--threading", "n"], {"no"}),
    (["-s", ""], set()),  # a host name: nothing to offer
    (["-c", "q"], set()),
    (["-z", ""], set()),
    (["--se"], {"--server", "--sessions"}),
    (["--sessions", ""], set()),  # a number
]


@pytest.mark.parametrize("words,expected", VONDRAL)
def test_vondral_completion(sample_dir, words, expected):
    assert complete("vondral", words, sample_dir) == expected


CTAR = [
    ([""], {"list", "verify", "extract", "salvage"}),
    (["s"], {"salvage"}),
    (["--h"], {"--help"}),
    (["verify", ""], {"a.ctar", "b.ctar", "old"}),
    (["list", "-v", "b"], {"b.ctar"}),
    (["list", "--j"], {"--json"}),
    (["verify", "--j"], set()),  # --json is list's alone
    (["extract", "a.ctar", "-"], {"-v", "--verbose", "--progress", "--no-progress", "-h",
                                  "--help", "-C", "--directory"}),
    (["extract", "a.ctar", "-C", ""], {"old"}),
    (["extract", "-C", "old", ""], {"a.ctar", "b.ctar", "old"}),
    (["salvage", "a.ctar", "n"], {"notes.txt"}),
    (["salvage", "old/"], {"old/c.ctar"}),
    (["verify", "a.ctar", ""], set()),  # verify takes one archive
]


@pytest.mark.parametrize("words,expected", CTAR)
def test_ctar_completion(sample_dir, words, expected):
    assert complete("ctar", words, sample_dir) == expected
