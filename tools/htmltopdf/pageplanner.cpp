#include "pageplanner.h"

#include <QAbstractTextDocumentLayout>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextFrame>
#include <QTextLayout>
#include <QTextTable>

#include <algorithm>

namespace htmltopdf
{

namespace
{

// Coordinates are floating point; positions closer than this are one.
constexpr qreal Tolerance = 0.01;

qreal cellPadding(const QTextTableCell& cell, const QTextTable* table, QTextFormat::Property side)
{
    const QTextCharFormat format = cell.format();
    return format.hasProperty(side) ? format.doubleProperty(side) : table->format().cellPadding();
}

void collectTables(QTextFrame* frame, QVector<QTextTable*>* tables)
{
    const QList<QTextFrame*> children = frame->childFrames();
    for (QTextFrame* child : children)
    {
        if (auto* table = qobject_cast<QTextTable*>(child))
            tables->append(table);
        collectTables(child, tables);
    }
}

} // namespace

CPagePlanner::CPagePlanner(QTextDocument* document) : m_document(document)
{
    collectBlocks();
    QVector<QTextTable*> tables;
    collectTables(m_document->rootFrame(), &tables);
    for (QTextTable* table : qAsConst(tables))
        collectTable(table);
    std::sort(m_keep.begin(), m_keep.end(), [](const SSpan& a, const SSpan& b) { return a.top < b.top; });
    std::sort(m_breaks.begin(), m_breaks.end());
}

qreal CPagePlanner::blockOffsetY(const QTextBlock& block) const
{
    // The rectangle's top is the layout's position in document coordinates;
    // line positions are relative to it.
    return m_document->documentLayout()->blockBoundingRect(block).top();
}

qreal CPagePlanner::blockTop(const QTextBlock& block) const
{
    const QTextLayout* layout = block.layout();
    if (layout->lineCount() == 0)
        return m_document->documentLayout()->blockBoundingRect(block).top();
    return blockOffsetY(block) + layout->lineAt(0).y();
}

void CPagePlanner::collectBlocks()
{
    QAbstractTextDocumentLayout* layout = m_document->documentLayout();
    for (QTextBlock block = m_document->begin(); block.isValid(); block = block.next())
    {
        if (!block.isVisible())
            continue;
        const QTextLayout* textLayout = block.layout();
        const qreal offset = blockOffsetY(block);
        const QRectF rect = layout->blockBoundingRect(block);
        for (int i = 0; i < textLayout->lineCount(); ++i)
        {
            const QTextLine line = textLayout->lineAt(i);
            const qreal top = offset + line.y();
            // height() leaves out a negative leading, which the layout uses:
            // the next line starts that much higher. Spans that overlapped
            // would leave no place to cut a paragraph.
            const qreal ink = top + line.height();
            const qreal advance = qMax(top + Tolerance, ink + qMin<qreal>(0, line.leading()));
            m_keep.append({top, advance, ink});
            m_contentBottom = qMax(m_contentBottom, ink);
        }
        const QTextBlockFormat format = block.blockFormat();
        if (format.pageBreakPolicy() & QTextFormat::PageBreak_AlwaysBefore)
            m_breaks.append(rect.top());
        if (format.pageBreakPolicy() & QTextFormat::PageBreak_AlwaysAfter)
            m_breaks.append(rect.bottom());
        // A heading stays with the first line of what follows it.
        if (format.headingLevel() > 0 && textLayout->lineCount() > 0)
        {
            const QTextBlock next = block.next();
            if (next.isValid() && next.layout()->lineCount() > 0)
            {
                const QTextLine first = next.layout()->lineAt(0);
                const qreal nextBottom = blockOffsetY(next) + first.y() + first.height();
                if (nextBottom > blockTop(block))
                    m_keep.append({blockTop(block), nextBottom, nextBottom});
            }
        }
    }
}

void CPagePlanner::collectTable(QTextTable* table)
{
    QAbstractTextDocumentLayout* layout = m_document->documentLayout();
    const QRectF tableRect = layout->frameBoundingRect(table);
    m_contentBottom = qMax(m_contentBottom, tableRect.bottom());
    const QTextTableFormat tableFormat = table->format();
    if (tableFormat.pageBreakPolicy() & QTextFormat::PageBreak_AlwaysBefore)
        m_breaks.append(tableRect.top());
    if (tableFormat.pageBreakPolicy() & QTextFormat::PageBreak_AlwaysAfter)
        m_breaks.append(tableRect.bottom());

    // A row's top: where its cells' contents start, less their padding, but
    // never above what the rows before it show; the cut between rows goes
    // there. Qt keeps row positions to itself, so they are found from the
    // cells' lines.
    const int rows = table->rows();
    QVector<qreal> rowTop(rows, tableRect.bottom());
    QVector<qreal> rowInkBottom(rows, tableRect.top());
    for (int r = 0; r < rows; ++r)
    {
        for (int c = 0; c < table->columns(); ++c)
        {
            const QTextTableCell cell = table->cellAt(r, c);
            if (!cell.isValid() || cell.row() != r || cell.column() != c)
                continue;
            const QTextBlock first = cell.firstCursorPosition().block();
            if (first.layout()->lineCount() > 0)
                rowTop[r] = qMin(rowTop[r], blockTop(first) -
                                                cellPadding(cell, table, QTextFormat::TableCellTopPadding));
            const int lastRow = r + cell.rowSpan() - 1;
            const int end = cell.lastCursorPosition().position();
            for (QTextBlock block = first; block.isValid() && block.position() <= end; block = block.next())
            {
                const QTextLayout* textLayout = block.layout();
                for (int i = 0; i < textLayout->lineCount(); ++i)
                {
                    const QTextLine line = textLayout->lineAt(i);
                    rowInkBottom[lastRow] =
                        qMax(rowInkBottom[lastRow], blockOffsetY(block) + line.y() + line.height());
                }
            }
        }
    }
    // With collapsed borders the line between two rows is centred on their
    // boundary: the cut goes below it, so a row ends with its whole border.
    QVector<qreal> borderBelow(rows, 0);
    if (tableFormat.borderCollapse())
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < table->columns(); ++c)
            {
                const QTextTableCell cell = table->cellAt(r, c);
                if (!cell.isValid() || cell.column() != c || cell.row() + cell.rowSpan() - 1 != r)
                    continue;
                const QTextTableCellFormat format = cell.format().toTableCellFormat();
                borderBelow[r] = qMax(borderBelow[r], format.hasProperty(QTextFormat::TableCellBottomBorder)
                                                          ? format.bottomBorder()
                                                          : tableFormat.border());
            }
    qreal inkAbove = tableRect.top();
    for (int r = 0; r < rows; ++r)
    {
        if (r > 0)
            rowTop[r] += borderBelow[r - 1] / 2;
        rowTop[r] = qMax(rowTop[r], inkAbove);
        inkAbove = qMax(inkAbove, rowInkBottom[r]);
    }
    // Rows whose cells all continue from above have no top of their own.
    for (int r = rows - 1; r >= 0; --r)
        if (r + 1 < rows && rowTop[r] > rowTop[r + 1])
            rowTop[r] = rowTop[r + 1];
    const auto rowBottom = [&](int r) { return r + 1 < rows ? rowTop[r + 1] : tableRect.bottom(); };

