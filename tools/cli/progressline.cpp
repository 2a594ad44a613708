#include "progressline.h"

#include "console.h"
#include "resultclass.h"

namespace cli
{

namespace
{

// Plain lines at most this often, besides one per tenth of the way.
constexpr qint64 PlainLineIntervalMs = 5000;
constexpr int BarWidth = 24;

} // namespace

CProgressLine::CProgressLine(const QString& verb, int total, bool interactive)
    : m_verb(verb), m_total(total), m_interactive(interactive)
{
    m_timer.start();
    m_sinceLastLine.start();
    if (m_interactive)
        draw();
}

CProgressLine::~CProgressLine()
{
    finish();
}

QString CProgressLine::text(bool withBar) const
{
    const double seconds = m_timer.elapsed() / 1000.0;
    const QString rate =
        m_done > 0 && seconds > 0.0 ? QString::number(m_done / seconds, 'f', 1) : QStringLiteral("-");
    // The estimate of the analysis dialog: elapsed time scaled by what is left.
    const qint64 remaining = m_done > 0 ? static_cast<qint64>(static_cast<float>(m_timer.elapsed()) *
                                                                  (static_cast<float>(m_total) / m_done) -
                                                              static_cast<float>(m_timer.elapsed()))
                                        : -1;
    const QString figures =
        QStringLiteral("%1 photos/s  remaining %2").arg(rate, remainingTimeText(remaining));
    if (!withBar)
        return QStringLiteral("%1 %2/%3 photos (%4%)  %5")
            .arg(m_verb)
            .arg(m_done)
            .arg(m_total)
            .arg(m_total > 0 ? m_done * 100 / m_total : 100)
            .arg(figures);
    const int filled = m_total > 0 ? m_done * BarWidth / m_total : BarWidth;
    return QStringLiteral("[%1%2] %3/%4  %5")
        .arg(QString(filled, QLatin1Char('#')), QString(BarWidth - filled, QLatin1Char('-')))
        .arg(m_done)
        .arg(m_total)
        .arg(figures);
}

void CProgressLine::draw()
{
    const QString line = text(true);
    // Blanks over the rest of a longer previous line.
    const QString padding(qMax(0, m_drawnWidth - line.size()), QLatin1Char(' '));
    CConsole::errRaw(QLatin1Char('\r') + line + padding);
    m_drawnWidth = line.size();
    m_drawn = true;
}

void CProgressLine::update(int done)
{
    if (m_finished)
        return;
    m_done = done;
    if (m_interactive)
    {
        draw();
        return;
    }
    const int tenth = m_total > 0 ? m_done * 10 / m_total : 10;
    if (tenth > m_lastReportedTenth && m_done < m_total)
    {
        m_lastReportedTenth = tenth;
        CConsole::err(text(false));
        m_sinceLastLine.restart();
    }
}

void CProgressLine::tick()
{
    if (m_finished)
        return;
    if (m_interactive)
    {
        // Keeps the rate and the estimate moving while a slow photo is matched.
        if (m_sinceLastLine.elapsed() >= 1000)
        {
            draw();
            m_sinceLastLine.restart();
        }
        return;
    }
    if (m_sinceLastLine.elapsed() >= PlainLineIntervalMs)
    {
        CConsole::err(text(false));
        m_sinceLastLine.restart();
    }
}

void CProgressLine::clear()
{
    if (!m_interactive || !m_drawn)
        return;
    CConsole::errRaw(QLatin1Char('\r') + QString(m_drawnWidth, QLatin1Char(' ')) + QLatin1Char('\r'));
    m_drawn = false;
    m_drawnWidth = 0;
}

void CProgressLine::finish()
{
    if (m_finished)
        return;
    clear();
    m_finished = true;
}

} // namespace cli
