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

#include "modelchecker.h"
#include "scriptedsteps.h"
#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QFrame>
#include <QLabel>
#include <QMessageBox>
#include <QPainter>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QSet>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <gtest/gtest.h>

#include <utility>

namespace
{

using API = qutils::CQuorvexAPI;
using Result = API::SAnalysisResult;

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
        m_gallery.resize(800, 600);
    }

    void TearDown() override
    {
        m_gallery.imageModel()->stopThread();
        CImageModel::clearThumbnailCache();
    }

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

    // The photos a view shows, as their numbers: "023".
    static QString visibleRows(const QAbstractItemModel& model)
    {
        QString rows;
        for (int row = 0; row < model.rowCount(); ++row)
            rows += model.index(row, 0).data(CImageModel::FileNameRole).toString().mid(5, 1);
        return rows;
    }

    // Puts the pointer on a row: the live tile takes its place.
    void enter(int row)
    {
        ASSERT_TRUE(QMetaObject::invokeMethod(&m_gallery, "entered", Q_ARG(QModelIndex, m_gallery.model()->index(row, 0))));
    }

    QTemporaryDir m_dir;
    CGalleryWidget m_gallery;
};

TEST_F(GalleryTest, FilterFollowsTheMaskAndTheStatesAndSkipsAnUnchangedMask)
{
    CImageModel model;
    model.setFiles(makePhotos(4));
    CCountingFilterModel filter;
    filter.setSourceModel(&model);
    testutils::CModelChecker checker(&filter);
    model.setState(1, CImageModel::Processing);
    model.setState(2, CImageModel::SuccessHigh);
    model.setState(3, CImageModel::Fail);
    EXPECT_EQ(visibleRows(filter), QStringLiteral("0123"));

    const struct
    {
        qint32 mask;
        const char* rows;
    } cases[] = {
        {CGalleryFilterModel::AllStates & ~CImageModel::Processing, "023"},
        {CImageModel::SuccessHigh | CImageModel::Fail, "23"},
        // The default state shows only when its own bit is in the mask.
        {CImageModel::Idle, "0"},
        {CGalleryFilterModel::AllStates, "0123"},
        {CImageModel::SuccessVeryHigh | CImageModel::SuccessHigh, "2"},
    };
    for (const auto& c : cases)
    {
        filter.setFilterMask(c.mask);
        EXPECT_EQ(visibleRows(filter), QString::fromLatin1(c.rows)) << c.mask;
    }
    // State changes in the source re-filter.
    model.setState(0, CImageModel::SuccessVeryHigh);
    EXPECT_EQ(visibleRows(filter), QStringLiteral("02"));
    model.setState(2, CImageModel::Fail);
    EXPECT_EQ(visibleRows(filter), QStringLiteral("0"));

    const qint32 mask = CImageModel::Processing | CImageModel::Fail;
    filter.setFilterMask(mask);
    EXPECT_EQ(visibleRows(filter), QStringLiteral("123"));
    qRegisterMetaType<QList<QPersistentModelIndex>>();
    qRegisterMetaType<QAbstractItemModel::LayoutChangeHint>();
    filter.m_checks = 0;
    QSignalSpy layouts(&filter, &QAbstractItemModel::layoutChanged);
    QSignalSpy resets(&filter, &QAbstractItemModel::modelReset);
    QSignalSpy removed(&filter, &QAbstractItemModel::rowsRemoved);
    QSignalSpy inserted(&filter, &QAbstractItemModel::rowsInserted);
    const auto signalCount = [&] { return layouts.count() + resets.count() + removed.count() + inserted.count(); };
    filter.setFilterMask(mask);
    EXPECT_EQ(filter.filterMask(), mask);
    EXPECT_EQ(signalCount(), 0);
    EXPECT_EQ(filter.m_checks, 0);
    // A different mask does re-filter.
    filter.setFilterMask(CGalleryFilterModel::AllStates);
    EXPECT_EQ(filter.rowCount(), 4);
    EXPECT_GE(filter.m_checks, 4);
    EXPECT_GT(signalCount(), 0);
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
    using Look = CGalleryDelegate::ELook;
    CImageModel model;
    model.setFiles(makePhotos(1));
    CGalleryDelegate delegate;
    const auto analysed = [](bool matched, double probability, API::EStatus status, double pce, double scale = 1.0,
                             const char* reason = "") {
        return QVariant::fromValue(Result{matched, probability, 0.01, status, pce, QString::fromUtf8(reason), scale});
    };
    const struct
    {
        CImageModel::State state;
        QVariant result;
        const char* description;
        Look look;
        const char* style;
        const char* text;
        const char* detail;
    } cases[] = {
        {CImageModel::Idle, {}, "", Look::Plain, "normal", "", ""},
        {CImageModel::Processing, {}, "", Look::Processing, "normal", "Analyzing", ""},
        {CImageModel::Waiting, {}, "", Look::Waiting, "normal", "Waiting", ""},
        {CImageModel::SuccessVeryHigh, analysed(true, 0.9999, API::Success, 1234.56), "", Look::VeryHigh,
         "success_very_high", "Match: very high probability", "PCE 1234.6"},
        {CImageModel::SuccessHigh, analysed(true, 0.995, API::Success, 80.0, 0.8), "", Look::High, "success_high",
         "Match: high probability", "PCE 80.0, scale 0.80"},
        {CImageModel::SuccessMedium, analysed(true, 0.99, API::Success, 70.0), "", Look::Medium, "success_medium",
         "Match: medium probability", "PCE 70.0"},
        {CImageModel::SuccessLow, analysed(true, 0.9, API::Success, 60.1), "", Look::Low, "success_low",
         "Match: low probability", "PCE 60.1"},
        // A reference photo of a new fingerprint carries no comparison.
        {CImageModel::SuccessVeryHigh, analysed(false, 100.0, API::Invalid, 0.0), "", Look::Learned,
         "success_very_high", "Used for the fingerprint", ""},
        {CImageModel::Fail, analysed(false, 0.95, API::Success, 59.84), "", Look::NotFound, "fail", "No match",
         "PCE 59.8"},
        {CImageModel::Fail, analysed(false, 0.0, API::BrokenImage, 0.0, 1.0, "JPEG truncated"), "", Look::Error,
         "fail", "File cannot be opened", "JPEG truncated"},
        {CImageModel::Fail, {}, "<br />Photos have <b>different</b> size", Look::Error, "fail",
         "Photos have different size", ""},
        {CImageModel::NotCompared, analysed(false, 0.0, API::ImageFingerprintInconsistentSize, 0.0, 1.0, "too small"),
         "", Look::NotCompared, "not_compared", "Not compared: Size is incompatible with fingerprint", "too small"},
    };
    QImage blank(delegate.tileSize(), QImage::Format_ARGB32_Premultiplied);
    blank.fill(Qt::black);
    QSet<QRgb> verdictColours;
    QSet<QString> badges;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.text);
        model.setState(0, c.state);
        model.setResult(0, c.result);
        model.setDescription(0, QString::fromUtf8(c.description));
        const CGalleryDelegate::SVerdict verdict = CGalleryDelegate::verdict(model.index(0));
        EXPECT_EQ(verdict.look, c.look);
        EXPECT_EQ(verdict.text, QString::fromUtf8(c.text));
        EXPECT_EQ(verdict.detail, QString::fromUtf8(c.detail));
        EXPECT_EQ(verdict.badge.isEmpty(), c.look == Look::Plain);
        EXPECT_EQ(CGalleryDelegate::stateStyle(c.state), QString::fromLatin1(c.style));
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
        const QColor frame = c.look == Look::Error ? CGalleryDelegate::lookColor(Look::Error)
                                                   : CGalleryDelegate::stateColor(c.state);
        EXPECT_EQ(image.pixelColor(delegate.tileSize().width() / 2, 4).rgb(), frame.rgb());
        EXPECT_EQ(delegate.takePaintedProcessing(), c.state == CImageModel::Processing);
        // A verdict fills its band in its own colour (probed left of the badge).
        if (c.look != Look::Plain && c.look != Look::Waiting && c.look != Look::Processing)
        {
            EXPECT_EQ(image.pixelColor(10, delegate.tileSize().height() - 24).rgb(),
                      CGalleryDelegate::lookColor(c.look).rgb());
        }
    }
    // Waiting, not found, not compared, error and the four classes: all distinct.
    EXPECT_EQ(verdictColours.size(), 8);
    EXPECT_EQ(badges.size(), 8);
    model.stopThread();

    // The busy indicator's frame wraps around.
    for (int i = 0; i < CGalleryDelegate::LoadingFrames; ++i)
        delegate.nextFrame();
    EXPECT_EQ(delegate.frame(), 0);
    delegate.nextFrame();
    EXPECT_EQ(delegate.frame(), 1);
}

