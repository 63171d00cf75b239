#!/usr/bin/env python3
"""Draws the effect's about picture: plugin/Resources/About.png.

250 x 70, 8-bit RGBA, fully opaque. The control's size is derived from the
picture's, so keep those numbers. Standard library only, so anyone can
regenerate it:  python3 scripts/make_about_png.py [output.png]
"""
import os
import struct
import sys
import zlib

WIDTH, HEIGHT = 250, 70

# 5 x 7 block letters, enough for the title.
GLYPHS = {
    "T": ["#####", "..#..", "..#..", "..#..", "..#..", "..#..", "..#.."],
    "R": ["####.", "#...#", "#...#", "####.", "#.#..", "#..#.", "#...#"],
    "E": ["#####", "#....", "#....", "####.", "#....", "#....", "#####"],
    "M": ["#...#", "##.##", "#.#.#", "#.#.#", "#...#", "#...#", "#...#"],
    "O": [".###.", "#...#", "#...#", "#...#", "#...#", "#...#", ".###."],
    "D": ["####.", "#...#", "#...#", "#...#", "#...#", "#...#", "####."],
    "I": ["#####", "..#..", "..#..", "..#..", "..#..", "..#..", "#####"],
    "S": [".####", "#....", "#....", ".###.", "....#", "....#", "####."],
    "L": ["#....", "#....", "#....", "#....", "#....", "#....", "#####"],
    " ": ["....."] * 7,
}

TITLE = "TREMOR DISTILLER"
SCALE_X, SCALE_Y = 2, 3
ADVANCE = 6 * SCALE_X  # glyph plus one column of spacing
TITLE_TOP = 12


def clamp(v):
    return max(0, min(255, int(round(v))))


def title_mask():
    """Coverage of the title, 1.0 inside a letter."""
    mask = [[0.0] * WIDTH for _ in range(HEIGHT)]
    text_width = len(TITLE) * ADVANCE - SCALE_X
    left = (WIDTH - text_width) // 2
    for i, ch in enumerate(TITLE):
        for gy, row in enumerate(GLYPHS[ch]):
            for gx, cell in enumerate(row):
                if cell != "#":
                    continue
                for sy in range(SCALE_Y):
                    for sx in range(SCALE_X):
                        x = left + i * ADVANCE + gx * SCALE_X + sx
                        y = TITLE_TOP + gy * SCALE_Y + sy
                        mask[y][x] = 1.0
    return mask


def shifted(mask, dx):
    return lambda x, y: mask[y][x - dx] if 0 <= x - dx < WIDTH else 0.0


def draw():
    mask = title_mask()
    # Fading echoes to the left, as the effect leaves behind a moving edge;
    # red and blue pulled apart like its chromatic split.
    echoes = [(shifted(mask, -5 * k), 0.4 ** k) for k in range(1, 4)]
    red_ghost = shifted(mask, -1)
    blue_ghost = shifted(mask, 1)

    # Motion streaks under the title: (row, length, colour), fading leftwards.
    streaks = [
        (47, 150, (255, 140, 40)),
        (51, 190, (40, 210, 230)),
        (55, 120, (230, 60, 170)),
        (59, 165, (120, 230, 90)),
    ]

    pixels = bytearray()
    for y in range(HEIGHT):
        pixels.append(0)  # filter type: none
        for x in range(WIDTH):
            # Deep blue-grey, a little lighter towards the top.
            t = y / (HEIGHT - 1)
            r, g, b = 18 + 10 * (1 - t), 20 + 12 * (1 - t), 30 + 18 * (1 - t)

            for echo, weight in echoes:
                c = echo(x, y) * weight
                r, g, b = r + 40 * c, g + 120 * c, b + 150 * c

            for row, length, (sr, sg, sb) in streaks:
                if row <= y < row + 2:
                    end = WIDTH - 22
                    start = end - length
                    if start <= x < end:
                        fade = ((x - start) / length) ** 2
                        r, g, b = r + sr * fade, g + sg * fade, b + sb * fade

            r += 200 * red_ghost(x, y)
            b += 200 * blue_ghost(x, y)
            if mask[y][x]:
                r, g, b = 245, 245, 240
            pixels += bytes((clamp(r), clamp(g), clamp(b), 255))
    return bytes(pixels)


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def png(raw):
    header = struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 6, 0, 0, 0)  # 8-bit RGBA
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) +
            chunk(b"IEND", b""))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "plugin", "Resources", "About.png")
    with open(out, "wb") as f:
        f.write(png(draw()))


if __name__ == "__main__":
    main()
