#!/usr/bin/env python3
"""Writes the broken photo fixtures of this folder (tests/data/broken).

Each fixture is named NNN_description.ext, NNN being the result value the
engine must give when reading it (see the result values in engine/README.md);
tests/engine/test_imageio.cpp reads every file of the folder and checks that
value, so adding a fixture needs no code. Run this script from anywhere to
regenerate them; it uses only the Python standard library.
"""
import base64
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))

# A valid 48x32 colour baseline JPEG (quality 75), written with libjpeg-turbo.
BASE_JPEG = base64.b64decode("""
/9j/4AAQSkZJRgABAQAAAQABAAD/2wBDAAgGBgcGBQgHBwcJCQgKDBQNDAsLDBkSEw8UHRofHh0a
HBwgJC4nICIsIxwcKDcpLDAxNDQ0Hyc5PTgyPC4zNDL/2wBDAQkJCQwLDBgNDRgyIRwhMjIyMjIy
MjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjL/wAARCAAgADADASIA
AhEBAxEB/8QAHwAAAQUBAQEBAQEAAAAAAAAAAAECAwQFBgcICQoL/8QAtRAAAgEDAwIEAwUFBAQA
AAF9AQIDAAQRBRIhMUEGE1FhByJxFDKBkaEII0KxwRVS0fAkM2JyggkKFhcYGRolJicoKSo0NTY3
ODk6Q0RFRkdISUpTVFVWV1hZWmNkZWZnaGlqc3R1dnd4eXqDhIWGh4iJipKTlJWWl5iZmqKjpKWm
p6ipqrKztLW2t7i5usLDxMXGx8jJytLT1NXW19jZ2uHi4+Tl5ufo6erx8vP09fb3+Pn6/8QAHwEA
AwEBAQEBAQEBAQAAAAAAAAECAwQFBgcICQoL/8QAtREAAgECBAQDBAcFBAQAAQJ3AAECAxEEBSEx
BhJBUQdhcRMiMoEIFEKRobHBCSMzUvAVYnLRChYkNOEl8RcYGRomJygpKjU2Nzg5OkNERUZHSElK
U1RVVldYWVpjZGVmZ2hpanN0dXZ3eHl6goOEhYaHiImKkpOUlZaXmJmaoqOkpaanqKmqsrO0tba3
uLm6wsPExcbHyMnK0tPU1dbX2Nna4uPk5ebn6Onq8vP09fb3+Pn6/9oADAMBAAIRAxEAPwDhUjqw
kdOSOrKR19rVqnnQY1I6sJHT0jqwkdedVqnTBjUjqwkdPSOrCR159WqdUGc+kdWUjpyR1ZSOu6rV
PIgxqR1YSOnJHVlI686rVOqDGpHVhI6ekdWEjrz6tU6YM//Z
""")


def write(name, data):
    with open(os.path.join(HERE, name), "wb") as f:
        f.write(data)


def find(data, needle):
    at = data.find(needle)
    assert at >= 0, needle
    return at


# ------------------------------------------------------------------ JPEG

def jpeg_with_size(width, height):
    data = bytearray(BASE_JPEG)
    sof = find(data, b"\xff\xc0")
    data[sof + 5:sof + 9] = struct.pack(">HH", height, width)
    return bytes(data)


def jpeg_fixtures():
    sos = find(BASE_JPEG, b"\xff\xda")
    write("440_truncated.jpg", BASE_JPEG[:sos + 40])
    write("440_truncated_in_header.jpg", BASE_JPEG[:30])
    bad = bytearray(BASE_JPEG)
    dht = find(bad, b"\xff\xc4")
    bad[dht + 5:dht + 21] = b"\xff" * 16  # more than 256 Huffman codes
    write("412_bad_huffman_table.jpg", bytes(bad))
    bad = bytearray(BASE_JPEG)
    sof = find(bad, b"\xff\xc0")
    bad[sof + 4] = 7  # 7-bit samples
    write("412_bad_precision.jpg", bytes(bad))
    write("720_huge_header.jpg", jpeg_with_size(60000, 60000))
    write("490_zero_height.jpg", jpeg_with_size(48, 0))


# ------------------------------------------------------------------ PNG

def png_chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)


