#include "qutils/fileutils.h"

#include <QColor>
#include <QCryptographicHash>
#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QSizeF>
#include <QTemporaryDir>
#include <QTime>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // exiv2 0.27 hands out std::auto_ptr
#endif
#include <exiv2/exiv2.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>

using qutils::EXIFInfo;
using P = qutils::EXIFMetadataProperty;
using Lens = EXIFInfo::LensInfo_t;

namespace
{

using Tags = std::vector<std::pair<const char*, std::string>>;

// The full set of fields a modern camera writes; values are chosen so that
// each formats to a known text.
const Tags kFullTags = {
    {"Exif.Image.Make", "Canon"},
    {"Exif.Image.Model", "  Canon EOS 80D  "},
    {"Exif.Image.Copyright", std::string("Alice Example\0Bob Editor", 24)},
    {"Exif.Image.ImageDescription", "Harbour at dawn"},
    {"Exif.Image.Software", "Firmware 1.0.2"},
    {"Exif.Image.XResolution", "300/1"},
    {"Exif.Image.YResolution", "300/1"},
    {"Exif.Image.ResolutionUnit", "2"},
    {"Exif.Image.Orientation", "6"},
    {"Exif.Photo.DateTimeOriginal", "2021:06:15 14:30:05"},
    {"Exif.Photo.OffsetTimeOriginal", "+02:00"},
    {"Exif.Photo.DateTimeDigitized", "2021:06:15 14:30:06"},
    {"Exif.Photo.ExposureTime", "1/250"},
    {"Exif.Photo.FNumber", "28/10"},
    {"Exif.Photo.FocalLength", "35/1"},
    {"Exif.Photo.ISOSpeedRatings", "400"},
    {"Exif.Photo.ExposureBiasValue", "2/3"},
    {"Exif.Photo.ShutterSpeedValue", "8/1"},
    {"Exif.Photo.SubjectDistance", "35/10"},
    {"Exif.Photo.Flash", "25"},
    {"Exif.Photo.MeteringMode", "5"},
    {"Exif.Photo.LensSpecification", "18/1 55/1 35/10 56/10"},
    {"Exif.Photo.LensMake", "Canon"},
    {"Exif.Photo.LensModel", "EF-S18-55mm f/3.5-5.6 IS STM"},
    {"Exif.GPSInfo.GPSLatitudeRef", "S"},
    {"Exif.GPSInfo.GPSLatitude", "33/1 52/1 768/100"},
    {"Exif.GPSInfo.GPSLongitudeRef", "W"},
    {"Exif.GPSInfo.GPSLongitude", "151/1 12/1 3600/100"},
    {"Exif.GPSInfo.GPSAltitudeRef", "1"},
    {"Exif.GPSInfo.GPSAltitude", "125/2"},
    {"Exif.GPSInfo.GPSDateStamp", "2021:06:15"},
    {"Exif.GPSInfo.GPSTimeStamp", "12/1 30/1 5/1"},
};

class FileUtilsTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    QString path(const QString& name) const { return QDir(m_dir.path()).filePath(name); }

    // A small picture saved by Qt: a JPEG from Qt carries no EXIF block.
    QString savePicture(const QString& name, int width = 64, int height = 48)
    {
        QImage image(width, height, QImage::Format_RGB32);
        image.fill(QColor(40, 90, 160));
        const QString file = path(name);
        EXPECT_TRUE(image.save(file)) << file.toStdString();
        return file;
    }

    static void writeTags(const QString& file, const Tags& tags)
    {
        auto image = Exiv2::ImageFactory::open(file.toStdString());
        ASSERT_TRUE(image.get());
        image->readMetadata();
        Exiv2::ExifData exif = image->exifData();
        for (const auto& tag : tags)
            exif[tag.first].setValue(tag.second);
        image->setExifData(exif);
        image->writeMetadata();
    }

    QString photoWithTags(const QString& name, const Tags& tags)
    {
        const QString file = savePicture(name);
        writeTags(file, tags);
        return file;
    }

    static EXIFInfo::Properties readOk(const QString& file)
    {
        EXIFInfo::Properties properties;
        EXPECT_TRUE(EXIFInfo::read(file, properties)) << file.toStdString();
        return properties;
    }

