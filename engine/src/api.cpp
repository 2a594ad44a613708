// The C boundary: argument checks, conversions, and the one place where every
// failure becomes a result value.
#include "lumicrest.h"
#include "lumicrest_identify.h"

#include "fingerprint.h"
#include "fingerprintfile.h"
#include "identify.h"
#include "learn.h"
#include "match.h"
#include "options.h"
#include "status.h"
#include "text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <utility>
#include <vector>

using namespace lumicrest;

// The handle the caller holds is the library itself.
struct lumicrest_library_s : lumicrest::Library
{
};

namespace
{

template <typename F>
lumicrest_error_code guarded(F&& body) noexcept
{
    try
    {
        return body();
    }
    catch (const Failure& failure)
    {
        return failure.code();
    }
    catch (const std::bad_alloc&)
    {
        return LUMICREST_OUT_OF_MEMORY;
    }
    catch (const std::exception&)
    {
        return LUMICREST_INTERNAL_ERROR;
    }
    catch (...)
    {
        return LUMICREST_INTERNAL_UNKNOWN;
    }
}

// Hands a text to the caller; a text that cannot be allocated is left out.
void give(wchar_t** out, const std::string& text)
{
    if (out)
        *out = mallocWide(text);
}

std::string requirePath(const wchar_t* path)
{
    if (!path)
        fail(LUMICREST_INVALID_NULL_POINTER, "path is null");
    std::string utf8 = toUtf8(path);
    if (utf8.empty())
        fail(LUMICREST_INVALID_EMPTY_PATH, "path is empty");
    return utf8;
}

std::string metadataJson(const FingerprintData& fp, uint32_t crc)
{
    JsonWriter json;
    json.beginObject();
    json.key("width").integer(fp.width).key("height").integer(fp.height);
    json.key("nmse").beginArray();
    for (const double nmse : fp.nmse)
        json.number(nmse);
    json.endArray();
    json.key("make").string(fp.make).key("model").string(fp.model).key("lens").string(fp.lens);
    json.key("photos").integer(static_cast<long long>(fp.nmse.size()));
    json.key("created").integer(fp.created);
    json.key("sigma_ref").number(fp.sigmaRef).key("sigma_match").number(fp.sigmaMatch);
    json.key("format_version").integer(FormatVersion);
    // Lets a caller holding its own copy of the bytes see that it is this one.
    json.key("crc32").integer(crc);
    json.endObject();
    return json.text();
}

} // namespace

extern "C" {

LUMICREST_EXPORT lumicrest_error_code get_sensor_fingerprint(const wchar_t** paths, int count,
                                                             fingerprint_binary_s* out, wchar_t** outText1,
                                                             const wchar_t* option, bool flag, wchar_t** outText2,
                                                             void (*progress)(int, float, float))
{
    if (outText1)
        *outText1 = nullptr;
    if (outText2)
        *outText2 = nullptr;
    return guarded([&]() -> lumicrest_error_code {
        if (!paths || !out)
            fail(LUMICREST_INVALID_NULL_POINTER, "null argument");
        if (count < 1)
            fail(LUMICREST_INVALID_COUNT, "no photos");
        if (out->data || out->priv)
            fail(LUMICREST_INVALID_OPTION, "the output fingerprint must be empty");
        std::vector<std::string> files;
        files.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i)
            files.push_back(requirePath(paths[i]));
        const LearnOptions options = parseLearnOptions(option ? toUtf8(option) : std::string());

        FingerprintData data;
        LearnOutcome outcome = learnFingerprint(files, options, flag, progress, data);
        if (outcome.code == LUMICREST_OK)
            attachFingerprint(out, std::move(data));
        give(outText1, outcome.diagnostics);
        give(outText2, outcome.warnings);
        return outcome.code;
    });
}

LUMICREST_EXPORT lumicrest_error_code match_device_origins(const fingerprint_binary_s* fp, const wchar_t* photoPath,
                                                           int mode, wchar_t** outJson, void (*progress)(int))
{
    if (outJson)
        *outJson = nullptr;
    MatchResult result;
    const lumicrest_error_code code = guarded([&]() -> lumicrest_error_code {
        if (!fp || !outJson)
            fail(LUMICREST_INVALID_NULL_POINTER, "null argument");
        const std::string path = requirePath(photoPath);
        if (mode != 2)
            fail(LUMICREST_INVALID_MODE, "unknown mode");
        if (progress)
            progress(0);
        std::shared_ptr<LoadedFingerprint> loaded = loadedFingerprint(fp);
        try
        {
            result = matchPhoto(*loaded, path);
        }
        catch (const Failure& failure)
        {
            result.reason = failure.detail();
            throw;
        }
        if (progress)
            progress(100);
        return LUMICREST_OK;
    });
    // Failed matches answer too, so the caller always finds "sensor_matched".
    give(outJson, matchResultJson(result));
    return code;
}

