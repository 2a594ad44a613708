// The photo model: roles, states, descriptions and results, and thumbnails
// decoded on its thread into the shared cache.
#include "imagemodel.h"

#include "qutils/quorvexapi.h"

#include "logcapture.h"
#include "testfiles.h"
#include "testutils.h"

#include <QElapsedTimer>
#include <QPainter>
#include <QPixmap>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // exiv2 0.27 hands out std::auto_ptr
#endif
#include <exiv2/exiv2.hpp>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#include "modelchecker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

namespace
{

class ImageModelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        CImageModel::clearThumbnailCache();
        CImageModel::setDecodeHook([this](const QString&) { ++m_decodes; });
    }

    void TearDown() override
    {
        CImageModel::setDecodeHook(nullptr);
        CImageModel::clearThumbnailCache();
    }

    // A picture whose left half is red and right half blue.
    QString savePicture(const QString& name, const QSize& size, const char* format = "PNG")
    {
        QImage image(size, QImage::Format_RGB32);
        image.fill(Qt::blue);
        QPainter painter(&image);
        painter.fillRect(QRect(0, 0, size.width() / 2, size.height()), Qt::red);
        painter.end();
        const QString path = m_dir.filePath(name);
        EXPECT_TRUE(image.save(path, format)) << path.toStdString();
        return path;
    }

    static void setOrientation(const QString& path, int exifOrientation)
    {
        auto image = Exiv2::ImageFactory::open(path.toStdString());
        ASSERT_TRUE(image.get());
        image->readMetadata();
        Exiv2::ExifData exif = image->exifData();
        exif["Exif.Image.Orientation"] = static_cast<uint16_t>(exifOrientation);
        image->setExifData(exif);
        image->writeMetadata();
    }

    // Asks for the thumbnail and waits until the model reports it.
    static QPixmap thumbnail(CImageModel& model, int row)
    {
        QSignalSpy spy(&model, &QAbstractItemModel::dataChanged);
        model.data(model.index(row), CImageModel::ImageRole);
        const bool arrived = testutils::waitFor([&] { return !spy.isEmpty(); });
        EXPECT_TRUE(arrived);
        return model.data(model.index(row), CImageModel::ImageRole).value<QPixmap>();
    }

    QTemporaryDir m_dir;
    std::atomic<int> m_decodes{0};
};

TEST_F(ImageModelTest, RolesNamesAndPlainValues)
{
    CImageModel model;
    testutils::CModelChecker checker(&model);
    const QString a = savePicture(QStringLiteral("a.png"), QSize(8, 8));
    const QString b = savePicture(QStringLiteral("b.png"), QSize(8, 8));
    model.setFiles({QFileInfo(a), QFileInfo(b)});

    ASSERT_EQ(model.rowCount(), 2);
    EXPECT_EQ(model.roleNames(), (QHash<int, QByteArray>{{0, "image"}, {1, "fileName"}, {2, "itemState"},
                                                         {3, "description"}, {4, "path"}, {5, "result"}}));
    EXPECT_EQ(CImageModel::ImageRole, Qt::DisplayRole);
    EXPECT_EQ(CImageModel::ResultRole, Qt::WhatsThisRole);

    const QModelIndex second = model.index(1);
    EXPECT_EQ(model.data(second, CImageModel::FileNameRole).toString(), QStringLiteral("b.png"));
    EXPECT_EQ(model.data(second, CImageModel::PathRole).toString(), QFileInfo(b).absoluteFilePath());
    EXPECT_EQ(model.data(second, CImageModel::ItemStateRole).value<CImageModel::State>(), CImageModel::Idle);
    EXPECT_EQ(model.data(second, CImageModel::ItemStateRole).toInt(), 2);
    EXPECT_TRUE(model.data(second, CImageModel::DescriptionRole).toString().isEmpty());
    EXPECT_FALSE(model.data(second, CImageModel::ResultRole).isValid());
    EXPECT_FALSE(model.data(second, Qt::UserRole).isValid());
    EXPECT_FALSE(model.data(model.index(2), CImageModel::FileNameRole).isValid());
    EXPECT_EQ(QMetaType::type("CImageModel::State"), qMetaTypeId<CImageModel::State>());
}

