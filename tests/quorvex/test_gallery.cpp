// The gallery: the state-mask filter, the painted tiles and the preview texts.
#include "gallerydelegate.h"
#include "galleryfiltermodel.h"
#include "gallerywidget.h"
#include "imagemodel.h"

#include "testutils.h"

#include <QAbstractItemModelTester>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFrame>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTemporaryDir>

#include "modelchecker.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{

// Counts how often rows are put through the filter, so a test can tell a
// re-filter that changes nothing from no re-filter at all.
class CCountingFilterModel : public CGalleryFilterModel
{
public:
    mutable int m_checks = 0;

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override
    {
        ++m_checks;
        return CGalleryFilterModel::filterAcceptsRow(sourceRow, sourceParent);
    }
};

class GalleryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        CImageModel::clearThumbnailCache();
    }

    void TearDown() override { CImageModel::clearThumbnailCache(); }

    QFileInfoList makePhotos(int count)
    {
        QFileInfoList files;
        for (int i = 0; i < count; ++i)
        {
            QImage image(QSize(40, 30), QImage::Format_RGB32);
            image.fill(QColor::fromHsv(i * 30 % 360, 200, 200));
            const QString path = m_dir.filePath(QStringLiteral("photo%1.png").arg(i));
            EXPECT_TRUE(image.save(path));
            files << QFileInfo(path);
        }
        return files;
    }

    static QStringList visibleNames(const QAbstractItemModel& model)
    {
        QStringList names;
        for (int row = 0; row < model.rowCount(); ++row)
            names << model.index(row, 0).data(CImageModel::FileNameRole).toString();
        return names;
    }

    QTemporaryDir m_dir;
};

TEST_F(GalleryTest, MaskWithoutProcessingBitHidesProcessingRows)
{
    CImageModel model;
    model.setFiles(makePhotos(4));
    CGalleryFilterModel filter;
    filter.setSourceModel(&model);
    testutils::CModelChecker checker(&filter);

    model.setState(1, CImageModel::Processing);
    model.setState(2, CImageModel::SuccessHigh);
    model.setState(3, CImageModel::Fail);
    EXPECT_EQ(filter.rowCount(), 4);

    filter.setFilterMask(CGalleryFilterModel::AllStates & ~CImageModel::Processing);
    EXPECT_EQ(visibleNames(filter),
              (QStringList{QStringLiteral("photo0.png"), QStringLiteral("photo2.png"), QStringLiteral("photo3.png")}));

    filter.setFilterMask(CImageModel::SuccessHigh | CImageModel::Fail);
    EXPECT_EQ(visibleNames(filter), (QStringList{QStringLiteral("photo2.png"), QStringLiteral("photo3.png")}));

    // The default state shows only when its own bit is in the mask.
    filter.setFilterMask(CImageModel::Idle);
    EXPECT_EQ(visibleNames(filter), QStringList{QStringLiteral("photo0.png")});

    filter.setFilterMask(CGalleryFilterModel::AllStates);
    EXPECT_EQ(filter.rowCount(), 4);
    model.stopThread();
}

TEST_F(GalleryTest, SameMaskTwiceDoesNotRefilter)
{
    CImageModel model;
    model.setFiles(makePhotos(3));
    model.setState(0, CImageModel::Processing);
    CCountingFilterModel filter;
    filter.setSourceModel(&model);
    const qint32 mask = CImageModel::Processing | CImageModel::Fail;
    filter.setFilterMask(mask);
    EXPECT_EQ(filter.rowCount(), 1);

    qRegisterMetaType<QList<QPersistentModelIndex>>();
    qRegisterMetaType<QAbstractItemModel::LayoutChangeHint>();
    filter.m_checks = 0;
    QSignalSpy layouts(&filter, &QAbstractItemModel::layoutChanged);
    QSignalSpy resets(&filter, &QAbstractItemModel::modelReset);
    QSignalSpy removed(&filter, &QAbstractItemModel::rowsRemoved);
    QSignalSpy inserted(&filter, &QAbstractItemModel::rowsInserted);
    filter.setFilterMask(mask);
    EXPECT_EQ(filter.filterMask(), mask);
    EXPECT_EQ(layouts.count(), 0);
    EXPECT_EQ(resets.count(), 0);
    EXPECT_EQ(removed.count(), 0);
    EXPECT_EQ(inserted.count(), 0);
    EXPECT_EQ(filter.m_checks, 0);

    // A different mask does re-filter.
    filter.setFilterMask(CImageModel::Idle);
    EXPECT_EQ(filter.rowCount(), 2);
    EXPECT_GE(filter.m_checks, 3);
    EXPECT_GT(layouts.count() + resets.count() + removed.count() + inserted.count(), 0);
    model.stopThread();
}

