#include "camsim/imagefile.h"

#include <exiv2/exiv2.hpp>
#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <mutex>

namespace camsim
{

namespace
{

std::vector<unsigned char> readFileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw Error("cannot open " + path);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)),
                                     std::istreambuf_iterator<char>());
    if (file.bad())
        throw Error("cannot read " + path);
    return bytes;
}

FILE* createFile(const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        throw Error("cannot create " + path + ": " + std::strerror(errno));
    return file;
}

// ---- JPEG ----------------------------------------------------------------

// libjpeg reports errors by calling error_exit, which must not return: we jump
// back to the caller. Each function with a setjmp constructs its C++ objects
// before it, so the jump skips no destructors.
struct JpegError
{
    jpeg_error_mgr base;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr info)
{
    JpegError* error = reinterpret_cast<JpegError*>(info->err);
    (*info->err->format_message)(info, error->message);
    std::longjmp(error->jump, 1);
}

void jpegQuiet(j_common_ptr, int) {}

struct JpegMarker
{
    int code = 0;
    std::vector<unsigned char> data;
};

struct JpegPixels
{
    int width = 0;
    int height = 0;
    int components = 0; // 1 or 3
    bool jfif = false;
    std::vector<unsigned char> pixels;
    std::vector<JpegMarker> markers;
};

JpegPixels decodeJpeg(const std::vector<unsigned char>& bytes, bool keepGrey, bool keepMarkers,
                      const std::string& path)
{
    JpegPixels result;
    jpeg_decompress_struct info;
    JpegError error;
    info.err = jpeg_std_error(&error.base);
    error.base.error_exit = jpegErrorExit;
    error.base.emit_message = jpegQuiet;
    if (setjmp(error.jump))
    {
        jpeg_destroy_decompress(&info);
        throw Error("cannot decode " + path + ": " + error.message);
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
    if (keepMarkers)
    {
        // APP14 is left out: libjpeg writes its own colour-transform marker.
        for (int n = 1; n <= 15; ++n)
            if (n != 14)
                jpeg_save_markers(&info, JPEG_APP0 + n, 0xFFFF);
        jpeg_save_markers(&info, JPEG_COM, 0xFFFF);
    }
    jpeg_read_header(&info, TRUE);
    if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK)
    {
        jpeg_destroy_decompress(&info);
        throw Error(path + ": CMYK JPEG is not supported");
    }
    const bool grey = info.num_components == 1 && keepGrey;
    info.out_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_start_decompress(&info);
    result.width = static_cast<int>(info.output_width);
    result.height = static_cast<int>(info.output_height);
    result.components = info.output_components;
    result.jfif = info.saw_JFIF_marker;
    const size_t stride = static_cast<size_t>(result.width) * static_cast<size_t>(result.components);
    result.pixels.resize(stride * static_cast<size_t>(result.height));
    while (info.output_scanline < info.output_height)
    {
        JSAMPROW row = result.pixels.data() + stride * info.output_scanline;
        jpeg_read_scanlines(&info, &row, 1);
    }
    for (jpeg_saved_marker_ptr m = info.marker_list; m; m = m->next)
        result.markers.push_back({m->marker, std::vector<unsigned char>(m->data, m->data + m->data_length)});
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return result;
}

