// Reading photos (engine/src/imageio*.cpp, exif.cpp): every format, bit depth
// and layout with known pixel values, EXIF, every failure value, checked-in
// broken fixtures (tests/data/broken, named after their result value), silence
// on stderr and concurrent decoding.

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
using lumicrest::Photo;
using lumicrest::PhotoFormat;
using lumicrest::PhotoInfo;
using lumicrest::ReadLimits;

namespace
{

// ---------------------------------------------------------------- helpers

class TempDir
{
public:
    TempDir()
    {
        static std::atomic<int> counter{0};
        m_path = fs::temp_directory_path() /
                 ("lumicrest_imageio_" + std::to_string(getpid()) + "_" + std::to_string(counter++));
        fs::remove_all(m_path);
        fs::create_directories(m_path);
    }
    ~TempDir()
    {
        std::error_code ec;
        fs::remove_all(m_path, ec);
    }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    fs::path m_path;
};

using Sample = std::function<int(int x, int y, int c)>;

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

std::vector<unsigned char> readBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& path, const std::vector<unsigned char>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

void truncateFile(const std::string& path, size_t keep)
{
    auto bytes = readBytes(path);
    ASSERT_LT(keep, bytes.size());
    bytes.resize(keep);
    writeBytes(path, bytes);
}

size_t findBytes(const std::vector<unsigned char>& bytes, std::initializer_list<unsigned char> needle, size_t from = 0)
{
    const std::vector<unsigned char> n(needle);
    auto it = std::search(bytes.begin() + static_cast<long>(from), bytes.end(), n.begin(), n.end());
    return it == bytes.end() ? std::string::npos : static_cast<size_t>(it - bytes.begin());
}

// The result value of readPhoto / readPhotoSize (200 on success).
int32_t readCode(const std::string& path, const ReadLimits& limits = ReadLimits())
{
    try
    {
        lumicrest::readPhoto(path, limits);
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

int32_t sizeCode(const std::string& path)
{
    try
    {
        int w = 0, h = 0;
        lumicrest::readPhotoSize(path, w, h);
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

// Compares every sample; reports the first few mismatches.
void expectPhoto(const Photo& p, int width, int height, int channels, const std::function<float(int, int, int)>& want,
                 float tolerance)
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

struct JpegOptions
{
    int quality = 95;
    bool progressive = false;
};

void writeJpeg(const std::string& path, int w, int h, int components, const Sample& sample,
               JpegOptions options = JpegOptions())
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
    c.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, options.quality, TRUE);
    for (int i = 0; i < c.num_components; ++i)
        c.comp_info[i].h_samp_factor = c.comp_info[i].v_samp_factor = 1; // 4:4:4
    if (options.progressive)
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
    int samples = 1;
    switch (o.colorType)
    {
    case PNG_COLOR_TYPE_GRAY_ALPHA: samples = 2; break;
    case PNG_COLOR_TYPE_RGB: samples = 3; break;
    case PNG_COLOR_TYPE_RGB_ALPHA: samples = 4; break;
    default: samples = 1; break;
    }
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
    auto put = [&](unsigned char* p, int v) {
        if (bytes == 1)
            *p = static_cast<unsigned char>(v);
        else
        {
            const uint16_t s = static_cast<uint16_t>(v);
            std::memcpy(p, &s, 2); // native order: libtiff writes it as such
        }
    };
    const int planes = o.separate ? o.samples : 1;
    const int perPixel = o.separate ? 1 : o.samples;
    if (o.tiled)
    {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, static_cast<uint32_t>(o.tileWidth));
        TIFFSetField(tif, TIFFTAG_TILELENGTH, static_cast<uint32_t>(o.tileHeight));
        std::vector<unsigned char> tile(static_cast<size_t>(TIFFTileSize(tif)));
        for (int p = 0; p < planes; ++p)
            for (int ty = 0; ty < h; ty += o.tileHeight)
                for (int tx = 0; tx < w; tx += o.tileWidth)
                {
                    std::fill(tile.begin(), tile.end(), 0);
                    for (int r = 0; r < o.tileHeight; ++r)
                        for (int i = 0; i < o.tileWidth; ++i)
                            for (int k = 0; k < perPixel; ++k)
                            {
                                const int x = tx + i, y = ty + r;
                                const int v = (x < w && y < h) ? sample(x, y, o.separate ? p : k) : 0;
                                put(&tile[(static_cast<size_t>(r) * o.tileWidth + i) * perPixel * bytes +
                                          static_cast<size_t>(k) * bytes],
                                    v);
                            }
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
                for (int x = 0; x < w; ++x)
                    for (int k = 0; k < perPixel; ++k)
                        put(&line[(static_cast<size_t>(x) * perPixel + k) * bytes], sample(x, y, o.separate ? p : k));
                ASSERT_GE(TIFFWriteScanline(tif, line.data(), static_cast<uint32_t>(y), static_cast<uint16_t>(p)), 0);
            }
    }
    TIFFClose(tif);
}

// A grey 8-bit TIFF written by hand with its directory first and the pixels
// last, so that cutting the file cuts the pixel data, not the directory.
std::vector<unsigned char> handTiff(int w, int h, const Sample& sample)
{
    std::vector<unsigned char> b;
    auto u16 = [&](uint32_t v) {
        b.push_back(static_cast<unsigned char>(v));
        b.push_back(static_cast<unsigned char>(v >> 8));
    };
    auto u32 = [&](uint32_t v) {
        u16(v & 0xFFFF);
        u16(v >> 16);
    };
    const uint32_t entries = 9;
    const uint32_t dataOffset = 8 + 2 + entries * 12 + 4;
    b.push_back('I');
    b.push_back('I');
    u16(42);
    u32(8);
    u16(entries);
    auto entry = [&](uint32_t tag, uint32_t type, uint32_t value) {
        u16(tag);
        u16(type);
        u32(1);
        if (type == 3)
        {
            u16(value);
            u16(0);
        }
        else
            u32(value);
    };
    entry(256, 4, static_cast<uint32_t>(w));
    entry(257, 4, static_cast<uint32_t>(h));
    entry(258, 3, 8);
    entry(259, 3, 1);
    entry(262, 3, 1);
    entry(273, 4, dataOffset);
    entry(277, 3, 1);
    entry(278, 4, static_cast<uint32_t>(h));
    entry(279, 4, static_cast<uint32_t>(w * h));
    u32(0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            b.push_back(static_cast<unsigned char>(sample(x, y, 0)));
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
    std::vector<unsigned char> b;
    auto u16 = [&](uint32_t v) {
        b.push_back(static_cast<unsigned char>(v));
        b.push_back(static_cast<unsigned char>(v >> 8));
    };
    auto u32 = [&](uint32_t v) {
        u16(v & 0xFFFF);
        u16(v >> 16);
    };
    b.push_back('B');
    b.push_back('M');
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

// ---------------------------------------------------------------- format detection

TEST(ImageIoDetect, RecognisesMagicBytes)
{
    const unsigned char jpeg[] = {0xFF, 0xD8, 0xFF, 0xE0};
    const unsigned char png[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    const unsigned char tiffLe[] = {'I', 'I', 42, 0};
    const unsigned char tiffBe[] = {'M', 'M', 0, 42};
    const unsigned char bigTiff[] = {'I', 'I', 43, 0};
    const unsigned char bmp[] = {'B', 'M', 0, 0};
    EXPECT_EQ(lumicrest::detectFormat(jpeg, sizeof jpeg), PhotoFormat::Jpeg);
    EXPECT_EQ(lumicrest::detectFormat(png, sizeof png), PhotoFormat::Png);
    EXPECT_EQ(lumicrest::detectFormat(tiffLe, sizeof tiffLe), PhotoFormat::Tiff);
    EXPECT_EQ(lumicrest::detectFormat(tiffBe, sizeof tiffBe), PhotoFormat::Tiff);
    EXPECT_EQ(lumicrest::detectFormat(bigTiff, sizeof bigTiff), PhotoFormat::Tiff);
    EXPECT_EQ(lumicrest::detectFormat(bmp, sizeof bmp), PhotoFormat::Bmp);
}

TEST(ImageIoDetect, RejectsOtherAndShortHeads)
{
    const unsigned char gif[] = {'G', 'I', 'F', '8', '9', 'a'};
    const unsigned char text[] = {'h', 'e', 'l', 'l', 'o'};
    const unsigned char jpegCut[] = {0xFF, 0xD8};
    const unsigned char pngCut[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A};
    const unsigned char tiffWrong[] = {'I', 'I', 0, 42};
    EXPECT_EQ(lumicrest::detectFormat(gif, sizeof gif), PhotoFormat::Unknown);
    EXPECT_EQ(lumicrest::detectFormat(text, sizeof text), PhotoFormat::Unknown);
    EXPECT_EQ(lumicrest::detectFormat(jpegCut, sizeof jpegCut), PhotoFormat::Unknown);
    EXPECT_EQ(lumicrest::detectFormat(pngCut, sizeof pngCut), PhotoFormat::Unknown);
    EXPECT_EQ(lumicrest::detectFormat(tiffWrong, sizeof tiffWrong), PhotoFormat::Unknown);
    EXPECT_EQ(lumicrest::detectFormat(nullptr, 0), PhotoFormat::Unknown);
}

// ---------------------------------------------------------------- JPEG

class ImageIoJpeg : public ::testing::Test
{
protected:
    // Decodes with the engine and compares with a plain libjpeg decode
    // (exactly) and with the source pattern (within JPEG tolerance).
    void check(const std::string& path, int w, int h, int components, const Sample& source, float tolerance)
    {
        const Photo p = lumicrest::readPhoto(path);
        int rw = 0, rh = 0, rc = 0;
        const auto ref = referenceJpeg(path, rw, rh, rc);
        ASSERT_EQ(rw, w);
        ASSERT_EQ(rh, h);
        ASSERT_EQ(rc, components);
        expectPhoto(p, w, h, components,
                    [&](int x, int y, int c) {
                        return float(ref[(static_cast<size_t>(y) * w + x) * components + c]);
                    },
                    0.0f);
        expectPhoto(p, w, h, components, [&](int x, int y, int c) { return float(source(x, y, c)); }, tolerance);
    }
    TempDir dir;
};

TEST_F(ImageIoJpeg, GreyStaysOneChannel)
{
    const auto path = dir.file("grey.jpg");
    writeJpeg(path, 37, 29, 1, smooth8);
    check(path, 37, 29, 1, smooth8, 3.0f);
}

TEST_F(ImageIoJpeg, ColourBecomesRgb)
{
    const auto path = dir.file("colour.jpg");
    writeJpeg(path, 45, 31, 3, smooth8);
    check(path, 45, 31, 3, smooth8, 4.0f);
}

TEST_F(ImageIoJpeg, Progressive)
{
    const auto path = dir.file("progressive.jpg");
    writeJpeg(path, 40, 24, 3, smooth8, JpegOptions{95, true});
    check(path, 40, 24, 3, smooth8, 4.0f);
}

TEST_F(ImageIoJpeg, ReadsSizeFromHeader)
{
    const auto path = dir.file("size.jpg");
    writeJpeg(path, 45, 31, 3, smooth8);
    int w = 0, h = 0;
    lumicrest::readPhotoSize(path, w, h);
    EXPECT_EQ(w, 45);
    EXPECT_EQ(h, 31);
}

TEST_F(ImageIoJpeg, MissingEndMarkerAfterAllPixelsIsTolerated)
{
    const auto path = dir.file("noeoi.jpg");
    writeJpeg(path, 32, 16, 3, smooth8);
    auto bytes = readBytes(path);
    ASSERT_EQ(bytes[bytes.size() - 2], 0xFF);
    ASSERT_EQ(bytes[bytes.size() - 1], 0xD9);
    const Photo full = lumicrest::readPhoto(path);
    bytes.resize(bytes.size() - 2);
    writeBytes(path, bytes);
    const Photo cut = lumicrest::readPhoto(path);
    EXPECT_TRUE(samePixels(full, cut));
}

// ---------------------------------------------------------------- PNG

class ImageIoPng : public ::testing::Test
{
protected:
    TempDir dir;
};

TEST_F(ImageIoPng, Grey8)
{
    const auto path = dir.file("grey8.png");
    writePng(path, 33, 21, PngOptions{PNG_COLOR_TYPE_GRAY, 8}, busy8);
    expectPhoto(lumicrest::readPhoto(path), 33, 21, 1, [](int x, int y, int) { return float(busy8(x, y, 0)); }, 0.0f);
}

TEST_F(ImageIoPng, Rgb8)
{
    const auto path = dir.file("rgb8.png");
    writePng(path, 33, 21, PngOptions{PNG_COLOR_TYPE_RGB, 8}, busy8);
    expectPhoto(lumicrest::readPhoto(path), 33, 21, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); }, 0.0f);
}

TEST_F(ImageIoPng, Grey16ScaledTo255)
{
    const auto path = dir.file("grey16.png");
    writePng(path, 30, 20, PngOptions{PNG_COLOR_TYPE_GRAY, 16}, busy16);
    expectPhoto(lumicrest::readPhoto(path), 30, 20, 1,
                [](int x, int y, int) { return float(busy16(x, y, 0) * 255.0 / 65535.0); }, 1e-4f);
}

TEST_F(ImageIoPng, Rgb16ScaledTo255)
{
    const auto path = dir.file("rgb16.png");
    writePng(path, 30, 20, PngOptions{PNG_COLOR_TYPE_RGB, 16}, busy16);
    const Photo p = lumicrest::readPhoto(path);
    expectPhoto(p, 30, 20, 3, [](int x, int y, int c) { return float(busy16(x, y, c) * 255.0 / 65535.0); }, 1e-4f);
    EXPECT_FLOAT_EQ(255.0f * 65535.0f / 65535.0f, 255.0f);
}

TEST_F(ImageIoPng, ExtremesOf16BitMapToEnds)
{
    const auto path = dir.file("ends16.png");
    writePng(path, 2, 1, PngOptions{PNG_COLOR_TYPE_GRAY, 16}, [](int x, int, int) { return x == 0 ? 0 : 65535; });
    const Photo p = lumicrest::readPhoto(path);
    EXPECT_EQ(p.planes[0].at(0, 0), 0.0f);
    EXPECT_NEAR(p.planes[0].at(1, 0), 255.0f, 1e-4f);
}

TEST_F(ImageIoPng, AlphaIsDropped)
{
    const auto rgba = dir.file("rgba.png");
    writePng(rgba, 17, 9, PngOptions{PNG_COLOR_TYPE_RGB_ALPHA, 8},
             [](int x, int y, int k) { return k == 3 ? (x * 31) & 0xFF : busy8(x, y, k); });
    expectPhoto(lumicrest::readPhoto(rgba), 17, 9, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); }, 0.0f);

    const auto greyAlpha = dir.file("greyalpha16.png");
    writePng(greyAlpha, 17, 9, PngOptions{PNG_COLOR_TYPE_GRAY_ALPHA, 16},
             [](int x, int y, int k) { return k == 1 ? 1234 : busy16(x, y, 0); });
    expectPhoto(lumicrest::readPhoto(greyAlpha), 17, 9, 1,
                [](int x, int y, int) { return float(busy16(x, y, 0) * 255.0 / 65535.0); }, 1e-4f);
}

TEST_F(ImageIoPng, PaletteExpandedToRgb)
{
    PngOptions o{PNG_COLOR_TYPE_PALETTE, 8};
    for (int i = 0; i < 16; ++i)
        o.palette.push_back(png_color{static_cast<png_byte>(i * 16), static_cast<png_byte>(255 - i * 10),
                                      static_cast<png_byte>((i * 37) & 0xFF)});
    auto index = [](int x, int y, int) { return (x + 3 * y) % 16; };
    auto want = [&](int x, int y, int c) {
        const png_color& e = o.palette[static_cast<size_t>(index(x, y, 0))];
        return float(c == 0 ? e.red : c == 1 ? e.green : e.blue);
    };
    const auto path = dir.file("palette.png");
    writePng(path, 19, 11, o, index);
    expectPhoto(lumicrest::readPhoto(path), 19, 11, 3, want, 0.0f);

    // With transparency (tRNS) the alpha it implies is dropped as well.
    o.transparency = {0, 128, 255, 7};
    const auto trns = dir.file("palette_trns.png");
    writePng(trns, 19, 11, o, index);
    expectPhoto(lumicrest::readPhoto(trns), 19, 11, 3, want, 0.0f);

    // 4-bit indices.
    o.bitDepth = 4;
    o.transparency.clear();
    const auto packed = dir.file("palette4.png");
    writePng(packed, 19, 11, o, index);
    expectPhoto(lumicrest::readPhoto(packed), 19, 11, 3, want, 0.0f);
}

TEST_F(ImageIoPng, LowBitGreyExpandedToFullScale)
{
    const auto path = dir.file("grey1.png");
    writePng(path, 13, 5, PngOptions{PNG_COLOR_TYPE_GRAY, 1}, [](int x, int y, int) { return (x + y) % 2; });
    expectPhoto(lumicrest::readPhoto(path), 13, 5, 1, [](int x, int y, int) { return (x + y) % 2 ? 255.0f : 0.0f; },
                0.0f);
    const auto path2 = dir.file("grey2.png");
    writePng(path2, 13, 5, PngOptions{PNG_COLOR_TYPE_GRAY, 2}, [](int x, int, int) { return x % 4; });
    expectPhoto(lumicrest::readPhoto(path2), 13, 5, 1, [](int x, int, int) { return float((x % 4) * 85); }, 0.0f);
}

TEST_F(ImageIoPng, InterlacedAdam7)
{
    const auto path = dir.file("interlaced.png");
    PngOptions o{PNG_COLOR_TYPE_RGB, 16};
    o.interlaced = true;
    writePng(path, 23, 13, o, busy16);
    expectPhoto(lumicrest::readPhoto(path), 23, 13, 3,
                [](int x, int y, int c) { return float(busy16(x, y, c) * 255.0 / 65535.0); }, 1e-4f);
    // Tiny images leave some passes empty.
    const auto tiny = dir.file("interlaced_tiny.png");
    PngOptions g{PNG_COLOR_TYPE_GRAY, 8};
    g.interlaced = true;
    writePng(tiny, 3, 2, g, busy8);
    expectPhoto(lumicrest::readPhoto(tiny), 3, 2, 1, [](int x, int y, int) { return float(busy8(x, y, 0)); }, 0.0f);
}

// ---------------------------------------------------------------- TIFF

class ImageIoTiff : public ::testing::Test
{
protected:
    void roundTrip(const std::string& name, int w, int h, const TiffOptions& o, int channels)
    {
        SCOPED_TRACE(name);
        const auto path = dir.file(name);
        const Sample source = o.bits == 16 ? Sample(busy16) : Sample(busy8);
        writeTiff(path, w, h, o, source);
        const float scale = o.bits == 16 ? float(255.0 / 65535.0) : 1.0f;
        expectPhoto(lumicrest::readPhoto(path), w, h, channels,
                    [&](int x, int y, int c) { return float(double(source(x, y, c)) * scale); },
                    o.bits == 16 ? 1e-4f : 0.0f);
        int sw = 0, sh = 0;
        lumicrest::readPhotoSize(path, sw, sh);
        EXPECT_EQ(sw, w);
        EXPECT_EQ(sh, h);
    }
    TempDir dir;
};

TEST_F(ImageIoTiff, Strips8BitGreyAndRgb)
{
    TiffOptions grey;
    grey.samples = 1;
    grey.photometric = PHOTOMETRIC_MINISBLACK;
    roundTrip("grey8.tif", 31, 17, grey, 1);
    roundTrip("rgb8.tif", 31, 17, TiffOptions(), 3);
}

TEST_F(ImageIoTiff, Strips16Bit)
{
    TiffOptions o;
    o.bits = 16;
    roundTrip("rgb16.tif", 29, 19, o, 3);
    o.samples = 1;
    o.photometric = PHOTOMETRIC_MINISBLACK;
    roundTrip("grey16.tif", 29, 19, o, 1);
}

TEST_F(ImageIoTiff, SeparatePlanes)
{
    TiffOptions o;
    o.separate = true;
    roundTrip("planar8.tif", 27, 14, o, 3);
    o.bits = 16;
    roundTrip("planar16.tif", 27, 14, o, 3);
}

TEST_F(ImageIoTiff, TilesWithPartialEdgeTiles)
{
    TiffOptions o;
    o.tiled = true;
    roundTrip("tiles8.tif", 40, 35, o, 3);
    o.bits = 16;
    roundTrip("tiles16.tif", 40, 35, o, 3);
    o.separate = true;
    roundTrip("tiles16_planar.tif", 40, 35, o, 3);
    o.samples = 1;
    o.separate = false;
    o.photometric = PHOTOMETRIC_MINISBLACK;
    roundTrip("tiles16_grey.tif", 33, 17, o, 1);
}

TEST_F(ImageIoTiff, AlphaDropped)
{
    TiffOptions o;
    o.samples = 4;
    o.alpha = true;
    roundTrip("rgba8.tif", 21, 13, o, 3);
    o.separate = true;
    o.bits = 16;
    roundTrip("rgba16_planar.tif", 21, 13, o, 3);
    TiffOptions g;
    g.samples = 2;
    g.alpha = true;
    g.photometric = PHOTOMETRIC_MINISBLACK;
    roundTrip("greyalpha8.tif", 21, 13, g, 1);
}

TEST_F(ImageIoTiff, CompressedStripsAndTiles)
{
    TiffOptions o;
    o.compression = COMPRESSION_LZW;
    roundTrip("lzw.tif", 50, 33, o, 3);
    o.compression = COMPRESSION_ADOBE_DEFLATE;
    o.bits = 16;
    o.rowsPerStrip = 33; // one strip, read row by row
    roundTrip("deflate16.tif", 50, 33, o, 3);
    o.tiled = true;
    o.compression = COMPRESSION_PACKBITS;
    o.bits = 8;
    roundTrip("packbits_tiles.tif", 50, 33, o, 3);
}

TEST_F(ImageIoTiff, MinIsWhiteInverted)
{
    const auto path = dir.file("miniswhite.tif");
    TiffOptions o;
    o.samples = 1;
    o.photometric = PHOTOMETRIC_MINISWHITE;
    writeTiff(path, 20, 10, o, busy8);
    expectPhoto(lumicrest::readPhoto(path), 20, 10, 1, [](int x, int y, int) { return 255.0f - float(busy8(x, y, 0)); },
                0.0f);
}

TEST_F(ImageIoTiff, PaletteExpanded)
{
    TiffOptions o;
    o.samples = 1;
    o.photometric = PHOTOMETRIC_PALETTE;
    o.colormap.resize(768);
    for (int i = 0; i < 256; ++i)
    {
        o.colormap[static_cast<size_t>(i)] = static_cast<uint16_t>(i * 257);
        o.colormap[static_cast<size_t>(256 + i)] = static_cast<uint16_t>((255 - i) * 257);
        o.colormap[static_cast<size_t>(512 + i)] = static_cast<uint16_t>(((i * 7) & 0xFF) * 257);
    }
    const auto path = dir.file("palette.tif");
    writeTiff(path, 20, 10, o, busy8);
    expectPhoto(lumicrest::readPhoto(path), 20, 10, 3,
                [](int x, int y, int c) {
                    const int i = busy8(x, y, 0);
                    return float(c == 0 ? i : c == 1 ? 255 - i : (i * 7) & 0xFF);
                },
                1e-4f);
}

TEST_F(ImageIoTiff, JpegCompressedYCbCr)
{
    if (!TIFFIsCODECConfigured(COMPRESSION_JPEG))
        GTEST_SKIP() << "libtiff without JPEG";
    const auto path = dir.file("jpeg.tif");
    TiffOptions o;
    o.compression = COMPRESSION_JPEG;
    o.photometric = PHOTOMETRIC_YCBCR;
    o.rowsPerStrip = 16;
    writeTiff(path, 48, 32, o, smooth8);
    expectPhoto(lumicrest::readPhoto(path), 48, 32, 3, [](int x, int y, int c) { return float(smooth8(x, y, c)); },
                12.0f);
}

TEST_F(ImageIoTiff, UnsupportedLayoutsGive491)
{
    // 1-bit bilevel.
    const auto bilevel = dir.file("bilevel.tif");
    {
        TIFF* tif = TIFFOpen(bilevel.c_str(), "w");
        ASSERT_NE(tif, nullptr);
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, 16u);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, 4u);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 1);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 4u);
        unsigned char row[2] = {0xF0, 0x0F};
        for (uint32_t y = 0; y < 4; ++y)
            TIFFWriteScanline(tif, row, y, 0);
        TIFFClose(tif);
    }
    EXPECT_EQ(readCode(bilevel), 491);
    // 32-bit float samples.
    const auto floats = dir.file("float.tif");
    {
        TIFF* tif = TIFFOpen(floats.c_str(), "w");
        ASSERT_NE(tif, nullptr);
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, 4u);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, 2u);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 32);
        TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 2u);
        float row[4] = {0.f, 0.25f, 0.5f, 1.f};
        for (uint32_t y = 0; y < 2; ++y)
            TIFFWriteScanline(tif, row, y, 0);
        TIFFClose(tif);
    }
    EXPECT_EQ(readCode(floats), 491);
}