    static QString formatted(const EXIFInfo::Properties& properties, P id)
    {
        return EXIFInfo::formatValue(id, properties.value(id));
    }

    QTemporaryDir m_dir;
};

QString degrees(const char* number, const char* hemisphere)
{
    return QString::fromLatin1(number) + QChar(0x00B0) + QLatin1Char(' ') + QString::fromLatin1(hemisphere);
}

} // namespace

TEST_F(FileUtilsTest, ReadsEveryFieldOfAFullPhoto)
{
    const EXIFInfo::Properties p = readOk(photoWithTags(QStringLiteral("full.jpg"), kFullTags));

    EXPECT_EQ(p.value(P::CameraManufacturer).toString(), QStringLiteral("Canon"));
    EXPECT_EQ(p.value(P::CameraModel).toString(), QStringLiteral("Canon EOS 80D")) << "trimmed";
    EXPECT_EQ(p.value(P::Copyright).toString(), QStringLiteral("Alice Example")) << "cut at the NUL";
    EXPECT_EQ(p.value(P::Description).toString(), QStringLiteral("Harbour at dawn"));
    EXPECT_EQ(p.value(P::Software).toString(), QStringLiteral("Firmware 1.0.2"));
    EXPECT_EQ(p.value(P::Format).toString(), QStringLiteral("image/jpeg"));
    EXPECT_EQ(p.value(P::Width).toInt(), 64);
    EXPECT_EQ(p.value(P::Height).toInt(), 48);
    EXPECT_EQ(p.value(P::Resolution).toSizeF(), QSizeF(300, 300));

    const QDateTime original = p.value(P::DateTimeOriginal).toDateTime();
    EXPECT_EQ(original.date(), QDate(2021, 6, 15));
    EXPECT_EQ(original.time(), QTime(14, 30, 5));
    EXPECT_EQ(original.offsetFromUtc(), 7200) << "the offset tag applies";
    const QDateTime digitized = p.value(P::DateTimeDigitized).toDateTime();
    EXPECT_EQ(digitized, QDateTime(QDate(2021, 6, 15), QTime(14, 30, 6), Qt::LocalTime));
    EXPECT_EQ(p.value(P::GPSDateTime).toDateTime(), QDateTime(QDate(2021, 6, 15), QTime(12, 30, 5), Qt::UTC));
    EXPECT_EQ(p.value(P::GPSDateTime).toDateTime().timeSpec(), Qt::UTC);

    EXPECT_DOUBLE_EQ(p.value(P::ExposureTime).toDouble(), 1.0 / 250.0);
    EXPECT_DOUBLE_EQ(p.value(P::FNumber).toDouble(), 2.8);
    EXPECT_DOUBLE_EQ(p.value(P::FocalLength).toDouble(), 35.0);
    EXPECT_EQ(p.value(P::ISOSpeedRatings).toInt(), 400);
    EXPECT_DOUBLE_EQ(p.value(P::ExposureBiasValue).toDouble(), 2.0 / 3.0);
    EXPECT_DOUBLE_EQ(p.value(P::ShutterSpeedValue).toDouble(), 1.0 / 256.0) << "APEX 8 is 2^-8 s";
    EXPECT_DOUBLE_EQ(p.value(P::SubjectDistance).toDouble(), 3.5);
    EXPECT_NEAR(p.value(P::GPSLatitude).toDouble(), -(33.0 + 52.0 / 60.0 + 7.68 / 3600.0), 1e-12);
    EXPECT_NEAR(p.value(P::GPSLongitude).toDouble(), -151.21, 1e-12);
    EXPECT_DOUBLE_EQ(p.value(P::GPSAltitude).toDouble(), -62.5) << "below sea level";
    EXPECT_EQ(p.value(P::Flash).toInt(), 25);
    EXPECT_EQ(p.value(P::MeteringMode).toInt(), 5);
    EXPECT_EQ(p.value(P::Orientation).toInt(), 90);

    ASSERT_EQ(p.value(P::LensInfo).userType(), qMetaTypeId<Lens>());
    const Lens lens = p.value(P::LensInfo).value<Lens>();
    EXPECT_DOUBLE_EQ(lens.minFocalLength, 18.0);
    EXPECT_DOUBLE_EQ(lens.maxFocalLength, 55.0);
    EXPECT_DOUBLE_EQ(lens.minFNumber, 3.5);
    EXPECT_DOUBLE_EQ(lens.maxFNumber, 5.6);
    EXPECT_EQ(lens.make, QStringLiteral("Canon"));
    EXPECT_EQ(lens.model, QStringLiteral("EF-S18-55mm f/3.5-5.6 IS STM"));

    // Every property of the table is there, and nothing else.
    EXPECT_EQ(p.size(), EXIFInfo::registered().size() - 1);
    EXPECT_FALSE(p.contains(P::Invalid));
}

