// The gallery: the state-mask filter, the painted tiles and the preview texts.
#include "gallerydelegate.h"
#include "galleryfiltermodel.h"
#include "galleryitem.h"
#include "gallerywidget.h"
#include "imagemodel.h"

#include "qcontrols/dialogscript.h"
#include "qcontrols/stylesheetmanager.h"
#include "qutils/quorvexapi.h"
#include "resources.h"

#include "testutils.h"

#include <QAbstractItemModelTester>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFrame>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QSet>
#include <QUrl>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTemporaryDir>
#include <QMessageBox>
#include <QTest>

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

TEST_F(GalleryTest, DelegatePaintsEveryStateWithItsVerdict)
{
    using API = qutils::CQuorvexAPI;
    using Look = CGalleryDelegate::ELook;
    CImageModel model;
    model.setFiles(makePhotos(1));
    CGalleryDelegate delegate;
    const auto analysed = [](bool matched, double probability, API::EStatus status, double pce,
                             double scale = 1.0, const QString& reason = QString()) {
        return QVariant::fromValue(
            API::SAnalysisResult{matched, probability, 0.01, status, pce, reason, scale});
    };
    struct SCase
    {
        CImageModel::State state;
        QVariant result;
        QString description;
        Look look;
        QString text;
        QString detail;
    };
    const SCase cases[] = {
        {CImageModel::Idle, {}, {}, Look::Plain, {}, {}},
        {CImageModel::Processing, {}, {}, Look::Processing, QStringLiteral("Analyzing"), {}},
        {CImageModel::Waiting, {}, {}, Look::Waiting, QStringLiteral("Waiting"), {}},
        {CImageModel::SuccessVeryHigh,
         analysed(true, 0.9999, API::Success, 1234.56),
         {},
         Look::VeryHigh,
         QStringLiteral("Match: very high probability"),
         QStringLiteral("PCE 1234.6")},
        {CImageModel::SuccessHigh,
         analysed(true, 0.995, API::Success, 80.0, 0.8),
         {},
         Look::High,
         QStringLiteral("Match: high probability"),
         QStringLiteral("PCE 80.0, scale 0.80")},
        {CImageModel::SuccessMedium,
         analysed(true, 0.99, API::Success, 70.0),
         {},
         Look::Medium,
         QStringLiteral("Match: medium probability"),
         QStringLiteral("PCE 70.0")},
        {CImageModel::SuccessLow,
         analysed(true, 0.9, API::Success, 60.1),
         {},
         Look::Low,
         QStringLiteral("Match: low probability"),
         QStringLiteral("PCE 60.1")},
        // A reference photo of a new fingerprint carries no comparison.
        {CImageModel::SuccessVeryHigh,
         analysed(false, 100.0, API::Invalid, 0.0),
         {},
         Look::Learned,
         QStringLiteral("Used for the fingerprint"),
         {}},
        {CImageModel::Fail,
         analysed(false, 0.95, API::Success, 59.84),
         {},
         Look::NotFound,
         QStringLiteral("No match"),
         QStringLiteral("PCE 59.8")},
        {CImageModel::Fail,
         analysed(false, 0.0, API::BrokenImage, 0.0, 1.0, QStringLiteral("JPEG truncated")),
         {},
         Look::Error,
         QStringLiteral("File cannot be opened"),
         QStringLiteral("JPEG truncated")},
        {CImageModel::Fail,
         {},
         QStringLiteral("<br />Photos have <b>different</b> size"),
         Look::Error,
         QStringLiteral("Photos have different size"),
         {}},
        {CImageModel::NotCompared,
         analysed(false, 0.0, API::ImageFingerprintInconsistentSize, 0.0, 1.0, QStringLiteral("too small")),
         {},
         Look::NotCompared,
         QStringLiteral("Not compared: Size is incompatible with fingerprint"),
         QStringLiteral("too small")},
    };
    QImage blank(delegate.tileSize(), QImage::Format_ARGB32_Premultiplied);
    blank.fill(Qt::black);
    QSet<QRgb> verdictColours;
    QSet<QString> badges;
    for (const SCase& c : cases)
    {
        SCOPED_TRACE(c.text.toStdString());
        model.setState(0, c.state);
        model.setResult(0, c.result);
        model.setDescription(0, c.description);
        const CGalleryDelegate::SVerdict verdict = CGalleryDelegate::verdict(model.index(0));
        EXPECT_EQ(verdict.look, c.look);
        EXPECT_EQ(verdict.text, c.text);
        EXPECT_EQ(verdict.detail, c.detail);
        EXPECT_EQ(verdict.badge.isEmpty(), c.look == Look::Plain);
        if (c.look != Look::Plain && c.look != Look::Processing && c.look != Look::Learned)
        {
            // Told apart by colour and, for colour-blind readers, by the badge.
            verdictColours.insert(CGalleryDelegate::lookColor(c.look).rgb());
            badges.insert(verdict.badge);
        }

        QImage image = blank;
        QPainter painter(&image);
        QStyleOptionViewItem option;
        option.rect = QRect(QPoint(0, 0), delegate.tileSize());
        option.palette = QPalette(Qt::white, Qt::black);
        option.fontMetrics = QFontMetrics(QFont());
        delegate.paint(&painter, option, model.index(0));
        painter.end();
        EXPECT_NE(image, blank);
        // The tile sits 4 pixels in; its 3-pixel frame is centred on that line.
        const QColor edge = image.pixelColor(delegate.tileSize().width() / 2, 4);
        const QColor frame = c.look == Look::Error ? CGalleryDelegate::lookColor(Look::Error)
                                                   : CGalleryDelegate::stateColor(c.state);
        EXPECT_EQ(edge.rgb(), frame.rgb());
        EXPECT_EQ(delegate.takePaintedProcessing(), c.state == CImageModel::Processing);
        // A verdict fills its band in its own colour (probed left of the badge).
        const QColor band = image.pixelColor(10, delegate.tileSize().height() - 24);
        if (c.look != Look::Plain && c.look != Look::Waiting && c.look != Look::Processing)
        {
            EXPECT_EQ(band.rgb(), CGalleryDelegate::lookColor(c.look).rgb());
        }
    }
    // Waiting, not found, not compared, error and the four classes: all distinct.
    EXPECT_EQ(verdictColours.size(), 8);
    EXPECT_EQ(badges.size(), 8);
    model.stopThread();

    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::Processing), QStringLiteral("normal"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::Waiting), QStringLiteral("normal"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::SuccessVeryHigh), QStringLiteral("success_very_high"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::SuccessLow), QStringLiteral("success_low"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::Fail), QStringLiteral("fail"));
    EXPECT_EQ(CGalleryDelegate::stateStyle(CImageModel::NotCompared), QStringLiteral("not_compared"));
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

    gallery.imageModel()->setState(0, CImageModel::Fail);
    gallery.imageModel()->setResult(
        0, QVariant::fromValue(qutils::CQuorvexAPI::SAnalysisResult{false, 0.9498, 0.01, qutils::CQuorvexAPI::Success, 59.84}));
    gallery.setCurrentIndex(gallery.model()->index(0, 0));
    EXPECT_TRUE(preview->isVisible());
    // Beside the tiles, never over one.
    for (int row = 0; row < gallery.model()->rowCount(); ++row)
    {
        const QRect tile = gallery.visualRect(gallery.model()->index(row, 0))
                               .translated(gallery.viewport()->geometry().topLeft());
        EXPECT_FALSE(tile.intersects(preview->geometry())) << row;
    }
    auto text = [&](const char* name) {
        QLabel* label = preview->findChild<QLabel*>(QString::fromLatin1(name));
        return label ? label->text() : QStringLiteral("<missing>");
    };
    EXPECT_EQ(text("previewPath"), QStringLiteral("Path: %1").arg(QDir::toNativeSeparators(path)));
    EXPECT_EQ(text("previewSize"), QStringLiteral("Size: 1.50 MB"));
    EXPECT_TRUE(text("previewDate").startsWith(QStringLiteral("Date: ")));
    EXPECT_TRUE(text("previewDate").endsWith(QStringLiteral(" (of the file; the photo records none)")));
    EXPECT_EQ(text("previewVerdict"), QStringLiteral("No match (PCE 59.8)"));
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

