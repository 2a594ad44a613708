#include "resources.h"

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

} // namespace quorvex