TEST_F(GalleryTest, StateChangesInTheSourceRefilter)
{
    CImageModel model;
    model.setFiles(makePhotos(3));
    CGalleryFilterModel filter;
    filter.setSourceModel(&model);
    testutils::CModelChecker checker(&filter);
    filter.setFilterMask(CImageModel::SuccessVeryHigh | CImageModel::SuccessHigh);
    EXPECT_EQ(filter.rowCount(), 0);

    model.setState(2, CImageModel::SuccessVeryHigh);
    EXPECT_EQ(visibleNames(filter), QStringList{QStringLiteral("photo2.png")});
    model.setState(0, CImageModel::SuccessHigh);
    EXPECT_EQ(visibleNames(filter), (QStringList{QStringLiteral("photo0.png"), QStringLiteral("photo2.png")}));
    model.setState(2, CImageModel::Fail);
    EXPECT_EQ(visibleNames(filter), QStringList{QStringLiteral("photo0.png")});
    model.stopThread();
}

TEST_F(GalleryTest, FilterReadsStatesHeldAsNumbers)
{
    QStandardItemModel source;
    for (int state : {2, 4, 16, 256})
    {
        auto* item = new QStandardItem;
        item->setData(state, CImageModel::ItemStateRole);
        source.appendRow(item);
    }
    CGalleryFilterModel filter;
    filter.setSourceModel(&source);
    filter.setFilterMask(CImageModel::Processing | CImageModel::Fail);
    ASSERT_EQ(filter.rowCount(), 2);
    EXPECT_EQ(filter.index(0, 0).data(CImageModel::ItemStateRole).toInt(), 4);
    EXPECT_EQ(filter.index(1, 0).data(CImageModel::ItemStateRole).toInt(), 256);
}

TEST_F(GalleryTest, DelegatePaintsEveryState)
{
    CImageModel model;
    model.setFiles(makePhotos(1));
    CGalleryDelegate delegate;
    const CImageModel::State states[] = {CImageModel::Idle,          CImageModel::Processing,
                                         CImageModel::Waiting,       CImageModel::SuccessVeryHigh,
                                         CImageModel::SuccessHigh,   CImageModel::SuccessMedium,
                                         CImageModel::SuccessLow,    CImageModel::Fail};
    QImage blank(delegate.tileSize(), QImage::Format_ARGB32_Premultiplied);
    blank.fill(Qt::black);
    for (CImageModel::State state : states)
    {
        model.setState(0, state);
        QImage image = blank;
        QPainter painter(&image);
        QStyleOptionViewItem option;
        option.rect = QRect(QPoint(0, 0), delegate.tileSize());
        option.palette = QPalette(Qt::white, Qt::black);
        option.fontMetrics = QFontMetrics(QFont());
        delegate.paint(&painter, option, model.index(0));
        painter.end();
        EXPECT_NE(image, blank) << int(state);
        // The frame is drawn in the state's colour.
        // The tile sits 4 pixels in; its 3-pixel frame is centred on that line.
        const QColor edge = image.pixelColor(delegate.tileSize().width() / 2, 4);
        EXPECT_EQ(edge.rgb(), CGalleryDelegate::stateColor(state).rgb()) << int(state);
        EXPECT_EQ(delegate.takePaintedProcessing(), state == CImageModel::Processing) << int(state);
    }
    model.stopThread();

    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::Processing), QStringLiteral("normal"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::Waiting), QStringLiteral("normal"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::SuccessVeryHigh), QStringLiteral("success_very_high"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::SuccessLow), QStringLiteral("success_low"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::Fail), QStringLiteral("fail"));
    EXPECT_NE(CGalleryDelegate::stateColor(CImageModel::SuccessHigh),
              CGalleryDelegate::stateColor(CImageModel::SuccessMedium));
}

TEST_F(GalleryTest, LoadingIndicatorAnimatesOnlyWhileProcessingTileIsPainted)
{
    CGalleryDelegate delegate;
    EXPECT_EQ(delegate.frame(), 0);
    for (int i = 0; i < CGalleryDelegate::LoadingFrames; ++i)
        delegate.nextFrame();
    EXPECT_EQ(delegate.frame(), 0);
    delegate.nextFrame();
    EXPECT_EQ(delegate.frame(), 1);
    EXPECT_FALSE(delegate.takePaintedProcessing());
}

