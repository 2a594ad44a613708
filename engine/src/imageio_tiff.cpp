// TIFF through libtiff (4.5 or later for per-handle message handlers).
//
// The file is read through our own client procedures on the already opened
// stream (no memory mapping, so a file truncated under us cannot fault).
// libtiff's messages go to per-handle handlers that record them and report
// them handled, so libtiff's default handlers never print to stderr and no
// process-wide handler is changed. Pixels are read with TIFFReadScanline
// (strips; libtiff reads compressed strips piecewise) or TIFFReadEncodedTile
// (tiles) into a row- or tile-sized buffer; 16-bit samples stay 16-bit until
// they are scaled into the float planes.

#include "imageio_internal.h"
#include "status.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <tiffio.h>

namespace lumicrest
{
namespace io
{
namespace
{

// A tile buffer larger than this is refused as absurd (a 4096x4096 RGB 16-bit
// tile, far beyond any real tile, needs 96 MiB).
constexpr uint64_t kMaxTileBytes = 256ULL << 20;

struct TiffClient
{
    std::FILE* file = nullptr;
    uint64_t size = 0;
    char error[512] = {};    // first error message
    bool readError = false;  // libtiff could not read bytes it expected
    bool outOfMemory = false;
};

tmsize_t tiffRead(thandle_t h, void* buffer, tmsize_t size)
{
    auto* c = static_cast<TiffClient*>(h);
    if (size <= 0)
        return 0;
    return static_cast<tmsize_t>(std::fread(buffer, 1, static_cast<size_t>(size), c->file));
}

tmsize_t tiffWrite(thandle_t, void*, tmsize_t)
{
    return -1; // read only
}

toff_t tiffSeek(thandle_t h, toff_t offset, int whence)
{
    auto* c = static_cast<TiffClient*>(h);
    if (offset > static_cast<toff_t>(INT64_MAX) && whence == SEEK_SET)
        return static_cast<toff_t>(-1);
    if (fseeko(c->file, static_cast<off_t>(offset), whence) != 0)
        return static_cast<toff_t>(-1);
    const off_t pos = ftello(c->file);
    return pos < 0 ? static_cast<toff_t>(-1) : static_cast<toff_t>(pos);
}

int tiffClose(thandle_t)
{
    return 0; // the stream belongs to PhotoFile
}

toff_t tiffSize(thandle_t h)
{
    return static_cast<TiffClient*>(h)->size;
}

int tiffMap(thandle_t, void**, toff_t*)
{
    return 0; // no mapping
}

void tiffUnmap(thandle_t, void*, toff_t)
{
}

int tiffErrorHandler(TIFF* tif, void* user, const char* module, const char* fmt, va_list ap)
{
    auto* c = static_cast<TiffClient*>(user);
    char text[400];
    std::vsnprintf(text, sizeof text, fmt, ap);
    if (std::strstr(text, "Read error") || std::strstr(text, "Cannot read") || std::strstr(text, "end of file"))
        c->readError = true;
    if (std::strstr(text, "Out of memory") || std::strstr(text, "out of memory") ||
        std::strstr(text, "Cannot allocate") || std::strstr(text, "Failed to allocate"))
        c->outOfMemory = true;
    if (module && tif && std::strcmp(module, TIFFFileName(tif)) == 0)
        module = nullptr; // the file name: the failure detail names the file already
    if (c->error[0] == '\0')
        std::snprintf(c->error, sizeof c->error, "%s%s%s", module ? module : "", module ? ": " : "", text);
    return 1; // handled: libtiff's global handlers are not called
}

int tiffWarningHandler(TIFF*, void*, const char*, const char*, va_list)
{
    return 1; // ignored, and kept off stderr
}

struct TiffCloser
{
    void operator()(TIFF* t) const noexcept { TIFFClose(t); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

struct MallocFree
{
    void operator()(void* p) const noexcept { std::free(p); }
};
using Buffer = std::unique_ptr<unsigned char, MallocFree>;

uint64_t readUnsigned(const unsigned char* p, int bytes, bool little)
{
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i)
        v |= static_cast<uint64_t>(p[little ? i : bytes - 1 - i]) << (8 * i);
    return v;
}

// Does the first directory (IFD) lie, at least partly, beyond the end of the
// file? Then the file was cut, and libtiff's refusal to open it means 440.
bool firstDirectoryCut(const PhotoFile& f)
{
    if (f.headSize < 8)
        return true;
    const bool little = f.head[0] == 'I';
    const bool big = readUnsigned(f.head + 2, 2, little) == 43;
    if (big && f.headSize < 16)
        return true;
    const uint64_t ifd = big ? readUnsigned(f.head + 8, 8, little) : readUnsigned(f.head + 4, 4, little);
    const uint64_t countBytes = big ? 8 : 2;
    if (ifd > f.size || f.size - ifd < countBytes)
        return true;
    unsigned char buffer[8];
    if (fseeko(f.file, static_cast<off_t>(ifd), SEEK_SET) != 0 ||
        std::fread(buffer, 1, countBytes, f.file) != countBytes)
        return true;
    const uint64_t entries = readUnsigned(buffer, static_cast<int>(countBytes), little);
    const uint64_t entryBytes = big ? 20 : 12;
    const uint64_t nextBytes = big ? 8 : 4;
    const uint64_t need = countBytes + (entries > (1ULL << 40) ? (1ULL << 50) : entries * entryBytes) + nextBytes;
    return f.size - ifd < need;
}

// A photo's layout: which samples become channels and how.
struct Layout
{
    int channels = 0;             // 1 or 3 planes out
    int pick[3] = {0, 1, 2};      // sample index of each channel
    int samples = 1;              // samples per pixel in the file
    int bits = 8;                 // 8 or 16
    bool separate = false;        // PLANARCONFIG_SEPARATE
    bool invert = false;          // MINISWHITE
    bool palette = false;         // expand through the colour map
    float map[3][256] = {};       // palette, 0..255 scale
};

[[noreturn]] void unsupported(const PhotoFile& f, const std::string& what)
{
    fail(LUMICREST_FORMAT_NOT_SUPPORTED, describe(f, "TIFF " + what + " not supported"));
}

void readLayout(const PhotoFile& f, TIFF* tif, Layout& l)
{
    uint16_t bits = 1, samples = 1, planar = PLANARCONFIG_CONTIG, format = SAMPLEFORMAT_UINT;
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    uint16_t photometric = 0;
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric))
        photometric = samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;

