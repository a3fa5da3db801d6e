"""What kelvane_color refuses and how: the library's refusals as StatusError with the status's
name, the package's own checks as ValueError, sessions, and where the library is found."""

import os
import subprocess
import sys

import numpy as np
import pytest

import kelvane_color as kc
from conftest import run_python

FRAME = np.arange(12, dtype=np.uint16).reshape(2, 2, 3)


@pytest.mark.parametrize("settings,status", [
    ({"shifts": (16, 0, 0)}, "KV_STATUS_INVALID_SHIFT"),
    ({"shifts": (0, -16, 0)}, "KV_STATUS_INVALID_SHIFT"),
    ({"shifts": (0, 0, 2**31 - 1)}, "KV_STATUS_INVALID_SHIFT"),
    ({"clamp": (5, 4)}, "KV_STATUS_INVALID_CLAMP"),
    ({"clamp": ((0, 1), (9, 8), (0, 1)), "bits": 8}, "KV_STATUS_INVALID_CLAMP"),
    ({"clamp": (0, 256), "enable": True}, "KV_STATUS_INVALID_CLAMP"),  # above the 8-bit LUT
    ({"clamp": (0, 255), "enable": True}, None),
    ({"clamp": (0, 256)}, None),  # a disabled LUT bounds nothing
    ({"shifts": (-15, 15, 0)}, None),
])
def test_library_refusals_name_the_status(session, settings, status):
    settings = dict(settings)
    with kc.Processor(16, 8) as p:
        p.enable_output_luts(*[settings.pop("enable", False)] * 3)
        out = np.full((2, 2, 3), 77, np.uint8 if settings.get("bits") == 8 else np.uint16)
        if status is None:
            p.transform(FRAME, out=out, **settings)
            return
        with pytest.raises(kc.StatusError, match=rf"{status} \({int(kc.Status[status])}\)") as e:
            p.transform(FRAME, out=out, **settings)
        assert e.value.status == kc.Status[status]
        assert (out == 77).all(), "a refused transform wrote its output"


@pytest.mark.parametrize("arguments,message", [
    ({"frame": FRAME.astype(np.uint8)}, "dtype uint8 is not uint16"),
    ({"frame": FRAME.astype(">u2")}, "is not uint16"),
    ({"frame": np.zeros((2, 4), np.uint16)}, "needs 3 as the last dimension"),
    ({"frame": np.zeros((2, 3), np.uint16), "input_layout": kc.Layout.BGR_PLANES}, "first"),
    ({"bits": 12}, "bits: 12"),
    ({"bits": 8.0}, "bits: 8.0 is neither 8 nor 16"),
    ({"bits": "\x1b[2J\x9b\udcff"}, r"bits: '\\x1b\[2J\\x9b\\udcff' is neither"),
    ({"channels": 5}, "channels: 5"),
    ({"channels": 4.0}, "channels: 4.0 is neither 3 nor 4"),
    ({"channels": True}, "channels: True"),
    ({"input_layout": 3}, "input_layout: 3 is not a valid Layout"),
    ({"output_layout": 1.0}, "output_layout: 1.0 is not a valid Layout"),
    ({"frame": [[1, 2, 3]]}, "dtype int64 is not uint16"),
    ({"clamp": (0, 65536)}, "65536 is not an integer from 0 to 65535"),
    ({"clamp": (0, 1, 2)}, "expected \\(min, max\\)"),
    ({"shifts": 2**31}, "is not an integer from"),
    ({"out": np.zeros((2, 2, 3), np.uint8)}, "expected uint16 of shape \\(2, 2, 3\\)"),
    ({"out": np.zeros((2, 4, 3), np.uint16)[:, ::2]}, "C-contiguous"),
    ({"out": [0] * 12}, "a numpy array"),
])
def test_bad_arguments_raise_value_error(session, arguments, message):
    arguments = dict(arguments)
    frame = arguments.pop("frame", FRAME)
    with kc.Processor() as p:
        with pytest.raises(ValueError, match=message) as e:
            p.transform(frame, **arguments)
    assert str(e.value).isprintable(), "a control character reached the message"


@pytest.mark.parametrize("call,message", [
    (lambda p: p.append_matrix(np.eye(2)), "3 x 3 or 9 values"),
    (lambda p: p.append_matrix("abc"), "matrix: 'abc' is not numbers"),
    (lambda p: p.append_matrix({}), "matrix: {} is not numbers"),
    (lambda p: kc.Processor(17, 8), "input_lut_bits: 17"),
    (lambda p: kc.Processor(8, 16.0), "output_lut_bits: 16.0"),
    (lambda p: kc.Processor(tier="AVX2"), "tier: 'AVX2' is not a valid Tier"),
    (lambda p: kc.Processor(tier=4), "tier: 4 is not a valid Tier"),
])
def test_bad_settings_raise_value_error(session, call, message):
    with kc.Processor() as p:
        with pytest.raises(ValueError, match=message):
            call(p)


