// The fingerprint record over the real engine: status table, the ".fnp" file
// byte for byte, creation with its metadata, and matching with the camera check.
#include "fingerprint.h"

#include "camsim/camera.h"
#include "logcapture.h"
#include "qutils/quorvexapi.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <tuple>
#include <vector>

using qutils::CQuorvexAPI;

namespace
{

QByteArray fnpBytes(qint64 version, const QByteArray& metadata, const QByteArray& engineBytes)
{
    QByteArray out;
    QDataStream stream(&out, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_0);
    stream << version << metadata << engineBytes;
    return out;
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
    EXPECT_EQ(CQuorvexAPI::statusKey(CQuorvexAPI::Success), QStringLiteral("success"));
    EXPECT_EQ(CQuorvexAPI::statusKey(CQuorvexAPI::FingerprintUnsupportedVersion),
              QStringLiteral("fingerprintunsupportedversion"));
    EXPECT_EQ(CQuorvexAPI::statusText(CQuorvexAPI::VariousResolution),
              CQuorvexAPI::statusText(CQuorvexAPI::InconsistentImagesSize));
    EXPECT_EQ(CQuorvexAPI::statusText(CQuorvexAPI::Invalid), QStringLiteral("Unknown error"));
    EXPECT_TRUE(CQuorvexAPI::statusKey(static_cast<CQuorvexAPI::EStatus>(29)).isEmpty());
    bool ok = true;
    EXPECT_EQ(CQuorvexAPI::statusFromKey(QStringLiteral("Success"), &ok), CQuorvexAPI::Invalid) << "keys are lower-case";
    EXPECT_FALSE(ok);

    EXPECT_EQ(CQuorvexAPI::fromEngineCode(200), CQuorvexAPI::Success);
    for (int v : {410, 412, 440, 490})
        EXPECT_EQ(CQuorvexAPI::fromEngineCode(v), CQuorvexAPI::BrokenImage) << v;
    EXPECT_EQ(CQuorvexAPI::fromEngineCode(491), CQuorvexAPI::NotSupportedFormat);
    EXPECT_EQ(CQuorvexAPI::fromEngineCode(430), CQuorvexAPI::CannotStoreFingerprint);
    EXPECT_EQ(CQuorvexAPI::fromEngineCode(450), CQuorvexAPI::CannotOpenFingerprint);
    EXPECT_EQ(CQuorvexAPI::fromEngineCode(705), CQuorvexAPI::InconsistentMetadata);
    EXPECT_EQ(CQuorvexAPI::fromEngineCode(740), CQuorvexAPI::TooMuchConstantColorAreas);
    {
        testutils::CLogCapture log;
        EXPECT_EQ(CQuorvexAPI::fromEngineCode(550), CQuorvexAPI::Fatal);
        EXPECT_FALSE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexstatus.cpp")));
        EXPECT_EQ(CQuorvexAPI::fromEngineCode(411), CQuorvexAPI::Fatal);
        EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexstatus.cpp")));
        EXPECT_TRUE(log.text().contains(QStringLiteral("411")));
    }
}

class FingerprintEndToEnd : public ::testing::Test
{
protected:
    static camsim::CameraConfig unit(uint64_t seed, const std::string& model = "QX-1")
    {
        camsim::CameraConfig c;
        c.width = 1024;
        c.height = 768;
        c.unitSeed = seed;
        c.model = model;
        return c;
    }
    QString shoot(const camsim::Camera& camera, uint64_t scene, const QString& name,
                  const std::function<void(camsim::ShotConfig&)>& adjust = nullptr)
    {
        camsim::ShotConfig shot;
        shot.sceneSeed = scene;
        shot.scene = scene % 2 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
        if (adjust)
            adjust(shot);
        const QString path = m_dir.filePath(name);
        camera.shoot(shot, path.toStdString());
        return path;
    }

