#include "gallerydelegate.h"

#include "galleryfiltermodel.h"
#include "imagemodel.h"
#include "resources.h"
#include "resultclass.h"

#include "qutils/quorvexapi.h"

#include <QCoreApplication>
#include <QHash>
#include <QPainter>
#include <QPixmap>
#include <QTextDocumentFragment>
#include <QtMath>

#include <cmath>

using qutils::CQuorvexAPI;

namespace
{
constexpr int FrameWidth = 3;

QString translated(const char* text)
{
    return QCoreApplication::translate("CGalleryDelegate", text);
}

QColor constantColour(const char* name, const QColor& fallback)
{
    const QColor colour(quorvex::styleConstant(QString::fromLatin1(name)));
    return colour.isValid() ? colour : fallback;
}

// Black or white, whichever reads better on the fill (relative luminance).
QColor textOn(const QColor& fill)
{
    const auto linear = [](qreal c) { return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4); };
    const qreal luminance =
        0.2126 * linear(fill.redF()) + 0.7152 * linear(fill.greenF()) + 0.0722 * linear(fill.blueF());
    return (luminance + 0.05) / 0.05 >= 1.05 / (luminance + 0.05) ? QColor(Qt::black) : QColor(Qt::white);
}

QString pceText(const CQuorvexAPI::SAnalysisResult& result)
{
    if (!std::isfinite(result.pce))
        return QString();
    const QString pce = translated("PCE %1").arg(result.pce, 0, 'f', 1);
    const QString scale = scaleText(result);
    return scale.isEmpty() ? pce : translated("%1, scale %2").arg(pce, scale);
}
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
                 m_tileSize.height() - 2 * (TileMargin + FrameWidth) - NameHeight - VerdictHeight);
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
    static const QHash<int, QColor> colours = []
    {
        QHash<int, QColor> result{
            {CImageModel::SuccessVeryHigh, QColor(0x00, 0x9e, 0x73)},
            {CImageModel::SuccessHigh, QColor(0x56, 0xb4, 0xe9)},
            {CImageModel::SuccessMedium, QColor(0xf0, 0xe4, 0x42)},
            {CImageModel::SuccessLow, QColor(0xe6, 0x9f, 0x00)},
            {CImageModel::Fail, QColor(0xcc, 0x79, 0xa7)},
            {CImageModel::Idle, QColor(0x30, 0x35, 0x3c)},
            {CImageModel::NotCompared, QColor(0xbb, 0xbb, 0xbb)},
        };
        const QHash<int, QString> names{
            {CImageModel::SuccessVeryHigh, QStringLiteral("COLOR_RESULT_VERY_HIGH")},
            {CImageModel::SuccessHigh, QStringLiteral("COLOR_RESULT_HIGH")},
            {CImageModel::SuccessMedium, QStringLiteral("COLOR_RESULT_MEDIUM")},
            {CImageModel::SuccessLow, QStringLiteral("COLOR_RESULT_LOW")},
            {CImageModel::Fail, QStringLiteral("COLOR_RESULT_FAIL")},
            {CImageModel::Idle, QStringLiteral("COLOR_TILE")},
            {CImageModel::NotCompared, QStringLiteral("COLOR_RESULT_NOT_COMPARED")},
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

    // The plain tile with a frame in the class colour, as the style sheet
    // draws the live tile; the band under the name says the verdict in words.
    const SVerdict tileVerdict = verdict(index);
    QColor background = stateColor(CImageModel::Idle);
    QColor border = tileVerdict.look == ELook::Error ? lookColor(ELook::Error) : stateColor(state);
    // Not compared is neither a match nor an exclusion: a dashed frame.
    const bool notCompared = tileVerdict.look == ELook::NotCompared;
    if (hovered || selected)
        background = background.lighter(115);
    painter->setPen(QPen(border, FrameWidth, notCompared ? Qt::DashLine : Qt::SolidLine));
    painter->setBrush(background);
    painter->drawRoundedRect(tile, 6, 6);
    // The selection is a line inside the frame, so the class colour stays.
    if (selected)
    {
        painter->setPen(QPen(option.palette.color(QPalette::Text), 1.5));
        painter->setBrush(Qt::NoBrush);
        painter->drawRoundedRect(QRectF(tile).adjusted(FrameWidth, FrameWidth, -FrameWidth, -FrameWidth), 4, 4);
    }

    const QRect picture(tile.left() + FrameWidth, tile.top() + FrameWidth, tile.width() - 2 * FrameWidth,
                        tile.height() - 2 * FrameWidth - NameHeight - VerdictHeight);
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
    // The end of a name tells photos apart (camera model, unit, number).
    const QString name = option.fontMetrics.elidedText(index.data(CImageModel::FileNameRole).toString(),
                                                       Qt::ElideLeft, nameRect.width());
    painter->drawText(nameRect, Qt::AlignCenter, name);
    paintVerdict(painter, QRect(nameRect.left(), nameRect.bottom() + 1, nameRect.width(), VerdictHeight - 2),
                 tileVerdict, option.font);

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

CGalleryDelegate::SVerdict CGalleryDelegate::verdict(const QModelIndex& index)
{
    return verdict(CGalleryFilterModel::stateValue(index.data(CImageModel::ItemStateRole)),
                   index.data(CImageModel::ResultRole), index.data(CImageModel::DescriptionRole).toString());
}

CGalleryDelegate::SVerdict CGalleryDelegate::verdict(int state, const QVariant& result,
                                                     const QString& description)
{
    SVerdict v;
    const bool hasResult = result.isValid() && result.canConvert<CQuorvexAPI::SAnalysisResult>();
    const CQuorvexAPI::SAnalysisResult r =
        hasResult ? result.value<CQuorvexAPI::SAnalysisResult>() : CQuorvexAPI::SAnalysisResult();
    switch (state)
    {
    case CImageModel::Waiting:
        return {ELook::Waiting, QStringLiteral("\u2026"), tr("Waiting"), QString()};
    case CImageModel::Processing:
        return {ELook::Processing, QStringLiteral("\u2026"), tr("Analyzing"), QString()};
    case CImageModel::SuccessVeryHigh:
    case CImageModel::SuccessHigh:
    case CImageModel::SuccessMedium:
    case CImageModel::SuccessLow:
        break;
    case CImageModel::Fail:
    case CImageModel::NotCompared:
        if (state == CImageModel::NotCompared || (hasResult && isNotCompared(r)))
            return {ELook::NotCompared, QStringLiteral("?"), notComparedTitle(r), r.reason};
        if (hasResult && r.status != CQuorvexAPI::Success)
            return {ELook::Error, QStringLiteral("!"), CQuorvexAPI::statusText(r.status), r.reason};
        if (!hasResult && !description.isEmpty())
        {
            // A refusal known only by its message (a reference photo on the learn screen).
            const QStringList lines = QTextDocumentFragment::fromHtml(description)
                                          .toPlainText()
                                          .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
            return {ELook::Error, QStringLiteral("!"), lines.value(0), lines.mid(1).join(QLatin1Char(' '))};
        }
        return {ELook::NotFound, tr("X", "badge of a photo that does not match"), tr("No match"),
                hasResult ? pceText(r) : QString()};
    default:
        return v;
    }
    // A reference photo of a new fingerprint carries no comparison.
    if (!hasResult || r.status != CQuorvexAPI::Success || !r.matched)
        return {ELook::Learned, QStringLiteral("\u2713"), tr("Used for the fingerprint"), QString()};
    static const QHash<int, QPair<ELook, EResultClass>> classes{
        {CImageModel::SuccessVeryHigh, {ELook::VeryHigh, EResultClass::VeryHigh}},
        {CImageModel::SuccessHigh, {ELook::High, EResultClass::High}},
        {CImageModel::SuccessMedium, {ELook::Medium, EResultClass::Medium}},
        {CImageModel::SuccessLow, {ELook::Low, EResultClass::Low}},
    };
    const auto cls = classes.value(state);
    const char* badges[] = {
        QT_TRANSLATE_NOOP("CGalleryDelegate", "V"), QT_TRANSLATE_NOOP("CGalleryDelegate", "H"),
        QT_TRANSLATE_NOOP("CGalleryDelegate", "M"), QT_TRANSLATE_NOOP("CGalleryDelegate", "L")};
    v.look = cls.first;
    v.badge = tr(badges[static_cast<int>(cls.second)]);
    v.text =
        QCoreApplication::translate("CAnalyzeDlg", "Match: %1 probability").arg(resultClassName(cls.second));
    v.detail = pceText(r);
    return v;
}

QColor CGalleryDelegate::lookColor(ELook look)
{
    switch (look)
    {
    case ELook::VeryHigh:
    case ELook::Learned:
        return stateColor(CImageModel::SuccessVeryHigh);
    case ELook::High:
        return stateColor(CImageModel::SuccessHigh);
    case ELook::Medium:
        return stateColor(CImageModel::SuccessMedium);
    case ELook::Low:
        return stateColor(CImageModel::SuccessLow);
    case ELook::NotFound:
        return stateColor(CImageModel::Fail);
    case ELook::NotCompared:
        return stateColor(CImageModel::NotCompared);
    case ELook::Error:
    {
        static const QColor error = constantColour("COLOR_RESULT_ERROR", QColor(0xd5, 0x5e, 0x00));
        return error;
    }
    default:
        return stateColor(CImageModel::Idle);
    }
}

void CGalleryDelegate::paintVerdict(QPainter* painter, const QRect& rect, const SVerdict& verdict,
                                    const QFont& font)
{
    if (verdict.look == ELook::Plain || rect.isEmpty())
        return;
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing, true);
    // Waiting and analysing are not verdicts: outlined, never filled.
    const bool filled = verdict.look != ELook::Waiting && verdict.look != ELook::Processing;
    static const QColor dim = constantColour("COLOR_TEXT_DIM", QColor(0xa4, 0xac, 0xb5));
    const QColor fill = lookColor(verdict.look);
    const QColor ink = filled ? textOn(fill) : dim;
    if (filled)
    {
        painter->setPen(Qt::NoPen);
        painter->setBrush(fill);
        painter->drawRoundedRect(rect, 3, 3);
    }

    // The badge: a letter in a ring, so the class never rests on colour alone.
    const int diameter = qMin(rect.height() - 6, 20);
    const QRectF badge(rect.left() + 4, rect.center().y() - diameter / 2.0 + 0.5, diameter, diameter);
    QFont small = font;
    if (small.pointSizeF() > 0)
        small.setPointSizeF(small.pointSizeF() * 0.9);
    else if (small.pixelSize() > 0)
        small.setPixelSize(qMax(8, qRound(small.pixelSize() * 0.9)));
    QFont bold = small;
    bold.setBold(true);
    painter->setPen(QPen(ink, 1.5));
    painter->setBrush(Qt::NoBrush);
    painter->drawEllipse(badge);
    painter->setFont(bold);
    painter->drawText(badge, Qt::AlignCenter, verdict.badge);

    // The verdict wraps onto a second line rather than losing its class word;
    // the detail line (PCE or reason) is elided.
    const QRect text = rect.adjusted(diameter + 8, 1, -3, -1);
    const int lineHeight = QFontMetrics(bold).height();
    const QRect detail(text.left(), text.bottom() - lineHeight + 1, text.width(), lineHeight);
    const QRect main = verdict.detail.isEmpty() ? text : text.adjusted(0, 0, 0, -lineHeight);
    painter->save();
    painter->setClipRect(main);
    painter->drawText(main, Qt::AlignLeft | Qt::AlignVCenter | Qt::TextWordWrap, verdict.text);
    painter->restore();
    if (!verdict.detail.isEmpty())
    {
        painter->setFont(small);
        painter->drawText(detail, Qt::AlignLeft | Qt::AlignVCenter,
                          QFontMetrics(small).elidedText(verdict.detail, Qt::ElideRight, detail.width()));
    }
    painter->restore();
}
