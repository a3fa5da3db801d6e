"""The colour layer (kelvane_qor_color): named spaces, ICC profiles and CLF/CTF process lists
turned into a processor's matrix, tables and frame settings."""

import ctypes
import os
import threading

from . import _native
from ._messages import printable, shown

COLOR_LIBRARY_VARIABLE = "KELVANE_COLOR_LAYER_LIBRARY"

if os.name == "nt":
    _FILE_NAME = "kelvane_qor_color.dll"
else:
    _FILE_NAME = "libkelvane_qor_color.so.0"

_p = ctypes.c_void_p
_out = ctypes.POINTER(ctypes.c_void_p)
_i32 = ctypes.c_int32


class FrameSettings(ctypes.Structure):
    _fields_ = [(f"{channel}_{part}", ctypes.c_int32) for channel in ("blue", "green", "red")
                for part in ("minimum", "maximum", "shift")]


_PROTOTYPES = {
    "kv_color_layer_message": (ctypes.c_char_p, []),
    "kv_color_layer_status_name": (ctypes.c_char_p, [_i32]),
    "kv_color_space_name": (ctypes.c_char_p, [_i32]),
    "kv_color_space_named": (_i32, [ctypes.c_char_p, _out]),
    "kv_color_space_from_icc": (_i32, [_p, ctypes.c_size_t, ctypes.c_char_p, _out]),
    "kv_color_space_from_icc_file": (_i32, [ctypes.c_char_p, _out]),
    "kv_color_space_destroy": (None, [_p]),
    "kv_color_conversion_between": (_i32, [_p, _p, _i32, _out]),
    "kv_color_conversion_from_clf": (_i32, [_p, ctypes.c_size_t, ctypes.c_char_p, _i32, _out]),
    "kv_color_conversion_from_clf_file": (_i32, [ctypes.c_char_p, _i32, _out]),
    "kv_color_conversion_destroy": (None, [_p]),
    "kv_color_conversion_configure": (_i32, [_p, _p, _i32, _i32]),
    "kv_color_conversion_frame_settings": (_i32, [_p, ctypes.POINTER(FrameSettings)]),
    "kv_color_conversion_description": (ctypes.c_char_p, [_p]),
}


class ColorError(ValueError):
    """A description the colour layer refused (an unknown name, a damaged or unsupported profile,
    an unreadable file, a process list it cannot map); ``status`` holds the layer's status name,
    e.g. "KV_COLOR_LAYER_PROFILE_REFUSED", and the message is the layer's."""

    def __init__(self, status, message):
        self.status = status
        super().__init__(message)


_lock = threading.Lock()
_library = None


def layer():
    """The colour layer with its prototypes set, loaded on first use after the processing
    library, so that both use the one copy of it already in the process."""
    global _library
    _native.library()
    with _lock:
        if _library is None:
            _library, _ = _native.load("colour layer", _FILE_NAME, COLOR_LIBRARY_VARIABLE,
                                       "kelvane_qor_color", _PROTOTYPES)
        return _library


def _check(status):
    if status != 0:
        native = layer()
        name = native.kv_color_layer_status_name(status)
        name = name.decode("ascii", "replace") if name else f"status {status}"
        text = printable(native.kv_color_layer_message().decode("utf-8", "replace"))
        raise ColorError(name, text or name)


def color_space_names():
    """The names Processor.converting takes as a string: "srgb", "display-p3", ..."""
    native, names = layer(), []
    while (name := native.kv_color_space_name(len(names))) is not None:
        names.append(name.decode("ascii"))
    return names


def _text(value, what):
    """value as NUL-free bytes for the C ABI (a NUL would cut it short there)."""
    data = os.fsencode(value)
    if b"\0" in data:
        raise ColorError("KV_COLOR_LAYER_INVALID_ARGUMENT", f"{what} {shown(value)} holds a NUL")
    return data


def _space(description, role):
    """A new kv_color_space from a name (str), profile bytes, or a profile file (os.PathLike)."""
    native, space = layer(), ctypes.c_void_p()
    if isinstance(description, (bytes, bytearray, memoryview)):
        data = bytes(description)
        label = f"{role} profile".encode()
        _check(native.kv_color_space_from_icc(data, len(data), label, ctypes.byref(space)))
    elif isinstance(description, os.PathLike):
        path = _text(description, f"{role} profile path")
        _check(native.kv_color_space_from_icc_file(path, ctypes.byref(space)))
    elif isinstance(description, str):
        try:
            _check(native.kv_color_space_named(_text(description, f"{role} name"),
                                               ctypes.byref(space)))
        except ColorError as error:
            if os.sep in description or description.lower().endswith((".icc", ".icm")):
                error.args = (f"{error}; a str is a space name: give a profile file as "
                              "pathlib.Path",)
            raise
    else:
        raise TypeError(f"{role}: {shown(description)} is neither a space name (str), ICC "
                        "profile bytes nor a profile file (os.PathLike, e.g. pathlib.Path)")
    return space


def between(source, destination, bits):
    """A new kv_color_conversion from source to destination with output elements of bits."""
    native, spaces = layer(), []
    try:
        for description, role in ((source, "source"), (destination, "destination")):
            spaces.append(_space(description, role))
        conversion = ctypes.c_void_p()
        _check(native.kv_color_conversion_between(*spaces, bits, ctypes.byref(conversion)))
        return conversion
    finally:
        for space in spaces:
            native.kv_color_space_destroy(space)


def from_clf(process_list, bits):
    """A new kv_color_conversion from a CLF/CTF file (str or os.PathLike) or its bytes."""
    native, conversion = layer(), ctypes.c_void_p()
    if isinstance(process_list, (bytes, bytearray, memoryview)):
        data = bytes(process_list)
        _check(native.kv_color_conversion_from_clf(data, len(data), b"process list", bits,
                                                   ctypes.byref(conversion)))
    elif isinstance(process_list, (str, os.PathLike)):
        path = _text(process_list, "process list path")
        _check(native.kv_color_conversion_from_clf_file(path, bits, ctypes.byref(conversion)))
    else:
        raise TypeError(f"process list: {shown(process_list)} is neither a path nor bytes")
    return conversion


def apply(conversion, handle):
    """Configures the processor handle (16-bit LUT depths) and returns (description, clamp,
    shifts): clamp as three (min, max) pairs and shifts as three distances, blue, green, red."""
    native, settings = layer(), FrameSettings()
    try:
        _check(native.kv_color_conversion_configure(conversion, handle, 16, 16))
        _check(native.kv_color_conversion_frame_settings(conversion, ctypes.byref(settings)))
        description = native.kv_color_conversion_description(conversion).decode("utf-8",
                                                                                "replace")
    finally:
        native.kv_color_conversion_destroy(conversion)
    channels = ("blue", "green", "red")
    clamp = tuple((getattr(settings, f"{c}_minimum"), getattr(settings, f"{c}_maximum"))
                  for c in channels)
    shifts = tuple(getattr(settings, f"{c}_shift") for c in channels)
    return printable(description), clamp, shifts
