#pragma once

#include "options.h"

#include <QFont>
#include <QRectF>
#include <QStringList>
#include <QVector>

class QPainter;
class QPaintDevice;

namespace htmltopdf
{

// A header or footer: the HTML file's content, then the texts in small grey
// type. "[page]" and "[topage]" become the page number and count. A text
// with tabs spreads across the line: its first part at the left, its last
// part at the right, any between in the middle.
class CPageBand
{
public:
    // html is the band's HTML file read already (empty for none); its images
    // resolve against baseFolder. A band taller than maximumHeight is cut
    // there, so the page keeps room for its text.
    CPageBand(const SBandTexts& texts, const QString& html, const QString& baseFolder, QPaintDevice* device,
              qreal width, qreal maximumHeight);

    bool isEmpty() const;
    // The height the band needs, for page numbers of up to four digits.
    qreal height() const { return m_height; }
    // Pictures or style sheets of the band's HTML refused as beyond the limits.
    QStringList refusedResources() const { return m_refused; }
    void paint(QPainter* painter, const QPointF& topLeft, int page, int pageCount) const;

    static QString withPageNumbers(QString text, int page, int pageCount);

private:
    struct SText
    {
        QString text;
        Qt::Alignment alignment;
    };
    struct SPlacedText
    {
        QRectF rect;
        int flags;
        QString text;
    };

    void addText(const QString& text, Qt::Alignment ownAlignment);
    QVector<SPlacedText> placeTexts(int page, int pageCount, qreal top) const;
    qreal htmlHeight(int page, int pageCount, QStringList* refused = nullptr) const;

    QVector<SText> m_left;
    QVector<SText> m_center;
    QVector<SText> m_right;
    QString m_html;
    QString m_baseFolder;
    QPaintDevice* m_device;
    qreal m_width;
    QFont m_font;
    qreal m_height = 0;
    QStringList m_refused;
};

} // namespace htmltopdf
