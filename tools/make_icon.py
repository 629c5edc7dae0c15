#!/usr/bin/env python3
"""Draws the Clipward icon and writes it in the two forms the build uses.

  Code/app/icons/CWIcon32.png   multi-image ICO (the window icon resource keeps this historic name):
                                16, 24, 32 and 48 px as 32-bit BMP entries with alpha, 256 px as PNG
  Code/app/icons/clipward-256.png  the 256 px image as a plain PNG (installed as the Linux app icon)

The artwork is a strip of film (dark body, sprocket holes cut through) whose frame shows a forward
arrow: an unfinished clip being carried on to a finished one. Every size is rendered from the same
shapes with supersampling, so small sizes stay sharp instead of being scaled down from 256 px.

Standard library only. Run from anywhere:  python3 tools/make_icon.py
"""

import os
import struct
import sys
import zlib

ICON_SIZES = (16, 24, 32, 48, 256)
PNG_ENTRY_SIZE = 256  # sizes from this up are stored as PNG inside the ICO

BODY = (0x2B, 0x30, 0x38)
BODY_EDGE = (0x1A, 0x1D, 0x22)
FRAME_TOP = (0x2E, 0xB6, 0xE8)
FRAME_BOTTOM = (0x15, 0x5F, 0xB8)
ARROW = (0xFF, 0xFF, 0xFF)
ACCENT = (0xFF, 0x9F, 0x1C)


# --- shapes, in unit coordinates (0..1 across the icon, y downwards) ---

def in_round_rect(x, y, left, top, right, bottom, radius):
    if x < left or x > right or y < top or y > bottom:
        return False
    cx = min(max(x, left + radius), right - radius)
    cy = min(max(y, top + radius), bottom - radius)
    return (x - cx) ** 2 + (y - cy) ** 2 <= radius * radius


def in_triangle(x, y, a, b, c):
    def side(p, q):
        return (q[0] - p[0]) * (y - p[1]) - (q[1] - p[1]) * (x - p[0])

    s1, s2, s3 = side(a, b), side(b, c), side(c, a)
    return (s1 >= 0 and s2 >= 0 and s3 >= 0) or (s1 <= 0 and s2 <= 0 and s3 <= 0)


def sprocket_holes(size):
    """Hole rectangles for one row pair; fewer, larger holes where pixels are scarce."""
    count = 4 if size <= 24 else 6
    left, right = 0.13, 0.87
    pitch = (right - left) / count
    width = pitch * 0.55
    holes = []
    for i in range(count):
        x0 = left + pitch * i + (pitch - width) / 2
        holes.append((x0, x0 + width))
    return holes


def make_sampler(size):
    # Up to 48 px the edges sit on pixel boundaries, so lines and holes stay crisp, not grey.
    def snap(v):
        return round(v * size) / size if size <= 48 else v

    holes = [(snap(x0), snap(x1)) for x0, x1 in sprocket_holes(size)]
    body = tuple(snap(v) for v in (0.04, 0.12, 0.96, 0.88))
    edge = 1.0 / size if size <= 48 else 0.015
    hole_rows = ((snap(0.165), snap(0.255)), (snap(0.745), snap(0.835)))
    frame = tuple(snap(v) for v in (0.11, 0.295, 0.89, 0.705))
    accent_top = frame[3] - max(snap(0.04), 1.0 / size)
    # Small sizes get a bolder arrow so it survives at a handful of pixels.
    bold = size <= 24
    shaft_half = snap(0.075) if bold else 0.055
    head = ((0.50, 0.335), (0.76, 0.50), (0.50, 0.665)) if bold else ((0.52, 0.355), (0.73, 0.50), (0.52, 0.645))
    shaft_left = snap(0.25) if bold else 0.28

    def colour_at(x, y):
        """RGBA of the topmost shape at (x, y), or None where the icon is transparent."""
        if not in_round_rect(x, y, *body, 0.09):
            return None
        for top, bottom in hole_rows:
            if top <= y <= bottom:
                for x0, x1 in holes:
                    if in_round_rect(x, y, x0, top, x1, bottom, 0.02 if size > 48 else 0.0):
                        return None
        if in_round_rect(x, y, *frame, 0.035 if size > 48 else 0.0):
            if shaft_left <= x <= head[0][0] + 0.01 and abs(y - 0.5) <= shaft_half:
                return ARROW + (255,)
            if in_triangle(x, y, *head):
                return ARROW + (255,)
            # The frame's lower edge carries a thin accent line: the "finished" mark.
            if y >= accent_top:
                return ACCENT + (255,)
            t = (y - frame[1]) / (frame[3] - frame[1])
            return tuple(int(round(a + (b - a) * t)) for a, b in zip(FRAME_TOP, FRAME_BOTTOM)) + (255,)
        inner = (body[0] + edge, body[1] + edge, body[2] - edge, body[3] - edge)
        if not in_round_rect(x, y, *inner, 0.08):
            return BODY_EDGE + (255,)
        return BODY + (255,)

    return colour_at


