#include "resultfile.h"

#include "commandline.h"
#include "console.h"

namespace cli
{

QList<OutputOption> namedOutputs(const SCommandLine& commandLine)
{
    QList<OutputOption> outputs;
    if (!commandLine.jsonFile.isEmpty() && commandLine.jsonFile != QLatin1String("-"))
        outputs.append({QStringLiteral("--json"), commandLine.jsonFile});
    if (!commandLine.csvFile.isEmpty())
        outputs.append({QStringLiteral("--csv"), commandLine.csvFile});
    if (!commandLine.reportFile.isEmpty())
        outputs.append({QStringLiteral("--report"), commandLine.reportFile});
    return outputs;
}

CResultOutputs::CResultOutputs(const SCommandLine& commandLine)
    : m_jsonToStdout(commandLine.jsonFile == QLatin1String("-"))
{
    if (!commandLine.jsonFile.isEmpty() && !m_jsonToStdout)
        m_json = std::make_unique<CResultFile>(commandLine.jsonFile);
    if (!commandLine.csvFile.isEmpty())
        m_csv = std::make_unique<CResultFile>(commandLine.csvFile);
}

bool CResultOutputs::open(const QString& csvHeader)
{
    for (CResultFile* file : {m_json.get(), m_csv.get()})
    {
        if (file && !file->open())
        {
            CConsole::error(QStringLiteral("cannot write %1: %2").arg(file->path(), file->errorString()));
            return false;
        }
    }
    if (m_csv)
        m_csv->writeLine(csvHeader);
    return true;
}

void CResultOutputs::write(const QString& json, const QStringList& csvRows, const QString& tableHeader,
                           const QString& tableLine)
{
    if (m_jsonToStdout)
    {
        CConsole::out(json);
    }
    else
    {
        if (!m_tableStarted)
            CConsole::out(tableHeader);
        m_tableStarted = true;
        CConsole::out(tableLine);
    }
    if (m_json)
        m_json->writeLine(json);
    if (m_csv)
        for (const QString& row : csvRows)
            m_csv->writeLine(row);
}

void CResultOutputs::summary(const QStringList& lines)
{
    // With JSON on standard output the summary must not mix into it.
    if (!m_jsonToStdout)
        CConsole::out(QString());
    for (const QString& line : lines)
        m_jsonToStdout ? CConsole::err(line) : CConsole::out(line);
}

int CResultOutputs::close()
{
    int exitCode = ExitDone;
    for (CResultFile* file : {m_json.get(), m_csv.get()})
    {
        if (!file)
            continue;
        const QString error = file->close();
        if (!error.isEmpty())
        {
            CConsole::error(QStringLiteral("cannot write %1: %2").arg(file->path(), error));
            exitCode = ExitFailure;
        }
    }
    return exitCode;
}

int checkStandardOutput(int exitCode)
{
    if (!CConsole::outFailed())
        return exitCode;
    CConsole::error(QStringLiteral("cannot write to standard output: its reader has gone"));
    return ExitFailure;
}

} // namespace cli
