#pragma once

#include "plane.h"

#include <string>

namespace lumicrest
{

// What the EXIF block says about the camera; empty texts when absent.
struct PhotoInfo
{
    std::string make;
    std::string model;
    std::string lens;
    int orientation = 1; // EXIF orientation 1..8; 1 when absent
};

// A decoded photo: one (grey) or three (R, G, B) planes with samples in 0..255
// (16-bit sources are scaled down), as the sensor grid stored them: the EXIF
// orientation is not applied.
struct Photo
{
    int width = 0;
    int height = 0;
    int channels = 0;
    Plane planes[3];
    PhotoInfo info;
};

enum class PhotoFormat
{
    Unknown,
    Jpeg,
    Tiff,
    Png,
    Bmp,
};

struct ReadLimits
{
    // Refused before any large allocation.
    long long maxPixels = 200LL * 1000 * 1000;
    int maxSide = 65535;
};

// Detects the format from the first bytes, not from the file name.
PhotoFormat detectFormat(const unsigned char* head, size_t size);

// Decodes a photo. Throws Failure with 410 (cannot open), 412 (corrupt),
// 440 (truncated), 490 (empty, absurd size), 491 (not a supported format),
// 720 (more pixels than limits.maxPixels), 550 (out of memory).
Photo readPhoto(const std::string& path, const ReadLimits& limits = ReadLimits());

// Reads only the size from the header (cheap), with the same failures.
void readPhotoSize(const std::string& path, int& width, int& height);

// How much of a photo file the EXIF reader looks at: it parses a copy of the
// file's first bytes, never the file itself (see exif.cpp). EXIF lies in the
// first kilobytes of a JPEG or PNG; a TIFF whose directory lies beyond this
// reads as one without EXIF.
constexpr uint64_t kMaxMetadataBytes = 64ULL << 20;

// Reads the EXIF block from the first maxBytes of the file; an absent or
// unreadable block, or a file that is not a regular file, gives empty fields.
PhotoInfo readPhotoInfo(const std::string& path, uint64_t maxBytes = kMaxMetadataBytes);

} // namespace lumicrest