// Encodes packed 8-bit samples (1 or 3 per pixel).
void encodeJpeg(const std::string& path, const unsigned char* pixels, int width, int height, int components,
                int quality, bool jfif, const std::vector<JpegMarker>& markers)
{
    FILE* file = createFile(path);
    jpeg_compress_struct info;
    JpegError error;
    info.err = jpeg_std_error(&error.base);
    error.base.error_exit = jpegErrorExit;
    error.base.emit_message = jpegQuiet;
    if (setjmp(error.jump))
    {
        jpeg_destroy_compress(&info);
        std::fclose(file);
        std::remove(path.c_str());
        throw Error("cannot write " + path + ": " + error.message);
    }
    jpeg_create_compress(&info);
    jpeg_stdio_dest(&info, file);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = components;
    info.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    info.write_JFIF_header = jfif ? TRUE : FALSE;
    jpeg_start_compress(&info, TRUE);
    for (const JpegMarker& m : markers)
        jpeg_write_marker(&info, m.code, m.data.data(), static_cast<unsigned int>(m.data.size()));
    const size_t stride = static_cast<size_t>(width) * static_cast<size_t>(components);
    while (info.next_scanline < info.image_height)
    {
        JSAMPROW row = const_cast<unsigned char*>(pixels + stride * info.next_scanline);
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    if (std::fclose(file) != 0)
    {
        std::remove(path.c_str());
        throw Error("cannot write " + path);
    }
}

void writeJpeg(const Image& image, const std::string& path, int quality)
{
    if (image.bits != 8)
        throw Error("JPEG holds 8 bits only");
    if (quality < 1 || quality > 100)
        throw Error("JPEG quality must lie in 1..100");
    const std::vector<unsigned char> pixels(image.samples.begin(), image.samples.end());
    // Cameras write an EXIF block instead of a JFIF one.
    encodeJpeg(path, pixels.data(), image.width, image.height, 3, quality, false, {});
}

Image readJpeg(const std::vector<unsigned char>& bytes, const std::string& path)
{
    JpegPixels decoded = decodeJpeg(bytes, false, false, path);
    Image image(decoded.width, decoded.height, 8);
    std::copy(decoded.pixels.begin(), decoded.pixels.end(), image.samples.begin());
    return image;
}

// ---- PNG -----------------------------------------------------------------

void pngError(png_structp png, png_const_charp message)
{
    std::snprintf(static_cast<char*>(png_get_error_ptr(png)), 256, "%s", message);
    png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp) {}

void writePng(const Image& image, const std::string& path)
{
    FILE* file = createFile(path);
    const int bytesPerSample = image.bits == 16 ? 2 : 1;
    std::vector<unsigned char> row(static_cast<size_t>(image.width) * 3 *
                                   static_cast<size_t>(bytesPerSample));
    char message[256] = "";
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, message, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info)
    {
        png_destroy_write_struct(&png, nullptr);
        std::fclose(file);
        throw Error("cannot write " + path + ": out of memory");
    }
    if (setjmp(png_jmpbuf(png)))
    {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        std::remove(path.c_str());
        throw Error("cannot write " + path + ": " + message);
    }
    png_init_io(png, file);
    png_set_compression_level(png, 1); // fast; size does not matter here
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height),
                 image.bits, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t count = static_cast<size_t>(image.width) * 3;
    for (int y = 0; y < image.height; ++y)
    {
        const uint16_t* src = image.samples.data() + count * static_cast<size_t>(y);
        if (bytesPerSample == 2)
        {
            // PNG stores 16-bit samples big-endian.
            for (size_t i = 0; i < count; ++i)
            {
                row[2 * i] = static_cast<unsigned char>(src[i] >> 8);
                row[2 * i + 1] = static_cast<unsigned char>(src[i] & 0xff);
            }
        }
        else
        {
            for (size_t i = 0; i < count; ++i)
                row[i] = static_cast<unsigned char>(src[i]);
        }
        png_write_row(png, row.data());
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(file) != 0)
    {
        std::remove(path.c_str());
        throw Error("cannot write " + path);
    }
}

Image readPng(const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        throw Error("cannot open " + path);
    Image image;
    std::vector<unsigned char> bytes;
    std::vector<png_bytep> rows;
    char message[256] = "";
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, message, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info)
    {
        png_destroy_read_struct(&png, nullptr, nullptr);
        std::fclose(file);
        throw Error("cannot read " + path + ": out of memory");
    }
    if (setjmp(png_jmpbuf(png)))
    {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(file);
        throw Error("cannot decode " + path + ": " + message);
    }
    png_init_io(png, file);
    png_read_info(png, info);
    png_set_expand(png);
    png_set_strip_alpha(png);
    png_set_gray_to_rgb(png);
    png_set_interlace_handling(png);
    // Here libpng does the byte order (the writer packs bytes itself), so a
    // round trip checks the writer against the library.
    const uint16_t one = 1;
    unsigned char firstByte = 0;
    std::memcpy(&firstByte, &one, 1);
    if (firstByte == 1)
        png_set_swap(png);
    png_read_update_info(png, info);
    const int bits = png_get_bit_depth(png, info) == 16 ? 16 : 8;
    const int width = static_cast<int>(png_get_image_width(png, info));
    const int height = static_cast<int>(png_get_image_height(png, info));
    const size_t stride = png_get_rowbytes(png, info);
    bytes.resize(stride * static_cast<size_t>(height));
    rows.resize(static_cast<size_t>(height));
    for (int y = 0; y < height; ++y)
        rows[static_cast<size_t>(y)] = bytes.data() + stride * static_cast<size_t>(y);
    png_read_image(png, rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);

    image = Image(width, height, bits);
    const size_t count = static_cast<size_t>(width) * 3;
    for (int y = 0; y < height; ++y)
    {
        const unsigned char* src = rows[static_cast<size_t>(y)];
        uint16_t* dst = image.samples.data() + count * static_cast<size_t>(y);
        if (bits == 16)
            std::memcpy(dst, src, count * 2);
        else
            std::copy(src, src + count, dst);
    }
    return image;
}