TEST_F(GalleryTest, PreviewShowsPathSizeAndDateOfSelectedPhotoBesideTheTiles)
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

    m_gallery.show();
    ASSERT_TRUE(QMetaObject::invokeMethod(&m_gallery, "setFiles", Q_ARG(QFileInfoList, files)));
    ASSERT_EQ(m_gallery.model()->rowCount(), 3);
    EXPECT_EQ(m_gallery.imageModel()->thumbnailSize(), m_gallery.galleryDelegate()->thumbnailSize());
    m_gallery.imageModel()->setState(2, CImageModel::Processing);
    // Painting through the view, processing tile included, must be cheap and safe.
    EXPECT_FALSE(m_gallery.grab().isNull());
    EXPECT_TRUE(m_gallery.galleryDelegate()->takePaintedProcessing());
    m_gallery.imageModel()->setState(2, CImageModel::Idle);

    QFrame* preview = m_gallery.previewWidget();
    EXPECT_FALSE(preview->isVisible());
    m_gallery.imageModel()->setState(0, CImageModel::Fail);
    m_gallery.imageModel()->setResult(0, QVariant::fromValue(Result{false, 0.9498, 0.01, API::Success, 59.84}));
    m_gallery.setCurrentIndex(m_gallery.model()->index(0, 0));
    EXPECT_TRUE(preview->isVisible());
    // Beside the tiles, never over one.
    for (int row = 0; row < m_gallery.model()->rowCount(); ++row)
    {
        const QRect tile = m_gallery.visualRect(m_gallery.model()->index(row, 0))
                               .translated(m_gallery.viewport()->geometry().topLeft());
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
    m_gallery.imageModel()->setState(1, CImageModel::Processing);
    m_gallery.setFilterMask(CGalleryFilterModel::AllStates & ~CImageModel::Processing);
    EXPECT_EQ(m_gallery.model()->rowCount(), 2);
}

