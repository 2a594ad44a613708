#include "pageband.h"

#include "reportdocument.h"

#include <QAbstractTextDocumentLayout>
#include <QFontMetricsF>
#include <QPainter>

namespace htmltopdf
{

namespace
{

const QColor BandColor(0x70, 0x70, 0x70);
constexpr qreal BandPointSize = 8;
// Numbers used to measure the band: as wide as any real page number.
constexpr int WidestPageNumber = 9999;

} // namespace

CPageBand::CPageBand(const SBandTexts& texts, const QString& html, const QString& baseFolder,
                     QPaintDevice* device, qreal width, qreal maximumHeight)
    : m_html(html), m_baseFolder(baseFolder), m_device(device), m_width(width)
{
    m_font = QFont(CReportDocument::sansFamily());
    m_font.setPointSizeF(BandPointSize);
    m_font.setStyleStrategy(QFont::PreferNoShaping);
    m_font = QFont(m_font, device);
    addText(texts.left, Qt::AlignLeft);
    addText(texts.center, Qt::AlignHCenter);
    addText(texts.right, Qt::AlignRight);
    if (isEmpty())
        return;
    const QVector<SPlacedText> placed = placeTexts(WidestPageNumber, WidestPageNumber, 0);
    qreal textHeight = 0;
    for (const SPlacedText& text : placed)
        textHeight = qMax(textHeight, text.rect.bottom());
    m_height = qMin(maximumHeight, htmlHeight(WidestPageNumber, WidestPageNumber, &m_refused) + textHeight);
}

bool CPageBand::isEmpty() const
{
    return m_left.isEmpty() && m_center.isEmpty() && m_right.isEmpty() && m_html.trimmed().isEmpty();
}

QString CPageBand::withPageNumbers(QString text, int page, int pageCount)
{
    return text.replace(QStringLiteral("[page]"), QString::number(page))
        .replace(QStringLiteral("[topage]"), QString::number(pageCount));
}

void CPageBand::addText(const QString& text, Qt::Alignment ownAlignment)
{
    QStringList parts;
    const QStringList pieces = text.split(QLatin1Char('\t'));
    for (const QString& piece : pieces)
        if (!piece.trimmed().isEmpty())
            parts.append(piece.trimmed());
    if (parts.size() == 1)
    {
        QVector<SText>& slot =
            ownAlignment == Qt::AlignLeft ? m_left : (ownAlignment == Qt::AlignRight ? m_right : m_center);
        slot.append({parts.first(), ownAlignment});
        return;
    }
    for (int i = 0; i < parts.size(); ++i)
    {
        if (i == 0)
            m_left.append({parts.at(i), Qt::AlignLeft});
        else if (i == parts.size() - 1)
            m_right.append({parts.at(i), Qt::AlignRight});
        else
            m_center.append({parts.at(i), Qt::AlignHCenter});
    }
}

QVector<CPageBand::SPlacedText> CPageBand::placeTexts(int page, int pageCount, qreal top) const
{
    const QFontMetricsF metrics(m_font, m_device);
    const qreal gap = metrics.averageCharWidth() * 3;
    const qreal lineHeight = metrics.height();
    const int rows = qMax(m_left.size(), qMax(m_center.size(), m_right.size()));
    const auto textAt = [&](const QVector<SText>& slot, int row)
    { return row < slot.size() ? withPageNumbers(slot.at(row).text, page, pageCount) : QString(); };

    // Side by side when no row's parts would touch; otherwise one under the
    // other, each wrapped to the width.
    bool sideBySide = true;
    for (int row = 0; row < rows && sideBySide; ++row)
    {
        const qreal left = metrics.horizontalAdvance(textAt(m_left, row));
        const qreal center = metrics.horizontalAdvance(textAt(m_center, row));
        const qreal right = metrics.horizontalAdvance(textAt(m_right, row));
        if (center > 0)
            sideBySide = qMax(left, right) + gap <= (m_width - center) / 2;
        else
            sideBySide = left + right + (left > 0 && right > 0 ? gap : 0) <= m_width;
    }

    QVector<SPlacedText> placed;
    if (sideBySide)
    {
        for (int row = 0; row < rows; ++row)
        {
            const QRectF rect(0, top + row * lineHeight, m_width, lineHeight);
            for (const QVector<SText>* slot : {&m_left, &m_center, &m_right})
                if (row < slot->size())
                    placed.append({rect, static_cast<int>(slot->at(row).alignment | Qt::AlignVCenter),
                                   textAt(*slot, row)});
        }
        return placed;
    }
    qreal y = top;
    for (const QVector<SText>* slot : {&m_left, &m_center, &m_right})
        for (int row = 0; row < slot->size(); ++row)
        {
            const int flags = static_cast<int>(slot->at(row).alignment | Qt::AlignTop) | Qt::TextWordWrap;
            const QString text = textAt(*slot, row);
            const qreal height = metrics.boundingRect(QRectF(0, 0, m_width, 1e6), flags, text).height();
            placed.append({QRectF(0, y, m_width, height), flags, text});
            y += height;
        }
    return placed;
}

qreal CPageBand::htmlHeight(int page, int pageCount, QStringList* refused) const
{
    if (m_html.trimmed().isEmpty())
        return 0;
    CReportDocument document(m_device);
    QFont font = document.defaultFont();
    font.setPointSizeF(BandPointSize);
    document.setDefaultFont(font);
    document.setSource(withPageNumbers(m_html, page, pageCount), m_baseFolder);
    document.layOut(m_width);
    if (refused)
        *refused = document.refusedResources();
    return document.size().height();
}

void CPageBand::paint(QPainter* painter, const QPointF& topLeft, int page, int pageCount) const
{
    if (isEmpty())
        return;
    painter->save();
    painter->translate(topLeft);
    painter->setClipRect(QRectF(0, 0, m_width, m_height));
    qreal textTop = 0;
    if (!m_html.trimmed().isEmpty())
    {
        CReportDocument document(m_device);
        QFont font = document.defaultFont();
        font.setPointSizeF(BandPointSize);
        document.setDefaultFont(font);
        document.setSource(withPageNumbers(m_html, page, pageCount), m_baseFolder);
        document.layOut(m_width);
        QAbstractTextDocumentLayout::PaintContext context;
        context.palette.setColor(QPalette::Text, BandColor); // the HTML's own colours win
        document.documentLayout()->draw(painter, context);
        textTop = document.size().height();
    }
    painter->setFont(m_font);
    painter->setPen(BandColor);
    const QVector<SPlacedText> placed = placeTexts(page, pageCount, textTop);
    for (const SPlacedText& text : placed)
        painter->drawText(text.rect, text.flags, text.text);
    painter->restore();
}

} // namespace htmltopdf
