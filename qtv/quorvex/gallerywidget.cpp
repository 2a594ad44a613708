#include "gallerywidget.h"

#include "gallerydelegate.h"
#include "galleryfiltermodel.h"
#include "galleryitem.h"
#include "imagemodel.h"
#include "resultclass.h"

#include "lumicrest_calibration.h"

#include "qcontrols/messageboxfactory.h"
#include "qutils/debugutils.h"
#include "qutils/fileutils.h"
#include "qutils/platform.h"
#include "qutils/quorvexapi.h"

#include <QDateTime>
#include <QDesktopServices>
#include <QParallelAnimationGroup>
#include <QProcess>
#include <QUrl>
#include <QDir>
#include <QFileInfo>
#include <QFrame>
#include <QIcon>
#include <QImageReader>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLocale>
#include <QResizeEvent>
#include <QScrollBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace
{
constexpr int FrameIntervalMs = 100;
constexpr int PreviewWidth = 320;

CGalleryWidget::UrlOpener& urlOpener()
{
    static CGalleryWidget::UrlOpener opener = [](const QUrl& url) { return QDesktopServices::openUrl(url); };
    return opener;
}
} // namespace

CGalleryWidget::CGalleryWidget(QWidget* parent)
    : QListView(parent)
    , m_imageModel(new CImageModel(this))
    , m_filterModel(new CGalleryFilterModel(this))
    , m_delegate(new CGalleryDelegate(this))
{
    setViewMode(QListView::IconMode);
    setFlow(QListView::LeftToRight);
    setWrapping(true);
    setUniformItemSizes(true);
    setResizeMode(QListView::Adjust);
    setMovement(QListView::Static);
    setMouseTracking(true);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setSpacing(3);
    setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setSelectionMode(QAbstractItemView::SingleSelection);

    m_imageModel->setThumbnailSize(m_delegate->thumbnailSize());
    m_filterModel->setSourceModel(m_imageModel);
    setItemDelegate(m_delegate);
    setModel(m_filterModel);

    // Thumbnails are reported from the model's thread; the connection is
    // queued explicitly so a report never repaints from the wrong thread.
    connect(m_imageModel, &QAbstractItemModel::dataChanged, this, &CGalleryWidget::onDataChanged,
            Qt::QueuedConnection);
    connect(selectionModel(), &QItemSelectionModel::currentChanged, this,
            [this](const QModelIndex& current, const QModelIndex&) { onCurrentChanged(current); });

    // The one live tile, moved to whichever tile the pointer enters.
    m_item = new CGalleryItem(viewport());
    m_item->hide();
    connect(this, &QAbstractItemView::entered, this, &CGalleryWidget::onItemEntered);
    connect(m_item, &CGalleryItem::mouseLeft, this, &CGalleryWidget::onItemLeft);
    connect(m_item, &CGalleryItem::pressed, this, [this](const QModelIndex& index) {
        if (index.isValid())
            setCurrentIndex(index);
    });
    // A double click opens what there is to know: the details once the photo
    // has a result, the preview before.
    connect(m_item, &CGalleryItem::doubleClicked, this, [this](const QString& filePath) {
        if (m_item->index().data(CImageModel::ResultRole).isValid())
            showDetailResult(m_item->index());
        else
            onPreviewShow(filePath);
    });
    connect(m_item, &CGalleryItem::repaintRequest, viewport(), QOverload<>::of(&QWidget::update));
    connect(m_item, &CGalleryItem::openFolderClicked, this, [this] { openFolder(m_item->filePath()); });
    connect(m_item, &CGalleryItem::showExternalViewerClicked, this,
            [this] { openInExternalViewer(m_item->filePath()); });
    connect(m_item, &CGalleryItem::showDetailResultClicked, this, [this] { showDetailResult(m_item->index()); });
    // Collapsed and left: the painted tile beneath takes over again.
    connect(m_item->findChild<QParallelAnimationGroup*>(), &QAbstractAnimation::finished, this, [this] {
        if (!m_item->underMouse() && m_item->actionsPanel()->maximumHeight() == 0)
            hideHoverItem();
    });
    // Any change of layout or position leaves the tile over the wrong photo.
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this, &CGalleryWidget::hideHoverItem);
    connect(m_filterModel, &QAbstractItemModel::modelReset, this, &CGalleryWidget::hideHoverItem);
    connect(m_filterModel, &QAbstractItemModel::layoutChanged, this, &CGalleryWidget::hideHoverItem);
    connect(m_filterModel, &QAbstractItemModel::rowsRemoved, this, &CGalleryWidget::hideHoverItem);
    connect(m_filterModel, &QAbstractItemModel::rowsInserted, this, &CGalleryWidget::hideHoverItem);

    m_preview = new QFrame(this);
    m_preview->setObjectName(QStringLiteral("previewWidget"));
    m_preview->setAutoFillBackground(true);
    auto* layout = new QVBoxLayout(m_preview);
    auto* close = new QToolButton(m_preview);
    close->setObjectName(QStringLiteral("previewClose"));
    close->setIcon(QIcon(QStringLiteral(":/Quorvex/close-icon.png")));
    close->setAutoRaise(true);
    connect(close, &QToolButton::clicked, this, &CGalleryWidget::hidePreview);
    layout->addWidget(close, 0, Qt::AlignRight);
    m_previewImage = new QLabel(m_preview);
    m_previewImage->setObjectName(QStringLiteral("previewImage"));
    m_previewImage->setAlignment(Qt::AlignCenter);
    layout->addWidget(m_previewImage, 1);
    m_pathLabel = new QLabel(m_preview);
    m_pathLabel->setObjectName(QStringLiteral("previewPath"));
    m_pathLabel->setWordWrap(true);
    m_pathLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_sizeLabel = new QLabel(m_preview);
    m_sizeLabel->setObjectName(QStringLiteral("previewSize"));
    m_dateLabel = new QLabel(m_preview);
    m_dateLabel->setObjectName(QStringLiteral("previewDate"));
    m_dateLabel->setWordWrap(true);
    m_verdictLabel = new QLabel(m_preview);
    m_verdictLabel->setObjectName(QStringLiteral("previewVerdict"));
    m_verdictLabel->setWordWrap(true);
    layout->addWidget(m_verdictLabel);
    layout->addWidget(m_pathLabel);
    layout->addWidget(m_sizeLabel);
    layout->addWidget(m_dateLabel);
    m_preview->hide();

    // One timer for every processing tile; a tick costs a repaint only while
    // such a tile is on screen.
    m_frameTimer.setInterval(FrameIntervalMs);
    connect(&m_frameTimer, &QTimer::timeout, this, &CGalleryWidget::onAnimationTick);
    m_frameTimer.start();
}