TEST_F(GalleryTest, TenThousandRowsMakeNoWidgetPerRow)
{
    // Rows need no file behind them until painted; listing them must not build
    // anything per row.
    QFileInfoList files;
    for (int i = 0; i < 10000; ++i)
        files << QFileInfo(m_dir.filePath(QStringLiteral("missing%1.png").arg(i)));
    CGalleryWidget gallery;
    gallery.resize(800, 600);
    gallery.show();
    gallery.setFiles(files);
    gallery.scrollToBottom();
    QCoreApplication::processEvents();
    EXPECT_EQ(gallery.model()->rowCount(), 10000);
    // One live tile at most, however many rows: the rest are painted.
    EXPECT_EQ(gallery.viewport()->findChildren<CGalleryItem*>().size(), 1);
    EXPECT_LT(gallery.viewport()->findChildren<QWidget*>().size(), 20);
}

TEST_F(GalleryTest, HoverTileOpensAndClosesItsActionsRow)
{
    CGalleryWidget gallery;
    gallery.resize(800, 600);
    gallery.show();
    gallery.setFiles(makePhotos(3));
    gallery.imageModel()->setState(1, CImageModel::Processing);
    gallery.imageModel()->setState(2, CImageModel::Waiting);
    QCoreApplication::processEvents();

    CGalleryItem* item = gallery.hoverItem();
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->isVisible());
    EXPECT_EQ(item->actionsPanel()->maximumHeight(), 0);
    EXPECT_EQ(item->actionsAnimation()->duration(), 150);
    EXPECT_EQ(item->contentAnimation()->duration(), 200);

    // The pointer enters the first tile: the live tile takes its place and
    // the actions row slides open to its preferred height.
    const QModelIndex first = gallery.model()->index(0, 0);
    ASSERT_TRUE(QMetaObject::invokeMethod(&gallery, "entered", Q_ARG(QModelIndex, first)));
    EXPECT_TRUE(item->isVisible());
    EXPECT_EQ(item->geometry(), gallery.visualRect(first));
    EXPECT_EQ(item->filePath(), first.data(CImageModel::PathRole).toString());
    const int open = item->actionsPanel()->sizeHint().height();
    EXPECT_GT(open, 0);
    EXPECT_EQ(item->actionsAnimation()->endValue().toInt(), open);
    EXPECT_EQ(item->contentAnimation()->endValue().toRect(), QRect(QPoint(0, 0), item->size()));
    EXPECT_TRUE(testutils::waitFor([&] { return item->actionsPanel()->maximumHeight() == open; }));
    // The content follows 50 ms later, to the whole tile.
    EXPECT_TRUE(testutils::waitFor(
        [&] { return item->contentWidget()->geometry() == QRect(QPoint(0, 0), item->size()); }));
    EXPECT_EQ(item->contentWidget()->property("state").toString(), QStringLiteral("normal"));
    EXPECT_FALSE(item->loadingIcon()->isVisible());

    // Leaving closes it again, reports the tile and hands it back to the painter.
    QSignalSpy left(item, &CGalleryItem::mouseLeft);
    QEvent leave(QEvent::Leave);
    QCoreApplication::sendEvent(item, &leave);
    ASSERT_EQ(left.size(), 1);
    EXPECT_EQ(left.at(0).at(0).toModelIndex(), first);
    EXPECT_EQ(item->actionsAnimation()->endValue().toInt(), 0);
    EXPECT_TRUE(testutils::waitFor([&] { return !item->isVisible(); }));
    EXPECT_EQ(item->actionsPanel()->maximumHeight(), 0);

    // A photo being processed shows the loading indicator; a waiting one is plain.
    ASSERT_TRUE(QMetaObject::invokeMethod(&gallery, "entered", Q_ARG(QModelIndex, gallery.model()->index(1, 0))));
    EXPECT_TRUE(item->loadingIcon()->isVisible());
    const QPixmap before = item->loadingIcon()->pixmap(Qt::ReturnByValue);
    item->nextFrame();
    EXPECT_NE(item->loadingIcon()->pixmap(Qt::ReturnByValue).toImage(), before.toImage());
    ASSERT_TRUE(QMetaObject::invokeMethod(&gallery, "entered", Q_ARG(QModelIndex, gallery.model()->index(2, 0))));
    EXPECT_FALSE(item->loadingIcon()->isVisible());
    EXPECT_EQ(item->contentWidget()->property("state").toString(), QStringLiteral("normal"));

    // A result arriving for the hovered photo restyles the live tile.
    gallery.imageModel()->setState(2, CImageModel::SuccessHigh);
    EXPECT_TRUE(testutils::waitFor(
        [&] { return item->contentWidget()->property("state").toString() == QStringLiteral("success_high"); }));

    // Scrolling or re-filtering leaves the tile over the wrong photo: it goes.
    gallery.setFilterMask(CImageModel::Processing);
    EXPECT_FALSE(item->isVisible());
    gallery.imageModel()->stopThread();
}