TEST_F(ImageModelTest, PlaceholdersFirstThenThumbnailsCellByCell)
{
    CImageModel model;
    testutils::CModelChecker checker(&model);
    model.setThumbnailSize(QSize(64, 64));
    QFileInfoList files;
    for (int i = 0; i < 3; ++i)
        files << QFileInfo(savePicture(QStringLiteral("p%1.png").arg(i), QSize(100, 50)));
    // Decodes are held until the placeholders are seen: the model checker
    // asks for every row as soon as the files are set, and a fast thread
    // would otherwise answer first. The gate outlives the model's thread.
    static QSemaphore gate;
    CImageModel::setDecodeHook([this](const QString&) {
        gate.acquire();
        ++m_decodes;
    });
    model.setFiles(files);

    QSignalSpy spy(&model, &QAbstractItemModel::dataChanged);
    for (int row = 0; row < 3; ++row)
    {
        const QPixmap placeholder = model.data(model.index(row), CImageModel::ImageRole).value<QPixmap>();
        EXPECT_EQ(placeholder.size(), QSize(64, 64));
        EXPECT_EQ(qAlpha(placeholder.toImage().pixel(32, 32)), 0);
        // Asked again while its decode is pending: no second decode.
        model.data(model.index(row), CImageModel::ImageRole);
    }
    gate.release(1000);
    ASSERT_TRUE(testutils::waitFor([&] { return spy.size() >= 3; }));

    QList<int> rows;
    for (const QList<QVariant>& signal : spy)
    {
        const QModelIndex topLeft = signal.at(0).toModelIndex();
        EXPECT_EQ(topLeft, signal.at(1).toModelIndex());
        EXPECT_EQ(signal.at(2).value<QVector<int>>(), QVector<int>{CImageModel::ImageRole});
        rows << topLeft.row();
    }
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ(rows, (QList<int>{0, 1, 2}));

    const QImage shown = model.data(model.index(1), CImageModel::ImageRole).value<QPixmap>().toImage();
    ASSERT_EQ(shown.size(), QSize(64, 32));
    EXPECT_EQ(QColor(shown.pixel(5, 16)), QColor(Qt::red));
    EXPECT_EQ(QColor(shown.pixel(58, 16)), QColor(Qt::blue));
    EXPECT_EQ(m_decodes.load(), 3);

    // Another model finds them in the shared cache without decoding again.
    CImageModel other;
    other.setThumbnailSize(QSize(64, 64));
    other.setFiles(files);
    EXPECT_EQ(other.data(other.index(2), CImageModel::ImageRole).value<QPixmap>().size(), QSize(64, 32));
    QThread::msleep(50);
    QCoreApplication::processEvents();
    EXPECT_EQ(m_decodes.load(), 3);
}

// An unreadable file gets an empty thumbnail, cached like any other.
TEST_F(ImageModelTest, TurnedPhotoFitsTheBoxAndStandsUprightAndABrokenOneIsEmpty)
{
    const QString broken = m_dir.filePath(QStringLiteral("broken.jpg"));
    ASSERT_TRUE(testutils::writeFile(broken, "not a picture at all"));
    // Stored landscape, left half red; orientation 6 means it is shown turned
    // a quarter clockwise, so the red half ends up on top.
    const QString path = savePicture(QStringLiteral("turned.jpg"), QSize(80, 40), "JPEG");
    setOrientation(path, 6);
    const QString plain = savePicture(QStringLiteral("plain.jpg"), QSize(80, 40), "JPEG");

    CImageModel model;
    // A wide, low box: the upright picture is portrait, so its height decides.
    model.setThumbnailSize(QSize(100, 40));
    model.setFiles({QFileInfo(path), QFileInfo(plain), QFileInfo(broken)});

    const QImage turned = thumbnail(model, 0).toImage();
    ASSERT_EQ(turned.size(), QSize(20, 40));
    const QColor top(turned.pixel(10, 4));
    const QColor bottom(turned.pixel(10, 35));
    EXPECT_GT(top.red(), 200);
    EXPECT_LT(top.blue(), 80);
    EXPECT_GT(bottom.blue(), 200);
    EXPECT_LT(bottom.red(), 80);

    EXPECT_EQ(thumbnail(model, 1).size(), QSize(80, 40));
    EXPECT_TRUE(thumbnail(model, 2).isNull());
    EXPECT_TRUE(CImageModel::isThumbnailCached(QFileInfo(broken)));
}

