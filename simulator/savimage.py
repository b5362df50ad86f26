"""The content of a simulated save file.

A save file holds one image: a tar stream (GNU format, names in UTF-8 with
undecodable bytes passed through) whose first member is ``manifest.json``
describing what was saved, followed by the saved object as member ``o``
and everything below it as ``o/<relative path>``, parents before children.

    manifest.json   {"format": "ibmi-sim-save/1", "kind": "OBJ"|"LIB"|
                     "DLO"|"SECDTA"|"CFG", "path": "/saved/server/path",
                     "library": "NAME" (LIB only), "created": <epoch>,
                     "changed_since": <epoch or null>}
    o               the saved object itself (directory, file or link)
    o/a/b           objects below it

Objects can be GiB large, so file data is never held in memory: it is
copied between file descriptors by the kernel when possible.
"""

import errno
import json
import os
import shutil
import stat
import tarfile
import time

FORMAT = "ibmi-sim-save/1"
MANIFEST = "manifest.json"
TOP = "o"
KINDS = ("OBJ", "LIB", "DLO", "SECDTA", "CFG")

_BLOCK = 512
_COPY_CHUNK = 1 << 30
_IO_CHUNK = 1 << 20


class ImageError(Exception):
    """The save file does not hold a readable image."""


def _write_all(fd, data):
    view = memoryview(data)
    while view:
        n = os.write(fd, view)
        view = view[n:]


def _copy_fd(src_fd, dst_fd, size, src_offset=None):
    """Copy size bytes; returns the number actually copied (short at EOF).

    copy_file_range is tried first (no data through user space), then
    sendfile, then plain reads, because not every file system pairing
    supports the faster calls.
    """
    done = 0
    use_cfr = hasattr(os, "copy_file_range")
    use_sendfile = True
    while done < size:
        want = min(size - done, _COPY_CHUNK)
        off = None if src_offset is None else src_offset + done
        n = None
        if use_cfr:
            try:
                n = os.copy_file_range(src_fd, dst_fd, want, off)
            except OSError as e:
                if e.errno not in (errno.EXDEV, errno.ENOSYS, errno.EINVAL,
                                   errno.EOPNOTSUPP, errno.EPERM):
                    raise
                use_cfr = False
                continue
        elif use_sendfile:
            try:
                if off is None:
                    n = os.sendfile(dst_fd, src_fd, None, want)
                else:
                    n = os.sendfile(dst_fd, src_fd, off, want)
            except OSError as e:
                if e.errno not in (errno.EINVAL, errno.ENOSYS,
                                   errno.EOPNOTSUPP):
                    raise
                use_sendfile = False
                continue
        else:
            if off is None:
                buf = os.read(src_fd, min(want, _IO_CHUNK))
            else:
                buf = os.pread(src_fd, min(want, _IO_CHUNK), off)
            n = len(buf)
            if n:
                _write_all(dst_fd, buf)
        if not n:
            break
        done += n
    return done


def _tarinfo(arcname, st, kind, linkname=""):
    ti = tarfile.TarInfo(arcname)
    ti.mode = stat.S_IMODE(st.st_mode) if st is not None else 0o755
    ti.mtime = int(st.st_mtime) if st is not None else int(time.time())
    ti.uid = ti.gid = 0
    ti.uname = "QSYS"
    ti.gname = "0"
    if kind == "dir":
        ti.type = tarfile.DIRTYPE
    elif kind == "link":
        ti.type = tarfile.SYMTYPE
        ti.linkname = linkname
    else:
        ti.type = tarfile.REGTYPE
        ti.size = st.st_size
    return ti


def walk(fs_path, since=None, omit=(), synthesize_missing=False):
    """Yield (arcname, fs_path, stat, kind) for what a save would hold.

    since: epoch seconds; non-directories changed before it are left out,
    directories always go in so the image keeps the shape of the tree.
    omit: file system paths left out together with everything below them.
    """
    omit = [os.path.normpath(p) for p in omit]

    def omitted(p):
        p = os.path.normpath(p)
        return any(p == o or p.startswith(o.rstrip("/") + "/") for o in omit)

    def classify(st):
        if stat.S_ISDIR(st.st_mode):
            return "dir"
        if stat.S_ISLNK(st.st_mode):
            return "link"
        if stat.S_ISREG(st.st_mode):
            return "file"
        return None  # sockets, fifos, devices have no place in an image

    def changed(st):
        return since is None or st.st_mtime >= since

    try:
        top = os.lstat(fs_path)
    except FileNotFoundError:
        if not synthesize_missing:
            raise
        yield TOP, fs_path, None, "dir"
        return
    kind = classify(top)
    if kind is None:
        return
    if kind != "dir":
        if changed(top):
            yield TOP, fs_path, top, kind
        return
    yield TOP, fs_path, top, "dir"

    def below(dir_fs, dir_arc):
        try:
            names = sorted(os.listdir(dir_fs))
        except OSError:
            return
        for name in names:
            p = os.path.join(dir_fs, name)
            if omitted(p):
                continue
            try:
                st = os.lstat(p)
            except OSError:
                continue
            k = classify(st)
            arc = dir_arc + "/" + name
            if k == "dir":
                yield arc, p, st, k
                yield from below(p, arc)
            elif k is not None and changed(st):
                yield arc, p, st, k

    yield from below(fs_path, TOP)


