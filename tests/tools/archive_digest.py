#!/usr/bin/python3
"""A digest of a file that two runs of the same test should agree on: for a
CTAR archive, the set of its entries: each one's name, stored name, mode
and save image (the simulator's manifest without its times, and
its members' names; not their bytes, which many tests make at random and
check themselves), plus any bytes behind the end block; for anything else,
its bytes.
Used by tests/tools/record_runs.sh.

    archive_digest.py FILE"""
import hashlib
import io
import json
import sys
import tarfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "e2e"))
import ctarread  # noqa: E402


def image_digest(data):
    try:
        with tarfile.open(fileobj=io.BytesIO(data)) as tar:
            parts = []
            for member in tar.getmembers():
                body = b""
                if member.name == "manifest.json":
                    manifest = json.loads(tar.extractfile(member).read())
                    # Times: of the save, and of the --date cut-off a test
                    # computes from its own clock.
                    manifest.pop("created", None)
                    manifest.pop("changed_since", None)
                    body = json.dumps(manifest, sort_keys=True).encode()
                parts.append(member.name.encode() + b"\0" + body)
            return hashlib.sha256(b"\1".join(parts)).hexdigest()
    except (tarfile.TarError, ValueError, KeyError):
        return hashlib.sha256(data).hexdigest()


def digest(path):
    data = Path(path).read_bytes()
    try:
        entries = ctarread.read_archive(data, allow_trailing=True)
    except (ctarread.ArchiveError, ValueError, IndexError):
        return "bytes " + hashlib.sha256(data).hexdigest()
    # Workers append as their saves finish, so entries are compared as a set.
    lines = sorted(f"{e.name!r} {e.stored_name!r} {e.mode:o} {image_digest(e.data)}" for e in entries)
    end = entries[-1].offset + 512 + (entries[-1].size + 511) // 512 * 512 if entries else 0
    trailing = len(data) - end - 512
    lines.append(f"trailing {trailing}")
    return "ctar " + hashlib.sha256("\n".join(lines).encode()).hexdigest()


if __name__ == "__main__":
    print(digest(sys.argv[1]))
