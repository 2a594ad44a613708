#include "windowedstartup.h"

#include "startup.h"

#include "qcontrols/messageboxfactory.h"

#include <QCoreApplication>

bool acquireSingleInstance(CInstanceLock& lock, const QString& displayName)
{
    if (lock.tryLock())
        return true;
    qcontrols::CMessageBoxFactory::error(
        nullptr, QCoreApplication::translate("main", "Error!"),
        QCoreApplication::translate("main", "Only one instance of %1 is allowed. Wait until the previous one is stopped.")
            .arg(displayName));
    return false;
}
