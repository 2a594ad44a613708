// The engine's fingerprint bytes: the parser, the C function that reads a
// fingerprint file's metadata, and the caller-built struct path that matching
// takes. Most mutations break the trailing CRC-32, so each input is also tried
// with its checksum made right, which lets the fuzzer reach the fields behind it.

#include "fuzztempfile.h"

#include "constants.h"
#include "fingerprint.h"
#include "lumicrest.h"
#include "lumicrest_identify.h"
#include "status.h"

#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace
{

[[noreturn]] void broken(const char* what)
{
    std::fprintf(stderr, "fuzz_fingerprint_bytes: %s\n", what);
    std::abort();
}

void parse(const uint8_t* data, size_t size)
{
    try
    {
        const lumicrest::FingerprintData fp = lumicrest::parseFingerprint(data, size);
        if (fp.width <= 0 || fp.height <= 0 || fp.k.width() != fp.width || fp.k.height() != fp.height)
            broken("parsed fingerprint has an inconsistent size");
        // Nothing the options cannot give: matching relies on it.
        for (float sigma : {fp.sigmaRef, fp.sigmaMatch})
            if (!(sigma >= lumicrest::constants::MinSigma0 && sigma <= lumicrest::constants::MaxSigma0))
                broken("parsed fingerprint has a noise level outside the options' range");
        // A parsed fingerprint writes the same bytes again (the format is exact).
        const std::vector<unsigned char> again = lumicrest::serializeFingerprint(fp);
        if (again.size() != size)
            broken("a parsed fingerprint serialises to another length");
    }
    catch (const lumicrest::Failure& failure)
    {
        if (failure.code() != LUMICREST_FINGERPRINT_CANNOT_READ)
            broken("parse failed with another code than 450");
    }
}

void throughCInterface(const std::string& path, std::vector<unsigned char>& bytes)
{
    const std::wstring wide(path.begin(), path.end());
    wchar_t* json = nullptr;
    const lumicrest_error_code code = get_metadata_sensor_fingerprint(wide.c_str(), &json);
    if ((code == LUMICREST_OK) != (json != nullptr))
        broken("metadata answer and result value disagree");
    std::free(json);

    // A library reads only the header when a digest is stored; with none it
    // reads the whole file, and must then accept exactly what metadata does.
    const wchar_t* paths[] = {wide.c_str()};
    lumicrest_library_s* library = nullptr;
    json = nullptr;
    if (lumicrest_open_library(paths, 1, 0, &library, &json) != LUMICREST_OK || !library || !json)
        broken("a library of one file did not open");
    const bool usable = std::wcsstr(json, L"\"status\":200") != nullptr;
    if (usable != (code == LUMICREST_OK))
        broken("the library and the metadata disagree about a fingerprint");
    std::free(json);
    lumicrest_close_library(library);

    // A caller-built struct over the bytes, as the program hands a loaded file
    // to the engine; the photo is the fingerprint file itself, which is no
    // photo, so a valid fingerprint is parsed and the match stops at the photo.
    if (bytes.empty() || bytes.size() > INT32_MAX)
        return;
    fingerprint_binary_s fp{};
    fp.data = bytes.data();
    fp.size = static_cast<int32_t>(bytes.size());
    json = nullptr;
    match_device_origins(&fp, wide.c_str(), 2, &json, nullptr);
    if (!json)
        broken("a match gave no answer text");
    std::free(json);
    release_fingerprint(&fp);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static CFuzzTempFile file("fingerprint");

    parse(data, size);

    std::vector<unsigned char> fixed(data, data + size);
    if (size >= 8)
    {
        const uint32_t crc = static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), fixed.data(),
                                                         static_cast<uInt>(size - 4)));
        std::memcpy(fixed.data() + size - 4, &crc, 4);
        parse(fixed.data(), fixed.size());
    }

    file.write(fixed.data(), fixed.size());
    throughCInterface(file.path(), fixed);
    return 0;
}
