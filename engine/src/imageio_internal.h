#pragma once

// Shared pieces of the photo readers (imageio*.cpp, exif.cpp); not part of the
// engine's interface.

#include "imageio.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace lumicrest
{
namespace io
{

// An open photo file: its size and first bytes. The decoders get the stream
// positioned at offset 0 and must not close it.
struct PhotoFile
{
    std::string path;
    std::FILE* file = nullptr;
    uint64_t size = 0;
    unsigned char head[32] = {};
    size_t headSize = 0;

    PhotoFile() = default;
    PhotoFile(const PhotoFile&) = delete;
    PhotoFile& operator=(const PhotoFile&) = delete;
    ~PhotoFile()
    {
        if (file)
            std::fclose(file);
    }
};

enum class OpenOutcome
{
    Opened,
    CannotOpen,
    NotRegular, // FIFO, device, directory, socket: never read (reading may block forever)
    OutOfMemory
};

// Opens a file for reading only if it is a regular file, without blocking on
// the way (imageio_platform.cpp). On success file is open and size is its
// length; otherwise error says why.
OpenOutcome openRegularFile(const std::string& path, std::FILE*& file, uint64_t& size, std::string& error);

// Opens the file (410), refuses an empty one (490) and reads its head.
void openPhotoFile(const std::string& path, PhotoFile& photoFile);

// 0 when width x height is acceptable, else the result value: 490 for a zero,
// negative or too long side, 720 for too many pixels.
int32_t sizeProblem(long long width, long long height, const ReadLimits& limits) noexcept;

// Throws the sizeProblem() value, if any, with a readable detail.
void checkSize(const PhotoFile& photoFile, const char* format, long long width, long long height,
               const ReadLimits& limits);

// Allocates the planes of a photo; false when memory is short. Never throws,
// so it may be called between setjmp and longjmp.
bool allocatePhoto(Photo& photo, int width, int height, int channels) noexcept;

// Where decoded samples go: one row of each plane of a photo.
struct RowTarget
{
    float* planes[3] = {};
    int channels = 0;
};

inline RowTarget rowTarget(Photo& photo, int y)
{
    RowTarget t;
    t.channels = photo.channels;
    for (int c = 0; c < photo.channels; ++c)
        t.planes[c] = photo.planes[c].row(y);
    return t;
}

// Copies count pixels of interleaved samples (stride samples per pixel, the
// channels taken from sample offsets pick[c]) into the target row, from
// column x0 in steps of xStep (1 except for interlaced PNG passes).
inline void storeRow8(const uint8_t* src, int count, int stride, const int* pick, const RowTarget& t, int x0 = 0,
                      int xStep = 1)
{
    for (int c = 0; c < t.channels; ++c)
    {
        const uint8_t* s = src + pick[c];
        float* d = t.planes[c] + x0;
        if (xStep == 1)
        {
            for (int i = 0; i < count; ++i)
                d[i] = static_cast<float>(s[static_cast<size_t>(i) * stride]);
        }
        else
        {
            for (int i = 0; i < count; ++i)
                d[static_cast<size_t>(i) * xStep] = static_cast<float>(s[static_cast<size_t>(i) * stride]);
        }
    }
}

constexpr float kScale16 = 255.0f / 65535.0f;

inline void storeRow16(const uint16_t* src, int count, int stride, const int* pick, const RowTarget& t, int x0 = 0,
                       int xStep = 1)
{
    for (int c = 0; c < t.channels; ++c)
    {
        const uint16_t* s = src + pick[c];
        float* d = t.planes[c] + x0;
        for (int i = 0; i < count; ++i)
            d[static_cast<size_t>(i) * xStep] = static_cast<float>(s[static_cast<size_t>(i) * stride]) * kScale16;
    }
}

// The decoders. With photo == nullptr only the header is read and width and
// height are set; otherwise the photo is filled (except info). All throw
// Failure.
void decodeJpeg(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height);
void decodePng(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height);
void decodeTiff(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height);
void decodeBmp(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height);

// "name: what" for failure details.
std::string describe(const PhotoFile& f, const std::string& what);

} // namespace io
} // namespace lumicrest