TEST_F(FileUtilsTest, FormatsTheFullPhotoForTheReport)
{
    const EXIFInfo::Properties p = readOk(photoWithTags(QStringLiteral("full.jpg"), kFullTags));

    EXPECT_EQ(formatted(p, P::Resolution), QStringLiteral("300 x 300 dpi"));
    EXPECT_EQ(formatted(p, P::Width), QStringLiteral("64"));
    EXPECT_EQ(formatted(p, P::CameraModel), QStringLiteral("Canon EOS 80D"));
    EXPECT_EQ(formatted(p, P::Format), QStringLiteral("image/jpeg"));
    EXPECT_EQ(formatted(p, P::DateTimeOriginal), QStringLiteral("2021-06-15 14:30:05"));
    EXPECT_EQ(formatted(p, P::DateTimeDigitized), QStringLiteral("2021-06-15 14:30:06"));
    EXPECT_EQ(formatted(p, P::GPSDateTime), QStringLiteral("2021-06-15 12:30:05"));
    EXPECT_EQ(formatted(p, P::ExposureTime), QStringLiteral("1/250"));
    EXPECT_EQ(formatted(p, P::ShutterSpeedValue), QStringLiteral("1/256"));
    EXPECT_EQ(formatted(p, P::FNumber), QStringLiteral("f/2.8"));
    EXPECT_EQ(formatted(p, P::FocalLength), QStringLiteral("35 mm"));
    EXPECT_EQ(formatted(p, P::ISOSpeedRatings), QStringLiteral("400"));
    EXPECT_EQ(formatted(p, P::ExposureBiasValue), QStringLiteral("+0.7 EV"));
    EXPECT_EQ(formatted(p, P::SubjectDistance), QStringLiteral("3.5 m"));
    EXPECT_EQ(formatted(p, P::GPSLatitude), degrees("33.8688", "S"));
    EXPECT_EQ(formatted(p, P::GPSLongitude), degrees("151.21", "W"));
    EXPECT_EQ(formatted(p, P::GPSAltitude), QStringLiteral("-62.5 m"));
    EXPECT_EQ(formatted(p, P::Flash), QStringLiteral("Flash fired, auto"));
    EXPECT_EQ(formatted(p, P::MeteringMode), QStringLiteral("Matrix"));
    EXPECT_EQ(formatted(p, P::Orientation), QStringLiteral("90") + QChar(0x00B0));
    EXPECT_EQ(formatted(p, P::LensInfo), QStringLiteral("Canon EF-S18-55mm f/3.5-5.6 IS STM, 18-55 mm, f/3.5-5.6"));
}