    // One small fingerprint learned once for the file tests.
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<QTemporaryDir>();
        const camsim::Camera camera(unit(7));
        QFileInfoList references;
        for (int i = 0; i < 3; ++i)
        {
            camsim::ShotConfig shot;
            shot.sceneSeed = 60 + static_cast<uint64_t>(i);
            const QString path = s_dir->filePath(QStringLiteral("learned%1.jpg").arg(i));
            camera.shoot(shot, path.toStdString());
            references.append(QFileInfo(path));
        }
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
    QTemporaryDir& dir = m_dir;
    EXPECT_EQ(CFingerprint::key(CFingerprint::TrainingImagesCount), QStringLiteral("trainingimagescount"));
    EXPECT_TRUE(CFingerprint::key(CFingerprint::Path).isEmpty());
    EXPECT_EQ(CFingerprint::displayText(CFingerprint::NMSE), QStringLiteral("Normalised mean square error (NMSE)"));
    EXPECT_EQ(CFingerprint::fileFilter(), QStringLiteral("Fingerprint Files (*.fnp)"));

    // A record made from a file with every member but no checksum (as files
    // were written before there was one), over real engine bytes, then written again.
    const QByteArray engineBytes = [] {
        QDataStream in(readFile(s_learned));
        in.setVersion(QDataStream::Qt_5_0);
        qint64 version;
        QByteArray json;
        QByteArray bytes;
        in >> version >> json >> bytes;
        return bytes;
    }();
    ASSERT_GT(engineBytes.size(), 1024 * 768 * 2);
    QJsonObject meta;
    meta.insert(QStringLiteral("width"), QStringLiteral("1024"));
    meta.insert(QStringLiteral("height"), QStringLiteral("768"));
    meta.insert(QStringLiteral("trainingimagescount"), QStringLiteral("3"));
    meta.insert(QStringLiteral("nmse"), QStringLiteral("0.0123456"));
    meta.insert(QStringLiteral("manufacturer"), QStringLiteral("Veltrano"));
    meta.insert(QStringLiteral("model"), QStringLiteral("QX-1"));
    meta.insert(QStringLiteral("lensinfo"), QStringLiteral("unknown"));
    meta.insert(QStringLiteral("creationdate"), QStringLiteral("2026-11-21T10:20:30"));
    meta.insert(QStringLiteral("foo"), QStringLiteral("ignored"));
    const QString original = dir.filePath(QStringLiteral("original.fnp"));
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

    const QString copy = dir.filePath(QStringLiteral("copy.fnp"));
    ASSERT_TRUE(fp->save(QFileInfo(copy), fp->fingerprint()));
    const QByteArray written = readFile(copy);
    QDataStream in(written);
    in.setVersion(QDataStream::Qt_5_0);
    qint64 version = 0;
    QByteArray json;
    QByteArray bytes;
    in >> version >> json >> bytes;
    EXPECT_EQ(written.left(8), QByteArray("\0\0\0\0\0\0\0\x02", 8)) << "big-endian 64-bit version 2";
    EXPECT_EQ(version, 2);
    EXPECT_EQ(bytes, engineBytes);
    EXPECT_TRUE(in.atEnd());
    const QJsonObject back = QJsonDocument::fromJson(json).object();
    EXPECT_EQ(back.size(), 10) << "nine properties and the checksum: " << json.toStdString();
    EXPECT_FALSE(back.contains(QStringLiteral("foo")));
    for (auto it = back.constBegin(); it != back.constEnd(); ++it)
        EXPECT_TRUE(it.value().isString()) << it.key().toStdString();
    EXPECT_EQ(back.value(QStringLiteral("checksum")).toString().size(), 64);
    EXPECT_EQ(back.value(QStringLiteral("description")).toString(), QString()) << "unset: empty string";
    EXPECT_EQ(back.value(QStringLiteral("nmse")).toString(), QStringLiteral("0.0123456"));
    EXPECT_EQ(back.value(QStringLiteral("width")).toString(), QStringLiteral("1024"));
    EXPECT_TRUE(back.value(QStringLiteral("creationdate")).toString().startsWith(QStringLiteral("2026-11-21T10:20:30")));

