"""Frames as numpy arrays: the layouts, and the checks of an input frame and an output array."""

import enum

import numpy as np

from ._messages import shown


class Layout(enum.IntEnum):
    """Where a pixel's elements lie in a frame."""

    BGR_PLANES = 0  # all blue, then all green, then all red: shape (3, ...)
    BGR = 1  # b g r per pixel: shape (..., 3)
    RGB = 2  # r g b per pixel: shape (..., 3)


def input_frame(frame, layout):
    """(C-contiguous uint16 frame, pixel shape, pixel count) of frame in the given layout."""
    try:
        frame = np.asarray(frame)
    except Exception:  # numpy's errors for objects it cannot take vary with the object
        raise ValueError(f"frame: {shown(frame)} is not an array") from None
    if frame.dtype != np.uint16:
        raise ValueError(f"frame: dtype {frame.dtype} is not uint16 (native byte order)")
    planar = layout == Layout.BGR_PLANES
    if frame.ndim < 1 or frame.shape[0 if planar else -1] != 3:
        where = "first" if planar else "last"
        raise ValueError(f"frame: {layout.name} needs 3 as the {where} dimension, got shape "
                         f"{frame.shape}")
    pixels = frame.size // 3
    if pixels > 0x7FFFFFFF:
        raise ValueError(f"frame: {pixels} pixels exceed the library's limit of 2**31 - 1")
    return np.ascontiguousarray(frame), frame.shape[1:] if planar else frame.shape[:-1], pixels


def output_array(out, pixel_shape, layout, bits, channels, frame):
    """out checked against the result's dtype and shape, or a new array of them."""
    dtype = np.dtype(np.uint8 if bits == 8 else np.uint16)
    if layout == Layout.BGR_PLANES:
        shape = (channels,) + pixel_shape
    else:
        shape = pixel_shape + (channels,)
    if out is None:
        return np.empty(shape, dtype)
    if not isinstance(out, np.ndarray):
        raise ValueError(f"out: expected a numpy array, got {shown(type(out).__name__)}")
    if out.dtype != dtype or out.shape != shape:
        raise ValueError(f"out: expected {dtype} of shape {shape}, got {out.dtype} of "
                         f"shape {out.shape}")
    if not out.flags.c_contiguous or not out.flags.writeable:
        raise ValueError("out: must be C-contiguous and writable")
    if np.may_share_memory(out, frame):
        raise ValueError("out: overlaps the frame; the library needs separate buffers")
    return out
