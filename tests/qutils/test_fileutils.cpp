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
#include <string>
#include <thread>
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

// One expected property: its raw value (none: not checked) and its text in the
// report (nullptr: not checked). Doubles are compared to within rounding.
struct SField
{
    P id;
    QVariant value;
    const char* text;
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

    QString saveBytes(const QString& name, const QByteArray& bytes)
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
        return file.fileName();
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

    static void expectFields(const EXIFInfo::Properties& p, const std::vector<SField>& fields)
    {
        for (const SField& f : fields)
        {
            SCOPED_TRACE(EXIFInfo::key(f.id).toStdString());
            const QVariant actual = p.value(f.id);
            if (f.value.userType() == QMetaType::Double)
            {
                EXPECT_NEAR(actual.toDouble(), f.value.toDouble(), 1e-12);
            }
            else if (f.value.isValid())
            {
                EXPECT_EQ(actual, f.value) << actual.toString().toStdString();
            }
            if (f.text)
            {
                EXPECT_EQ(EXIFInfo::formatValue(f.id, actual).toStdString(), f.text);
            }
        }
    }

    QTemporaryDir m_dir;
};

} // namespace

TEST_F(FileUtilsTest, ReadsAndFormatsEveryFieldOfAFullPhoto)
{
    const EXIFInfo::Properties p = readOk(photoWithTags(QStringLiteral("full.jpg"), kFullTags));
    expectFields(p, {
                        {P::CameraManufacturer, QStringLiteral("Canon"), nullptr},
                        {P::CameraModel, QStringLiteral("Canon EOS 80D"), "Canon EOS 80D"}, // trimmed
                        {P::Copyright, QStringLiteral("Alice Example"), nullptr},           // cut at the NUL
                        {P::Description, QStringLiteral("Harbour at dawn"), nullptr},
                        {P::Software, QStringLiteral("Firmware 1.0.2"), nullptr},
                        {P::Format, QStringLiteral("image/jpeg"), "image/jpeg"},
                        {P::Width, 64, "64"},
                        {P::Height, 48, nullptr},
                        {P::Resolution, QSizeF(300, 300), "300 x 300 dpi"},
                        {P::DateTimeDigitized, {}, "2021-06-15 14:30:06"},
                        {P::DateTimeOriginal, {}, "2021-06-15 14:30:05"},
                        {P::GPSDateTime, {}, "2021-06-15 12:30:05"},
                        {P::ExposureTime, 1.0 / 250.0, "1/250"},
                        {P::ShutterSpeedValue, 1.0 / 256.0, "1/256"}, // APEX 8 is 2^-8 s
                        {P::FNumber, 2.8, "f/2.8"},
                        {P::FocalLength, 35.0, "35 mm"},
                        {P::ISOSpeedRatings, 400, "400"},
                        {P::ExposureBiasValue, 2.0 / 3.0, "+0.7 EV"},
                        {P::SubjectDistance, 3.5, "3.5 m"},
                        {P::GPSLatitude, -(33.0 + 52.0 / 60.0 + 7.68 / 3600.0), u8"33.8688\u00B0 S"},
                        {P::GPSLongitude, -151.21, u8"151.21\u00B0 W"},
                        {P::GPSAltitude, -62.5, "-62.5 m"}, // below sea level
                        {P::Flash, 25, "Flash fired, auto"},
                        {P::MeteringMode, 5, "Matrix"},
                        {P::Orientation, 90, u8"90\u00B0"},
                        {P::LensInfo,
                         QVariant::fromValue(Lens{18, 55, 3.5, 5.6, QStringLiteral("Canon"),
                                                  QStringLiteral("EF-S18-55mm f/3.5-5.6 IS STM")}),
                         "Canon EF-S18-55mm f/3.5-5.6 IS STM, 18-55 mm, f/3.5-5.6"},
                    });

    // The offset tag applies to the original time only; GPS time is UTC, the others local.
    const auto iso = [&p](P id) { return p.value(id).toDateTime().toString(Qt::ISODate).toStdString(); };
    EXPECT_EQ(iso(P::DateTimeOriginal), "2021-06-15T14:30:05+02:00");
    EXPECT_EQ(iso(P::DateTimeDigitized), "2021-06-15T14:30:06");
    EXPECT_EQ(iso(P::GPSDateTime), "2021-06-15T12:30:05Z");
    EXPECT_EQ(p.value(P::Format).userType(), static_cast<int>(QMetaType::QString));

    // Every property of the table is there, and nothing else.
    EXPECT_EQ(p.size(), EXIFInfo::registered().size() - 1);
    EXPECT_FALSE(p.contains(P::Invalid));
}

