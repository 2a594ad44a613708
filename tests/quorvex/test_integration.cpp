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

// Sets an environment variable (removes it for a null value) while it lives.
class CScopedEnv
{
public:
    CScopedEnv(const char* name, const QByteArray& value) : m_name(name), m_old(qgetenv(name)) { set(value); }
    ~CScopedEnv() { set(m_old); }
    Q_DISABLE_COPY(CScopedEnv)

private:
    void set(const QByteArray& value) { value.isNull() ? qunsetenv(m_name) : qputenv(m_name, value); }
    const char* m_name;
    QByteArray m_old;
};

} // namespace

// ---------------------------------------------------------------------------
// Mode decision and the application information record

TEST(RunMode, OnlyTheExactSingleSwitchSelectsIntegration)
{
    EXPECT_EQ(runModeFor({QStringLiteral("/integration")}), ERunMode::Integration);
    for (const QStringList& arguments : {QStringList{}, QStringList{"/INTEGRATION"}, QStringList{"/Integration"},
                                         QStringList{"integration"}, QStringList{"/integration "},
                                         QStringList{"/integration", "x"}, QStringList{"x", "/integration"}})
        EXPECT_EQ(runModeFor(arguments), ERunMode::Windowed) << arguments.join(QLatin1Char('|')).toStdString();
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

// Whole sessions: the greeting, what gets an answer, where reading stops and
// which fingerprints and photos were asked for.
TEST(IntegrationServer, SessionsOverStreams)
{
    const std::string refused = "thisIsNotLibraryAnswer;cannotopenfingerprint\n";
    const struct
    {
        const char* name;
        bool active;
        std::string input;
        std::string output;
        QStringList loads;
        QStringList photos;
        CQuorvexAPI::SAnalysisResult result{true, 0.5, 0.25, CQuorvexAPI::Success};
    } cases[] = {
        {"end of input ends with zero", true, "", Greeting, {}, {}},
        {"an inactive licence only says so and reads nothing", false, "fingerprintStatus;good.fnp\n",
         "thisIsNotLibraryAnswer;notactivated\n", {}, {}},
        {"unknown commands, wrong case and empty lines get no answer", true,
         "MATCH;good.fnp;photo.jpg\n\nFingerprintStatus;good.fnp\nfingerprintstatus;good.fnp\n"
         " match;good.fnp;photo.jpg\n;match;good.fnp\nhello world\nquitquorvex\nQUITQUORVEX\n"
         "fingerprintStatus;good.fnp\n",
         Greeting + "thisIsNotLibraryAnswer;success\n", {"good.fnp"}, {}},
        {"quit ends at once without answer", true, "fingerprintStatus;a.fnp\nquitQuorvex\nfingerprintStatus;b.fnp\n",
         Greeting + refused, {"a.fnp"}, {}},
        {"extra fields do not change the command", true, "quitQuorvex;now\nfingerprintStatus;c.fnp\n", Greeting, {}, {}},
        {"a failing request is answered and serving goes on", true,
         "match;boom;p.jpg\nfingerprintStatus;boom\nfingerprintStatus;x\n",
         Greeting + "thisIsNotLibraryAnswer;0;0;0;fatal\nthisIsNotLibraryAnswer;fatal\n" + refused,
         {"boom", "boom", "x"}, {}},
        {"paths travel as UTF-8 and CR LF line ends are tolerated", true,
         "fingerprintStatus;/d\xc3\xa1ta/k\xc3\xbc.fnp\r\nmatch;good \xe2\x82\xac.fnp;/ph\xc3\xb6to.jpg\r\n"
         "quitQuorvex\r\nfingerprintStatus;never.fnp\n",
         Greeting + refused + "thisIsNotLibraryAnswer;1;0.5;0.25;success\n",
         {"/d\u00e1ta/k\u00fc.fnp", "good \u20ac.fnp"}, {"/ph\u00f6to.jpg"}},
        {"a match answers with the fingerprint's result; extra fields are ignored, missing ones empty", true,
         "match;good.fnp;/photos/b.tif;ignored\nmatch;good.fnp\n",
         Greeting + "thisIsNotLibraryAnswer;0;0;-0.25;notsupportedformat\n"
                    "thisIsNotLibraryAnswer;0;0;-0.25;notsupportedformat\n",
         {"good.fnp"}, {"/photos/b.tif", ""}, {false, 0.0, -0.25, CQuorvexAPI::NotSupportedFormat}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        SFakeLoader fake;
        fake.fingerprint = std::make_shared<CFakeFingerprint>(c.result);
        CIntegrationServer server(c.active, fake.loader());
        std::istringstream in(c.input);
        std::ostringstream out;
        EXPECT_EQ(server.run(in, out), 0);
        EXPECT_EQ(out.str(), c.output);
        EXPECT_EQ(fake.calls, c.loads);
        EXPECT_EQ(fake.fingerprint->m_photos, c.photos);
        EXPECT_EQ(fake.fingerprint->m_skipFlags, std::vector<bool>(c.photos.size(), false))
            << "the different-camera rule is off in this mode";
        if (!c.active)
        {
            EXPECT_EQ(static_cast<long long>(in.tellg()), 0) << "no request may be read";
        }
    }
}

TEST(IntegrationServer, EveryAnswerIsFlushedAsItIsWritten)
{
    SFakeLoader fake;
    fake.fingerprint = std::make_shared<CFakeFingerprint>(CQuorvexAPI::SAnalysisResult{false, 0, 0, CQuorvexAPI::BrokenImage});
    CIntegrationServer server(true, fake.loader());
    std::istringstream in("fingerprintStatus;x.fnp\nnoise\nmatch;good.fnp;p.jpg\n");
    CFlushRecorder recorder;
    std::ostream out(&recorder);
    server.run(in, out);

    const std::string second = Greeting + "thisIsNotLibraryAnswer;cannotopenfingerprint\n";
    const std::string third = second + "thisIsNotLibraryAnswer;0;0;0;brokenimage\n";
    ASSERT_GE(recorder.m_flushed.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(recorder.m_flushed.begin(), recorder.m_flushed.begin() + 3),
              (std::vector<std::string>{Greeting, second, third}));
    EXPECT_EQ(recorder.m_flushed.back(), third);
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

// The real loader: files as they are now, and lines far beyond any sane path.
TEST(IntegrationServer, RealLoaderAnswersForFilesAsTheyAre)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const auto status = [&dir](const char* name)
    { return "fingerprintStatus;" + dir.filePath(QLatin1String(name)).toStdString(); };
    writeFingerprintFile(dir.filePath(QStringLiteral("v3.fnp")), 3);
    writeFingerprintFile(dir.filePath(QStringLiteral("v2.fnp")), 2);
    ASSERT_EQ(mkfifo(QFile::encodeName(dir.filePath(QStringLiteral("fifo.fnp"))).constData(), 0600), 0);
    const std::size_t tenMiB = 10 * 1024 * 1024;
    const std::pair<std::string, std::string> cases[] = {
        {status("missing.fnp"), "cannotopenfingerprint"},
        {status("v3.fnp"), "fingerprintunsupportedversion"},
        {status("v2.fnp"), "fingerprintfilebroken"},
        {status("fifo.fnp"), "cannotopenfingerprint"}, // refused, not waited on
        {"fingerprintStatus", "cannotopenfingerprint"}, // a missing path is an empty one
        // Ten megabytes in one line: answered, not hung on.
        {"match;" + std::string(tenMiB / 2, 'a') + ';' + std::string(tenMiB / 2, 'b'), "0;0;0;cannotopenfingerprint"},
        {"match" + std::string(tenMiB, ';'), "0;0;0;cannotopenfingerprint"},
    };
    CIntegrationServer server(true);
    for (const auto& c : cases)
        EXPECT_EQ(server.answerTo(c.first), "thisIsNotLibraryAnswer;" + c.second) << c.first.substr(0, 80);
    EXPECT_TRUE(server.answerTo(std::string(tenMiB, 'x')).empty()) << "not a request";
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
    fake.fingerprint = std::make_shared<CFakeFingerprint>(CQuorvexAPI::SAnalysisResult{true, 0.5, 0.25, CQuorvexAPI::Success});
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

TEST_F(ChildProcessTest, StandardOutputCarriesOnlyTheProtocolUntilInputEndsOrQuit)
{
    writeFingerprintFile(path(QStringLiteral("v3.fnp")), 3);
    const auto run = [](const QByteArray& input, bool closeInput)
    {
        QProcess child;
        child.start(QStringLiteral(QUORVEX_PROGRAM_PATH), {QStringLiteral("/integration")});
        EXPECT_TRUE(child.waitForStarted(30000));
        child.write(input);
        if (closeInput)
            child.closeWriteChannel();
        EXPECT_TRUE(child.waitForFinished(60000)) << "the server must end: " << input.toStdString();
        EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(child.exitCode(), 0);
        return child.readAllStandardOutput();
    };
    const QByteArray v3 = QFile::encodeName(path(QStringLiteral("v3.fnp")));
    const QByteArray a = QFile::encodeName(path(QStringLiteral("a.fnp")));
    EXPECT_EQ(run("fingerprintStatus;" + v3 + "\nMATCH;x;y\n\nmatch;" + a + ";photo.jpg\nfingerprintStatus;" + a + "\n",
                  true),
              QByteArray("thisIsNotLibraryAnswer;success\n"
                         "thisIsNotLibraryAnswer;fingerprintunsupportedversion\n"
                         "thisIsNotLibraryAnswer;0;0;0;cannotopenfingerprint\n"
                         "thisIsNotLibraryAnswer;cannotopenfingerprint\n"));
    // The mode logs into its own file in the data folder, not on the protocol channel.
    EXPECT_TRUE(testutils::readText(logFile()).contains(QStringLiteral("cannot be used")))
        << testutils::readText(logFile()).toStdString();
    // quitQuorvex ends the server while its input stays open.
    EXPECT_EQ(run("quitQuorvex\nfingerprintStatus;x\n", false), QByteArray("thisIsNotLibraryAnswer;success\n"));
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

TEST_F(ChildProcessTest, ClientTalksToTheRealProgramFromFourThreads)
{
    const QString photo = path(QStringLiteral("photo.jpg"));
    const QString missing = path(QStringLiteral("missing.fnp"));
    writeFingerprintFile(path(QStringLiteral("v3.fnp")), 3);
    writeFingerprintFile(path(QStringLiteral("v2.fnp")), 2);

    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    // Each thread asks questions whose answers differ from the other threads',
    // so an answer delivered to the wrong caller shows up as a mismatch.
    const std::pair<QString, CQuorvexAPI::EStatus> asked[] = {
        {path(QStringLiteral("v2.fnp")), CQuorvexAPI::FingerprintFileBroken},
        {path(QStringLiteral("v3.fnp")), CQuorvexAPI::FingerprintUnsupportedVersion},
        {missing, CQuorvexAPI::CannotOpenFingerprint},
        {path(QStringLiteral("v2.fnp")), CQuorvexAPI::FingerprintFileBroken}};
    std::atomic<int> wrong{0};
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < 25; ++i, ++answered)
                {
                    if (t == 3 && i % 2 == 1)
                    {
                        // A match in between: a four-field answer among one-field ones.
                        const auto result = client.match(missing, photo);
                        wrong += result.status != CQuorvexAPI::CannotOpenFingerprint || result.matched ||
                                 result.probability != 0.0 || result.correlation != 0.0;
                    }
                    else
                    {
                        wrong += client.fingerprintStatus(asked[t].first) != asked[t].second;
                    }
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(answered.load(), 100);
    EXPECT_EQ(wrong.load(), 0);
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

// Every way a server can leave a request without its own answer, or bury it
// among other output. The stand-in answers a match of /ok.jpg with 1;0.5 and
// every other photo with a value of its own, so an answer that slips to the
// next request shows there. The request that went wrong is Fatal; the next
// one gets its own answer.
TEST_F(ChildProcessTest, AnswersStayWithTheirRequestsWhateverTheServerDoes)
{
#ifndef Q_OS_UNIX
    GTEST_SKIP() << "the stand-in server is a shell script";
#endif
    const QString program = script(QStringLiteral("unruly.sh"), R"(
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
    *"/ok.jpg") echo "thisIsNotLibraryAnswer;1;0.5;0.25;success" ;;
    *"/chatty.jpg")
        echo "log: thisIsNotLibraryAnswer;0;0;0;fatal"
        echo "thisIsNotLibraryAnswerX;0;0;0;fatal"
        echo "noise" >&2
        echo ""
        echo "thisIsNotLibraryAnswer;1;0.75;0.9;success" ;;
    *"/slow.jpg")
        for i in 1 2 3 4; do sleep 0.5; echo "still working $i"; done
        echo "thisIsNotLibraryAnswer;1;0.75;0.9;success" ;;
    *"/late.jpg") sleep 3; echo "thisIsNotLibraryAnswer;1;0.999999;0.9;success" ;;
    *"/cut.jpg") printf "thisIsNotLibraryAnswer;1;0.9"; sleep 3; echo ";0.9;success" ;;
    *"/cut-and-end.jpg") printf "thisIsNotLibraryAnswer;1;0.9"; exit 0 ;;
    *"/end.jpg") exit 0 ;;
    *"/short.jpg") echo "thisIsNotLibraryAnswer;1;0.9;success" ;;
    *"/long.jpg") echo "thisIsNotLibraryAnswer;1;0.9;0.9;success;0;0.9;0.9;success" ;;
    *"/words.jpg") echo "thisIsNotLibraryAnswer;yes;high;some;success" ;;
    *"/twice.jpg") printf "thisIsNotLibraryAnswer;1;0.75;0.9;success\nthisIsNotLibraryAnswer;1;0.75;0.9;success\n" ;;
    "fingerprintStatus;/chatty.fnp")
        echo ";thisIsNotLibraryAnswer;success"
        echo "thisIsNotLibraryAnswer;fingerprintunsupportedversion" ;;
    "fingerprintStatus;"*) echo "thisIsNotLibraryAnswer;success;success" ;;
    *) echo "thisIsNotLibraryAnswer;0;0;0;fatal" ;;
    esac
