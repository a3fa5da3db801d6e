"""Pixels from kelvane_color against the numpy model of the pipeline, at every tier, and one
pixel worked by hand."""

import numpy as np
import pytest

import kelvane_color as kc
import pipeline_model as model
from conftest import SEED, random_frame

TIERS = list(kc.Tier)

# Matrices that reach the rules' corners: ties, the largest float below 0.5, the grouping of the
# sum, NaN and infinity, sums beyond 2**31 that fold to the minimum.
BELOW_HALF = np.frombuffer(np.uint32(0x3EFFFFFF).tobytes(), np.float32)[0]
SPECIAL_MATRICES = [
    [0.5, 0, 0, 0, 1.5, 0, 0, 0, 2.5],
    [BELOW_HALF, 0, 0, 0, BELOW_HALF, 0, 0, 0, -BELOW_HALF],
    [16777216.0, 1.0, -16777216.0] * 3,
    [np.nan, 1, 0, 0, 1, 0, 0, 0, np.inf],
    [40000.0, 0, 0, 0, -40000.0, 0, 0, 0, 32768.5],
]


def random_settings(rng, output_lut_bits):
    """Matrix, LUT tables and enables, clamp limits and shifts for one case."""
    if rng.random() < 0.3:
        matrix = np.float32(SPECIAL_MATRICES[rng.integers(len(SPECIAL_MATRICES))])
    else:
        matrix = rng.uniform(-2, 2, 9).astype(np.float32)
    on_in, on_out = rng.random(3) < 0.5, rng.random(3) < 0.5
    tables_in = rng.integers(0, 2**32, (3, 65536), dtype=np.uint32)
    tables_out = rng.integers(0, 2**32, (3, 1 << output_lut_bits), dtype=np.uint32)
    bounds = []
    for on in on_out:
        top = (1 << output_lut_bits) - 1 if on else 65535
        bounds.append(tuple(sorted(int(v) for v in rng.integers(0, top + 1, 2))))
    shifts = tuple(int(s) if rng.random() < 0.6 else 0 for s in rng.integers(-15, 16, 3))
    return matrix, on_in, on_out, tables_in, tables_out, bounds, shifts


@pytest.mark.parametrize("tier", TIERS, ids=[t.name for t in TIERS])
def test_frames_match_the_model(session, rng, tier):
    output_lut_bits = 12
    with kc.Processor(16, output_lut_bits, tier=tier) as p:
        for case in range(48):
            matrix, on_in, on_out, tables_in, tables_out, bounds, shifts = random_settings(
                rng, output_lut_bits)
            p.clear_matrix()
            p.append_matrix(matrix)
            for view, table in zip(p.input_luts + p.output_luts, [*tables_in, *tables_out]):
                view[:] = table
            p.enable_input_luts(*on_in)
            p.enable_output_luts(*on_out)
            layouts = [kc.Layout(v) for v in rng.integers(0, 3, 2)]
            bits, channels = int(rng.choice([8, 16])), int(rng.choice([3, 4]))
            pixels = int(rng.integers(0, 150))
            frame = random_frame(rng, pixels, layouts[0], high=int(rng.choice([4, 65536])))

            got = p.transform(frame, bits=bits, channels=channels, input_layout=layouts[0],
                              output_layout=layouts[1], clamp=tuple(zip(*bounds)), shifts=shifts)

            expected = model.run(
                frame.ravel(), pixels, layouts[0], layouts[1],
                model.append(np.eye(3, dtype=np.float32), matrix),
                [t if on else None for t, on in zip(tables_in, on_in)],
                [t if on else None for t, on in zip(tables_out, on_out)],
                bounds, shifts, bits, channels)
            where = (f"seed {SEED}, tier {tier.name}, case {case}: {layouts[0].name} -> "
                     f"{layouts[1].name}, {bits} bits x {channels}, {pixels} pixels, matrix "
                     f"{matrix.tolist()}, clamp {bounds}, shifts {shifts}")
            assert got.dtype == expected.dtype, where
            assert got.shape[0 if layouts[1] == kc.Layout.BGR_PLANES else -1] == channels, where
            np.testing.assert_array_equal(got.ravel(), expected, err_msg=where)


@pytest.mark.parametrize("tier", TIERS, ids=[t.name for t in TIERS])
def test_rule_corners_match_the_model(session, tier):
    # Every b g r combination of 0..3, which the corner matrices turn into ties, near-halves,
    # lost low bits and folds, then a few large values.
    small = np.stack(np.meshgrid(*[np.arange(4)] * 3, indexing="ij"), -1).reshape(-1, 3)
    frame = np.concatenate([small, [[65535, 65535, 65535], [65535, 1, 0], [1, 0, 65535]]])
    frame = frame.astype(np.uint16)
    with kc.Processor(tier=tier) as p:
        for matrix in SPECIAL_MATRICES:
            p.clear_matrix()
            p.append_matrix(matrix)
            got = p.transform(frame, clamp=(0, 60000))
            expected = model.run(frame.ravel(), len(frame), 1, 1,
                                 model.append(np.eye(3, dtype=np.float32), matrix),
                                 [None] * 3, [None] * 3, [(0, 60000)] * 3, (0, 0, 0), 16, 3)
            np.testing.assert_array_equal(got.ravel(), expected, err_msg=f"{tier.name} {matrix}")


@pytest.mark.parametrize("tier", TIERS, ids=[t.name for t in TIERS])
@pytest.mark.parametrize("bits,expected", [(16, [0x0007, 0x007F, 0x48D0, 0]),
                                           (8, [0x07, 0x7F, 0xD0, 0])])
def test_pixel_worked_by_hand(session, tier, bits, expected):
    # Inputs b g r 1000 2000 3000 through input LUTs -> 100 200 301 (the blue entry's high half
    # ignored); sums -502, 200.25, 411.5 round to -501, 200, 412; clamped to 0, 200, 412; output
    # LUTs give 7, 0xFF, 0x1234; shifts 0, -1, 2 give 7, 0x7F, 0x48D0; 8 bits keep the low byte.
    with kc.Processor(16, 12, tier=tier) as p:
        p.append_matrix([[1.5, -0.25, 0.1], [0.25, 0.5, 0.25], [-2.0, 0.0, 1.0]])
        for lut, index, entry in zip(p.input_luts, (1000, 2000, 3000), (0x10064, 0xC8, 0x12D)):
            lut[index] = entry
        for lut, index, entry in zip(p.output_luts, (0, 200, 412), (7, 0xFF, 0x1234)):
            lut[index] = entry
        p.enable_input_luts(True, True, True)
        p.enable_output_luts(True, True, True)
        frame = np.tile(np.array([1000, 2000, 3000], np.uint16), (37, 1))  # past a vector width
        out = np.full((37, 4), 0xAB, np.uint8 if bits == 8 else np.uint16)
        got = p.transform(frame, bits=bits, channels=4, clamp=(0, 4095), shifts=(0, -1, 2), out=out)
        assert got is out
        assert (got == expected).all(), got[:2]
