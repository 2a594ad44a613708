#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

namespace testutils
{

// Writes bytes to path, creating or truncating the file; false when it cannot.
inline bool writeFile(const QString& path, const QByteArray& bytes = QByteArray())
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace testutils
