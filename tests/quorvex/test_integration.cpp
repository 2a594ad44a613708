#include "appinfo.h"
#include "fingerprint.h"
#include "integrationserver.h"

#include "logcapture.h"
#include "qutils/appsettings.h"
#include "qutils/quorvexapi.h"
#include "testutils.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

using qutils::CQuorvexAPI;

namespace
{

const std::string Greeting = "thisIsNotLibraryAnswer;success\n";

// A fingerprint file in the program's format: the version, the metadata and
// bytes the engine rejects, so that version 2 loads as a broken file.
void writeFingerprintFile(const QString& path, qint64 version)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    QDataStream stream(&file);
    stream.setVersion(QDataStream::Qt_5_0);
    stream << version << QByteArray("{}") << QByteArray("not engine bytes");
}

std::string serve(CIntegrationServer& server, const std::string& input, int* exitCode = nullptr)
{
    std::istringstream in(input);
    std::ostringstream out;
    const int code = server.run(in, out);
    if (exitCode)
        *exitCode = code;
    return out.str();
}

// A fingerprint whose match answers what the test says and remembers what it was asked.
class CFakeFingerprint : public CFingerprint
{
public:
    explicit CFakeFingerprint(const SAnalysisResult& result) : m_result(result) {}

    SAnalysisResult match(const QFileInfo& photo, bool skipDifferentCamera) const override
    {
        m_photos << photo.filePath();
        m_skipFlags.push_back(skipDifferentCamera);
        return m_result;
    }

    SAnalysisResult m_result;
    mutable QStringList m_photos;
    mutable std::vector<bool> m_skipFlags;
};

// A loader that hands out one fake fingerprint for "good" paths, fails for the
// rest and counts its calls per path.
struct SFakeLoader
{
    std::shared_ptr<CFakeFingerprint> fingerprint;
    QStringList calls;

    CIntegrationServer::Loader loader()
    {
        return [this](const QFileInfo& file, CQuorvexAPI::EStatus* status) -> std::shared_ptr<CFingerprint>
        {
            calls << file.filePath();
            if (file.filePath() == QLatin1String("boom"))
                throw std::runtime_error("loader failed");
            if (file.filePath().startsWith(QLatin1String("good")))
            {
                *status = CQuorvexAPI::Success;
                return fingerprint;
            }
            *status = CQuorvexAPI::CannotOpenFingerprint;
            return nullptr;
        };
    }
};

CQuorvexAPI::SAnalysisResult makeResult(bool matched, double probability, double correlation,
                                        CQuorvexAPI::EStatus status)
{
    CQuorvexAPI::SAnalysisResult result;
    result.matched = matched;
    result.probability = probability;
    result.correlation = correlation;
    result.status = status;
    return result;
}

// Records the whole output at every flush, to see that each answer goes out at once.
class CFlushRecorder : public std::stringbuf
{
public:
    std::vector<std::string> m_flushed;

protected:
    int sync() override
    {
        m_flushed.push_back(str());
        return 0;
    }
};

// A decimal comma, as several real locales have.
class CCommaPunct : public std::numpunct<char>
{
protected:
    char do_decimal_point() const override { return ','; }
};

class CScopedEnv
{
public:
    CScopedEnv(const char* name, const QByteArray& value)
        : m_name(name), m_had(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    ~CScopedEnv()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }
    CScopedEnv(const CScopedEnv&) = delete;
    CScopedEnv& operator=(const CScopedEnv&) = delete;

private:
    const char* m_name;
    bool m_had;
    QByteArray m_old;
};

} // namespace

// ---------------------------------------------------------------------------
// Mode decision and the application information record

TEST(RunMode, OnlyTheExactSingleSwitchSelectsIntegration)
{
    EXPECT_EQ(runModeFor({QStringLiteral("/integration")}), ERunMode::Integration);

    EXPECT_EQ(runModeFor({}), ERunMode::Windowed);
    EXPECT_EQ(runModeFor({QStringLiteral("/INTEGRATION")}), ERunMode::Windowed);
    EXPECT_EQ(runModeFor({QStringLiteral("/Integration")}), ERunMode::Windowed);
    EXPECT_EQ(runModeFor({QStringLiteral("integration")}), ERunMode::Windowed);
    EXPECT_EQ(runModeFor({QStringLiteral("/integration ")}), ERunMode::Windowed);
    EXPECT_EQ(runModeFor({QStringLiteral("/integration"), QStringLiteral("x")}), ERunMode::Windowed);
    EXPECT_EQ(runModeFor({QStringLiteral("x"), QStringLiteral("/integration")}), ERunMode::Windowed);
}