def png_grey(width, height, declared=None):
    """An 8-bit grey PNG with busy pixels; declared overrides the IHDR size."""
    rows = b"".join(b"\x00" + bytes(((x * 7 + y * 13 + (x * y) % 5) & 0xFF) for x in range(width))
                    for y in range(height))
    w, h = declared or (width, height)
    return (b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 0, 0, 0, 0)) +
            png_chunk(b"IDAT", zlib.compress(rows, 9)) + png_chunk(b"IEND", b""))


def png_fixtures():
    good = png_grey(96, 64)
    idat = find(good, b"IDAT")
    idat_length = struct.unpack(">I", good[idat - 4:idat])[0]
    assert idat_length > 200
    write("440_truncated.png", good[:idat + 4 + idat_length // 2])
    bad = bytearray(good)
    crc_at = idat + 4 + idat_length
    bad[crc_at] ^= 0xFF  # the IDAT chunk's CRC no longer matches
    write("412_bad_crc.png", bytes(bad))
    write("720_huge_header.png", png_grey(16, 16, declared=(60000, 60000)))
    write("490_side_too_long.png", png_grey(16, 16, declared=(70000, 1)))


# ------------------------------------------------------------------ TIFF

def tiff_grey(width, height, declared=None):
    """A little-endian 8-bit grey TIFF, directory first, one strip."""
    w, h = declared or (width, height)
    entries = [(256, 4, w), (257, 4, h), (258, 3, 8), (259, 3, 1), (262, 3, 1), (273, 4, None), (277, 3, 1),
               (278, 4, h), (279, 4, w * h)]
    offset = 8 + 2 + len(entries) * 12 + 4
    out = b"II" + struct.pack("<HI", 42, 8) + struct.pack("<H", len(entries))
    for tag, kind, value in entries:
        value = offset if value is None else value
        out += struct.pack("<HHI", tag, kind, 1) + (struct.pack("<HH", value, 0) if kind == 3
                                                   else struct.pack("<I", value))
    out += struct.pack("<I", 0)
    return out + bytes(((x * 7 + y * 13) & 0xFF) for y in range(height) for x in range(width))


def tiff_fixtures():
    good = tiff_grey(40, 30)
    write("440_truncated_strips.tif", good[:len(good) - 500])
    write("440_truncated_directory.tif", b"II" + struct.pack("<HI", 42, 4096) + bytes(200))
    garbage = b"II" + struct.pack("<HI", 42, 8) + struct.pack("<H", 3)
    garbage += bytes(((i * 97 + 13) & 0xFF) for i in range(3 * 12 + 4))
    write("412_garbage_directory.tif", garbage)
    write("720_huge_header.tif", tiff_grey(8, 8, declared=(60000, 60000)))


# ------------------------------------------------------------------ BMP

def bmp(width, height, bits=24, compression=0, header_size=40, declared=None, palette=0):
    w, h = declared or (width, height)
    stride = ((width * bits + 31) // 32) * 4
    pixels = bytes((i * 11) & 0xFF for i in range(stride * height))
    offset = 14 + 40 + palette * 4
    info = struct.pack("<IiiHHIIiiII", header_size, w, h, 1, bits, compression, len(pixels), 2835, 2835, palette, 0)
    table = b"".join(bytes((i, i, i, 0)) for i in range(palette))
    return b"BM" + struct.pack("<IHHI", offset + len(pixels), 0, 0, offset) + info + table + pixels


def bmp_fixtures():
    write("720_huge_header.bmp", bmp(4, 4, declared=(60000, 60000)))
    write("491_rle8_compressed.bmp", bmp(8, 4, bits=8, compression=1, palette=4))
    write("440_truncated_pixels.bmp", bmp(20, 10)[:-100])
    write("490_bad_header_size.bmp", bmp(4, 4, header_size=0xFFFF))


# ------------------------------------------------------------------ others

def other_fixtures():
    write("490_empty.jpg", b"")
    write("491_text.jpg", b"This is a text file with a .jpg name.\n")
    write("491_gif.gif", b"GIF89a\x01\x00\x01\x00\x00\x00\x00;")


if __name__ == "__main__":
    jpeg_fixtures()
    png_fixtures()
    tiff_fixtures()
    bmp_fixtures()
    other_fixtures()