// ---------------------------------------------------------------- BMP

class ImageIoBmp : public ::testing::Test
{
protected:
    TempDir dir;
};

TEST_F(ImageIoBmp, Rgb24BottomUpAndTopDown)
{
    for (bool topDown : {false, true})
    {
        SCOPED_TRACE(topDown ? "top-down" : "bottom-up");
        const auto path = dir.file(topDown ? "topdown.bmp" : "bottomup.bmp");
        BmpOptions o;
        o.topDown = topDown;
        writeBytes(path, bmpBytes(13, 7, o, busy8)); // 13 * 3 = 39 bytes: row padding
        expectPhoto(lumicrest::readPhoto(path), 13, 7, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); },
                    0.0f);
        int w = 0, h = 0;
        lumicrest::readPhotoSize(path, w, h);
        EXPECT_EQ(w, 13);
        EXPECT_EQ(h, 7);
    }
}

TEST_F(ImageIoBmp, Rgb32)
{
    const auto path = dir.file("rgb32.bmp");
    BmpOptions o;
    o.bits = 32;
    writeBytes(path, bmpBytes(11, 6, o, busy8));
    expectPhoto(lumicrest::readPhoto(path), 11, 6, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); }, 0.0f);
}

TEST_F(ImageIoBmp, Bitfields32FollowTheMasks)
{
    BmpOptions o;
    o.bits = 32;
    o.compression = 3;
    // Pixels are written B, G, R, X; the masks say byte 0 is red and byte 2 blue.
    o.masks = {0x000000FFu, 0x0000FF00u, 0x00FF0000u};
    const auto path = dir.file("bitfields.bmp");
    writeBytes(path, bmpBytes(9, 4, o, busy8));
    expectPhoto(lumicrest::readPhoto(path), 9, 4, 3, [](int x, int y, int c) { return float(busy8(x, y, 2 - c)); },
                0.0f);
    // Masks that are not whole bytes are not supported.
    o.masks = {0x7C00u, 0x03E0u, 0x001Fu};
    writeBytes(path, bmpBytes(9, 4, o, busy8));
    EXPECT_EQ(readCode(path), 491);
}

