#include "console.h"

#include "qutils/platform.h"

#include <cstdio>

namespace cli
{

namespace
{

void write(std::FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
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

bool CConsole::errIsTerminal()
{
    return qutils::platform::isTerminal(2);
}

} // namespace cli
