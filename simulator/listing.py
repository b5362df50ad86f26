"""Unix long-listing lines as the IBM i FTP server writes them (LISTFMT 1)."""

import os
import stat
import time

MONTHS = ("Jan", "Feb", "Mar", "Apr", "May", "Jun",
          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec")

# ls' rule: a date within this many seconds in the past shows the time of
# day, anything older (or in the future) shows the year instead
RECENT = 180 * 24 * 3600


def format_date(mtime, now=None):
    if now is None:
        now = time.time()
    t = time.localtime(mtime)
    head = "%s %2d" % (MONTHS[t.tm_mon - 1], t.tm_mday)
    if 0 <= now - mtime <= RECENT:
        return "%s %02d:%02d" % (head, t.tm_hour, t.tm_min)
    return "%s  %d" % (head, t.tm_year)


def format_line(name, st, link_target=None, owner="QSYS", group="0",
                now=None):
    """One listing line (str, without line end) for an lstat result."""
    mode = stat.filemode(st.st_mode)
    line = "%s %3d %-8s %-8s %7d %s %s" % (
        mode, st.st_nlink, owner, group, st.st_size,
        format_date(st.st_mtime, now), name)
    if link_target is not None:
        line += " -> " + link_target
    return line


def entry_line(fs_path, name, owner="QSYS", group="0", now=None):
    st = os.lstat(fs_path)
    target = os.readlink(fs_path) if stat.S_ISLNK(st.st_mode) else None
    return format_line(name, st, target, owner, group, now)
