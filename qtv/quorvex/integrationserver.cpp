#include "integrationserver.h"

#include "qutils/debugutils.h"

#include <istream>
#include <locale>
#include <ostream>
#include <sstream>

namespace
{

using qutils::CQuorvexAPI;

const QString MatchCommand = QStringLiteral("match");
const QString FingerprintStatusCommand = QStringLiteral("fingerprintStatus");
const QString QuitCommand = QStringLiteral("quitQuorvex");

std::string answerLine(const std::string& fields)
{
    return std::string(CQuorvexAPI::AnswerMarker) + ';' + fields;
}

std::string keyOf(CQuorvexAPI::EStatus status)
{
    return CQuorvexAPI::statusKey(status).toStdString();
}

QStringList splitFields(const std::string& line)
{
    return QString::fromStdString(line).split(QLatin1Char(';'), Qt::KeepEmptyParts);
}

void writeLine(std::ostream& out, const std::string& line)
{
    out << line << '\n' << std::flush;
}

// Logging must never take the server down: a log that cannot be written is
// simply not written.
void logFailure(const char* what) noexcept
{
    try
    {
        QX_ERROR << "Integration request failed: " << what;
    }
    catch (...)
    {
    }
}

} // namespace

CIntegrationServer::CIntegrationServer(bool licenceActive, Loader loader)
    : m_licenceActive(licenceActive), m_loader(std::move(loader))
{
}

int CIntegrationServer::run(std::istream& in, std::ostream& out)
{
    if (!m_licenceActive)
    {
        writeLine(out, answerLine(keyOf(CQuorvexAPI::NotActivated)));
        return 0;
    }
    writeLine(out, answerLine(keyOf(CQuorvexAPI::Success)));

    std::string line;
    while (std::getline(in, line))
    {
        // Tolerate clients that end lines with CR LF, as Windows text streams do.
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (splitFields(line).first() == QuitCommand)
            return 0;
        const std::string answer = answerTo(line);
        if (!answer.empty())
            writeLine(out, answer);
    }
    return 0;
}

std::string CIntegrationServer::answerTo(const std::string& line)
{
    const QStringList fields = splitFields(line);
    const QString& command = fields.first();
    try
    {
        if (command == MatchCommand)
            return matchAnswer(fields);
        if (command == FingerprintStatusCommand)
            return fingerprintStatusAnswer(fields);
    }
    catch (const std::exception& e)
    {
        // Answer anyway: a client waiting for a line that never comes would
        // only learn of the failure after its timeout.
        logFailure(e.what());
        if (command == MatchCommand)
            return answerLine("0;0;0;" + keyOf(CQuorvexAPI::Fatal));
        return answerLine(keyOf(CQuorvexAPI::Fatal));
    }
    return std::string();
}

std::string CIntegrationServer::matchAnswer(const QStringList& fields)
{
    const std::shared_ptr<CFingerprint> fingerprint = cachedFingerprint(fields.value(1));
    if (!fingerprint)
        return answerLine("0;0;0;" + keyOf(CQuorvexAPI::CannotOpenFingerprint));
    const CQuorvexAPI::SAnalysisResult result = fingerprint->match(QFileInfo(fields.value(2)), false);
    return answerLine(std::string(result.matched ? "1" : "0") + ';' + formatNumber(result.probability) + ';' +
                      formatNumber(result.correlation) + ';' + keyOf(result.status));
}

std::string CIntegrationServer::fingerprintStatusAnswer(const QStringList& fields)
{
    // Always read afresh: the caller asks about the file as it is now.
    EStatus status = CQuorvexAPI::Invalid;
    m_loader(QFileInfo(fields.value(1)), &status);
    return answerLine(keyOf(status));
}

std::shared_ptr<CFingerprint> CIntegrationServer::cachedFingerprint(const QString& path)
{
    const auto found = m_cache.constFind(path);
    if (found != m_cache.constEnd())
        return found.value();

    EStatus status = CQuorvexAPI::Invalid;
    std::shared_ptr<CFingerprint> fingerprint = m_loader(QFileInfo(path), &status);
    if (status != CQuorvexAPI::Success)
        fingerprint.reset();
    m_cache.insert(path, fingerprint);
    if (!fingerprint)
        QX_WARNING << "Fingerprint \"" << path << "\" cannot be used: " << CQuorvexAPI::statusKey(status);
    return fingerprint;
}

std::string CIntegrationServer::formatNumber(double value)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << value;
    return text.str();
}
