#!/usr/bin/env python3
"""Draws sarnlink's icon, two linked nodes on a rounded square, into packaging/sarnlink.ico.

Every size is drawn from the same shapes (no scaling of a bitmap), so the small ones stay sharp:
16 to 64 pixels as 32-bit bitmaps, which every Windows reads, and 256 as PNG, which Explorer
uses for its large views. Run it again after changing the drawing; the output is the same on
every machine, so the committed file only changes with the drawing.
"""
import math
import pathlib
import struct
import zlib

SIZES = [16, 24, 32, 48, 64, 256]
SUPERSAMPLE = 4

BACKGROUND_TOP = (31, 111, 139)
BACKGROUND_BOTTOM = (17, 52, 84)
INK = (245, 239, 224)
SPARK = (244, 177, 66)


def rounded_square(x, y, half, radius):
    """Signed distance to a square of half-width `half` around 0, corners rounded."""
    qx, qy = abs(x) - half + radius, abs(y) - half + radius
    outside = math.hypot(max(qx, 0.0), max(qy, 0.0))
    return outside + min(max(qx, qy), 0.0) - radius


def segment(x, y, ax, ay, bx, by):
    dx, dy = bx - ax, by - ay
    t = max(0.0, min(1.0, ((x - ax) * dx + (y - ay) * dy) / (dx * dx + dy * dy)))
    return math.hypot(x - ax - t * dx, y - ay - t * dy)


def shade(x, y):
    """The colour at a point of the unit square [-1, 1]^2, or None outside the icon."""
    if rounded_square(x, y, 0.94, 0.30) > 0:
        return None
    t = (y + 1) / 2
    background = tuple(round(a + (b - a) * t) for a, b in zip(BACKGROUND_TOP, BACKGROUND_BOTTOM))
    colour = background
    left, right = (-0.42, 0.38), (0.42, -0.38)
    # The link: a thick bar between the nodes, and the nodes as rings around a solid core.
    if segment(x, y, *left, *right) < 0.11:
        colour = INK
    for cx, cy in (left, right):
        d = math.hypot(x - cx, y - cy)
        if d < 0.30:
            colour = INK if d > 0.19 or d < 0.11 else background
    if math.hypot(x, y) < 0.10:
        colour = SPARK
    return colour


def render(size):
    """Rows of (r, g, b, a), top row first; each pixel averages SUPERSAMPLE^2 samples."""
    rows = []
    n = SUPERSAMPLE
    for py in range(size):
        row = []
        for px in range(size):
            r = g = b = covered = 0
            for sy in range(n):
                for sx in range(n):
                    x = (px + (sx + 0.5) / n) / size * 2 - 1
                    y = (py + (sy + 0.5) / n) / size * 2 - 1
                    c = shade(x, y)
                    if c is not None:
                        r, g, b, covered = r + c[0], g + c[1], b + c[2], covered + 1
            if covered:
                row.append((round(r / covered), round(g / covered), round(b / covered), round(255 * covered / n / n)))
            else:
                row.append((0, 0, 0, 0))
        rows.append(row)
    return rows


def png(rows):
    size = len(rows)
    raw = b"".join(b"\0" + bytes(v for pixel in row for v in pixel) for row in rows)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def bitmap(rows):
    """A 32-bit icon bitmap: the header counts the AND mask's rows too; rows go bottom-up."""
    size = len(rows)
    header = struct.pack("<IiiHHIIiiII", 40, size, size * 2, 1, 32, 0, 0, 0, 0, 0, 0)
    pixels = b"".join(bytes((b, g, r, a)) for row in reversed(rows) for r, g, b, a in row)
    mask_row_bytes = (size + 31) // 32 * 4
    mask = b""
    for row in reversed(rows):
        bits = bytearray(mask_row_bytes)
        for x, pixel in enumerate(row):
            if pixel[3] == 0:
                bits[x // 8] |= 0x80 >> (x % 8)
        mask += bytes(bits)
    return header + pixels + mask


def main():
    images = [(size, png(render(size)) if size >= 256 else bitmap(render(size))) for size in SIZES]
    directory = struct.pack("<HHH", 0, 1, len(images))
    offset = len(directory) + 16 * len(images)
    entries = b""
    for size, data in images:
        entries += struct.pack("<BBBBHHII", size % 256, size % 256, 0, 0, 1, 32, len(data), offset)
        offset += len(data)
    out = pathlib.Path(__file__).with_name("sarnlink.ico")
    out.write_bytes(directory + entries + b"".join(data for _, data in images))
    print(f"{out}: {', '.join(str(s) for s in SIZES)} px")


if __name__ == "__main__":
    main()
