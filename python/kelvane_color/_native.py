"""Finding and loading the color processing library, and the prototypes of its nineteen exports."""

import ctypes
import ctypes.util
import enum
import os
import threading

LIBRARY_VARIABLE = "KELVANE_COLOR_LIBRARY"

if os.name == "nt":
    FILE_NAME = "kelvane_qor_color_processing.dll"
else:
    # The soname: what a runtime install provides, without the development link.
    FILE_NAME = "libkelvane_qor_color_processing.so.0"


class Status(enum.IntEnum):
    """The library's status codes."""

    KV_STATUS_SUCCESS = 0
    KV_STATUS_MODULE_NOT_INITIALIZED = 1
    KV_STATUS_NULL_HANDLE = 2
    KV_STATUS_NULL_INPUT_BUFFER = 3
    KV_STATUS_NULL_OUTPUT_BUFFER = 4
    KV_STATUS_SAME_BUFFER = 5
    KV_STATUS_INVALID_INPUT_FORMAT = 9
    KV_STATUS_INVALID_OUTPUT_FORMAT = 10
    KV_STATUS_INVALID_SHIFT = 11
    KV_STATUS_INVALID_CLAMP = 12


class StatusError(RuntimeError):
    """A call the library refused; ``status`` holds the code it returned."""

    def __init__(self, call, status):
        try:
            self.status = Status(status)
            name = self.status.name
        except ValueError:
            self.status = int(status)
            name = "unknown status"
        super().__init__(f"{call} refused: {name} ({int(status)})")


class LibraryNotFound(OSError):
    """No loadable copy of the library was found; the message lists every place tried."""


_handle = ctypes.c_void_p
_u16 = ctypes.c_uint16
_i32 = ctypes.c_int32
_entries = ctypes.POINTER(ctypes.c_uint32)
# processor, input, input format, six clamp limits, three shifts, output, output format, pixels
_TRANSFORM_ARGUMENTS = [_handle, ctypes.c_void_p, _i32] + [_u16] * 6 + [_i32] * 3 + [
    ctypes.c_void_p, _i32, _i32]

# name: (result, arguments)
_PROTOTYPES = {
    "kv_color_processing_module_initialize": (_i32, []),
    "kv_color_processing_module_terminate": (_i32, []),
    "kv_color_create_color_processor": (_handle, [_i32, _i32]),
    "kv_color_create_color_processor_test": (_handle, [_i32, _i32, _i32]),
    "kv_color_destroy_color_processor": (_i32, [_handle]),
    "kv_color_append_matrix": (_i32, [_handle, ctypes.c_void_p]),
    "kv_color_clear_matrix": (_i32, [_handle]),
    "kv_color_enable_input_LUTs": (_i32, [_handle, _i32, _i32, _i32]),
    "kv_color_enable_output_LUTs": (_i32, [_handle, _i32, _i32, _i32]),
}
for _stage in ("input", "output"):
    for _channel in ("blue", "green", "red"):
        _PROTOTYPES[f"kv_color_get_{_channel}_{_stage}_LUT"] = (_entries, [_handle])
for _bits in (24, 32, 48, 64):
    _PROTOTYPES[f"kv_color_transform_48_to_{_bits}"] = (_i32, _TRANSFORM_ARGUMENTS)


def _candidates():
    """(where, path or name) in the order tried: beside this package, the library folder of the
    install this package came with, the environment variable, the system's search order."""
    here = os.path.dirname(os.path.abspath(__file__))
    yield "beside the package", os.path.join(here, FILE_NAME)
    try:
        from . import _installed
    except ImportError:
        pass
    else:
        yield "in the install's library folder", os.path.normpath(
            os.path.join(here, _installed.library_directory, FILE_NAME)
        )
    explicit = os.environ.get(LIBRARY_VARIABLE)
    if explicit:
        yield LIBRARY_VARIABLE, explicit
    if os.name == "nt":
        # A bare name is not looked up on PATH by ctypes on Windows; find_library does that.
        yield "on PATH", ctypes.util.find_library("kelvane_qor_color_processing")
    else:
        yield "in the system's search order", FILE_NAME


def _load():
    tried = []
    for where, path in _candidates():
        if not path:
            continue
        is_file = os.sep in path or (os.altsep and os.altsep in path)
        if is_file and not os.path.isfile(path):
            if where == LIBRARY_VARIABLE:
                raise LibraryNotFound(f"{LIBRARY_VARIABLE} names {path!r}, which is not a file")
            tried.append(f"{where}: {path!r} does not exist")
            continue
        try:
            # CDLL, never PyDLL: ctypes then releases the GIL around every call into the library,
            # so transforms on several threads run at once.
            return ctypes.CDLL(path), path
        except OSError as error:
            if is_file:
                # A file that is there but does not load is a broken install: say so, go no further.
                raise LibraryNotFound(f"{where}: {path!r} does not load: {error}") from error
            tried.append(f"{where}: {error}")
    raise LibraryNotFound(
        "the color processing library was not found (set "
        + LIBRARY_VARIABLE
        + " to its full path); tried:\n  "
        + "\n  ".join(tried)
    )


_lock = threading.Lock()
_library = None
_library_path = None


def library():
    """The loaded library with its prototypes set, loaded on first use."""
    global _library, _library_path
    with _lock:
        if _library is None:
            loaded, path = _load()
            for name, (result, arguments) in _PROTOTYPES.items():
                function = getattr(loaded, name)
                function.restype = result
                function.argtypes = arguments
            _library, _library_path = loaded, path
        return _library


def library_path():
    """The path (or, from the system's search order, the name) the library was loaded from."""
    library()
    return _library_path
