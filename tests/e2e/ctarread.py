"""Reads a CTAR archive back entry by entry, the way a restore sees it,
checking every header on the way. Written from the format's description,
independently of the program's own reader."""
import io
import json
import tarfile

from ctarlib import SIZE64_ALPHABET as ALPHABET, checksum  # the simplest parts, shared

BLOCK = 512


class ArchiveError(AssertionError):
    pass


def _cstr(field):
    end = field.find(b"\0")
    return field if end < 0 else field[:end]


def _size(field):
    if field[:1] == b"#":
        value = 0
        for i in range(1, 12):
            c = chr(field[i])
            if c not in ALPHABET:
                break
            value |= ALPHABET.index(c) << (6 * (i - 1))
        return value & (2 ** 64 - 1)
    text = _cstr(field)
    if len(text) == len(field):
        raise ArchiveError("size field without NUL")
    return int(text, 8)


def name_of(block):
    """(name, stored name): the pieces in order up to the first that is not
    full; pieces 3 to 5 only when the long-name flag is set."""
    pieces = [(0, 100), (368, 70)]
    if int(_cstr(block[293:297]) or b"0", 8) & 64:
        pieces += [(159, 98), (440, 70), (305, 62)]
    name = b""
    for at, width in pieces:
        piece = _cstr(block[at:at + width])
        name += piece
        if len(piece) < width:
            break
    text = name.decode("latin-1")
    mode = int(_cstr(block[100:108]) or b"0", 8)
    # The suffix marks a whole directory: it goes only where a backup puts
    # it, at the end of a directory entry's name.
    if mode & 0o040000 and text.endswith(".savf"):
        return text[:-len(".savf")], text
    return text, text


class Entry:
    def __init__(self, offset, name, stored_name, size, mode, mtime, data):
        self.offset, self.name, self.stored_name = offset, name, stored_name
        self.size, self.mode, self.mtime, self.data = size, mode, mtime, data

    def image(self):
        """The save image the simulator put into the save file: its
        manifest and member names."""
        with tarfile.open(fileobj=io.BytesIO(self.data)) as tar:
            manifest = json.load(tar.extractfile("manifest.json"))
            return manifest, tar.getnames()


def read_archive(path_or_bytes, allow_trailing=False):
    """All entries up to the sentinel. Raises ArchiveError on any damage:
    a bad checksum, data running past the end, a missing sentinel, or
    (unless allow_trailing) bytes behind the sentinel."""
    data = path_or_bytes if isinstance(path_or_bytes, bytes) else open(path_or_bytes, "rb").read()
    if len(data) % BLOCK:
        raise ArchiveError("archive length %d is not whole blocks" % len(data))
    entries, offset = [], 0
    while True:
        block = data[offset:offset + BLOCK]
        if len(block) < BLOCK:
            raise ArchiveError("no sentinel at offset %#x" % offset)
        field = block[148:156]
        digits = _cstr(field)
        if not digits or len(digits) == len(field) or int(digits, 8) != checksum(block):
            raise ArchiveError("bad header checksum at offset %#x" % offset)
        if int(digits, 8) == 256 and not any(block[:148] + block[156:]):
            if not allow_trailing and offset + BLOCK != len(data):
                raise ArchiveError("%d bytes behind the sentinel" % (len(data) - offset - BLOCK))
            return entries
        size = _size(block[124:136])
        if block[265:277] != block[124:136]:
            raise ArchiveError("size copies differ at offset %#x" % offset)
        name, stored = name_of(block)
        body = data[offset + BLOCK:offset + BLOCK + size]
        if len(body) < size:
            raise ArchiveError("entry %s runs past the end" % name)
        padded = (size + BLOCK - 1) // BLOCK * BLOCK
        if any(data[offset + BLOCK + size:offset + BLOCK + padded]):
            raise ArchiveError("padding of %s is not zero" % name)
        mode = int(_cstr(block[100:108]), 8)
        mtime = int(_cstr(block[136:148]), 8)
        entries.append(Entry(offset, name, stored, size, mode, mtime, body))
        offset += BLOCK + padded