TEST_F(ImageIoBmp, Palette8GreyAndColour)
{
    BmpOptions grey;
    grey.bits = 8;
    for (int i = 0; i < 256; ++i)
        grey.palette.push_back({static_cast<unsigned char>(i), static_cast<unsigned char>(i),
                                static_cast<unsigned char>(i)});
    const auto greyPath = dir.file("grey8.bmp");
    writeBytes(greyPath, bmpBytes(10, 5, grey, busy8));
    expectPhoto(lumicrest::readPhoto(greyPath), 10, 5, 1, [](int x, int y, int) { return float(busy8(x, y, 0)); },
                0.0f);

    BmpOptions colour;
    colour.bits = 8;
    for (int i = 0; i < 20; ++i)
        colour.palette.push_back({static_cast<unsigned char>(i * 10), static_cast<unsigned char>(200 - i),
                                  static_cast<unsigned char>(i * 3)});
    auto index = [](int x, int y, int) { return (x + 2 * y) % 20; };
    const auto colourPath = dir.file("colour8.bmp");
    writeBytes(colourPath, bmpBytes(10, 5, colour, index));
    expectPhoto(lumicrest::readPhoto(colourPath), 10, 5, 3,
                [&](int x, int y, int c) { return float(colour.palette[static_cast<size_t>(index(x, y, 0))][c]); },
                0.0f);
}