TEST(AppInfo, EachModeHasItsOwnLockAndLogFile)
{
    QTemporaryDir config;
    ASSERT_TRUE(config.isValid());
    qutils::CAppSettings::setConfigFolder(config.path());

    const SAppInfo normal = SAppInfo::forMode(ERunMode::Windowed);
    const SAppInfo integration = SAppInfo::forMode(ERunMode::Integration);
    EXPECT_EQ(normal.mutexName, QStringLiteral("Global\\VeltranoQuorvex.mtx"));
    EXPECT_EQ(integration.mutexName, QStringLiteral("Global\\VeltranoQuorvexIntegration.mtx"));
    EXPECT_EQ(integration.internalName, QStringLiteral("Quorvex"));
    EXPECT_EQ(integration.versionText(), QStringLiteral("2.0.0 (build 9325)"));

    const QString folder = SAppInfo::dataFolder();
    ASSERT_FALSE(folder.isEmpty());
    EXPECT_TRUE(QFileInfo(folder).isDir()) << "the data folder is created";
    EXPECT_EQ(normal.logFilePath(), folder + QStringLiteral("/main.log"));
    EXPECT_EQ(integration.logFilePath(), folder + QStringLiteral("/main_integration.log"));
    EXPECT_EQ(normal.lockFilePath(), folder + QStringLiteral("/VeltranoQuorvex.mtx.lock"));
    EXPECT_EQ(integration.lockFilePath(), folder + QStringLiteral("/VeltranoQuorvexIntegration.mtx.lock"));

    EXPECT_TRUE(normal.whatsNewAddress.endsWith(QStringLiteral("/whats-new")));
    qutils::CAppSettings::setValue(SAppInfo::whatsNewSettingsKey(),
                                   QStringLiteral("https://mirror.example/whats-new"));
    EXPECT_EQ(SAppInfo::forMode(ERunMode::Windowed).whatsNewAddress,
              QStringLiteral("https://mirror.example/whats-new"));
    qutils::CAppSettings::setConfigFolder(QString());
}

// ---------------------------------------------------------------------------
// The server loop, driven through streams

TEST(IntegrationServer, GreetsAndEndsWithZeroAtEndOfInput)
{
    SFakeLoader fake;
    CIntegrationServer server(true, fake.loader());
    int code = -1;
    EXPECT_EQ(serve(server, "", &code), Greeting);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(fake.calls.isEmpty());
}

TEST(IntegrationServer, InactiveLicenceOnlySaysSoAndReadsNothing)
{
    SFakeLoader fake;
    CIntegrationServer server(false, fake.loader());
    std::istringstream in("fingerprintStatus;good.fnp\n");
    std::ostringstream out;
    EXPECT_EQ(server.run(in, out), 0);
    EXPECT_EQ(out.str(), "thisIsNotLibraryAnswer;notactivated\n");
    EXPECT_EQ(static_cast<long long>(in.tellg()), 0) << "no request may be read";
    EXPECT_TRUE(fake.calls.isEmpty());
}

TEST(IntegrationServer, UnknownCommandsWrongCaseAndEmptyLinesGetNoAnswer)
{
    SFakeLoader fake;
    fake.fingerprint = std::make_shared<CFakeFingerprint>(makeResult(true, 0.5, 0.25, CQuorvexAPI::Success));
    CIntegrationServer server(true, fake.loader());
    const std::string input = "MATCH;good.fnp;photo.jpg\n"
                              "\n"
                              "FingerprintStatus;good.fnp\n"
                              "fingerprintstatus;good.fnp\n"
                              " match;good.fnp;photo.jpg\n"
                              ";match;good.fnp\n"
                              "hello world\n"
                              "quitquorvex\n"
                              "QUITQUORVEX\n"
                              "fingerprintStatus;good.fnp\n";
    int code = -1;
    EXPECT_EQ(serve(server, input, &code), Greeting + "thisIsNotLibraryAnswer;success\n")
        << "only the last line is a request";
    EXPECT_EQ(code, 0);
    EXPECT_EQ(fake.calls, QStringList{QStringLiteral("good.fnp")});
    EXPECT_TRUE(fake.fingerprint->m_photos.isEmpty());
}

TEST(IntegrationServer, QuitEndsAtOnceWithoutAnswer)
{
    SFakeLoader fake;
    CIntegrationServer server(true, fake.loader());
    std::istringstream in("fingerprintStatus;a.fnp\nquitQuorvex\nfingerprintStatus;b.fnp\n");
    std::ostringstream out;
    EXPECT_EQ(server.run(in, out), 0);
    EXPECT_EQ(out.str(), Greeting + "thisIsNotLibraryAnswer;cannotopenfingerprint\n");
    EXPECT_EQ(fake.calls, QStringList{QStringLiteral("a.fnp")}) << "nothing after quitQuorvex is read";

    // Extra fields do not change the command.
    CIntegrationServer second(true, fake.loader());
    EXPECT_EQ(serve(second, "quitQuorvex;now\nfingerprintStatus;c.fnp\n"), Greeting);
}

TEST(IntegrationServer, EveryAnswerIsFlushedAsItIsWritten)
{
    SFakeLoader fake;
    fake.fingerprint = std::make_shared<CFakeFingerprint>(makeResult(false, 0, 0, CQuorvexAPI::BrokenImage));
    CIntegrationServer server(true, fake.loader());
    std::istringstream in("fingerprintStatus;x.fnp\nnoise\nmatch;good.fnp;p.jpg\n");
    CFlushRecorder recorder;
    std::ostream out(&recorder);
    server.run(in, out);

    const std::string first = Greeting;
    const std::string second = first + "thisIsNotLibraryAnswer;cannotopenfingerprint\n";
    const std::string third = second + "thisIsNotLibraryAnswer;0;0;0;brokenimage\n";
    ASSERT_GE(recorder.m_flushed.size(), 3u);
    EXPECT_EQ(recorder.m_flushed[0], first);
    EXPECT_EQ(recorder.m_flushed[1], second);
    EXPECT_EQ(recorder.m_flushed[2], third);
    EXPECT_EQ(recorder.m_flushed.back(), third);
}

