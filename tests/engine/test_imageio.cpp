// Reading photos (engine/src/imageio*.cpp, exif.cpp): every format, bit depth
// and layout with known pixel values, EXIF, every failure value (one table of
// damaged files, plus the checked-in fixtures in tests/data/broken named after
// their value), silence on stderr and concurrent decoding.

#include "enginetestutils.h"
#include "imageio.h"
#include "status.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // std::auto_ptr in exiv2 0.27
#endif
#include <exiv2/exiv2.hpp>

namespace fs = std::filesystem;
using enginetest::inParallel;
using enginetest::readBytes;
using enginetest::TempDir;
using lumicrest::Photo;
using lumicrest::PhotoFormat;
using lumicrest::PhotoInfo;
using lumicrest::ReadLimits;

namespace
{

// ---------------------------------------------------------------- helpers

using Bytes = std::vector<unsigned char>;
using Sample = std::function<int(int x, int y, int c)>;
using Want = std::function<float(int x, int y, int c)>;

// Busy patterns for lossless formats (every value class occurs).
int busy8(int x, int y, int c)
{
    return (x * 7 + y * 13 + c * 71 + (x * y) % 5) & 0xFF;
}
int busy16(int x, int y, int c)
{
    return (x * 1031 + y * 2053 + c * 7919 + x * y * 3) & 0xFFFF;
}
// A smooth pattern for JPEG, so the lossy error stays small.
int smooth8(int x, int y, int c)
{
    return 30 + x * 2 + y + c * 20;
}
float same8(int x, int y, int c)
{
    return float(busy8(x, y, c));
}
float scaled16(int x, int y, int c)
{
    return float(busy16(x, y, c) * 255.0 / 65535.0);
}

void writeBytes(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

size_t findBytes(const Bytes& bytes, std::initializer_list<unsigned char> needle)
{
    const auto it = std::search(bytes.begin(), bytes.end(), needle.begin(), needle.end());
    return it == bytes.end() ? std::string::npos : static_cast<size_t>(it - bytes.begin());
}

// The result value of a read (200 on success).
template <class F> int32_t codeOf(F&& read)
{
    try
    {
        read();
        return 200;
    }
    catch (const lumicrest::Failure& f)
    {
        return f.code();
    }
    catch (...)
    {
        return -1;
    }
}

int32_t readCode(const std::string& path, const ReadLimits& limits = ReadLimits())
{
    return codeOf([&] { lumicrest::readPhoto(path, limits); });
}

int32_t sizeCode(const std::string& path)
{
    int w = 0, h = 0;
    return codeOf([&] { lumicrest::readPhotoSize(path, w, h); });
}

// Compares every sample; reports the first few mismatches.
void expectPhoto(const Photo& p, int width, int height, int channels, const Want& want, float tolerance)
{
    ASSERT_EQ(p.width, width);
    ASSERT_EQ(p.height, height);
    ASSERT_EQ(p.channels, channels);
    int reported = 0;
    double worst = 0.0;
    for (int c = 0; c < channels; ++c)
    {
        ASSERT_EQ(p.planes[c].width(), width);
        ASSERT_EQ(p.planes[c].height(), height);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
            {
                const double diff = std::fabs(double(p.planes[c].at(x, y)) - double(want(x, y, c)));
                worst = std::max(worst, diff);
                if (diff > tolerance && reported++ < 5)
                    ADD_FAILURE() << "channel " << c << " at (" << x << ", " << y << "): got " << p.planes[c].at(x, y)
                                  << ", want " << want(x, y, c);
            }
    }
    for (int c = channels; c < 3; ++c)
        EXPECT_TRUE(p.planes[c].empty()) << "unused plane " << c << " allocated";
    EXPECT_LE(worst, tolerance);
}

// The decoded pixels and the size read from the header alone.
void expectDecoded(const std::string& path, int width, int height, int channels, const Want& want, float tolerance)
{
    expectPhoto(lumicrest::readPhoto(path), width, height, channels, want, tolerance);
    int w = 0, h = 0;
    lumicrest::readPhotoSize(path, w, h);
    EXPECT_EQ(std::make_pair(w, h), std::make_pair(width, height));
}

bool samePixels(const Photo& a, const Photo& b)
{
    if (a.width != b.width || a.height != b.height || a.channels != b.channels)
        return false;
    for (int c = 0; c < a.channels; ++c)
        if (std::memcmp(a.planes[c].data(), b.planes[c].data(), a.planes[c].size() * sizeof(float)) != 0)
            return false;
    return true;
}

// ---------------------------------------------------------------- writers

void writeJpeg(const std::string& path, int w, int h, int components, const Sample& sample,
               bool progressive = false, int quality = 95)
{
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    jpeg_stdio_dest(&c, f);
    c.image_width = static_cast<JDIMENSION>(w);
    c.image_height = static_cast<JDIMENSION>(h);
    c.input_components = components;
    c.in_color_space = components == 1 ? JCS_GRAYSCALE : components == 3 ? JCS_RGB : JCS_CMYK;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    for (int i = 0; i < c.num_components; ++i)
        c.comp_info[i].h_samp_factor = c.comp_info[i].v_samp_factor = 1; // 4:4:4
    if (progressive)
        jpeg_simple_progression(&c);
    jpeg_start_compress(&c, TRUE);
    std::vector<JSAMPLE> row(static_cast<size_t>(w * components));
    for (int y = 0; y < h; ++y)
    {
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < components; ++k)
                row[static_cast<size_t>(x * components + k)] = static_cast<JSAMPLE>(sample(x, y, k));
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&c, rows, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::fclose(f);
}

// A plain libjpeg decode of a valid file, with the same settings as the engine.
std::vector<unsigned char> referenceJpeg(const std::string& path, int& w, int& h, int& components)
{
    jpeg_decompress_struct d;
    jpeg_error_mgr err;
    d.err = jpeg_std_error(&err);
    jpeg_create_decompress(&d);
    FILE* f = std::fopen(path.c_str(), "rb");
    jpeg_stdio_src(&d, f);
    jpeg_read_header(&d, TRUE);
    d.out_color_space = d.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    d.dct_method = JDCT_ISLOW;
    jpeg_start_decompress(&d);
    w = static_cast<int>(d.output_width);
    h = static_cast<int>(d.output_height);
    components = d.output_components;
    std::vector<unsigned char> pixels(static_cast<size_t>(w) * h * components);
    while (d.output_scanline < d.output_height)
    {
        JSAMPROW row = pixels.data() + static_cast<size_t>(d.output_scanline) * w * components;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    std::fclose(f);
    return pixels;
}

struct PngOptions
{
    int colorType = PNG_COLOR_TYPE_RGB;
    int bitDepth = 8;
    bool interlaced = false;
    std::vector<png_color> palette;
    std::vector<unsigned char> transparency;
};

// sample(x, y, k) gives sample k of a pixel as stored (palette index, grey,
// R G B, alpha).
void writePng(const std::string& path, int w, int h, const PngOptions& o, const Sample& sample)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    ASSERT_FALSE(setjmp(png_jmpbuf(png)));
    png_init_io(png, f);
    png_set_IHDR(png, info, static_cast<png_uint_32>(w), static_cast<png_uint_32>(h), o.bitDepth, o.colorType,
                 o.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (!o.palette.empty())
        png_set_PLTE(png, info, o.palette.data(), static_cast<int>(o.palette.size()));
    if (!o.transparency.empty())
        png_set_tRNS(png, info, o.transparency.data(), static_cast<int>(o.transparency.size()), nullptr);
    png_write_info(png, info);
    const int samples = o.colorType == PNG_COLOR_TYPE_GRAY_ALPHA ? 2
                        : o.colorType == PNG_COLOR_TYPE_RGB     ? 3
                        : o.colorType == PNG_COLOR_TYPE_RGB_ALPHA ? 4
                                                                  : 1;
    const size_t rowBytes = (static_cast<size_t>(w) * samples * o.bitDepth + 7) / 8;
    std::vector<std::vector<png_byte>> rows(static_cast<size_t>(h), std::vector<png_byte>(rowBytes, 0));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < samples; ++k)
            {
                const int v = sample(x, y, k);
                const size_t i = static_cast<size_t>(x) * samples + k;
                auto& row = rows[static_cast<size_t>(y)];
                if (o.bitDepth == 16)
                {
                    row[2 * i] = static_cast<png_byte>(v >> 8);
                    row[2 * i + 1] = static_cast<png_byte>(v & 0xFF);
                }
                else if (o.bitDepth == 8)
                {
                    row[i] = static_cast<png_byte>(v);
                }
                else // 1, 2, 4 bits, one sample per pixel, most significant first
                {
                    const size_t bit = i * o.bitDepth;
                    row[bit / 8] |= static_cast<png_byte>(v << (8 - o.bitDepth - bit % 8));
                }
            }
    std::vector<png_bytep> pointers;
    for (auto& r : rows)
        pointers.push_back(r.data());
    png_write_image(png, pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
}

struct TiffOptions
{
    int samples = 3;
    int bits = 8;
    bool separate = false;
    bool tiled = false;
    int tileWidth = 16;
    int tileHeight = 16;
    int rowsPerStrip = 3;
    int compression = COMPRESSION_NONE;
    int photometric = PHOTOMETRIC_RGB;
    bool alpha = false; // the last sample is associated alpha
    std::vector<uint16_t> colormap; // 3 x 256 for palette images
    std::string make;
    std::string model;
};

void writeTiff(const std::string& path, int w, int h, const TiffOptions& o, const Sample& sample)
{
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(w));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(h));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(o.samples));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(o.bits));
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, o.separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, static_cast<uint16_t>(o.photometric));
    TIFFSetField(tif, TIFFTAG_COMPRESSION, static_cast<uint16_t>(o.compression));
    if (o.alpha)
    {
        uint16_t extra[1] = {EXTRASAMPLE_ASSOCALPHA};
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, extra);
    }
    if (!o.colormap.empty())
        TIFFSetField(tif, TIFFTAG_COLORMAP, o.colormap.data(), o.colormap.data() + 256, o.colormap.data() + 512);
    if (!o.make.empty())
        TIFFSetField(tif, TIFFTAG_MAKE, o.make.c_str());
    if (!o.model.empty())
        TIFFSetField(tif, TIFFTAG_MODEL, o.model.c_str());
    if (o.compression == COMPRESSION_JPEG)
    {
        TIFFSetField(tif, TIFFTAG_JPEGQUALITY, 95);
        TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    }
    const int bytes = o.bits / 8;
    const int planes = o.separate ? o.samples : 1;
    const int perPixel = o.separate ? 1 : o.samples;
    // A tile or a row of plane p from (x0, y0) on; what lies outside the image is 0.
    const auto fill = [&](std::vector<unsigned char>& region, int x0, int y0, int rw, int rh, int p) {
        std::fill(region.begin(), region.end(), 0);
        for (int r = 0; r < rh; ++r)
            for (int i = 0; i < rw * perPixel; ++i)
            {
                const int x = x0 + i / perPixel, y = y0 + r;
                const auto v = static_cast<uint16_t>(x < w && y < h ? sample(x, y, o.separate ? p : i % perPixel) : 0);
                unsigned char* at = &region[(static_cast<size_t>(r) * rw * perPixel + i) * bytes];
                if (bytes == 1)
                    *at = static_cast<unsigned char>(v);
                else
                    std::memcpy(at, &v, 2); // native order: libtiff writes it as such
            }
    };
    if (o.tiled)
    {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, static_cast<uint32_t>(o.tileWidth));
        TIFFSetField(tif, TIFFTAG_TILELENGTH, static_cast<uint32_t>(o.tileHeight));
        std::vector<unsigned char> tile(static_cast<size_t>(TIFFTileSize(tif)));
        for (int p = 0; p < planes; ++p)
            for (int ty = 0; ty < h; ty += o.tileHeight)
                for (int tx = 0; tx < w; tx += o.tileWidth)
                {
                    fill(tile, tx, ty, o.tileWidth, o.tileHeight, p);
                    const uint32_t index = TIFFComputeTile(tif, static_cast<uint32_t>(tx), static_cast<uint32_t>(ty),
                                                           0, static_cast<uint16_t>(p));
                    ASSERT_GE(TIFFWriteEncodedTile(tif, index, tile.data(), static_cast<tmsize_t>(tile.size())), 0);
                }
    }
    else
    {
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, static_cast<uint32_t>(o.rowsPerStrip));
        std::vector<unsigned char> line(static_cast<size_t>(w) * perPixel * bytes);
        for (int p = 0; p < planes; ++p)
            for (int y = 0; y < h; ++y)
            {
                fill(line, 0, y, w, 1, p);
                ASSERT_GE(TIFFWriteScanline(tif, line.data(), static_cast<uint32_t>(y), static_cast<uint16_t>(p)), 0);
            }
    }
    TIFFClose(tif);
}

