// The fingerprint record over the real engine: status table, the ".fnp" file
// byte for byte, creation with its metadata, and matching with the camera check.
#include "fingerprint.h"

#include "logcapture.h"
#include "qutils/quorvexapi.h"
#include "simcamera.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <tuple>
#include <vector>

using qutils::CQuorvexAPI;
using testutils::shoot;
using testutils::simCamera;

namespace
{

struct SFnp
{
    qint64 version = 0;
    QByteArray metadata;
    QByteArray engine;
};

QByteArray fnpBytes(qint64 version, const QByteArray& metadata, const QByteArray& engineBytes)
{
    QByteArray out;
    QDataStream stream(&out, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_0);
    stream << version << metadata << engineBytes;
    return out;
}

SFnp readFnp(const QByteArray& bytes, bool* atEnd = nullptr)
{
    SFnp fnp;
    QDataStream in(bytes);
    in.setVersion(QDataStream::Qt_5_0);
    in >> fnp.version >> fnp.metadata >> fnp.engine;
    if (atEnd)
        *atEnd = in.atEnd();
    return fnp;
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Peak resident memory of this process so far, in MiB.
double peakMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0;
}

std::vector<std::tuple<int, float, float>> g_calls;
void record(int a, float b, float c)
{
    g_calls.emplace_back(a, b, c);
}

} // namespace

TEST(StatusTable, KeysTextsAndEngineValues)
{
    for (int code = 0; code <= 28; ++code)
    {
        const auto status = static_cast<CQuorvexAPI::EStatus>(code);
        const QString key = CQuorvexAPI::statusKey(status);
        ASSERT_FALSE(key.isEmpty()) << code;
        EXPECT_EQ(key, key.toLower());
        bool ok = false;
        EXPECT_EQ(CQuorvexAPI::statusFromKey(key, &ok), status);
        EXPECT_TRUE(ok);
        EXPECT_FALSE(CQuorvexAPI::statusText(status).isEmpty());
    }
    EXPECT_EQ(CQuorvexAPI::statusKey(CQuorvexAPI::FingerprintUnsupportedVersion),
              QStringLiteral("fingerprintunsupportedversion"));
    EXPECT_EQ(CQuorvexAPI::statusText(CQuorvexAPI::VariousResolution),
              CQuorvexAPI::statusText(CQuorvexAPI::InconsistentImagesSize));
    EXPECT_EQ(CQuorvexAPI::statusText(CQuorvexAPI::Invalid), QStringLiteral("Unknown error"));
    EXPECT_TRUE(CQuorvexAPI::statusKey(static_cast<CQuorvexAPI::EStatus>(29)).isEmpty());
    bool ok = true;
    EXPECT_EQ(CQuorvexAPI::statusFromKey(QStringLiteral("Success"), &ok), CQuorvexAPI::Invalid) << "keys are lower-case";
    EXPECT_FALSE(ok);

    testutils::CLogCapture log;
    const std::pair<int, CQuorvexAPI::EStatus> engineCodes[] = {
        {200, CQuorvexAPI::Success},         {410, CQuorvexAPI::BrokenImage},
        {412, CQuorvexAPI::BrokenImage},     {440, CQuorvexAPI::BrokenImage},
        {490, CQuorvexAPI::BrokenImage},     {491, CQuorvexAPI::NotSupportedFormat},
        {430, CQuorvexAPI::CannotStoreFingerprint}, {450, CQuorvexAPI::CannotOpenFingerprint},
        {705, CQuorvexAPI::InconsistentMetadata},   {740, CQuorvexAPI::TooMuchConstantColorAreas},
        {550, CQuorvexAPI::Fatal},
    };
    for (const auto& c : engineCodes)
        EXPECT_EQ(CQuorvexAPI::fromEngineCode(c.first), c.second) << c.first;
    EXPECT_FALSE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexstatus.cpp")));
    // A code the engine never documented is Fatal too, and worth a warning.
    EXPECT_EQ(CQuorvexAPI::fromEngineCode(411), CQuorvexAPI::Fatal);
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexstatus.cpp")));
    EXPECT_TRUE(log.text().contains(QStringLiteral("411")));
}

class FingerprintEndToEnd : public ::testing::Test
{
protected:
    QString file(const QString& name) const { return m_dir.filePath(name); }

