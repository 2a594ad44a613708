#include "gallerydelegate.h"

#include "galleryfiltermodel.h"
#include "imagemodel.h"

#include <QPainter>
#include <QPixmap>
#include <QtMath>

namespace
{
constexpr int TileMargin = 4;
constexpr int NameHeight = 22;
constexpr int FrameWidth = 3;
} // namespace

CGalleryDelegate::CGalleryDelegate(QObject* parent)
    : QStyledItemDelegate(parent)
{
}

QSize CGalleryDelegate::sizeHint(const QStyleOptionViewItem&, const QModelIndex&) const
{
    return m_tileSize;
}

QSize CGalleryDelegate::thumbnailSize() const
{
    return QSize(m_tileSize.width() - 2 * (TileMargin + FrameWidth),
                 m_tileSize.height() - 2 * (TileMargin + FrameWidth) - NameHeight);
}

bool CGalleryDelegate::takePaintedProcessing()
{
    const bool painted = m_paintedProcessing;
    m_paintedProcessing = false;
    return painted;
}

QString CGalleryDelegate::stateStyle(int state)
{
    switch (state)
    {
    case CImageModel::SuccessVeryHigh:
        return QStringLiteral("success_very_high");
    case CImageModel::SuccessHigh:
        return QStringLiteral("success_high");
    case CImageModel::SuccessMedium:
        return QStringLiteral("success_medium");
    case CImageModel::SuccessLow:
        return QStringLiteral("success_low");
    case CImageModel::Fail:
        return QStringLiteral("fail");
    default:
        return QStringLiteral("normal");
    }
}

QColor CGalleryDelegate::stateColor(int state)
{
    // The same hues as the style sheet's result classes.
    switch (state)
    {
    case CImageModel::SuccessVeryHigh:
        return QColor(0x2e, 0x7d, 0x32);
    case CImageModel::SuccessHigh:
        return QColor(0x66, 0xbb, 0x6a);
    case CImageModel::SuccessMedium:
        return QColor(0xf9, 0xa8, 0x25);
    case CImageModel::SuccessLow:
        return QColor(0xef, 0x6c, 0x00);
    case CImageModel::Fail:
        return QColor(0x9e, 0x9e, 0x9e);
    default:
        return QColor(0x60, 0x60, 0x60);
    }
}

void CGalleryDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const
{
    const int state = CGalleryFilterModel::stateValue(index.data(CImageModel::ItemStateRole));
    const QRect tile = option.rect.adjusted(TileMargin, TileMargin, -TileMargin, -TileMargin);
    const bool selected = option.state & QStyle::State_Selected;
    const bool hovered = option.state & QStyle::State_MouseOver;

    painter->save();
    painter->setRenderHint(QPainter::Antialiasing, true);

    QColor background = option.palette.color(QPalette::Base);
    if (selected)
        background = option.palette.color(QPalette::Highlight);
    else if (hovered)
        background = background.lighter(115);
    painter->setPen(QPen(stateColor(state), FrameWidth));
    painter->setBrush(background);
    painter->drawRoundedRect(tile, 6, 6);

    const QRect picture(tile.left() + FrameWidth, tile.top() + FrameWidth,
                        tile.width() - 2 * FrameWidth, tile.height() - 2 * FrameWidth - NameHeight);
    const QPixmap pixmap = index.data(CImageModel::ImageRole).value<QPixmap>();
    if (!pixmap.isNull())
    {
        // Thumbnails arrive at the picture size already; only an odd one is scaled here.
        QSize size = pixmap.size();
        if (size.width() > picture.width() || size.height() > picture.height())
            size.scale(picture.size(), Qt::KeepAspectRatio);
        QRect target(QPoint(0, 0), size);
        target.moveCenter(picture.center());
        painter->drawPixmap(target, pixmap);
    }

    const QRect nameRect(tile.left() + FrameWidth + 2, picture.bottom() + 1,
                         tile.width() - 2 * FrameWidth - 4, NameHeight);
    painter->setPen(option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
    const QString name = option.fontMetrics.elidedText(
        index.data(CImageModel::FileNameRole).toString(), Qt::ElideMiddle, nameRect.width());
    painter->drawText(nameRect, Qt::AlignCenter, name);

    if (state == CImageModel::Processing)
    {
        m_paintedProcessing = true;
        paintLoading(painter, picture);
    }
    painter->restore();
}

void CGalleryDelegate::paintLoading(QPainter* painter, const QRect& rect) const
{
    // Eight dots on a circle; the current frame's dot is the brightest and
    // the ones behind it fade, which reads as rotation.
    const QPointF centre = rect.center();
    const qreal radius = qMin(rect.width(), rect.height()) / 6.0;
    const qreal dot = qMax<qreal>(2.0, radius / 4.0);
    painter->setPen(Qt::NoPen);
    for (int i = 0; i < LoadingFrames; ++i)
    {
        const int age = (m_frame - i + LoadingFrames) % LoadingFrames;
        QColor colour(Qt::white);
        colour.setAlphaF(1.0 - age / qreal(LoadingFrames));
        painter->setBrush(colour);
        const qreal angle = 2.0 * M_PI * i / LoadingFrames;
        painter->drawEllipse(centre + QPointF(radius * qCos(angle), radius * qSin(angle)), dot, dot);
    }
}