TEST_F(FileUtilsTest, LongExposurePrimeLensNorthEastAndCentimetres)
{
    const EXIFInfo::Properties p = readOk(photoWithTags(
        QStringLiteral("second.jpg"), {
                                          {"Exif.Image.Make", "NIKON CORPORATION"},
                                          {"Exif.Image.ImageDescription", std::string("Caf\xE9")},
                                          {"Exif.Image.XResolution", "100/1"},
                                          {"Exif.Image.YResolution", "50/1"},
                                          {"Exif.Image.ResolutionUnit", "3"},
                                          {"Exif.Photo.ExposureTime", "2/1"},
                                          {"Exif.Photo.LensSpecification", "35/1 35/1 2/1 2/1"},
                                          {"Exif.Photo.SubjectDistance", "4294967295/1"},
                                          {"Exif.GPSInfo.GPSLatitudeRef", "N"},
                                          {"Exif.GPSInfo.GPSLatitude", "48/1 51/1 2412/100"},
                                          {"Exif.GPSInfo.GPSLongitudeRef", "E"},
                                          {"Exif.GPSInfo.GPSLongitude", "2/1 21/1 0/1"},
                                          {"Exif.GPSInfo.GPSAltitudeRef", "0"},
                                          {"Exif.GPSInfo.GPSAltitude", "35/1"},
                                          {"Exif.Photo.MeteringMode", "2"},
                                          {"Exif.Photo.Flash", "16"},
                                      }));

    EXPECT_EQ(p.value(P::Description).toString(), QStringLiteral("Caf") + QChar(0x00E9)) << "Latin-1 fallback";
    EXPECT_EQ(formatted(p, P::Resolution), QStringLiteral("254 x 127 dpi"));
    EXPECT_DOUBLE_EQ(p.value(P::ExposureTime).toDouble(), 2.0);
    EXPECT_EQ(formatted(p, P::ExposureTime), QStringLiteral("2 s"));
    EXPECT_TRUE(std::isinf(p.value(P::SubjectDistance).toDouble()));
    EXPECT_EQ(formatted(p, P::SubjectDistance), QString(QChar(0x221E)) + QStringLiteral(" m"));
    EXPECT_GT(p.value(P::GPSLatitude).toDouble(), 48.0);
    EXPECT_EQ(formatted(p, P::GPSLatitude), degrees("48.8567", "N"));
    EXPECT_EQ(formatted(p, P::GPSLongitude), degrees("2.35", "E"));
    EXPECT_DOUBLE_EQ(p.value(P::GPSAltitude).toDouble(), 35.0);
    EXPECT_EQ(formatted(p, P::MeteringMode), QStringLiteral("Average"));
    EXPECT_EQ(formatted(p, P::Flash), QStringLiteral("No flash, forced off"));

    const Lens lens = p.value(P::LensInfo).value<Lens>();
    EXPECT_TRUE(lens.model.isEmpty());
    EXPECT_EQ(formatted(p, P::LensInfo), QStringLiteral("35 mm, f/2")) << "a prime lens shows single values";

    // Properties the photo does not carry stay out of the map.
    for (const P absent : {P::CameraModel, P::Copyright, P::Software, P::DateTimeOriginal, P::DateTimeDigitized,
                           P::FNumber, P::FocalLength, P::ISOSpeedRatings, P::ShutterSpeedValue, P::GPSDateTime,
                           P::ExposureBiasValue, P::Orientation})
        EXPECT_FALSE(p.contains(absent)) << EXIFInfo::key(absent).toStdString();
}

TEST_F(FileUtilsTest, OrientationBecomesDegreesOfRotation)
{
    const QString file = savePicture(QStringLiteral("turned.jpg"));
    // Mirrored values give the rotation that stands the picture upright.
    const std::vector<std::pair<int, int>> cases = {{1, 0}, {2, 0},   {3, 180}, {4, 180},
                                                    {5, 90}, {6, 90}, {7, 270}, {8, 270}};
    for (const auto& c : cases)
    {
        writeTags(file, {{"Exif.Image.Orientation", std::to_string(c.first)}});
        const EXIFInfo::Properties p = readOk(file);
        EXPECT_EQ(p.value(P::Orientation).toInt(), c.second) << "EXIF orientation " << c.first;
        EXPECT_TRUE(p.contains(P::Orientation));
    }
    writeTags(file, {{"Exif.Image.Orientation", "9"}});
    EXPECT_FALSE(readOk(file).contains(P::Orientation)) << "an undefined value is no orientation";
}

TEST_F(FileUtilsTest, FNumberFallsBackToApertureValue)
{
    const EXIFInfo::Properties p =
        readOk(photoWithTags(QStringLiteral("apex.jpg"), {{"Exif.Photo.ApertureValue", "3/1"}}));
    EXPECT_NEAR(p.value(P::FNumber).toDouble(), std::exp2(1.5), 1e-12);
    EXPECT_EQ(formatted(p, P::FNumber), QStringLiteral("f/2.83"));
}

TEST_F(FileUtilsTest, PhotoWithoutExifGivesFalseAndAnEmptyMap)
{
    const QString file = savePicture(QStringLiteral("plain.jpg"));
    EXIFInfo::Properties properties;
    properties.insert(P::CameraModel, QStringLiteral("left over"));
    EXPECT_FALSE(EXIFInfo::read(file, properties));
    EXPECT_TRUE(properties.isEmpty()) << "an earlier result must not survive";
}

