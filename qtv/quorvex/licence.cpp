#include "licence.h"

#include <QByteArray>
#include <QtGlobal>

bool CLicence::isActive()
{
    static const bool s_active = qgetenv("QUORVEX_LICENCE_INACTIVE") != "1";
    return s_active;
}
