#include "console.h"

#include "qutils/platform.h"

#include <cstdio>

namespace cli
{

namespace
{

bool g_outFailed = false;

void write(std::FILE* stream, const QString& text)
{
    if (stream == stdout && g_outFailed)
        return;
    const QByteArray bytes = text.toUtf8();
    const bool written = std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream) ==
                         static_cast<size_t>(bytes.size());
    if ((std::fflush(stream) != 0 || !written) && stream == stdout)
        g_outFailed = true;
}

} // namespace

void CConsole::out(const QString& line)
{
    write(stdout, line + QLatin1Char('\n'));
}

void CConsole::err(const QString& line)
{
    write(stderr, line + QLatin1Char('\n'));
}

void CConsole::error(const QString& message)
{
    err(QStringLiteral("quorvex-cli: error: ") + message);
}

void CConsole::warning(const QString& message)
{
    err(QStringLiteral("quorvex-cli: warning: ") + message);
}

void CConsole::note(const QString& message)
{
    err(QStringLiteral("quorvex-cli: ") + message);
}

void CConsole::errRaw(const QString& text)
{
    write(stderr, text);
}

bool CConsole::outFailed()
{
    return g_outFailed;
}

bool CConsole::errIsTerminal()
{
    return qutils::platform::isTerminal(2);
}

} // namespace cli
