// Files as a suspect's material might shape them: absurd sizes, expanding
// data, nothing at all, files that vanish, folders that loop. None may crash,
// hang or take the machine's memory; each gets a clear answer.
#include "fingerprint.h"
#include "generatortask.h"
#include "imagemodel.h"
#include "multiplethreadanalyzer.h"
#include "photolisting.h"

#include "qutils/quorvexapi.h"
#include "simcamera.h"
#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>
#include <zlib.h>

using qutils::CQuorvexAPI;

namespace
{

// Peak resident memory of this process so far, in MiB.
double peakMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0;
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

// A TIFF whose header promises width × height grey pixels in one deflate
// strip that holds only the given number of zero bytes.
void writeDeflateTiff(const QString& path, uint32_t width, uint32_t height, size_t zeroBytes)
{
    TIFF* tiff = TIFFOpen(QFile::encodeName(path).constData(), "w");
    ASSERT_TRUE(tiff);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, height);
    const std::vector<Bytef> zeros(zeroBytes, 0);
    uLongf packedSize = compressBound(static_cast<uLong>(zeros.size()));
    std::vector<Bytef> packed(packedSize);
    ASSERT_EQ(compress2(packed.data(), &packedSize, zeros.data(), static_cast<uLong>(zeros.size()), 9), Z_OK);
    ASSERT_GE(TIFFWriteRawStrip(tiff, 0, packed.data(), static_cast<tmsize_t>(packedSize)), 0);
    TIFFClose(tiff);
}

class HostileInputTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new QTemporaryDir;
        const QFileInfoList references =
            testutils::shootSeries(camsim::Camera(testutils::simCamera(21)), 700, 4, s_dir->path());
        s_photo = references.first().absoluteFilePath();
        s_fingerprint = s_dir->filePath(QStringLiteral("camera.fnp"));
        ASSERT_EQ(CFingerprint::createFingerprint(references, QFileInfo(s_fingerprint), nullptr), CQuorvexAPI::Success);
    }
    static void TearDownTestSuite()
    {
        delete s_dir;
        s_dir = nullptr;
    }

    static std::shared_ptr<CFingerprint> fingerprint()
    {
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        return CFingerprint::load(QFileInfo(s_fingerprint), &status);
    }

    QString path(const QString& name) const { return m_dir.filePath(name); }

    static QTemporaryDir* s_dir;
    static QString s_photo;
    static QString s_fingerprint;
    QTemporaryDir m_dir;
};

QTemporaryDir* HostileInputTest::s_dir = nullptr;
QString HostileInputTest::s_photo;
QString HostileInputTest::s_fingerprint;

} // namespace

