// The program's EXIF reader (exiv2 underneath) and the formatting of every
// value it reads, as the report and the gallery show them.

#include "fuzzqtenvironment.h"
#include "fuzztempfile.h"

#include "qutils/fileutils.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

[[noreturn]] void broken(const char* what)
{
    std::fprintf(stderr, "fuzz_exif: %s\n", what);
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
    static CFuzzTempFile file("exif");
    file.write(data, size);

    qutils::EXIFInfo::Properties properties;
    const bool read = qutils::EXIFInfo::read(QString::fromStdString(file.path()), properties);
    if (!read && !properties.isEmpty())
        broken("a failed read left properties behind");
    for (auto it = properties.cbegin(); it != properties.cend(); ++it)
    {
        if (it.key() == qutils::EXIFMetadataProperty::Invalid)
            broken("an invalid property was read");
        (void)qutils::EXIFInfo::formatValue(it.key(), it.value());
    }
    return 0;
}
