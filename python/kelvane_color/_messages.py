"""Messages that quote what a user or the system gave: escaped and cut, so an error never puts
raw control bytes on a terminal."""


def _escape(character):
    code = ord(character)
    if 0xDC80 <= code <= 0xDCFF:
        return f"\\x{code - 0xDC00:02x}"  # a byte that was not UTF-8 (Python's surrogateescape)
    if code < 0x100:
        return f"\\x{code:02x}"  # C0, DEL, C1
    return f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def printable(text):
    """text with every character that does not print (C0 and C1 controls, DEL, line and format
    characters, bytes that were not UTF-8) written as an escape, as Python's repr writes them."""
    return "".join(c if c.isprintable() else _escape(c) for c in str(text))


def quoted(text):
    """text between quotes, escaped."""
    return "'" + printable(text) + "'"


def shown(value, limit=60):
    """A value as a message quotes it: its repr, escaped and cut after limit characters."""
    try:
        text = repr(value)
    except Exception:  # a repr that fails must not hide the error being reported
        text = f"<{type(value).__name__}>"
    text = printable(text)
    return text if len(text) <= limit else text[:limit] + "..."