TEST_F(FileUtilsTest, UnreadableFilesGiveFalseAndNothingIsPrinted)
{
    const QString png = savePicture(QStringLiteral("picture.png"));
    const QString text = path(QStringLiteral("notes.jpg"));
    {
        QFile file(text);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("this is not a picture\n");
    }
    // Starts like a JPEG, then nonsense.
    const QString broken = path(QStringLiteral("broken.jpg"));
    {
        QFile file(broken);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("\xFF\xD8\xFF\xE1\x00\x10"
                              "Exif\x00\x00MM\x00\x2A\xFF\xFF",
                              18));
        file.write(QByteArray(300, '\x7F'));
    }
    // An EXIF block whose directory points outside itself: exiv2 would warn.
    const QString damaged = path(QStringLiteral("damaged.jpg"));
    {
        QFile file(damaged);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("\xFF\xD8\xFF\xE1\x00\x40"
                              "Exif\x00\x00II*\x00\x08\x00\x00\x00\x05\x00\x0F\x01\x02\x00\x50\x00\x00\x00\x99\x99",
                              28));
        file.write(QByteArray(200, '\0'));
    }
    // A real photo with EXIF, cut off inside its APP1 segment.
    const QString cut = photoWithTags(QStringLiteral("cut.jpg"), kFullTags);
    {
        QFile file(cut);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.resize(60));
    }
    // Special files would block the read forever (a hang ends in the timeout).
    const QString fifo = path(QStringLiteral("fifo.jpg"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QString fifoLink = path(QStringLiteral("link_to_fifo.jpg"));
    ASSERT_TRUE(QFile::link(fifo, fifoLink));
    const QStringList paths = {png,
                               text,
                               broken,
                               cut,
                               path(QStringLiteral("missing.jpg")),
                               m_dir.path(),
                               QString(),
                               QStringLiteral("-"),
                               fifo,
                               fifoLink,
                               QStringLiteral("/dev/zero")};

    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    std::vector<bool> results;
    std::vector<int> sizes;
    for (const QString& file : paths)
    {
        EXIFInfo::Properties properties;
        results.push_back(EXIFInfo::read(file, properties));
        sizes.push_back(properties.size());
    }
    EXIFInfo::Properties damagedProperties;
    const bool damagedOk = EXIFInfo::read(damaged, damagedProperties);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();

    for (size_t i = 0; i < results.size(); ++i)
    {
        EXPECT_FALSE(results[i]) << paths.at(static_cast<int>(i)).toStdString();
        EXPECT_EQ(sizes[i], 0) << paths.at(static_cast<int>(i)).toStdString();
    }
    EXPECT_EQ(out, std::string());
    EXPECT_EQ(err, std::string());

    // Nor are they hashed; a file of several read blocks hashes as a whole.
    for (int i = 4; i < paths.size(); ++i)
        EXPECT_TRUE(qutils::fileSha256(paths.at(i)).isEmpty()) << paths.at(i).toStdString();
    const QByteArray bytes(5 * 512 * 1024 + 7, 'q');
    const QString large = path(QStringLiteral("large.bin"));
    {
        QFile file(large);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }
    EXPECT_EQ(qutils::fileSha256(large),
              QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()));

    // The damaged block is still a block: what could be read is kept, the
    // manufacturer whose text lies outside the file is not.
    EXPECT_TRUE(damagedOk);
    EXPECT_FALSE(damagedProperties.contains(P::CameraManufacturer));
    EXPECT_EQ(damagedProperties.value(P::Format).toString(), QStringLiteral("image/jpeg"));
}

