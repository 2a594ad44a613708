// The HtmlToPdf converter's command line. The input is split into arguments
// at NUL and newline bytes, as a caller could hand them over.

#include "fuzzqtenvironment.h"

#include "options.h"

#include <QStringList>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

[[noreturn]] void broken(const char* what)
{
    std::fprintf(stderr, "fuzz_converter_args: %s\n", what);
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
    QStringList arguments;
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i)
    {
        if (i == size || data[i] == '\0' || data[i] == '\n')
        {
            arguments.append(QString::fromUtf8(reinterpret_cast<const char*>(data + start), static_cast<int>(i - start)));
            start = i + 1;
        }
    }

    const htmltopdf::SOptions options = htmltopdf::parseOptions(arguments);
    // Without an error the converter has its two files; with one it does nothing.
    if (options.error.isEmpty() && (options.inputFile.isEmpty() || options.outputFile.isEmpty()))
        broken("options accepted without an input and an output file");
    if (options.tableOfContents && options.tocStyleFile.isEmpty())
        broken("a contents page without its style file");
    return 0;
}