TEST(IntegrationServer, MatchAnswersWithTheFingerprintsResult)
{
    SFakeLoader fake;
    fake.fingerprint =
        std::make_shared<CFakeFingerprint>(makeResult(true, 0.123456789, 1.5e-5, CQuorvexAPI::Success));
    CIntegrationServer server(true, fake.loader());

    EXPECT_EQ(server.answerTo("match;good.fnp;/photos/a.jpg"),
              "thisIsNotLibraryAnswer;1;0.123457;1.5e-05;success");
    fake.fingerprint->m_result = makeResult(false, 0.0, -0.25, CQuorvexAPI::NotSupportedFormat);
    EXPECT_EQ(server.answerTo("match;good.fnp;/photos/b.tif;ignored"),
              "thisIsNotLibraryAnswer;0;0;-0.25;notsupportedformat");
    // Missing fields are empty text: still an answer.
    EXPECT_EQ(server.answerTo("match;good.fnp"), "thisIsNotLibraryAnswer;0;0;-0.25;notsupportedformat");
    // Not compared: the status says so, never a bare "no match".
    fake.fingerprint->m_result = makeResult(false, 0.0, 0.0, CQuorvexAPI::ImageFingerprintInconsistentSize);
    EXPECT_EQ(server.answerTo("match;good.fnp;/photos/big.jpg"),
              "thisIsNotLibraryAnswer;0;0;0;imagefingerprintinconsistentsize");

    EXPECT_EQ(fake.fingerprint->m_photos, (QStringList{QStringLiteral("/photos/a.jpg"), QStringLiteral("/photos/b.tif"),
                                                       QString(), QStringLiteral("/photos/big.jpg")}));
    EXPECT_EQ(fake.fingerprint->m_skipFlags, (std::vector<bool>{false, false, false, false}))
        << "the different-camera rule is off in this mode";
    EXPECT_EQ(fake.calls, QStringList{QStringLiteral("good.fnp")}) << "loaded once, then cached";
}

TEST(IntegrationServer, FingerprintsAreCachedPerFileAndFailuresStayUntilRestart)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ASSERT_TRUE(QDir(dir.path()).mkdir(QStringLiteral("sub")));
    const QString fnp = dir.filePath(QStringLiteral("a.fnp"));
    const auto match = [](const QString& fingerprint)
    { return "match;" + fingerprint.toStdString() + ";p.jpg"; };
    const std::string refused = "thisIsNotLibraryAnswer;0;0;0;cannotopenfingerprint";
    // Spellings of one file: ".", "..", doubled separators, a link.
    const auto spellings = [&dir](const QString& name)
    {
        QFile::link(dir.filePath(name), dir.filePath(QStringLiteral("link-") + name));
        return QStringList{
            dir.path() + QStringLiteral("/./") + name, dir.path() + QStringLiteral("//") + name,
            dir.path() + QStringLiteral("/sub/../") + name, dir.filePath(QStringLiteral("link-") + name)};
    };

    QStringList loads;
    // The cache is under test, not loading: any file that exists stands for a usable fingerprint.
    const auto usable = std::make_shared<CFakeFingerprint>(CFingerprint::SAnalysisResult{});
    const CIntegrationServer::Loader counting =
        [&loads, usable](const QFileInfo& file, CQuorvexAPI::EStatus* status) -> std::shared_ptr<CFingerprint>
    {
        loads << file.filePath();
        *status = file.exists() ? CQuorvexAPI::Success : CQuorvexAPI::CannotOpenFingerprint;
        return file.exists() ? usable : nullptr;
    };

    CIntegrationServer server(true, counting);
    EXPECT_EQ(server.answerTo(match(fnp)), refused);
    EXPECT_EQ(server.answerTo(match(dir.path() + QStringLiteral("/sub/../a.fnp"))), refused);
    writeFingerprintFile(fnp, 2);
    EXPECT_EQ(server.answerTo(match(fnp)), refused);
    for (const QString& spelling : spellings(QStringLiteral("a.fnp")))
        EXPECT_EQ(server.answerTo(match(spelling)), refused) << spelling.toStdString();
    EXPECT_EQ(loads.size(), 1) << "a file that failed is not tried again under any spelling";

    // A usable file is loaded once for all its spellings.
    const QString good = dir.filePath(QStringLiteral("b.fnp"));
    writeFingerprintFile(good, 2);
    server.answerTo(match(good));
    for (const QString& spelling : spellings(QStringLiteral("b.fnp")))
        server.answerTo(match(spelling));
    EXPECT_EQ(loads, (QStringList{fnp, good}));

    // Only the most recent ones stay loaded: the oldest is read again.
    for (int i = 0; i < CIntegrationServer::CachedFingerprints; ++i)
    {
        writeFingerprintFile(dir.filePath(QStringLiteral("c%1.fnp").arg(i)), 2);
        server.answerTo(match(dir.filePath(QStringLiteral("c%1.fnp").arg(i))));
        server.answerTo(match(dir.filePath(QStringLiteral("c0.fnp"))));
    }
    EXPECT_EQ(loads.size(), 2 + CIntegrationServer::CachedFingerprints) << "c0 stayed as the most used";
    server.answerTo(match(good));
    EXPECT_EQ(loads.size(), 3 + CIntegrationServer::CachedFingerprints);
    EXPECT_EQ(loads.back(), good);

    // fingerprintStatus always reads the file as it is now, without touching the cache.
    EXPECT_EQ(server.answerTo("fingerprintStatus;" + fnp.toStdString()), "thisIsNotLibraryAnswer;success");
    EXPECT_EQ(server.answerTo(match(fnp)), refused);
    EXPECT_EQ(loads.size(), 4 + CIntegrationServer::CachedFingerprints);

    CIntegrationServer restarted(true, counting);
    restarted.answerTo(match(fnp));
    restarted.answerTo(match(fnp));
    EXPECT_EQ(loads.size(), 5 + CIntegrationServer::CachedFingerprints) << "a new server loads the file once";
}

