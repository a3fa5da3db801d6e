#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets into a new folder (one subfolder per target).

usage: make_corpus.py KELVANE_COLOR OUTPUT_FOLDER

Images come from kelvane-color itself (a 4x3 chart as PNG, PPM and PAM, 8 and 16 bits, RGB and
RGBA); the tool reads TIFF and gray Netpbm but does not write them, so those few are written
here byte by byte. The text seeds (.cube files, curves, command lines, logging configurations)
are listed below. Run the tool with its modules on LD_LIBRARY_PATH. Existing files are never
replaced: remove the folder first to regenerate it.
"""
import os
import struct
import subprocess
import sys
import tempfile
import zlib

WIDTH, HEIGHT = 4, 3


def write_new(path, data):
    if isinstance(data, str):
        data = data.encode()
    with open(path, "xb") as f:  # exclusive: never through a planted file or link
        f.write(data)


def gradient(channels, bits):
    top = (1 << bits) - 1
    return [((x * 5 + y * 3 + c * 7) * top // 42) for y in range(HEIGHT) for x in range(WIDTH)
            for c in range(channels)]


def packbits(row):
    out = bytearray()
    for i in range(0, len(row), 128):
        chunk = row[i:i + 128]
        out.append(len(chunk) - 1)  # a literal run of len(chunk) bytes
        out += chunk
    return bytes(out)


def tiff(channels, bits, compression):
    """A little-endian baseline TIFF, one strip."""
    fmt = "<" + ("B" if bits == 8 else "H") * (WIDTH * channels)
    samples = gradient(channels, bits)
    rows = [struct.pack(fmt, *samples[y * WIDTH * channels:(y + 1) * WIDTH * channels])
            for y in range(HEIGHT)]
    if compression == 8:
        strip = zlib.compress(b"".join(rows))
    elif compression == 32773:
        strip = b"".join(packbits(r) for r in rows)
    else:
        strip = b"".join(rows)
    photometric = 2 if channels >= 3 else 1
    bits_offset = 8 + len(strip)  # the BitsPerSample array, when there is more than one sample
    ifd_offset = bits_offset + 2 * channels + (2 * channels) % 4
    entries = [(256, 4, 1, WIDTH), (257, 4, 1, HEIGHT),
               (258, 3, channels, bits if channels == 1 else bits_offset),
               (259, 3, 1, compression), (262, 3, 1, photometric), (273, 4, 1, 8),
               (277, 3, 1, channels), (278, 4, 1, HEIGHT), (279, 4, 1, len(strip)),
               (284, 3, 1, 1)]
    if channels in (2, 4):
        entries.append((338, 3, 1, 2))  # ExtraSamples: unassociated alpha
    out = bytearray(b"II*\0" + struct.pack("<I", ifd_offset) + strip)
    out += struct.pack("<" + "H" * channels, *([bits] * channels))
    out += b"\0" * (ifd_offset - len(out))
    out += struct.pack("<H", len(entries))
    for tag, kind, count, value in entries:
        packed = struct.pack("<H", value) + b"\0\0" if kind == 3 and count == 1 else \
            struct.pack("<I", value)
        out += struct.pack("<HHI", tag, kind, count) + packed
    out += struct.pack("<I", 0)
    return bytes(out)


CUBES = {
    "identity.cube": "# identity\nTITLE \"identity\"\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n",
    "gamma.cube": "# a gamma of 2\nLUT_1D_SIZE 5\nDOMAIN_MIN 0 0 0\nDOMAIN_MAX 1 1 1\n"
                  "0 0 0\n0.0625 0.0625 0.0625\n0.25 0.25 0.25\n0.5625 0.5625 0.5625\n1 1 1\n",
    "range.cube": "TITLE \"input range\"\r\nLUT_1D_INPUT_RANGE -0.5 1.5\r\nLUT_1D_SIZE 3\r\n"
                  "1 0 0.5\r\n0.5 0.5 0.5   # middle\r\n0 1 0.5\r\n",
    "curve_srgb.txt": "srgb\n",
    "curve_gamma.txt": "gamma:2.2\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n",
    "curve_inverse_gamma.txt": "inverse-gamma:1.8",
    "curve_scale.txt": "scale:0.5",
    "curve_inverse_srgb.txt": "inverse-srgb",
}

COMMAND_LINES = {
    "process.args": ["in.png", "-o", "out.png", "--bits", "16", "--channels", "4"],
    "pipeline.args": ["--matrix", "0.9,0.1,0,0,1,0,0,0.05,0.95", "--input-lut", "inverse-srgb",
                      "--output-lut", "g=gamma:2.2", "--output-lut-bits", "12",
                      "--output-lut-max", "4095", "--clamp", "r=16:4000", "--shift", "bg=-4",
                      "--input-layout", "planes", "--output-layout", "bgr", "--tier", "avx2",
                      "a.ppm", "b.pam", "--output-dir", "out", "--output-type", "pam"],
    "chart.args": ["--chart-size", "64x32", "-o", "chart.raw", "-q", "--tier", "sse"],
    "bench.args": ["bench", "--json", "-", "--min-time", "0.01", "--matrix",
                   "1 0 0 0 1 0 0 0 1", "--output-lut", "blue=scale:2"],
    "info.args": ["--info"],
    "help.args": ["--help"],
}

CONFIGS = {
    "default.cfg": "# the defaults\nlevel = 3\ndestination = stderr\n",
    "debug_file.cfg": "\xef\xbb\xbflevel = debug\r\ndestination = logs/kelvane.log\r\n",
    "names.cfg": "level=warn\n\n   # indented comment\ndestination=stdout\n",
    "absolute.cfg": "destination = /var/log/kelvane.log\nlevel = 7\n",
}


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    tool, out = os.path.abspath(sys.argv[1]), sys.argv[2]
    folders = {name: os.path.join(out, name)
               for name in ("image_read", "cube_curve", "options", "log_settings")}
    for folder in folders.values():
        os.makedirs(folder)
    images = folders["image_read"]
    with tempfile.TemporaryDirectory() as scratch:
        for name, options in [("chart8.png", []), ("chart16.png", ["--bits", "16"]),
                              ("chart16_rgba.png", ["--bits", "16", "--channels", "4"]),
                              ("chart8.ppm", []), ("chart16.ppm", ["--bits", "16"]),
                              ("chart8_rgba.pam", ["--channels", "4"]),
                              ("chart16.pam", ["--bits", "16"])]:
            made = os.path.join(scratch, name)
            subprocess.run([tool, "--chart-size", f"{WIDTH}x{HEIGHT}", "-q", "-o", made] + options,
                           check=True)
            with open(made, "rb") as f:
                write_new(os.path.join(images, name), f.read())
    gray = gradient(1, 8)
    write_new(os.path.join(images, "gray8.pgm"),
              f"P5\n# gray\n{WIDTH} {HEIGHT}\n255\n".encode() + bytes(gray))
    write_new(os.path.join(images, "gray_alpha12.pam"),
              f"P7\nWIDTH {WIDTH}\nHEIGHT {HEIGHT}\nDEPTH 2\nMAXVAL 4095\n"
              "TUPLTYPE GRAYSCALE_ALPHA\nENDHDR\n".encode() +
              struct.pack(">" + "H" * (WIDTH * HEIGHT * 2), *gradient(2, 12)))
    write_new(os.path.join(images, "rgb8.tif"), tiff(3, 8, 1))
    write_new(os.path.join(images, "rgb16_deflate.tif"), tiff(3, 16, 8))
    write_new(os.path.join(images, "rgba8_packbits.tif"), tiff(4, 8, 32773))
    write_new(os.path.join(images, "gray16.tif"), tiff(1, 16, 1))
    for name, text in CUBES.items():
        write_new(os.path.join(folders["cube_curve"], name), text)
    for name, arguments in COMMAND_LINES.items():
        write_new(os.path.join(folders["options"], name), "\0".join(arguments))
    for name, text in CONFIGS.items():
        write_new(os.path.join(folders["log_settings"], name), text)


if __name__ == "__main__":
    main()