CGalleryWidget::~CGalleryWidget()
{
    m_frameTimer.stop();
    // The thumbnail thread must end before the views and models it reports to.
    m_imageModel->stopThread();
}

void CGalleryWidget::setFilterMask(int mask)
{
    m_filterModel->setFilterMask(mask);
}

void CGalleryWidget::setFiles(QFileInfoList value)
{
    hidePreview();
    m_imageModel->setFiles(value);
}

void CGalleryWidget::onDataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight,
                                   const QVector<int>&)
{
    // The proxy already follows the source; this repaints just the changed
    // tiles, which matters while thumbnails stream in.
    if (!topLeft.isValid() || !bottomRight.isValid() || topLeft.model() != m_imageModel)
        return;
    for (int row = topLeft.row(); row <= bottomRight.row(); ++row)
    {
        const QModelIndex index = m_filterModel->mapFromSource(m_imageModel->index(row));
        if (!index.isValid())
            continue;
        update(index);
        if (m_item->isVisible() && QModelIndex(m_item->index()) == index)
            m_item->setIndex(index, visualRect(index));
    }
}

void CGalleryWidget::onItemEntered(const QModelIndex& index)
{
    if (!index.isValid())
        return;
    m_item->setIndex(index, visualRect(index));
    m_item->show();
    m_item->raise();
    // The pointer is already over the tile, so no enter event will come.
    m_item->expand();
}