TEST(IntegrationServer, FingerprintStatusReportsTheLoadResult)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString missing = dir.filePath(QStringLiteral("missing.fnp"));
    const QString version3 = dir.filePath(QStringLiteral("v3.fnp"));
    const QString version2 = dir.filePath(QStringLiteral("v2.fnp"));
    writeFingerprintFile(version3, 3);
    writeFingerprintFile(version2, 2);

    CIntegrationServer server(true);
    const auto status = [&server](const QString& path)
    { return server.answerTo("fingerprintStatus;" + path.toStdString()); };
    EXPECT_EQ(status(missing), "thisIsNotLibraryAnswer;cannotopenfingerprint");
    EXPECT_EQ(status(version3), "thisIsNotLibraryAnswer;fingerprintunsupportedversion");
    EXPECT_EQ(status(version2), "thisIsNotLibraryAnswer;fingerprintfilebroken");
    const QString fifo = dir.filePath(QStringLiteral("fifo.fnp"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    EXPECT_EQ(status(fifo), "thisIsNotLibraryAnswer;cannotopenfingerprint") << "refused, not waited on";
    EXPECT_EQ(server.answerTo("fingerprintStatus"), "thisIsNotLibraryAnswer;cannotopenfingerprint")
        << "a missing path is an empty one";
}

TEST(IntegrationServer, PathsTravelAsUtf8AndCrLfLineEndsAreTolerated)
{
    SFakeLoader fake;
    fake.fingerprint = std::make_shared<CFakeFingerprint>(makeResult(true, 1, 2, CQuorvexAPI::Success));
    CIntegrationServer server(true, fake.loader());
    const std::string input = "fingerprintStatus;/d\xc3\xa1ta/k\xc3\xbc.fnp\r\n"
                              "match;good \xe2\x82\xac.fnp;/ph\xc3\xb6to.jpg\r\n"
                              "quitQuorvex\r\n"
                              "fingerprintStatus;never.fnp\n";
    EXPECT_EQ(serve(server, input),
              Greeting +
                  "thisIsNotLibraryAnswer;cannotopenfingerprint\nthisIsNotLibraryAnswer;1;1;2;success\n");
    EXPECT_EQ(fake.calls,
              (QStringList{QStringLiteral("/d\u00e1ta/k\u00fc.fnp"), QStringLiteral("good \u20ac.fnp")}));
    EXPECT_EQ(fake.fingerprint->m_photos, QStringList{QStringLiteral("/ph\u00f6to.jpg")});
}

// Lines the server must not take as they stand: paths it would misread, and
// lines too long to read. Each is answered without a look at any file, and
// the next request is answered as usual.
TEST(IntegrationServer, PathsItWouldMisreadAndOverlongLinesAreRefused)
{
    using namespace std::string_literals;
    const std::size_t max = CIntegrationServer::MaxLineLength;
    const std::string matchGood = "match;good.fnp;";
    const std::string matched = "thisIsNotLibraryAnswer;1;0.5;0.25;success\n";
    const std::string noFingerprint = "thisIsNotLibraryAnswer;0;0;0;cannotopenfingerprint\n";
    const std::string noPhoto = "thisIsNotLibraryAnswer;0;0;0;brokenimage\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"match;good.fnp\0/nonexistent;p.jpg"s, noFingerprint},
        {"match;good.fnp;p.jpg\0/nonexistent"s, noPhoto},
        {"match;good.fnp;p\x01.jpg", noPhoto},
        {"match;good.fnp;p\t.jpg", noPhoto},
        {"match;good.fnp;p\x7f.jpg", noPhoto},
        {"match;good.fnp;p.jpg\r\r", noPhoto},    // only the line end's CR is dropped
        {"match;good.fnp;p\xff.jpg", noPhoto},    // not UTF-8
        {"match;good.fnp;\xc0\xaf.jpg", noPhoto}, // "/" spelled too long
        {"match;good\x1b.fnp;p.jpg", noFingerprint},
        {"fingerprintStatus;good.fnp\0x"s, "thisIsNotLibraryAnswer;cannotopenfingerprint\n"},
        {"fingerprintStatus;\xed\xa0\x80.fnp", "thisIsNotLibraryAnswer;cannotopenfingerprint\n"},
        // The longest line, with and without a CR, is a request like any other.
        {matchGood + std::string(max - matchGood.size(), 'p'), matched},
        {matchGood + std::string(max - matchGood.size(), 'p') + '\r', matched},
        {matchGood + std::string(max + 1 - matchGood.size(), 'p'), "thisIsNotLibraryAnswer;0;0;0;fatal\n"},
        {"fingerprintStatus;" + std::string(3 * max, 'f'), "thisIsNotLibraryAnswer;fatal\n"},
        {"identify;" + std::string(3 * max, 'f'), "thisIsNotLibraryAnswer;0;0;0;fatal;\n"},
        {"identify;lib\x01;p.jpg", "thisIsNotLibraryAnswer;0;0;0;cannotopenfingerprint;\n"},
        {"identify;/nonexistent-library;p.jpg", "thisIsNotLibraryAnswer;0;0;0;cannotopenfingerprint;\n"},
        {"hello;" + std::string(3 * max, 'h'), ""},
        {std::string(3 * max, 'm'), ""},
        {matchGood + "p.jpg", matched},
    };
    std::string input;
    std::string expected = Greeting;
    for (const auto& c : cases)
    {
        input += c.first + '\n';
        expected += c.second;
    }
    SFakeLoader fake;
    fake.fingerprint = std::make_shared<CFakeFingerprint>(makeResult(true, 0.5, 0.25, CQuorvexAPI::Success));
    CIntegrationServer server(true, fake.loader());
    const std::string output = serve(server, input);
    EXPECT_EQ(output, expected);
    EXPECT_EQ(fake.calls, QStringList{QStringLiteral("good.fnp")});
    ASSERT_EQ(fake.fingerprint->m_photos.size(), 3);
    EXPECT_EQ(fake.fingerprint->m_photos.last(), QStringLiteral("p.jpg"));

    // A quit ends the server however long its line; so does input ending mid-line.
    EXPECT_EQ(serve(server, "quitQuorvex;" + std::string(2 * max, 'q') + "\nfingerprintStatus;x\n"),
              Greeting);
    EXPECT_EQ(serve(server, "fingerprintStatus;" + std::string(2 * max, 'f')),
              Greeting + "thisIsNotLibraryAnswer;fatal\n");
}