TEST_F(ImageIoBmp, V5HeaderAndMissingLastRowPadding)
{
    BmpOptions o;
    o.headerSize = 124;
    auto bytes = bmpBytes(5, 4, o, busy8);
    bytes.resize(bytes.size() - 1); // 5 * 3 = 15 bytes + 1 padding: drop the final padding byte
    const auto path = dir.file("v5.bmp");
    writeBytes(path, bytes);
    expectPhoto(lumicrest::readPhoto(path), 5, 4, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); }, 0.0f);
}

// ---------------------------------------------------------------- content, not name

TEST(ImageIoContent, FormatComesFromContentNotName)
{
    TempDir dir;
    const auto pngAsJpg = dir.file("really_png.jpg");
    writePng(pngAsJpg, 9, 7, PngOptions{PNG_COLOR_TYPE_RGB, 8}, busy8);
    expectPhoto(lumicrest::readPhoto(pngAsJpg), 9, 7, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); },
                0.0f);

    const auto jpgAsPng = dir.file("really_jpeg.png");
    writeJpeg(jpgAsPng, 16, 8, 1, smooth8);
    EXPECT_EQ(lumicrest::readPhoto(jpgAsPng).channels, 1);

    const auto tiffAsBmp = dir.file("really_tiff.bmp");
    TiffOptions t;
    writeTiff(tiffAsBmp, 9, 7, t, busy8);
    expectPhoto(lumicrest::readPhoto(tiffAsBmp), 9, 7, 3, [](int x, int y, int c) { return float(busy8(x, y, c)); },
                0.0f);

    const auto bmpNoExtension = dir.file("bitmap");
    writeBytes(bmpNoExtension, bmpBytes(9, 7, BmpOptions(), busy8));
    expectPhoto(lumicrest::readPhoto(bmpNoExtension), 9, 7, 3,
                [](int x, int y, int c) { return float(busy8(x, y, c)); }, 0.0f);

    const auto textAsJpg = dir.file("notes.jpg");
    writeText(textAsJpg, "this is not a photo\n");
    EXPECT_EQ(readCode(textAsJpg), 491);
}