    for (int r = 0; r < rows; ++r)
    {
        // A cell spanning rows keeps all of them together.
        int last = r;
        for (int c = 0; c < table->columns(); ++c)
        {
            const QTextTableCell cell = table->cellAt(r, c);
            if (cell.isValid() && cell.row() == r)
                last = qMax(last, r + cell.rowSpan() - 1);
        }
        if (rowBottom(last) > rowTop[r])
            m_keep.append({rowTop[r], rowBottom(last), rowBottom(last)});
    }
    // A header row never ends a page: it stays with the first row under it.
    const int headerRows = tableFormat.headerRowCount();
    if (headerRows > 0 && headerRows < rows)
    {
        m_keep.append({rowTop[0], rowBottom(headerRows), rowBottom(headerRows)});
        m_headers.append({rowTop[0], rowTop[headerRows], tableRect.bottom()});
    }
}

QVector<SPageSlice> CPagePlanner::plan(qreal pageHeight) const
{
    QVector<SPageSlice> slices;
    if (pageHeight <= Tolerance)
        return {{0, m_contentBottom, m_contentBottom}};
    qreal top = 0;
    while (top < m_contentBottom - Tolerance || slices.isEmpty())
    {
        // A page starting inside a table's body repeats its header rows, in
        // room taken from the page; a header too tall for that is not repeated.
        SPageSlice slice;
        for (const SHeader& header : m_headers)
        {
            const qreal height = header.bottom - header.top;
            if (header.bottom <= top + Tolerance && top < header.tableBottom - Tolerance && height > Tolerance &&
                height <= pageHeight / 4)
            {
                slice.headerTop = header.top;
                slice.headerBottom = header.bottom;
            }
        }
        const qreal room = pageHeight - (slice.headerBottom - slice.headerTop);
        qreal bottom = top + room;
        for (qreal cut : m_breaks)
            if (cut > top + Tolerance && cut < bottom)
            {
                bottom = cut;
                break; // sorted: the first one inside is the nearest
            }
        // Only what starts on this page matters (spans are sorted by top).
        const auto first = std::lower_bound(m_keep.cbegin(), m_keep.cend(), top - Tolerance,
                                            [](const SSpan& span, qreal y) { return span.top < y; });
        // Move the cut up to the top of whatever it would split, until it
        // splits nothing; pieces taller than a page are split anyway.
        for (bool moved = true; moved;)
        {
            moved = false;
            for (auto it = first; it != m_keep.cend(); ++it)
            {
                const SSpan& span = *it;
                if (span.top >= bottom - Tolerance)
                    break;
                if (span.bottom > bottom + Tolerance && span.top > top + Tolerance &&
                    span.bottom - span.top <= room + Tolerance)
                {
                    bottom = span.top;
                    moved = true;
                    break;
                }
            }
        }
        if (bottom <= top + Tolerance)
            bottom = top + room;
        qreal inkBottom = bottom;
        for (auto it = first; it != m_keep.cend() && it->top < bottom - Tolerance; ++it)
            if (it->bottom <= bottom + Tolerance)
                inkBottom = qMax(inkBottom, it->ink);
        slice.top = top;
        slice.bottom = bottom;
        slice.inkBottom = inkBottom;
        slices.append(slice);
        top = bottom;
    }
    return slices;
}

int CPagePlanner::sliceAt(const QVector<SPageSlice>& slices, qreal y)
{
    for (int i = 0; i < slices.size(); ++i)
        if (y < slices.at(i).bottom - Tolerance)
            return i;
    return slices.size() - 1;
}

} // namespace htmltopdf
