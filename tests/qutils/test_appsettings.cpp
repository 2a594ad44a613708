#include "qutils/appsettings.h"

#include "logcapture.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using qutils::CAppSettings;
using E = CAppSettings::EOption;

namespace
{

class AppSettingsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        CAppSettings::setConfigFolder(m_dir.path());
    }
    void TearDown() override { CAppSettings::setConfigFolder(QString()); }

    void writeFile(const QByteArray& content)
    {
        QFile file(CAppSettings::filePath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    QTemporaryDir m_dir;
};

} // namespace

TEST_F(AppSettingsTest, MissingFileGivesEveryDefault)
{
    EXPECT_EQ(CAppSettings::intOption(E::MainAppLogLevel), 3);
    EXPECT_DOUBLE_EQ(CAppSettings::doubleOption(E::ScaleFixed), 0.0);
    EXPECT_DOUBLE_EQ(CAppSettings::doubleOption(E::ScaleFactor), 1.0);
    for (const E option : {E::FullScreenMode, E::InvokeOnscreenKeyboard, E::BigButtons, E::DisableShortcuts,
                           E::DisableWebLinks})
        EXPECT_FALSE(CAppSettings::boolOption(option)) << CAppSettings::key(option).toStdString();
    EXPECT_TRUE(CAppSettings::textOption(E::TempFolder).isEmpty());
    EXPECT_TRUE(CAppSettings::textOption(E::UpdateParameters).isEmpty());
    EXPECT_EQ(CAppSettings::scaleSearch(), QStringLiteral("sized"));
    EXPECT_EQ(CAppSettings::key(E::MainAppLogLevel), QStringLiteral("Logging/MainAppLogLevel"));
    EXPECT_EQ(CAppSettings::key(E::DisableWebLinks), QStringLiteral("Options/DisableWebLinks"));
    EXPECT_EQ(CAppSettings::value(QStringLiteral("Options/NoSuchKey"), 42), 42);
    EXPECT_FALSE(QFile::exists(CAppSettings::filePath())) << "reading must not create the file";

    // The file lives in the configured folder, else in the user's.
    EXPECT_EQ(CAppSettings::filePath(), QDir(m_dir.path()).filePath(QStringLiteral("settings.ini")));
    CAppSettings::setConfigFolder(QString());
    EXPECT_TRUE(CAppSettings::filePath().endsWith(QStringLiteral("/Quorvex/settings.ini")));
}

TEST_F(AppSettingsTest, BooleansAndIntegersAreReadAsIntegers)
{
    writeFile("[Options]\nFullScreenMode=2\nBigButtons=0\nDisableShortcuts=true\nDisableWebLinks=garbage\n"
              "ScaleFixed=1.5\nTempFolder=/tmp/qx\n[Logging]\nMainAppLogLevel=7\n");
    EXPECT_TRUE(CAppSettings::boolOption(E::FullScreenMode));
    EXPECT_FALSE(CAppSettings::boolOption(E::BigButtons));
    EXPECT_TRUE(CAppSettings::boolOption(E::DisableShortcuts));
    EXPECT_FALSE(CAppSettings::boolOption(E::DisableWebLinks))
        << "unreadable value falls back to the default";
    EXPECT_DOUBLE_EQ(CAppSettings::doubleOption(E::ScaleFixed), 1.5);
    EXPECT_EQ(CAppSettings::textOption(E::TempFolder), QStringLiteral("/tmp/qx"));
    EXPECT_EQ(CAppSettings::intOption(E::MainAppLogLevel), 7)
        << "the raw value; the logger decides to ignore it";
}

TEST_F(AppSettingsTest, ScaleSearchIsOneOfThreeAndReachesTheEngine)
{
    const struct
    {
        const char* stored;
        const char* used;
        bool warned;
    } cases[] = {{"full", "full", false}, {"off", "off", false}, {" sized ", "sized", false},
                 {"OFF", "sized", true},  {"", "sized", true},   {"none", "sized", true}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.stored);
        writeFile(QByteArray("[Options]\nScaleSearch=") + c.stored + '\n');
        testutils::CLogCapture log;
        EXPECT_EQ(CAppSettings::scaleSearch(), QLatin1String(c.used));
        EXPECT_EQ(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qutils/appsettings.cpp")),
                  c.warned);
    }
    CAppSettings::applyScaleSearch(QStringLiteral("full"));
    EXPECT_EQ(qgetenv("LUMICREST_SCALE_SEARCH"), QByteArray("full"));
    qunsetenv("LUMICREST_SCALE_SEARCH");
}

TEST_F(AppSettingsTest, WrittenBooleansAreIntegersInTheFile)
{
    CAppSettings::setOption(E::FullScreenMode, true);
    EXPECT_TRUE(CAppSettings::boolOption(E::FullScreenMode));
    const QSettings raw(CAppSettings::filePath(), QSettings::IniFormat);
    EXPECT_EQ(raw.value(QStringLiteral("Options/FullScreenMode")).toString(), QStringLiteral("1"));
    CAppSettings::setOption(E::FullScreenMode, false);
    EXPECT_FALSE(CAppSettings::boolOption(E::FullScreenMode));
    CAppSettings::setValue(QStringLiteral("Options/UpdateParameters"), QStringLiteral("a=b; c"));
    EXPECT_EQ(CAppSettings::textOption(E::UpdateParameters), QStringLiteral("a=b; c"));
}

TEST_F(AppSettingsTest, UnreadableOrBrokenFileGivesDefaults)
{
    // A folder where the file should be: cannot be read or written.
    ASSERT_TRUE(QDir().mkpath(CAppSettings::filePath()));
    EXPECT_EQ(CAppSettings::intOption(E::MainAppLogLevel), 3);
    CAppSettings::setOption(E::FullScreenMode, true); // lost silently
    EXPECT_FALSE(CAppSettings::boolOption(E::FullScreenMode));
    ASSERT_TRUE(QDir(CAppSettings::filePath()).removeRecursively());

    writeFile(QByteArray("\x00\xff\xfe[[[=\n==\n\x01", 13));
    EXPECT_DOUBLE_EQ(CAppSettings::doubleOption(E::ScaleFactor), 1.0);
    EXPECT_FALSE(CAppSettings::boolOption(E::BigButtons));
}
