// Uncompressed BMP, our own parser: BI_RGB with 24 or 32 bits (and 32-bit
// BI_BITFIELDS with one whole byte per colour), 8-bit palette; bottom-up and
// top-down. Compressed variants (RLE, embedded JPEG/PNG) are not supported.

#include "imageio_internal.h"
#include "status.h"

#include <cstring>
#include <vector>

namespace lumicrest
{
namespace io
{
namespace
{

uint32_t le16(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8);
}

uint32_t le32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

enum : uint32_t
{
    kBiRgb = 0,
    kBiRle8 = 1,
    kBiRle4 = 2,
    kBiBitfields = 3,
    kBiJpeg = 4,
    kBiPng = 5,
    kBiAlphaBitfields = 6,
};

bool knownHeaderSize(uint32_t size)
{
    // Core (12), OS/2 2.x (16..64), INFO (40), V2 (52), V3 (56), V4 (108), V5 (124).
    return size == 12 || size == 16 || size == 40 || size == 52 || size == 56 || size == 64 || size == 108 ||
           size == 124;
}

// Byte index (0..3) of a one-byte mask inside a little-endian 32-bit pixel,
// or -1 when the mask is not one whole byte.
int maskByte(uint32_t mask)
{
    for (int i = 0; i < 4; ++i)
        if (mask == (0xFFu << (8 * i)))
            return i;
    return -1;
}

[[noreturn]] void absurd(const PhotoFile& f, const std::string& what)
{
    fail(LUMICREST_PHOTO_UNREADABLE, describe(f, "BMP header absurd: " + what));
}

[[noreturn]] void truncated(const PhotoFile& f, const std::string& what)
{
    fail(LUMICREST_PHOTO_TRUNCATED, describe(f, "BMP truncated: " + what));
}

void readAt(const PhotoFile& f, uint64_t offset, unsigned char* buffer, size_t bytes, const char* what)
{
    if (offset > f.size || bytes > f.size - offset)
        truncated(f, what);
    if (fseeko(f.file, static_cast<off_t>(offset), SEEK_SET) != 0 || std::fread(buffer, 1, bytes, f.file) != bytes)
        truncated(f, what);
}

} // namespace

void decodeBmp(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height)
{
    // File header (14 bytes), then the DIB header, which starts with its size.
    unsigned char header[14 + 124 + 12] = {};
    readAt(f, 0, header, 18, "the file ends inside its header");
    const uint32_t pixelOffset = le32(header + 10);
    const uint32_t dibSize = le32(header + 14);
    if (!knownHeaderSize(dibSize))
        absurd(f, "DIB header size " + std::to_string(dibSize));
    readAt(f, 14, header + 14, dibSize, "the file ends inside its header");

    long long w = 0;
    long long h = 0;
    uint32_t planes = 1, bpp = 0, compression = kBiRgb, colorsUsed = 0;
    if (dibSize == 12)
    {
        w = le16(header + 18);
        h = le16(header + 20);
        planes = le16(header + 22);
        bpp = le16(header + 24);
    }
    else
    {
        w = static_cast<int32_t>(le32(header + 18));
        h = static_cast<int32_t>(le32(header + 22));
        planes = le16(header + 26);
        bpp = le16(header + 28);
        if (dibSize >= 20)
            compression = le32(header + 30);
        if (dibSize >= 36)
            colorsUsed = le32(header + 46);
    }
    const bool topDown = h < 0;
    if (topDown)
        h = -h;
    if (planes != 1)
        absurd(f, std::to_string(planes) + " planes");

    // Where the masks of BI_BITFIELDS are: inside V2+ headers, else after INFO.
    uint64_t tableOffset = 14 + dibSize;
    int pick[3] = {2, 1, 0}; // R, G, B byte positions in a pixel (BGR order)
    const bool os2 = dibSize == 16 || dibSize == 64;
    if (compression == kBiBitfields && !os2)
    {
        unsigned char masks[12];
        if (dibSize >= 52)
            std::memcpy(masks, header + 54, 12);
        else
        {
            readAt(f, tableOffset, masks, 12, "the file ends inside the colour masks");
            tableOffset += 12;
        }
        const int r = maskByte(le32(masks)), g = maskByte(le32(masks + 4)), b = maskByte(le32(masks + 8));
        if (bpp != 32 || r < 0 || g < 0 || b < 0)
            fail(LUMICREST_FORMAT_NOT_SUPPORTED, describe(f, "BMP bit fields other than 8-bit masks in 32 bits"));
        pick[0] = r;
        pick[1] = g;
        pick[2] = b;
    }
    else if (compression != kBiRgb)
    {
        const char* name = compression == kBiRle8 ? "RLE8" : compression == kBiRle4 ? "RLE4"
                           : compression == kBiJpeg ? "JPEG" : compression == kBiPng ? "PNG"
                           : compression == kBiAlphaBitfields ? "alpha bit fields" : "unknown";
        fail(LUMICREST_FORMAT_NOT_SUPPORTED,
             describe(f, std::string("BMP compression ") + name + " (" + std::to_string(compression) +
                             ") not supported; only uncompressed BMP is"));
    }
    if (bpp == 1 || bpp == 2 || bpp == 4 || bpp == 16)
        fail(LUMICREST_FORMAT_NOT_SUPPORTED,
             describe(f, "BMP with " + std::to_string(bpp) + " bits per pixel not supported (8, 24, 32 are)"));
    if (bpp != 8 && bpp != 24 && bpp != 32)
        absurd(f, std::to_string(bpp) + " bits per pixel");

    checkSize(f, "BMP", w, h, limits);
    width = static_cast<int>(w);
    height = static_cast<int>(h);

    // Palette: 4 bytes per entry (3 for the core header); missing entries black.
    unsigned char palette[256][3] = {};
    uint32_t paletteSize = 0;
    bool grey = false;
    if (bpp == 8)
    {
        paletteSize = colorsUsed == 0 ? 256 : colorsUsed;
        if (paletteSize > 256)
            absurd(f, std::to_string(colorsUsed) + " palette colours");
        const uint32_t entry = dibSize == 12 ? 3 : 4;
        if (tableOffset + static_cast<uint64_t>(paletteSize) * entry > pixelOffset)
            absurd(f, "the palette overlaps the pixels");
        unsigned char raw[256 * 4];
        readAt(f, tableOffset, raw, paletteSize * entry, "the file ends inside the palette");
        grey = true;
        for (uint32_t i = 0; i < paletteSize; ++i)
        {
            palette[i][0] = raw[i * entry + 2];
            palette[i][1] = raw[i * entry + 1];
            palette[i][2] = raw[i * entry];
            grey = grey && palette[i][0] == palette[i][1] && palette[i][1] == palette[i][2];
        }
    }

    if (pixelOffset < tableOffset)
        absurd(f, "pixel data starts inside the header");
    const uint64_t rowBytes = (static_cast<uint64_t>(w) * bpp + 7) / 8;
    const uint64_t stride = ((static_cast<uint64_t>(w) * bpp + 31) / 32) * 4;
    // The last row's padding may be missing.
    const uint64_t need = stride * static_cast<uint64_t>(h - 1) + rowBytes;
    if (pixelOffset > f.size || f.size - pixelOffset < need)
        truncated(f, "the pixel data is shorter than the header declares (" + std::to_string(need) + " bytes from " +
                         std::to_string(pixelOffset) + ", the file has " + std::to_string(f.size) + ")");
    if (!photo)
        return;

    const int channels = bpp == 8 && grey ? 1 : 3;
    if (!allocatePhoto(*photo, width, height, channels))
        fail(LUMICREST_OUT_OF_MEMORY, describe(f, "out of memory for the pixel planes"));
    std::vector<unsigned char> row(static_cast<size_t>(stride));
    if (fseeko(f.file, static_cast<off_t>(pixelOffset), SEEK_SET) != 0)
        truncated(f, "cannot seek to the pixel data");
    for (int i = 0; i < height; ++i)
    {
        const size_t bytes = static_cast<size_t>(i + 1 < height ? stride : rowBytes);
        if (std::fread(row.data(), 1, bytes, f.file) != bytes)
            truncated(f, "the file ends inside the pixel data");
        const int y = topDown ? i : height - 1 - i;
        const RowTarget t = rowTarget(*photo, y);
        if (bpp == 8)
        {
            for (int c = 0; c < channels; ++c)
            {
                float* d = t.planes[c];
                for (int x = 0; x < width; ++x)
                    d[x] = palette[row[static_cast<size_t>(x)]][c];
            }
        }
        else
        {
            storeRow8(row.data(), width, static_cast<int>(bpp / 8), pick, t);
        }
    }
}

} // namespace io
} // namespace lumicrest