done
)");
    const CScopedEnv chosen("QUORVEX_PROGRAM", QFile::encodeName(program));
    // Other output restarts the wait for each line: /slow.jpg takes longer in
    // total than this, but no single wait does.
    CQuorvexAPI::setLineTimeout(1500);
    CQuorvexAPI client;
    ASSERT_EQ(client.state(), CQuorvexAPI::Success);
    const std::pair<const char*, CQuorvexAPI::EStatus> cases[] = {
        {"/chatty.jpg", CQuorvexAPI::Success},   {"/slow.jpg", CQuorvexAPI::Success},
        {"/late.jpg", CQuorvexAPI::Fatal},       {"/cut.jpg", CQuorvexAPI::Fatal},
        {"/cut-and-end.jpg", CQuorvexAPI::Fatal}, {"/end.jpg", CQuorvexAPI::Fatal},
        {"/short.jpg", CQuorvexAPI::Fatal},      {"/long.jpg", CQuorvexAPI::Fatal},
        {"/words.jpg", CQuorvexAPI::Fatal},      {"/twice.jpg", CQuorvexAPI::Success},
        {"/other.jpg", CQuorvexAPI::Fatal},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.first);
        const CQuorvexAPI::SAnalysisResult result = client.match(QStringLiteral("/fp.fnp"), QLatin1String(c.first));
        EXPECT_EQ(result.status, c.second);
        EXPECT_EQ(result.matched, c.second == CQuorvexAPI::Success);
        if (c.second == CQuorvexAPI::Success)
        {
            EXPECT_EQ(std::make_pair(result.probability, result.correlation), std::make_pair(0.75, 0.9));
        }
        const CQuorvexAPI::SAnalysisResult next = client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/ok.jpg"));
        EXPECT_EQ(std::make_pair(next.probability, next.correlation), std::make_pair(0.5, 0.25)) << "the next one";
        EXPECT_EQ(next.status, CQuorvexAPI::Success) << "the next one";
    }
    EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/chatty.fnp")), CQuorvexAPI::FingerprintUnsupportedVersion);
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
                               good + QStringLiteral("\r"), good + QStringLiteral("\n"), good + QChar(QChar::highSurrogate(0x1F600))})
    {
        SCOPED_TRACE(bad.toStdString());
        EXPECT_EQ(client.match(fnp, bad).status, CQuorvexAPI::BrokenImage);
        EXPECT_EQ(client.match(bad, good).status, CQuorvexAPI::CannotOpenFingerprint);
        EXPECT_EQ(client.fingerprintStatus(bad), CQuorvexAPI::CannotOpenFingerprint);
    }
}

