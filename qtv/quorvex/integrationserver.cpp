#include "integrationserver.h"

#include "qutils/appsettings.h"
#include "qutils/debugutils.h"

#include <QDir>

#include <algorithm>
#include <istream>
#include <limits>
#include <locale>
#include <ostream>
#include <sstream>

namespace
{

using qutils::CQuorvexAPI;

const QString MatchCommand = QStringLiteral("match");
const QString FingerprintStatusCommand = QStringLiteral("fingerprintStatus");
const QString QuitCommand = QStringLiteral("quitQuorvex");
const QString IdentifyCommand = QStringLiteral("identify");



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

// Whether a path field names the file it seems to. The engine and the file
// system take paths as C strings, so a NUL would cut the path short and name
// another file; other control characters cannot be told from the line's own
// framing (a CR before the line feed is dropped). Bytes that are not UTF-8
// arrive as U+FFFD and would name another file too.
bool usablePath(const QString& path)
{
    return std::none_of(path.cbegin(), path.cend(),
                        [](QChar c) {
                            return c.unicode() < 0x20 || c.unicode() == 0x7f ||
                                   c == QChar::ReplacementCharacter;
                        });
}

// Reads one line of at most maxLength bytes (a CR before the line feed not
// counted) into line; the rest of a longer line is skipped unread, so its
// length costs no memory. False at end of input with nothing read.
bool readLine(std::istream& in, std::string& line, std::size_t maxLength, bool* overlong)
{
    line.clear();
    *overlong = false;
    std::streambuf* buffer = in.rdbuf();
    for (;;)
    {
        const int c = buffer->sbumpc();
        if (c == std::char_traits<char>::eof())
        {
            in.setstate(std::ios::eofbit);
            if (line.empty())
                return false;
            break;
        }
        if (c == '\n')
            break;
        // One byte past the limit is kept: it may be the CR of a line end.
        if (line.size() > maxLength)
        {
            *overlong = true;
            in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
            break;
        }
        line.push_back(static_cast<char>(c));
    }
    // Tolerate clients that end lines with CR LF, as Windows text streams do.
    if (!*overlong && !line.empty() && line.back() == '\r')
        line.pop_back();
    if (line.size() > maxLength)
        *overlong = true;
    return true;
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
    // Once, before any request: the engine reads it at each match.
    qutils::CAppSettings::applyScaleSearch(qutils::CAppSettings::scaleSearch());
    writeLine(out, answerLine(keyOf(CQuorvexAPI::Success)));

    std::string line;
    bool overlong = false;
    while (readLine(in, line, MaxLineLength, &overlong))
    {
        if (splitFields(line).first() == QuitCommand)
            return 0;
        const std::string answer = overlong ? overlongAnswer(line) : answerTo(line);
        if (!answer.empty())
            writeLine(out, answer);
    }
    return 0;
}

std::string CIntegrationServer::overlongAnswer(const std::string& start) const
{
    // The command is whole in the part that was kept; the paths may not be,
    // and a cut path would name another file.
    const QString command = splitFields(start).first();
    if (command != MatchCommand && command != FingerprintStatusCommand && command != IdentifyCommand)
        return std::string();
    try
    {
        QX_WARNING << "A request line longer than " << static_cast<qulonglong>(MaxLineLength)
                   << " bytes was not read: " << command;
    }
    catch (...)
    {
    }
    if (command == MatchCommand)
        return answerLine("0;0;0;" + keyOf(CQuorvexAPI::Fatal));
    if (command == IdentifyCommand)
        return answerLine("0;0;0;" + keyOf(CQuorvexAPI::Fatal) + ';');
    return answerLine(keyOf(CQuorvexAPI::Fatal));
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
        if (command == IdentifyCommand)
            return identifyAnswer(fields);
    }
    catch (const std::exception& e)
    {
        // Answer anyway: a client waiting for a line that never comes would
        // only learn of the failure after its timeout.
        logFailure(e.what());
        if (command == MatchCommand)
            return answerLine("0;0;0;" + keyOf(CQuorvexAPI::Fatal));
        if (command == IdentifyCommand)
            return answerLine("0;0;0;" + keyOf(CQuorvexAPI::Fatal) + ';');
        return answerLine(keyOf(CQuorvexAPI::Fatal));
    }
    return std::string();
}

std::string CIntegrationServer::matchAnswer(const QStringList& fields)
{
    // Refused as the client refuses such paths, without a look at any file.
    const std::shared_ptr<CFingerprint> fingerprint =
        usablePath(fields.value(1)) ? cachedFingerprint(fields.value(1)) : nullptr;
    if (!fingerprint)
        return answerLine("0;0;0;" + keyOf(CQuorvexAPI::CannotOpenFingerprint));
    if (!usablePath(fields.value(2)))
        return answerLine("0;0;0;" + keyOf(CQuorvexAPI::BrokenImage));
    const CQuorvexAPI::SAnalysisResult result = fingerprint->match(QFileInfo(fields.value(2)), false);
    return answerLine(std::string(result.matched ? "1" : "0") + ';' + formatNumber(result.probability) + ';' +
                      formatNumber(result.correlation) + ';' + keyOf(result.status));
}