TEST_F(GalleryTest, TileActionsHandPhotosToTheDesktopAndShowTheDetailResult)
{
    QList<QUrl> opened;
    CGalleryWidget::setUrlOpener([&](const QUrl& url) {
        opened << url;
        return true;
    });
    // In the program's own style, so its fonts and paddings count.
    qApp->setStyleSheet(qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                                            quorvex::styleConstantsResourcePath()));
    CGalleryWidget gallery;
    gallery.resize(800, 600);
    gallery.show();
    const QFileInfoList files = makePhotos(2);
    gallery.setFiles(files);
    CGalleryItem* item = gallery.hoverItem();
    const QModelIndex first = gallery.model()->index(0, 0);
    ASSERT_TRUE(QMetaObject::invokeMethod(&gallery, "entered", Q_ARG(QModelIndex, first)));
    // The name is elided at its start; its tooltip gives the whole path.
    auto* name = item->findChild<QLabel*>(QStringLiteral("fileName"));
    ASSERT_TRUE(name);
    EXPECT_EQ(name->toolTip(), QDir::toNativeSeparators(files.at(0).absoluteFilePath()));

    auto button = [&](const char* objectName) {
        return item->findChild<QPushButton*>(QString::fromLatin1(objectName));
    };
    ASSERT_TRUE(button("openFolderButton"));
    EXPECT_EQ(button("openFolderButton")->text(), QStringLiteral("Open folder"));
    EXPECT_EQ(button("externalViewerButton")->text(), QStringLiteral("Show in external viewer"));
    EXPECT_EQ(button("detailResultButton")->text(), QStringLiteral("Show detail result"));
    EXPECT_TRUE(testutils::waitFor(
        [&] { return item->contentWidget()->geometry() == QRect(QPoint(0, 0), item->size()); }));
    for (const char* action : {"openFolderButton", "externalViewerButton"})
        EXPECT_LE(button(action)->sizeHint().width(), button(action)->width()) << action;
    // Nothing to detail before the photo has a result.
    EXPECT_FALSE(button("detailResultButton")->isVisibleTo(item));

    button("openFolderButton")->click();
    button("externalViewerButton")->click();
    ASSERT_EQ(opened.size(), 2);
    EXPECT_EQ(opened.at(0), QUrl::fromLocalFile(files.at(0).absolutePath()));
    EXPECT_EQ(opened.at(1), QUrl::fromLocalFile(files.at(0).absoluteFilePath()));

    qutils::CQuorvexAPI::SAnalysisResult result;
    result.matched = true;
    result.probability = 0.9991;
    result.correlation = 0.0123;
    result.status = qutils::CQuorvexAPI::Success;
    result.pce = 812.34;
    gallery.imageModel()->setResult(0, QVariant::fromValue(result));
    EXPECT_TRUE(testutils::waitFor([&] { return button("detailResultButton")->isVisibleTo(item); }));
    {
        qcontrols::CScriptedDialogs script({{QMessageBox::Ok, {}}});
        button("detailResultButton")->click();
        const auto shown = qcontrols::CDialogScript::shown();
        ASSERT_EQ(shown.size(), 1);
        EXPECT_EQ(shown.at(0).title, QStringLiteral("Analysis results"));
        EXPECT_EQ(shown.at(0).text, QStringLiteral("Path: %1<br/><br/>Result: match with very high probability"
                                                   "<br/>Probability: 99.91%<br/>Correlation: 0.0123"
                                                   "<br/>PCE 812.3, at or above the threshold of 60"
                                                   "<br/>Status: Success<br/>Scale: 1.00, orientation: 0\u00b0, shift: 0, 0")
                                        .arg(QDir::toNativeSeparators(files.at(0).absoluteFilePath())));
    }
    // The classes behind the verdicts.
    result.probability = 0.995;
    EXPECT_TRUE(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result))
                    .contains(QStringLiteral("Result: match with high probability<br/>")));
    result.probability = 0.99;
    EXPECT_TRUE(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result))
                    .contains(QStringLiteral("Result: match with medium probability<br/>")));
    result.probability = 0.9899;
    EXPECT_TRUE(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result))
                    .contains(QStringLiteral("Result: match with low probability<br/>Probability: 98.99%")));
    // A near miss reads as one.
    result.matched = false;
    result.probability = 0.9498;
    result.pce = 59.84;
    EXPECT_TRUE(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result))
                    .contains(QStringLiteral("Result: no match<br/>Probability: 94.98%<br/>Correlation: 0.0123"
                                             "<br/>PCE 59.8, below the threshold of 60<br/>")));
    // The learn screen's record of a reference photo (its 100.0 is no
    // fraction): used, not compared, so no probability at all.
    const QVariant learned = QVariant::fromValue(qutils::CQuorvexAPI::SAnalysisResult{false, 100.0});
    EXPECT_EQ(CGalleryWidget::detailResultText(QStringLiteral("p"), learned, CImageModel::SuccessVeryHigh),
              QStringLiteral("Path: p<br/><br/>Result: used for the fingerprint"));
    EXPECT_EQ(CGalleryWidget::detailResultText(QStringLiteral("a&b"), QVariant()),
              QStringLiteral("Path: a&amp;b<br/><br/>Result: no match"));
    // A photo that could not be compared is never shown as excluded.
    result.status = qutils::CQuorvexAPI::BrokenImage;
    result.reason = QStringLiteral("JPEG truncated: <scan 2>");
    EXPECT_EQ(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result)),
              QStringLiteral("Path: p<br/><br/>Result: not compared: File cannot be opened"
                             "<br/>Reason: JPEG truncated: &lt;scan 2&gt;"));
    // Read but never compared: why, without numbers that would look like a verdict.
    result.status = qutils::CQuorvexAPI::ImageFingerprintInconsistentSize;
    result.reason = QStringLiteral("photo too small");
    EXPECT_EQ(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result)),
              QStringLiteral("Path: p<br/><br/>Result: Not compared: Size is incompatible with fingerprint "
                             "(photo too small)"));
    result.status = qutils::CQuorvexAPI::InconsistentMetadata;
    result.reason.clear();
    EXPECT_EQ(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result)),
              QStringLiteral("Path: p<br/><br/>Result: Not compared: Different camera type"));
    // A photo found at another scale says so.
    result = {true, 0.9995, 0.02, qutils::CQuorvexAPI::Success, 900.0, QString(), 0.8, 90, 12, -3};
    EXPECT_TRUE(CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result))
                    .endsWith(QStringLiteral("Scale: 0.80, orientation: 90\u00b0, shift: 12, -3")));

    // A double click on the live tile opens the details of a photo with a
    // result, and the preview of one without.
    {
        qcontrols::CScriptedDialogs script({{QMessageBox::Ok, {}}});
        QTest::mouseDClick(item, Qt::LeftButton);
        ASSERT_EQ(qcontrols::CDialogScript::shown().size(), 1);
        EXPECT_EQ(qcontrols::CDialogScript::shown().at(0).title, QStringLiteral("Analysis results"));
    }
    ASSERT_TRUE(QMetaObject::invokeMethod(&gallery, "entered", Q_ARG(QModelIndex, gallery.model()->index(1, 0))));
    QSignalSpy doubled(item, &CGalleryItem::doubleClicked);
    QTest::mouseDClick(item, Qt::LeftButton);
    ASSERT_EQ(doubled.size(), 1);
    EXPECT_TRUE(gallery.previewWidget()->isVisible());
    CGalleryWidget::setUrlOpener({});
    gallery.imageModel()->stopThread();
    qApp->setStyleSheet(QString());
    qcontrols::CStyleSheetManager::clear();
}

} // namespace
