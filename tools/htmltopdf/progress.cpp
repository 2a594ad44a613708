#include "progress.h"

#include <QtGlobal>

#include <cstdio>

namespace htmltopdf
{

void CProgress::report(int percent)
{
    percent = qBound(0, percent, 100);
    if (percent <= m_last)
        return;
    m_last = percent;
    std::printf("%d%%\n", percent);
    std::fflush(stdout);
}

void CProgress::report(int startPercent, int endPercent, int done, int total)
{
    const int span = endPercent - startPercent;
    report(total > 0 ? startPercent + static_cast<int>(static_cast<qint64>(span) * done / total)
                     : endPercent);
}

} // namespace htmltopdf
