"""Test pictures: that each can be told from the others, and that what a viewer shows is what was drawn."""
import struct
import zlib

import bench
import transcript


def pixels_of(png):
    """A PNG's lines of three bytes a pixel."""
    hor, ver, depth, kind = struct.unpack_from(">IIBB", png, 16)
    assert png[:8] == b"\x89PNG\r\n\x1a\n" and (depth, kind) == (8, 2), "three channels of eight bits"
    data, at = b"", 8
    while at < len(png):
        size, name = struct.unpack_from(">I4s", png, at)
        data, at = data + (png[at + 8 : at + 8 + size] if name == b"IDAT" else b""), at + 12 + size
    raw, above, out = zlib.decompress(data), bytes(hor * 3), b""
    for y in range(ver):
        how, line = raw[y * (hor * 3 + 1)], bytearray(raw[y * (hor * 3 + 1) + 1 : (y + 1) * (hor * 3 + 1)])
        for i in range(hor * 3):
            a, b, c = (line[i - 3] if i > 2 else 0), above[i], (above[i - 3] if i > 2 else 0)
            nearest = min((abs(b - c), 0, a), (abs(a - c), 1, b), (abs(a + b - 2 * c), 2, c))[2]
            line[i] = (line[i] + (0, a, b, (a + b) // 2, nearest)[how]) & 0xFF
        above, out = bytes(line), out + bytes(line)
    return out


class Png(bench.BenchTest):
    def test_holds_what_was_drawn(self):
        for name in ("raw", "png"):
            self.assertEqual(bench.run("rvk-testcard", 42, "101x60", f"/run/{name}", "--format", name)[0], 0)
        with open("/run/raw", "rb") as raw, open("/run/png", "rb") as png:
            drawn = raw.read()
            self.assertEqual(pixels_of(png.read()), b"".join(drawn[i + 1 : i + 4] for i in range(0, len(drawn), 4)))


transcript.main(__file__)
