"""kelvane_color: the color processing library from Python, over ctypes and numpy.

    import numpy as np
    import kelvane_color as kc

    with kc.Session(), kc.Processor(input_lut_bits=16, output_lut_bits=16) as p:
        p.append_matrix([[1.2, -0.1, -0.1], [-0.1, 1.2, -0.1], [-0.1, -0.1, 1.2]])
        rgb8 = p.transform(frame, bits=8, output_layout=kc.Layout.RGB)

A frame is a uint16 array: H x W x 3 (any shape ending in 3) for the interleaved layouts, 3 x H x W
(any shape starting with 3) for planes. The result has the same pixel shape with 3 or 4 elements a
pixel, uint8 or uint16. See docs/python.md.
"""

import enum
import threading

import numpy as np

from ._native import LIBRARY_VARIABLE, LibraryNotFound, Status, StatusError, library, library_path

__all__ = [
    "LIBRARY_VARIABLE",
    "Layout",
    "LibraryNotFound",
    "Processor",
    "Session",
    "Status",
    "StatusError",
    "Tier",
    "library_path",
]

CHANNELS = ("blue", "green", "red")


class Layout(enum.IntEnum):
    """Where a pixel's elements lie in a frame."""

    BGR_PLANES = 0  # all blue, then all green, then all red: shape (3, ...)
    BGR = 1  # b g r per pixel: shape (..., 3)
    RGB = 2  # r g b per pixel: shape (..., 3)


class Tier(enum.IntEnum):
    """Classes of vector code; a vector module the processor cannot run falls back on its own."""

    SCALAR = 0
    SSE = 1
    AVX2 = 2
    AVX512 = 3


def _check(call, status):
    if status != 0:
        raise StatusError(call, status)


# The library counts its initialisations, but any terminate empties its table of LUT functions
# even while other initialisations stand, so nested sessions call it once at each end only.
_session_lock = threading.Lock()
_session_depth = 0
_open_processors = set()  # held, so a processor dropped unclosed is still destroyed


class Session:
    """Keeps the library initialised while open; sessions nest. Leaving the outermost one closes
    every processor still open, then terminates the library."""

    def __enter__(self):
        global _session_depth
        with _session_lock:
            if _session_depth == 0:
                native = library()
                status = native.kv_color_processing_module_initialize()
                if status != 0:
                    native.kv_color_processing_module_terminate()
                    raise StatusError("kv_color_processing_module_initialize (the LUT module "
                                      "kelvane_qor_LUT is missing or incomplete)", status)
            _session_depth += 1
        return self

    def __exit__(self, *exc):
        global _session_depth
        with _session_lock:
            if _session_depth == 0:
                raise RuntimeError("kelvane_color.Session left more often than entered")
            _session_depth -= 1
            if _session_depth == 0:
                try:
                    for processor in list(_open_processors):
                        processor.close()
                finally:
                    library().kv_color_processing_module_terminate()
        return False


def _integer(value, what, low, high):
    """value as an int, if it is an integer (not a bool) in [low, high]."""
    integer = isinstance(value, (int, np.integer)) and not isinstance(value, (bool, np.bool_))
    if not integer or not low <= value <= high:
        raise ValueError(f"{what}: {value!r} is not an integer from {low} to {high}")
    return int(value)


def _channel_triple(value, what, low, high):
    """(blue, green, red) from one value or three, each an integer in [low, high]."""
    values = tuple(value) if isinstance(value, (tuple, list)) else (value,) * 3
    if len(values) != 3:
        raise ValueError(f"{what}: expected one value or three (blue, green, red), got {value!r}")
    return tuple(_integer(v, what, low, high) for v in values)


def _clamp_bounds(clamp):
    """The six clamp arguments, blue min, blue max, green min ..., from (min, max), where each
    may be one value or three, or from three (min, max) pairs."""
    pairs = tuple(clamp) if isinstance(clamp, (tuple, list)) else ()
    if len(pairs) == 3 and all(isinstance(p, (tuple, list)) and len(p) == 2 for p in pairs):
        pairs = tuple(zip(*pairs))
    if len(pairs) != 2:
        raise ValueError(f"clamp: expected (min, max) or three (min, max) pairs, got {clamp!r}")
    low, high = (_channel_triple(limit, "clamp", 0, 65535) for limit in pairs)
    return [value for channel in zip(low, high) for value in channel]


