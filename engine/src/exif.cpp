// EXIF through exiv2 0.27.
//
// Thread safety: exiv2 0.27 keeps process-wide state that is not protected
// (the log level and handler, the XMP toolkit and its namespace registry,
// which decoding an XMP packet may modify). We therefore serialise every use
// of exiv2 in the engine with one mutex. Reading metadata only touches the
// file's header segments, so the lock is held for about a millisecond per
// photo, against tens or hundreds of milliseconds of decoding, which runs
// unlocked. Initialisation (muting exiv2's log, starting the XMP toolkit)
// happens once, under the same lock.
//
// exiv2 maps TIFF files into memory: had another process cut the file in the
// meantime, touching the lost pages would kill the whole process (SIGBUS).
// So exiv2 only ever sees a copy of the file's first bytes in our memory,
// read with ordinary reads, and only after the file is known to be a regular
// file (a FIFO would block the read forever).

#include "imageio.h"
#include "imageio_internal.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // std::auto_ptr in exiv2 0.27
#endif
#include <exiv2/exiv2.hpp>

namespace lumicrest
{
namespace
{

std::mutex& exiv2Mutex()
{
    static std::mutex mutex;
    return mutex;
}

// Call with exiv2Mutex() held.
void initialiseExiv2()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
    Exiv2::XmpParser::initialize();
}

// The text up to the first NUL, without trailing blanks.
std::string cleanText(const std::string& raw)
{
    std::string s = raw.substr(0, raw.find('\0'));
    const size_t end = s.find_last_not_of(" \t\r\n");
    s.erase(end == std::string::npos ? 0 : end + 1);
    return s;
}

std::string exifText(const Exiv2::ExifData& exif, const char* key)
{
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    if (it == exif.end() || it->count() == 0)
        return std::string();
    return cleanText(it->toString());
}

// The first maxBytes of a regular file; empty when it cannot be read.
std::vector<Exiv2::byte> readHead(const std::string& path, uint64_t maxBytes)
{
    std::vector<Exiv2::byte> bytes;
    std::FILE* raw = nullptr;
    uint64_t size = 0;
    std::string error;
    if (io::openRegularFile(path, raw, size, error) != io::OpenOutcome::Opened)
        return bytes;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(raw, &std::fclose);
    const uint64_t want = std::min<uint64_t>({size, maxBytes, static_cast<uint64_t>(LONG_MAX)});
    bytes.resize(static_cast<size_t>(want));
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get())); // less if the file shrank
    return bytes;
}

} // namespace

PhotoInfo readPhotoInfo(const std::string& path, uint64_t maxBytes)
{
    PhotoInfo info;
    if (path.empty())
        return info;
    try
    {
        // Read before taking the lock: other threads' metadata need not wait
        // for this file's bytes.
        const std::vector<Exiv2::byte> head = readHead(path, maxBytes);
        if (head.empty())
            return info;
        std::lock_guard<std::mutex> lock(exiv2Mutex());
        initialiseExiv2();
        Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(head.data(), static_cast<long>(head.size()));
        if (!image.get())
            return info;
        image->readMetadata();
        const Exiv2::ExifData& exif = image->exifData();
        if (exif.empty())
            return info;
        info.make = exifText(exif, "Exif.Image.Make");
        info.model = exifText(exif, "Exif.Image.Model");
        info.lens = exifText(exif, "Exif.Photo.LensModel");
        const auto it = exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
        if (it != exif.end() && it->count() > 0)
        {
            const long value = it->toLong(0);
            if (value >= 1 && value <= 8)
                info.orientation = static_cast<int>(value);
        }
    }
    catch (const Exiv2::AnyError&)
    {
        return PhotoInfo();
    }
    catch (const std::exception&)
    {
        return PhotoInfo();
    }
    catch (...)
    {
        return PhotoInfo();
    }
    return info;
}

} // namespace lumicrest

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