void CGalleryWidget::onItemLeft(const QModelIndex& index)
{
    if (index.isValid())
        update(index);
}

void CGalleryWidget::hideHoverItem()
{
    if (m_item->isVisible())
    {
        m_item->hide();
        viewport()->update();
    }
}

void CGalleryWidget::leaveEvent(QEvent* event)
{
    QListView::leaveEvent(event);
    viewport()->update();
}

void CGalleryWidget::setUrlOpener(const UrlOpener& opener)
{
    urlOpener() = opener ? opener : [](const QUrl& url) { return QDesktopServices::openUrl(url); };
}

void CGalleryWidget::openFolder(const QString& path)
{
    if (path.isEmpty())
        return;
    if (qutils::platform::showFileInFolder(path))
        return;
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(path).absolutePath());
    if (!urlOpener()(folder))
        QX_WARNING << "The file manager could not be started for " << folder.toString();
}

void CGalleryWidget::openInExternalViewer(const QString& path)
{
    if (path.isEmpty())
        return;
    const QUrl url = QUrl::fromLocalFile(path);
    if (!urlOpener()(url))
        QX_WARNING << "No image viewer could be started for " << url.toString();
}

QString CGalleryWidget::pceThresholdText(double pce)
{
    const double threshold = LUMICREST_MATCH_THRESHOLD_PCE;
    if (pce >= threshold)
        return tr("PCE %1, at or above the threshold of %2").arg(pce, 0, 'f', 1).arg(threshold);
    return tr("PCE %1, below the threshold of %2").arg(pce, 0, 'f', 1).arg(threshold);
}

QString CGalleryWidget::detailResultText(const QString& path, const QVariant& result, int state)
{
    using qutils::CQuorvexAPI;
    QString verdict = tr("no match");
    QString numbers;
    if (result.canConvert<CQuorvexAPI::SAnalysisResult>())
    {
        const auto analysis = result.value<CQuorvexAPI::SAnalysisResult>();
        const bool compared = analysis.status == CQuorvexAPI::Success;
        // A photo without a comparison has no numbers to show: it says why instead.
        if (isNotCompared(analysis))
            verdict = notComparedText(analysis).toHtmlEscaped();
        else if (state == CImageModel::SuccessVeryHigh && !(compared && analysis.matched))
        {
            // A reference photo of a new fingerprint: used, never compared.
            verdict = tr("used for the fingerprint");
        }
        else if (!compared)
        {
            verdict = tr("not compared: %1").arg(CQuorvexAPI::statusText(analysis.status).toHtmlEscaped());
            if (!analysis.reason.isEmpty())
                numbers = tr("<br/>Reason: %1").arg(analysis.reason.toHtmlEscaped());
        }
        else
        {
            // Any match, of low probability too, is a match: only the engine's
            // decision says "no match".
            if (analysis.matched)
                verdict = tr("match with %1 probability").arg(resultClassName(classifyResult(analysis)));
            numbers = tr("<br/>Probability: %1%<br/>Correlation: %2")
                          .arg(analysis.probability * 100.0, 0, 'f', 2)
                          .arg(analysis.correlation, 0, 'f', 4);
            if (std::isfinite(analysis.pce))
                numbers += QStringLiteral("<br/>") + pceThresholdText(analysis.pce);
            numbers += tr("<br/>Status: %1").arg(CQuorvexAPI::statusText(analysis.status).toHtmlEscaped());
            const QString scale = scaleText(analysis);
            numbers += tr("<br/>Scale: %1, orientation: %2\u00b0, shift: %3, %4")
                           .arg(scale.isEmpty() ? QStringLiteral("1.00") : scale)
                           .arg(analysis.orientation)
                           .arg(analysis.shiftX)
                           .arg(analysis.shiftY);
        }
    }
    return tr("Path: %1<br/><br/>Result: %2%3").arg(QDir::toNativeSeparators(path).toHtmlEscaped(), verdict, numbers);
}