// ---- TIFF ----------------------------------------------------------------

// Per-file handlers, so the process-wide libtiff handlers stay untouched.
int tiffError(TIFF*, void* user, const char* module, const char* format, va_list args)
{
    std::string& message = *static_cast<std::string*>(user);
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    message = std::string(module ? module : "") + ": " + text;
    return 1;
}

int tiffWarning(TIFF*, void*, const char*, const char*, va_list)
{
    return 1;
}

TIFF* openTiff(const std::string& path, const char* mode, std::string& message)
{
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options, tiffError, &message);
    TIFFOpenOptionsSetWarningHandlerExtR(options, tiffWarning, nullptr);
    TIFF* tiff = TIFFOpenExt(path.c_str(), mode, options);
    TIFFOpenOptionsFree(options);
    return tiff;
}

void writeTiff(const Image& image, const std::string& path)
{
    std::string message;
    TIFF* tiff = openTiff(path, "w", message);
    if (!tiff)
        throw Error("cannot create " + path + ": " + message);
    const auto fail = [&]()
    {
        TIFFClose(tiff);
        std::remove(path.c_str());
        throw Error("cannot write " + path + ": " + message);
    };
    bool ok = TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.width)) &&
              TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.height)) &&
              TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(image.bits)) &&
              TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(3)) &&
              TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB) &&
              TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
              TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
    if (!ok)
        fail();
    const size_t count = static_cast<size_t>(image.width) * 3;
    std::vector<uint8_t> row8(image.bits == 8 ? count : 0);
    std::vector<uint16_t> row16(image.bits == 16 ? count : 0);
    for (int y = 0; y < image.height && ok; ++y)
    {
        const uint16_t* src = image.samples.data() + count * static_cast<size_t>(y);
        void* data = nullptr;
        if (image.bits == 16)
        {
            std::copy(src, src + count, row16.begin());
            data = row16.data();
        }
        else
        {
            std::copy(src, src + count, row8.begin());
            data = row8.data();
        }
        ok = TIFFWriteScanline(tiff, data, static_cast<uint32_t>(y), 0) >= 0;
    }
    if (!ok || !TIFFFlush(tiff))
        fail();
    TIFFClose(tiff);
}

Image readTiff(const std::string& path)
{
    std::string message;
    TIFF* tiff = openTiff(path, "r", message);
    if (!tiff)
        throw Error("cannot open " + path + ": " + message);
    uint32_t width = 0, height = 0;
    uint16_t bits = 0, samples = 0, planar = PLANARCONFIG_CONTIG;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
    if (TIFFIsTiled(tiff) || planar != PLANARCONFIG_CONTIG || (bits != 8 && bits != 16) || samples < 1 ||
        samples > 4 || width < 1 || height < 1)
    {
        TIFFClose(tiff);
        throw Error(path + ": only stripped, interleaved 8 or 16-bit TIFF is read here");
    }
    Image image(static_cast<int>(width), static_cast<int>(height), bits);
    std::vector<unsigned char> row(static_cast<size_t>(TIFFScanlineSize(tiff)));
    const bool colour = samples >= 3;
    for (uint32_t y = 0; y < height; ++y)
    {
        if (TIFFReadScanline(tiff, row.data(), y, 0) < 0)
        {
            TIFFClose(tiff);
            throw Error("cannot decode " + path + ": " + message);
        }
        uint16_t* dst = image.samples.data() + static_cast<size_t>(y) * width * 3;
        for (uint32_t x = 0; x < width; ++x)
        {
            for (int c = 0; c < 3; ++c)
            {
                const size_t i = static_cast<size_t>(x) * samples + static_cast<size_t>(colour ? c : 0);
                uint16_t v = row[i];
                if (bits == 16)
                    std::memcpy(&v, row.data() + 2 * i, 2); // libtiff hands out native byte order
                dst[static_cast<size_t>(x) * 3 + static_cast<size_t>(c)] = v;
            }
        }
    }
    TIFFClose(tiff);
    return image;
}

// ---- EXIF ----------------------------------------------------------------

void muteExiv2()
{
    static std::once_flag once;
    std::call_once(once, [] { Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute); });
}

void setOrErase(Exiv2::ExifData& exif, const char* key, const std::string& value)
{
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    if (it != exif.end())
        exif.erase(it);
    if (!value.empty())
        exif[key] = value;
}