TEST(IntegrationServer, AFailingRequestIsAnsweredAndServingGoesOn)
{
    SFakeLoader fake;
    CIntegrationServer server(true, fake.loader());
    const std::string output =
        serve(server, "match;boom;p.jpg\nfingerprintStatus;boom\nfingerprintStatus;x\n");
    EXPECT_EQ(output, Greeting + "thisIsNotLibraryAnswer;0;0;0;fatal\n"
                                 "thisIsNotLibraryAnswer;fatal\n"
                                 "thisIsNotLibraryAnswer;cannotopenfingerprint\n");
}

TEST(IntegrationServer, NumbersHaveSixSignificantDigitsInEveryLocale)
{
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new CCommaPunct));
    const std::vector<std::pair<double, std::string>> cases = {
        {0.123456789, "0.123457"},
        {0.0, "0"},
        {1.0, "1"},
        {0.5, "0.5"},
        {-0.25, "-0.25"},
        {1e-5, "1e-05"},
        {0.0001, "0.0001"},
        {0.000123456789, "0.000123457"},
        {0.99999999, "1"},
        {123456.7, "123457"},
        {1234567.0, "1.23457e+06"},
        {-3.5e-7, "-3.5e-07"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CIntegrationServer::formatNumber(c.first), c.second) << c.first;
    std::locale::global(previous);
}

// ---------------------------------------------------------------------------
// The real program in a child process

namespace
{

// Points the client at the built program and keeps the child's files (log,
// settings) in a folder of the test's own.
class ChildProcessTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        QDir(m_dir.path()).mkpath(QStringLiteral("work"));
    }
    void TearDown() override { CQuorvexAPI::setLineTimeout(30000); }

    QString path(const QString& name) const { return m_dir.filePath(QStringLiteral("work/") + name); }
    QString logFile() const { return m_dir.filePath(QStringLiteral("data/Quorvex/main_integration.log")); }

    // A shell script standing in for the program.
    QString script(const QString& name, const QByteArray& body) const
    {
        const QString file = m_dir.filePath(name);
        QFile out(file);
        EXPECT_TRUE(out.open(QIODevice::WriteOnly));
        out.write("#!/bin/sh\n" + body);
        out.close();
        out.setPermissions(out.permissions() | QFileDevice::ExeOwner);
        return file;
    }

    QTemporaryDir m_dir;
    CScopedEnv m_program{"QUORVEX_PROGRAM", QByteArray(QUORVEX_PROGRAM_PATH)};
    CScopedEnv m_data{"XDG_DATA_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("data")))};
    CScopedEnv m_config{"XDG_CONFIG_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("config")))};
    CScopedEnv m_licence{"QUORVEX_LICENCE_INACTIVE", QByteArray()};
};

} // namespace

TEST_F(ChildProcessTest, StandardOutputCarriesOnlyTheProtocol)
{
    writeFingerprintFile(path(QStringLiteral("v3.fnp")), 3);
    QProcess child;
    child.start(QStringLiteral(QUORVEX_PROGRAM_PATH), {QStringLiteral("/integration")});
    ASSERT_TRUE(child.waitForStarted(30000));
    const QByteArray requests = "fingerprintStatus;" + QFile::encodeName(path(QStringLiteral("v3.fnp"))) +
                                "\n"
                                "MATCH;x;y\n"
                                "\n"
                                "match;" +
                                QFile::encodeName(path(QStringLiteral("a.fnp"))) +
                                ";photo.jpg\n"
                                "fingerprintStatus;" +
                                QFile::encodeName(path(QStringLiteral("a.fnp"))) + "\n";
    child.write(requests);
    child.closeWriteChannel();
    ASSERT_TRUE(child.waitForFinished(60000)) << "end of input must end the server";
    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(child.exitCode(), 0);
    EXPECT_EQ(child.readAllStandardOutput(),
              QByteArray("thisIsNotLibraryAnswer;success\n"
                         "thisIsNotLibraryAnswer;fingerprintunsupportedversion\n"
                         "thisIsNotLibraryAnswer;0;0;0;cannotopenfingerprint\n"
                         "thisIsNotLibraryAnswer;cannotopenfingerprint\n"));

    // The mode logs into its own file in the data folder, not on the protocol channel.
    EXPECT_TRUE(testutils::readText(logFile()).contains(QStringLiteral("cannot be used")))
        << testutils::readText(logFile()).toStdString();
}

