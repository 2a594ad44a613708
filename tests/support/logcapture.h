#pragma once

#include <QString>
#include <QTemporaryDir>

namespace testutils
{

// Sends records down to Debug into a temporary log file while it lives and
// hands back what was written since. Each capture starts with a marker line
// of its own: the logger folds a line identical to the previous one within
// the same second, which would otherwise hide a record.
class CLogCapture
{
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    QString text() const;
    // A record of this level ("Debug", "Warning", ...) written from this source
    // file, given from its folder on ("qutils/tasks.cpp").
    bool hasRecord(const QString& levelName, const QString& source) const;
    // A self-check failure reported from this source file.
    bool hasSelfCheck(const QString& source) const;

private:
    QTemporaryDir m_dir;
    QString m_path;
    qint64 m_start = 0;
};

} // namespace testutils