// Long exposure, prime lens, north-east, centimetres, an aperture only as APEX.
TEST_F(FileUtilsTest, ReadsTheLessCommonEncodings)
{
    const EXIFInfo::Properties p = readOk(
        photoWithTags(QStringLiteral("second.jpg"), {
                                                        {"Exif.Image.Make", "NIKON CORPORATION"},
                                                        {"Exif.Image.ImageDescription", "Caf\xE9"},
                                                        {"Exif.Image.XResolution", "100/1"},
                                                        {"Exif.Image.YResolution", "50/1"},
                                                        {"Exif.Image.ResolutionUnit", "3"},
                                                        {"Exif.Photo.ExposureTime", "2/1"},
                                                        {"Exif.Photo.ApertureValue", "3/1"},
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
    expectFields(p, {
                        {P::Description, QString(QStringLiteral("Caf") + QChar(0x00E9)), nullptr}, // Latin-1
                        {P::Resolution, {}, "254 x 127 dpi"},
                        {P::ExposureTime, 2.0, "2 s"},
                        {P::FNumber, std::exp2(1.5), "f/2.83"},
                        {P::SubjectDistance, {}, u8"\u221E m"},
                        {P::GPSLatitude, 48.0 + 51.0 / 60.0 + 24.12 / 3600.0, u8"48.8567\u00B0 N"},
                        {P::GPSLongitude, 2.35, u8"2.35\u00B0 E"},
                        {P::GPSAltitude, 35.0, nullptr},
                        {P::MeteringMode, {}, "Average"},
                        {P::Flash, {}, "No flash, forced off"},
                        {P::LensInfo, {}, "35 mm, f/2"}, // a prime lens shows single values
                    });
    EXPECT_TRUE(std::isinf(p.value(P::SubjectDistance).toDouble()));
    EXPECT_TRUE(p.value(P::LensInfo).value<Lens>().model.isEmpty());

    // Properties the photo does not carry stay out of the map.
    for (const P absent : {P::CameraModel, P::Copyright, P::Software, P::DateTimeOriginal,
                           P::DateTimeDigitized, P::FocalLength, P::ISOSpeedRatings, P::ShutterSpeedValue,
                           P::GPSDateTime, P::ExposureBiasValue, P::Orientation})
        EXPECT_FALSE(p.contains(absent)) << EXIFInfo::key(absent).toStdString();
}

TEST_F(FileUtilsTest, OrientationBecomesDegreesOfRotation)
{
    const QString file = savePicture(QStringLiteral("turned.jpg"));
    // Mirrored values give the rotation that stands the picture upright; 9 is undefined.
    const std::vector<std::pair<int, int>> cases = {{1, 0},  {2, 0},   {3, 180}, {4, 180}, {5, 90},
                                                    {6, 90}, {7, 270}, {8, 270}, {9, -1}};
    for (const auto& c : cases)
    {
        writeTags(file, {{"Exif.Image.Orientation", std::to_string(c.first)}});
        const EXIFInfo::Properties p = readOk(file);
        EXPECT_EQ(p.value(P::Orientation, -1).toInt(), c.second) << "EXIF orientation " << c.first;
    }
}

// Nothing that is no readable photo gives properties, prints anything, or keeps
// an earlier result; nor is anything but a regular file hashed.
TEST_F(FileUtilsTest, UnreadableFilesGiveFalseAndNothingIsPrinted)
{
    // A real photo with EXIF, cut off inside its APP1 segment.
    const QString cut = photoWithTags(QStringLiteral("cut.jpg"), kFullTags);
    ASSERT_TRUE(QFile(cut).resize(60));
    // Special files would block the read forever (a hang ends in the timeout).
    const QString fifo = path(QStringLiteral("fifo.jpg"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(fifo, path(QStringLiteral("link_to_fifo.jpg"))));
    const QStringList files = {
        savePicture(QStringLiteral("plain.jpg")),
        savePicture(QStringLiteral("picture.png")),
        saveBytes(QStringLiteral("notes.jpg"), "this is not a picture\n"),
        // Starts like a JPEG, then nonsense.
        saveBytes(QStringLiteral("broken.jpg"), QByteArray("\xFF\xD8\xFF\xE1\x00\x10"
                                                           "Exif\x00\x00MM\x00\x2A\xFF\xFF",
                                                           18) +
                                                    QByteArray(300, '\x7F')),
        cut,
    };
    const QStringList nonFiles = {path(QStringLiteral("missing.jpg")),
                                  m_dir.path(),
                                  QString(),
                                  QStringLiteral("-"),
                                  fifo,
                                  path(QStringLiteral("link_to_fifo.jpg")),
                                  QStringLiteral("/dev/zero")};
    // An EXIF block whose directory points outside itself: exiv2 would warn.
    const QString damaged = saveBytes(
        QStringLiteral("damaged.jpg"),
        QByteArray("\xFF\xD8\xFF\xE1\x00\x40"
                   "Exif\x00\x00II*\x00\x08\x00\x00\x00\x05\x00\x0F\x01\x02\x00\x50\x00\x00\x00\x99\x99",
                   28) +
            QByteArray(200, '\0'));

    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    for (const QString& file : files + nonFiles)
    {
        EXIFInfo::Properties properties;
        properties.insert(P::CameraModel, QStringLiteral("left over"));
        EXPECT_FALSE(EXIFInfo::read(file, properties)) << file.toStdString();
        EXPECT_TRUE(properties.isEmpty()) << file.toStdString();
    }
    EXIFInfo::Properties damagedProperties;
    const bool damagedOk = EXIFInfo::read(damaged, damagedProperties);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), std::string());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), std::string());

    // The damaged block is still a block: what could be read is kept, the
    // manufacturer whose text lies outside the file is not.
    EXPECT_TRUE(damagedOk);
    EXPECT_FALSE(damagedProperties.contains(P::CameraManufacturer));
    EXPECT_EQ(damagedProperties.value(P::Format).toString(), QStringLiteral("image/jpeg"));

    for (const QString& file : nonFiles)
        EXPECT_TRUE(qutils::fileSha256(file).isEmpty()) << file.toStdString();
    // A file of several read blocks hashes as a whole.
    const QByteArray bytes(5 * 512 * 1024 + 7, 'q');
    EXPECT_EQ(qutils::fileSha256(saveBytes(QStringLiteral("large.bin"), bytes)),
              QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()));
}

