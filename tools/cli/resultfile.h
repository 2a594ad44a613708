#pragma once

#include <QFile>
#include <QString>

namespace cli
{

// A results file written line by line and flushed, so an interrupted or
// crashed run leaves every line it reported.
class CResultFile
{
public:
    explicit CResultFile(const QString& path = QString()) : m_file(path) {}

    bool open() { return m_file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text); }
    bool isOpen() const { return m_file.isOpen(); }
    void writeLine(const QString& line)
    {
        if (m_file.write((line + QLatin1Char('\n')).toUtf8()) < 0 || !m_file.flush())
            m_failed = true;
    }
    // Empty when every line was written.
    QString close()
    {
        m_file.close();
        return m_failed || m_file.error() != QFileDevice::NoError ? m_file.errorString() : QString();
    }
    QString errorString() const { return m_file.errorString(); }
    QString path() const { return m_file.fileName(); }

private:
    QFile m_file;
    bool m_failed = false;
};

} // namespace cli
