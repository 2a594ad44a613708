#pragma once

#include <QVector>

class QTextBlock;
class QTextDocument;
class QTextTable;

namespace htmltopdf
{

// One page's share of a document laid out as one long sheet: from top to
// bottom in document coordinates. inkBottom may lie a little below bottom:
// with a font whose lines are closer than their glyphs are tall, the
// descenders of a page's last line reach past the top of the next line.
struct SPageSlice
{
    qreal top = 0;
    qreal bottom = 0;
    qreal inkBottom = 0;
    // A table's header rows drawn above the slice, when the page starts
    // inside that table's body; equal when there are none.
    qreal headerTop = 0;
    qreal headerBottom = 0;
};

// Cuts a document laid out without pages (setTextWidth only) into pages.
// Qt's own pagination may split a table row, leaving half its lines at the
// foot of one page; here a cut never crosses a line of text, a table row or
// a heading and the line after it, unless the piece is taller than a page.
// Page breaks the style sheet asks for (page-break-before/after) are kept.
// A page that starts inside the body of a table with header rows (thead)
// repeats them at its top.
class CPagePlanner
{
public:
    explicit CPagePlanner(QTextDocument* document);

    QVector<SPageSlice> plan(qreal pageHeight) const;

    // Where a block's first line starts, in document coordinates.
    qreal blockTop(const QTextBlock& block) const;

    // The index of the slice holding y (the last one past the end).
    static int sliceAt(const QVector<SPageSlice>& slices, qreal y);

private:
    struct SSpan
    {
        qreal top;
        qreal bottom; // where what follows may start
        qreal ink;    // where its drawing ends; not above bottom
    };

    // A table's header rows and where its body ends.
    struct SHeader
    {
        qreal top;
        qreal bottom;
        qreal tableBottom;
    };

    void collectBlocks();
    void collectTable(QTextTable* table);
    qreal blockOffsetY(const QTextBlock& block) const;

    QTextDocument* m_document;
    QVector<SSpan> m_keep;     // not to be cut, unless taller than a page
    QVector<qreal> m_breaks;   // cuts the document asks for
    QVector<SHeader> m_headers;
    qreal m_contentBottom = 0; // below this there is nothing to show
};

} // namespace htmltopdf
