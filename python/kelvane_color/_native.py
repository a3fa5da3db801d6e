"""Finding and loading the color processing library, and the prototypes of its nineteen exports."""

import ctypes
import ctypes.util
import enum
import os
import threading

from ._messages import printable, quoted

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
for _stage in ("input", "output"):  # each getter returns its table's address
    for _channel in ("blue", "green", "red"):
        _PROTOTYPES[f"kv_color_get_{_channel}_{_stage}_LUT"] = (ctypes.c_void_p, [_handle])
for _bits in (24, 32, 48, 64):
    _PROTOTYPES[f"kv_color_transform_48_to_{_bits}"] = (_i32, _TRANSFORM_ARGUMENTS)


def _candidates(file_name, variable, stem):
    """(where, path or name) in the order tried: beside this package, the library folder of the
    install this package came with, the environment variable, the system's search order."""
    here = os.path.dirname(os.path.abspath(__file__))
    yield "beside the package", os.path.join(here, file_name)
    try:
        from . import _installed
    except ImportError:
        pass
    else:
        yield "in the install's library folder", os.path.normpath(
            os.path.join(here, _installed.library_directory, file_name)
        )
    explicit = os.environ.get(variable)
    if explicit:
        yield variable, explicit
    if os.name == "nt":
        # A bare name is not looked up on PATH by ctypes on Windows; find_library does that.
        yield "on PATH", ctypes.util.find_library(stem)
    else:
        yield "in the system's search order", file_name


def _is_file(path):
    return os.sep in path or bool(os.altsep and os.altsep in path)


def _open(where, path, what, prototypes):
    """(the library at path with its prototypes set, None), or (None, why) for a bare name the
    system did not find. A file that is there but is no loadable copy of the library raises
    LibraryNotFound: a broken install, so the search goes no further."""
    try:
        # CDLL, never PyDLL: ctypes then releases the GIL around every call into the library,
        # so transforms on several threads run at once.
        loaded = ctypes.CDLL(path)
    except OSError as error:
        # ctypes gives no text when the loader's message is not UTF-8
        why = printable(error) or "the loader gave no reason"
        if not _is_file(path):
            return None, why
        raise LibraryNotFound(f"{where}: {quoted(path)} does not load: {why}") from None
    for name, (result, arguments) in prototypes.items():
        try:
            function = getattr(loaded, name)
        except AttributeError:
            raise LibraryNotFound(f"{where}: {quoted(path)} is not the {what}: it lacks "
                                  f"{name}") from None
        function.restype = result
        function.argtypes = arguments
    return loaded, None


def load(what, file_name, variable, stem, prototypes):
    """(library, path): the first loadable copy of the library what among the candidates, with
    prototypes ({name: (result, arguments)}) set; LibraryNotFound lists every place tried."""
    tried = []
    for where, path in _candidates(file_name, variable, stem):
        if not path:
            continue
        shown = quoted(path)
        if _is_file(path) and not os.path.isfile(path):
            if where == variable:
                raise LibraryNotFound(f"{variable} names {shown}, which is not a file")
            tried.append(f"{where}: {shown} does not exist")
            continue
        loaded, failure = _open(where, path, what, prototypes)
        if loaded is not None:
            return loaded, path
        tried.append(f"{where}: {failure}")
    raise LibraryNotFound(
        f"the {what} was not found (set {variable} to its full path); tried:\n  "
        + "\n  ".join(tried)
    )


def _load():
    return load("color processing library", FILE_NAME, LIBRARY_VARIABLE,
                "kelvane_qor_color_processing", _PROTOTYPES)


_lock = threading.Lock()
_library = None
_library_path = None


def library():
    """The loaded library with its prototypes set, loaded on first use."""
    global _library, _library_path
    with _lock:
        if _library is None:
            _library, _library_path = _load()
        return _library


def library_path():
    """The path (or, from the system's search order, the name) the library was loaded from."""
    library()
    return _library_path
