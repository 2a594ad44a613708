// The integration mode end to end: real fingerprints learned from simulated
// photos, matched and identified through the server and the real program.
#include "fingerprint.h"
#include "integrationserver.h"

#include "qutils/quorvexapi.h"
#include "simcamera.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using qutils::CQuorvexAPI;

namespace
{

class IntegrationWithEngine : public ::testing::Test
{
protected:
    // Two cameras' fingerprints, learned once: library/a.fnp and library/more/b.fnp.
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<QTemporaryDir>();
        const QDir root(s_dir->path());
        ASSERT_TRUE(root.mkpath(QStringLiteral("library/more")));
        s_a = root.filePath(QStringLiteral("library/a.fnp"));
        s_b = root.filePath(QStringLiteral("library/more/b.fnp"));
        for (const auto& camera : {qMakePair(uint64_t(1), s_a), qMakePair(uint64_t(2), s_b)})
        {
            const QFileInfoList references = testutils::shootSeries(
                camsim::Camera(testutils::simCamera(camera.first)), 30, 3, s_dir->path(),
                QStringLiteral("ref%1-").arg(camera.first));
            ASSERT_EQ(CFingerprint::createFingerprint(references, QFileInfo(camera.second), nullptr),
                      CQuorvexAPI::Success);
        }
    }
    static void TearDownTestSuite() { s_dir.reset(); }

    void SetUp() override
    {
        qputenv("QUORVEX_PROGRAM", QUORVEX_PROGRAM_PATH);
        qputenv("XDG_DATA_HOME", QFile::encodeName(file(QStringLiteral("data"))));
    }

    QString file(const QString& name) const { return m_dir.filePath(name); }
    QString shoot(uint64_t unit, const QString& name, int width = 1024) const
    {
        return testutils::shoot(camsim::Camera(testutils::simCamera(unit, width)), 60, file(name));
    }

    static std::unique_ptr<QTemporaryDir> s_dir;
    static QString s_a;
    static QString s_b;
    QTemporaryDir m_dir;
};

std::unique_ptr<QTemporaryDir> IntegrationWithEngine::s_dir;
QString IntegrationWithEngine::s_a;
QString IntegrationWithEngine::s_b;

} // namespace

