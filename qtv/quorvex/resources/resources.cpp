#include "resources.h"

#include "qutils/stylesheetsparser.h"

#include <QtGlobal>

#include <mutex>

// Q_INIT_RESOURCE declares the registration function in the enclosing
// namespace, so it must be used outside of any namespace.
static void registerQuorvexResources()
{
    Q_INIT_RESOURCE(quorvex_resources);
}

namespace quorvex
{

void initResources()
{
    static std::once_flag once;
    std::call_once(once, registerQuorvexResources);
}

QString styleSheetResourcePath()
{
    return QStringLiteral(":/Quorvex/stylesheet.qss");
}

QString styleConstantsResourcePath()
{
    return QStringLiteral(":/Quorvex/constants.txt");
}

QString styleConstant(const QString& name)
{
    static const qutils::CStyleSheetsParser::Constants constants = [] {
        initResources();
        try
        {
            qutils::CStyleSheetsParser parser;
            parser.readConstants(styleConstantsResourcePath());
            return parser.resolvedConstants();
        }
        catch (...)
        {
            return qutils::CStyleSheetsParser::Constants();
        }
    }();
    return constants.value(name).trimmed();
}

} // namespace quorvex
