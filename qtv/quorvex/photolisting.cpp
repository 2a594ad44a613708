#include "photolisting.h"

#include <QDirIterator>
#include <QRegularExpression>

QStringList photoNameFilters()
{
    const QStringList lower = {QStringLiteral("*.jpg"),  QStringLiteral("*.jpeg"), QStringLiteral("*.jpe"),
                               QStringLiteral("*.tif"),  QStringLiteral("*.tiff"), QStringLiteral("*.bmp"),
                               QStringLiteral("*.png")};
    QStringList all = lower;
    for (const QString& pattern : lower)
        all.append(pattern.toUpper());
    return all;
}

bool isPhotoFileName(const QString& fileName)
{
    for (const QString& pattern : photoNameFilters())
        if (QRegularExpression(QRegularExpression::wildcardToRegularExpression(pattern),
                               QRegularExpression::CaseInsensitiveOption)
                .match(fileName)
                .hasMatch())
            return true;
    return false;
}

QFileInfoList listPhotos(const QDir& dir, bool recursive, const std::function<bool()>& cancelled,
                         const std::function<void(int)>& progress)
{
    QFileInfoList files;
    QDirIterator it(dir.path(), photoNameFilters(), QDir::Files,
                    recursive ? QDirIterator::Subdirectories : QDirIterator::NoIteratorFlags);
    while (it.hasNext())
    {
        if (cancelled && cancelled())
            return QFileInfoList();
        it.next();
        files.append(it.fileInfo());
        if (progress)
            progress(files.size());
    }
    return files;
}