// ---------------------------------------------------------------- EXIF

TEST(ImageIoExif, ReadsMakeModelLensOrientation)
{
    TempDir dir;
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
    EXPECT_EQ(p.info.make, "NIKON CORPORATION");
    EXPECT_EQ(p.info.model, "NIKON D750");
    EXPECT_EQ(p.info.orientation, 6);
    EXPECT_EQ(p.width, 32);
    EXPECT_EQ(p.height, 16);
}

TEST(ImageIoExif, AbsentOrUnreadableGivesEmptyFields)
{
    TempDir dir;
    const auto plain = dir.file("plain.jpg");
    writeJpeg(plain, 16, 16, 1, smooth8);
    const auto text = dir.file("text.jpg");
    writeText(text, "not a photo");
    const auto png = dir.file("plain.png");
    writePng(png, 4, 4, PngOptions{PNG_COLOR_TYPE_GRAY, 8}, busy8);
    for (const std::string& path : {plain, text, png, dir.file("missing.jpg"), std::string()})
    {
        SCOPED_TRACE(path);
        const PhotoInfo info = lumicrest::readPhotoInfo(path);
        EXPECT_EQ(info.make, "");
        EXPECT_EQ(info.model, "");
        EXPECT_EQ(info.lens, "");
        EXPECT_EQ(info.orientation, 1);
    }
    EXPECT_EQ(lumicrest::readPhoto(plain).info.make, "");
}

TEST(ImageIoExif, OutOfRangeOrientationIsIgnored)
{
    TempDir dir;
    const auto path = dir.file("orient.jpg");
    writeJpeg(path, 16, 16, 1, smooth8);
    writeExif(path, [](Exiv2::ExifData& exif) {
        exif["Exif.Image.Make"] = std::string("Canon");
        exif["Exif.Image.Orientation"] = uint16_t(42);
    });
    const PhotoInfo info = lumicrest::readPhotoInfo(path);
    EXPECT_EQ(info.make, "Canon");
    EXPECT_EQ(info.orientation, 1);
}

TEST(ImageIoExif, TiffTagsAreRead)
{
    TempDir dir;
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
    const auto size = readBytes(path).size();
    EXPECT_EQ(lumicrest::readPhotoInfo(path, size).make, "FUJIFILM");
    EXPECT_EQ(lumicrest::readPhotoInfo(path, size - 20).make, "");
    truncateFile(path, size - 20);
    EXPECT_EQ(lumicrest::readPhotoInfo(path).make, "");
}

// ---------------------------------------------------------------- failures

class ImageIoFailure : public ::testing::Test
{
protected:
    std::string validJpeg(const std::string& name, int w = 64, int h = 48)
    {
        const auto path = dir.file(name);
        writeJpeg(path, w, h, 3, smooth8);
        return path;
    }
    std::string validPng(const std::string& name)
    {
        const auto path = dir.file(name);
        writePng(path, 64, 48, PngOptions{PNG_COLOR_TYPE_RGB, 8}, busy8);
        return path;
    }
    TempDir dir;
};

