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

# The same kind of 16x16 colour picture, progressive (libjpeg's simple
# progression: DC scans, then spectral bands and refinements) and sequential
# with one scan per component (Y, Cb, Cr), all with optimised Huffman tables.
PROGRESSIVE_JPEG = base64.b64decode("""
/9j/2wBDAAgGBgcGBQgHBwcJCQgKDBQNDAsLDBkSEw8UHRofHh0aHBwgJC4nICIsIxwcKDcpLDAxND
Q0Hyc5PTgyPC4zNDL/2wBDAQkJCQwLDBgNDRgyIRwhMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIy
MjIyMjIyMjIyMjIyMjIyMjIyMjIyMjL/wgARCAAQABADAREAAhEBAxEB/8QAFwAAAwEAAAAAAAAAAA
AAAAAAAQMEBf/EABYBAQEBAAAAAAAAAAAAAAAAAAMEBf/aAAwDAQACEAMQAAABNM+zM6nCDF0//8QA
GRABAAIDAAAAAAAAAAAAAAAAAwACAQUj/9oACAEBAAEFAgOZ4mFJsmrU/wD/xAAdEQACAQQDAAAAAA
AAAAAAAAAAAQIDBBGxEyNB/9oACAEDAQE/AUi2pcs8GC16ourJb34f/8QAIxEAAAMGBwAAAAAAAAAA
AAAAAAECAwQREkFxEzFhgZHh8P/aAAgBAgEBPwEPLQpYXrocOe6BaiSUTDCZ4b4vrbZD/8QAHBAAAg
ICAwAAAAAAAAAAAAAAAREAMQMQIVFx/9oACAEBAAY/AhxGuhT0Mdk2jXs//8QAGhABAAMBAQEAAAAA
AAAAAAAAAQARITFBcf/aAAgBAQABPyEKgzoKhql5w7KQ8m7MIQ7PH2f/2gAMAwEAAgADAAAAENN//8
QAGxEBAAIDAQEAAAAAAAAAAAAAARExACFBUbH/2gAIAQMBAT8QBDWD4AWwo9fvLS8EwZLQWoUoyMEd
LkFaOmf/xAAcEQEAAgMBAQEAAAAAAAAAAAABESEAMVGBQWH/2gAIAQIBAT8QtUHAJcWhwItyqEQBVL
Hmk9/D4+HaByQlRqTo0lizJC4mCWf/xAAbEAEBAAMBAQEAAAAAAAAAAAABEQAhMUFxof/aAAgBAQAB
PxADIaHmOzesInC7OueyWzGdQQ6fn3KIGA5sjBTSlQdsUE//2Q==
""")
SEQUENTIAL_JPEG = base64.b64decode("""
/9j/2wBDAAgGBgcGBQgHBwcJCQgKDBQNDAsLDBkSEw8UHRofHh0aHBwgJC4nICIsIxwcKDcpLDAxND
Q0Hyc5PTgyPC4zNDL/2wBDAQkJCQwLDBgNDRgyIRwhMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIyMjIy
MjIyMjIyMjIyMjIyMjIyMjIyMjIyMjL/wAARCAAQABADAREAAhEBAxEB/8QAFwAAAwEAAAAAAAAAAA
AAAAAAAgQFBv/EACIQAAICAQMEAwAAAAAAAAAAAAECAxEFAAQSByExQSJxof/aAAgBAQAAPwA8Hj1C
Rkxg2B61sp3XDY4yiLm7PHEhETSBS54glV7t58e6q7rSuC2JRFNhRQ8j8+9QepWa2+0xsePtpZZgFk
SKVlEPyQgycQSOzGrIB7miQCP/xAAWAQEBAQAAAAAAAAAAAAAAAAAFBAb/xAAlEQEAAQIEBQUAAAAA
AAAAAAABAhEhAAMEEgUiMVGBEzJBQmH/2gAIAQIRAD8ATuqDgziWoiZbF7SfcH1ltEW+5tREAZNouL
8/NhlxZT6Hn8Ph8HewOMXofU4hrnVVsdKnceUq05V2qF6VoVa//8QAFgEBAQEAAAAAAAAAAAAAAAAA
BAUG/8QAIBEBAAAFBQEBAAAAAAAAAAAAAQACBBExAwUSIUFRsf/aAAgBAxEAPwCfLKIdQ7baQqtbj4
C5DB9f3zKZgJKtiNPtd6XTmqtWXrqyk2G42nB42zcFcHpH/9k=
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
    # Scans beyond the decoder's limit (1000): the DC refinement scan repeated.
    head, scans = jpeg_scans(PROGRESSIVE_JPEG)
    dc_refine = [s for s in scans if scan_header(s)[:6] == b"\x03\x01\x00\x02\x00\x03"][0]
    write("412_too_many_scans.jpg", head + b"".join(scans) + dc_refine * 1000 + b"\xff\xd9")
    # Only the DC scans: every AC coefficient is missing.
    dc = [s for s in scans if scan_header(s)[0] == 3]  # the interleaved scans are the DC ones
    assert len(dc) == 2
    write("440_progressive_dc_only.jpg", head + b"".join(dc) + b"\xff\xd9")
    # A sequential photo whose luma (component 1) scan is gone.
    head, scans = jpeg_scans(SEQUENTIAL_JPEG)
    assert len(scans) == 3 and scan_header(scans[0])[1] == 1
    write("440_missing_luma_scan.jpg", head + b"".join(scans[1:]) + b"\xff\xd9")


def scan_header(scan):
    """The scan header after its length: component count, components, Ss, Se, Ah/Al."""
    sos = find(scan, b"\xff\xda")
    return scan[sos + 4:sos + 2 + struct.unpack(">H", scan[sos + 2:sos + 4])[0]]


def jpeg_scans(data):
    """Splits a JPEG into its bytes before the first scan and its scans, each
    with the table segments in front of it and its entropy-coded data."""
    at = 2
    segments = []  # (start, end, is_scan)
    while data[at + 1] != 0xD9:
        assert data[at] == 0xFF
        end = at + 2 + struct.unpack(">H", data[at + 2:at + 4])[0]
        if data[at + 1] == 0xDA:
            while not (data[end] == 0xFF and data[end + 1] != 0 and not 0xD0 <= data[end + 1] <= 0xD7):
                end += 1
        segments.append((at, end, data[at + 1] == 0xDA))
        at = end
    first = next(i for i, s in enumerate(segments) if s[2])
    # Tables right before a scan belong to it (optimised coding gives each scan its own).
    while first > 0 and data[segments[first - 1][0] + 1] == 0xC4:
        first -= 1
    head = data[:segments[first][0]]
    scans, start = [], segments[first][0]
    for begin, end, is_scan in segments[first:]:
        if is_scan:
            scans.append(data[start:end])
            start = end
    return head, scans


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


def tiff_tiled_grey(width, height, tile, present):
    """A little-endian 8-bit grey tiled TIFF; tiles not in present have offset
    and byte count 0, as a writer leaves tiles it never wrote."""
    across, down = (width + tile - 1) // tile, (height + tile - 1) // tile
    count = across * down
    entries = 11
    offsets_at = 8 + 2 + entries * 12 + 4
    counts_at = offsets_at + 4 * count
    data_at = counts_at + 4 * count
    offsets, counts, data = [], [], b""
    for i in range(count):
        if i in present:
            offsets.append(data_at + len(data))
            counts.append(tile * tile)
            data += bytes(((i * 31 + j * 7) & 0xFF) for j in range(tile * tile))
        else:
            offsets.append(0)
            counts.append(0)
    out = b"II" + struct.pack("<HI", 42, 8) + struct.pack("<H", entries)
    for tag, kind, n, value in [(256, 4, 1, width), (257, 4, 1, height), (258, 3, 1, 8), (259, 3, 1, 1),
                                (262, 3, 1, 1), (277, 3, 1, 1), (284, 3, 1, 1), (322, 4, 1, tile),
                                (323, 4, 1, tile), (324, 4, count, offsets_at), (325, 4, count, counts_at)]:
        out += struct.pack("<HHI", tag, kind, n) + (struct.pack("<HH", value, 0) if kind == 3
                                                   else struct.pack("<I", value))
    out += struct.pack("<I", 0)
    return out + struct.pack("<%dI" % count, *offsets) + struct.pack("<%dI" % count, *counts) + data

def tiff_fixtures():
    good = tiff_grey(40, 30)
    write("440_truncated_strips.tif", good[:len(good) - 500])
    write("440_truncated_directory.tif", b"II" + struct.pack("<HI", 42, 4096) + bytes(200))
    garbage = b"II" + struct.pack("<HI", 42, 8) + struct.pack("<H", 3)
    garbage += bytes(((i * 97 + 13) & 0xFF) for i in range(3 * 12 + 4))
    write("412_garbage_directory.tif", garbage)
    write("720_huge_header.tif", tiff_grey(8, 8, declared=(60000, 60000)))
    write("440_missing_tiles.tif", tiff_tiled_grey(80, 112, 16, present={0, 1, 7, 20, 34}))


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
