#include "gallerywidget.h"

#include "gallerydelegate.h"
#include "galleryfiltermodel.h"
#include "imagemodel.h"

#include <QDateTime>
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

namespace
{
constexpr int FrameIntervalMs = 100;
constexpr int PreviewWidth = 320;
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

    m_preview = new QFrame(this);
    m_preview->setObjectName(QStringLiteral("previewWidget"));
    m_preview->setAutoFillBackground(true);
    auto* layout = new QVBoxLayout(m_preview);
    auto* close = new QToolButton(m_preview);
    close->setObjectName(QStringLiteral("previewClose"));
    close->setIcon(QIcon(QStringLiteral(":/Quorvex/close-icon.png")));
    close->setAutoRaise(true);
    connect(close, &QToolButton::clicked, m_preview, &QWidget::hide);
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
    m_preview->hide();
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
        if (index.isValid())
            update(index);
    }
}

void CGalleryWidget::onItemLeft(const QModelIndex& index)
{
    if (index.isValid())
        update(index);
}

void CGalleryWidget::leaveEvent(QEvent* event)
{
    QListView::leaveEvent(event);
    viewport()->update();
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
    const QFileInfo info(path);
    // Not every file system records a creation time; the last change is the
    // nearest honest stand-in.
    QDateTime created = info.birthTime();
    if (!created.isValid())
        created = info.lastModified();
    return tr("Date: %1").arg(QLocale::system().toString(created.date(), QLocale::ShortFormat));
}

void CGalleryWidget::onPreviewShow(const QString& filePath)
{
    const QFileInfo info(filePath);
    m_pathLabel->setText(pathText(info.absoluteFilePath()));
    m_sizeLabel->setText(sizeText(info.size()));
    m_dateLabel->setText(dateText(filePath));

    // Decoded at the preview's size, never at the photo's full size.
    QImageReader reader(filePath);
    reader.setAutoTransform(true);
    const QSize box(PreviewWidth - 24, PreviewWidth - 24);
    QSize size = reader.size();
    if (size.isValid())
    {
        size.scale(box, Qt::KeepAspectRatio);
        reader.setScaledSize(size);
    }
    m_previewImage->setPixmap(QPixmap::fromImage(reader.read()));

    placePreview();
    m_preview->show();
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

void CGalleryWidget::placePreview()
{
    if (!m_preview)
        return;
    // Docked on the right over the grid, clear of the scroll bar.
    const int scrollBar = verticalScrollBar()->isVisible() ? verticalScrollBar()->width() : 0;
    const int width = qMin(PreviewWidth, this->width() - scrollBar);
    m_preview->setGeometry(this->width() - scrollBar - width, 0, width, height());
}
