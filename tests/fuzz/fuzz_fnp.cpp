// The program's ".fnp" fingerprint files (a Qt data stream: version, JSON
// metadata, engine bytes), read as the program reads them, then used the way
// the analysis uses them: the properties shown and one match.

#include "fuzzqtenvironment.h"
#include "fuzztempfile.h"

#include "fingerprint.h"

#include <QFileInfo>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

[[noreturn]] void broken(const char* what)
{
    std::fprintf(stderr, "fuzz_fnp: %s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    CFuzzQtEnvironment::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static CFuzzTempFile file("fnp");
    file.write(data, size);

    CFingerprint::EStatus status = qutils::CQuorvexAPI::Invalid;
    const std::shared_ptr<CFingerprint> fingerprint = CFingerprint::load(QFileInfo(QString::fromStdString(file.path())),
                                                                         &status);
    if ((status == qutils::CQuorvexAPI::Success) != (fingerprint != nullptr))
        broken("load's status and result disagree");
    if (!fingerprint)
        return 0;

    for (auto it = fingerprint->properties().cbegin(); it != fingerprint->properties().cend(); ++it)
    {
        if (CFingerprint::key(it.key()).isEmpty())
            broken("a property without a key was loaded");
        (void)it.value().toString();
    }
    // The file itself as the photo: no photo, so a usable fingerprint is parsed
    // by the engine and the match ends at the photo; the camera check reads
    // the file's EXIF (none).
    const CFingerprint::SAnalysisResult result =
        fingerprint->match(QFileInfo(QString::fromStdString(file.path())), true);
    if (result.status == qutils::CQuorvexAPI::Success)
        broken("a fingerprint file matched as a photo");
    return 0;
}