TEST_F(FileUtilsTest, FormatsNumbersAndCodes)
{
    const auto f = [](P id, const QVariant& v) { return EXIFInfo::formatValue(id, v); };
    EXPECT_EQ(f(P::ExposureTime, 1.0 / 250.0), QStringLiteral("1/250"));
    EXPECT_EQ(f(P::ExposureTime, 1.0 / 3.2), QStringLiteral("1/3")) << "the denominator is rounded";
    EXPECT_EQ(f(P::ExposureTime, 0.5), QStringLiteral("1/2"));
    EXPECT_EQ(f(P::ExposureTime, 0.8), QStringLiteral("0.8 s")) << "not 1/1";
    EXPECT_EQ(f(P::ExposureTime, 1.0), QStringLiteral("1 s"));
    EXPECT_EQ(f(P::ExposureTime, 2.5), QStringLiteral("2.5 s"));
    EXPECT_EQ(f(P::ExposureTime, 30.0), QStringLiteral("30 s"));
    EXPECT_EQ(f(P::FocalLength, 4.25), QStringLiteral("4.25 mm"));
    EXPECT_EQ(f(P::FocalLength, 50.0), QStringLiteral("50 mm"));
    EXPECT_EQ(f(P::FNumber, 1.8), QStringLiteral("f/1.8"));
    EXPECT_EQ(f(P::FNumber, 11.0), QStringLiteral("f/11"));
    EXPECT_EQ(f(P::SubjectDistance, 12.0), QStringLiteral("12 m"));
    EXPECT_EQ(f(P::ExposureBiasValue, 0.0), QStringLiteral("0 EV"));
    EXPECT_EQ(f(P::ExposureBiasValue, -1.0 / 3.0), QStringLiteral("-0.3 EV"));
    EXPECT_EQ(f(P::ExposureBiasValue, 1.0), QStringLiteral("+1 EV"));
    EXPECT_EQ(f(P::Resolution, QSizeF(72, 72)), QStringLiteral("72 x 72 dpi"));
    EXPECT_EQ(f(P::GPSLatitude, 0.5), degrees("0.5", "N"));
    EXPECT_EQ(f(P::GPSLongitude, -0.000001), degrees("0.000001", "W"));

    EXPECT_EQ(f(P::MeteringMode, 1), QStringLiteral("Average"));
    EXPECT_EQ(f(P::MeteringMode, 2), QStringLiteral("Average"));
    EXPECT_EQ(f(P::MeteringMode, 3), QStringLiteral("Spot"));
    EXPECT_EQ(f(P::MeteringMode, 5), QStringLiteral("Matrix"));
    EXPECT_EQ(f(P::MeteringMode, 0), QStringLiteral("Unknown"));
    EXPECT_EQ(f(P::MeteringMode, 255), QStringLiteral("Unknown"));
    EXPECT_EQ(f(P::Flash, 0), QStringLiteral("No flash"));
    EXPECT_EQ(f(P::Flash, 1), QStringLiteral("Flash fired"));
    EXPECT_EQ(f(P::Flash, 9), QStringLiteral("Flash fired, forced on"));
    EXPECT_EQ(f(P::Flash, 0x59), QStringLiteral("Flash fired, auto, red-eye reduction"));
    EXPECT_EQ(f(P::Flash, 0x20), QStringLiteral("No flash function"));

    const QDateTime when(QDate(2020, 2, 29), QTime(7, 5, 9), Qt::LocalTime);
    EXPECT_EQ(f(P::DateTimeOriginal, when), QStringLiteral("2020-02-29 07:05:09"));

    // Nothing to show for a missing value.
    EXPECT_TRUE(f(P::ExposureTime, QVariant()).isEmpty());
    EXPECT_TRUE(f(P::DateTimeOriginal, QVariant()).isEmpty());
    EXPECT_TRUE(f(P::CameraModel, QVariant()).isEmpty());
}

TEST_F(FileUtilsTest, FormatsLensRecords)
{
    Lens zoom;
    zoom.minFocalLength = 24;
    zoom.maxFocalLength = 105;
    zoom.minFNumber = 4;
    zoom.maxFNumber = 4;
    zoom.make = QStringLiteral("Canon");
    zoom.model = QStringLiteral("Canon EF 24-105mm f/4L IS USM");
    EXPECT_EQ(EXIFInfo::formatValue(P::LensInfo, QVariant::fromValue(zoom)),
              QStringLiteral("Canon EF 24-105mm f/4L IS USM, 24-105 mm, f/4"))
        << "the make is not repeated when the model starts with it";

    Lens nameOnly;
    nameOnly.model = QStringLiteral("XF23mmF2 R WR");
    EXPECT_EQ(EXIFInfo::formatValue(P::LensInfo, QVariant::fromValue(nameOnly)), QStringLiteral("XF23mmF2 R WR"));

    // Registered under its short name, and comparable inside QVariants.
    EXPECT_EQ(QMetaType::type("EXIFInfo::LensInfo_t"), qMetaTypeId<Lens>());
    EXPECT_TRUE(QVariant::fromValue(zoom) == QVariant::fromValue(zoom));
    EXPECT_FALSE(QVariant::fromValue(zoom) == QVariant::fromValue(nameOnly));
}

