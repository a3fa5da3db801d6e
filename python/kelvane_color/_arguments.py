"""Checks of the arguments the package takes: each refusal is a ValueError naming the argument."""

import numpy as np

from ._messages import printable, shown


def integer(value, what, low, high):
    """value as an int, if it is an integer (not a bool) in [low, high]."""
    is_integer = isinstance(value, (int, np.integer)) and not isinstance(value, (bool, np.bool_))
    if not is_integer or not low <= value <= high:
        raise ValueError(f"{what}: {shown(value)} is not an integer from {low} to {high}")
    return int(value)


def choice(value, what, choices):
    """value as an int, if it is an integer (not a float nor a bool) among choices."""
    is_integer = isinstance(value, (int, np.integer)) and not isinstance(value, (bool, np.bool_))
    if not is_integer or int(value) not in choices:
        allowed = " nor ".join(str(c) for c in choices)
        raise ValueError(f"{what}: {shown(value)} is neither {allowed}")
    return int(value)


def member(kind, value, what):
    """value as a member of the IntEnum kind: a member, or an integer that is one's value."""
    is_integer = isinstance(value, (int, np.integer)) and not isinstance(value, (bool, np.bool_))
    if is_integer and int(value) in kind._value2member_map_:
        return kind(int(value))
    names = ", ".join(f"{kind.__name__}.{m.name}" for m in kind)
    raise ValueError(f"{what}: {shown(value)} is not a valid {kind.__name__} ({names})")


def channel_triple(value, what, low, high):
    """(blue, green, red) from one value or three, each an integer in [low, high]."""
    values = tuple(value) if isinstance(value, (tuple, list)) else (value,) * 3
    if len(values) != 3:
        raise ValueError(f"{what}: expected one value or three (blue, green, red), got "
                         f"{shown(value)}")
    return tuple(integer(v, what, low, high) for v in values)


def clamp_bounds(clamp):
    """The six clamp arguments, blue min, blue max, green min ..., from (min, max), where each
    may be one value or three, or from three (min, max) pairs."""
    pairs = tuple(clamp) if isinstance(clamp, (tuple, list)) else ()
    if len(pairs) == 3 and all(isinstance(p, (tuple, list)) and len(p) == 2 for p in pairs):
        pairs = tuple(zip(*pairs))
    if len(pairs) != 2:
        raise ValueError(f"clamp: expected (min, max) or three (min, max) pairs, got "
                         f"{shown(clamp)}")
    low, high = (channel_triple(limit, "clamp", 0, 65535) for limit in pairs)
    return [value for channel in zip(low, high) for value in channel]


def matrix(values):
    """9 contiguous float32 values from a 3 x 3 or flat 9 matrix."""
    try:
        m = np.ascontiguousarray(values, dtype=np.float32)
    except (TypeError, ValueError) as error:
        raise ValueError(f"matrix: {shown(values)} is not numbers ({printable(error)})") from None
    if m.shape not in ((3, 3), (9,)):
        raise ValueError(f"matrix: expected 3 x 3 or 9 values, got shape {m.shape}")
    return m
