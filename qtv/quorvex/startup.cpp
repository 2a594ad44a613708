#include "startup.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

CInstanceLock::CInstanceLock(const QString& lockFilePath)
{
    QDir().mkpath(QFileInfo(lockFilePath).absolutePath());
    m_lock = std::make_unique<QLockFile>(lockFilePath);
    // Never stale by age: a running instance may stay open for days. A lock
    // whose process has died is still recognised and taken over.
    m_lock->setStaleLockTime(0);
}

bool CInstanceLock::tryLock()
{
    // QLockFile itself recognises a lock whose process has died on this host.
    return m_lock->tryLock(0);
}

bool CInstanceLock::isLocked() const
{
    return m_lock->isLocked();
}

double interfaceScale(double scaleFixed, double scaleFactor, double logicalDpi, const QSize& available)
{
    double scale = scaleFixed != 0.0 ? scaleFixed : scaleFactor * logicalDpi / 96.0;
    if (available.width() > 0 && available.height() > 0)
        scale = std::min({scale, available.width() / 1200.0, available.height() / 740.0});
    return scale;
}

QSize minimumWindowSize(double scale)
{
    return QSize(static_cast<int>(1200 * scale), static_cast<int>(740 * scale));
}