TEST_F(FileUtilsTest, KeysAreLowerCaseAndLookedUpCaseInsensitively)
{
    EXPECT_EQ(EXIFInfo::key(P::CameraManufacturer), QStringLiteral("cameramanufacturer"));
    EXPECT_EQ(EXIFInfo::key(P::GPSDateTime), QStringLiteral("gpsdatetime"));
    EXPECT_EQ(EXIFInfo::fromKey(QStringLiteral("cameramanufacturer")), P::CameraManufacturer);
    EXPECT_EQ(EXIFInfo::fromKey(QStringLiteral("CameraManufacturer")), P::CameraManufacturer);
    EXPECT_EQ(EXIFInfo::fromKey(QStringLiteral("ISOSPEEDRATINGS")), P::ISOSpeedRatings);
    EXPECT_EQ(EXIFInfo::fromKey(QStringLiteral("LensInfo")), P::LensInfo);
    EXPECT_EQ(EXIFInfo::fromKey(QStringLiteral("no such key")), P::Invalid);
    EXPECT_EQ(EXIFInfo::fromKey(QString()), P::Invalid);
    EXPECT_EQ(EXIFInfo::key(static_cast<P>(99)), QString());
    EXPECT_EQ(EXIFInfo::displayName(static_cast<P>(99)), QString());

    for (const P id : EXIFInfo::registered())
    {
        const QString key = EXIFInfo::key(id);
        EXPECT_FALSE(key.isEmpty());
        EXPECT_EQ(key, key.toLower());
        EXPECT_EQ(EXIFInfo::fromKey(key), id);
        EXPECT_EQ(EXIFInfo::fromKey(key.toUpper()), id);
    }
}

TEST_F(FileUtilsTest, RegistrationOrderAndDisplayNames)
{
    const QList<int> expected = {0,  1,  24, 25, 2,  3,  4,  5,  6,  8,  9,  10, 11, 12,
                                 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 7,  26};
    QList<int> actual;
    for (const P id : EXIFInfo::registered())
        actual.append(static_cast<int>(id));
    EXPECT_EQ(actual, expected);

    EXPECT_EQ(static_cast<int>(P::Format), 7);
    EXPECT_EQ(EXIFInfo::displayName(static_cast<P>(7)), QStringLiteral("Format"));
    EXPECT_EQ(EXIFInfo::key(static_cast<P>(7)), QStringLiteral("format"));
    EXPECT_EQ(EXIFInfo::displayName(static_cast<P>(24)), QStringLiteral("Width"));
    EXPECT_EQ(EXIFInfo::displayName(static_cast<P>(25)), QStringLiteral("Height"));
    EXPECT_EQ(EXIFInfo::displayName(P::Invalid), QStringLiteral("Invalid"));
    EXPECT_EQ(EXIFInfo::displayName(P::CameraManufacturer), QStringLiteral("Manufacturer"));
    EXPECT_EQ(EXIFInfo::displayName(P::DateTimeDigitized), QStringLiteral("Date of Digitization"));
    EXPECT_EQ(EXIFInfo::displayName(P::DateTimeOriginal), QStringLiteral("Date of Generation"));
    EXPECT_EQ(EXIFInfo::displayName(P::ISOSpeedRatings), QStringLiteral("ISO Speed Rating"));
    EXPECT_EQ(EXIFInfo::displayName(P::FNumber), QStringLiteral("F-number"));
    EXPECT_EQ(EXIFInfo::displayName(P::LensInfo), QStringLiteral("Lens Info"));
}

TEST_F(FileUtilsTest, FormatAndSizeSitUnderTheirOwnIdentifiers)
{
    const QString file = savePicture(QStringLiteral("sized.jpg"), 120, 80);
    writeTags(file, {{"Exif.Photo.DateTimeOriginal", "2019:01:02 03:04:05"}});
    const EXIFInfo::Properties p = readOk(file);
    EXPECT_EQ(p.value(static_cast<P>(7)).userType(), static_cast<int>(QMetaType::QString));
    EXPECT_EQ(p.value(static_cast<P>(7)).toString(), QStringLiteral("image/jpeg"));
    EXPECT_EQ(p.value(static_cast<P>(24)).toInt(), 120);
    EXPECT_EQ(p.value(static_cast<P>(25)).toInt(), 80);
    EXPECT_EQ(p.value(static_cast<P>(9)).toDateTime(), QDateTime(QDate(2019, 1, 2), QTime(3, 4, 5)));
}