    // The camera of the fingerprint learned once for the file tests. Its make
    // is longer than a record keeps, with a two-byte letter where it is cut.
    static camsim::CameraConfig learnedCamera()
    {
        camsim::CameraConfig config = simCamera(7);
        config.make = std::string(4095, 'm') + "\xC3\xA9" + std::string(900, 'n');
        return config;
    }
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<QTemporaryDir>();
        const auto references = testutils::shootSeries(camsim::Camera(learnedCamera()), 60, 3, s_dir->path());
        s_learned = s_dir->filePath(QStringLiteral("learned.fnp"));
        ASSERT_EQ(CFingerprint::createFingerprint(references, QFileInfo(s_learned), nullptr), CQuorvexAPI::Success);
    }
    static void TearDownTestSuite() { s_dir.reset(); }

    static std::unique_ptr<QTemporaryDir> s_dir;
    static QString s_learned;
    QTemporaryDir m_dir;
};

std::unique_ptr<QTemporaryDir> FingerprintEndToEnd::s_dir;
QString FingerprintEndToEnd::s_learned;

TEST_F(FingerprintEndToEnd, FileWrittenAndReadByteForByte)
{
    EXPECT_EQ(CFingerprint::key(CFingerprint::TrainingImagesCount), QStringLiteral("trainingimagescount"));
    EXPECT_TRUE(CFingerprint::key(CFingerprint::Path).isEmpty());
    EXPECT_EQ(CFingerprint::displayText(CFingerprint::NMSE), QStringLiteral("Normalised mean square error (NMSE)"));
    EXPECT_EQ(CFingerprint::fileFilter(), QStringLiteral("Fingerprint Files (*.fnp)"));

    // A record made from a file with every member but no checksum (as files
    // were written before there was one), over real engine bytes, then written again.
    const QByteArray engineBytes = readFnp(readFile(s_learned)).engine;
    ASSERT_GT(engineBytes.size(), 1024 * 768 * 2);
    // The members that the engine's bytes also hold must agree with them.
    QJsonObject meta{{"width", "1024"},       {"height", "768"},
                     {"trainingimagescount", "3"}, {"nmse", "0.0123456"},
                     {"manufacturer", QString(4095, QLatin1Char('m'))}, {"model", "QX-1"},
                     {"lensinfo", "unknown"}, {"creationdate", "2026-11-21T10:20:30"},
                     {"foo", "ignored"}};
    const QString original = file(QStringLiteral("original.fnp"));
    writeFile(original, fnpBytes(2, QJsonDocument(meta).toJson(), engineBytes));

    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(QFileInfo(original), &status);
    ASSERT_TRUE(fp);
    EXPECT_EQ(status, CQuorvexAPI::Success);
    EXPECT_EQ(fp->property(CFingerprint::Width).toInt(), 1024);
    EXPECT_EQ(fp->property(CFingerprint::TrainingImagesCount).toInt(), 3);
    EXPECT_DOUBLE_EQ(fp->property(CFingerprint::NMSE).toDouble(), 0.0123456);
    EXPECT_EQ(fp->property(CFingerprint::CreationDate).toDateTime(),
              QDateTime(QDate(2026, 11, 21), QTime(10, 20, 30)));
    EXPECT_FALSE(fp->properties().contains(CFingerprint::Description)) << "absent members stay absent";
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(fp->fingerprint().data), fp->fingerprint().size), engineBytes);

    const QString copy = file(QStringLiteral("copy.fnp"));
    ASSERT_TRUE(fp->save(QFileInfo(copy), fp->fingerprint()));
    const QByteArray written = readFile(copy);
    bool atEnd = false;
    const SFnp back = readFnp(written, &atEnd);
    EXPECT_EQ(written.left(8), QByteArray("\0\0\0\0\0\0\0\x02", 8)) << "big-endian 64-bit version 2";
    EXPECT_EQ(back.engine, engineBytes);
    EXPECT_TRUE(atEnd);
    // Every member a string, unknown ones dropped, an unset description empty, a checksum added.
    QJsonObject backMeta = QJsonDocument::fromJson(back.metadata).object();
    EXPECT_EQ(backMeta.take(QStringLiteral("checksum")).toString().size(), 64);
    EXPECT_TRUE(backMeta.take(QStringLiteral("creationdate")).toString().startsWith(QStringLiteral("2026-11-21T10:20:30")));
    meta.remove(QStringLiteral("foo"));
    meta.remove(QStringLiteral("creationdate"));
    meta.insert(QStringLiteral("description"), QString());
    EXPECT_EQ(backMeta, meta) << back.metadata.toStdString();

    // A save that cannot happen leaves the existing file as it was.
    EXPECT_FALSE(fp->save(QFileInfo(file(QStringLiteral("no/such/folder/x.fnp"))), fp->fingerprint()));
    ASSERT_TRUE(QDir().mkpath(file(QStringLiteral("blocked.fnp/inner"))));
    EXPECT_FALSE(fp->save(QFileInfo(file(QStringLiteral("blocked.fnp"))), fp->fingerprint()));
}

