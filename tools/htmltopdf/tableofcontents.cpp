#include "tableofcontents.h"

#include <QTextBlock>
#include <QTextDocument>

namespace htmltopdf
{

void CTableOfContents::collect(const QTextDocument* document, const CPagePlanner& planner,
                               const QVector<SPageSlice>& slices)
{
    m_entries.clear();
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next())
    {
        const int level = block.blockFormat().headingLevel();
        if (level < 1 || level > 2)
            continue;
        // Line breaks inside a heading come as U+2028.
        const QString title =
            block.text().replace(QChar(QChar::LineSeparator), QLatin1Char(' ')).simplified();
        if (title.isEmpty())
            continue;
        m_entries.append({level, title, CPagePlanner::sliceAt(slices, planner.blockTop(block))});
    }
}

QString CTableOfContents::html(int firstPageNumber) const
{
    QString rows;
    for (const SEntry& entry : m_entries)
    {
        const QString title = entry.title.toHtmlEscaped();
        rows += QStringLiteral("<tr><td style=\"padding-left: %1px; %2\">%3</td>"
                               "<td align=\"right\" width=\"60\">%4</td></tr>\n")
                    // One pass, so a "%1" in a heading stays as it is.
                    .arg(QString::number(entry.level == 1 ? 0 : 24),
                         entry.level == 1 ? QStringLiteral("font-weight: bold;") : QString(), title,
                         QString::number(firstPageNumber + entry.slice));
    }
    return QStringLiteral("<html><head><meta charset=\"utf-8\"/></head><body>\n"
                          "<h1>Contents</h1>\n"
                          "<table width=\"100%\" cellspacing=\"0\" cellpadding=\"4\">\n%1</table>\n"
                          "</body></html>\n")
        .arg(rows);
}

} // namespace htmltopdf