TEST_F(ChildProcessTest, QuitEndsTheServerWithZero)
{
    QProcess child;
    child.start(QStringLiteral(QUORVEX_PROGRAM_PATH), {QStringLiteral("/integration")});
    ASSERT_TRUE(child.waitForStarted(30000));
    child.write("quitQuorvex\nfingerprintStatus;x\n");
    ASSERT_TRUE(child.waitForFinished(60000)) << "quitQuorvex must end the server while input stays open";
    EXPECT_EQ(child.exitCode(), 0);
    EXPECT_EQ(child.readAllStandardOutput(), QByteArray("thisIsNotLibraryAnswer;success\n"));
}

TEST_F(ChildProcessTest, OtherCommandLinesStartTheWindowedProgram)
{
    const QString log = m_dir.filePath(QStringLiteral("data/Quorvex/main.log"));
    for (const QStringList& arguments : {QStringList{}, QStringList{QStringLiteral("/INTEGRATION")},
                                         QStringList{QStringLiteral("/integration"), QStringLiteral("more")}})
    {
        QFile::remove(log);
        QProcess child;
        child.start(QStringLiteral(QUORVEX_PROGRAM_PATH), arguments);
        ASSERT_TRUE(child.waitForStarted(30000));
        child.closeWriteChannel();
        // The windowed program writes its start line and keeps running.
        bool started = false;
        for (int i = 0; i < 300 && !started; ++i)
        {
            child.waitForFinished(100);
            started = testutils::readText(log).contains(QStringLiteral("has started"));
        }
        EXPECT_TRUE(started) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(child.state(), QProcess::Running);
        EXPECT_FALSE(child.readAllStandardOutput().contains("thisIsNotLibraryAnswer"));
        child.kill();
        child.waitForFinished(30000);
    }
}

TEST_F(ChildProcessTest, ClientTalksToTheRealProgram)
{
    const QString fnp = path(QStringLiteral("a.fnp"));
    const QString photo = path(QStringLiteral("photo.jpg"));
    writeFingerprintFile(path(QStringLiteral("v3.fnp")), 3);
    writeFingerprintFile(path(QStringLiteral("v2.fnp")), 2);

    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    EXPECT_EQ(client.fingerprintStatus(path(QStringLiteral("missing.fnp"))),
              CQuorvexAPI::CannotOpenFingerprint);
    EXPECT_EQ(client.fingerprintStatus(path(QStringLiteral("v3.fnp"))),
              CQuorvexAPI::FingerprintUnsupportedVersion);
    EXPECT_EQ(client.fingerprintStatus(path(QStringLiteral("v2.fnp"))), CQuorvexAPI::FingerprintFileBroken);

    CQuorvexAPI::SAnalysisResult result = client.match(fnp, photo);
    EXPECT_FALSE(result.matched);
    EXPECT_EQ(result.probability, 0.0);
    EXPECT_EQ(result.correlation, 0.0);
    EXPECT_EQ(result.status, CQuorvexAPI::CannotOpenFingerprint);

    // Created now, the file is known to the server and still refused until it restarts.
    writeFingerprintFile(fnp, 2);
    EXPECT_EQ(client.fingerprintStatus(fnp), CQuorvexAPI::FingerprintFileBroken);
    EXPECT_EQ(client.match(fnp, photo).status, CQuorvexAPI::CannotOpenFingerprint);
}

TEST_F(ChildProcessTest, InactiveLicenceGivesNotActivated)
{
    const CScopedEnv inactive("QUORVEX_LICENCE_INACTIVE", "1");
    testutils::CLogCapture log;
    CQuorvexAPI client;
    EXPECT_EQ(client.state(), CQuorvexAPI::NotActivated);
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexapi.cpp")));
    // The server has ended after its greeting: calls still work and fail.
    EXPECT_EQ(client.fingerprintStatus(path(QStringLiteral("a.fnp"))), CQuorvexAPI::Fatal);
    EXPECT_EQ(client.match(path(QStringLiteral("a.fnp")), path(QStringLiteral("p.jpg"))).status,
              CQuorvexAPI::Fatal);
}

TEST_F(ChildProcessTest, FourThreadsShareOneClient)
{
    writeFingerprintFile(path(QStringLiteral("v3.fnp")), 3);
    writeFingerprintFile(path(QStringLiteral("v2.fnp")), 2);
    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);

    // Each thread asks questions whose answers differ from the other threads',
    // so an answer delivered to the wrong caller shows up as a mismatch.
    const QString files[] = {path(QStringLiteral("v2.fnp")), path(QStringLiteral("v3.fnp")),
                             path(QStringLiteral("missing.fnp")), path(QStringLiteral("v2.fnp"))};
    const CQuorvexAPI::EStatus expected[] = {
        CQuorvexAPI::FingerprintFileBroken, CQuorvexAPI::FingerprintUnsupportedVersion,
        CQuorvexAPI::CannotOpenFingerprint, CQuorvexAPI::FingerprintFileBroken};
    std::atomic<int> wrong{0};
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < 25; ++i)
                {
                    if (t == 3 && i % 2 == 1)
                    {
                        // A match in between: a four-field answer among one-field ones.
                        const auto result =
                            client.match(path(QStringLiteral("missing.fnp")), path(QStringLiteral("p.jpg")));
                        if (result.status != CQuorvexAPI::CannotOpenFingerprint || result.matched)
                            ++wrong;
                    }
                    else if (client.fingerprintStatus(files[t]) != expected[t])
                    {
                        ++wrong;
                    }
                    ++answered;
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(answered.load(), 100);
    EXPECT_EQ(wrong.load(), 0);
}

