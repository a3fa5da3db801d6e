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
import sys

try:  # the other modules use numpy; this says what to do without it
    import numpy
except ModuleNotFoundError as error:
    if error.name != "numpy":
        raise
    raise ModuleNotFoundError(
        f"kelvane_color needs numpy, which this interpreter lacks: {sys.executable} (Python "
        f"{sys.version.split()[0]}). The library's install serves Debian's /usr/bin/python3 "
        "(apt install python3-numpy). For another interpreter, use a virtual environment with "
        f"numpy: {sys.executable} -m venv env && env/bin/python -m pip install numpy, and put the "
        "package's folder on PYTHONPATH (see docs/python.md, Install)", name="numpy") from None
del numpy

from . import _arguments as arguments, _color as color, _stripes as stripes
from ._color import COLOR_LIBRARY_VARIABLE, ColorError, color_space_names
from ._frames import Layout, input_frame, output_array
from ._gate import Gate
from ._lifetime import ProcessorHandle, Session, forget
from ._native import LIBRARY_VARIABLE, LibraryNotFound, Status, StatusError, library, library_path

__all__ = [
    "COLOR_LIBRARY_VARIABLE",
    "ColorError",
    "LIBRARY_VARIABLE",
    "Layout",
    "LibraryNotFound",
    "Processor",
    "Session",
    "Status",
    "StatusError",
    "Tier",
    "color_space_names",
    "library_path",
]


class Tier(enum.IntEnum):
    """Classes of vector code; a vector module the processor cannot run falls back on its own."""

    SCALAR = 0
    SSE = 1
    AVX2 = 2
    AVX512 = 3


def _check(call, status):
    if status != 0:
        raise StatusError(call, status)


