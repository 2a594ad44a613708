#pragma once

#include <QElapsedTimer>
#include <QString>

namespace cli
{

// Progress of a run over a known number of photos on standard error. On a
// terminal one line redrawn in place; otherwise a plain line every few
// seconds or every tenth of the way, so logs of long runs stay short.
class CProgressLine
{
public:
    CProgressLine(const QString& verb, int total, bool interactive);
    ~CProgressLine();

    void update(int done);
    // Called regularly; redraws the line or writes a plain line when one is due.
    void tick();
    // Removes the terminal line before other output; redrawn on the next update.
    void clear();
    void finish();

    // "[####----] 4/10  2.1 photos/s  remaining 0h 0m 03s" on a terminal,
    // "Analyzed 4/10 photos (40%)  2.1 photos/s  remaining 0h 0m 03s" otherwise.
    QString text(bool withBar) const;

private:
    void draw();

    QString m_verb;
    int m_total;
    bool m_interactive;
    int m_done = 0;
    int m_lastReportedTenth = 0;
    bool m_drawn = false;
    bool m_finished = false;
    int m_drawnWidth = 0;
    QElapsedTimer m_timer;
    QElapsedTimer m_sinceLastLine;
};

} // namespace cli