    if (!TIFFIsCODECConfigured(compression))
        unsupported(f, "compression " + std::to_string(compression));
    if (bits != 8 && bits != 16)
        unsupported(f, std::to_string(bits) + "-bit samples");
    if (format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID)
        unsupported(f, "sample format " + std::to_string(format) + " (only unsigned integers)");
    if (samples < 1)
        fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF declares no samples per pixel"));
    l.bits = bits;
    l.samples = samples;
    l.separate = planar == PLANARCONFIG_SEPARATE;

    if (photometric == PHOTOMETRIC_YCBCR)
    {
        // JPEG-compressed YCbCr: libtiff's JPEG codec converts to RGB.
        if (compression != COMPRESSION_JPEG || l.separate || bits != 8)
            unsupported(f, "YCbCr other than JPEG-compressed");
        if (!TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB))
            unsupported(f, "JPEG colour conversion");
        photometric = PHOTOMETRIC_RGB;
    }
    switch (photometric)
    {
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
        l.channels = 1; // further samples are alpha or extra samples
        l.invert = photometric == PHOTOMETRIC_MINISWHITE;
        break;
    case PHOTOMETRIC_RGB:
        if (samples < 3)
            fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF RGB with fewer than 3 samples per pixel"));
        l.channels = 3; // a fourth sample (alpha) and beyond are dropped
        break;
    case PHOTOMETRIC_PALETTE:
    {
        if (samples != 1 || bits != 8)
            unsupported(f, "palette other than 8-bit");
        uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
        if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &r, &g, &b) || !r || !g || !b)
            fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF palette image without a colour map"));
        bool grey = true;
        for (int i = 0; i < 256; ++i)
        {
            l.map[0][i] = static_cast<float>(r[i]) * kScale16;
            l.map[1][i] = static_cast<float>(g[i]) * kScale16;
            l.map[2][i] = static_cast<float>(b[i]) * kScale16;
            grey = grey && r[i] == g[i] && g[i] == b[i];
        }
        l.palette = true;
        l.channels = grey ? 1 : 3;
        l.separate = false; // one sample per pixel: both layouts are the same
        break;
    }
    default:
        unsupported(f, "photometric interpretation " + std::to_string(photometric));
    }
}

