"""A second, independent writer of the CTAR archive format, so that the
end-to-end tests can build archives without the client's backup side and a
format fault on either side shows up as a disagreement.

Layout of one 512-byte header (offsets decimal, every other byte zero):
name piece 1 (0, 100), mode (100, 8), uid (108, 8), gid (116, 8), size
(124, 12), mtime (136, 12), checksum (148, 8), type flag '0' (156), name
piece 3 (159, 98), fixed "000" (257) and (261), size copy (265, 12), fixed
"001" (277) and "000" (281), long-name field "100" (293, 4), name piece 5
(305, 62), name piece 2 (368, 70), name piece 4 (440, 70).
"""

import os

BLOCK = 512
DIRECTORY_BIT = 0o040000
REGULAR_FILE = 0o100644
DIRECTORY = 0o040755
LARGEST_OCTAL_SIZE = 0x7FFFFFFF
SIZE64_ALPHABET = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"


def checksum(block):
    """Sum of the bytes taken as signed 8-bit values, the checksum field
    (148, 8) counted as eight blanks, modulo 65536."""
    signed = sum(b - 256 if b >= 128 else b for b in block[:148] + block[156:])
    return (signed + 8 * 32) % 65536


def size_field(size, size64=False):
    """The 12 bytes of a size field; sizes above 2 GiB - 1 (or any size
    when size64 is set) take the base-64 form, which has no terminator:
    '#', ten 6-bit groups least significant first, then bits 60-63."""
    if size64 or size > LARGEST_OCTAL_SIZE:
        groups = [(size >> (6 * i)) & 63 for i in range(10)] + [(size >> 60) & 15]
        return ("#" + "".join(SIZE64_ALPHABET[g] for g in groups)).encode("ascii")
    return b"%011o\0" % size


def header(name, size, mode=REGULAR_FILE, mtime=0, size64=False, size_bytes=None):
    """One header block. A mode with the directory bit adds ".savf" to the
    name. size_bytes replaces both size fields as given."""
    raw = name.encode("utf-8", "surrogateescape") if isinstance(name, str) else bytes(name)
    if mode & DIRECTORY_BIT:
        raw += b".savf"
    if len(raw) > 400:
        raise ValueError("a header holds at most 400 name characters")
    size_bytes = size_field(size, size64) if size_bytes is None else size_bytes
    # Pieces 1 and 2 of the name always; 3 to 5 only for a long name
    # (exactly 100 characters, or 170 and more), which the flag at 293
    # announces.
    fields = [(100, b"%07o\0" % mode), (108, b"0000000\0"), (116, b"0000000\0"),
              (124, size_bytes), (265, size_bytes), (136, b"%011o\0" % mtime), (156, b"0"),
              (257, b"000\0"), (261, b"000\0"), (277, b"001\0"), (281, b"000\0"),
              (0, raw[:100]), (368, raw[100:170])]
    if len(raw) == 100 or len(raw) >= 170:
        fields += [(293, b"100\0"), (159, raw[170:268]), (440, raw[268:338]),
                   (305, raw[338:400])]
    block = bytearray(BLOCK)
    for offset, value in fields:
        block[offset:offset + len(value)] = value
    block[148:156] = b"%07o\0" % checksum(block)
    return bytes(block)


def sentinel():
    """The end-of-archive block: zeros and the checksum 0000400."""
    return bytes(148) + b"0000400\0" + bytes(BLOCK - 156)


def padding(size):
    return b"\0" * (-size % BLOCK)


class Entry:
    """One archive entry: name, save-file bytes and header options."""

    def __init__(self, name, data, directory=False, size64=False, mtime=0):
        self.name = name
        self.data = data
        self.mode = DIRECTORY if directory else REGULAR_FILE
        self.size64 = size64
        self.mtime = mtime

    def blocks(self):
        return (header(self.name, len(self.data), self.mode, self.mtime, self.size64)
                + self.data + padding(len(self.data)))


def _blocks(entry):
    """Raw bytes in a list of entries are taken as they are."""
    return entry if isinstance(entry, (bytes, bytearray)) else entry.blocks()


def archive_bytes(entries):
    """Entries in order, then the sentinel."""
    return b"".join(map(_blocks, entries)) + sentinel()


def write_archive(path, entries):
    data = archive_bytes(entries)
    with open(path, "wb") as f:
        f.write(data)
    os.chmod(path, 0o600)
    return data


def entry_offsets(entries):
    """Archive offset of every entry's header."""
    out, at = [], 0
    for e in entries:
        out.append(at)
        at += len(_blocks(e))
    return out
