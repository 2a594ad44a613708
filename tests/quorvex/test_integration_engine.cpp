// The integration mode end to end: a real fingerprint learned from simulated
// photos, matched through the real program by the client.
#include "fingerprint.h"
#include "integrationserver.h"

#include "camsim/camera.h"
#include "qutils/quorvexapi.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using qutils::CQuorvexAPI;

TEST(IntegrationWithEngine, CachedFailureUntilRestartThenRealAnswers)
{
    QTemporaryDir dir;
    qputenv("QUORVEX_PROGRAM", QUORVEX_PROGRAM_PATH);
    qputenv("XDG_DATA_HOME", QFile::encodeName(dir.filePath(QStringLiteral("data"))));

    camsim::CameraConfig config;
    config.width = 1024;
    config.height = 768;
    const camsim::Camera camera(config);
    config.unitSeed = 2;
    const camsim::Camera other(config);
    auto shoot = [&](const camsim::Camera& c, uint64_t seed, const QString& name) {
        camsim::ShotConfig shot;
        shot.sceneSeed = seed;
        const QString path = dir.filePath(name);
        c.shoot(shot, path.toStdString());
        return path;
    };
    QFileInfoList references;
    for (int i = 0; i < 4; ++i)
        references.append(QFileInfo(shoot(camera, 30 + i, QStringLiteral("ref%1.jpg").arg(i))));
    const QString same = shoot(camera, 60, QStringLiteral("same.jpg"));
    const QString stranger = shoot(other, 60, QStringLiteral("other.jpg"));
    const QString fnp = dir.filePath(QStringLiteral("camera.fnp"));

    {
        CQuorvexAPI client;
        ASSERT_EQ(client.state(), CQuorvexAPI::Success);
        EXPECT_EQ(client.match(fnp, same).status, CQuorvexAPI::CannotOpenFingerprint);
        // A real fingerprint appears under that path: this server keeps its failure.
        ASSERT_EQ(CFingerprint::createFingerprint(references, QFileInfo(fnp), nullptr), CQuorvexAPI::Success);
        EXPECT_EQ(client.fingerprintStatus(fnp), CQuorvexAPI::Success);
        const auto cached = client.match(fnp, same);
        EXPECT_FALSE(cached.matched);
        EXPECT_EQ(cached.status, CQuorvexAPI::CannotOpenFingerprint);
    }

    CQuorvexAPI restarted;
    ASSERT_EQ(restarted.state(), CQuorvexAPI::Success);
    const auto hit = restarted.match(fnp, same);
    EXPECT_TRUE(hit.matched);
    EXPECT_GE(hit.probability, 0.999);
    EXPECT_GT(hit.correlation, 0.0);
    EXPECT_EQ(hit.status, CQuorvexAPI::Success);
    const auto miss = restarted.match(fnp, stranger);
    EXPECT_FALSE(miss.matched);
    EXPECT_EQ(miss.status, CQuorvexAPI::Success);
    const auto broken = restarted.match(fnp, dir.filePath(QStringLiteral("missing.jpg")));
    EXPECT_FALSE(broken.matched);
    EXPECT_EQ(broken.status, CQuorvexAPI::BrokenImage);
    // The answers agree with the record itself, to the six digits the protocol carries.
    CQuorvexAPI::EStatus status;
    const auto direct = CFingerprint::load(QFileInfo(fnp), &status)->match(QFileInfo(same), false);
    EXPECT_NEAR(direct.probability, hit.probability, 1e-6);
    EXPECT_NEAR(direct.correlation, hit.correlation, std::abs(direct.correlation) * 1e-5);
}

