#pragma once

#include "pageplanner.h"

#include <QString>
#include <QVector>

class QTextDocument;

namespace htmltopdf
{

// The contents page: the document's h1 and h2 headings with the numbers of
// the pages they start on.
class CTableOfContents
{
public:
    // Finds the headings of a document cut into the given slices.
    void collect(const QTextDocument* document, const CPagePlanner& planner,
                 const QVector<SPageSlice>& slices);

    // The page as HTML; firstPageNumber is the number printed for the
    // document's first slice.
    QString html(int firstPageNumber) const;

private:
    struct SEntry
    {
        int level;
        QString title;
        int slice;
    };

    QVector<SEntry> m_entries;
};

} // namespace htmltopdf