TEST_F(ChildProcessTest, ProgramIsTheChosenOneElseFoundOnPath)
{
    testutils::CLogCapture log;
    {
        const CScopedEnv chosen("QUORVEX_PROGRAM", QFile::encodeName(path(QStringLiteral("no-such-program"))));
        CQuorvexAPI client;
        EXPECT_EQ(client.state(), CQuorvexAPI::NotInstalled);
        EXPECT_EQ(client.fingerprintStatus(QStringLiteral("/fp.fnp")), CQuorvexAPI::Fatal);
        EXPECT_EQ(client.match(QStringLiteral("/fp.fnp"), QStringLiteral("/p.jpg")).status, CQuorvexAPI::Fatal);
    }
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/quorvexapi.cpp")));

    const CScopedEnv unset("QUORVEX_PROGRAM", QByteArray());
    {
        // Nothing chosen, nothing beside this test and nothing on PATH.
        const CScopedEnv emptyPath("PATH", QFile::encodeName(path(QString())));
        EXPECT_TRUE(CQuorvexAPI::findProgram().isEmpty());
        EXPECT_EQ(CQuorvexAPI().state(), CQuorvexAPI::NotInstalled);
    }
#ifdef Q_OS_UNIX
    QDir(m_dir.path()).mkpath(QStringLiteral("bin"));
    const QString onPath = script(QStringLiteral("bin/quorvex"), "echo \"thisIsNotLibraryAnswer;brokenimage\"\n");
    const CScopedEnv searchPath("PATH", QFile::encodeName(m_dir.filePath(QStringLiteral("bin"))));
    EXPECT_EQ(CQuorvexAPI::findProgram(), onPath);
    EXPECT_EQ(CQuorvexAPI().state(), CQuorvexAPI::BrokenImage) << "the state is the greeting's status";

    // An explicit choice wins over PATH.
    const CScopedEnv chosen("QUORVEX_PROGRAM", QByteArray(QUORVEX_PROGRAM_PATH));
    EXPECT_EQ(CQuorvexAPI::findProgram(), QStringLiteral(QUORVEX_PROGRAM_PATH));
#endif
}
