#include "fingerprintfile.h"

#include "lumicrest.h"
#include "status.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace lumicrest
{

namespace
{

uint32_t bigEndian32(const unsigned char* p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

bool isRegularFile(const std::string& path)
{
    // A FIFO or a device would block the open or never end.
    std::error_code error;
    return std::filesystem::is_regular_file(std::filesystem::u8path(path), error);
}

} // namespace

FileBytes readWholeFile(const std::string& path)
{
    if (!isRegularFile(path))
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file is not a regular file");
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file cannot be opened");
    const std::streamoff size = in.tellg();
    if (size <= 0 || size > INT32_MAX)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file has an impossible size");
    FileBytes bytes;
    bytes.data.reset(new unsigned char[static_cast<size_t>(size)]);
    bytes.size = static_cast<size_t>(size);
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(bytes.data.get()), size))
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file cannot be read");
    return bytes;
}

// The program keeps the fingerprint bytes inside a container of its own: a
// big-endian 64-bit version 2, then two byte arrays (32-bit length, 0xFFFFFFFF
// for none, then the bytes), metadata and fingerprint. Reading the bytes out of
// it here lets the program have a file verified without a copy of the bytes.
// Files of the engine's own format start with the magic and are taken whole.
std::pair<const unsigned char*, size_t> fingerprintBytesIn(const FileBytes& in)
{
    const unsigned char* const file = in.data.get();
    const size_t fileSize = in.size;
    static const unsigned char containerVersion[8] = {0, 0, 0, 0, 0, 0, 0, 2};
    if (fileSize < 16 || std::memcmp(file, containerVersion, 8) != 0)
        return {file, fileSize};
    size_t at = 8;
    const auto array = [&]() -> std::pair<const unsigned char*, size_t>
    {
        if (fileSize - at < 4)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint container ends too early");
        const uint32_t length = bigEndian32(file + at);
        at += 4;
        if (length == 0xFFFFFFFFu)
            return {nullptr, 0};
        if (length > fileSize - at)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint container ends too early");
        const unsigned char* start = file + at;
        at += length;
        return {start, length};
    };
    array(); // the program's metadata
    const auto bytes = array();
    if (at != fileSize)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint container has bytes after its end");
    return bytes;
}

FingerprintHead readFingerprintHead(const std::string& path)
{
    if (!isRegularFile(path))
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file is not a regular file");
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file cannot be opened");
    const std::streamoff fileSize = in.tellg();
    if (fileSize <= 0 || fileSize > INT32_MAX)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file has an impossible size");
    const auto readAt = [&](std::streamoff at, void* into, size_t n)
    {
        in.clear();
        in.seekg(at);
        if (at < 0 || at + static_cast<std::streamoff>(n) > fileSize ||
            !in.read(static_cast<char*>(into), static_cast<std::streamsize>(n)))
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file ends too early");
    };
    // The same framing as fingerprintBytesIn, followed by seeks.
    std::streamoff start = 0;
    std::streamoff length = fileSize;
    static const unsigned char containerVersion[8] = {0, 0, 0, 0, 0, 0, 0, 2};
    unsigned char lead[8] = {};
    if (fileSize >= 16)
        readAt(0, lead, 8);
    if (fileSize >= 16 && std::memcmp(lead, containerVersion, 8) == 0)
    {
        std::streamoff at = 8;
        for (int array = 0; array < 2; ++array)
        {
            unsigned char word[4];
            readAt(at, word, 4);
            at += 4;
            const uint32_t n = bigEndian32(word);
            if (n == 0xFFFFFFFFu)
            {
                start = at;
                length = 0;
                continue;
            }
            if (n > fileSize - at)
                fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint container ends too early");
            start = at;
            length = n;
            at += n;
        }
        if (at != fileSize)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint container has bytes after its end");
    }
    if (length < 12)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint bytes too short");
    FingerprintHead head;
    readAt(start + length - 4, &head.storedCrc, 4);
    // Most headers are a few hundred bytes; one with a long NMSE list is read again whole.
    const size_t total = static_cast<size_t>(length);
    for (size_t available :
         {std::min<size_t>(total - 4, 64 * 1024), std::min<size_t>(total - 4, 1024 * 1024)})
    {
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[available]);
        readAt(start, bytes.get(), available);
        try
        {
            head.header = parseFingerprintHeader(bytes.get(), available, total);
            return head;
        }
        catch (const Failure&)
        {
            if (available == total - 4 || available >= 1024 * 1024)
                throw;
        }
    }
    fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint header too long");
}

} // namespace lumicrest