class Processor:
    """One color processor: a 3 x 3 matrix, six LUTs and the transform. Use it as a context
    manager, or call close(). Create it inside a Session.

    input_lut_bits, output_lut_bits: LUT depths, 0 to 16 (tables of 2**bits entries). tier: None
    picks the best the processor runs; a Tier forces one (for tests and comparisons).
    """

    def __init__(self, input_lut_bits=16, output_lut_bits=16, tier=None):
        input_lut_bits = _integer(input_lut_bits, "input_lut_bits", 0, 16)
        output_lut_bits = _integer(output_lut_bits, "output_lut_bits", 0, 16)
        with _session_lock:
            if _session_depth == 0:
                raise RuntimeError("no kelvane_color.Session is open: create processors inside "
                                   "'with kelvane_color.Session():'")
            native = library()
            if tier is None:
                handle = native.kv_color_create_color_processor(input_lut_bits, output_lut_bits)
            else:
                handle = native.kv_color_create_color_processor_test(
                    input_lut_bits, output_lut_bits, Tier(tier))
            if not handle:
                raise MemoryError("kv_color_create_color_processor failed (see the library's log)")
            self._handle = handle
            _open_processors.add(self)
        self.input_lut_bits, self.output_lut_bits = input_lut_bits, output_lut_bits

        def tables(stage, bits):
            views = []
            for channel in CHANNELS:
                entries = getattr(native, f"kv_color_get_{channel}_{stage}_LUT")(handle)
                if not entries:
                    raise RuntimeError(f"the library gave no {channel} {stage} LUT")
                views.append(np.ctypeslib.as_array(entries, shape=(1 << bits,)))
            return tuple(views)

        # Views of the library's own tables, no copies: what is written here is what the next
        # transform reads. They die with the processor.
        self.input_luts = tables("input", self.input_lut_bits)
        self.output_luts = tables("output", self.output_lut_bits)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def close(self):
        """Destroys the processor and its tables (the LUT views must not be used afterwards)."""
        handle, self._handle = getattr(self, "_handle", None), None
        if handle:
            _open_processors.discard(self)
            self.input_luts = self.output_luts = None
            _check("kv_color_destroy_color_processor",
                   library().kv_color_destroy_color_processor(handle))

    def _live(self):
        if not self._handle:
            raise ValueError("the processor is closed")
        return self._handle

    def append_matrix(self, matrix):
        """Multiplies the stored matrix S by the given 3 x 3 one M (rows and columns red, green,
        blue): S := S x M, so the matrix appended last is the first applied to a pixel."""
        m = np.ascontiguousarray(matrix, dtype=np.float32)
        if m.shape not in ((3, 3), (9,)):
            raise ValueError(f"matrix: expected 3 x 3 or 9 values, got shape {m.shape}")
        status = library().kv_color_append_matrix(self._live(), m.ctypes.data)
        _check("kv_color_append_matrix", status)

    def clear_matrix(self):
        """Resets the stored matrix to the identity; LUTs are untouched."""
        _check("kv_color_clear_matrix", library().kv_color_clear_matrix(self._live()))

    def _enable(self, stage, flags):
        name = f"kv_color_enable_{stage}_LUTs"
        _check(name, getattr(library(), name)(self._live(), *(bool(f) for f in flags)))

    def enable_input_luts(self, blue=False, green=False, red=False):
        """Turns the named input LUTs on and the others off (all three are set on every call)."""
        self._enable("input", (blue, green, red))

    def enable_output_luts(self, blue=False, green=False, red=False):
        """Turns the named output LUTs on and the others off (all three are set on every call)."""
        self._enable("output", (blue, green, red))

    def transform(self, frame, bits=16, channels=3, input_layout=Layout.BGR, output_layout=None,
                  clamp=(0, 65535), shifts=0, out=None):
        """Runs a frame through the pipeline and returns the result.

        frame: uint16, shape (..., 3) for Layout.BGR and Layout.RGB, (3, ...) for
        Layout.BGR_PLANES; a frame that is not C-contiguous is copied first.
        bits: 8 or 16, the output element. channels: 3, or 4 for a fourth element of 0.
        output_layout: defaults to input_layout. clamp: (min, max) for every channel, or three
        such pairs, blue, green, red; limits apply to the matrix result, 0 to 65535. shifts: one
        distance or three (blue, green, red), -15 to 15: positive left, negative right.
        out: an array to write into, of exactly the result's dtype and shape, C-contiguous,
        writable and not overlapping frame; it is returned.
        A request the library refuses raises StatusError and leaves out untouched.
        """
        handle = self._live()
        input_layout = Layout(input_layout)
        output_layout = input_layout if output_layout is None else Layout(output_layout)
        if bits not in (8, 16):
            raise ValueError(f"bits: {bits!r} is neither 8 nor 16")
        if channels not in (3, 4):
            raise ValueError(f"channels: {channels!r} is neither 3 nor 4")
        frame = np.asarray(frame)
        if frame.dtype != np.uint16:
            raise ValueError(f"frame: dtype {frame.dtype} is not uint16 (native byte order)")
        planar_in = input_layout == Layout.BGR_PLANES
        axis = 0 if planar_in else -1
        if frame.ndim < 1 or frame.shape[axis] != 3:
            where = "first" if planar_in else "last"
            raise ValueError(f"frame: {input_layout.name} needs 3 as the {where} dimension, "
                             f"got shape {frame.shape}")
        pixel_shape = frame.shape[1:] if planar_in else frame.shape[:-1]
        pixels = frame.size // 3
        if pixels > 0x7FFFFFFF:
            raise ValueError(f"frame: {pixels} pixels exceed the library's limit of 2**31 - 1")
        frame = np.ascontiguousarray(frame)

        dtype = np.uint8 if bits == 8 else np.uint16
        if output_layout == Layout.BGR_PLANES:
            shape = (channels,) + pixel_shape
        else:
            shape = pixel_shape + (channels,)
        if out is None:
            out = np.empty(shape, dtype)
        else:
            if not isinstance(out, np.ndarray):
                raise ValueError(f"out: expected a numpy array, got {type(out).__name__}")
            if out.dtype != dtype or out.shape != shape:
                raise ValueError(f"out: expected {np.dtype(dtype)} of shape {shape}, got "
                                 f"{out.dtype} of shape {out.shape}")
            if not out.flags.c_contiguous or not out.flags.writeable:
                raise ValueError("out: must be C-contiguous and writable")
            if np.may_share_memory(out, frame):
                raise ValueError("out: overlaps the frame; the library needs separate buffers")

        bounds = _clamp_bounds(clamp)
        distances = _channel_triple(shifts, "shifts", -0x80000000, 0x7FFFFFFF)

        name = f"kv_color_transform_48_to_{bits * channels}"
        # The call releases the GIL (ctypes.CDLL): other threads run meanwhile.
        status = getattr(library(), name)(handle, frame.ctypes.data, input_layout, *bounds,
                                          *distances, out.ctypes.data, output_layout, pixels)
        _check(name, status)
        return out
