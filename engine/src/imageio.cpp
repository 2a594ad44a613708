// Reading photos: format detection by content, opening, size checks and the
// dispatch to the decoders (imageio_jpeg/png/tiff/bmp.cpp). EXIF is in exif.cpp.
//
// Thread safety: every call works on its own file handle and decoder state;
// the only shared state is exiv2's (serialised in exif.cpp).

#include "imageio.h"

#include "imageio_internal.h"
#include "status.h"
#include "timing.h"

#include <cstring>
#include <new>

namespace lumicrest
{

PhotoFormat detectFormat(const unsigned char* head, size_t size)
{
    if (!head)
        return PhotoFormat::Unknown;
    if (size >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF)
        return PhotoFormat::Jpeg;
    static const unsigned char pngSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    if (size >= 8 && std::memcmp(head, pngSignature, 8) == 0)
        return PhotoFormat::Png;
    // Classic TIFF (42) and BigTIFF (43), both byte orders.
    if (size >= 4 && head[0] == 'I' && head[1] == 'I' && (head[2] == 42 || head[2] == 43) && head[3] == 0)
        return PhotoFormat::Tiff;
    if (size >= 4 && head[0] == 'M' && head[1] == 'M' && head[2] == 0 && (head[3] == 42 || head[3] == 43))
        return PhotoFormat::Tiff;
    if (size >= 2 && head[0] == 'B' && head[1] == 'M')
        return PhotoFormat::Bmp;
    return PhotoFormat::Unknown;
}

namespace io
{

std::string describe(const PhotoFile& f, const std::string& what)
{
    return f.path + ": " + what;
}

void openPhotoFile(const std::string& path, PhotoFile& f)
{
    f.path = path;
    if (path.empty())
        fail(LUMICREST_PHOTO_CANNOT_OPEN, "empty photo path");
    std::string error;
    switch (openRegularFile(path, f.file, f.size, error))
    {
    case OpenOutcome::Opened:
        break;
    case OpenOutcome::OutOfMemory:
        fail(LUMICREST_OUT_OF_MEMORY, describe(f, "out of memory opening the file"));
    case OpenOutcome::NotRegular:
        fail(LUMICREST_PHOTO_CANNOT_OPEN, describe(f, error));
    case OpenOutcome::CannotOpen:
        fail(LUMICREST_PHOTO_CANNOT_OPEN, describe(f, "cannot open: " + error));
    }
    if (f.size == 0)
        fail(LUMICREST_PHOTO_UNREADABLE, describe(f, "the file is empty"));
    f.headSize = std::fread(f.head, 1, sizeof f.head, f.file);
    if (f.headSize == 0)
        fail(LUMICREST_PHOTO_CANNOT_OPEN, describe(f, "cannot read the file"));
    if (fseeko(f.file, 0, SEEK_SET) != 0)
        fail(LUMICREST_PHOTO_CANNOT_OPEN, describe(f, "cannot seek in the file"));
}

int32_t sizeProblem(long long width, long long height, const ReadLimits& limits) noexcept
{
    if (width <= 0 || height <= 0 || width > limits.maxSide || height > limits.maxSide)
        return LUMICREST_PHOTO_UNREADABLE;
    if (width * height > limits.maxPixels)
        return LUMICREST_PHOTO_TOO_LARGE;
    return 0;
}

void checkSize(const PhotoFile& f, const char* format, long long width, long long height, const ReadLimits& limits)
{
    const int32_t code = sizeProblem(width, height, limits);
    if (code == 0)
        return;
    std::string what = std::string(format) + " header declares " + std::to_string(width) + "x" +
                       std::to_string(height) + " pixels";
    if (code == LUMICREST_PHOTO_TOO_LARGE)
        what += ", more than the limit of " + std::to_string(limits.maxPixels);
    else
        what += ", an absurd size (each side must be 1.." + std::to_string(limits.maxSide) + ")";
    fail(code, describe(f, what));
}

bool allocatePhoto(Photo& photo, int width, int height, int channels) noexcept
{
    try
    {
        for (int c = 0; c < 3; ++c)
            photo.planes[c] = Plane();
        for (int c = 0; c < channels; ++c)
            photo.planes[c].reset(width, height);
    }
    catch (...)
    {
        for (int c = 0; c < 3; ++c)
            photo.planes[c] = Plane();
        return false;
    }
    photo.width = width;
    photo.height = height;
    photo.channels = channels;
    return true;
}

namespace
{

void decode(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height)
{
    try
    {
        switch (detectFormat(f.head, f.headSize))
        {
        case PhotoFormat::Jpeg:
            decodeJpeg(f, limits, photo, width, height);
            return;
        case PhotoFormat::Png:
            decodePng(f, limits, photo, width, height);
            return;
        case PhotoFormat::Tiff:
            decodeTiff(f, limits, photo, width, height);
            return;
        case PhotoFormat::Bmp:
            decodeBmp(f, limits, photo, width, height);
            return;
        case PhotoFormat::Unknown:
            break;
        }
    }
    catch (const std::bad_alloc&)
    {
        fail(LUMICREST_OUT_OF_MEMORY, describe(f, "out of memory while decoding"));
    }
    fail(LUMICREST_FORMAT_NOT_SUPPORTED, describe(f, "not a JPEG, TIFF, PNG or BMP file"));
}

} // namespace
} // namespace io

Photo readPhoto(const std::string& path, const ReadLimits& limits)
{
    StageTimer timer(Stage::Decode);
    Photo photo;
    {
        io::PhotoFile f;
        io::openPhotoFile(path, f);
        int width = 0;
        int height = 0;
        io::decode(f, limits, &photo, width, height);
    }
    photo.info = readPhotoInfo(path);
    return photo;
}

void readPhotoSize(const std::string& path, int& width, int& height)
{
    io::PhotoFile f;
    io::openPhotoFile(path, f);
    int w = 0;
    int h = 0;
    io::decode(f, ReadLimits(), nullptr, w, h);
    width = w;
    height = h;
}

} // namespace lumicrest
