#pragma once

#include "camsim/image.h"

#include <string>

namespace camsim
{

enum class FileFormat
{
    Jpeg,
    Tiff,
    Png,
};

const char* formatName(FileFormat format);      // "jpeg", "tiff", "png"
const char* formatExtension(FileFormat format); // "jpg", "tif", "png"
// False when the name is unknown.
bool parseFormat(const std::string& name, FileFormat& format);

// Encodes the pixels (JPEG: 8 bits only, 4:2:0, no JFIF block, as cameras write
// it; PNG and TIFF: 8 or 16 bits, uncompressed TIFF). Throws Error.
void writeImage(const Image& image, const std::string& path, FileFormat format, int quality = 92);

// Decodes a JPEG, PNG or TIFF (strips) into RGB; grey files are expanded and
// alpha is dropped. Meant for checking what was written. Throws Error.
Image readImage(const std::string& path);

struct ExifFields
{
    std::string make;
    std::string model;
    std::string lens;
    int orientation = 0; // 0: no tag
};

// Sets these EXIF fields in the file; empty texts and orientation 0 remove
// the field. Other metadata is kept. Throws Error.
void writeExif(const std::string& path, const ExifFields& fields);
// Reads the fields back; absent ones stay empty (orientation 0).
ExifFields readExif(const std::string& path);

// Decodes a JPEG and encodes it again at another quality, keeping its EXIF,
// XMP and ICC blocks byte for byte. `in` and `out` may be the same file.
void recompressJpeg(const std::string& in, const std::string& out, int quality);

} // namespace camsim