// Every strip or tile must lie inside the file; one reaching past its end
// means the file was cut (440), reported before anything is decoded. One
// without data (offset or byte count 0, as a writer leaves the tiles it never
// wrote) makes the photo incomplete (440) too: libtiff would hand it out as
// zeros or stale samples.
void checkStriles(const PhotoFile& f, TIFF* tif)
{
    const uint32_t count = TIFFIsTiled(tif) ? TIFFNumberOfTiles(tif) : TIFFNumberOfStrips(tif);
    for (uint32_t i = 0; i < count; ++i)
    {
        int err = 0;
        const uint64_t offset = TIFFGetStrileOffsetWithErr(tif, i, &err);
        if (err)
            fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF strip or tile offsets unreadable"));
        const uint64_t bytes = TIFFGetStrileByteCountWithErr(tif, i, &err);
        if (err)
            fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF strip or tile sizes unreadable"));
        if (offset == 0 || bytes == 0)
            fail(LUMICREST_PHOTO_TRUNCATED,
                 describe(f, "TIFF incomplete: strip or tile " + std::to_string(i) + " of " + std::to_string(count) +
                                 " has no data"));
        if (offset > f.size || bytes > f.size - offset)
            fail(LUMICREST_PHOTO_TRUNCATED, describe(f, "TIFF truncated: strip or tile " + std::to_string(i) +
                                                            " ends beyond the end of the file"));
    }
}

// count pixels from src (stride samples apart, first sample at src) into one
// plane row.
void storeSamples(const Layout& l, const unsigned char* src, int count, int stride, float* const* dst, int channels,
                  const int* pick)
{
    RowTarget t;
    t.channels = channels;
    for (int c = 0; c < channels; ++c)
        t.planes[c] = dst[c];
    if (l.palette)
    {
        for (int c = 0; c < channels; ++c)
        {
            const float* map = l.map[c];
            float* d = dst[c];
            for (int i = 0; i < count; ++i)
                d[i] = map[src[static_cast<size_t>(i) * stride]];
        }
        return;
    }
    if (l.bits == 8)
        storeRow8(src, count, stride, pick, t);
    else
        storeRow16(reinterpret_cast<const uint16_t*>(src), count, stride, pick, t);
    if (l.invert)
        for (int c = 0; c < channels; ++c)
            for (int i = 0; i < count; ++i)
                dst[c][i] = 255.0f - dst[c][i];
}

[[noreturn]] void readFailed(const PhotoFile& f, const TiffClient& client, const char* what)
{
    if (client.outOfMemory)
        fail(LUMICREST_OUT_OF_MEMORY, describe(f, std::string("TIFF ") + what + ": " + client.error));
    if (client.readError)
        fail(LUMICREST_PHOTO_TRUNCATED, describe(f, std::string("TIFF truncated: ") + client.error));
    fail(LUMICREST_PHOTO_CORRUPT, describe(f, std::string("TIFF data corrupt (") + what + "): " + client.error));
}

Buffer allocateBuffer(uint64_t bytes)
{
    if (bytes == 0 || bytes > static_cast<uint64_t>(SIZE_MAX))
        return Buffer();
    Buffer b(static_cast<unsigned char*>(std::malloc(static_cast<size_t>(bytes))));
    if (!b)
        throw std::bad_alloc();
    return b;
}

void readStrips(const PhotoFile& f, TIFF* tif, TiffClient& client, const Layout& l, Photo& photo)
{
    const uint64_t lineBytes = static_cast<uint64_t>(TIFFScanlineSize64(tif));
    const uint64_t needBytes = static_cast<uint64_t>(photo.width) * (l.separate ? 1 : l.samples) * (l.bits / 8);
    if (lineBytes < needBytes)
        fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF scanline size inconsistent with the image width"));
    Buffer line = allocateBuffer(lineBytes);
    // Separate planes are read plane by plane (TIFFReadScanline needs rows in
    // order within a plane); unused planes (alpha) are never read.
    const int passes = l.separate ? photo.channels : 1;
    for (int p = 0; p < passes; ++p)
    {
        const uint16_t sample = static_cast<uint16_t>(l.separate ? l.pick[p] : 0);
        for (int y = 0; y < photo.height; ++y)
        {
            if (TIFFReadScanline(tif, line.get(), static_cast<uint32_t>(y), sample) < 0)
                readFailed(f, client, "scanline");
            float* dst[3] = {};
            if (l.separate)
            {
                dst[0] = photo.planes[p].row(y);
                static const int first[1] = {0};
                storeSamples(l, line.get(), photo.width, 1, dst, 1, first);
            }
            else
            {
                for (int c = 0; c < photo.channels; ++c)
                    dst[c] = photo.planes[c].row(y);
                storeSamples(l, line.get(), photo.width, l.samples, dst, photo.channels, l.pick);
            }
        }
    }
}