TEST_F(ChildProcessTest, ClientSkipsLinesThatAreNotAnswers)
{
#ifndef Q_OS_UNIX
    GTEST_SKIP() << "the stand-in server is a shell script";
#endif
    const QString program = script(QStringLiteral("chatty.sh"), R"(
if [ "$#" -ne 1 ] || [ "$1" != "/integration" ]; then
    echo "thisIsNotLibraryAnswer;fatal"
    exit 1
fi
echo "starting up"
echo "a library warning" >&2
echo "  thisIsNotLibraryAnswer;success  "
while IFS= read -r line; do
    case "$line" in
    quitQuorvex) exit 0 ;;
    "match;/data/fp.fnp;/data/photo.jpg")
        echo "log: thisIsNotLibraryAnswer;0;0;0;fatal"
        echo "thisIsNotLibraryAnswerX;0;0;0;fatal"
        echo "noise" >&2
        echo ""
        echo "thisIsNotLibraryAnswer;1;0.5;0.25;success" ;;
    "fingerprintStatus;/data/fp.fnp")
        echo ";thisIsNotLibraryAnswer;success"
        echo "thisIsNotLibraryAnswer;fingerprintunsupportedversion" ;;
    *)
        echo "thisIsNotLibraryAnswer;0;0;0;fatal" ;;
    esac
done
)");
    const CScopedEnv chosen("QUORVEX_PROGRAM", QFile::encodeName(program));
    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    const CQuorvexAPI::SAnalysisResult result =
        client.match(QStringLiteral("/data/fp.fnp"), QStringLiteral("/data/photo.jpg"));
    EXPECT_TRUE(result.matched);
    EXPECT_EQ(result.probability, 0.5);
    EXPECT_EQ(result.correlation, 0.25);
    EXPECT_EQ(result.status, CQuorvexAPI::Success);
    EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/data/fp.fnp")),
              CQuorvexAPI::FingerprintUnsupportedVersion);
    EXPECT_EQ(client.match(QStringLiteral("/other.fnp"), QStringLiteral("/p.jpg")).status,
              CQuorvexAPI::Fatal);
}

TEST_F(ChildProcessTest, OtherOutputRestartsTheWaitForEachLine)
{
#ifndef Q_OS_UNIX
    GTEST_SKIP() << "the stand-in server is a shell script";
#endif
    // Four lines of other text half a second apart: longer in total than the
    // line timeout, but no single wait is.
    const QString program = script(QStringLiteral("slow.sh"), R"(
echo "thisIsNotLibraryAnswer;success"
while IFS= read -r line; do
    case "$line" in
    quitQuorvex) exit 0 ;;
    *)
        for i in 1 2 3 4; do sleep 0.5; echo "still working $i"; done
        echo "thisIsNotLibraryAnswer;success" ;;
    esac
done
)");
    const CScopedEnv chosen("QUORVEX_PROGRAM", QFile::encodeName(program));
    CQuorvexAPI::setLineTimeout(1500);
    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/fp.fnp")), CQuorvexAPI::Success);
}

TEST_F(ChildProcessTest, SilentServerIsFatalAfterTheTimeout)
{
#ifndef Q_OS_UNIX
    GTEST_SKIP() << "the stand-in server is a shell script";
#endif
    // Reads everything, quitQuorvex included, and never writes: only a kill ends it.
    const QString program = script(QStringLiteral("silent.sh"), "while IFS= read -r line; do :; done\n");
    const CScopedEnv chosen("QUORVEX_PROGRAM", QFile::encodeName(program));
    CQuorvexAPI::setLineTimeout(300);
    testutils::CLogCapture log;
    {
        CQuorvexAPI client;
        EXPECT_EQ(client.state(), CQuorvexAPI::Fatal);
        EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/fp.fnp")), CQuorvexAPI::Fatal);
        const CQuorvexAPI::SAnalysisResult result =
            client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/p.jpg"));
        EXPECT_EQ(result.status, CQuorvexAPI::Fatal);
        EXPECT_FALSE(result.matched);
    } // did not hang: the destructor killed the server
    EXPECT_TRUE(log.text().contains(QStringLiteral("killed"))) << log.text().toStdString();
}

// Every way a server can leave a request without its own answer. The stand-in
// answers a match of /ok.jpg with 1;0.5 and every other photo with a value
// of its own, so an answer that slips to the next request shows there. The
// request that went wrong is Fatal; the next one gets its own answer.
TEST_F(ChildProcessTest, AnswersStayWithTheirRequestsWhateverTheServerDoes)
{
#ifndef Q_OS_UNIX
    GTEST_SKIP() << "the stand-in server is a shell script";
#endif
    const QString program = script(QStringLiteral("unruly.sh"), R"(
echo "thisIsNotLibraryAnswer;success"
while IFS= read -r line; do
    case "$line" in
    quitQuorvex) exit 0 ;;
    *"/ok.jpg") echo "thisIsNotLibraryAnswer;1;0.5;0.25;success" ;;
    *"/late.jpg") sleep 3; echo "thisIsNotLibraryAnswer;1;0.999999;0.9;success" ;;
    *"/cut.jpg") printf "thisIsNotLibraryAnswer;1;0.9"; sleep 3; echo ";0.9;success" ;;
    *"/cut-and-end.jpg") printf "thisIsNotLibraryAnswer;1;0.9"; exit 0 ;;
    *"/end.jpg") exit 0 ;;
    *"/short.jpg") echo "thisIsNotLibraryAnswer;1;0.9;success" ;;
    *"/long.jpg") echo "thisIsNotLibraryAnswer;1;0.9;0.9;success;0;0.9;0.9;success" ;;
    *"/words.jpg") echo "thisIsNotLibraryAnswer;yes;high;some;success" ;;
    *"/twice.jpg") printf "thisIsNotLibraryAnswer;1;0.75;0.9;success\nthisIsNotLibraryAnswer;1;0.75;0.9;success\n" ;;
    "fingerprintStatus;"*) echo "thisIsNotLibraryAnswer;success;success" ;;
    esac