TEST_F(FileUtilsTest, FormatsValuesAndLensRecords)
{
    const Lens zoom{24, 105, 4, 4, QStringLiteral("Canon"), QStringLiteral("Canon EF 24-105mm f/4L IS USM")};
    const Lens nameOnly{0, 0, 0, 0, QString(), QStringLiteral("XF23mmF2 R WR")};
    using Texts = std::vector<std::pair<QVariant, const char*>>;
    // An invalid value, a missing property, has nothing to show.
    const std::pair<P, Texts> cases[] = {
        // The denominator is rounded; 0.8 s is no "1/1".
        {P::ExposureTime, {{1.0 / 250.0, "1/250"}, {1.0 / 3.2, "1/3"}, {0.5, "1/2"}, {0.8, "0.8 s"}}},
        {P::ExposureTime, {{1.0, "1 s"}, {2.5, "2.5 s"}, {30.0, "30 s"}, {QVariant(), ""}}},
        {P::FocalLength, {{4.25, "4.25 mm"}, {50.0, "50 mm"}}},
        {P::FNumber, {{1.8, "f/1.8"}, {11.0, "f/11"}}},
        {P::SubjectDistance, {{12.0, "12 m"}}},
        {P::ExposureBiasValue, {{0.0, "0 EV"}, {-1.0 / 3.0, "-0.3 EV"}, {1.0, "+1 EV"}}},
        {P::Resolution, {{QSizeF(72, 72), "72 x 72 dpi"}}},
        {P::GPSLatitude, {{0.5, u8"0.5\u00B0 N"}}},
        {P::GPSLongitude, {{-0.000001, u8"0.000001\u00B0 W"}}},
        {P::MeteringMode,
         {{1, "Average"}, {2, "Average"}, {3, "Spot"}, {5, "Matrix"}, {0, "Unknown"}, {255, "Unknown"}}},
        {P::Flash,
         {{0, "No flash"}, {1, "Flash fired"}, {9, "Flash fired, forced on"}, {0x20, "No flash function"}}},
        {P::Flash, {{0x59, "Flash fired, auto, red-eye reduction"}}},
        {P::DateTimeOriginal,
         {{QDateTime(QDate(2020, 2, 29), QTime(7, 5, 9), Qt::LocalTime), "2020-02-29 07:05:09"},
          {QVariant(), ""}}},
        // The make is not repeated when the model starts with it.
        {P::LensInfo,
         {{QVariant::fromValue(zoom), "Canon EF 24-105mm f/4L IS USM, 24-105 mm, f/4"},
          {QVariant::fromValue(nameOnly), "XF23mmF2 R WR"}}},
        {P::CameraModel, {{QVariant(), ""}}},
    };
    for (const auto& c : cases)
    {
        for (const auto& t : c.second)
            EXPECT_EQ(EXIFInfo::formatValue(c.first, t.first).toStdString(), t.second)
                << EXIFInfo::key(c.first).toStdString() << " " << t.first.toString().toStdString();
    }

    // Registered under its short name, and comparable inside QVariants.
    EXPECT_EQ(QMetaType::type("EXIFInfo::LensInfo_t"), qMetaTypeId<Lens>());
    EXPECT_TRUE(QVariant::fromValue(zoom) == QVariant::fromValue(zoom));
    EXPECT_FALSE(QVariant::fromValue(zoom) == QVariant::fromValue(nameOnly));
}