TEST_F(HostileInputTest, AbsurdSizesAreRefusedBeforeAnythingIsAllocated)
{
    // A real JPEG whose frame header claims 65,535 × 65,535 pixels (51 GB as floats).
    QByteArray jpeg = readAll(s_photo);
    const int sof = jpeg.indexOf(QByteArray("\xFF\xC0", 2));
    ASSERT_GT(sof, 0);
    for (int i = 5; i <= 8; ++i)
        jpeg[sof + i] = char(0xFF);
    const QString huge = path(QStringLiteral("huge.jpg"));
    writeAll(huge, jpeg);
    // A "zip bomb": 30,000 × 30,000 pixels promised by a few hundred bytes.
    const QString bomb = path(QStringLiteral("bomb.tif"));
    writeDeflateTiff(bomb, 30000, 30000, 1 << 20);
    // Under the pixel limit but its data runs out long before the pixels do.
    const QString short_ = path(QStringLiteral("short.tif"));
    writeDeflateTiff(short_, 9000, 9000, 1 << 16);
    ASSERT_LT(QFileInfo(bomb).size(), 10000);

    const double before = peakMiB();
    const auto fp = fingerprint();
    ASSERT_TRUE(fp);
    // Matching: none of them can be this camera's photo. The two absurd ones
    // are refused as unreadable; the 9,000-pixel one is larger than the
    // fingerprint, so it is answered "no match" from its header alone.
    for (const QString& photo : {huge, bomb, short_})
        EXPECT_FALSE(fp->match(QFileInfo(photo), false).matched) << photo.toStdString();
    EXPECT_EQ(fp->match(QFileInfo(huge), false).status, CQuorvexAPI::BrokenImage) << "beyond what JPEG allows";
    EXPECT_EQ(fp->match(QFileInfo(bomb), false).status, CQuorvexAPI::LargeResolution);
    // Learning reads every photo in full: the same refusals, named by status.
    // (Distinct files each time: a photo given twice is refused before the engine.)
    const QFileInfoList withHuge = {QFileInfo(s_photo), QFileInfo(huge),
                                    QFileInfo(s_dir->filePath(QStringLiteral("ref1.jpg")))};
    EXPECT_EQ(CFingerprint::createFingerprint(withHuge, QFileInfo(path(QStringLiteral("x.fnp"))), nullptr),
              CQuorvexAPI::BrokenImage);
    QFileInfoList withBomb = {QFileInfo(bomb)};
    QFileInfoList shortOnes = {QFileInfo(short_)};
    for (int i = 1; i < 3; ++i)
    {
        withBomb.append(QFileInfo(path(QStringLiteral("bomb%1.tif").arg(i))));
        writeDeflateTiff(withBomb.last().filePath(), 30000, 30000 - i, 1 << 20);
        shortOnes.append(QFileInfo(path(QStringLiteral("short%1.tif").arg(i))));
        writeDeflateTiff(shortOnes.last().filePath(), 9000, 9000 - i, 1 << 16);
    }
    EXPECT_EQ(CFingerprint::createFingerprint(withBomb, QFileInfo(path(QStringLiteral("y.fnp"))), nullptr),
              CQuorvexAPI::LargeResolution);
    // Three short ones are decoded until their data runs out.
    EXPECT_EQ(CFingerprint::createFingerprint(shortOnes, QFileInfo(path(QStringLiteral("w.fnp"))), nullptr),
              CQuorvexAPI::BrokenImage);
    // Thumbnails and the preview never decode them at their claimed size.
    EXPECT_TRUE(CImageModel::CPixmapThread::loadThumbnail(huge, QSize(150, 110)).width() <= 150);
    EXPECT_TRUE(CImageModel::CPixmapThread::loadThumbnail(bomb, QSize(150, 110)).width() <= 150);
    // The 9,000 × 9,000 photo is the one a decoder may legitimately start on
    // (81 MP of grey); nothing near the gigabytes the others claim was taken.
    EXPECT_LT(peakMiB() - before, 1500.0) << "peak grew from " << before << " MiB";
}

TEST_F(HostileInputTest, EmptyAndVanishingPhotosGetAStatusAndTheRestGoOn)
{
    const QString empty = path(QStringLiteral("empty.jpg"));
    writeAll(empty, QByteArray());
    const QString vanishing = path(QStringLiteral("vanishing.jpg"));
    ASSERT_TRUE(QFile::copy(s_photo, vanishing));
    const QString good = path(QStringLiteral("good.jpg"));
    ASSERT_TRUE(QFile::copy(s_photo, good));

    // Listed while it was there, gone when its turn comes.
    const QFileInfoList listed = listPhotos(QDir(m_dir.path()), false);
    ASSERT_EQ(listed.size(), 3);
    ASSERT_TRUE(QFile::remove(vanishing));
    CMultipleThreadAnalyzer analyzer(listed, fingerprint(), false, nullptr, 2);
    bool finished = false;
    QObject::connect(&analyzer, &CMultipleThreadAnalyzer::finished, [&] { finished = true; });
    analyzer.start();
    ASSERT_TRUE(testutils::waitFor([&] { return finished; }, 120000));
    EXPECT_EQ(analyzer.analyzedCount(), 3);
    EXPECT_EQ(analyzer.result(QFileInfo(good).absoluteFilePath()).status, CQuorvexAPI::Success);
    EXPECT_TRUE(analyzer.result(QFileInfo(good).absoluteFilePath()).matched);
    for (const QString& bad : {empty, vanishing})
    {
        const CQuorvexAPI::SAnalysisResult result = analyzer.result(QFileInfo(bad).absoluteFilePath());
        EXPECT_FALSE(result.matched) << bad.toStdString();
        EXPECT_NE(result.status, CQuorvexAPI::Success) << bad.toStdString();
        EXPECT_NE(result.status, CQuorvexAPI::Invalid) << "a real status: " << bad.toStdString();
    }
    // Learning with an empty photo names the failure instead of crashing.
    const QFileInfo other(s_dir->filePath(QStringLiteral("ref1.jpg")));
    EXPECT_NE(CFingerprint::createFingerprint({QFileInfo(good), QFileInfo(empty), other},
                                              QFileInfo(path(QStringLiteral("z.fnp"))), nullptr),
              CQuorvexAPI::Success);
    EXPECT_TRUE(CImageModel::CPixmapThread::loadThumbnail(empty, QSize(100, 100)).isNull());
}

