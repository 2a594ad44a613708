#pragma once

#include "photoinputs.h"

#include <QFile>
#include <QString>
#include <QStringList>

#include <memory>

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

struct SCommandLine;

// --json, --csv and --report as the command line names them (--json - is no
// file), for the check that no output replaces an input.
QList<OutputOption> namedOutputs(const SCommandLine& commandLine);

// A run's results as every command that lists photos writes them: the table
// on standard output, or JSON lines there with --json - (the summary then goes
// to standard error), and the --json and --csv files line by line.
class CResultOutputs
{
public:
    explicit CResultOutputs(const SCommandLine& commandLine);
    // Opens the files and writes the CSV header; false, having said why, when
    // one cannot be written.
    bool open(const QString& csvHeader);
    // One photo: its JSON line, CSV rows and table line (the header first).
    void write(const QString& json, const QStringList& csvRows, const QString& tableHeader, const QString& tableLine);
    void summary(const QStringList& lines);
    // Closes the files: ExitDone, or ExitFailure having said which one failed.
    int close();

private:
    bool m_jsonToStdout = false;
    bool m_tableStarted = false;
    std::unique_ptr<CResultFile> m_json;
    std::unique_ptr<CResultFile> m_csv;
};

// exitCode, or ExitFailure when standard output's reader has gone (said so).
int checkStandardOutput(int exitCode);

} // namespace cli
