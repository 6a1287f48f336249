#!/usr/bin/env python3
"""Draws the program's symbol font: a small TrueType file whose private-use glyphs U+E005 to U+E00D
prefix the run-control labels (menus and toolbar), merged at run time into the UI and text fonts.

The glyphs are polygons on a 1000-unit em (straight outlines only, every point on the curve), drawn
here so that the build needs no font tools. usage: make_symbol_font.py OUTPUT.ttf
"""
import math
import struct
import sys

UNITS_PER_EM = 1000
ASCENT, DESCENT = 800, -200
ADVANCE = 1000
FIRST_CODE = 0xE005

# [SECTION] Shapes: each a list of contours, each contour a list of (x, y) points.


def clockwise(points):
    """TrueType fills clockwise outer contours (y up): turns a contour that way round."""
    area = sum(x0 * y1 - x1 * y0 for (x0, y0), (x1, y1) in zip(points, points[1:] + points[:1]))
    return points if area < 0 else points[::-1]


def rect(x0, y0, x1, y1):
    return [(x0, y0), (x1, y0), (x1, y1), (x0, y1)]


def arc_band(cx, cy, outer, inner, start_deg, end_deg, steps=12):
    """A thick arc as one simple polygon: the outer edge one way, the inner edge back."""
    angles = [math.radians(start_deg + (end_deg - start_deg) * i / steps) for i in range(steps + 1)]
    outside = [(cx + outer * math.cos(a), cy + outer * math.sin(a)) for a in angles]
    inside = [(cx + inner * math.cos(a), cy + inner * math.sin(a)) for a in reversed(angles)]
    return outside + inside


def arrow_down(cx, tip_y, width=420, head=260, shaft=120, length=520):
    """A downward arrow whose tip is at (cx, tip_y)."""
    top = tip_y + length
    half_shaft, half_head = shaft / 2, width / 2
    return [(cx, tip_y), (cx + half_head, tip_y + head), (cx + half_shaft, tip_y + head),
            (cx + half_shaft, top), (cx - half_shaft, top), (cx - half_shaft, tip_y + head),
            (cx - half_head, tip_y + head)]


def flip_vertical(contour, axis_y):
    return [(x, 2 * axis_y - y) for x, y in contour]


def step_over(bars):
    """An arc over the line, its arrow head coming down on the right, and the line below."""
    head = [(640, 240), (880, 240), (760, 80)]
    return [arc_band(500, 240, 380, 260, 180, 0, 14), head] + bars


LINE = [rect(150, -150, 850, -40)]
TWO_BARS = [rect(150, -150, 440, -40), rect(560, -150, 850, -40)]

GLYPHS = [  # in code order from U+E005
    ("continue", [[(200, -100), (200, 700), (820, 300)]]),
    ("stop", [rect(180, -20, 820, 620)]),
    ("restart", [arc_band(500, 300, 380, 250, 130, -200, 16), [(40, 420), (330, 420), (190, 650)]]),
    ("break", [rect(200, -50, 420, 650), rect(580, -50, 800, 650)]),
    ("step_into", [arrow_down(500, 60)] + LINE),
    ("step_over", step_over(LINE)),
    ("step_out", [flip_vertical(arrow_down(500, 60), 355)] + LINE),
    ("step_into_instruction", [arrow_down(500, 60)] + TWO_BARS),
    ("step_over_instruction", step_over(TWO_BARS)),
]

# [SECTION] Tables


def glyph_record(contours):
    """One simple glyph: every point on the curve, coordinates as 16-bit deltas."""
    if not contours:
        return b"", (0, 0, 0, 0), 0, 0
    contours = [clockwise([(int(round(x)), int(round(y))) for x, y in c]) for c in contours]
    points = [p for c in contours for p in c]
    xs, ys = [p[0] for p in points], [p[1] for p in points]
    box = (min(xs), min(ys), max(xs), max(ys))
    ends, total = [], 0
    for c in contours:
        total += len(c)
        ends.append(total - 1)
    data = struct.pack(">hhhhh", len(contours), *box)
    data += struct.pack(">%dH" % len(ends), *ends)
    data += struct.pack(">H", 0)  # no instructions
    data += bytes([0x01] * len(points))  # on curve, long x and y deltas
    prev = 0
    for x in xs:
        data += struct.pack(">h", x - prev)
        prev = x
    prev = 0
    for y in ys:
        data += struct.pack(">h", y - prev)
        prev = y
    data += b"\0" * (-len(data) % 4)
    return data, box, len(points), len(contours)