TEST_F(HostileInputTest, FoldersThatLoopOrCannotBeReadStillList)
{
    QDir root(m_dir.path());
    ASSERT_TRUE(root.mkpath(QStringLiteral("a/b")));
    ASSERT_TRUE(QFile::copy(s_photo, root.filePath(QStringLiteral("a/b/one.jpg"))));
    ASSERT_TRUE(QFile::copy(s_photo, root.filePath(QStringLiteral("top.jpg"))));
    // Links back up the tree, and one to itself.
    ASSERT_TRUE(QFile::link(root.absolutePath(), root.filePath(QStringLiteral("a/b/up"))));
    ASSERT_TRUE(QFile::link(root.filePath(QStringLiteral("a/self")), root.filePath(QStringLiteral("a/self"))));
    ASSERT_TRUE(root.mkpath(QStringLiteral("locked")));
    ASSERT_TRUE(QFile::copy(s_photo, root.filePath(QStringLiteral("locked/hidden.jpg"))));
    QFile::setPermissions(root.filePath(QStringLiteral("locked")), QFileDevice::Permissions());
    // A pipe with a photo's name, and a link to it: opening either would wait for a writer.
    ASSERT_EQ(::mkfifo(QFile::encodeName(root.filePath(QStringLiteral("a/pipe.jpg"))).constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(root.filePath(QStringLiteral("a/pipe.jpg")), root.filePath(QStringLiteral("to-pipe.jpg"))));

    QList<SRefusedFile> refused;
    const QFileInfoList photos = listPhotos(root, true, nullptr, nullptr, &refused);
    QFile::setPermissions(root.filePath(QStringLiteral("locked")),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QStringList names;
    for (const QFileInfo& photo : photos)
        names << QDir(root).relativeFilePath(photo.absoluteFilePath());
    names.sort();
    // Every real photo once; the links are not followed round and round.
    QStringList expected = {QStringLiteral("a/b/one.jpg"), QStringLiteral("top.jpg")};
    if (geteuid() == 0)
        expected << QStringLiteral("locked/hidden.jpg"); // permissions do not bind the superuser
    expected.sort();
    EXPECT_EQ(names, expected);
    QStringList refusedNames;
    for (const SRefusedFile& file : refused)
    {
        refusedNames << QDir(root).relativeFilePath(file.path);
        EXPECT_TRUE(file.reason.contains(QStringLiteral("not a regular file"))) << file.reason.toStdString();
    }
    refusedNames.sort();
    EXPECT_EQ(refusedNames, (QStringList{QStringLiteral("a/pipe.jpg"), QStringLiteral("to-pipe.jpg")}));
    // A photo swapped for a pipe after listing: thumbnails and the report refuse it at once.
    EXPECT_TRUE(
        CImageModel::CPixmapThread::loadThumbnail(root.filePath(QStringLiteral("to-pipe.jpg")), QSize(99, 99))
            .isNull());
    EXPECT_FALSE(CGeneratorTask::writeThumbnail(root.filePath(QStringLiteral("a/pipe.jpg")),
                                                path(QStringLiteral("t.jpg"))));
}