def write_image(out_path, meta, entries):
    """Stream an image to out_path; returns the number of objects in it."""
    meta = dict(meta)
    meta.setdefault("format", FORMAT)
    meta.setdefault("created", time.time())
    count = 0
    fd = os.open(out_path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    try:
        body = json.dumps(meta, sort_keys=True).encode("utf-8")
        ti = tarfile.TarInfo(MANIFEST)
        ti.size = len(body)
        ti.mtime = int(meta["created"])
        ti.mode = 0o644
        _write_all(fd, ti.tobuf(tarfile.GNU_FORMAT, "utf-8",
                                "surrogateescape"))
        _write_all(fd, body + b"\0" * (-len(body) % _BLOCK))
        for arcname, fs_path, st, kind in entries:
            if kind == "file":
                try:
                    src = os.open(fs_path, os.O_RDONLY | os.O_NOFOLLOW)
                except OSError:
                    continue  # vanished or unreadable since the walk
                try:
                    ti = _tarinfo(arcname, st, "file")
                    _write_all(fd, ti.tobuf(tarfile.GNU_FORMAT, "utf-8",
                                            "surrogateescape"))
                    got = _copy_fd(src, fd, st.st_size)
                    # the header promised st_size bytes: a file that shrank
                    # meanwhile is padded so the stream stays well formed
                    pad = st.st_size - got + (-st.st_size % _BLOCK)
                    while pad:
                        n = min(pad, _IO_CHUNK)
                        _write_all(fd, b"\0" * n)
                        pad -= n
                finally:
                    os.close(src)
            elif kind == "link":
                try:
                    target = os.readlink(fs_path)
                except OSError:
                    continue
                ti = _tarinfo(arcname, st, "link", target)
                _write_all(fd, ti.tobuf(tarfile.GNU_FORMAT, "utf-8",
                                        "surrogateescape"))
            else:
                ti = _tarinfo(arcname, st, "dir")
                _write_all(fd, ti.tobuf(tarfile.GNU_FORMAT, "utf-8",
                                        "surrogateescape"))
            count += 1
        _write_all(fd, b"\0" * (2 * _BLOCK))
    finally:
        os.close(fd)
    return count


def write_placeholder_image(out_path, meta, size):
    """A well-formed image of about size bytes (exactly size when it is a
    multiple of 512 and above 4 KiB) made in no time: the manifest, then
    member ``o``, a regular file whose data is all zero bytes and left as
    a hole in out_path, then the end blocks (a hole too). The manifest
    says "placeholder", so a restore recreates ``o`` as a sparse file of
    its size instead of copying zeros."""
    meta = dict(meta)
    meta.setdefault("format", FORMAT)
    meta.setdefault("created", time.time())
    meta["placeholder"] = True
    body = json.dumps(meta, sort_keys=True).encode("utf-8")
    ti = tarfile.TarInfo(MANIFEST)
    ti.size = len(body)
    ti.mtime = int(meta["created"])
    ti.mode = 0o644
    head = ti.tobuf(tarfile.GNU_FORMAT, "utf-8", "surrogateescape") + \
        body + b"\0" * (-len(body) % _BLOCK)
    data = max(0, size - len(head) - 3 * _BLOCK)
    top = tarfile.TarInfo(TOP)
    top.type = tarfile.REGTYPE
    top.size = data
    top.mtime = int(meta["created"])
    top.mode = 0o644
    top.uname, top.gname = "QSYS", "0"
    head += top.tobuf(tarfile.GNU_FORMAT, "utf-8", "surrogateescape")
    total = len(head) + data + (-data % _BLOCK) + 2 * _BLOCK
    fd = os.open(out_path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    try:
        _write_all(fd, head)
        os.ftruncate(fd, total)
    finally:
        os.close(fd)
    return total


class Image:
    """Read access to an image written by write_image."""

    def __init__(self, path):
        self.path = path
        try:
            self._tar = tarfile.open(path, "r:", encoding="utf-8",
                                     errors="surrogateescape")
        except (tarfile.TarError, OSError, EOFError) as e:
            raise ImageError(str(e))
        try:
            first = self._tar.next()
            if first is None or first.name != MANIFEST:
                raise ImageError("no manifest")
            self.meta = json.loads(self._tar.extractfile(first).read())
        except (tarfile.TarError, ValueError, EOFError) as e:
            self._tar.close()
            raise ImageError(str(e))
        if self.meta.get("format") != FORMAT or \
                self.meta.get("kind") not in KINDS:
            self._tar.close()
            raise ImageError("unknown image format")
        self._fd = os.open(path, os.O_RDONLY)
        self.size = os.fstat(self._fd).st_size

    @property
    def kind(self):
        return self.meta["kind"]

    @property
    def saved_path(self):
        return self.meta.get("path", "")

    def close(self):
        self._tar.close()
        os.close(self._fd)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def members(self):
        """Yield (relative path below the saved object, TarInfo)."""
        try:
            for ti in self._tar:
                name = ti.name.rstrip("/")
                if name == TOP:
                    yield "", ti
                elif name.startswith(TOP + "/"):
                    yield name[len(TOP) + 1:], ti
        except (tarfile.TarError, EOFError) as e:
            raise ImageError(str(e))

    def copy_data(self, ti, dst_fd):
        if self.meta.get("placeholder") and ti.name == TOP:
            # zeros by construction: a hole of the same size is the same
            # content, and a benchmark's GiB need not be copied again
            if self.size < ti.offset_data + ti.size:
                raise ImageError("truncated image")
            os.ftruncate(dst_fd, ti.size)
            return
        got = _copy_fd(self._fd, dst_fd, ti.size, src_offset=ti.offset_data)
        if got != ti.size:
            raise ImageError("truncated image")


def _under(rel, base):
    return base == "" or rel == base or rel.startswith(base + "/")


def _remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    else:
        os.unlink(path)


def restore(image, src_rel, dest, omit_rels=(), only_new=False):
    """Restore the image's object at src_rel (and below) to fs path dest.

    Returns (found, count): found is False when nothing in the image sits
    at src_rel. Existing files are replaced unless only_new is set, in
    which case they are kept untouched.
    """
    found = False
    count = 0
    dirs = []
    for rel, ti in image.members():
        if not _under(rel, src_rel):
            continue
        found = True
        if any(_under(rel, o) for o in omit_rels if o is not None):
            continue
        sub = rel[len(src_rel):].lstrip("/") if src_rel else rel
        target = os.path.join(dest, sub) if sub else dest
        exists = os.path.lexists(target)
        if ti.isdir():
            if exists and not (os.path.isdir(target) and
                               not os.path.islink(target)):
                _remove(target)
                exists = False
            if not exists:
                os.makedirs(target, mode=0o700)
            elif only_new:
                continue  # an existing directory is left as it is
            count += 1
            # a read-only directory must stay writable until its
            # children are in, so its mode is applied at the very end
            os.chmod(target, stat.S_IMODE(os.lstat(target).st_mode) | 0o700)
            dirs.append((target, ti.mode, ti.mtime))
            continue
        if exists and only_new:
            continue
        parent = os.path.dirname(target)
        if not os.path.isdir(parent):
            os.makedirs(parent)
        if ti.issym():
            if exists:
                _remove(target)
            os.symlink(ti.linkname, target)
            os.utime(target, (ti.mtime, ti.mtime), follow_symlinks=False)
            count += 1
        elif ti.isreg():
            if exists and (os.path.islink(target) or
                           not os.path.isfile(target)):
                _remove(target)
            fd = os.open(target, os.O_WRONLY | os.O_CREAT | os.O_TRUNC |
                         os.O_NOFOLLOW, 0o600)
            try:
                image.copy_data(ti, fd)
                os.fchmod(fd, ti.mode)
            finally:
                os.close(fd)
            os.utime(target, (ti.mtime, ti.mtime))
            count += 1
    for target, mode, mtime in reversed(dirs):
        os.chmod(target, mode)
        os.utime(target, (mtime, mtime))
    return found, count