TEST_F(GalleryTest, TenThousandRowsMakeNoWidgetPerRow)
{
    // Rows need no file behind them until painted; listing them must not build
    // anything per row.
    QFileInfoList files;
    for (int i = 0; i < 10000; ++i)
        files << QFileInfo(m_dir.filePath(QStringLiteral("missing%1.png").arg(i)));
    m_gallery.show();
    m_gallery.setFiles(files);
    m_gallery.scrollToBottom();
    QCoreApplication::processEvents();
    EXPECT_EQ(m_gallery.model()->rowCount(), 10000);
    // One live tile at most, however many rows: the rest are painted.
    EXPECT_EQ(m_gallery.viewport()->findChildren<CGalleryItem*>().size(), 1);
    EXPECT_LT(m_gallery.viewport()->findChildren<QWidget*>().size(), 20);
}

// The live tile under the pointer, in the program's own style so its fonts and
// paddings count: its actions row, the desktop hand-over and the details.
TEST_F(GalleryTest, HoverTileOpensItsActionsRowAndShowsTheDetailResult)
{
    QList<QUrl> opened;
    CGalleryWidget::setUrlOpener([&](const QUrl& url) {
        opened << url;
        return true;
    });
    qApp->setStyleSheet(qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                                            quorvex::styleConstantsResourcePath()));
    m_gallery.show();
    const QFileInfoList files = makePhotos(3);
    const QString path = QDir::toNativeSeparators(files.at(0).absoluteFilePath());
    m_gallery.setFiles(files);
    m_gallery.imageModel()->setState(1, CImageModel::Processing);
    m_gallery.imageModel()->setState(2, CImageModel::Waiting);
    QCoreApplication::processEvents();

    CGalleryItem* item = m_gallery.hoverItem();
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->isVisible());
    EXPECT_EQ(item->actionsPanel()->maximumHeight(), 0);

    // The pointer enters the first tile: the actions row slides open to its
    // preferred height, and the content follows to the whole tile.
    const QModelIndex first = m_gallery.model()->index(0, 0);
    enter(0);
    EXPECT_TRUE(item->isVisible());
    EXPECT_EQ(item->geometry(), m_gallery.visualRect(first));
    EXPECT_EQ(item->filePath(), first.data(CImageModel::PathRole).toString());
    const int open = item->actionsPanel()->sizeHint().height();
    EXPECT_GT(open, 0);
    EXPECT_EQ(item->actionsAnimation()->endValue().toInt(), open);
    const QRect whole(QPoint(0, 0), item->size());
    EXPECT_EQ(item->contentAnimation()->endValue().toRect(), whole);
    EXPECT_TRUE(testutils::waitFor([&] { return item->actionsPanel()->maximumHeight() == open; }));
    EXPECT_TRUE(testutils::waitFor([&] { return item->contentWidget()->geometry() == whole; }));
    EXPECT_EQ(item->contentWidget()->property("state").toString(), QStringLiteral("normal"));
    EXPECT_FALSE(item->loadingIcon()->isVisible());

    // The name is elided at its start; its tooltip gives the whole path.
    auto* name = item->findChild<QLabel*>(QStringLiteral("fileName"));
    ASSERT_TRUE(name);
    EXPECT_EQ(name->toolTip(), path);
    auto button = [&](const char* objectName) {
        return item->findChild<QPushButton*>(QString::fromLatin1(objectName));
    };
    const std::pair<const char*, const char*> actions[] = {{"openFolderButton", "Open folder"},
                                                          {"externalViewerButton", "Show in external viewer"},
                                                          {"detailResultButton", "Show detail result"}};
    for (const auto& [objectName, label] : actions)
    {
        ASSERT_TRUE(button(objectName)) << objectName;
        EXPECT_EQ(button(objectName)->text(), QString::fromLatin1(label));
    }
    // The texts fit their buttons.
    for (const char* action : {"openFolderButton", "externalViewerButton"})
        EXPECT_LE(button(action)->sizeHint().width(), button(action)->width()) << action;
    // Nothing to detail before the photo has a result.
    EXPECT_FALSE(button("detailResultButton")->isVisibleTo(item));
    button("openFolderButton")->click();
    button("externalViewerButton")->click();
    EXPECT_EQ(opened, (QList<QUrl>{QUrl::fromLocalFile(files.at(0).absolutePath()),
                                   QUrl::fromLocalFile(files.at(0).absoluteFilePath())}));

    // Leaving closes it again, reports the tile and hands it back to the painter.
    QSignalSpy left(item, &CGalleryItem::mouseLeft);
    QEvent leave(QEvent::Leave);
    QCoreApplication::sendEvent(item, &leave);
    ASSERT_EQ(left.size(), 1);
    EXPECT_EQ(left.at(0).at(0).toModelIndex(), first);
    EXPECT_EQ(item->actionsAnimation()->endValue().toInt(), 0);
    EXPECT_TRUE(testutils::waitFor([&] { return !item->isVisible(); }));
    EXPECT_EQ(item->actionsPanel()->maximumHeight(), 0);

    // A photo being processed shows the turning indicator; a waiting one is plain.
    enter(1);
    EXPECT_TRUE(item->loadingIcon()->isVisible());
    const QImage before = item->loadingIcon()->pixmap(Qt::ReturnByValue).toImage();
    item->nextFrame();
    EXPECT_NE(item->loadingIcon()->pixmap(Qt::ReturnByValue).toImage(), before);
    enter(2);
    EXPECT_FALSE(item->loadingIcon()->isVisible());
    EXPECT_EQ(item->contentWidget()->property("state").toString(), QStringLiteral("normal"));
    // A result arriving for the hovered photo restyles the live tile.
    m_gallery.imageModel()->setState(2, CImageModel::SuccessHigh);
    EXPECT_TRUE(testutils::waitFor(
        [&] { return item->contentWidget()->property("state").toString() == QStringLiteral("success_high"); }));

    // With a result, the details: by the button, and by a double click.
    enter(0);
    m_gallery.imageModel()->setResult(0, QVariant::fromValue(Result{true, 0.9991, 0.0123, API::Success, 812.34}));
    EXPECT_TRUE(testutils::waitFor([&] { return button("detailResultButton")->isVisibleTo(item); }));
    const QString details = QStringLiteral("information|Analysis results|Path: %1<br/><br/>Result: match with very high "
                                           "probability<br/>Probability: 99.91%<br/>Correlation: 0.0123<br/>PCE 812.3, "
                                           "at or above the threshold of 60<br/>Status: Success<br/>Scale: 1.00, "
                                           "orientation: 0\u00b0, shift: 0, 0")
                                .arg(path);
    const QList<qcontrols::CDialogScript::SAnswer> ok = {{QMessageBox::Ok, {}}};
    EXPECT_EQ(testutils::shownWhile(ok, [&] { button("detailResultButton")->click(); }), QStringList{details});
    EXPECT_EQ(testutils::shownWhile(ok, [&] { QTest::mouseDClick(item, Qt::LeftButton); }), QStringList{details});
    // Without one, a double click opens the preview.
    m_gallery.imageModel()->setState(1, CImageModel::Idle);
    enter(1);
    QSignalSpy doubled(item, &CGalleryItem::doubleClicked);
    QTest::mouseDClick(item, Qt::LeftButton);
    ASSERT_EQ(doubled.size(), 1);
    EXPECT_TRUE(m_gallery.previewWidget()->isVisible());

    // Scrolling or re-filtering leaves the tile over the wrong photo: it goes.
    m_gallery.setFilterMask(CImageModel::Processing);
    EXPECT_FALSE(item->isVisible());
    CGalleryWidget::setUrlOpener({});
    qApp->setStyleSheet(QString());
    qcontrols::CStyleSheetManager::clear();
}

