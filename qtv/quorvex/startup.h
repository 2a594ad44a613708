#pragma once

#include <QLockFile>
#include <QSize>
#include <QString>

#include <memory>

// The windowed mode's single-instance lock: a lock file named after the
// mutex. A lock left by a process that no longer runs is taken over.
class CInstanceLock
{
public:
    explicit CInstanceLock(const QString& lockFilePath);
    // False when another running instance holds the lock.
    bool tryLock();
    bool isLocked() const;

private:
    std::unique_ptr<QLockFile> m_lock;
};

// The interface scale: "Options/ScaleFixed" when not 0, else
// "Options/ScaleFactor" × dots per inch / 96; then reduced so that a
// 1200 × 740 window fits the available screen area.
double interfaceScale(double scaleFixed, double scaleFactor, double logicalDpi, const QSize& available);

// The main window's minimum size at a scale (each side truncated).
QSize minimumWindowSize(double scale);