TEST_F(IntegrationWithEngine, CachedFailureUntilRestartThenRealAnswers)
{
    // Paths with spaces and letters beyond ASCII travel as they are.
    ASSERT_TRUE(QDir().mkpath(file(QStringLiteral("Fall Nr. 17 – Größe"))));
    const QString same = shoot(1, QStringLiteral("Fall Nr. 17 – Größe/Bild 1 ü.jpg"));
    const QString stranger = shoot(2, QStringLiteral("other.jpg"));
    const QString fnp = file(QStringLiteral("camera.fnp"));
    {
        CQuorvexAPI client;
        ASSERT_EQ(client.state(), CQuorvexAPI::Success);
        EXPECT_EQ(client.match(fnp, same).status, CQuorvexAPI::CannotOpenFingerprint);
        // A real fingerprint appears under that path: this server keeps its failure.
        ASSERT_TRUE(QFile::copy(s_a, fnp));
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
    const auto broken = restarted.match(fnp, file(QStringLiteral("missing.jpg")));
    EXPECT_FALSE(broken.matched);
    EXPECT_EQ(broken.status, CQuorvexAPI::BrokenImage);
    // The answers agree with the record itself, to the six digits the protocol carries.
    CQuorvexAPI::EStatus status;
    const auto direct = CFingerprint::load(QFileInfo(fnp), &status)->match(QFileInfo(same), false);
    EXPECT_NEAR(direct.probability, hit.probability, 1e-6);
    EXPECT_NEAR(direct.correlation, hit.correlation, std::abs(direct.correlation) * 1e-5);

    // A ';' would split a path on the way, and the piece before it is a photo
    // of this camera here: the client never sends such a path, and says the
    // file cannot be opened.
    ASSERT_TRUE(QFile::copy(same, file(QStringLiteral("IMG"))));
    ASSERT_TRUE(QFile::copy(same, file(QStringLiteral("IMG;2.jpg"))));
    const auto split = restarted.match(fnp, file(QStringLiteral("IMG;2.jpg")));
    EXPECT_FALSE(split.matched);
    EXPECT_EQ(split.status, CQuorvexAPI::BrokenImage);
    EXPECT_EQ(restarted.match(fnp + QStringLiteral(";x"), same).status, CQuorvexAPI::CannotOpenFingerprint);
    EXPECT_EQ(restarted.fingerprintStatus(fnp + QStringLiteral("\n")), CQuorvexAPI::CannotOpenFingerprint);
    EXPECT_TRUE(restarted.match(fnp, same).matched) << "the client still answers";
}

// "identify" against a folder of real fingerprints: the best camera's fields,
// the nearest one when none matches, nothing when nothing was compared, and
// the refusals of match for paths and folders.
TEST_F(IntegrationWithEngine, IdentifyAnswersWithTheBestFingerprintOfTheFolder)
{
    const QDir root(s_dir->path());
    QFile damaged(root.filePath(QStringLiteral("library/damaged.fnp")));
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly));
    damaged.write("not a fingerprint");
    damaged.close();
    const std::string library = root.filePath(QStringLiteral("library")).toStdString();
    const std::string ofA = shoot(1, QStringLiteral("a.jpg")).toStdString();
    const std::string stranger = shoot(3, QStringLiteral("stranger.jpg")).toStdString();
    const std::string wider = shoot(1, QStringLiteral("wider.jpg"), 1280).toStdString();

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
        {"identify;" + library + ";" + file(QStringLiteral("missing.jpg")).toStdString(), "0;0;0;brokenimage;"},
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
            EXPECT_EQ(fields.at(5), s_a) << answer;
        else if (fields.at(4) == QLatin1String("success"))
            EXPECT_TRUE(fields.at(5).isEmpty() || fields.at(5) == s_b) << answer;
        else
            EXPECT_TRUE(fields.at(5).isEmpty()) << answer;
    }
    // The numbers are those of the fingerprint matched on its own.
    CQuorvexAPI::EStatus status;
    const auto direct = CFingerprint::load(QFileInfo(s_a), &status)->match(QFileInfo(QString::fromStdString(ofA)), false);
    const QStringList hit =
        QString::fromStdString(server.answerTo("identify;" + library + ";" + ofA)).split(QLatin1Char(';'));
    EXPECT_NEAR(hit.at(3).toDouble(), direct.correlation, std::abs(direct.correlation) * 1e-3);
    // match through the same server and its own loader finds the same camera.
    const std::string matched = server.answerTo("match;" + s_a.toStdString() + ";" + ofA);
    EXPECT_EQ(matched.rfind(marker + "1;", 0), 0u) << matched;

    // The client carries the same answer, the fingerprint's path included.
    {
        CQuorvexAPI client;
        QString camera;
        const auto found = client.identify(QString::fromStdString(library), QString::fromStdString(ofA), &camera);
        EXPECT_TRUE(found.matched);
        EXPECT_EQ(found.status, CQuorvexAPI::Success);
        EXPECT_EQ(camera, s_a);
    }

    // A fingerprint moved out of the folder is no longer named.
    ASSERT_TRUE(QFile::rename(s_a, s_a + QStringLiteral(".away")));
    const QStringList after =
        QString::fromStdString(server.answerTo("identify;" + library + ";" + ofA)).split(QLatin1Char(';'));
    ASSERT_TRUE(QFile::rename(s_a + QStringLiteral(".away"), s_a));
    EXPECT_EQ(after.value(1), QStringLiteral("0"));
    EXPECT_NE(after.value(5), s_a);
}
