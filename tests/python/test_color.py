"""Processors set up by the colour layer: conversions against a double-precision evaluation in
numpy, real profiles as bytes and files, refusals, and the Processor rules they keep."""

import pathlib
import pickle

import numpy as np
import pytest

import kelvane_color as kc
from conftest import SEED

ICC = pathlib.Path("/usr/share/color/icc")  # Debian's colord-data and icc-profiles-free
D65 = (0.3127, 0.3290)
PRIMARIES = {  # red, green, blue (x, y)
    "srgb": ((0.64, 0.33), (0.30, 0.60), (0.15, 0.06)),
    "display-p3": ((0.680, 0.320), (0.265, 0.690), (0.150, 0.060)),
}


def rgb_to_xyz(primaries, white=D65):
    """The RGB to XYZ matrix of primaries and white (Y = 1), in double."""
    def xyz(x, y):
        return np.array([x / y, 1.0, (1.0 - x - y) / y])

    columns = np.stack([xyz(*p) for p in primaries], axis=1)
    return columns * np.linalg.solve(columns, xyz(*white))


def srgb_decode(v):
    return np.where(v < 0.04045, v / 12.92, ((v + 0.055) / 1.055) ** 2.4)


def srgb_encode(linear):
    return np.where(linear < 0.0031308, linear * 12.92, 1.055 * linear ** (1 / 2.4) - 0.055)


def reference(frame_rgb, source, destination, bits):
    """The conversion of 16-bit RGB codes in double, clipped and rounded to the output depth."""
    matrix = np.linalg.inv(rgb_to_xyz(PRIMARIES[destination])) @ rgb_to_xyz(PRIMARIES[source])
    linear = srgb_decode(frame_rgb / 65535.0) @ matrix.T
    top = (1 << bits) - 1
    return np.rint(srgb_encode(np.clip(linear, 0.0, 1.0)) * top).astype(np.int64)


# (bits, least share exact or within one, how far, largest error allowed, percentile checked)
ACCURACY = [
    pytest.param(8, 0.995, 0, 2, 100.0, id="8 bits"),
    pytest.param(16, 0.88, 1, 16, 99.9, id="16 bits"),
]


@pytest.mark.parametrize("bits,share,within,limit,percentile", ACCURACY)
def test_srgb_to_display_p3_matches_double_precision(session, rng, bits, share, within, limit,
                                                    percentile):
    frame = rng.integers(0, 65536, size=(1 << 18, 3), dtype=np.uint16)
    with kc.Processor.converting("srgb", "display-p3", bits=bits) as p:
        # no bits, clamp nor shifts: the conversion's own apply
        result = p.transform(frame, input_layout=kc.Layout.RGB)
    assert result.dtype == (np.uint8 if bits == 8 else np.uint16)
    error = np.abs(result.astype(np.int64) - reference(frame, "srgb", "display-p3", bits))
    note = f"seed {SEED}, {bits} bits"
    assert np.mean(error <= within) >= share, note
    assert np.percentile(error, percentile) <= limit, note


def profile(data_space):
    """The first of Debian's profiles whose data colour space (header bytes 16 to 19) is
    data_space; the test is skipped when none is installed."""
    for path in sorted(ICC.rglob("*.ic[cm]")) + sorted(ICC.rglob("*.ICM")):
        with open(path, "rb") as f:
            if f.read(20)[16:20] == data_space:
                return path
    pytest.skip(f"no {data_space.decode().strip()} profile under {ICC}")


def test_profile_bytes_and_file_give_the_named_conversion(session, rng):
    path = ICC / "colord" / "sRGB.icc"
    if not path.is_file():
        pytest.skip(f"{path} is missing (colord-data)")
    frame = rng.integers(0, 65536, size=(4096, 3), dtype=np.uint16)
    results = []
    for source in (path.read_bytes(), path, "srgb"):
        with kc.Processor.converting(source, "display-p3", bits=8) as p:
            results.append(p.transform(frame).astype(np.int64))
    from_bytes, from_file, named = results
    assert np.array_equal(from_bytes, from_file)
    assert np.abs(from_bytes - named).max() <= 1, f"seed {SEED}"