LUMICREST_EXPORT lumicrest_error_code save_fingerprint_to_disk(const fingerprint_binary_s* fp, const wchar_t* path)
{
    return guarded([&]() -> lumicrest_error_code {
        if (!fp)
            fail(LUMICREST_INVALID_NULL_POINTER, "null fingerprint");
        const std::string target = requirePath(path);
        loadedFingerprint(fp); // never write damaged bytes
        // Written beside the target and renamed, so a failed write never leaves
        // half a fingerprint under the real name.
        const std::string temporary = target + ".part";
        std::FILE* file = std::fopen(temporary.c_str(), "wb");
        if (!file)
            fail(LUMICREST_FINGERPRINT_CANNOT_WRITE, "cannot create the fingerprint file");
        const size_t size = static_cast<size_t>(fp->size);
        const bool written = std::fwrite(fp->data, 1, size, file) == size;
        const bool closed = std::fclose(file) == 0;
        if (!written || !closed || std::rename(temporary.c_str(), target.c_str()) != 0)
        {
            std::remove(temporary.c_str());
            fail(LUMICREST_FINGERPRINT_CANNOT_WRITE, "cannot write the fingerprint file");
        }
        return LUMICREST_OK;
    });
}

LUMICREST_EXPORT lumicrest_error_code get_metadata_sensor_fingerprint(const wchar_t* path, wchar_t** outJson)
{
    if (outJson)
        *outJson = nullptr;
    return guarded([&]() -> lumicrest_error_code {
        if (!outJson)
            fail(LUMICREST_INVALID_NULL_POINTER, "null argument");
        const FileBytes file = readWholeFile(requirePath(path));
        const auto bytes = fingerprintBytesIn(file);
        const FingerprintData fp = parseFingerprint(bytes.first, bytes.second, false);
        uint32_t crc = 0;
        std::memcpy(&crc, bytes.first + bytes.second - 4, 4); // parsing proved the length
        *outJson = mallocWide(metadataJson(fp, crc));
        if (!*outJson)
            fail(LUMICREST_OUT_OF_MEMORY, "no memory for the answer");
        return LUMICREST_OK;
    });
}

LUMICREST_EXPORT lumicrest_error_code release_fingerprint(fingerprint_binary_s* fp)
{
    return guarded([&]() -> lumicrest_error_code {
        if (!fp)
            fail(LUMICREST_INVALID_NULL_POINTER, "null fingerprint");
        // Only what the engine allocated is freed; caller-built structs keep their bytes.
        if (fp->priv)
            detachFingerprint(fp);
        return LUMICREST_OK;
    });
}

LUMICREST_EXPORT lumicrest_error_code lumicrest_open_library(const wchar_t** paths, int count, int flags,
                                                            lumicrest_library_s** out, wchar_t** outJson)
{
    if (out)
        *out = nullptr;
    if (outJson)
        *outJson = nullptr;
    return guarded([&]() -> lumicrest_error_code {
        if (!paths || !out || !outJson)
            fail(LUMICREST_INVALID_NULL_POINTER, "null argument");
        if (count < 1)
            fail(LUMICREST_INVALID_COUNT, "no fingerprints");
        if (flags & ~(LUMICREST_LIBRARY_WRITE_DIGESTS | LUMICREST_LIBRARY_NO_DIGEST_PASS))
            fail(LUMICREST_INVALID_OPTION, "unknown library flag");
        std::vector<std::string> files;
        files.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i)
            files.push_back(requirePath(paths[i]));
        std::unique_ptr<Library> opened = openLibrary(files, flags);
        auto library = std::make_unique<lumicrest_library_s>();
        static_cast<Library&>(*library) = std::move(*opened);
        *outJson = mallocWide(libraryJson(*library));
        if (!*outJson)
            fail(LUMICREST_OUT_OF_MEMORY, "no memory for the answer");
        *out = library.release();
        return LUMICREST_OK;
    });
}

LUMICREST_EXPORT lumicrest_error_code lumicrest_identify(const lumicrest_library_s* library,
                                                        const wchar_t* photoPath, wchar_t** outJson)
{
    if (outJson)
        *outJson = nullptr;
    Identification identification;
    const lumicrest_error_code code = guarded([&]() -> lumicrest_error_code {
        if (!library || !outJson)
            fail(LUMICREST_INVALID_NULL_POINTER, "null argument");
        const std::string path = requirePath(photoPath);
        try
        {
            identifyPhoto(*library, path, identification);
        }
        catch (const Failure& failure)
        {
            identification = Identification();
            identification.reason = failure.detail();
            throw;
        }
        return LUMICREST_OK;
    });
    // A failed identification answers too, with its reason.
    give(outJson, identificationJson(identification));
    return code;
}

LUMICREST_EXPORT lumicrest_error_code lumicrest_close_library(lumicrest_library_s* library)
{
    return guarded([&]() -> lumicrest_error_code {
        delete library;
        return LUMICREST_OK;
    });
}

} // extern "C"
