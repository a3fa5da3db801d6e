"""The pixel pipeline in numpy, written from the rules: input LUT, float32 products and sums in
the fixed order, rounding half up through double, clamp, output LUT, shift, narrowing; and where
each layout puts a pixel's elements in a flat buffer. Independent of the package under test."""

import numpy as np

INT32_MIN = -(2**31)


def append(stored, given):
    """stored x given for two 3 x 3 float32 matrices by rows, each element summed from 0.0 in the
    order k = 0, 1, 2 with every product and sum rounded to float32."""
    s, g = np.float32(stored).ravel(), np.float32(given).ravel()
    t = np.zeros(9, np.float32)
    with np.errstate(all="ignore"):
        for i in range(3):
            for j in range(3):
                for k in range(3):
                    t[3 * i + j] = s[3 * i + k] * g[3 * k + j] + t[3 * i + j]
    return t


def places(layout, n, per_pixel):
    """Element indices of (blue, green, red[, fourth]) for every pixel: layout 0 planes, 1 b g r,
    2 r g b; the fourth is the last of a pixel, or a fourth plane."""
    i = np.arange(n, dtype=np.int64)
    if layout == 0:
        return [c * n + i for c in range(per_pixel)]
    order = [0, 1, 2, 3] if layout == 1 else [2, 1, 0, 3]
    return [per_pixel * i + order[c] for c in range(per_pixel)]


def run(flat, n, in_layout, out_layout, matrix, in_luts, out_luts, bounds, shifts, bits, channels):
    """The output buffer for n pixels of the flat uint16 input. matrix: 9 float32 by rows, red
    green blue; in_luts, out_luts, bounds ((min, max)), shifts: per channel blue, green, red, a
    LUT None when off."""
    values = [flat[p].astype(np.int64) for p in places(in_layout, n, 3)]
    values = [v if lut is None else lut[v].astype(np.int64) & 0xFFFF
              for v, lut in zip(values, in_luts)]
    blue, green, red = (v.astype(np.float32) for v in values)
    m = np.float32(matrix)
    with np.errstate(all="ignore"):
        sums = [(m[3 * row] * red + m[3 * row + 1] * green) + m[3 * row + 2] * blue
                for row in (2, 1, 0)]
    out = np.zeros(channels * n, np.uint8 if bits == 8 else np.uint16)
    stored = []
    for total, lut, (low, high), shift in zip(sums, out_luts, bounds, shifts):
        with np.errstate(all="ignore"):
            t = np.trunc(total.astype(np.float64) + 0.5)
        bad = np.isnan(t) | (t < INT32_MIN) | (t > 2**31 - 1)
        v = np.where(bad, INT32_MIN, t).astype(np.int64)
        v = np.maximum(np.minimum(v, high), low)
        if lut is not None:
            v = lut[v].astype(np.int64)
        if shift > 0:
            v = (v << shift) & 0xFFFFFFFF
        elif shift < 0:
            v = (np.where(v >= 2**31, v - 2**32, v) >> -shift) & 0xFFFFFFFF
        stored.append(v & ((1 << bits) - 1))
    stored.append(np.zeros(n, np.int64))
    for p, v in zip(places(out_layout, n, channels), stored):
        out[p] = v
    return out