std::string CIntegrationServer::identifyAnswer(const QStringList& fields)
{
    // The fields of match, and the fingerprint they are about (none: empty).
    const auto refused = [](CQuorvexAPI::EStatus status) { return answerLine("0;0;0;" + keyOf(status) + ';'); };
    const std::shared_ptr<const CFingerprintLibrary> library =
        usablePath(fields.value(1)) ? cachedLibrary(fields.value(1)) : nullptr;
    if (!library)
        return refused(CQuorvexAPI::CannotOpenFingerprint);
    if (!usablePath(fields.value(2)))
        return refused(CQuorvexAPI::BrokenImage);
    const CFingerprintLibrary::SIdentification identification = library->identify(QFileInfo(fields.value(2)));
    if (identification.status != CQuorvexAPI::Success || !identification.hasBest)
        return refused(identification.status);
    // The strongest match, or the nearest camera when none matched. A file
    // name with a line break would end the answer early.
    const CQuorvexAPI::SAnalysisResult& best = identification.best.result;
    if (!usablePath(identification.best.fingerprintPath))
    {
        logFailure("a fingerprint's path cannot travel in an answer");
        return refused(CQuorvexAPI::Fatal);
    }
    return answerLine(std::string(best.matched ? "1" : "0") + ';' + formatNumber(best.probability) + ';' +
                      formatNumber(best.correlation) + ';' + keyOf(CQuorvexAPI::Success) + ';' +
                      identification.best.fingerprintPath.toStdString());
}

std::shared_ptr<const CFingerprintLibrary> CIntegrationServer::cachedLibrary(const QString& folder)
{
    const QFileInfo info(folder);
    if (folder.isEmpty() || !info.isDir())
        return nullptr;
    const QString canonical = info.canonicalFilePath();
    // Looked at on every request: a fingerprint added, removed or replaced
    // between requests is seen by the next one.
    const QByteArray stamp = CFingerprintLibrary::folderStamp(canonical);
    if (canonical == m_libraryFolder && stamp == m_libraryStamp)
        return m_library;
    m_library.reset();
    QString error;
    std::shared_ptr<const CFingerprintLibrary> library = CFingerprintLibrary::open(canonical, &error);
    if (!library || library->usableCount() == 0)
    {
        QX_WARNING << "No usable fingerprint library in \"" << folder << "\": " << error;
        library.reset();
    }
    m_libraryFolder = canonical;
    m_libraryStamp = stamp;
    m_library = library;
    return m_library;
}

std::string CIntegrationServer::fingerprintStatusAnswer(const QStringList& fields)
{
    if (!usablePath(fields.value(1)))
        return answerLine(keyOf(CQuorvexAPI::CannotOpenFingerprint));
    // Always read afresh: the caller asks about the file as it is now.
    EStatus status = CQuorvexAPI::Invalid;
    m_loader(QFileInfo(fields.value(1)), &status);
    return answerLine(keyOf(status));
}

std::shared_ptr<CFingerprint> CIntegrationServer::cachedFingerprint(const QString& path)
{
    if (m_failed.contains(path))
        return nullptr;
    // A path that names no file has no canonical form: its cleaned absolute
    // form stands in, so its spellings fail together too.
    const QFileInfo file(path);
    const QString canonical = path.isEmpty() ? QString() : file.canonicalFilePath();
    const QString key = canonical.isEmpty() ? QDir::cleanPath(file.absoluteFilePath()) : canonical;
    if (m_failed.contains(key))
        return nullptr;
    const auto found = std::find_if(m_recent.begin(), m_recent.end(),
                                    [&key](const auto& entry) { return entry.first == key; });
    if (found != m_recent.end())
    {
        std::rotate(m_recent.begin(), found, found + 1);
        return m_recent.front().second;
    }

    EStatus status = CQuorvexAPI::Invalid;
    std::shared_ptr<CFingerprint> fingerprint =
        m_loader(canonical.isEmpty() ? file : QFileInfo(canonical), &status);
    if (status != CQuorvexAPI::Success || !fingerprint)
    {
        m_failed.insert(path);
        m_failed.insert(key);
        QX_WARNING << "Fingerprint \"" << path << "\" cannot be used: " << CQuorvexAPI::statusKey(status);
        return nullptr;
    }
    if (m_recent.size() >= static_cast<std::size_t>(CachedFingerprints))
        m_recent.pop_back();
    m_recent.emplace(m_recent.begin(), key, fingerprint);
    return fingerprint;
}

std::string CIntegrationServer::formatNumber(double value)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << value;
    return text.str();
}