TEST_F(GalleryTest, DetailResultTextByClassAndStatus)
{
    const auto text = [](const Result& result, int state = 0) {
        return CGalleryWidget::detailResultText(QStringLiteral("p"), QVariant::fromValue(result), state);
    };
    const QString head = QStringLiteral("Path: p<br/><br/>Result: ");
    const struct
    {
        Result result;
        const char* part;
    } contained[] = {
        {{true, 0.995, 0.0123, API::Success, 812.34}, "Result: match with high probability<br/>"},
        {{true, 0.99, 0.0123, API::Success, 812.34}, "Result: match with medium probability<br/>"},
        {{true, 0.9899, 0.0123, API::Success, 812.34}, "Result: match with low probability<br/>Probability: 98.99%"},
        // A near miss reads as one.
        {{false, 0.9498, 0.0123, API::Success, 59.84},
         "Result: no match<br/>Probability: 94.98%<br/>Correlation: 0.0123<br/>PCE 59.8, below the threshold of 60<br/>"},
    };
    for (const auto& c : contained)
        EXPECT_TRUE(text(c.result).contains(QString::fromUtf8(c.part))) << text(c.result).toStdString();
    // A photo found at another scale says so.
    EXPECT_TRUE(text(Result{true, 0.9995, 0.02, API::Success, 900.0, QString(), 0.8, 90, 12, -3})
                    .endsWith(QStringLiteral("Scale: 0.80, orientation: 90\u00b0, shift: 12, -3")));
    // The learn screen's record of a reference photo (its 100.0 is no
    // fraction): used, not compared, so no probability at all.
    EXPECT_EQ(text(Result{false, 100.0}, CImageModel::SuccessVeryHigh), head + QStringLiteral("used for the fingerprint"));
    EXPECT_EQ(CGalleryWidget::detailResultText(QStringLiteral("a&b"), QVariant()),
              QStringLiteral("Path: a&amp;b<br/><br/>Result: no match"));
    // A photo that could not be compared is never shown as excluded, nor with
    // numbers that would look like a verdict.
    Result broken{false, 0.9498, 0.0123, API::BrokenImage, 59.84, QStringLiteral("JPEG truncated: <scan 2>")};
    EXPECT_EQ(text(broken),
              head + QStringLiteral("not compared: File cannot be opened<br/>Reason: JPEG truncated: &lt;scan 2&gt;"));
    broken.status = API::ImageFingerprintInconsistentSize;
    broken.reason = QStringLiteral("photo too small");
    EXPECT_EQ(text(broken), head + QStringLiteral("Not compared: Size is incompatible with fingerprint (photo too small)"));
    broken.status = API::InconsistentMetadata;
    broken.reason.clear();
    EXPECT_EQ(text(broken), head + QStringLiteral("Not compared: Different camera type"));
}

} // namespace
