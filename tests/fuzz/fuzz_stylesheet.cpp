// The style sheet constants: parsing a constants text, resolving the
// references between constants and substituting them into a style sheet.
// Every refusal is a qutils::CException; anything else is a finding.

#include "fuzzqtenvironment.h"

#include "qutils/exception.h"
#include "qutils/stylesheetsparser.h"

#include <QString>

#include <cstdint>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    CFuzzQtEnvironment::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    qutils::CStyleSheetsParser parser;
    try
    {
        parser.parseConstants(text);
        // The sheet names a constant of the input when there is one, so
        // substitution has something to do.
        QString sheet = QStringLiteral("QWidget { color: TEXT_COLOR; background: BACKGROUND; }\n"
                                       "QLabel[role=\"title\"] { font-size: TITLE_SIZE; }\n");
        const QStringList names = parser.constants().keys();
        if (!names.isEmpty())
            sheet += QStringLiteral("QPushButton { border: 1px solid %1; margin: %2 }\n").arg(names.first(), names.last());
        (void)parser.apply(sheet);
    }
    catch (const qutils::CException&)
    {
    }
    return 0;
}
