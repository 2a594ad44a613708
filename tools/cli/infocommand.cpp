#include "commands.h"
#include "console.h"
#include "fingerprint.h"
#include "fingerprintproperties.h"

#include <QJsonDocument>

using qutils::CQuorvexAPI;

namespace cli
{

int runInfo(const SCommandLine& commandLine)
{
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fingerprint = CFingerprint::load(QFileInfo(commandLine.fingerprintFile), &status);
    if (!fingerprint)
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint file %1: %2")
                            .arg(commandLine.fingerprintFile, CQuorvexAPI::statusText(status)));
        return ExitFailure;
    }
    if (commandLine.json)
    {
        CConsole::out(
            QString::fromUtf8(QJsonDocument(propertyObject(*fingerprint)).toJson(QJsonDocument::Compact)));
        return ExitDone;
    }
    CConsole::out(QStringLiteral("Fingerprint %1").arg(commandLine.fingerprintFile));
    for (const QString& line : propertyLines(*fingerprint))
        CConsole::out(line);
    return ExitDone;
}

} // namespace cli