TEST_F(FileUtilsTest, KeysAndDisplayNames)
{
    EXPECT_EQ(EXIFInfo::key(P::GPSDateTime), QStringLiteral("gpsdatetime"));
    for (const char* key : {"cameramanufacturer", "CameraManufacturer", "CAMERAMANUFACTURER"})
        EXPECT_EQ(EXIFInfo::fromKey(QString::fromLatin1(key)), P::CameraManufacturer) << key;
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
    // The names the report prints beside the values.
    QStringList names;
    for (const P id : {P::Invalid, P::CameraManufacturer, P::DateTimeDigitized, P::DateTimeOriginal,
                       P::ISOSpeedRatings, P::FNumber, P::LensInfo, P::Format, P::Width})
        names << EXIFInfo::displayName(id);
    EXPECT_EQ(names.join(QLatin1Char('|')),
              QStringLiteral("Invalid|Manufacturer|Date of Digitization|Date of "
                             "Generation|ISO Speed Rating|F-number|Lens "
                             "Info|Format|Width"));
}

TEST_F(FileUtilsTest, EightThreadsReadingAtOnceGetTheSameMaps)
{
    const QStringList files = {
        photoWithTags(QStringLiteral("a.jpg"), kFullTags),
        photoWithTags(QStringLiteral("b.jpg"),
                      {{"Exif.Image.Make", "FUJIFILM"}, {"Exif.Photo.FNumber", "2/1"}}),
        savePicture(QStringLiteral("c.jpg")), // no EXIF
        path(QStringLiteral("missing.jpg")),
    };
    std::vector<EXIFInfo::Properties> expected(static_cast<size_t>(files.size()));
    std::vector<bool> expectedOk(static_cast<size_t>(files.size()));
    for (int i = 0; i < files.size(); ++i)
        expectedOk[static_cast<size_t>(i)] = EXIFInfo::read(files[i], expected[static_cast<size_t>(i)]);
    ASSERT_EQ(expectedOk, (std::vector<bool>{true, true, false, false}));
    ASSERT_EQ(expected[0].size(), EXIFInfo::registered().size() - 1);

    std::atomic<int> reads{0};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
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