void CGalleryWidget::showDetailResult(const QModelIndex& index)
{
    if (!index.isValid())
        return;
    qcontrols::CMessageBoxFactory::information(
        this, tr("Analysis results"),
        detailResultText(index.data(CImageModel::PathRole).toString(), index.data(CImageModel::ResultRole),
                         CGalleryFilterModel::stateValue(index.data(CImageModel::ItemStateRole))));
}

QString CGalleryWidget::pathText(const QString& path)
{
    return tr("Path: %1").arg(QDir::toNativeSeparators(path));
}

QString CGalleryWidget::sizeText(qint64 bytes)
{
    return tr("Size: %1 MB").arg(static_cast<double>(bytes) * 0.000001, 0, 'f', 2);
}

QString CGalleryWidget::dateText(const QString& path)
{
    // The capture date the camera wrote, when there is one: the file's own
    // date is only when it was copied.
    qutils::EXIFInfo::Properties exif;
    if (qutils::EXIFInfo::read(path, exif))
    {
        const QDateTime taken = exif.value(qutils::EXIFMetadataProperty::DateTimeOriginal).toDateTime();
        if (taken.isValid())
            return tr("Date: %1").arg(QLocale::system().toString(taken, QLocale::ShortFormat));
    }
    const QFileInfo info(path);
    // Not every file system records a creation time; the last change is the
    // nearest honest stand-in.
    QDateTime created = info.birthTime();
    if (!created.isValid())
        created = info.lastModified();
    return tr("Date: %1 (of the file; the photo records none)")
        .arg(QLocale::system().toString(created.date(), QLocale::ShortFormat));
}

void CGalleryWidget::onPreviewShow(const QString& filePath)
{
    const QFileInfo info(filePath);
    m_pathLabel->setText(pathText(info.absoluteFilePath()));
    m_sizeLabel->setText(sizeText(info.size()));
    m_dateLabel->setText(dateText(filePath));
    QString verdict;
    for (int row = 0; row < m_imageModel->rowCount(); ++row)
    {
        const QModelIndex index = m_imageModel->index(row);
        if (index.data(CImageModel::PathRole).toString() != filePath)
            continue;
        const CGalleryDelegate::SVerdict v = CGalleryDelegate::verdict(index);
        verdict = v.detail.isEmpty() ? v.text : tr("%1 (%2)").arg(v.text, v.detail);
        break;
    }
    m_verdictLabel->setText(verdict);
    m_verdictLabel->setVisible(!verdict.isEmpty());

    // Decoded at the preview's size, never at the photo's full size.
    QFile file;
    qutils::platform::openRegularFile(filePath, file); // a pipe would block the window
    QImageReader reader(&file);
    reader.setAutoTransform(true);
    const QSize box(PreviewWidth - 24, PreviewWidth - 24);
    QSize size = reader.size();
    if (size.isValid())
    {
        size.scale(box, Qt::KeepAspectRatio);
        reader.setScaledSize(size);
    }
    m_previewImage->setPixmap(QPixmap::fromImage(reader.read()));

    // The grid gives the preview its room instead of lying under it.
    setViewportMargins(0, 0, PreviewWidth, 0);
    m_preview->show();
    placePreview();
    m_preview->raise();
}

void CGalleryWidget::onCurrentChanged(const QModelIndex& current)
{
    if (!current.isValid())
        return;
    onPreviewShow(current.data(CImageModel::PathRole).toString());
}

void CGalleryWidget::onAnimationTick()
{
    if (!m_delegate->takePaintedProcessing())
        return;
    m_delegate->nextFrame();
    viewport()->update();
}

void CGalleryWidget::resizeEvent(QResizeEvent* event)
{
    QListView::resizeEvent(event);
    placePreview();
}

void CGalleryWidget::hidePreview()
{
    if (!m_preview)
        return;
    m_preview->hide();
    setViewportMargins(0, 0, 0, 0);
}

void CGalleryWidget::placePreview()
{
    if (!m_preview || m_preview->isHidden())
        return;
    // In the margin beside the viewport, which the grid leaves free.
    const QRect grid = viewport()->geometry();
    m_preview->setGeometry(grid.right() + 1, grid.top(), PreviewWidth, grid.height());
}
