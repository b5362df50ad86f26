"""Parsing of the CL command strings that arrive through RCMD.

Only the shapes the backup client sends need to be understood:

    NAME KEYWORD(value ...) KEYWORD((elem elem) (elem)) ...

A value is a quoted string ('...' with '' standing for one apostrophe),
a parenthesised list of values, or a bare word such as *ALL or QTEMP/SAV1.
"""


class CLSyntaxError(ValueError):
    pass


class Quoted(str):
    """A value that was written between apostrophes in the command."""


def _skip_ws(text, i):
    while i < len(text) and text[i] in " \t\r\n":
        i += 1
    return i


def _quoted(text, i):
    # text[i] is the opening apostrophe
    i += 1
    out = []
    while True:
        if i >= len(text):
            raise CLSyntaxError("unterminated quoted string")
        c = text[i]
        if c == "'":
            if i + 1 < len(text) and text[i + 1] == "'":
                out.append("'")
                i += 2
                continue
            return Quoted("".join(out)), i + 1
        out.append(c)
        i += 1


def _bare(text, i):
    start = i
    while i < len(text) and text[i] not in " \t\r\n()'":
        i += 1
    return text[start:i], i


def _list(text, i):
    # text[i] is the opening parenthesis
    i += 1
    items = []
    while True:
        i = _skip_ws(text, i)
        if i >= len(text):
            raise CLSyntaxError("missing closing parenthesis")
        c = text[i]
        if c == ")":
            return items, i + 1
        if c == "(":
            sub, i = _list(text, i)
            items.append(sub)
        elif c == "'":
            q, i = _quoted(text, i)
            items.append(q)
        else:
            word, i = _bare(text, i)
            if not word:
                raise CLSyntaxError("unexpected character %r" % text[i])
            items.append(word)


def parse(text):
    """Return (COMMAND, {KEYWORD: [values]}, [positional values])."""
    i = _skip_ws(text, 0)
    name, i = _bare(text, i)
    if not name:
        raise CLSyntaxError("missing command name")
    # a library-qualified command name (QSYS/SAV) runs the same command
    name = name.split("/")[-1].upper()
    params = {}
    positional = []
    while True:
        i = _skip_ws(text, i)
        if i >= len(text):
            break
        if text[i] == "'":
            q, i = _quoted(text, i)
            positional.append(q)
            continue
        if text[i] == "(":
            sub, i = _list(text, i)
            positional.append(sub)
            continue
        word, i = _bare(text, i)
        if not word:
            raise CLSyntaxError("unexpected character %r" % text[i])
        if i < len(text) and text[i] == "(":
            values, i = _list(text, i)
            params[word.upper()] = values
        else:
            positional.append(word)
    return name, params, positional


def first(params, key, default=None):
    """First scalar value of a keyword, or default when absent."""
    vals = params.get(key)
    if not vals:
        return default
    v = vals[0]
    while isinstance(v, list):
        if not v:
            return default
        v = v[0]
    return v


def unquote_path(value):
    """Undo the double-quote wrapping the client puts around IFS names.

    The apostrophe level has already been undone by the parser; what is
    left looks like "/home/a ""b""/it's" and becomes /home/a "b"/it's.
    """
    s = str(value)
    if len(s) >= 2 and s[0] == '"' and s[-1] == '"':
        return s[1:-1].replace('""', '"')
    return s


def elements(params, key):
    """The keyword's value as a list of elements, each a list of values.

    OBJ('"/a"') and OBJ(('"/a"')) and OBJ(('"/a"' *INCLUDE '"/b"')) all
    come back in the same shape: [["/a"...], ...].
    """
    out = []
    for v in params.get(key, []):
        if isinstance(v, list):
            out.append(v)
        else:
            out.append([v])
    return out