TEST_F(ImageIoFailure, CannotOpen410)
{
    EXPECT_EQ(readCode(dir.file("does_not_exist.jpg")), 410);
    EXPECT_EQ(sizeCode(dir.file("does_not_exist.jpg")), 410);
    EXPECT_EQ(readCode(dir.file("")), 410); // the directory itself
    EXPECT_EQ(readCode(""), 410);

    // Opening or reading these would block forever or never end; a hang here
    // ends in the test's timeout.
    const auto fifo = dir.file("fifo.jpg");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto link = dir.file("link_to_fifo.jpg");
    fs::create_symlink(fifo, link);
    for (const std::string& special : {fifo, link, std::string("/dev/zero")})
    {
        SCOPED_TRACE(special);
        EXPECT_EQ(readCode(special), 410);
        EXPECT_EQ(sizeCode(special), 410);
        EXPECT_EQ(lumicrest::readPhotoInfo(special).make, "");
    }
}

TEST_F(ImageIoFailure, EmptyFile490)
{
    const auto path = dir.file("empty.jpg");
    writeText(path, "");
    EXPECT_EQ(readCode(path), 490);
    EXPECT_EQ(sizeCode(path), 490);
}

TEST_F(ImageIoFailure, NotAnImage491)
{
    const auto path = dir.file("text.png");
    writeText(path, "GIF89a is not supported either");
    EXPECT_EQ(readCode(path), 491);
    EXPECT_EQ(sizeCode(path), 491);
}

TEST_F(ImageIoFailure, JpegTruncated440)
{
    const auto path = validJpeg("cut.jpg", 128, 96);
    const auto bytes = readBytes(path);
    const size_t sos = findBytes(bytes, {0xFF, 0xDA});
    ASSERT_NE(sos, std::string::npos);
    ASSERT_LT(sos + 200, bytes.size());
    truncateFile(path, sos + 200); // inside the entropy-coded data
    EXPECT_EQ(readCode(path), 440);
    // The header is whole, so the size can still be read.
    int w = 0, h = 0;
    lumicrest::readPhotoSize(path, w, h);
    EXPECT_EQ(w, 128);
    EXPECT_EQ(h, 96);

    const auto head = validJpeg("cut_head.jpg");
    truncateFile(head, 40);
    EXPECT_EQ(readCode(head), 440);
    EXPECT_EQ(sizeCode(head), 440);
}

TEST_F(ImageIoFailure, JpegCorrupt412)
{
    // A Huffman table whose code counts exceed 256 codes.
    const auto table = validJpeg("bad_table.jpg");
    auto bytes = readBytes(table);
    const size_t dht = findBytes(bytes, {0xFF, 0xC4});
    ASSERT_NE(dht, std::string::npos);
    for (size_t i = dht + 5; i < dht + 21; ++i)
        bytes[i] = 0xFF;
    writeBytes(table, bytes);
    EXPECT_EQ(readCode(table), 412);

    // An end-of-image marker in the middle of the entropy-coded data.
    const auto scan = validJpeg("bad_scan.jpg", 128, 128);
    bytes = readBytes(scan);
    const size_t sos = findBytes(bytes, {0xFF, 0xDA});
    ASSERT_NE(sos, std::string::npos);
    const size_t middle = sos + (bytes.size() - sos) / 3;
    bytes[middle] = 0xFF;
    bytes[middle + 1] = 0xD9;
    writeBytes(scan, bytes);
    EXPECT_EQ(readCode(scan), 412);

    // A frame header with an impossible sample precision.
    const auto frame = validJpeg("bad_frame.jpg");
    bytes = readBytes(frame);
    const size_t sof = findBytes(bytes, {0xFF, 0xC0});
    ASSERT_NE(sof, std::string::npos);
    bytes[sof + 4] = 7; // 7-bit samples
    writeBytes(frame, bytes);
    EXPECT_EQ(readCode(frame), 412);
}

TEST_F(ImageIoFailure, JpegCmykNotSupported491)
{
    const auto path = dir.file("cmyk.jpg");
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    jpeg_stdio_dest(&c, f);
    c.image_width = 16;
    c.image_height = 8;
    c.input_components = 4;
    c.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&c);
    jpeg_start_compress(&c, TRUE);
    std::vector<JSAMPLE> row(16 * 4, 100);
    for (int y = 0; y < 8; ++y)
    {
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&c, rows, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::fclose(f);
    EXPECT_EQ(readCode(path), 491);
}

void patchJpegSize(std::vector<unsigned char>& bytes, int w, int h)
{
    const size_t sof = findBytes(bytes, {0xFF, 0xC0});
    ASSERT_NE(sof, std::string::npos);
    bytes[sof + 5] = static_cast<unsigned char>(h >> 8);
    bytes[sof + 6] = static_cast<unsigned char>(h & 0xFF);
    bytes[sof + 7] = static_cast<unsigned char>(w >> 8);
    bytes[sof + 8] = static_cast<unsigned char>(w & 0xFF);
}

TEST_F(ImageIoFailure, JpegForgedSizes)
{
    const auto huge = validJpeg("huge.jpg");
    auto bytes = readBytes(huge);
    patchJpegSize(bytes, 60000, 60000);
    writeBytes(huge, bytes);
    EXPECT_EQ(readCode(huge), 720);
    EXPECT_EQ(sizeCode(huge), 720);

    const auto zero = validJpeg("zero.jpg");
    bytes = readBytes(zero);
    patchJpegSize(bytes, 64, 0);
    writeBytes(zero, bytes);
    EXPECT_EQ(readCode(zero), 490);

    const auto wide = validJpeg("wide.jpg");
    bytes = readBytes(wide);
    patchJpegSize(bytes, 65535, 1);
    writeBytes(wide, bytes);
    ReadLimits narrow;
    narrow.maxSide = 60000;
    EXPECT_EQ(readCode(wide, narrow), 490);
}

