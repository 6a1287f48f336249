#!/usr/bin/env python3
"""Writes Kestrune's program icon (32x32, 32-bit) as an .ico file: a white K on a blue tile.
Drawn here rather than kept as a binary in the repository."""
import struct
import sys

SIZE = 32


def pixel(x, y):
    # Tile with cut corners.
    corner = min(x, SIZE - 1 - x) + min(y, SIZE - 1 - y)
    if corner < 3:
        return (0, 0, 0, 0)
    # The K: a vertical bar and two diagonals meeting at the middle of the bar.
    bar = 8 <= x <= 12 and 6 <= y <= 25
    mid = 15.5
    arm = 6 <= y <= 25 and abs((x - 12) - abs(y - mid)) <= 2.2 and x >= 12
    if bar or arm:
        return (255, 255, 255, 255)
    return (40, 90, 200, 255)


def main():
    rows = []
    for y in reversed(range(SIZE)):  # bottom-up DIB
        for x in range(SIZE):
            r, g, b, a = pixel(x, y)
            rows.append(struct.pack("BBBB", b, g, r, a))
    xor = b"".join(rows)
    and_mask = bytes(SIZE * 4)  # 32 bits per row, all opaque (alpha decides)
    header = struct.pack("<IiiHHIIiiII", 40, SIZE, SIZE * 2, 1, 32, 0, len(xor) + len(and_mask), 0, 0, 0, 0)
    image = header + xor + and_mask
    icondir = struct.pack("<HHH", 0, 1, 1)
    entry = struct.pack("<BBBBHHII", SIZE, SIZE, 0, 0, 1, 32, len(image), 6 + 16)
    with open(sys.argv[1], "wb") as f:
        f.write(icondir + entry + image)


if __name__ == "__main__":
    main()
