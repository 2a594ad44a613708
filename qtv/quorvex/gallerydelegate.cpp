#include "gallerydelegate.h"

#include "galleryfiltermodel.h"
#include "imagemodel.h"
#include "resources.h"


#include <QHash>
#include <QPainter>
#include <QPixmap>
#include <QtMath>

namespace
{
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
    case CImageModel::NotCompared:
        return QStringLiteral("not_compared");
    default:
        return QStringLiteral("normal");
    }
}

QColor CGalleryDelegate::stateColor(int state)
{
    static const QHash<int, QColor> colours = [] {
        QHash<int, QColor> result{
            {CImageModel::SuccessVeryHigh, QColor(0x2e, 0x9e, 0x5b)}, {CImageModel::SuccessHigh, QColor(0x5a, 0xa8, 0x3c)},
            {CImageModel::SuccessMedium, QColor(0xb5, 0x9a, 0x2a)},  {CImageModel::SuccessLow, QColor(0xc2, 0x70, 0x2b)},
            {CImageModel::Fail, QColor(0x4a, 0x4f, 0x57)},           {CImageModel::Idle, QColor(0x30, 0x35, 0x3c)},
        };
        const QHash<int, QString> names{
            {CImageModel::SuccessVeryHigh, QStringLiteral("COLOR_RESULT_VERY_HIGH")},
            {CImageModel::SuccessHigh, QStringLiteral("COLOR_RESULT_HIGH")},
            {CImageModel::SuccessMedium, QStringLiteral("COLOR_RESULT_MEDIUM")},
            {CImageModel::SuccessLow, QStringLiteral("COLOR_RESULT_LOW")},
            {CImageModel::Fail, QStringLiteral("COLOR_RESULT_FAIL")},
            {CImageModel::Idle, QStringLiteral("COLOR_TILE")},
        };
        for (auto it = names.cbegin(); it != names.cend(); ++it)
        {
            const QColor colour(quorvex::styleConstant(it.value()));
            if (colour.isValid())
                result.insert(it.key(), colour);
        }
        return result;
    }();
    return colours.value(state, colours.value(CImageModel::Idle));
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

    // Filled like the style sheet fills a live tile: the class colour, or the
    // plain tile colour while nothing is known.
    QColor background = stateColor(state);
    QColor border = background;
    // Not compared is neither a class colour nor a plain tile: a dashed frame.
    const bool notCompared = state == CImageModel::NotCompared;
    if (notCompared)
        border = stateColor(CImageModel::Fail).lighter(160);
    if (selected)
        border = option.palette.color(QPalette::Highlight);
    else if (hovered)
        background = background.lighter(115);
    painter->setPen(QPen(border, FrameWidth, notCompared ? Qt::DashLine : Qt::SolidLine));
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
        paintLoading(painter, picture, m_frame);
    }
    painter->restore();
}

void CGalleryDelegate::paintLoading(QPainter* painter, const QRect& rect, int frame)
{
    // Eight dots on a circle; the current frame's dot is the brightest and
    // the ones behind it fade, which reads as rotation.
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing, true);
    const QPointF centre = QRectF(rect).center();
    const qreal radius = qMin(rect.width(), rect.height()) / 6.0;
    const qreal dot = qMax<qreal>(2.0, radius / 4.0);
    painter->setPen(Qt::NoPen);
    for (int i = 0; i < LoadingFrames; ++i)
    {
        const int age = (frame - i + LoadingFrames) % LoadingFrames;
        QColor colour(Qt::white);
        colour.setAlphaF(1.0 - age / qreal(LoadingFrames));
        painter->setBrush(colour);
        const qreal angle = 2.0 * M_PI * i / LoadingFrames;
        painter->drawEllipse(centre + QPointF(radius * qCos(angle), radius * qSin(angle)), dot, dot);
    }
    painter->restore();
}