std::string exifText(const Exiv2::ExifData& exif, const char* key)
{
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    return it == exif.end() ? std::string() : it->toString();
}

} // namespace

const char* formatName(FileFormat format)
{
    switch (format)
    {
    case FileFormat::Jpeg:
        return "jpeg";
    case FileFormat::Tiff:
        return "tiff";
    case FileFormat::Png:
        return "png";
    }
    return "?";
}

const char* formatExtension(FileFormat format)
{
    switch (format)
    {
    case FileFormat::Jpeg:
        return "jpg";
    case FileFormat::Tiff:
        return "tif";
    case FileFormat::Png:
        return "png";
    }
    return "?";
}

bool parseFormat(const std::string& name, FileFormat& format)
{
    for (FileFormat f : {FileFormat::Jpeg, FileFormat::Tiff, FileFormat::Png})
    {
        if (name == formatName(f) || name == formatExtension(f))
        {
            format = f;
            return true;
        }
    }
    return false;
}

void writeImage(const Image& image, const std::string& path, FileFormat format, int quality)
{
    if (image.width < 1 || image.height < 1 ||
        image.samples.size() != static_cast<size_t>(image.width) * static_cast<size_t>(image.height) * 3)
        throw Error("image has no pixels or inconsistent size");
    if (image.bits != 8 && image.bits != 16)
        throw Error("bits must be 8 or 16");
    switch (format)
    {
    case FileFormat::Jpeg:
        writeJpeg(image, path, quality);
        break;
    case FileFormat::Png:
        writePng(image, path);
        break;
    case FileFormat::Tiff:
        writeTiff(image, path);
        break;
    }
}

Image readImage(const std::string& path)
{
    const std::vector<unsigned char> bytes = readFileBytes(path);
    const auto startsWith = [&bytes](std::initializer_list<unsigned char> magic)
    { return bytes.size() >= magic.size() && std::equal(magic.begin(), magic.end(), bytes.begin()); };
    if (startsWith({0xff, 0xd8, 0xff}))
        return readJpeg(bytes, path);
    if (startsWith({0x89, 'P', 'N', 'G'}))
        return readPng(path);
    if (startsWith({'I', 'I', 42, 0}) || startsWith({'M', 'M', 0, 42}))
        return readTiff(path);
    throw Error(path + ": not a JPEG, PNG or TIFF file");
}

void writeExif(const std::string& path, const ExifFields& fields)
{
    muteExiv2();
    try
    {
        auto image = Exiv2::ImageFactory::open(path);
        image->readMetadata();
        Exiv2::ExifData& exif = image->exifData();
        setOrErase(exif, "Exif.Image.Make", fields.make);
        setOrErase(exif, "Exif.Image.Model", fields.model);
        setOrErase(exif, "Exif.Photo.LensModel", fields.lens);
        const auto it = exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
        if (it != exif.end())
            exif.erase(it);
        if (fields.orientation != 0)
            exif["Exif.Image.Orientation"] = static_cast<uint16_t>(fields.orientation);
        image->writeMetadata();
    }
    catch (const std::exception& e)
    {
        throw Error("cannot write EXIF to " + path + ": " + e.what());
    }
}

ExifFields readExif(const std::string& path)
{
    muteExiv2();
    ExifFields fields;
    try
    {
        auto image = Exiv2::ImageFactory::open(path);
        image->readMetadata();
        const Exiv2::ExifData& exif = image->exifData();
        fields.make = exifText(exif, "Exif.Image.Make");
        fields.model = exifText(exif, "Exif.Image.Model");
        fields.lens = exifText(exif, "Exif.Photo.LensModel");
        const auto it = exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
        if (it != exif.end())
            fields.orientation = static_cast<int>(it->toLong());
    }
    catch (const std::exception& e)
    {
        throw Error("cannot read EXIF from " + path + ": " + e.what());
    }
    return fields;
}

void recompressJpeg(const std::string& in, const std::string& out, int quality)
{
    if (quality < 1 || quality > 100)
        throw Error("JPEG quality must lie in 1..100");
    // Decoded completely before writing, so `out` may be `in`.
    const std::vector<unsigned char> bytes = readFileBytes(in);
    const JpegPixels decoded = decodeJpeg(bytes, true, true, in);
    encodeJpeg(out, decoded.pixels.data(), decoded.width, decoded.height, decoded.components, quality,
               decoded.jfif, decoded.markers);
}

} // namespace camsim