void readTiles(const PhotoFile& f, TIFF* tif, TiffClient& client, const Layout& l, Photo& photo)
{
    uint32_t tileW = 0, tileH = 0;
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tileW);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileH);
    if (tileW == 0 || tileH == 0)
        fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF tile size is zero"));
    const uint64_t tileBytes = static_cast<uint64_t>(TIFFTileSize64(tif));
    const uint64_t rowBytes = static_cast<uint64_t>(TIFFTileRowSize64(tif));
    if (tileBytes == 0 || rowBytes == 0 || tileBytes > kMaxTileBytes)
        fail(LUMICREST_PHOTO_UNREADABLE,
             describe(f, "TIFF tiles of " + std::to_string(tileW) + "x" + std::to_string(tileH) + " are absurd"));
    const uint64_t needRow = static_cast<uint64_t>(tileW) * (l.separate ? 1 : l.samples) * (l.bits / 8);
    if (rowBytes < needRow || tileBytes < rowBytes * tileH)
        fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF tile size inconsistent"));
    Buffer tile = allocateBuffer(tileBytes);
    const int passes = l.separate ? photo.channels : 1;
    for (uint32_t ty = 0; ty < static_cast<uint32_t>(photo.height); ty += tileH)
    {
        const int rows = static_cast<int>(std::min<uint64_t>(tileH, static_cast<uint32_t>(photo.height) - ty));
        for (uint32_t tx = 0; tx < static_cast<uint32_t>(photo.width); tx += tileW)
        {
            const int cols = static_cast<int>(std::min<uint64_t>(tileW, static_cast<uint32_t>(photo.width) - tx));
            for (int p = 0; p < passes; ++p)
            {
                const uint16_t sample = static_cast<uint16_t>(l.separate ? l.pick[p] : 0);
                const uint32_t index = TIFFComputeTile(tif, tx, ty, 0, sample);
                if (TIFFReadEncodedTile(tif, index, tile.get(), static_cast<tmsize_t>(tileBytes)) < 0)
                    readFailed(f, client, "tile");
                for (int r = 0; r < rows; ++r)
                {
                    const unsigned char* src = tile.get() + static_cast<size_t>(r) * rowBytes;
                    const int y = static_cast<int>(ty) + r;
                    float* dst[3] = {};
                    if (l.separate)
                    {
                        dst[0] = photo.planes[p].row(y) + tx;
                        static const int first[1] = {0};
                        storeSamples(l, src, cols, 1, dst, 1, first);
                    }
                    else
                    {
                        for (int c = 0; c < photo.channels; ++c)
                            dst[c] = photo.planes[c].row(y) + tx;
                        storeSamples(l, src, cols, l.samples, dst, photo.channels, l.pick);
                    }
                }
            }
        }
    }
}

} // namespace

void decodeTiff(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height)
{
    TiffClient client;
    client.file = f.file;
    client.size = f.size;

    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (!options)
        fail(LUMICREST_OUT_OF_MEMORY, describe(f, "cannot allocate libtiff options"));
    TIFFOpenOptionsSetErrorHandlerExtR(options, tiffErrorHandler, &client);
    TIFFOpenOptionsSetWarningHandlerExtR(options, tiffWarningHandler, &client);
    // "r": read only; "m": no memory mapping. Opening reads the first
    // directory, which holds the size.
    TiffHandle tif(TIFFClientOpenExt(f.path.c_str(), "rm", &client, tiffRead, tiffWrite, tiffSeek, tiffClose,
                                     tiffSize, tiffMap, tiffUnmap, options));
    TIFFOpenOptionsFree(options);
    if (!tif)
    {
        if (client.outOfMemory)
            fail(LUMICREST_OUT_OF_MEMORY, describe(f, std::string("TIFF: ") + client.error));
        if (firstDirectoryCut(f))
            fail(LUMICREST_PHOTO_TRUNCATED, describe(f, "TIFF truncated: the first directory lies beyond the end"));
        fail(LUMICREST_PHOTO_CORRUPT, describe(f, std::string("TIFF structure corrupt: ") + client.error));
    }

    uint32_t w = 0, h = 0;
    if (!TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &h))
        fail(LUMICREST_PHOTO_CORRUPT, describe(f, "TIFF without image width or length"));
    checkSize(f, "TIFF", w, h, limits);
    width = static_cast<int>(w);
    height = static_cast<int>(h);
    if (!photo)
        return;

    auto layout = std::make_unique<Layout>();
    readLayout(f, tif.get(), *layout);
    checkStriles(f, tif.get());
    if (!allocatePhoto(*photo, width, height, layout->channels))
        fail(LUMICREST_OUT_OF_MEMORY, describe(f, "out of memory for the pixel planes"));
    if (TIFFIsTiled(tif.get()))
        readTiles(f, tif.get(), client, *layout, *photo);
    else
        readStrips(f, tif.get(), client, *layout, *photo);
}

} // namespace io
} // namespace lumicrest