TEST_F(GalleryTest, ViewSettings)
{
    CGalleryWidget gallery;
    EXPECT_EQ(gallery.viewMode(), QListView::IconMode);
    EXPECT_EQ(gallery.flow(), QListView::LeftToRight);
    EXPECT_TRUE(gallery.isWrapping());
    EXPECT_TRUE(gallery.uniformItemSizes());
    EXPECT_EQ(gallery.resizeMode(), QListView::Adjust);
    EXPECT_TRUE(gallery.hasMouseTracking());
    EXPECT_EQ(gallery.verticalScrollMode(), QAbstractItemView::ScrollPerPixel);
    EXPECT_EQ(gallery.spacing(), 3);
    EXPECT_EQ(gallery.horizontalScrollBarPolicy(), Qt::ScrollBarAlwaysOff);
    EXPECT_EQ(gallery.model(), gallery.filterModel());
    EXPECT_EQ(gallery.imageModel()->thumbnailSize(), gallery.galleryDelegate()->thumbnailSize());
}

TEST_F(GalleryTest, PreviewShowsPathSizeAndDateOfSelectedPhoto)
{
    // 1,500,000 bytes: a photo followed by padding, which image readers ignore.
    const QString path = m_dir.filePath(QStringLiteral("big.png"));
    QImage image(QSize(64, 48), QImage::Format_RGB32);
    image.fill(Qt::green);
    ASSERT_TRUE(image.save(path));
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.resize(1500000));
    }
    QFileInfoList files = makePhotos(2);
    files.prepend(QFileInfo(path));

    CGalleryWidget gallery;
    gallery.resize(800, 600);
    gallery.show();
    ASSERT_TRUE(QMetaObject::invokeMethod(&gallery, "setFiles", Q_ARG(QFileInfoList, files)));
    ASSERT_EQ(gallery.model()->rowCount(), 3);
    gallery.imageModel()->setState(2, CImageModel::Processing);
    // Painting through the view, processing tile included, must be cheap and safe.
    EXPECT_FALSE(gallery.grab().isNull());
    EXPECT_TRUE(gallery.galleryDelegate()->takePaintedProcessing());
    gallery.imageModel()->setState(2, CImageModel::Idle);

    QFrame* preview = gallery.findChild<QFrame*>(QStringLiteral("previewWidget"));
    ASSERT_TRUE(preview);
    EXPECT_FALSE(preview->isVisible());

    gallery.setCurrentIndex(gallery.model()->index(0, 0));
    EXPECT_TRUE(preview->isVisible());
    auto text = [&](const char* name) {
        QLabel* label = preview->findChild<QLabel*>(QString::fromLatin1(name));
        return label ? label->text() : QStringLiteral("<missing>");
    };
    EXPECT_EQ(text("previewPath"), QStringLiteral("Path: %1").arg(QDir::toNativeSeparators(path)));
    EXPECT_EQ(text("previewSize"), QStringLiteral("Size: 1.50 MB"));
    EXPECT_TRUE(text("previewDate").startsWith(QStringLiteral("Date: ")));
    EXPECT_GT(text("previewDate").size(), 6);
    QLabel* picture = preview->findChild<QLabel*>(QStringLiteral("previewImage"));
    ASSERT_TRUE(picture);
    EXPECT_FALSE(picture->pixmap(Qt::ReturnByValue).isNull());

    EXPECT_EQ(CGalleryWidget::sizeText(2500000), QStringLiteral("Size: 2.50 MB"));
    EXPECT_EQ(CGalleryWidget::sizeText(0), QStringLiteral("Size: 0.00 MB"));

    // The filter hides what the mask leaves out, through the widget too.
    gallery.imageModel()->setState(1, CImageModel::Processing);
    gallery.setFilterMask(CGalleryFilterModel::AllStates & ~CImageModel::Processing);
    EXPECT_EQ(gallery.model()->rowCount(), 2);
}

TEST_F(GalleryTest, TenThousandRowsLoadQuickly)
{
    // Rows need no file behind them until painted; listing them must not build
    // anything per row.
    QFileInfoList files;
    for (int i = 0; i < 10000; ++i)
        files << QFileInfo(m_dir.filePath(QStringLiteral("missing%1.png").arg(i)));
    CGalleryWidget gallery;
    gallery.resize(800, 600);
    gallery.show();
    QElapsedTimer timer;
    timer.start();
    gallery.setFiles(files);
    gallery.scrollToBottom();
    QCoreApplication::processEvents();
    EXPECT_EQ(gallery.model()->rowCount(), 10000);
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_TRUE(gallery.findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly).size() < 20);
}

} // namespace