def cmap_table(count):
    """Format 4, one segment mapping FIRST_CODE.. onto glyphs 1.., and the closing segment."""
    last = FIRST_CODE + count - 1
    ends, starts, deltas = [last, 0xFFFF], [FIRST_CODE, 0xFFFF], [(1 - FIRST_CODE) & 0xFFFF, 1]
    seg_x2 = 2 * len(ends)
    search = 2 * (1 << int(math.floor(math.log2(len(ends)))))
    sub = struct.pack(">HHHHHHH", 4, 0, 0, seg_x2, search, int(math.log2(search // 2)), seg_x2 - search)
    sub += struct.pack(">%dH" % len(ends), *ends) + b"\0\0"
    sub += struct.pack(">%dH" % len(starts), *starts)
    sub += struct.pack(">%dH" % len(deltas), *deltas)
    sub += struct.pack(">%dH" % len(ends), *([0] * len(ends)))
    sub = sub[:2] + struct.pack(">H", len(sub)) + sub[4:]
    return struct.pack(">HHHHI", 0, 1, 3, 1, 12) + sub


def name_table():
    names = {1: "Kestrune Symbols", 2: "Regular", 4: "Kestrune Symbols", 6: "KestruneSymbols"}
    records, strings = b"", b""
    for name_id, text in names.items():
        encoded = text.encode("utf-16-be")
        records += struct.pack(">HHHHHH", 3, 1, 0x409, name_id, len(encoded), len(strings))
        strings += encoded
    return struct.pack(">HHH", 0, len(names), 6 + len(records)) + records + strings


def checksum(data):
    data += b"\0" * (-len(data) % 4)
    return sum(struct.unpack(">%dI" % (len(data) // 4), data)) & 0xFFFFFFFF


def build_font():
    glyphs = [glyph_record([])] + [glyph_record(contours) for _, contours in GLYPHS]
    count = len(glyphs)
    glyf, loca = b"", []
    for data, _, _, _ in glyphs:
        loca.append(len(glyf))
        glyf += data
    loca.append(len(glyf))
    boxes = [g[1] for g in glyphs[1:]]
    x_min, y_min = min(b[0] for b in boxes), min(b[1] for b in boxes)
    x_max, y_max = max(b[2] for b in boxes), max(b[3] for b in boxes)
    max_points, max_contours = max(g[2] for g in glyphs), max(g[3] for g in glyphs)

    tables = {}
    tables[b"head"] = struct.pack(">IIIIHHqqhhhhHHhhh", 0x00010000, 0x00010000, 0, 0x5F0F3CF5, 0x000B,
                                  UNITS_PER_EM, 0, 0, x_min, y_min, x_max, y_max, 0, 8, 2, 1, 0)
    tables[b"hhea"] = struct.pack(">IhhhHhhhhhhhhhhhH", 0x00010000, ASCENT, DESCENT, 0, ADVANCE,
                                  min(0, x_min), ADVANCE - x_max, x_max, 1, 0, 0, 0, 0, 0, 0, 0, count)
    tables[b"maxp"] = struct.pack(">IHHHHHHHHHHHHHH", 0x00010000, count, max_points, max_contours, 0, 0, 2,
                                  0, 0, 0, 0, 0, 0, 0, 0)
    tables[b"hmtx"] = b"".join(struct.pack(">Hh", ADVANCE, g[1][0]) for g in glyphs)
    tables[b"loca"] = struct.pack(">%dI" % len(loca), *loca)
    tables[b"glyf"] = glyf
    tables[b"cmap"] = cmap_table(len(GLYPHS))
    tables[b"name"] = name_table()
    tables[b"post"] = struct.pack(">IIhhIIIII", 0x00030000, 0, -100, 50, 0, 0, 0, 0, 0)
    last = FIRST_CODE + len(GLYPHS) - 1
    tables[b"OS/2"] = struct.pack(
        ">HhHHHhhhhhhhhhhh10sIIII4sHHHhhhHHIIhhHHH", 4, ADVANCE, 400, 5, 0, 650, 700, 0, 140, 650, 700, 0, 480,
        50, 250, 0, b"\0" * 10, 0, 1 << 28, 0, 0, b"KTRN", 0x0040, FIRST_CODE, last, ASCENT, DESCENT, 0,
        ASCENT, -DESCENT, 1, 0, 0, 0, 0, 32, 1)

    tags = sorted(tables)
    header_size = 12 + 16 * len(tags)
    entry_selector = int(math.floor(math.log2(len(tags))))
    search_range = 16 * (1 << entry_selector)
    out = struct.pack(">IHHHH", 0x00010000, len(tags), search_range, entry_selector, 16 * len(tags) - search_range)
    offset, directory, body = header_size, b"", b""
    for tag in tags:
        data = tables[tag]
        directory += struct.pack(">4sIII", tag, checksum(data), offset, len(data))
        padded = data + b"\0" * (-len(data) % 4)
        body += padded
        offset += len(padded)
    font = bytearray(out + directory + body)
    head_offset = header_size + sum(len(tables[t]) + (-len(tables[t]) % 4) for t in tags[:tags.index(b"head")])
    struct.pack_into(">I", font, head_offset + 8, (0xB1B0AFBA - checksum(bytes(font))) & 0xFFFFFFFF)
    return bytes(font)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: make_symbol_font.py OUTPUT.ttf")
    with open(sys.argv[1], "wb") as f:
        f.write(build_font())