// "identify" against a folder of real fingerprints: the best camera's fields,
// the nearest one when none matches, nothing when nothing was compared, and
// the refusals of match for paths and folders.
TEST(IntegrationWithEngine, IdentifyAnswersWithTheBestFingerprintOfTheFolder)
{
    QTemporaryDir dir;
    const QDir root(dir.path());
    ASSERT_TRUE(root.mkpath(QStringLiteral("library/more")));
    const auto shoot = [&](uint64_t unit, int width, uint64_t seed, const QString& name) {
        camsim::CameraConfig config;
        config.width = width;
        config.height = 768;
        config.unitSeed = unit;
        camsim::ShotConfig shot;
        shot.sceneSeed = seed;
        const QString path = root.filePath(name);
        camsim::Camera(config).shoot(shot, path.toStdString());
        return path;
    };
    const QString a = root.filePath(QStringLiteral("library/a.fnp"));
    const QString b = root.filePath(QStringLiteral("library/more/b.fnp"));
    for (const auto& camera : {qMakePair(uint64_t(1), a), qMakePair(uint64_t(2), b)})
    {
        QFileInfoList references;
        for (int i = 0; i < 3; ++i)
            references.append(QFileInfo(shoot(camera.first, 1024, 30 + i, QStringLiteral("ref%1.jpg").arg(i))));
        ASSERT_EQ(CFingerprint::createFingerprint(references, QFileInfo(camera.second), nullptr),
                  CQuorvexAPI::Success);
    }
    QFile damaged(root.filePath(QStringLiteral("library/damaged.fnp")));
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly));
    damaged.write("not a fingerprint");
    damaged.close();
    const std::string library = root.filePath(QStringLiteral("library")).toStdString();
    const std::string ofA = shoot(1, 1024, 60, QStringLiteral("a.jpg")).toStdString();
    const std::string stranger = shoot(3, 1024, 60, QStringLiteral("stranger.jpg")).toStdString();
    const std::string wider = shoot(1, 1280, 60, QStringLiteral("wider.jpg")).toStdString();

    CIntegrationServer server(true);
    const std::string marker = "thisIsNotLibraryAnswer;";
    const struct
    {
        std::string request;
        std::string answer; // the whole answer, or its start when it ends in ';'
    } cases[] = {
        {"identify;" + library + ";" + ofA, "1;"},
        {"identify;" + library + ";" + stranger, "0;"},
        {"identify;" + library + ";" + wider, "0;0;0;imagefingerprintinconsistentsize;"},
        {"identify;" + library + ";" + root.filePath(QStringLiteral("missing.jpg")).toStdString(),
         "0;0;0;brokenimage;"},
        {"identify;" + library + ";a\tb.jpg", "0;0;0;brokenimage;"},
        {"identify;" + library + "\x01;" + ofA, "0;0;0;cannotopenfingerprint;"},
        {"identify;" + root.filePath(QStringLiteral("no-such")).toStdString() + ";" + ofA,
         "0;0;0;cannotopenfingerprint;"},
        {"identify;" + root.filePath(QStringLiteral("library/more")).toStdString() + ";" + ofA, "0;"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.request);
        const std::string answer = server.answerTo(c.request);
        ASSERT_EQ(answer.rfind(marker + c.answer, 0), 0u) << answer;
        const QStringList fields = QString::fromStdString(answer).split(QLatin1Char(';'));
        ASSERT_EQ(fields.size(), 6) << answer;
        // A match names the fingerprint behind the numbers; no match the nearest
        // one when the engine compared any in full; no comparison none.
        if (fields.at(1) == QLatin1String("1"))
            EXPECT_EQ(fields.at(5), a) << answer;
        else if (fields.at(4) == QLatin1String("success"))
            EXPECT_TRUE(fields.at(5).isEmpty() || fields.at(5) == b) << answer;
        else
            EXPECT_TRUE(fields.at(5).isEmpty()) << answer;
    }
    // The numbers are those of the fingerprint matched on its own.
    CQuorvexAPI::EStatus status;
    const auto direct = CFingerprint::load(QFileInfo(a), &status)->match(QFileInfo(QString::fromStdString(ofA)), false);
    const QStringList hit =
        QString::fromStdString(server.answerTo("identify;" + library + ";" + ofA)).split(QLatin1Char(';'));
    EXPECT_NEAR(hit.at(3).toDouble(), direct.correlation, std::abs(direct.correlation) * 1e-3);

    // The client carries the same answer, the fingerprint's path included.
    qputenv("QUORVEX_PROGRAM", QUORVEX_PROGRAM_PATH);
    qputenv("XDG_DATA_HOME", QFile::encodeName(dir.filePath(QStringLiteral("data"))));
    {
        CQuorvexAPI client;
        QString camera;
        const auto found =
            client.identify(QString::fromStdString(library), QString::fromStdString(ofA), &camera);
        EXPECT_TRUE(found.matched);
        EXPECT_EQ(found.status, CQuorvexAPI::Success);
        EXPECT_EQ(camera, a);
    }

    // A fingerprint removed from the folder is no longer named.
    ASSERT_TRUE(QFile::remove(a));
    const QStringList after =
        QString::fromStdString(server.answerTo("identify;" + library + ";" + ofA)).split(QLatin1Char(';'));
    EXPECT_EQ(after.value(1), QStringLiteral("0"));
    EXPECT_NE(after.value(5), a);
}
