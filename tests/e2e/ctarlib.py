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
LONG_NAME_FLAG = 64
DIRECTORY_BIT = 0o040000
REGULAR_FILE = 0o100644
DIRECTORY = 0o040755
LARGEST_OCTAL_SIZE = 0x7FFFFFFF
SIZE64_ALPHABET = ("./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                   "abcdefghijklmnopqrstuvwxyz")

# (offset, width) of the five name pieces, in the order the name fills them
NAME_PIECES = [(0, 100), (368, 70), (159, 98), (440, 70), (305, 62)]
CHECKSUM = (148, 8)
SIZE = (124, 12)
SIZE_COPY = (265, 12)


def checksum(block):
    """Sum of the bytes taken as signed 8-bit values, the checksum field
    counted as eight blanks, modulo 65536."""
    total = 0
    for i, b in enumerate(block):
        if CHECKSUM[0] <= i < CHECKSUM[0] + CHECKSUM[1]:
            total += 32
        else:
            total += b - 256 if b >= 128 else b
    return total % 65536


def encode_size64(value):
    """'#', ten 6-bit groups least significant first, then bits 60-63."""
    out = "#"
    for i in range(10):
        out += SIZE64_ALPHABET[(value >> (6 * i)) & 63]
    out += SIZE64_ALPHABET[(value >> 60) & 15]
    return out.encode("ascii")


def size_field(size, size64=False):
    """The 12 bytes of a size field; sizes above 2 GiB - 1 (or any size
    when size64 is set) take the base-64 form, which has no terminator."""
    if size64 or size > LARGEST_OCTAL_SIZE:
        return encode_size64(size)
    return b"%011o\0" % size


def _put(block, offset, data):
    block[offset:offset + len(data)] = data


def _name_bytes(name):
    return name.encode("utf-8", "surrogateescape") if isinstance(name, str) \
        else bytes(name)


def header(name, size, mode=REGULAR_FILE, mtime=0, size64=False,
           size_bytes=None, checksum_bytes=None):
    """One header block. A mode with the directory bit adds ".savf" to the
    name. size_bytes and checksum_bytes replace those fields as given (the
    checksum is still computed over the block unless it is replaced)."""
    raw = _name_bytes(name)
    if mode & DIRECTORY_BIT:
        raw += b".savf"
    if len(raw) > 400:
        raise ValueError("a header holds at most 400 name characters")
    block = bytearray(BLOCK)
    _put(block, 100, b"%07o\0" % mode)
    _put(block, 108, b"0000000\0")
    _put(block, 116, b"0000000\0")
    field = size_bytes if size_bytes is not None else size_field(size, size64)
    _put(block, SIZE[0], field)
    _put(block, SIZE_COPY[0], field)
    _put(block, 136, b"%011o\0" % mtime)
    block[156] = ord("0")
    _put(block, 257, b"000\0")
    _put(block, 261, b"000\0")
    _put(block, 277, b"001\0")
    _put(block, 281, b"000\0")
    # pieces 1 and 2 always; 3 to 5 only for a long name (exactly 100
    # characters, or 170 and more), which the flag at 293 announces
    _put(block, 0, raw[:100])
    _put(block, 368, raw[100:170])
    if len(raw) == 100 or len(raw) >= 170:
        _put(block, 293, b"100\0")
        _put(block, 159, raw[170:268])
        _put(block, 440, raw[268:338])
        _put(block, 305, raw[338:400])
    if checksum_bytes is not None:
        _put(block, CHECKSUM[0], checksum_bytes)
    else:
        _put(block, CHECKSUM[0], b"%07o\0" % checksum(block))
    return bytes(block)


def sentinel():
    """The end-of-archive block: zeros and the checksum 0000400."""
    block = bytearray(BLOCK)
    _put(block, CHECKSUM[0], b"0000400\0")
    return bytes(block)


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
        return (header(self.name, len(self.data), self.mode, self.mtime,
                       self.size64)
                + self.data + padding(len(self.data)))


def archive_bytes(entries, end=True):
    """Entries in order, then the sentinel unless end is False. Raw bytes
    in the list are taken as they are."""
    parts = [e if isinstance(e, (bytes, bytearray)) else e.blocks()
             for e in entries]
    if end:
        parts.append(sentinel())
    return b"".join(parts)


def write_archive(path, entries, end=True):
    data = archive_bytes(entries, end)
    with open(path, "wb") as f:
        f.write(data)
    os.chmod(path, 0o600)
    return data


def entry_offsets(entries):
    """Archive offset of every entry's header."""
    out, at = [], 0
    for e in entries:
        out.append(at)
        at += len(e) if isinstance(e, (bytes, bytearray)) else \
            BLOCK + len(e.data) + len(padding(len(e.data)))
    return out