TEST_F(FingerprintEndToEnd, DamagedOrUnreadableFilesAreRefused)
{
    const QByteArray good = readFile(s_learned);
    const SFnp parts = readFnp(good);
    const QJsonObject meta = QJsonDocument::fromJson(parts.metadata).object();
    ASSERT_TRUE(meta.contains(QStringLiteral("checksum")));
    const auto withMeta = [&](const QString& name, const QString& value, bool keepChecksum) {
        QJsonObject changed = meta;
        changed.insert(name, value);
        if (!keepChecksum)
            changed.remove(QStringLiteral("checksum"));
        return fnpBytes(2, QJsonDocument(changed).toJson(), parts.engine);
    };
    const auto flipped = [&good](int at, char bit) {
        QByteArray bytes = good;
        bytes[at] = static_cast<char>(bytes.at(at) ^ bit);
        return bytes;
    };
    ASSERT_GT(good.indexOf("mmmm"), 0);
    QJsonObject unchecked = meta;
    unchecked.remove(QStringLiteral("checksum"));
    unchecked.insert(QStringLiteral("width"), QString());
    unchecked.insert(QStringLiteral("description"), QStringLiteral("written before checksums"));
    // A genuine file whose engine bytes claim 4 GB that are not there.
    QByteArray claims4GB = good;
    const int lengthAt = good.size() - parts.engine.size() - 4;
    claims4GB.replace(lengthAt, 4, QByteArray("\xFF\xFF\xFF\xF0", 4));

    const struct
    {
        const char* name;
        QByteArray bytes;
        CQuorvexAPI::EStatus status;
    } cases[] = {
        {"intact", good, CQuorvexAPI::Success},
        {"old file, width left empty (claims nothing)", fnpBytes(2, QJsonDocument(unchecked).toJson(), parts.engine),
         CQuorvexAPI::Success},
        {"version 1", fnpBytes(1, "{}", parts.engine), CQuorvexAPI::FingerprintUnsupportedVersion},
        {"version 3", fnpBytes(3, "{}", parts.engine), CQuorvexAPI::FingerprintUnsupportedVersion},
        {"version 0", fnpBytes(0, "{}", parts.engine), CQuorvexAPI::FingerprintUnsupportedVersion},
        {"cut to 1/16", good.left(good.size() / 16), CQuorvexAPI::FingerprintFileBroken},
        {"cut in the metadata", good.left(40), CQuorvexAPI::FingerprintFileBroken},
        {"cut by one byte", good.left(good.size() - 1), CQuorvexAPI::FingerprintFileBroken},
        {"only the version", good.left(8), CQuorvexAPI::FingerprintFileBroken},
        {"shorter than the version", good.left(3), CQuorvexAPI::FingerprintFileBroken},
        {"empty", QByteArray(), CQuorvexAPI::FingerprintFileBroken},
        {"a byte after the end", good + '\0', CQuorvexAPI::FingerprintFileBroken},
        {"engine bytes claim 4 GB", claims4GB, CQuorvexAPI::FingerprintFileBroken},
        {"one bit of K flipped", flipped(good.size() - 5000, 0x10), CQuorvexAPI::FingerprintFileBroken},
        {"one bit of the make flipped", flipped(good.indexOf("mmmm"), 0x01), CQuorvexAPI::FingerprintFileBroken},
        {"make changed, no checksum", withMeta(QStringLiteral("manufacturer"), QStringLiteral("Other"), false),
         CQuorvexAPI::FingerprintFileBroken},
        {"width changed, no checksum", withMeta(QStringLiteral("width"), QStringLiteral("2048"), false),
         CQuorvexAPI::FingerprintFileBroken},
        {"count changed, no checksum", withMeta(QStringLiteral("trainingimagescount"), QStringLiteral("9"), false),
         CQuorvexAPI::FingerprintFileBroken},
        {"description changed, stale checksum", withMeta(QStringLiteral("description"), QStringLiteral("x"), true),
         CQuorvexAPI::FingerprintFileBroken},
        {"metadata not an object", fnpBytes(2, "[1]", parts.engine), CQuorvexAPI::FingerprintFileBroken},
        {"metadata missing", fnpBytes(2, QByteArray(), parts.engine), CQuorvexAPI::FingerprintFileBroken},
        {"engine bytes missing", fnpBytes(2, parts.metadata, QByteArray()), CQuorvexAPI::FingerprintFileBroken},
    };
    const double before = peakMiB();
    for (const auto& c : cases)
    {
        const QString path = file(QStringLiteral("case.fnp"));
        writeFile(path, c.bytes);
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        const auto fp = CFingerprint::load(QFileInfo(path), &status);
        EXPECT_EQ(status, c.status) << c.name;
        EXPECT_EQ(fp != nullptr, c.status == CQuorvexAPI::Success) << c.name;
    }
    EXPECT_LT(peakMiB() - before, 512.0) << "no file is trusted for the memory it claims";

    // What is no regular file is refused at once, never waited on.
    const QString fifo = file(QStringLiteral("fifo.fnp"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    for (const QString& path : {fifo, QStringLiteral("/dev/zero"), m_dir.path(), file(QStringLiteral("none.fnp"))})
    {
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        EXPECT_FALSE(CFingerprint::load(QFileInfo(path), &status)) << path.toStdString();
        EXPECT_EQ(status, CQuorvexAPI::CannotOpenFingerprint) << path.toStdString();
    }

    // An edited description is saved with a new checksum and loads again.
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(QFileInfo(s_learned), &status);
    ASSERT_TRUE(fp);
    EXPECT_EQ(fp->property(CFingerprint::LensInfo).toString(), QStringLiteral("unknown")) << "no photo named a lens";
    fp->setProperty(CFingerprint::Description, QStringLiteral("edited"));
    const QString edited = file(QStringLiteral("edited.fnp"));
    ASSERT_TRUE(fp->save(QFileInfo(edited), fp->fingerprint()));
    const auto back = CFingerprint::load(QFileInfo(edited), &status);
    ASSERT_TRUE(back) << CQuorvexAPI::statusKey(status).toStdString();
    EXPECT_EQ(back->property(CFingerprint::Description).toString(), QStringLiteral("edited"));
}

TEST_F(FingerprintEndToEnd, CreateLoadAndMatch)
{
    const camsim::Camera camera(simCamera(1));
    const camsim::Camera other(simCamera(2));
    // The lens is the first one a photo names.
    QFileInfoList references = testutils::shootSeries(camera, 10, 4, m_dir.path());
    shoot(camera, 11, references.at(1).filePath(), [](camsim::ShotConfig& s) { s.exifLens = "Tessan 35mm f/2"; });
    shoot(camera, 12, references.at(2).filePath(), [](camsim::ShotConfig& s) { s.exifLens = "Other 50mm"; });
    const QFileInfo target(file(QStringLiteral("camera.fnp")));

    // With the temporary folder unusable (a path under a regular file, which
    // even the superuser cannot write), the metadata is still all there.
    const QByteArray oldTmp = qgetenv("TMPDIR");
    writeFile(file(QStringLiteral("plainfile")), "x");
    qputenv("TMPDIR", QFile::encodeName(file(QStringLiteral("plainfile/sub"))));
    g_calls.clear();
    const CQuorvexAPI::EStatus created = CFingerprint::createFingerprint(references, target, &record);
    if (oldTmp.isNull())
        qunsetenv("TMPDIR");
    else
        qputenv("TMPDIR", oldTmp);
    ASSERT_EQ(created, CQuorvexAPI::Success);
    // One opening call, one per photo, the closing call.
    ASSERT_EQ(g_calls.size(), 6u);
    EXPECT_EQ(g_calls.front(), std::make_tuple(0, 0.0f, 0.0f));
    EXPECT_EQ(std::get<1>(g_calls[1]), 1.0f);
    EXPECT_EQ(g_calls.back(), std::make_tuple(100, 0.0f, 0.0f));

    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(target, &status);
    ASSERT_TRUE(fp);
    const std::pair<CFingerprint::EInfoType, QString> stored[] = {
        {CFingerprint::Width, "1024"},           {CFingerprint::Height, "768"},
        {CFingerprint::TrainingImagesCount, "4"}, {CFingerprint::Manufacturer, "Veltrano"},
        {CFingerprint::Model, "QX-1"},           {CFingerprint::LensInfo, "Tessan 35mm f/2"},
        {CFingerprint::Description, ""}};
    for (const auto& p : stored)
        EXPECT_EQ(fp->property(p.first).toString(), p.second) << CFingerprint::key(p.first).toStdString();
    EXPECT_FLOAT_EQ(static_cast<float>(fp->property(CFingerprint::NMSE).toDouble()), std::get<1>(g_calls[4]))
        << "the last value of the list";
    EXPECT_LT(fp->property(CFingerprint::CreationDate).toDateTime().secsTo(QDateTime::currentDateTime()), 600);

    const auto expectMatch = [&](const QString& photo, bool skip, bool matched, CQuorvexAPI::EStatus expected) {
        SCOPED_TRACE(photo.toStdString());
        const auto r = fp->match(QFileInfo(photo), skip);
        EXPECT_EQ(r.matched, matched);
        EXPECT_EQ(r.status, expected);
        if (expected != CQuorvexAPI::Success)
        {
            EXPECT_EQ(r.probability, 0.0);
            EXPECT_EQ(r.correlation, 0.0);
        }
        return r;
    };
    const auto same = expectMatch(shoot(camera, 50, file(QStringLiteral("same.jpg"))), true, true, CQuorvexAPI::Success);
    EXPECT_GE(same.probability, 0.999);
    EXPECT_GT(same.correlation, 0.0);
    expectMatch(shoot(other, 50, file(QStringLiteral("other.jpg"))), true, false, CQuorvexAPI::Success);

    // The camera check: another model in EXIF is refused before the engine
    // (the photo itself is from the fingerprint's camera and would match).
    const QString relabelled = shoot(camera, 51, file(QStringLiteral("relabelled.jpg")),
                                     [](camsim::ShotConfig& s) { s.exifModel = "QX-2"; });
    expectMatch(relabelled, true, false, CQuorvexAPI::InconsistentMetadata);
    expectMatch(relabelled, false, true, CQuorvexAPI::Success); // the rule off
    // No EXIF block, no make, another spelling of case and blanks: never skipped.
    expectMatch(shoot(camera, 52, file(QStringLiteral("bare.jpg")), [](camsim::ShotConfig& s) { s.writeExif = false; }),
                true, true, CQuorvexAPI::Success);
    expectMatch(shoot(camera, 53, file(QStringLiteral("nomake.jpg")), [](camsim::ShotConfig& s) { s.exifMake = ""; }),
                true, true, CQuorvexAPI::Success);
    expectMatch(shoot(camera, 54, file(QStringLiteral("spelled.jpg")),
                      [](camsim::ShotConfig& s) {
                          s.exifMake = " VELTRANO ";
                          s.exifModel = "qx-1";
                      }),
                true, true, CQuorvexAPI::Success);

    // A larger sensor's photo (not 4:3: no resize of the fingerprint's image
    // either) is read but not compared: never "no match".
    const auto larger = expectMatch(shoot(camsim::Camera(simCamera(2, 1280, 1024)), 55, file(QStringLiteral("larger.jpg"))),
                                    false, false, CQuorvexAPI::ImageFingerprintInconsistentSize);
    EXPECT_EQ(larger.reason, CFingerprint::notComparedReason(QStringLiteral("size")));
    expectMatch(file(QStringLiteral("gone.jpg")), false, false, CQuorvexAPI::BrokenImage);

    // A set the engine refuses, or a target that cannot be written: nothing is written.
    references.append(QFileInfo(shoot(camsim::Camera(simCamera(1, 640, 480)), 23, file(QStringLiteral("tiny.jpg")))));
    const QFileInfo failed(file(QStringLiteral("failed.fnp")));
    EXPECT_EQ(CFingerprint::createFingerprint(references, failed, nullptr), CQuorvexAPI::SmallResolution);
    EXPECT_FALSE(failed.exists());
    EXPECT_EQ(CFingerprint::createFingerprint(references.mid(0, 2), QFileInfo(file(QStringLiteral("x/y.fnp"))), nullptr),
              CQuorvexAPI::CannotStoreFingerprint);
}

TEST(FingerprintCamera, OneRuleForEveryComparison)
{
    const QString longMake = QString(4095, QLatin1Char('m')) + QChar(0x00E9) + QString(900, QLatin1Char('n'));
    const QString storedMake = QString(4095, QLatin1Char('m')); // cut before the two-byte letter
    const struct
    {
        QString makeA, modelA, makeB, modelB;
        bool same;
    } cases[] = {
        {"Veltrano", "QX-1", "Veltrano", "QX-1", true},
        {"Veltrano", "QX-1", " veltrano\t", "qx-1 ", true},
        {"Veltrano", "QX-1", "Veltrano", "QX-2", false},
        {"Veltrano", "QX-1", "Other", "QX-1", false},
        {"Veltrano", "QX-1", "", "QX-2", true},
        {"", "", "Veltrano", "QX-1", true},
        {"Veltrano", "QX-1", "Veltrano", "", false},
        {"Veltrano", "QX-1", QStringLiteral("Veltrano") + QChar(0) + "junk", "QX-1", true},
        {QString(QChar(0x00C9)), "", QString(QChar(0x00E9)), "", false}, // ASCII case only, as learning
        {storedMake, "QX-1", longMake, "QX-1", true},
        {storedMake.left(4000), "QX-1", longMake, "QX-1", false},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.makeA.left(20).toStdString() + "/" + c.modelA.toStdString() + " vs " +
                     c.makeB.left(20).toStdString() + "/" + c.modelB.toStdString());
        EXPECT_EQ(CFingerprint::sameCamera(c.makeA, c.modelA, c.makeB, c.modelB), c.same);
        EXPECT_EQ(CFingerprint::sameCamera(c.makeB, c.modelB, c.makeA, c.modelA), c.same) << "symmetric";
    }
}

TEST_F(FingerprintEndToEnd, LongMakeIsStoredCutAndMatchedAlike)
{
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(QFileInfo(s_learned), &status);
    ASSERT_TRUE(fp) << CQuorvexAPI::statusKey(status).toStdString();
    EXPECT_EQ(fp->property(CFingerprint::Manufacturer).toString(), QString(4095, QLatin1Char('m')))
        << "cut before a letter it cannot hold whole";
    const QString photo = shoot(camsim::Camera(learnedCamera()), 80, file(QStringLiteral("long-q.jpg")));
    EXPECT_TRUE(fp->match(QFileInfo(photo), true).matched);
}

TEST_F(FingerprintEndToEnd, DuplicatePhotosAreRefusedNamingBoth)
{
    const camsim::Camera camera(simCamera(6));
    const QString a = shoot(camera, 90, file(QStringLiteral("a.jpg")));
    const QString b = shoot(camera, 91, file(QStringLiteral("b.jpg")));
    const QString c = shoot(camera, 92, file(QStringLiteral("c.jpg")));
    ASSERT_TRUE(QFile::copy(a, file(QStringLiteral("copy-of-a.jpg"))));
    ASSERT_TRUE(QFile::link(b, file(QStringLiteral("link-to-b.jpg"))));
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("sub")));
    // Same size and head as c, different last byte: not a copy.
    QByteArray almost = readFile(c);
    almost[almost.size() - 3] = static_cast<char>(almost.at(almost.size() - 3) ^ 1);
    writeFile(file(QStringLiteral("almost-c.jpg")), almost);
    writeFile(file(QStringLiteral("empty1.jpg")), QByteArray());
    writeFile(file(QStringLiteral("empty2.jpg")), QByteArray());
    const struct
    {
        QStringList photos;
        QStringList named; // empty: no duplicate
    } cases[] = {
        {{"a.jpg", "b.jpg", "c.jpg", "almost-c.jpg"}, {}},
        {{"a.jpg", "empty1.jpg", "empty2.jpg"}, {}}, // no photos: the engine names them
        {{"a.jpg", "b.jpg", "a.jpg"}, {"a.jpg", "a.jpg"}},
        {{"a.jpg", "b.jpg", "sub/../a.jpg"}, {"a.jpg", "sub/../a.jpg"}},
        {{"a.jpg", "b.jpg", "link-to-b.jpg"}, {"b.jpg", "link-to-b.jpg"}},
        {{"c.jpg", "copy-of-a.jpg", "b.jpg", "a.jpg"}, {"copy-of-a.jpg", "a.jpg"}},
    };
    for (const auto& t : cases)
    {
        QFileInfoList photos;
        for (const QString& name : t.photos)
            photos.append(QFileInfo(m_dir.path() + QLatin1Char('/') + name));
        const QString message = CFingerprint::duplicatePhotoMessage(photos);
        EXPECT_EQ(message.isEmpty(), t.named.isEmpty()) << message.toStdString();
        if (!t.named.isEmpty())
        {
            EXPECT_TRUE(message.contains(file(t.named[0]) + QStringLiteral(" and ") + file(t.named[1])))
                << message.toStdString();
        }
    }
    const QFileInfo target(file(QStringLiteral("dup.fnp")));
    EXPECT_EQ(CFingerprint::createFingerprint({QFileInfo(a), QFileInfo(b), QFileInfo(a)}, target, nullptr),
              CQuorvexAPI::CannotCreateFingerprint);
    EXPECT_FALSE(target.exists());
}