def render(size):
    """Rows of (r, g, b, a) tuples, top row first, anti-aliased by an n x n grid per pixel."""
    grid = 8 if size <= 48 else 4
    colour_at = make_sampler(size)
    rows = []
    for py in range(size):
        row = []
        for px in range(size):
            r = g = b = a = 0
            for sy in range(grid):
                y = (py + (sy + 0.5) / grid) / size
                for sx in range(grid):
                    c = colour_at((px + (sx + 0.5) / grid) / size, y)
                    if c is not None:
                        r += c[0] * c[3]
                        g += c[1] * c[3]
                        b += c[2] * c[3]
                        a += c[3]
            if a == 0:
                row.append((0, 0, 0, 0))
            else:
                row.append((r // a, g // a, b // a, a // (grid * grid)))
        rows.append(row)
    return rows


# --- file formats ---

def png_bytes(rows):
    height, width = len(rows), len(rows[0])

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    raw = bytearray()
    for row in rows:
        raw.append(0)  # filter type None
        for pixel in row:
            raw.extend(pixel)
    header = struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)  # 8-bit RGBA
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(bytes(raw), 9))
            + chunk(b"IEND", b""))


def bmp_entry_bytes(rows):
    """An ICO image entry: BITMAPINFOHEADER, BGRA pixels bottom-up, then the 1-bit AND mask."""
    height, width = len(rows), len(rows[0])
    mask_stride = ((width + 31) // 32) * 4
    pixels = bytearray()
    mask = bytearray()
    for row in reversed(rows):
        for r, g, b, a in row:
            pixels.extend((b, g, r, a))
        bits = bytearray(mask_stride)
        for x, pixel in enumerate(row):
            if pixel[3] == 0:  # fully transparent: masked out for readers that ignore alpha
                bits[x // 8] |= 0x80 >> (x % 8)
        mask.extend(bits)
    # The header's height counts both the colour image and the mask.
    info = struct.pack("<IiiHHIIiiII", 40, width, height * 2, 1, 32, 0, len(pixels) + len(mask), 0, 0, 0, 0)
    return info + bytes(pixels) + bytes(mask)


def ico_bytes(images):
    """images: list of (size, entry bytes). ICONDIR, one ICONDIRENTRY each, then the entries."""
    directory = struct.pack("<HHH", 0, 1, len(images))
    offset = 6 + 16 * len(images)
    entries = bytearray()
    data = bytearray()
    for size, blob in images:
        dim = 0 if size >= 256 else size  # 0 stands for 256 in the one-byte fields
        entries.extend(struct.pack("<BBBBHHII", dim, dim, 0, 0, 1, 32, len(blob), offset + len(data)))
        data.extend(blob)
    return directory + bytes(entries) + bytes(data)


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    icons = os.path.join(root, "Code", "app", "icons")
    os.makedirs(icons, exist_ok=True)

    images = []
    large_png = None
    for size in ICON_SIZES:
        rows = render(size)
        if size >= PNG_ENTRY_SIZE:
            large_png = png_bytes(rows)
            images.append((size, large_png))
        else:
            images.append((size, bmp_entry_bytes(rows)))

    with open(os.path.join(icons, "CWIcon32.png"), "wb") as f:
        f.write(ico_bytes(images))
    with open(os.path.join(icons, "clipward-256.png"), "wb") as f:
        f.write(large_png)
    return 0


if __name__ == "__main__":
    sys.exit(main())