TEST_F(ImageModelTest, SetFilesKeepsDescriptionsAndResultsButResetsStates)
{
    CImageModel model;
    testutils::CModelChecker checker(&model);
    const QFileInfo a(savePicture(QStringLiteral("a.png"), QSize(4, 4)));
    const QFileInfo b(savePicture(QStringLiteral("b.png"), QSize(4, 4)));
    const QFileInfo c(savePicture(QStringLiteral("c.png"), QSize(4, 4)));
    model.setFiles({a, b});

    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    model.setState(0, CImageModel::SuccessHigh);
    model.setDescription(1, QStringLiteral("<b>matched</b>"));
    model.setResult(1, QVariant::fromValue(qutils::CQuorvexAPI::SAnalysisResult{true, 0.997, 0.0, qutils::CQuorvexAPI::Success}));
    // Each change is reported for its own row and role only.
    ASSERT_EQ(changed.size(), 3);
    const int roles[] = {CImageModel::ItemStateRole, CImageModel::DescriptionRole, CImageModel::ResultRole};
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EQ(changed.at(i).at(0).toModelIndex().row(), i == 0 ? 0 : 1);
        EXPECT_EQ(changed.at(i).at(2).value<QVector<int>>(), QVector<int>{roles[i]});
    }
    EXPECT_EQ(model.data(model.index(0), CImageModel::ItemStateRole).toInt(), 32);

    QSignalSpy aboutToChange(&model, &QAbstractItemModel::layoutAboutToBeChanged);
    QSignalSpy layoutChanged(&model, &QAbstractItemModel::layoutChanged);
    // b moves to the front, a leaves, c is new.
    model.setFiles({b, c});
    EXPECT_EQ(aboutToChange.size(), 1);
    EXPECT_EQ(layoutChanged.size(), 1);
    ASSERT_EQ(model.rowCount(), 2);
    EXPECT_EQ(model.data(model.index(0), CImageModel::DescriptionRole).toString(),
              QStringLiteral("<b>matched</b>"));
    const auto kept =
        model.data(model.index(0), CImageModel::ResultRole).value<qutils::CQuorvexAPI::SAnalysisResult>();
    EXPECT_TRUE(kept.matched);
    EXPECT_DOUBLE_EQ(kept.probability, 0.997);
    EXPECT_TRUE(model.data(model.index(1), CImageModel::DescriptionRole).toString().isEmpty());
    EXPECT_EQ(model.data(model.index(0), CImageModel::ItemStateRole).toInt(), 2);
    EXPECT_EQ(model.data(model.index(1), CImageModel::ItemStateRole).toInt(), 2);

    // A file that comes back has lost its state.
    model.setFiles({a});
    EXPECT_EQ(model.data(model.index(0), CImageModel::ItemStateRole).toInt(), 2);
}