void writePngChunkPatched(const std::string& path, uint32_t w, uint32_t h)
{
    auto bytes = readBytes(path);
    for (int i = 0; i < 4; ++i)
    {
        bytes[16 + i] = static_cast<unsigned char>(w >> (24 - 8 * i));
        bytes[20 + i] = static_cast<unsigned char>(h >> (24 - 8 * i));
    }
    // Keep the IHDR CRC valid, so only the size is wrong.
    const uLong crc = crc32(crc32(0L, nullptr, 0), bytes.data() + 12, 17);
    for (int i = 0; i < 4; ++i)
        bytes[29 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    writeBytes(path, bytes);
}

TEST_F(ImageIoFailure, PngTruncated440)
{
    const auto path = validPng("cut.png");
    truncateFile(path, readBytes(path).size() / 2);
    EXPECT_EQ(readCode(path), 440);
    EXPECT_EQ(sizeCode(path), 200);
    const auto head = validPng("cut_head.png");
    truncateFile(head, 20);
    EXPECT_EQ(readCode(head), 440);
}

TEST_F(ImageIoFailure, PngCorrupt412)
{
    const auto path = validPng("crc.png");
    auto bytes = readBytes(path);
    const size_t idat = findBytes(bytes, {'I', 'D', 'A', 'T'});
    ASSERT_NE(idat, std::string::npos);
    bytes[idat + 10] ^= 0x55; // damaged compressed data (and a chunk CRC that no longer matches)
    writeBytes(path, bytes);
    EXPECT_EQ(readCode(path), 412);

    const auto header = validPng("bad_ihdr.png");
    bytes = readBytes(header);
    bytes[24] = 7; // bit depth 7
    writeBytes(header, bytes);
    EXPECT_EQ(readCode(header), 412);
}

TEST_F(ImageIoFailure, PngForgedSizes)
{
    const auto huge = validPng("huge.png");
    writePngChunkPatched(huge, 60000, 60000);
    EXPECT_EQ(readCode(huge), 720);
    EXPECT_EQ(sizeCode(huge), 720);
    const auto wide = validPng("wide.png");
    writePngChunkPatched(wide, 100000, 1);
    EXPECT_EQ(readCode(wide), 490);
    const auto zero = validPng("zero.png");
    writePngChunkPatched(zero, 0, 48);
    EXPECT_EQ(readCode(zero), 490);
}

TEST_F(ImageIoFailure, TiffTruncated440)
{
    // libtiff writes its directory last: cutting loses the directory.
    const auto path = dir.file("cut.tif");
    writeTiff(path, 64, 48, TiffOptions(), busy8);
    truncateFile(path, readBytes(path).size() / 2);
    EXPECT_EQ(readCode(path), 440);
    EXPECT_EQ(sizeCode(path), 440);

    // Directory first: cutting loses pixel data.
    const auto strips = dir.file("cut_strips.tif");
    auto bytes = handTiff(40, 30, busy8);
    writeBytes(strips, bytes);
    expectPhoto(lumicrest::readPhoto(strips), 40, 30, 1, [](int x, int y, int) { return float(busy8(x, y, 0)); },
                0.0f);
    bytes.resize(bytes.size() - 500);
    writeBytes(strips, bytes);
    EXPECT_EQ(readCode(strips), 440);
    EXPECT_EQ(sizeCode(strips), 200);
}

TEST_F(ImageIoFailure, TiffCorrupt412)
{
    const auto path = dir.file("garbage.tif");
    std::vector<unsigned char> bytes = {'I', 'I', 42, 0, 8, 0, 0, 0, 3, 0};
    for (int i = 0; i < 3 * 12 + 4; ++i)
        bytes.push_back(static_cast<unsigned char>((i * 97 + 13) & 0xFF));
    writeBytes(path, bytes);
    EXPECT_EQ(readCode(path), 412);

    // Damaged LZW data inside an intact file.
    const auto lzw = dir.file("bad_lzw.tif");
    TiffOptions o;
    o.compression = COMPRESSION_LZW;
    o.rowsPerStrip = 48;
    writeTiff(lzw, 64, 48, o, busy8);
    bytes = readBytes(lzw);
    std::fill(bytes.begin() + 20, bytes.begin() + 400, 0xFF);
    writeBytes(lzw, bytes);
    EXPECT_EQ(readCode(lzw), 412);

    // Width present, length missing.
    const auto noLength = dir.file("no_length.tif");
    bytes = handTiff(8, 8, busy8);
    bytes[8 + 2 + 12] = 0x99; // tag 257 -> 0x199: unknown tag
    bytes[8 + 2 + 12 + 1] = 0x01;
    writeBytes(noLength, bytes);
    EXPECT_EQ(readCode(noLength), 412);
}

TEST_F(ImageIoFailure, TiffForgedHugeSize720)
{
    const auto path = dir.file("huge.tif");
    auto bytes = handTiff(8, 8, busy8);
    // ImageWidth and ImageLength values: 60000 x 60000.
    for (int e = 0; e < 2; ++e)
    {
        const size_t at = 8 + 2 + static_cast<size_t>(e) * 12 + 8;
        bytes[at] = 60000 & 0xFF;
        bytes[at + 1] = 60000 >> 8;
    }
    writeBytes(path, bytes);
    EXPECT_EQ(readCode(path), 720);
    EXPECT_EQ(sizeCode(path), 720);
}

TEST_F(ImageIoFailure, BmpFailures)
{
    // Declares 60000 x 60000: refused before allocating or reading.
    auto huge = bmpBytes(4, 4, BmpOptions(), busy8);
    for (int i = 0; i < 4; ++i)
    {
        huge[18 + i] = static_cast<unsigned char>(60000u >> (8 * i));
        huge[22 + i] = static_cast<unsigned char>(60000u >> (8 * i));
    }
    writeBytes(dir.file("huge.bmp"), huge);
    EXPECT_EQ(readCode(dir.file("huge.bmp")), 720);
    EXPECT_EQ(sizeCode(dir.file("huge.bmp")), 720);

    BmpOptions rle;
    rle.bits = 8;
    rle.compression = 1;
    rle.palette.resize(4);
    writeBytes(dir.file("rle8.bmp"), bmpBytes(8, 4, rle, [](int, int, int) { return 0; }));
    EXPECT_EQ(readCode(dir.file("rle8.bmp")), 491);

    BmpOptions hi;
    hi.bits = 16;
    writeBytes(dir.file("rgb16.bmp"), bmpBytes(8, 4, hi, busy8));
    EXPECT_EQ(readCode(dir.file("rgb16.bmp")), 491);

    auto cut = bmpBytes(20, 10, BmpOptions(), busy8);
    cut.resize(cut.size() - 100);
    writeBytes(dir.file("cut.bmp"), cut);
    EXPECT_EQ(readCode(dir.file("cut.bmp")), 440);

    auto badHeader = bmpBytes(4, 4, BmpOptions(), busy8);
    badHeader[14] = 0xFF;
    badHeader[15] = 0xFF;
    writeBytes(dir.file("bad_header.bmp"), badHeader);
    EXPECT_EQ(readCode(dir.file("bad_header.bmp")), 490);

    auto zeroWidth = bmpBytes(4, 4, BmpOptions(), busy8);
    std::fill(zeroWidth.begin() + 18, zeroWidth.begin() + 22, 0);
    writeBytes(dir.file("zero_width.bmp"), zeroWidth);
    EXPECT_EQ(readCode(dir.file("zero_width.bmp")), 490);

    writeText(dir.file("bm.txt"), "BMW owners' club minutes");
    EXPECT_EQ(readCode(dir.file("bm.txt")), 490);
    writeText(dir.file("bm_short.txt"), "BM");
    EXPECT_EQ(readCode(dir.file("bm_short.txt")), 440);
}

TEST_F(ImageIoFailure, CustomLimits)
{
    const auto path = validPng("limits.png"); // 64 x 48
    ReadLimits fewPixels;
    fewPixels.maxPixels = 64 * 48 - 1;
    EXPECT_EQ(readCode(path, fewPixels), 720);
    ReadLimits exact;
    exact.maxPixels = 64 * 48;
    exact.maxSide = 64;
    EXPECT_EQ(readCode(path, exact), 200);
    ReadLimits shortSide;
    shortSide.maxSide = 63;
    EXPECT_EQ(readCode(path, shortSide), 490);
    const auto jpeg = validJpeg("limits.jpg");
    EXPECT_EQ(readCode(jpeg, fewPixels), 720);
    const auto tiff = dir.file("limits.tif");
    writeTiff(tiff, 64, 48, TiffOptions(), busy8);
    EXPECT_EQ(readCode(tiff, fewPixels), 720);
    const auto bmp = dir.file("limits.bmp");
    writeBytes(bmp, bmpBytes(64, 48, BmpOptions(), busy8));
    EXPECT_EQ(readCode(bmp, fewPixels), 720);
}

TEST_F(ImageIoFailure, FailureDetailNamesTheFile)
{
    const auto path = dir.file("named.jpg");
    writeText(path, "plain text");
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

// ---------------------------------------------------------------- checked-in fixtures

// Every file in tests/data/broken named NNN_*.ext must give the result value
// NNN; files not following the scheme (other than the README and the
// generator) fail the test, so no fixture silently never runs.
std::vector<fs::path> brokenFixtures()
{
    std::vector<fs::path> files;
    const fs::path folder = fs::path(QUORVEX_TEST_DATA_DIR) / "broken";
    if (!fs::is_directory(folder))
        return files;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

TEST(ImageIoFixtures, EachBrokenFixtureGivesTheValueInItsName)
{
    const auto files = brokenFixtures();
    ASSERT_GE(files.size(), 10u) << "tests/data/broken is missing or nearly empty";
    const std::regex scheme(R"(^(\d{3})_.+)");
    int checked = 0;
    for (const auto& file : files)
    {
        const std::string name = file.filename().string();
        if (name == "README.md" || name == "make_broken.py")
            continue;
        std::smatch m;
        if (!std::regex_match(name, m, scheme))
        {
            ADD_FAILURE() << "fixture " << name << " is not named NNN_description";
            continue;
        }
        const int want = std::stoi(m[1].str());
        EXPECT_EQ(readCode(file.string()), want) << name;
        ++checked;
    }
    EXPECT_GE(checked, 10);
}

// ---------------------------------------------------------------- silence

TEST(ImageIoSilence, NothingReachesStderr)
{
    TempDir dir;
    // A mix of good and broken files of every format.
    std::vector<std::string> paths;
    for (const auto& f : brokenFixtures())
        paths.push_back(f.string());
    const auto jpeg = dir.file("ok.jpg");
    writeJpeg(jpeg, 32, 16, 3, smooth8);
    const auto cutJpeg = dir.file("cut.jpg");
    writeJpeg(cutJpeg, 64, 64, 3, smooth8);
    truncateFile(cutJpeg, readBytes(cutJpeg).size() / 2);
    const auto cutTiff = dir.file("cut.tif");
    writeTiff(cutTiff, 64, 48, TiffOptions(), busy8);
    truncateFile(cutTiff, readBytes(cutTiff).size() / 2);
    const auto tiffStrips = dir.file("cut_strips.tif");
    auto hand = handTiff(40, 30, busy8);
    hand.resize(hand.size() - 500);
    writeBytes(tiffStrips, hand);
    // A TIFF with a tag libtiff warns about (unknown tag 0x199).
    const auto oddTag = dir.file("odd_tag.tif");
    hand = handTiff(8, 8, busy8);
    hand[8 + 2 + 12 * 3] = 0x99;
    hand[8 + 2 + 12 * 3 + 1] = 0x01;
    writeBytes(oddTag, hand);
    const auto crcPng = dir.file("crc.png");
    writePng(crcPng, 64, 48, PngOptions{PNG_COLOR_TYPE_RGB, 8}, busy8);
    auto bytes = readBytes(crcPng);
    bytes[findBytes(bytes, {'I', 'D', 'A', 'T'}) + 10] ^= 0x55;
    writeBytes(crcPng, bytes);
    paths.insert(paths.end(), {jpeg, cutJpeg, cutTiff, tiffStrips, oddTag, crcPng});

    StderrCapture capture(dir.file("stderr.txt"));
    for (const auto& p : paths)
    {
        readCode(p);
        sizeCode(p);
        lumicrest::readPhotoInfo(p);
    }
    const std::string printed = capture.finish();
    EXPECT_EQ(printed, "");
}

// ---------------------------------------------------------------- threads

TEST(ImageIoThreads, EightThreadsDecodeIdentically)
{
    TempDir dir;
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
    writeJpeg(add("b.jpg"), 128, 96, 1, smooth8, JpegOptions{90, true});
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

    std::vector<std::string> bad;
    const auto cut = dir.file("cut.jpg");
    writeJpeg(cut, 160, 120, 3, smooth8);
    truncateFile(cut, readBytes(cut).size() / 2);
    bad.push_back(cut);
    const auto cutPng = dir.file("cut.png");
    writePng(cutPng, 150, 100, PngOptions{PNG_COLOR_TYPE_RGB, 8}, busy8);
    truncateFile(cutPng, readBytes(cutPng).size() / 2);
    bad.push_back(cutPng);
    const auto cutTiff = dir.file("cut.tif");
    writeTiff(cutTiff, 64, 48, TiffOptions(), busy8);
    truncateFile(cutTiff, readBytes(cutTiff).size() / 2);
    bad.push_back(cutTiff);

    std::vector<Photo> reference;
    for (const auto& p : good)
        reference.push_back(lumicrest::readPhoto(p));
    EXPECT_EQ(reference[0].info.model, "Canon EOS 5D");
    EXPECT_EQ(reference[0].info.orientation, 3);
    std::vector<int32_t> badCodes;
    for (const auto& p : bad)
        badCodes.push_back(readCode(p));
    EXPECT_EQ(badCodes, (std::vector<int32_t>{440, 440, 440}));

    std::atomic<int> mismatches{0};
    std::atomic<int> decoded{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 4; ++round)
                for (size_t k = 0; k < good.size() + bad.size(); ++k)
                {
                    const size_t i = (k + static_cast<size_t>(t)) % (good.size() + bad.size());
                    if (i < good.size())
                    {
                        const Photo p = lumicrest::readPhoto(good[i]);
                        const Photo& r = reference[i];
                        if (!samePixels(p, r) || p.info.make != r.info.make || p.info.model != r.info.model ||
                            p.info.orientation != r.info.orientation)
                            ++mismatches;
                        ++decoded;
                    }
                    else if (readCode(bad[i - good.size()]) != badCodes[i - good.size()])
                        ++mismatches;
                }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(decoded.load(), 8 * 4 * static_cast<int>(good.size()));
}

} // namespace

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