void appendLittleEndian(Bytes& b, uint32_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

// A grey TIFF written by hand with its directory first and the pixels last, so
// that cutting the file cuts the pixel data, not the directory. Other bit
// depths and sample formats make layouts libtiff's writer would not.
std::vector<unsigned char> handTiff(int w, int h, int bits = 8, int format = SAMPLEFORMAT_UINT)
{
    std::vector<unsigned char> b = {'I', 'I'};
    const auto u16 = [&](uint32_t v) { appendLittleEndian(b, v, 2); };
    const auto u32 = [&](uint32_t v) { appendLittleEndian(b, v, 4); };
    const uint32_t entries = format == SAMPLEFORMAT_UINT ? 9 : 10;
    const uint32_t dataOffset = 8 + 2 + entries * 12 + 4;
    const uint32_t bytes = static_cast<uint32_t>(w * h * std::max(1, bits / 8));
    u16(42);
    u32(8);
    u16(entries);
    auto entry = [&](uint32_t tag, uint32_t type, uint32_t value) {
        u16(tag);
        u16(type);
        u32(1);
        u32(value); // a SHORT sits in the low half, little-endian
    };
    entry(256, 4, static_cast<uint32_t>(w));
    entry(257, 4, static_cast<uint32_t>(h));
    entry(258, 3, static_cast<uint32_t>(bits));
    entry(259, 3, 1);
    entry(262, 3, 1);
    entry(273, 4, dataOffset);
    entry(277, 3, 1);
    entry(278, 4, static_cast<uint32_t>(h));
    entry(279, 4, bytes);
    if (format != SAMPLEFORMAT_UINT)
        entry(339, 3, static_cast<uint32_t>(format));
    u32(0);
    for (uint32_t i = 0; i < bytes; ++i)
        b.push_back(static_cast<unsigned char>(busy8(static_cast<int>(i) % w, static_cast<int>(i) / w, 0)));
    return b;
}

struct BmpOptions
{
    int bits = 24;
    bool topDown = false;
    uint32_t compression = 0;
    std::vector<std::array<unsigned char, 3>> palette; // R, G, B
    uint32_t headerSize = 40;
    std::vector<uint32_t> masks; // BI_BITFIELDS masks after a 40-byte header
};

// sample(x, y, k): R, G, B (24/32 bit) or the palette index (8 bit).
std::vector<unsigned char> bmpBytes(int w, int h, const BmpOptions& o, const Sample& sample)
{
    const size_t stride = ((static_cast<size_t>(w) * o.bits + 31) / 32) * 4;
    const uint32_t paletteBytes = static_cast<uint32_t>(o.palette.size() * 4);
    const uint32_t offset = 14 + o.headerSize + static_cast<uint32_t>(o.masks.size() * 4) + paletteBytes;
    Bytes b = {'B', 'M'};
    const auto u16 = [&](uint32_t v) { appendLittleEndian(b, v, 2); };
    const auto u32 = [&](uint32_t v) { appendLittleEndian(b, v, 4); };
    u32(static_cast<uint32_t>(offset + stride * h));
    u32(0);
    u32(offset);
    u32(o.headerSize);
    u32(static_cast<uint32_t>(w));
    u32(static_cast<uint32_t>(o.topDown ? -h : h));
    u16(1);
    u16(static_cast<uint32_t>(o.bits));
    u32(o.compression);
    u32(static_cast<uint32_t>(stride * h));
    u32(2835);
    u32(2835);
    u32(static_cast<uint32_t>(o.palette.size()));
    u32(0);
    while (b.size() < 14 + o.headerSize)
        b.push_back(0);
    for (uint32_t m : o.masks)
        u32(m);
    for (const auto& p : o.palette)
    {
        b.push_back(p[2]);
        b.push_back(p[1]);
        b.push_back(p[0]);
        b.push_back(0);
    }
    for (int i = 0; i < h; ++i)
    {
        const int y = o.topDown ? i : h - 1 - i;
        std::vector<unsigned char> row(stride, 0);
        for (int x = 0; x < w; ++x)
        {
            if (o.bits == 8)
                row[static_cast<size_t>(x)] = static_cast<unsigned char>(sample(x, y, 0));
            else if (o.bits == 16) // 5-5-5
            {
                const int v = ((sample(x, y, 0) >> 3) << 10) | ((sample(x, y, 1) >> 3) << 5) | (sample(x, y, 2) >> 3);
                row[static_cast<size_t>(x) * 2] = static_cast<unsigned char>(v);
                row[static_cast<size_t>(x) * 2 + 1] = static_cast<unsigned char>(v >> 8);
            }
            else
            {
                const size_t at = static_cast<size_t>(x) * (o.bits / 8);
                row[at] = static_cast<unsigned char>(sample(x, y, 2));
                row[at + 1] = static_cast<unsigned char>(sample(x, y, 1));
                row[at + 2] = static_cast<unsigned char>(sample(x, y, 0));
                if (o.bits == 32)
                    row[at + 3] = 0x5A; // alpha / unused: ignored
            }
        }
        b.insert(b.end(), row.begin(), row.end());
    }
    return b;
}

void writeExif(const std::string& path, const std::function<void(Exiv2::ExifData&)>& fill)
{
    auto image = Exiv2::ImageFactory::open(path);
    ASSERT_TRUE(image.get() != nullptr);
    image->readMetadata();
    Exiv2::ExifData exif = image->exifData();
    fill(exif);
    image->setExifData(exif);
    image->writeMetadata();
}

// Captures everything written to file descriptor 2 while alive.
class StderrCapture
{
public:
    explicit StderrCapture(const std::string& path) : m_path(path)
    {
        std::fflush(stderr);
        m_saved = dup(2);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrCapture() { restore(); }
    std::string finish()
    {
        restore();
        const auto bytes = readBytes(m_path);
        return std::string(bytes.begin(), bytes.end());
    }

private:
    void restore()
    {
        if (m_saved < 0)
            return;
        std::fflush(stderr);
        dup2(m_saved, 2);
        close(m_saved);
        m_saved = -1;
    }
    std::string m_path;
    int m_saved = -1;
};

// The bytes a writer produces.
Bytes written(const std::function<void(const std::string&)>& write)
{
    const TempDir dir("lumicrest-imageio-bytes");
    write(dir.file("photo"));
    return readBytes(dir.file("photo"));
}

Bytes jpegBytes(int components = 3)
{
    return written([&](const std::string& p) { writeJpeg(p, 128, 96, components, smooth8); });
}

Bytes pngBytes()
{
    return written([](const std::string& p) { writePng(p, 64, 48, PngOptions{PNG_COLOR_TYPE_RGB, 8}, busy8); });
}

Bytes tiffBytes(int compression = COMPRESSION_NONE)
{
    TiffOptions o;
    o.compression = compression;
    o.rowsPerStrip = 48;
    return written([&](const std::string& p) { writeTiff(p, 64, 48, o, busy8); });
}

Bytes cut(Bytes b, size_t keep)
{
    b.resize(keep);
    return b;
}

Bytes patched(Bytes b, size_t at, std::initializer_list<unsigned char> values)
{
    std::copy(values.begin(), values.end(), b.begin() + static_cast<long>(at));
    return b;
}

// A PNG declaring another size, its header checksum still valid.
Bytes pngSized(uint32_t w, uint32_t h)
{
    Bytes b = pngBytes();
    for (int i = 0; i < 4; ++i)
    {
        b[16 + i] = static_cast<unsigned char>(w >> (24 - 8 * i));
        b[20 + i] = static_cast<unsigned char>(h >> (24 - 8 * i));
    }
    const uLong crc = crc32(crc32(0L, nullptr, 0), b.data() + 12, 17);
    for (int i = 0; i < 4; ++i)
        b[29 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    return b;
}

// ---------------------------------------------------------------- damaged files

// One damaged or unsupported file and the values the full read and the size
// read must give. Cases whose fixture in tests/data/broken is the same file are
// not repeated here.
struct Damage
{
    const char* name;
    std::function<Bytes()> make;
    int32_t read;
    int32_t size;
    ReadLimits limits = ReadLimits();
};

std::vector<Damage> damages()
{
    ReadLimits narrow;
    narrow.maxSide = 60000;
    ReadLimits fewPixels;
    fewPixels.maxPixels = 64 * 48 - 1;
    ReadLimits shortSide;
    shortSide.maxSide = 63;
    const auto scan = [](const Bytes& b) { return findBytes(b, {0xFF, 0xDA}); };
    const auto jpegSized = [](int w, int h) {
        const Bytes b = jpegBytes();
        const size_t sof = findBytes(b, {0xFF, 0xC0});
        return patched(b, sof + 5, {static_cast<unsigned char>(h >> 8), static_cast<unsigned char>(h),
                                    static_cast<unsigned char>(w >> 8), static_cast<unsigned char>(w)});
    };
    const auto bmp = [](int bits, std::vector<uint32_t> masks = {}) {
        BmpOptions o;
        o.bits = bits;
        o.compression = masks.empty() ? 0 : 3;
        o.masks = masks;
        return bmpBytes(20, 10, o, busy8);
    };
    return {
        // JPEG
        {"jpeg cut inside its scan: the header still gives the size",
         [=] { const Bytes b = jpegBytes(); return cut(b, scan(b) + 200); }, 440, 200},
        {"jpeg cut inside its header", [] { return cut(jpegBytes(), 40); }, 440, 440},
        {"jpeg end marker in the middle of the scan",
         [=] {
             const Bytes b = jpegBytes();
             return patched(b, scan(b) + (b.size() - scan(b)) / 3, {0xFF, 0xD9});
         },
         412, 200},
        {"jpeg CMYK", [] { return jpegBytes(4); }, 491, 491},
        {"jpeg wider than the side limit", [=] { return jpegSized(65535, 1); }, 490, 490, narrow},
        // PNG
        {"png cut in half", [] { const Bytes b = pngBytes(); return cut(b, b.size() / 2); }, 440, 200},
        {"png cut inside its header", [] { return cut(pngBytes(), 20); }, 440, 440},
        {"png compressed data damaged",
         [] {
             Bytes b = pngBytes();
             b[findBytes(b, {'I', 'D', 'A', 'T'}) + 10] ^= 0x55;
             return b;
         },
         412, 200},
        {"png header with bit depth 7", [] { return patched(pngBytes(), 24, {7}); }, 412, 412},
        {"png zero width", [] { return pngSized(0, 48); }, 490, 490},
        // TIFF
        {"tiff written directory last, cut in half", [] { const Bytes b = tiffBytes(); return cut(b, b.size() / 2); },
         440, 440},
        {"tiff directory first, pixels cut", [] { const Bytes b = handTiff(40, 30); return cut(b, b.size() - 500); },
         440, 200},
        {"tiff LZW data damaged",
         [] {
             Bytes b = tiffBytes(COMPRESSION_LZW);
             std::fill(b.begin() + 20, b.begin() + 400, 0xFF);
             return b;
         },
         412, 200},
        {"tiff without image length", [] { return patched(handTiff(8, 8), 8 + 2 + 12, {0x99, 0x01}); }, 412, 412},
        {"tiff 1-bit bilevel", [] { return handTiff(16, 4, 1); }, 491, 200},
        {"tiff 32-bit float", [] { return handTiff(4, 2, 32, SAMPLEFORMAT_IEEEFP); }, 491, 200},
        {"tiff 16-bit float", [] { return handTiff(4, 2, 16, SAMPLEFORMAT_IEEEFP); }, 491, 200},
        // BMP
        {"bmp 16-bit 5-5-5", [=] { return bmp(16); }, 491, 491},
        {"bmp bit fields that are not whole bytes", [=] { return bmp(32, {0x7C00u, 0x03E0u, 0x001Fu}); }, 491, 491},
        {"bmp zero width", [=] { return patched(bmp(24), 18, {0, 0, 0, 0}); }, 490, 490},
        {"bmp magic followed by text", [] { return text("BMW owners' club minutes"); }, 490, 490},
        {"bmp magic alone", [] { return text("BM"); }, 440, 440},
        // Any format
        {"empty", [] { return Bytes(); }, 490, 490},
        {"text", [] { return text("GIF89a is not supported either"); }, 491, 491},
        {"png more pixels than the limit", pngBytes, 720, 200, fewPixels},
        {"jpeg more pixels than the limit", [] { return jpegBytes(); }, 720, 200, fewPixels},
        {"tiff more pixels than the limit", [] { return tiffBytes(); }, 720, 200, fewPixels},
        {"bmp more pixels than the limit", [] { return bmpBytes(64, 48, BmpOptions(), busy8); }, 720, 200, fewPixels},
        {"png wider than the side limit", pngBytes, 490, 200, shortSide},
    };
}

// Writes each damaged file into dir; its path is dir/<index>.
std::vector<std::string> writeDamages(const TempDir& dir, const std::vector<Damage>& cases)
{
    std::vector<std::string> paths;
    for (const Damage& d : cases)
    {
        paths.push_back(dir.file(std::to_string(paths.size())));
        writeBytes(paths.back(), d.make());
    }
    return paths;
}

TEST(ImageIoFailure, EachDamageGivesItsValue)
{
    const TempDir dir("lumicrest-imageio");
    // What the damage starts from reads well, the PNG within limits of exactly its size.
    ReadLimits exact;
    exact.maxPixels = 64 * 48;
    exact.maxSide = 64;
    for (const Bytes& good : {pngBytes(), jpegBytes(), tiffBytes(), tiffBytes(COMPRESSION_LZW), handTiff(40, 30)})
    {
        writeBytes(dir.file("good"), good);
        EXPECT_EQ(readCode(dir.file("good"), good[0] == 0x89 ? exact : ReadLimits()), 200);
    }
    const std::vector<Damage> cases = damages();
    const std::vector<std::string> paths = writeDamages(dir, cases);
    for (size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(cases[i].name);
        EXPECT_EQ(readCode(paths[i], cases[i].limits), cases[i].read);
        EXPECT_EQ(sizeCode(paths[i]), cases[i].size);
    }
}

TEST(ImageIoFailure, CannotOpen410)
{
    const TempDir dir("lumicrest-imageio");
    // Opening or reading the special files would block forever or never end;
    // a hang here ends in the test's timeout.
    const auto fifo = dir.file("fifo.jpg");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto link = dir.file("link_to_fifo.jpg");
    fs::create_symlink(fifo, link);
    for (const std::string& path : {dir.file("does_not_exist.jpg"), dir.file(""), std::string(), fifo, link,
                                    std::string("/dev/zero")})
    {
        SCOPED_TRACE(path);
        EXPECT_EQ(readCode(path), 410);
        EXPECT_EQ(sizeCode(path), 410);
        EXPECT_EQ(lumicrest::readPhotoInfo(path).make, "");
    }
}

TEST(ImageIoFailure, FailureDetailNamesTheFile)
{
    const TempDir dir("lumicrest-imageio");
    const auto path = dir.file("named.jpg");
    writeBytes(path, text("plain text"));
    try
    {
        lumicrest::readPhoto(path);
        FAIL() << "no failure";
    }
    catch (const lumicrest::Failure& f)
    {
        EXPECT_EQ(f.code(), 491);
        EXPECT_NE(f.detail().find("named.jpg"), std::string::npos) << f.detail();
    }
}

// Every file in tests/data/broken named NNN_*.ext must give the result value
// NNN; files not following the scheme (other than the README and the
// generator) fail the test, so no fixture silently never runs.
std::vector<fs::path> brokenFixtures()
{
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(fs::path(QUORVEX_TEST_DATA_DIR) / "broken"))
    {
        const std::string name = entry.path().filename().string();
        if (name != "README.md" && name != "make_broken.py")
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

TEST(ImageIoFixtures, EachBrokenFixtureGivesTheValueInItsName)
{
    const auto files = brokenFixtures();
    ASSERT_GE(files.size(), 10u) << "tests/data/broken is nearly empty";
    const std::regex scheme(R"(^(\d{3})_.+)");
    for (const auto& file : files)
    {
        const std::string name = file.filename().string();
        std::smatch m;
        if (!std::regex_match(name, m, scheme))
        {
            ADD_FAILURE() << "fixture " << name << " is not named NNN_description";
            continue;
        }
        const int want = std::stoi(m[1].str());
        EXPECT_EQ(readCode(file.string()), want) << name;
        // A forged size is in the header: the size read refuses it as well.
        if (want == 720)
        {
            EXPECT_EQ(sizeCode(file.string()), want) << name;
        }
    }
}

// ---------------------------------------------------------------- format detection

TEST(ImageIoDetect, FormatFromMagicBytesOnly)
{
    const struct
    {
        Bytes head;
        PhotoFormat format;
    } cases[] = {
        {{0xFF, 0xD8, 0xFF, 0xE0}, PhotoFormat::Jpeg},
        {{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, PhotoFormat::Png},
        {{'I', 'I', 42, 0}, PhotoFormat::Tiff},
        {{'M', 'M', 0, 42}, PhotoFormat::Tiff},
        {{'I', 'I', 43, 0}, PhotoFormat::Tiff}, // BigTIFF
        {{'B', 'M', 0, 0}, PhotoFormat::Bmp},
        {text("GIF89a"), PhotoFormat::Unknown},
        {text("hello"), PhotoFormat::Unknown},
        {{0xFF, 0xD8}, PhotoFormat::Unknown},
        {{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A}, PhotoFormat::Unknown},
        {{'I', 'I', 0, 42}, PhotoFormat::Unknown},
    };
    for (const auto& c : cases)
        EXPECT_EQ(lumicrest::detectFormat(c.head.data(), c.head.size()), c.format)
            << std::string(c.head.begin(), c.head.end());
    EXPECT_EQ(lumicrest::detectFormat(nullptr, 0), PhotoFormat::Unknown);
}

// ---------------------------------------------------------------- JPEG

// File names with another format's extension: the format comes from the content.
TEST(ImageIoJpeg, MatchesPlainLibjpegAndTheSource)
{
    const TempDir dir("lumicrest-imageio");
    const struct
    {
        const char* name;
        int w, h, components;
        bool progressive;
        float tolerance;
    } cases[] = {
        {"grey.jpg", 37, 29, 1, false, 3.0f},
        {"really_jpeg.png", 45, 31, 3, false, 4.0f},
        {"progressive.jpg", 40, 24, 3, true, 4.0f},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const auto path = dir.file(c.name);
        writeJpeg(path, c.w, c.h, c.components, smooth8, c.progressive);
        int rw = 0, rh = 0, rc = 0;
        const auto ref = referenceJpeg(path, rw, rh, rc);
        ASSERT_EQ(rc, c.components);
        expectDecoded(path, rw, rh, rc,
                      [&](int x, int y, int k) { return float(ref[(static_cast<size_t>(y) * rw + x) * rc + k]); },
                      0.0f);
        expectDecoded(path, c.w, c.h, c.components, [](int x, int y, int k) { return float(smooth8(x, y, k)); },
                      c.tolerance);
    }
}

TEST(ImageIoJpeg, MissingEndMarkerAfterAllPixelsIsTolerated)
{
    const TempDir dir("lumicrest-imageio");
    const auto path = dir.file("noeoi.jpg");
    writeJpeg(path, 32, 16, 3, smooth8);
    const Photo full = lumicrest::readPhoto(path);
    const Bytes bytes = readBytes(path);
    ASSERT_EQ(Bytes(bytes.end() - 2, bytes.end()), (Bytes{0xFF, 0xD9}));
    writeBytes(path, cut(bytes, bytes.size() - 2));
    EXPECT_TRUE(samePixels(full, lumicrest::readPhoto(path)));
}

// ---------------------------------------------------------------- PNG

TEST(ImageIoPng, EveryColourTypeAndDepth)
{
    PngOptions palette{PNG_COLOR_TYPE_PALETTE, 8};
    for (int i = 0; i < 16; ++i)
        palette.palette.push_back(png_color{static_cast<png_byte>(i * 16), static_cast<png_byte>(255 - i * 10),
                                            static_cast<png_byte>((i * 37) & 0xFF)});
    PngOptions trns = palette; // the alpha that tRNS implies is dropped as well
    trns.transparency = {0, 128, 255, 7};
    PngOptions packed = palette;
    packed.bitDepth = 4;
    const Sample index = [](int x, int y, int) { return (x + 3 * y) % 16; };
    const Want fromPalette = [&](int x, int y, int c) {
        const png_color& e = palette.palette[static_cast<size_t>(index(x, y, 0))];
        return float(c == 0 ? e.red : c == 1 ? e.green : e.blue);
    };
    const struct
    {
        const char* name;
        int w, h;
        PngOptions o;
        Sample sample;
        int channels;
        Want want;
        float tolerance;
    } cases[] = {
        {"grey8.png", 33, 21, {PNG_COLOR_TYPE_GRAY, 8}, busy8, 1, same8, 0.0f},
        {"really_png.jpg", 33, 21, {PNG_COLOR_TYPE_RGB, 8}, busy8, 3, same8, 0.0f},
        {"grey16.png", 30, 20, {PNG_COLOR_TYPE_GRAY, 16}, busy16, 1, scaled16, 1e-4f},
        {"rgb16.png", 30, 20, {PNG_COLOR_TYPE_RGB, 16}, busy16, 3, scaled16, 1e-4f},
        {"ends16.png", 2, 1, {PNG_COLOR_TYPE_GRAY, 16}, [](int x, int, int) { return x == 0 ? 0 : 65535; }, 1,
         [](int x, int, int) { return x == 0 ? 0.0f : 255.0f; }, 1e-4f},
        {"rgba.png", 17, 9, {PNG_COLOR_TYPE_RGB_ALPHA, 8},
         [](int x, int y, int k) { return k == 3 ? (x * 31) & 0xFF : busy8(x, y, k); }, 3, same8, 0.0f},
        {"greyalpha16.png", 17, 9, {PNG_COLOR_TYPE_GRAY_ALPHA, 16},
         [](int x, int y, int k) { return k == 1 ? 1234 : busy16(x, y, 0); }, 1, scaled16, 1e-4f},
        {"palette.png", 19, 11, palette, index, 3, fromPalette, 0.0f},
        {"palette_trns.png", 19, 11, trns, index, 3, fromPalette, 0.0f},
        {"palette4.png", 19, 11, packed, index, 3, fromPalette, 0.0f},
        {"grey1.png", 13, 5, {PNG_COLOR_TYPE_GRAY, 1}, [](int x, int y, int) { return (x + y) % 2; }, 1,
         [](int x, int y, int) { return (x + y) % 2 ? 255.0f : 0.0f; }, 0.0f},
        {"grey2.png", 13, 5, {PNG_COLOR_TYPE_GRAY, 2}, [](int x, int, int) { return x % 4; }, 1,
         [](int x, int, int) { return float((x % 4) * 85); }, 0.0f},
        {"interlaced.png", 23, 13, {PNG_COLOR_TYPE_RGB, 16, true}, busy16, 3, scaled16, 1e-4f},
        // So small that some passes are empty.
        {"interlaced_tiny.png", 3, 2, {PNG_COLOR_TYPE_GRAY, 8, true}, busy8, 1, same8, 0.0f},
    };
    const TempDir dir("lumicrest-imageio");
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        writePng(dir.file(c.name), c.w, c.h, c.o, c.sample);
        expectDecoded(dir.file(c.name), c.w, c.h, c.channels, c.want, c.tolerance);
    }
}

// ---------------------------------------------------------------- TIFF

TEST(ImageIoTiff, EveryLayoutAndCompression)
{
    std::vector<uint16_t> colormap(768);
    for (int i = 0; i < 256; ++i)
    {
        colormap[static_cast<size_t>(i)] = static_cast<uint16_t>(i * 257);
        colormap[static_cast<size_t>(256 + i)] = static_cast<uint16_t>((255 - i) * 257);
        colormap[static_cast<size_t>(512 + i)] = static_cast<uint16_t>(((i * 7) & 0xFF) * 257);
    }
    const auto grey = [](TiffOptions& o) {
        o.samples = 1;
        o.photometric = PHOTOMETRIC_MINISBLACK;
    };
    const struct
    {
        const char* name;
        int w, h, channels;
        std::function<void(TiffOptions&)> set;
        Want want = nullptr; // the source pattern, scaled to 0..255
        float tolerance = -1; // exact for 8 bits, rounding for 16
    } cases[] = {
        {"grey8.tif", 31, 17, 1, grey},
        {"really_tiff.bmp", 31, 17, 3, [](TiffOptions&) {}},
        {"rgb16.tif", 29, 19, 3, [](TiffOptions& o) { o.bits = 16; }},
        {"grey16.tif", 29, 19, 1, [&](TiffOptions& o) { grey(o), o.bits = 16; }},
        {"planar8.tif", 27, 14, 3, [](TiffOptions& o) { o.separate = true; }},
        {"planar16.tif", 27, 14, 3, [](TiffOptions& o) { o.separate = true, o.bits = 16; }},
        // 40 x 35 in 16 x 16 tiles: partial tiles on the right and the bottom.
        {"tiles8.tif", 40, 35, 3, [](TiffOptions& o) { o.tiled = true; }},
        {"tiles16.tif", 40, 35, 3, [](TiffOptions& o) { o.tiled = true, o.bits = 16; }},
        {"tiles16_planar.tif", 40, 35, 3, [](TiffOptions& o) { o.tiled = o.separate = true, o.bits = 16; }},
        {"tiles16_grey.tif", 33, 17, 1, [&](TiffOptions& o) { grey(o), o.tiled = true, o.bits = 16; }},
        {"rgba8.tif", 21, 13, 3, [](TiffOptions& o) { o.samples = 4, o.alpha = true; }},
        {"rgba16_planar.tif", 21, 13, 3,
         [](TiffOptions& o) { o.samples = 4, o.alpha = o.separate = true, o.bits = 16; }},
        {"greyalpha8.tif", 21, 13, 1, [&](TiffOptions& o) { grey(o), o.samples = 2, o.alpha = true; }},
        {"lzw.tif", 50, 33, 3, [](TiffOptions& o) { o.compression = COMPRESSION_LZW; }},
        // One strip, read row by row.
        {"deflate16.tif", 50, 33, 3,
         [](TiffOptions& o) { o.compression = COMPRESSION_ADOBE_DEFLATE, o.bits = 16, o.rowsPerStrip = 33; }},
        {"packbits_tiles.tif", 50, 33, 3, [](TiffOptions& o) { o.compression = COMPRESSION_PACKBITS, o.tiled = true; }},
        {"miniswhite.tif", 20, 10, 1, [&](TiffOptions& o) { grey(o), o.photometric = PHOTOMETRIC_MINISWHITE; },
         [](int x, int y, int) { return 255.0f - float(busy8(x, y, 0)); }},
        {"palette.tif", 20, 10, 3,
         [&](TiffOptions& o) { grey(o), o.photometric = PHOTOMETRIC_PALETTE, o.colormap = colormap; },
         [](int x, int y, int c) {
             const int i = busy8(x, y, 0);
             return float(c == 0 ? i : c == 1 ? 255 - i : (i * 7) & 0xFF);
         },
         1e-4f},
    };
    const TempDir dir("lumicrest-imageio");
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        TiffOptions o;
        c.set(o);
        writeTiff(dir.file(c.name), c.w, c.h, o, o.bits == 16 ? Sample(busy16) : Sample(busy8));
        expectDecoded(dir.file(c.name), c.w, c.h, c.channels, c.want ? c.want : o.bits == 16 ? scaled16 : same8,
                      c.tolerance >= 0 ? c.tolerance : o.bits == 16 ? 1e-4f : 0.0f);
    }
}

TEST(ImageIoTiff, JpegCompressedYCbCr)
{
    if (!TIFFIsCODECConfigured(COMPRESSION_JPEG))
        GTEST_SKIP() << "libtiff without JPEG";
    const TempDir dir("lumicrest-imageio");
    const auto path = dir.file("jpeg.tif");
    TiffOptions o;
    o.compression = COMPRESSION_JPEG;
    o.photometric = PHOTOMETRIC_YCBCR;
    o.rowsPerStrip = 16;
    writeTiff(path, 48, 32, o, smooth8);
    expectDecoded(path, 48, 32, 3, [](int x, int y, int c) { return float(smooth8(x, y, c)); }, 12.0f);
}

// ---------------------------------------------------------------- BMP

TEST(ImageIoBmp, EveryDepthPaletteAndHeader)
{
    BmpOptions topDown;
    topDown.topDown = true;
    BmpOptions rgb32;
    rgb32.bits = 32;
    // Pixels are written B, G, R, X; the masks say byte 0 is red and byte 2 blue.
    BmpOptions fields = rgb32;
    fields.compression = 3;
    fields.masks = {0x000000FFu, 0x0000FF00u, 0x00FF0000u};
    BmpOptions grey;
    grey.bits = 8;
    for (int i = 0; i < 256; ++i)
        grey.palette.push_back({static_cast<unsigned char>(i), static_cast<unsigned char>(i),
                                static_cast<unsigned char>(i)});
    BmpOptions colour;
    colour.bits = 8;
    for (int i = 0; i < 20; ++i)
        colour.palette.push_back({static_cast<unsigned char>(i * 10), static_cast<unsigned char>(200 - i),
                                  static_cast<unsigned char>(i * 3)});
    const Sample index = [](int x, int y, int) { return (x + 2 * y) % 20; };
    BmpOptions v5;
    v5.headerSize = 124;
    const struct
    {
        const char* name;
        int w, h;
        BmpOptions o;
        Sample sample;
        int channels;
        Want want;
        size_t cutBytes;
    } cases[] = {
        // 13 * 3 = 39 bytes: every row padded.
        {"bottomup.bmp", 13, 7, BmpOptions(), busy8, 3, same8, 0},
        {"topdown.bmp", 13, 7, topDown, busy8, 3, same8, 0},
        {"bitmap", 11, 6, rgb32, busy8, 3, same8, 0},
        {"bitfields.bmp", 9, 4, fields, busy8, 3, [](int x, int y, int c) { return float(busy8(x, y, 2 - c)); }, 0},
        {"grey8.bmp", 10, 5, grey, busy8, 1, same8, 0},
        {"colour8.bmp", 10, 5, colour, index, 3,
         [&](int x, int y, int c) { return float(colour.palette[static_cast<size_t>(index(x, y, 0))][c]); }, 0},
        // 5 * 3 = 15 bytes and 1 of padding: the file ends without the last one.
        {"v5.bmp", 5, 4, v5, busy8, 3, same8, 1},
    };
    const TempDir dir("lumicrest-imageio");
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const Bytes b = bmpBytes(c.w, c.h, c.o, c.sample);
        writeBytes(dir.file(c.name), cut(b, b.size() - c.cutBytes));
        expectDecoded(dir.file(c.name), c.w, c.h, c.channels, c.want, 0.0f);
    }
}

// ---------------------------------------------------------------- EXIF

TEST(ImageIoExif, ReadsMakeModelLensOrientation)
{
    const TempDir dir("lumicrest-imageio");
    const auto path = dir.file("exif.jpg");
    writeJpeg(path, 32, 16, 3, smooth8);
    writeExif(path, [](Exiv2::ExifData& exif) {
        exif["Exif.Image.Make"] = std::string("NIKON CORPORATION   ");
        Exiv2::AsciiValue model;
        model.read(std::string("NIKON D750\0\0\0\0", 14)); // NUL padding, as some cameras write
        exif.add(Exiv2::ExifKey("Exif.Image.Model"), &model);
        exif["Exif.Photo.LensModel"] = std::string("AF-S NIKKOR 50mm f/1.8G ");
        exif["Exif.Image.Orientation"] = uint16_t(6);
    });
    const PhotoInfo info = lumicrest::readPhotoInfo(path);
    EXPECT_EQ(info.make, "NIKON CORPORATION");
    EXPECT_EQ(info.model, "NIKON D750");
    EXPECT_EQ(info.lens, "AF-S NIKKOR 50mm f/1.8G");
    EXPECT_EQ(info.orientation, 6);

    // readPhoto fills the same info and does not rotate the pixels.
    const Photo p = lumicrest::readPhoto(path);
    EXPECT_EQ(std::make_tuple(p.info.make, p.info.model, p.info.lens, p.info.orientation),
              std::make_tuple(info.make, info.model, info.lens, info.orientation));
    EXPECT_EQ(std::make_pair(p.width, p.height), std::make_pair(32, 16));

    // An orientation outside 1..8 is ignored, the rest still read.
    writeExif(path, [](Exiv2::ExifData& exif) { exif["Exif.Image.Orientation"] = uint16_t(42); });
    EXPECT_EQ(lumicrest::readPhotoInfo(path).make, "NIKON CORPORATION");
    EXPECT_EQ(lumicrest::readPhotoInfo(path).orientation, 1);
}

TEST(ImageIoExif, AbsentOrUnreadableGivesEmptyFields)
{
    const TempDir dir("lumicrest-imageio");
    const auto plain = dir.file("plain.jpg");
    writeJpeg(plain, 16, 16, 1, smooth8);
    const auto notPhoto = dir.file("text.jpg");
    writeBytes(notPhoto, text("not a photo"));
    const auto png = dir.file("plain.png");
    writePng(png, 4, 4, PngOptions{PNG_COLOR_TYPE_GRAY, 8}, busy8);
    for (const std::string& path : {plain, notPhoto, png, dir.file("missing.jpg"), std::string()})
    {
        SCOPED_TRACE(path);
        const PhotoInfo info = lumicrest::readPhotoInfo(path);
        EXPECT_EQ(std::make_tuple(info.make, info.model, info.lens, info.orientation),
                  std::make_tuple("", "", "", 1));
    }
    EXPECT_EQ(lumicrest::readPhoto(plain).info.make, "");
}

TEST(ImageIoExif, TiffTagsAreRead)
{
    const TempDir dir("lumicrest-imageio");
    const auto path = dir.file("camera.tif");
    TiffOptions o;
    o.make = "FUJIFILM";
    o.model = "X-T3  ";
    writeTiff(path, 8, 8, o, busy8);
    const PhotoInfo info = lumicrest::readPhoto(path).info;
    EXPECT_EQ(info.make, "FUJIFILM");
    EXPECT_EQ(info.model, "X-T3");

    // Only a prefix of the file is parsed: libtiff writes the directory last,
    // so a prefix without it reads as a photo without EXIF, as does a file cut
    // short (offsets pointing past its end).
    const Bytes bytes = readBytes(path);
    EXPECT_EQ(lumicrest::readPhotoInfo(path, bytes.size()).make, "FUJIFILM");
    EXPECT_EQ(lumicrest::readPhotoInfo(path, bytes.size() - 20).make, "");
    writeBytes(path, cut(bytes, bytes.size() - 20));
    EXPECT_EQ(lumicrest::readPhotoInfo(path).make, "");
}

// ---------------------------------------------------------------- silence

TEST(ImageIoSilence, NothingReachesStderr)
{
    const TempDir dir("lumicrest-imageio");
    // Good and broken files of every format.
    std::vector<std::string> paths = writeDamages(dir, damages());
    for (const auto& f : brokenFixtures())
        paths.push_back(f.string());
    paths.push_back(dir.file("ok.jpg"));
    writeJpeg(paths.back(), 32, 16, 3, smooth8);
    // A TIFF with a tag libtiff warns about (unknown tag 0x199).
    paths.push_back(dir.file("odd_tag.tif"));
    writeBytes(paths.back(), patched(handTiff(8, 8), 8 + 2 + 12 * 3, {0x99, 0x01}));

    StderrCapture capture(dir.file("stderr.txt"));
    for (const auto& p : paths)
    {
        readCode(p);
        sizeCode(p);
        lumicrest::readPhotoInfo(p);
    }
    EXPECT_EQ(capture.finish(), "");
}

// ---------------------------------------------------------------- threads

TEST(ImageIoThreads, EightThreadsDecodeIdentically)
{
    const TempDir dir("lumicrest-imageio");
    std::vector<std::string> good;
    auto add = [&](const std::string& name) {
        good.push_back(dir.file(name));
        return good.back();
    };
    writeJpeg(add("a.jpg"), 160, 120, 3, smooth8);
    writeExif(good.back(), [](Exiv2::ExifData& exif) {
        exif["Exif.Image.Make"] = std::string("Canon");
        exif["Exif.Image.Model"] = std::string("Canon EOS 5D");
        exif["Exif.Image.Orientation"] = uint16_t(3);
    });
    writeJpeg(add("b.jpg"), 128, 96, 1, smooth8, true, 90);
    writePng(add("c.png"), 150, 100, PngOptions{PNG_COLOR_TYPE_RGB, 16}, busy16);
    TiffOptions tiles;
    tiles.tiled = true;
    tiles.bits = 16;
    tiles.separate = true;
    writeTiff(add("d.tif"), 150, 100, tiles, busy16);
    TiffOptions lzw;
    lzw.compression = COMPRESSION_LZW;
    writeTiff(add("e.tif"), 150, 100, lzw, busy8);
    writeBytes(add("f.bmp"), bmpBytes(150, 100, BmpOptions(), busy8));
    const std::vector<Damage> damaged = damages();
    const std::vector<std::string> bad = writeDamages(dir, damaged);

    std::vector<Photo> reference;
    for (const auto& p : good)
        reference.push_back(lumicrest::readPhoto(p));
    EXPECT_EQ(reference[0].info.model, "Canon EOS 5D");
    EXPECT_EQ(reference[0].info.orientation, 3);

    const size_t files = good.size() + bad.size();
    std::atomic<int> mismatches{0};
    std::atomic<int> decoded{0};
    inParallel(8, [&](size_t t) {
        for (int round = 0; round < 4; ++round)
            for (size_t k = 0; k < files; ++k)
            {
                const size_t i = (k + t) % files;
                if (i >= good.size())
                {
                    const Damage& d = damaged[i - good.size()];
                    mismatches += readCode(bad[i - good.size()], d.limits) != d.read;
                    continue;
                }
                const Photo p = lumicrest::readPhoto(good[i]);
                const Photo& r = reference[i];
                mismatches += !samePixels(p, r) || p.info.make != r.info.make || p.info.model != r.info.model ||
                              p.info.orientation != r.info.orientation;
                ++decoded;
            }
    });
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(decoded.load(), 8 * 4 * static_cast<int>(good.size()));
}

} // namespace

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