TEST_F(ImageModelTest, SetStateChecksItsIndex)
{
    CImageModel model;
    model.setFiles({QFileInfo(savePicture(QStringLiteral("a.png"), QSize(4, 4))),
                    QFileInfo(savePicture(QStringLiteral("b.png"), QSize(4, 4)))});
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    // The count itself passes the check without touching any row.
    for (const auto& [row, refused] : {std::pair{-1, true}, std::pair{3, true}, std::pair{2, false}})
    {
        testutils::CLogCapture log;
        model.setState(row, CImageModel::Fail);
        EXPECT_EQ(log.text().contains(QStringLiteral("Invalid item index")), refused) << row;
        EXPECT_EQ(log.hasRecord(QStringLiteral("Debug"), QStringLiteral("quorvex/imagemodel.cpp")), refused) << row;
    }
    EXPECT_TRUE(changed.isEmpty());
    EXPECT_EQ(model.data(model.index(0), CImageModel::ItemStateRole).toInt(), 2);
    EXPECT_EQ(model.data(model.index(1), CImageModel::ItemStateRole).toInt(), 2);

    model.setState(1, CImageModel::Processing);
    ASSERT_EQ(changed.size(), 1);
    EXPECT_EQ(changed.at(0).at(0).toModelIndex().row(), 1);
    EXPECT_EQ(model.data(model.index(1), CImageModel::ItemStateRole).toInt(), 4);
}

TEST_F(ImageModelTest, CacheDropsTheOldestInsertionFirst)
{
    CImageModel model;
    EXPECT_EQ(model.thumbnailCacheLimit(), 5000);
    model.setThumbnailCacheLimit(3);
    model.setThumbnailSize(QSize(8, 8));
    QFileInfoList files;
    for (int i = 0; i < 4; ++i)
        files << QFileInfo(savePicture(QStringLiteral("e%1.png").arg(i), QSize(8, 8)));
    model.setFiles(files);

    for (int row = 0; row < 3; ++row)
        thumbnail(model, row);
    // A lookup does not make the first one younger.
    EXPECT_FALSE(model.data(model.index(0), CImageModel::ImageRole).value<QPixmap>().isNull());
    thumbnail(model, 3);

    EXPECT_EQ(CImageModel::thumbnailCacheCount(), 3);
    EXPECT_FALSE(CImageModel::isThumbnailCached(files.at(0)));
    EXPECT_TRUE(CImageModel::isThumbnailCached(files.at(1)));
    EXPECT_TRUE(CImageModel::isThumbnailCached(files.at(3)));
    EXPECT_EQ(m_decodes.load(), 4);

    // Shown again, it is decoded again and pushes out the next oldest.
    thumbnail(model, 0);
    EXPECT_EQ(m_decodes.load(), 5);
    EXPECT_TRUE(CImageModel::isThumbnailCached(files.at(0)));
    EXPECT_FALSE(CImageModel::isThumbnailCached(files.at(1)));
}

TEST_F(ImageModelTest, DestructionWaitsForTheDecodeInProgress)
{
    QSemaphore started;
    std::atomic<bool> finished{false};
    CImageModel::setDecodeHook(
        [&](const QString&)
        {
            started.release();
            QThread::msleep(300);
            finished.store(true);
        });

    auto model = std::make_unique<CImageModel>();
    model->setThumbnailSize(QSize(16, 16));
    QFileInfoList files;
    for (int i = 0; i < 3; ++i)
        files << QFileInfo(savePicture(QStringLiteral("d%1.png").arg(i), QSize(32, 32)));
    model->setFiles(files);
    for (int row = 0; row < 3; ++row)
        model->data(model->index(row), CImageModel::ImageRole);

    ASSERT_TRUE(started.tryAcquire(1, 5000));
    QElapsedTimer timer;
    timer.start();
    model.reset();
    EXPECT_TRUE(finished.load());
    EXPECT_GE(timer.elapsed(), 100);
    // The rest of the queue was dropped: only the one decode ran.
    EXPECT_EQ(started.available(), 0);
    CImageModel::setDecodeHook(nullptr);
    // Its report arrives at no model.
    QCoreApplication::processEvents();
}

} // namespace
