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

TEST(FingerprintFile, WrittenAndReadByteForByte)
{
    QTemporaryDir dir;
    EXPECT_EQ(CFingerprint::key(CFingerprint::TrainingImagesCount), QStringLiteral("trainingimagescount"));
    EXPECT_TRUE(CFingerprint::key(CFingerprint::Path).isEmpty());
    EXPECT_EQ(CFingerprint::displayText(CFingerprint::NMSE), QStringLiteral("Normalised mean square error (NMSE)"));
    EXPECT_EQ(CFingerprint::fileFilter(), QStringLiteral("Fingerprint Files (*.fnp)"));

    // A record made from a file with every member, then written again.
    QJsonObject meta;
    meta.insert(QStringLiteral("width"), QStringLiteral("1600"));
    meta.insert(QStringLiteral("height"), QStringLiteral("1200"));
    meta.insert(QStringLiteral("trainingimagescount"), QStringLiteral("12"));
    meta.insert(QStringLiteral("nmse"), QStringLiteral("0.0123456"));
    meta.insert(QStringLiteral("manufacturer"), QStringLiteral("Veltrano"));
    meta.insert(QStringLiteral("model"), QStringLiteral("QX-1"));
    meta.insert(QStringLiteral("lensinfo"), QStringLiteral("unknown"));
    meta.insert(QStringLiteral("creationdate"), QStringLiteral("2026-11-21T10:20:30"));
    meta.insert(QStringLiteral("foo"), QStringLiteral("ignored"));
    const QByteArray engineBytes("LMCF\x01\x02\x03", 7);
    const QString original = dir.filePath(QStringLiteral("original.fnp"));
    writeFile(original, fnpBytes(2, QJsonDocument(meta).toJson(), engineBytes));

    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto fp = CFingerprint::load(QFileInfo(original), &status);
    ASSERT_TRUE(fp);
    EXPECT_EQ(status, CQuorvexAPI::Success);
    EXPECT_EQ(fp->property(CFingerprint::Width).toInt(), 1600);
    EXPECT_EQ(fp->property(CFingerprint::TrainingImagesCount).toInt(), 12);
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
    EXPECT_EQ(back.size(), 9) << json.toStdString();
    EXPECT_FALSE(back.contains(QStringLiteral("foo")));
    for (auto it = back.constBegin(); it != back.constEnd(); ++it)
        EXPECT_TRUE(it.value().isString()) << it.key().toStdString();
    EXPECT_EQ(back.value(QStringLiteral("description")).toString(), QString()) << "unset: empty string";
    EXPECT_EQ(back.value(QStringLiteral("nmse")).toString(), QStringLiteral("0.0123456"));
    EXPECT_EQ(back.value(QStringLiteral("width")).toString(), QStringLiteral("1600"));
    EXPECT_TRUE(back.value(QStringLiteral("creationdate")).toString().startsWith(QStringLiteral("2026-11-21T10:20:30")));

    // Versions other than 2, missing files, and truncated files of version 2.
    for (qint64 v : {qint64(1), qint64(3), qint64(0)})
    {
        const QString path = dir.filePath(QStringLiteral("v%1.fnp").arg(v));
        writeFile(path, fnpBytes(v, "{}", engineBytes));
        EXPECT_FALSE(CFingerprint::load(QFileInfo(path), &status));
        EXPECT_EQ(status, CQuorvexAPI::FingerprintUnsupportedVersion) << v;
    }
    EXPECT_FALSE(CFingerprint::load(QFileInfo(dir.filePath(QStringLiteral("none.fnp"))), &status));
    EXPECT_EQ(status, CQuorvexAPI::CannotOpenFingerprint);
    const QString truncated = dir.filePath(QStringLiteral("truncated.fnp"));
    writeFile(truncated, readFile(original).left(40));
    const auto partial = CFingerprint::load(QFileInfo(truncated), &status);
    EXPECT_TRUE(partial) << "damage beyond the version is the engine's to report";
    EXPECT_EQ(status, CQuorvexAPI::Success);

    // A save that cannot happen leaves the existing file as it was.
    EXPECT_FALSE(fp->save(QFileInfo(dir.filePath(QStringLiteral("no/such/folder/x.fnp"))), fp->fingerprint()));
    ASSERT_TRUE(QDir().mkpath(dir.filePath(QStringLiteral("blocked.fnp/inner"))));
    EXPECT_FALSE(fp->save(QFileInfo(dir.filePath(QStringLiteral("blocked.fnp"))), fp->fingerprint()));
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

    QTemporaryDir m_dir;
};

TEST_F(FingerprintEndToEnd, CreateLoadAndMatch)
{
    const camsim::Camera camera(unit(1));
    const camsim::Camera other(unit(2));
    QFileInfoList references;
    for (int i = 0; i < 4; ++i)
        references.append(QFileInfo(shoot(camera, 10 + i, QStringLiteral("ref%1.jpg").arg(i))));
    const QFileInfo target(m_dir.filePath(QStringLiteral("camera.fnp")));

    g_calls.clear();
    ASSERT_EQ(CFingerprint::createFingerprint(references, target, &record), CQuorvexAPI::Success);
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