TEST_F(FileUtilsTest, EightThreadsReadingAtOnceGetTheSameMaps)
{
    const QStringList files = {
        photoWithTags(QStringLiteral("a.jpg"), kFullTags),
        photoWithTags(QStringLiteral("b.jpg"), {{"Exif.Image.Make", "FUJIFILM"}, {"Exif.Photo.FNumber", "2/1"}}),
        savePicture(QStringLiteral("c.jpg")), // no EXIF
        path(QStringLiteral("missing.jpg")),
    };
    std::vector<EXIFInfo::Properties> expected(static_cast<size_t>(files.size()));
    std::vector<bool> expectedOk(static_cast<size_t>(files.size()));
    for (int i = 0; i < files.size(); ++i)
        expectedOk[static_cast<size_t>(i)] = EXIFInfo::read(files[i], expected[static_cast<size_t>(i)]);
    ASSERT_TRUE(expectedOk[0]);
    ASSERT_TRUE(expectedOk[1]);
    ASSERT_FALSE(expectedOk[2]);
    ASSERT_EQ(expected[0].size(), EXIFInfo::registered().size() - 1);

    std::atomic<int> reads{0};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
    {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round)
            {
                const auto i = static_cast<size_t>((t + round) % files.size());
                EXIFInfo::Properties properties;
                const bool ok = EXIFInfo::read(files[static_cast<int>(i)], properties);
                if (ok != expectedOk[i] || properties != expected[i])
                    ++mismatches;
                ++reads;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(reads.load(), 160);
    EXPECT_EQ(mismatches.load(), 0);
}

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// Saving replaces what is at the target: only a regular file (or nothing) may
// be there, links judged by what they point to; two spellings of one file are
// one file.
TEST_F(FileUtilsTest, OutputTargetsAndSameFiles)
{
    const QString file = savePicture(QStringLiteral("old.png"));
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("folder")));
    ASSERT_EQ(::mkfifo(QFile::encodeName(path(QStringLiteral("pipe"))).constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(path(QStringLiteral("pipe")), path(QStringLiteral("to-pipe.pdf"))));
    ASSERT_TRUE(QFile::link(file, path(QStringLiteral("to-old.png"))));
    ASSERT_TRUE(QFile::link(path(QStringLiteral("nothing")), path(QStringLiteral("dangling.pdf"))));
    ASSERT_TRUE(QFile::link(m_dir.path(), path(QStringLiteral("same-folder"))));
    const struct
    {
        QString target;
        bool writable;
    } targets[] = {
        {file, true},
        {path(QStringLiteral("new.pdf")), true},
        {path(QStringLiteral("to-old.png")), true},
        {path(QStringLiteral("folder")), false},
        {path(QStringLiteral("pipe")), false},
        {path(QStringLiteral("to-pipe.pdf")), false},
        {path(QStringLiteral("dangling.pdf")), false},
        {QStringLiteral("/dev/null"), false},
    };
    for (const auto& t : targets)
        EXPECT_EQ(qutils::outputTargetProblem(t.target).isEmpty(), t.writable) << t.target.toStdString();

    const struct
    {
        QString a;
        QString b;
        bool same;
    } pairs[] = {
        {file, path(QStringLiteral("to-old.png")), true},
        {file, path(QStringLiteral("same-folder/old.png")), true},
        {file, m_dir.path() + QStringLiteral("/./folder/../old.png"), true},
        {path(QStringLiteral("new.csv")), path(QStringLiteral("same-folder/new.csv")), true},
        {file, path(QStringLiteral("new.pdf")), false},
        {path(QStringLiteral("a.csv")), path(QStringLiteral("b.csv")), false},
    };
    for (const auto& p : pairs)
        EXPECT_EQ(qutils::isSameFile(p.a, p.b), p.same) << p.a.toStdString() << " " << p.b.toStdString();
}
