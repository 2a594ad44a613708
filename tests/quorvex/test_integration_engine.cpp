// The integration mode end to end: a real fingerprint learned from simulated
// photos, matched through the real program by the client.
#include "fingerprint.h"

#include "camsim/camera.h"
#include "qutils/quorvexapi.h"

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