class Processor:
    """One color processor: a 3 x 3 matrix, six LUTs and the transform. Use it as a context
    manager, or call close(). Create it inside a Session.

    input_lut_bits, output_lut_bits: LUT depths, 0 to 16 (tables of 2**bits entries). tier: None
    picks the best the processor runs; a Tier forces one (for tests and comparisons).
    """

    def __init__(self, input_lut_bits=16, output_lut_bits=16, tier=None):
        input_lut_bits = arguments.integer(input_lut_bits, "input_lut_bits", 0, 16)
        output_lut_bits = arguments.integer(output_lut_bits, "output_lut_bits", 0, 16)
        if tier is not None:
            tier = arguments.member(Tier, tier, "tier")

        def create(native):
            if tier is None:
                return native.kv_color_create_color_processor(input_lut_bits, output_lut_bits)
            return native.kv_color_create_color_processor_test(input_lut_bits, output_lut_bits,
                                                               tier)

        self._gate = Gate()
        self._handle = ProcessorHandle(self, create)
        self.input_lut_bits, self.output_lut_bits = input_lut_bits, output_lut_bits
        # Views of the library's own tables, no copies: what is written here is what the next
        # transform reads. Each keeps the tables alive, also past close().
        self.input_luts = self._handle.tables("input", input_lut_bits)
        self.output_luts = self._handle.tables("output", output_lut_bits)
        # What transform() uses when the caller leaves them out; a conversion sets its own.
        self.description, self.bits, self.clamp, self.shifts = None, None, (0, 65535), 0

    @classmethod
    def converting(cls, source, destination, bits=16, tier=None):
        """A Processor set up by the colour layer to convert from source to destination, with
        output elements of bits (8 or 16). Each of source and destination is a space name (str,
        one of color_space_names()), ICC profile bytes (bytes, bytearray, memoryview: e.g.
        Pillow's image.info["icc_profile"]) or a profile file (os.PathLike, e.g. pathlib.Path;
        a plain str is always a name). A refusal raises ColorError (a ValueError)."""
        bits = arguments.choice(bits, "bits", (8, 16))
        return cls._configured(color.between(source, destination, bits), bits, tier)

    @classmethod
    def from_clf(cls, process_list, bits=16, tier=None):
        """A Processor set up from a CLF or CTF process list: a file (str or os.PathLike) or
        its bytes. Input elements are 16-bit codes; the output has bits (8 or 16)."""
        bits = arguments.choice(bits, "bits", (8, 16))
        return cls._configured(color.from_clf(process_list, bits), bits, tier)

    @classmethod
    def _configured(cls, conversion, bits, tier):
        try:
            processor = cls(16, 16, tier)
        except BaseException:
            color.layer().kv_color_conversion_destroy(conversion)
            raise
        try:
            with processor._gate.alone():
                description, clamp, shifts = color.apply(conversion, processor._handle.value)
        except BaseException:
            processor.close()
            raise
        processor.description, processor.bits = description, bits
        processor.clamp, processor.shifts = clamp, shifts
        return processor

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def close(self):
        """Waits for the transforms running on the processor, then closes it: later calls raise
        ValueError. Its tables stay valid while a view of them is kept, and the library's
        processor is destroyed when the last view goes. Closing twice is harmless."""
        if self._gate.close():
            self._handle = None
            self.input_luts = self.output_luts = None
            forget(self)

    def __reduce__(self):
        raise TypeError(
            "a kelvane_color.Processor cannot be pickled: it is the library's processor in this "
            "process. Send its settings instead and create the Session and Processor once in "
            "each worker process (docs/python-dask.md shows how)")

    def _configure(self, name, *values):
        with self._gate.alone():
            _check(name, getattr(library(), name)(self._handle.value, *values))

    def append_matrix(self, matrix):
        """Multiplies the stored matrix S by the given 3 x 3 one M (rows and columns red, green,
        blue): S := S x M, so the matrix appended last is the first applied to a pixel."""
        m = arguments.matrix(matrix)
        self._configure("kv_color_append_matrix", m.ctypes.data)

    def clear_matrix(self):
        """Resets the stored matrix to the identity; LUTs are untouched."""
        self._configure("kv_color_clear_matrix")

    def _enable(self, stage, flags):
        self._configure(f"kv_color_enable_{stage}_LUTs", *(bool(f) for f in flags))

    def enable_input_luts(self, blue=False, green=False, red=False):
        """Turns the named input LUTs on and the others off (all three are set on every call)."""
        self._enable("input", (blue, green, red))

    def enable_output_luts(self, blue=False, green=False, red=False):
        """Turns the named output LUTs on and the others off (all three are set on every call)."""
        self._enable("output", (blue, green, red))

    def _output_bits(self, bits):
        if bits is None:
            return self.bits or 16
        bits = arguments.choice(bits, "bits", (8, 16))
        if self.bits is not None and bits != self.bits:
            raise ValueError(f"bits: {bits}, but the tables of {self.description} are made for "
                             f"{self.bits}-bit output")
        return bits

    def transform(self, frame, bits=None, channels=3, input_layout=Layout.BGR, output_layout=None,
                  clamp=None, shifts=None, out=None, threads=None):
        """Runs a frame through the pipeline and returns the result.

        frame: uint16, shape (..., 3) for Layout.BGR and Layout.RGB, (3, ...) for
        Layout.BGR_PLANES; a frame that is not C-contiguous is copied first.
        bits: 8 or 16, the output element: 16 by default, and for a processor from converting()
        or from_clf() its own depth, the only one its tables are made for.
        channels: 3, or 4 for a fourth element of 0.
        output_layout: defaults to input_layout. clamp: (min, max) for every channel, or three
        such pairs, blue, green, red; limits apply to the matrix result, 0 to 65535. shifts: one
        distance or three (blue, green, red), -15 to 15: positive left, negative right. Left out
        (None), both are the processor's: self.clamp and self.shifts, (0, 65535) and 0 unless
        a conversion set them.
        out: an array to write into, of exactly the result's dtype and shape, C-contiguous,
        writable and not overlapping frame; it is returned.
        threads: None cuts a frame interleaved on both sides into a stripe for each core, 1 to
        1024 into at most that many, never more than cores nor below 65,536 pixels a stripe;
        1 keeps the calling thread alone. A planar side runs whole on the calling thread. The
        output is the same for any count.
        A request the library refuses raises StatusError and leaves out untouched.
        """
        input_layout = arguments.member(Layout, input_layout, "input_layout")
        output_layout = input_layout if output_layout is None else arguments.member(
            Layout, output_layout, "output_layout")
        bits = self._output_bits(bits)
        channels = arguments.choice(channels, "channels", (3, 4))
        frame, pixel_shape, pixels = input_frame(frame, input_layout)
        out = output_array(out, pixel_shape, output_layout, bits, channels, frame)
        bounds = arguments.clamp_bounds(self.clamp if clamp is None else clamp)
        distances = arguments.channel_triple(self.shifts if shifts is None else shifts, "shifts",
                                             -0x80000000, 0x7FFFFFFF)
        if threads is not None:
            threads = arguments.integer(threads, "threads", 1, stripes.MAX_THREADS)
        interleaved = Layout.BGR_PLANES not in (input_layout, output_layout)

        name = f"kv_color_transform_48_to_{bits * channels}"
        function, pixel_bytes = getattr(library(), name), out.itemsize * channels
        source, target = frame.ctypes.data, out.ctypes.data
        with self._gate.transform():
            handle = self._handle.value

            def stripe(first, count):
                # The call releases the GIL (ctypes.CDLL): the stripes run at once.
                return function(handle, source + 6 * first, input_layout, *bounds, *distances,
                                target + pixel_bytes * first, output_layout, count)

            statuses = stripes.run(stripe, pixels, stripes.count(threads, pixels, interleaved))
        for status in statuses:
            _check(name, status)
        return out