    // Versions other than 2.
    for (qint64 v : {qint64(1), qint64(3), qint64(0)})
    {
        const QString path = dir.filePath(QStringLiteral("v%1.fnp").arg(v));
        writeFile(path, fnpBytes(v, "{}", engineBytes));
        EXPECT_FALSE(CFingerprint::load(QFileInfo(path), &status));
        EXPECT_EQ(status, CQuorvexAPI::FingerprintUnsupportedVersion) << v;
    }
    // A save that cannot happen leaves the existing file as it was.
    EXPECT_FALSE(fp->save(QFileInfo(dir.filePath(QStringLiteral("no/such/folder/x.fnp"))), fp->fingerprint()));
    ASSERT_TRUE(QDir().mkpath(dir.filePath(QStringLiteral("blocked.fnp/inner"))));
    EXPECT_FALSE(fp->save(QFileInfo(dir.filePath(QStringLiteral("blocked.fnp"))), fp->fingerprint()));
}

TEST_F(FingerprintEndToEnd, DamagedOrUnreadableFilesAreRefused)
{
    const QByteArray good = readFile(s_learned);
    QDataStream in(good);
    in.setVersion(QDataStream::Qt_5_0);
    qint64 version;
    QByteArray json;
    QByteArray engine;
    in >> version >> json >> engine;
    const QJsonObject meta = QJsonDocument::fromJson(json).object();
    ASSERT_TRUE(meta.contains(QStringLiteral("checksum")));
    const auto withMeta = [&](const QString& name, const QString& value, bool keepChecksum) {
        QJsonObject changed = meta;
        changed.insert(name, value);
        if (!keepChecksum)
            changed.remove(QStringLiteral("checksum"));
        return fnpBytes(2, QJsonDocument(changed).toJson(), engine);
    };
    QByteArray flipped = good;
    flipped[good.size() - 5000] = static_cast<char>(flipped.at(good.size() - 5000) ^ 0x10);
    QByteArray makeFlipped = good;
    const int makeAt = good.indexOf("Veltrano");
    ASSERT_GT(makeAt, 0);
    makeFlipped[makeAt] = static_cast<char>(makeFlipped.at(makeAt) ^ 0x01);
    QJsonObject unchecked = meta;
    unchecked.remove(QStringLiteral("checksum"));
    unchecked.insert(QStringLiteral("width"), QString());
    unchecked.insert(QStringLiteral("description"), QStringLiteral("written before checksums"));

    const struct
    {
        const char* name;
        QByteArray bytes;
        CQuorvexAPI::EStatus status;
    } cases[] = {
        {"intact", good, CQuorvexAPI::Success},
        {"old file, width left empty (claims nothing)", fnpBytes(2, QJsonDocument(unchecked).toJson(), engine),
         CQuorvexAPI::Success},
        {"cut to 1/16", good.left(good.size() / 16), CQuorvexAPI::FingerprintFileBroken},
        {"cut by one byte", good.left(good.size() - 1), CQuorvexAPI::FingerprintFileBroken},
        {"only the version", good.left(8), CQuorvexAPI::FingerprintFileBroken},
        {"shorter than the version", good.left(3), CQuorvexAPI::FingerprintFileBroken},
        {"empty", QByteArray(), CQuorvexAPI::FingerprintFileBroken},
        {"a byte after the end", good + '\0', CQuorvexAPI::FingerprintFileBroken},
        {"one bit of K flipped", flipped, CQuorvexAPI::FingerprintFileBroken},
        {"one bit of the make flipped", makeFlipped, CQuorvexAPI::FingerprintFileBroken},
        {"make changed, no checksum", withMeta(QStringLiteral("manufacturer"), QStringLiteral("Other"), false),
         CQuorvexAPI::FingerprintFileBroken},
        {"width changed, no checksum", withMeta(QStringLiteral("width"), QStringLiteral("2048"), false),
         CQuorvexAPI::FingerprintFileBroken},
        {"count changed, no checksum", withMeta(QStringLiteral("trainingimagescount"), QStringLiteral("9"), false),
         CQuorvexAPI::FingerprintFileBroken},
        {"description changed, stale checksum", withMeta(QStringLiteral("description"), QStringLiteral("x"), true),
         CQuorvexAPI::FingerprintFileBroken},
        {"metadata not an object", fnpBytes(2, "[1]", engine), CQuorvexAPI::FingerprintFileBroken},
        {"metadata missing", fnpBytes(2, QByteArray(), engine), CQuorvexAPI::FingerprintFileBroken},
        {"engine bytes missing", fnpBytes(2, json, QByteArray()), CQuorvexAPI::FingerprintFileBroken},
    };
    for (const auto& c : cases)
    {
        const QString path = m_dir.filePath(QStringLiteral("case.fnp"));
        writeFile(path, c.bytes);
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        const auto fp = CFingerprint::load(QFileInfo(path), &status);
        EXPECT_EQ(status, c.status) << c.name;
        EXPECT_EQ(fp != nullptr, c.status == CQuorvexAPI::Success) << c.name;
    }

    // What is no regular file is refused at once, never waited on.
    const QString fifo = m_dir.filePath(QStringLiteral("fifo.fnp"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    for (const QString& path :
         {fifo, QStringLiteral("/dev/zero"), m_dir.path(), m_dir.filePath(QStringLiteral("none.fnp"))})
    {
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        EXPECT_FALSE(CFingerprint::load(QFileInfo(path), &status)) << path.toStdString();
        EXPECT_EQ(status, CQuorvexAPI::CannotOpenFingerprint) << path.toStdString();
    }

    // An edited description is saved with a new checksum and loads again.
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(QFileInfo(s_learned), &status);
    ASSERT_TRUE(fp);
    fp->setProperty(CFingerprint::Description, QStringLiteral("edited"));
    const QString edited = m_dir.filePath(QStringLiteral("edited.fnp"));
    ASSERT_TRUE(fp->save(QFileInfo(edited), fp->fingerprint()));
    const auto back = CFingerprint::load(QFileInfo(edited), &status);
    ASSERT_TRUE(back) << CQuorvexAPI::statusKey(status).toStdString();
    EXPECT_EQ(back->property(CFingerprint::Description).toString(), QStringLiteral("edited"));
}

TEST_F(FingerprintEndToEnd, CreateLoadAndMatch)
{
    const camsim::Camera camera(unit(1));
    const camsim::Camera other(unit(2));
    QFileInfoList references;
    for (int i = 0; i < 4; ++i)
        references.append(QFileInfo(shoot(camera, 10 + i, QStringLiteral("ref%1.jpg").arg(i))));
    const QFileInfo target(m_dir.filePath(QStringLiteral("camera.fnp")));

    // With the temporary folder unusable (a path under a regular file, which
    // even the superuser cannot write), the metadata is still all there.
    const QByteArray oldTmp = qgetenv("TMPDIR");
    writeFile(m_dir.filePath(QStringLiteral("plainfile")), "x");
    qputenv("TMPDIR", QFile::encodeName(m_dir.filePath(QStringLiteral("plainfile/sub"))));
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
    EXPECT_EQ(fp->property(CFingerprint::Width).toInt(), 1024);
    EXPECT_EQ(fp->property(CFingerprint::Height).toInt(), 768);
    EXPECT_EQ(fp->property(CFingerprint::TrainingImagesCount).toInt(), 4);
    EXPECT_FLOAT_EQ(static_cast<float>(fp->property(CFingerprint::NMSE).toDouble()), std::get<1>(g_calls[4]))
        << "the last value of the list";
    EXPECT_EQ(fp->property(CFingerprint::Manufacturer).toString(), QStringLiteral("Veltrano"));
    EXPECT_EQ(fp->property(CFingerprint::Model).toString(), QStringLiteral("QX-1"));
    EXPECT_EQ(fp->property(CFingerprint::LensInfo).toString(), QStringLiteral("unknown"));
    EXPECT_LT(fp->property(CFingerprint::CreationDate).toDateTime().secsTo(QDateTime::currentDateTime()), 600);
    EXPECT_TRUE(fp->property(CFingerprint::Description).toString().isEmpty());

    const auto same = fp->match(QFileInfo(shoot(camera, 50, QStringLiteral("same.jpg"))), true);
    EXPECT_TRUE(same.matched);
    EXPECT_GE(same.probability, 0.999);
    EXPECT_GT(same.correlation, 0.0);
    EXPECT_EQ(same.status, CQuorvexAPI::Success);
    const auto stranger = fp->match(QFileInfo(shoot(other, 50, QStringLiteral("other.jpg"))), true);
    EXPECT_FALSE(stranger.matched);
    EXPECT_EQ(stranger.status, CQuorvexAPI::Success);

    // The camera check: another model in EXIF is refused before the engine
    // (the photo itself is from the fingerprint's camera and would match).
    const QFileInfo relabelled(shoot(camera, 51, QStringLiteral("relabelled.jpg"),
                                     [](camsim::ShotConfig& s) { s.exifModel = "QX-2"; }));
    const auto skipped = fp->match(relabelled, true);
    EXPECT_FALSE(skipped.matched);
    EXPECT_EQ(skipped.probability, 0.0);
    EXPECT_EQ(skipped.correlation, 0.0);
    EXPECT_EQ(skipped.status, CQuorvexAPI::InconsistentMetadata);
    EXPECT_TRUE(fp->match(relabelled, false).matched) << "with the rule off it is matched";
    const QFileInfo bare(shoot(camera, 52, QStringLiteral("bare.jpg"), [](camsim::ShotConfig& s) { s.writeExif = false; }));
    EXPECT_TRUE(fp->match(bare, true).matched) << "no EXIF block: never skipped";
    const QFileInfo noMake(
        shoot(camera, 53, QStringLiteral("nomake.jpg"), [](camsim::ShotConfig& s) { s.exifMake = ""; }));
    EXPECT_TRUE(fp->match(noMake, true).matched) << "no make: cannot tell, so matched";
    const QFileInfo spelled(shoot(camera, 54, QStringLiteral("spelled.jpg"), [](camsim::ShotConfig& s) {
        s.exifMake = " VELTRANO ";
        s.exifModel = "qx-1";
    }));
    EXPECT_TRUE(fp->match(spelled, true).matched) << "case and outer blanks do not tell cameras apart";

    // A larger sensor's photo is read but not compared: never "no match".
    camsim::CameraConfig largerConfig = unit(2);
    largerConfig.width = 1280;
    largerConfig.height = 1024; // not 4:3: no resize of the fingerprint's image either
    const auto larger = fp->match(QFileInfo(shoot(camsim::Camera(largerConfig), 55, QStringLiteral("larger.jpg"))), false);
    EXPECT_FALSE(larger.matched);
    EXPECT_EQ(larger.status, CQuorvexAPI::ImageFingerprintInconsistentSize);
    EXPECT_EQ(larger.reason, CFingerprint::notComparedReason(QStringLiteral("size")));

    const auto missing = fp->match(QFileInfo(m_dir.filePath(QStringLiteral("gone.jpg"))), false);
    EXPECT_FALSE(missing.matched);
    EXPECT_EQ(missing.status, CQuorvexAPI::BrokenImage);
}

TEST_F(FingerprintEndToEnd, LensComesFromTheFirstPhotoThatHasOneAndFailuresMapToStatuses)
{
    camsim::CameraConfig config = unit(3);
    const camsim::Camera camera(config);
    QFileInfoList references;
    references.append(QFileInfo(shoot(camera, 20, QStringLiteral("a.jpg"))));
    references.append(QFileInfo(shoot(camera, 21, QStringLiteral("b.jpg"),
                                      [](camsim::ShotConfig& s) { s.exifLens = "Tessan 35mm f/2"; })));
    references.append(QFileInfo(shoot(camera, 22, QStringLiteral("c.jpg"),
                                      [](camsim::ShotConfig& s) { s.exifLens = "Other 50mm"; })));
    const QFileInfo target(m_dir.filePath(QStringLiteral("lens.fnp")));
    ASSERT_EQ(CFingerprint::createFingerprint(references, target, nullptr), CQuorvexAPI::Success);
    CQuorvexAPI::EStatus status;
    EXPECT_EQ(CFingerprint::load(target, &status)->property(CFingerprint::LensInfo).toString(),
              QStringLiteral("Tessan 35mm f/2"));

    config.width = 640;
    config.height = 480;
    const camsim::Camera tiny(config);
    references.append(QFileInfo(shoot(tiny, 23, QStringLiteral("tiny.jpg"))));
    const QFileInfo failed(m_dir.filePath(QStringLiteral("failed.fnp")));
    EXPECT_EQ(CFingerprint::createFingerprint(references, failed, nullptr), CQuorvexAPI::SmallResolution);
    EXPECT_FALSE(failed.exists()) << "nothing written for a refused set";
    EXPECT_EQ(CFingerprint::createFingerprint(references.mid(0, 2), QFileInfo(m_dir.filePath(QStringLiteral("x/y.fnp"))),
                                              nullptr),
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
        EXPECT_EQ(CFingerprint::sameCamera(c.makeA, c.modelA, c.makeB, c.modelB), c.same)
            << c.makeA.left(20).toStdString() << "/" << c.modelA.toStdString() << " vs "
            << c.makeB.left(20).toStdString() << "/" << c.modelB.toStdString();
        EXPECT_EQ(CFingerprint::sameCamera(c.makeB, c.modelB, c.makeA, c.modelA), c.same) << "symmetric";
    }
}

TEST_F(FingerprintEndToEnd, LongMakeIsStoredAndMatchedAlike)
{
    camsim::CameraConfig config = unit(5);
    config.make = std::string(4095, 'm') + "\xC3\xA9" + std::string(900, 'n');
    const camsim::Camera camera(config);
    QFileInfoList references;
    for (int i = 0; i < 3; ++i)
        references.append(QFileInfo(shoot(camera, 70 + i, QStringLiteral("long%1.jpg").arg(i))));
    const QFileInfo target(m_dir.filePath(QStringLiteral("long.fnp")));
    ASSERT_EQ(CFingerprint::createFingerprint(references, target, nullptr), CQuorvexAPI::Success);
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(target, &status);
    ASSERT_TRUE(fp) << CQuorvexAPI::statusKey(status).toStdString();
    EXPECT_EQ(fp->property(CFingerprint::Manufacturer).toString(), QString(4095, QLatin1Char('m')))
        << "cut before a letter it cannot hold whole";
    EXPECT_TRUE(fp->match(QFileInfo(shoot(camera, 80, QStringLiteral("long-q.jpg"))), true).matched);
}

TEST_F(FingerprintEndToEnd, DuplicatePhotosAreRefusedNamingBoth)
{
    const camsim::Camera camera(unit(6));
    const QString a = shoot(camera, 90, QStringLiteral("a.jpg"));
    const QString b = shoot(camera, 91, QStringLiteral("b.jpg"));
    const QString c = shoot(camera, 92, QStringLiteral("c.jpg"));
    ASSERT_TRUE(QFile::copy(a, m_dir.filePath(QStringLiteral("copy-of-a.jpg"))));
    ASSERT_TRUE(QFile::link(b, m_dir.filePath(QStringLiteral("link-to-b.jpg"))));
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("sub")));
    // Same size and head as c, different last byte: not a copy.
    QByteArray almost = readFile(c);
    almost[almost.size() - 3] = static_cast<char>(almost.at(almost.size() - 3) ^ 1);
    writeFile(m_dir.filePath(QStringLiteral("almost-c.jpg")), almost);
    writeFile(m_dir.filePath(QStringLiteral("empty1.jpg")), QByteArray());
    writeFile(m_dir.filePath(QStringLiteral("empty2.jpg")), QByteArray());
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
            EXPECT_TRUE(message.contains(m_dir.path() + QLatin1Char('/') + t.named[0] + QStringLiteral(" and ") +
                                         m_dir.path() + QLatin1Char('/') + t.named[1]))
                << message.toStdString();
        }
    }
    const QFileInfo target(m_dir.filePath(QStringLiteral("dup.fnp")));
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
    } cases[] = {
        {CQuorvexAPI::Success, R"("sensor_matched":1,"probability":0.9995,"pce":900,"reason":"")", true,
         CQuorvexAPI::Success, 1.0, QString()},
        {CQuorvexAPI::Success, R"("sensor_matched":"1","probability":"0.9995","scale":"0.8","orientation":270,"reason":"")",
         true, CQuorvexAPI::Success, 0.8, QString(), 270},
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
        EXPECT_EQ(r.orientation, c.orientation);
    }
    EXPECT_NE(CFingerprint::notComparedReason(QStringLiteral("size")), QStringLiteral("size"));
    // Where the photo lined up, for the details.
    const auto turned = CFingerprint::readMatchAnswer(
        CQuorvexAPI::Success, answer(R"("sensor_matched":1,"orientation":270,"shift":[12,-3],"reason":"")"),
        QStringLiteral("/p.jpg"));
    EXPECT_EQ(turned.orientation, 270);
    EXPECT_EQ(turned.shiftX, 12);
    EXPECT_EQ(turned.shiftY, -3);
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