def test_out_must_not_overlap_or_be_read_only(session):
    with kc.Processor() as p:
        frame = np.zeros((4, 3), np.uint16)
        with pytest.raises(ValueError, match="overlaps the frame"):
            p.transform(frame, out=frame)
        read_only = np.zeros((4, 3), np.uint16)
        read_only.flags.writeable = False
        with pytest.raises(ValueError, match="writable"):
            p.transform(frame, out=read_only)


def test_sessions_nest_and_close_their_processors(session):
    p = kc.Processor(12, 12)
    with kc.Session():
        with kc.Session():
            pass
    # The inner ends must not have terminated the library: LUTs still work.
    p.input_luts[2][5] = 4000
    p.enable_input_luts(red=True)
    assert p.transform(np.array([[1, 2, 5]], np.uint16)).tolist() == [[1, 2, 4000]]
    p.close()
    p.close()  # closing twice is harmless
    with pytest.raises(ValueError, match="closed"):
        p.transform(FRAME)
    assert p.input_luts is None


def test_outside_a_session_and_without_the_LUT_module(tmp_path):
    result = run_python("""
        import kelvane_color as kc
        try:
            kc.Processor()
        except RuntimeError as e:
            print("refused:", e)
        try:
            kc.Session().__enter__()
        except kc.StatusError as e:
            print(e.status.name)
        """, LD_LIBRARY_PATH=str(tmp_path))
    assert "refused: no kelvane_color.Session is open" in result.stdout, result.stderr
    assert "KV_STATUS_MODULE_NOT_INITIALIZED" in result.stdout, result.stderr


def test_library_is_found_beside_the_package_first(tmp_path):
    # A copy of the package with a link to the library beside it wins over the variable.
    import shutil
    package = tmp_path / "kelvane_color"
    shutil.copytree(os.path.dirname(kc.__file__), package,
                    ignore=shutil.ignore_patterns("__pycache__", "_installed.py"))
    (package / kc._native.FILE_NAME).symlink_to(os.path.realpath(kc.library_path()))
    found = run_python("import kelvane_color as kc; print(kc.library_path())",
                       PYTHONPATH=str(tmp_path), KELVANE_COLOR_LIBRARY="/nonexistent/x.so")
    assert found.stdout.strip() == str(package / kc._native.FILE_NAME), found.stderr
    missing = run_python("import kelvane_color as kc; kc.library_path()",
                         KELVANE_COLOR_LIBRARY="/nonexistent/x.so")
    assert "KELVANE_COLOR_LIBRARY names '/nonexistent/x.so', which is not a file" in missing.stderr


@pytest.mark.parametrize("kind,message", [
    ("missing", b"which is not a file"),
    ("text file", b"does not load"),
    ("another library", b"is not the color processing library: it lacks kv_color_"),
])
def test_a_wrong_library_is_named_escaped(tmp_path, kind, message):
    # A name with C0, DEL, C1 and a byte that is not UTF-8: the message shows them escaped.
    path = os.path.join(os.fsencode(tmp_path), b"lib\x1b[31m\x7f\xc2\x9b\xff\n.so")
    if kind == "text file":
        with open(path, "wb") as f:
            f.write(b"not a library\n")
    elif kind == "another library":
        import _ctypes  # a shared object that loads, with none of the library's functions
        os.symlink(_ctypes.__file__, path)
    code = ("import kelvane_color as kc\n"
            "try:\n    kc.Session().__enter__()\n"
            "except kc.LibraryNotFound as e:\n    print('LibraryNotFound:', e)\n")
    env = {**os.environb, kc.LIBRARY_VARIABLE.encode(): path}
    result = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True,
                            timeout=120)
    assert result.stdout.startswith(b"LibraryNotFound: "), result.stderr
    assert message in result.stdout
    assert rb"lib\x1b[31m\x7f\x9b\xff\x0a.so" in result.stdout
    for raw in (b"\x1b", b"\x7f", b"\xc2\x9b", b"\xff"):
        assert raw not in result.stdout


def test_a_processor_is_not_pickled(session):
    import copy
    import pickle
    with kc.Processor() as p:
        for send in (pickle.dumps, copy.deepcopy):
            with pytest.raises(TypeError, match="create the Session and Processor once in each "
                                                "worker process"):
                send(p)


def test_a_missing_numpy_names_the_interpreter_and_the_way_out():
    result = run_python("import sys\nsys.modules['numpy'] = None\nimport kelvane_color")
    assert "ModuleNotFoundError: kelvane_color needs numpy" in result.stderr
    assert sys.executable in result.stderr and "-m venv" in result.stderr, result.stderr
