// The engine's photo decoders (JPEG, TIFF, PNG, BMP, chosen by content) and
// its EXIF reader, on whatever bytes a photo file may hold. Failures with a
// result value are the expected answer to a bad file; a crash, a leak, a
// sanitizer report or a decoded photo that breaks the decoders' promises is
// a finding.

#include "fuzztempfile.h"

#include "imageio.h"
#include "status.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

[[noreturn]] void broken(const char* what)
{
    std::fprintf(stderr, "fuzz_photo: %s\n", what);
    std::abort();
}

// What readPhoto promises about a photo it returns.
void checkPhoto(const lumicrest::Photo& photo, const lumicrest::ReadLimits& limits)
{
    if (photo.width <= 0 || photo.height <= 0 || photo.width > limits.maxSide || photo.height > limits.maxSide)
        broken("decoded photo has an impossible size");
    if (static_cast<long long>(photo.width) * photo.height > limits.maxPixels)
        broken("decoded photo is larger than the limit");
    if (photo.channels != 1 && photo.channels != 3)
        broken("decoded photo has neither one nor three channels");
    for (int c = 0; c < photo.channels; ++c)
    {
        const lumicrest::Plane& plane = photo.planes[c];
        if (plane.width() != photo.width || plane.height() != photo.height)
            broken("a plane does not match the photo's size");
        const float* samples = plane.data();
        for (size_t i = 0, n = plane.size(); i < n; ++i)
        {
            if (!(samples[i] >= 0.0f && samples[i] <= 255.0f))
                broken("a sample lies outside 0..255");
        }
    }
    if (photo.info.orientation < 1 || photo.info.orientation > 8)
        broken("EXIF orientation outside 1..8");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static CFuzzTempFile file("photo");
    file.write(data, size);

    // Far below the program's limit, so the fuzzer spends its time on
    // structure rather than on decoding huge pictures.
    lumicrest::ReadLimits limits;
    limits.maxPixels = 4LL * 1000 * 1000;

    int headerWidth = 0;
    int headerHeight = 0;
    bool headerRead = false;
    try
    {
        lumicrest::readPhotoSize(file.path(), headerWidth, headerHeight);
        headerRead = true;
    }
    catch (const lumicrest::Failure&)
    {
    }

    try
    {
        const lumicrest::Photo photo = lumicrest::readPhoto(file.path(), limits);
        checkPhoto(photo, limits);
        if (headerRead && (headerWidth != photo.width || headerHeight != photo.height))
            broken("the header's size differs from the decoded photo's");
    }
    catch (const lumicrest::Failure& failure)
    {
        if (failure.code() < 400 || failure.code() > 999)
            broken("failure without a result value");
    }

    // Never throws; an unreadable block gives empty fields.
    const lumicrest::PhotoInfo info = lumicrest::readPhotoInfo(file.path());
    if (info.orientation < 1 || info.orientation > 8)
        broken("EXIF orientation outside 1..8");
    return 0;
}
