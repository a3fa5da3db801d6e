"""How long the library and a processor live. The library stays initialised while a session is open
or any processor still exists, since its terminate frees every LUT table; a processor of the
library lives while its Processor or any view of its tables does."""

import threading
import weakref

import numpy as np

from ._native import StatusError, library

# Uses of the initialised library: one for every open session level and every processor not yet
# destroyed. Reentrant, because a processor's finalizer may run on any thread at any point.
_lock = threading.RLock()
_uses = 0
_depth = 0
_open = weakref.WeakSet()  # the open Processors, held weakly so that a dropped one is freed


def _hold():
    global _uses
    with _lock:
        if _uses == 0:
            native = library()
            status = native.kv_color_processing_module_initialize()
            if status != 0:
                native.kv_color_processing_module_terminate()
                raise StatusError("kv_color_processing_module_initialize (the LUT module "
                                  "kelvane_qor_LUT is missing or incomplete)", status)
        _uses += 1


def _let_go():
    global _uses
    with _lock:
        _uses -= 1
        if _uses == 0:
            # Only once the last processor is gone: terminate frees the tables of any left.
            library().kv_color_processing_module_terminate()


class Session:
    """Keeps the library initialised while open; sessions nest. Leaving the outermost one closes
    every processor still open (after the transforms running on it); the library terminates once
    the last processor and the last view of its tables are gone too."""

    def __enter__(self):
        global _depth
        with _lock:
            _hold()
            _depth += 1
        return self

    def __exit__(self, *exc):
        global _depth
        with _lock:
            if _depth == 0:
                raise RuntimeError("kelvane_color.Session left more often than entered")
            _depth -= 1
            ending = list(_open) if _depth == 0 else []
        try:
            for processor in ending:
                processor.close()
        finally:
            _let_go()
        return False


def forget(owner):
    """owner, closed, leaves the session's set of open processors."""
    with _lock:  # a session's end may be listing them on another thread
        _open.discard(owner)


def _destroy(value):
    try:
        status = library().kv_color_destroy_color_processor(value)
    finally:
        _let_go()
    if status != 0:
        raise StatusError("kv_color_destroy_color_processor", status)


class ProcessorHandle:
    """The library's processor, destroyed when nothing refers to this object any more: neither its
    Processor nor a view of its tables."""

    def __init__(self, owner, create):
        """create(library) makes the processor (or returns NULL); owner joins the open session."""
        with _lock:
            if _depth == 0:
                raise RuntimeError("no kelvane_color.Session is open: create processors inside "
                                   "'with kelvane_color.Session():'")
            _hold()
            try:
                value = create(library())
            except BaseException:
                _let_go()
                raise
            if not value:
                _let_go()
                raise MemoryError("kv_color_create_color_processor failed (see the library's log)")
            self.value = value
            # Not at exit: views may still be used by other exit handlers, and the process ends.
            weakref.finalize(self, _destroy, value).atexit = False
            _open.add(owner)

    def tables(self, stage, bits):
        """(blue, green, red) uint32 views of the processor's tables for stage, input or output."""
        views = []
        for channel in ("blue", "green", "red"):
            address = getattr(library(), f"kv_color_get_{channel}_{stage}_LUT")(self.value)
            if not address:
                raise RuntimeError(f"the library gave no {channel} {stage} LUT")
            views.append(np.asarray(_TableMemory(self, address, 1 << bits)))
        return tuple(views)


class _TableMemory:
    """One table as numpy sees it. It is the base of every view of the table, so the views keep
    the processor alive."""

    def __init__(self, handle, address, entries):
        self.handle = handle
        self.__array_interface__ = {"version": 3, "shape": (entries,), "data": (address, False),
                                    "typestr": np.dtype(np.uint32).str}