TEST(FingerprintAnswer, EngineJsonBecomesTheRecord)
{
    const auto answer = [](const char* result) {
        return QStringLiteral("{\"sensors\":[{\"images\":[{\"result\":{%1}}]}]}").arg(QLatin1String(result));
    };
    const struct
    {
        CQuorvexAPI::EStatus engineStatus;
        const char* result;
        bool matched;
        CQuorvexAPI::EStatus status;
        double scale;
        QString reason;
        int orientation = 0;
        int shiftX = 0;
        int shiftY = 0;
    } cases[] = {
        {CQuorvexAPI::Success, R"("sensor_matched":1,"probability":0.9995,"pce":900,"reason":"")", true,
         CQuorvexAPI::Success, 1.0, QString()},
        // Where the photo lined up, for the details; numbers may come as text.
        {CQuorvexAPI::Success,
         R"("sensor_matched":"1","probability":"0.9995","scale":"0.8","orientation":270,"shift":[12,-3],"reason":"")",
         true, CQuorvexAPI::Success, 0.8, QString(), 270, 12, -3},
        {CQuorvexAPI::Success, R"("sensor_matched":1,"scale":"x","reason":"")", true, CQuorvexAPI::Success, 1.0,
         QString()},
        {CQuorvexAPI::Success, R"("sensor_matched":0,"probability":0,"pce":0,"scale":1,"reason":"size")", false,
         CQuorvexAPI::ImageFingerprintInconsistentSize, 1.0, CFingerprint::notComparedReason(QStringLiteral("size"))},
        {CQuorvexAPI::Success, R"("sensor_matched":1,"reason":"too small")", false,
         CQuorvexAPI::ImageFingerprintInconsistentSize, 1.0, QStringLiteral("the photo is too small to compare")},
        // A failure keeps its own status and the engine's account, without the path.
        {CQuorvexAPI::BrokenImage, R"("sensor_matched":0,"reason":"/p.jpg: JPEG truncated")", false,
         CQuorvexAPI::BrokenImage, 1.0, QStringLiteral("JPEG truncated")},
        {CQuorvexAPI::Fatal, "", false, CQuorvexAPI::Fatal, 1.0, QString()},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.result);
        const auto r = CFingerprint::readMatchAnswer(c.engineStatus, answer(c.result), QStringLiteral("/p.jpg"));
        EXPECT_EQ(r.matched, c.matched);
        EXPECT_EQ(r.status, c.status);
        EXPECT_DOUBLE_EQ(r.scale, c.scale);
        EXPECT_EQ(r.reason, c.reason);
        EXPECT_EQ(std::make_tuple(r.orientation, r.shiftX, r.shiftY), std::make_tuple(c.orientation, c.shiftX, c.shiftY));
    }
    EXPECT_NE(CFingerprint::notComparedReason(QStringLiteral("size")), QStringLiteral("size"));
}

TEST(FingerprintPath, PreparedForTheEngine)
{
    QTemporaryDir dir;
    EXPECT_TRUE(CFingerprint::preparedPath(QFileInfo()).isEmpty());
    const QString missing = dir.filePath(QStringLiteral("missing.jpg"));
    EXPECT_EQ(CFingerprint::preparedPath(QFileInfo(missing)), missing) << "passed on unchanged, with a warning";
    // A long path: no short form here, so it passes unchanged.
    QString deep = dir.path();
    while (deep.size() < 260)
        deep += QStringLiteral("/folder_with_a_long_name");
    ASSERT_TRUE(QDir().mkpath(deep));
    const QString photo = deep + QStringLiteral("/photo.jpg");
    writeFile(photo, "x");
    EXPECT_EQ(CFingerprint::preparedPath(QFileInfo(photo)), photo);
}