def test_pillow_icc_profile_bytes_convert_the_image(session, tmp_path, rng):
    image_module = pytest.importorskip("PIL.Image", reason="Pillow is not installed (python3-pil)")
    path = ICC / "colord" / "AdobeRGB1998.icc"
    if not path.is_file():
        pytest.skip(f"{path} is missing (colord-data)")
    pixels = rng.integers(0, 256, size=(32, 48, 3), dtype=np.uint8)
    image_module.fromarray(pixels).save(tmp_path / "tagged.png", icc_profile=path.read_bytes())
    with image_module.open(tmp_path / "tagged.png") as image:
        icc = image.info["icc_profile"]
        frame = np.asarray(image.convert("RGB"), dtype=np.uint16) * 257
    results = []
    for source in (icc, path):
        with kc.Processor.converting(source, "srgb", bits=8) as p:
            results.append(p.transform(frame, input_layout=kc.Layout.RGB))
    assert np.array_equal(results[0], results[1]), f"seed {SEED}"
    assert results[0].shape == (32, 48, 3) and not np.array_equal(results[0], pixels)


def garbage_profile():
    return b"\x1b[31m" + bytes(range(256)) * 2


# (source, layer status or exception type, words the message must hold)
REFUSALS = [
    pytest.param(lambda: "srgbx", "KV_COLOR_LAYER_INVALID_ARGUMENT", "'srgbx'", id="unknown name"),
    pytest.param(lambda: str(ICC / "sRGB.icc"), "KV_COLOR_LAYER_INVALID_ARGUMENT", "pathlib.Path",
                 id="path as str"),
    pytest.param(garbage_profile, "KV_COLOR_LAYER_PROFILE_REFUSED", "source profile",
                 id="garbage bytes"),
    pytest.param(lambda: profile(b"GRAY"), "KV_COLOR_LAYER_PROFILE_REFUSED", "gray", id="gray"),
    pytest.param(lambda: profile(b"CMYK"), "KV_COLOR_LAYER_PROFILE_REFUSED", "CMYK", id="cmyk"),
    pytest.param(lambda: pathlib.Path("/nonexistent/x.icc"), "KV_COLOR_LAYER_UNREADABLE_FILE",
                 "x.icc", id="missing file"),
    pytest.param(lambda: "srgb\0x", "KV_COLOR_LAYER_INVALID_ARGUMENT", "NUL", id="NUL in name"),
    pytest.param(lambda: 7, TypeError, "space name", id="not a description"),
]


@pytest.mark.parametrize("make_source,expected,words", REFUSALS)
def test_refusals_name_the_problem(session, make_source, expected, words):
    source = make_source()
    kind = expected if isinstance(expected, type) else kc.ColorError
    with pytest.raises(kind) as caught:
        kc.Processor.converting(source, "srgb", bits=16)
    message = str(caught.value)
    assert words in message
    assert not any(ord(c) < 32 or ord(c) == 127 for c in message), message
    if kind is kc.ColorError:
        assert isinstance(caught.value, ValueError) and caught.value.status == expected


def test_process_list_and_processor_rules(session, tmp_path):
    clf = tmp_path / "half.clf"
    clf.write_text('<?xml version="1.0"?>\n<ProcessList id="1" compCLFversion="3">'
                   '<Matrix inBitDepth="16i" outBitDepth="16i"><Array dim="3 3">'
                   "0.5 0 0 0 0.5 0 0 0 0.5</Array></Matrix></ProcessList>\n")
    frame = np.array([[0, 1000, 65535]], dtype=np.uint16)
    with kc.Processor.from_clf(clf, bits=16) as p:
        assert np.array_equal(p.transform(frame), [[0, 500, 32768]])
        with pytest.raises(ValueError, match="16-bit output"):
            p.transform(frame, bits=8)
        with pytest.raises(TypeError, match="cannot be pickled"):
            pickle.dumps(p)
    with pytest.raises(kc.ColorError, match="LUT3D|ProcessList|line"):
        kc.Processor.from_clf(b"<ProcessList><LUT3D/></ProcessList>", bits=8)
