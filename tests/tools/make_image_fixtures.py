#!/usr/bin/env python3
"""Writes the image fixtures of kelvane-color's image tests into tests/tools/images/, byte by byte:
PNG with zlib and struct, TIFF as a bare header, directory and strip, BMP as headers and rows.
Beside each readable image it writes <name>.expected.pam, the 16-bit samples kelvane-color must
get from it (8-bit samples times 257, gray spread to RGB), so the tests compare against values no
image library computed.
Usage: make_image_fixtures.py [OUTPUT_DIR]"""
import os
import struct
import sys
import zlib

WIDTH, HEIGHT = 3, 2
# High and low bytes differ in most samples, so a swapped byte order changes every one of them.
WIDE = [0x0102, 0xFF00, 0x00FF, 0x1234, 0xABCD, 0x8001, 0x0000, 0xFFFF, 0x7F80, 0xC3A5, 0x5A3C,
        0x0F0F, 0xF00D, 0x2468, 0x9BDF, 0x1357, 0xE001, 0x4000, 0x3FFF, 0xBEEF, 0xCAFE, 0x0801,
        0x6E6E, 0x9001]
NARROW = [0x01, 0xFF, 0x80, 0x12, 0xAB, 0x00, 0x7F, 0xC3, 0x5A, 0x0F, 0xF0, 0x24, 0x9B, 0x13,
          0xE0, 0x40, 0x3F, 0xBE, 0xCA, 0x08, 0x6E, 0x90, 0x33, 0xCC]


def samples(depth, bits):
    values = WIDE if bits == 16 else NARROW
    return values[:WIDTH * HEIGHT * depth]


def packed(values, bits, big_endian):
    if bits == 8:
        return bytes(values)
    return struct.pack(('>' if big_endian else '<') + 'H' * len(values), *values)


def chunk(kind, body):
    return (struct.pack('>I', len(body)) + kind + body +
            struct.pack('>I', zlib.crc32(kind + body) & 0xFFFFFFFF))


def png(depth, bits, values):
    color_type = {1: 0, 2: 4, 3: 2, 4: 6}[depth]
    row = WIDTH * depth * bits // 8
    data = packed(values, bits, True)
    raw = b''.join(b'\0' + data[y * row:(y + 1) * row] for y in range(HEIGHT))

    header = struct.pack('>IIBBBBB', WIDTH, HEIGHT, bits, color_type, 0, 0, 0)
    return (b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', header) + chunk(b'IDAT', zlib.compress(raw)) +
            chunk(b'IEND', b''))


def tiff(depth, bits, values, big_endian=False, width=WIDTH, height=HEIGHT, count=None):
    order = '>' if big_endian else '<'
    strip = packed(values, bits, big_endian)
    entries = [(256, 4, [width]), (257, 4, [height]), (258, 3, [bits] * depth), (259, 3, [1]),
               (262, 3, [2 if depth >= 3 else 1]), (273, 4, [0]), (277, 3, [depth]),
               (278, 4, [height]), (279, 4, [len(strip) if count is None else count]),
               (284, 3, [1])]
    if depth in (2, 4):
        entries.append((338, 3, [2]))  # unassociated alpha
    entries.sort()
    directory_at = 8
    extra_at = directory_at + 2 + 12 * len(entries) + 4
    extra = b''
    body = b''
    for tag, kind, items in entries:
        size = {3: 2, 4: 4}[kind]
        code = order + ('H' if kind == 3 else 'I') * len(items)
        if len(items) * size <= 4:
            value = struct.pack(code, *items).ljust(4, b'\0')
        else:
            value = struct.pack(order + 'I', extra_at + len(extra))
            extra += struct.pack(code, *items)
        body += struct.pack(order + 'HHI', tag, kind, len(items)) + value
    strip_at = extra_at + len(extra)
    body = body.replace(struct.pack(order + 'HHI', 273, 4, 1) + b'\0' * 4,
                        struct.pack(order + 'HHII', 273, 4, 1, strip_at))
    head = (b'MM' if big_endian else b'II') + struct.pack(order + 'HI', 42, directory_at)
    return head + struct.pack(order + 'H', len(entries)) + body + b'\0' * 4 + extra + strip


def bmp(depth, bits, values, width=WIDTH, height=HEIGHT):
    assert (depth, bits) == (3, 8)
    row = WIDTH * 3
    padded = (row + 3) // 4 * 4
    rows = b''
    for y in reversed(range(HEIGHT)):  # bottom row first
        px = values[y * row:(y + 1) * row]
        rows += bytes(c for i in range(0, row, 3) for c in (px[i + 2], px[i + 1], px[i]))
        rows += b'\0' * (padded - row)
    header = struct.pack('<IiiHHIIiiII', 40, width, height, 1, 24, 0, len(rows), 2835, 2835, 0, 0)
    return b'BM' + struct.pack('<IHHI', 14 + len(header) + len(rows), 0, 0, 54) + header + rows


def expected_pam(depth, bits, values):
    wide = [v * 257 if bits == 8 else v for v in values]
    pixels = []
    for i in range(0, len(wide), depth):
        px = wide[i:i + depth]
        pixels += px * 3 if depth == 1 else [px[0]] * 3 + [px[1]] if depth == 2 else px
    channels = 4 if depth in (2, 4) else 3
    header = 'P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL 65535\nTUPLTYPE %s\nENDHDR\n' % (
        WIDTH, HEIGHT, channels, 'RGB_ALPHA' if channels == 4 else 'RGB')
    return header.encode() + packed(pixels, 16, True)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), 'images')
    os.makedirs(out, exist_ok=True)
    readable = {
        'rgb16.png': (png, 3, 16), 'rgba16.png': (png, 4, 16), 'gray8.png': (png, 1, 8),
        'rgba8.png': (png, 4, 8), 'graya16.png': (png, 2, 16), 'rgb16.tif': (tiff, 3, 16),
        'rgb16-mm.tif': (lambda d, b, v: tiff(d, b, v, big_endian=True), 3, 16),
        'rgba8.tif': (tiff, 4, 8), 'gray16.tif': (tiff, 1, 16), 'rgb8.bmp': (bmp, 3, 8),
        # A lone uncompressed strip whose byte count runs far past the end of the file: libtiff
        # recounts it from the image's size, and so must the checks made before decoding.
        'rgb16-count.tif': (lambda d, b, v: tiff(d, b, v, count=0xFFFFFF00), 3, 16),
    }
    files = {}
    for name, (writer, depth, bits) in readable.items():
        values = samples(depth, bits)
        files[name] = writer(depth, bits, values)
        files[name + '.expected.pam'] = expected_pam(depth, bits, values)
    # Refused: a changed byte of image data (its checksum no longer matches), a file cut short, and
    # headers that claim far more pixels than the file holds.
    good = files['rgb16.png']
    idat = good.index(b'IDAT') + 6
    files['damaged.png'] = good[:idat] + bytes([good[idat] ^ 0x55]) + good[idat + 1:]
    files['cut.png'] = good[:len(good) - 20]
    files['huge.png'] = (good[:8] + chunk(b'IHDR', struct.pack('>IIBBBBB', 40000, 40000, 16, 2,
                                                               0, 0, 0)) + good[33:])
    files['huge.tif'] = tiff(3, 16, samples(3, 16), width=60000, height=30000)
    files['huge.bmp'] = bmp(3, 8, samples(3, 8), width=60000, height=30000)
    for name, data in files.items():
        with open(os.path.join(out, name), 'wb') as f:
            f.write(data)


if __name__ == '__main__':
    main()