done
)");
    const CScopedEnv chosen("QUORVEX_PROGRAM", QFile::encodeName(program));
    CQuorvexAPI::setLineTimeout(1000);
    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    const std::vector<std::pair<QString, CQuorvexAPI::EStatus>> cases = {
        {QStringLiteral("/late.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/cut.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/cut-and-end.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/end.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/short.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/long.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/words.jpg"), CQuorvexAPI::Fatal},
        {QStringLiteral("/twice.jpg"), CQuorvexAPI::Success},
    };
    for (const auto& c : cases)
    {
        const CQuorvexAPI::SAnalysisResult result = client.match(QStringLiteral("/fp.fnp"), c.first);
        EXPECT_EQ(result.status, c.second) << c.first.toStdString();
        EXPECT_EQ(result.matched, c.second == CQuorvexAPI::Success) << c.first.toStdString();
        const CQuorvexAPI::SAnalysisResult next =
            client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/ok.jpg"));
        EXPECT_EQ(next.probability, 0.5) << "after " << c.first.toStdString();
        EXPECT_EQ(next.status, CQuorvexAPI::Success) << "after " << c.first.toStdString();
    }
    EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/fp.fnp")), CQuorvexAPI::Fatal) << "two fields";
    EXPECT_EQ(client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/ok.jpg")).probability, 0.5);
    EXPECT_EQ(client.state(), CQuorvexAPI::Success);

    // A replacement that does not greet well ends the replacing for good.
    const QString broken = script(QStringLiteral("broken.sh"), "echo thisIsNotLibraryAnswer;fatal\n");
    ASSERT_TRUE(QFile::remove(program) && QFile::copy(broken, program));
    EXPECT_EQ(client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/end.jpg")).status, CQuorvexAPI::Fatal);
    EXPECT_EQ(client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/ok.jpg")).status, CQuorvexAPI::Fatal);
    EXPECT_EQ(client.state(), CQuorvexAPI::Fatal);
}

// NUL and the other control characters would be misread on the way; the
// client refuses such paths as it refuses ';', with the same statuses as the
// server's own refusal.
TEST_F(ChildProcessTest, ClientRefusesPathsTheServerWouldMisread)
{
    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    const QString good = path(QStringLiteral("good.jpg"));
    const QString fnp = path(QStringLiteral("a.fnp"));
    for (const QString& bad : {good + QChar(0) + QStringLiteral("/nonexistent"), good + QStringLiteral("\t"),
                               good + QChar(0x7f), good + QChar(0x1b), good + QStringLiteral(";x"),
                               good + QStringLiteral("\r"), good + QChar(QChar::highSurrogate(0x1F600))})
    {
        EXPECT_EQ(client.match(fnp, bad).status, CQuorvexAPI::BrokenImage) << bad.toStdString();
        EXPECT_EQ(client.match(bad, good).status, CQuorvexAPI::CannotOpenFingerprint) << bad.toStdString();
        EXPECT_EQ(client.fingerprintStatus(bad), CQuorvexAPI::CannotOpenFingerprint) << bad.toStdString();
    }
}

TEST_F(ChildProcessTest, MissingProgramIsNotInstalled)
{
    testutils::CLogCapture log;
    {
        const CScopedEnv chosen("QUORVEX_PROGRAM",
                                QFile::encodeName(path(QStringLiteral("no-such-program"))));
        CQuorvexAPI client;
        EXPECT_EQ(client.state(), CQuorvexAPI::NotInstalled);
        EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/fp.fnp")), CQuorvexAPI::Fatal);
        EXPECT_EQ(client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/p.jpg")).status,
                  CQuorvexAPI::Fatal);
    }
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexapi.cpp")));

    // Nothing chosen, nothing beside this test and nothing on PATH.
    const CScopedEnv unset("QUORVEX_PROGRAM", QByteArray());
    const CScopedEnv emptyPath("PATH", QFile::encodeName(path(QString())));
    EXPECT_TRUE(CQuorvexAPI::findProgram().isEmpty());
    CQuorvexAPI client;
    EXPECT_EQ(client.state(), CQuorvexAPI::NotInstalled);
}

TEST_F(ChildProcessTest, ProgramIsFoundOnPathWhenNotChosen)
{
#ifndef Q_OS_UNIX
    GTEST_SKIP() << "the stand-in program is a shell script";
#endif
    QDir(m_dir.path()).mkpath(QStringLiteral("bin"));
    const QString onPath =
        script(QStringLiteral("bin/quorvex"), "echo \"thisIsNotLibraryAnswer;brokenimage\"\n");
    const CScopedEnv unset("QUORVEX_PROGRAM", QByteArray());
    const CScopedEnv searchPath("PATH", QFile::encodeName(m_dir.filePath(QStringLiteral("bin"))));
    EXPECT_EQ(CQuorvexAPI::findProgram(), onPath);
    CQuorvexAPI client;
    EXPECT_EQ(client.state(), CQuorvexAPI::BrokenImage) << "the state is the greeting's status";

    // An explicit choice wins over PATH.
    const CScopedEnv chosen("QUORVEX_PROGRAM", QByteArray(QUORVEX_PROGRAM_PATH));
    EXPECT_EQ(CQuorvexAPI::findProgram(), QStringLiteral(QUORVEX_PROGRAM_PATH));
}
