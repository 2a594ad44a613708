#include "settings.h"

#include "qutils/appsettings.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace
{

class SettingsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        qutils::CAppSettings::setConfigFolder(m_dir.path());
    }
    void TearDown() override { qutils::CAppSettings::setConfigFolder(QString()); }

    QTemporaryDir m_dir;
};

} // namespace

TEST_F(SettingsTest, FirstStartFallsBackToHomeAndToTheFingerprintPath)
{
    EXPECT_EQ(CSettings::lastAnalyzePath().absolutePath(), QDir::homePath());
    EXPECT_EQ(CSettings::lastTeachingPath().absolutePath(), QDir::homePath());
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), QDir::homePath());
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), QDir::homePath());
    EXPECT_FALSE(CSettings::analyzeSubdirs());

    const QString fingerprint = m_dir.filePath(QStringLiteral("cams/canon.fnp"));
    CSettings::setLastRecognizer(QFileInfo(fingerprint));
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), fingerprint);
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), fingerprint) << "report follows the fingerprint";

    const QString report = m_dir.filePath(QStringLiteral("out/report.pdf"));
    CSettings::setLastReport(QFileInfo(report));
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), report);
}

TEST_F(SettingsTest, ValuesRoundTripThroughTheSharedFile)
{
    CSettings::setLastAnalyzePath(QDir(m_dir.path()));
    CSettings::setLastTeachingPath(QDir(QStringLiteral("/tmp")));
    CSettings::setAnalyzeSubdirs(true);
    EXPECT_EQ(CSettings::lastAnalyzePath().absolutePath(), QDir(m_dir.path()).absolutePath());
    EXPECT_EQ(CSettings::lastTeachingPath().absolutePath(), QStringLiteral("/tmp"));
    EXPECT_TRUE(CSettings::analyzeSubdirs());
    // Same file as the utility layer, general section.
    EXPECT_EQ(qutils::CAppSettings::value(QStringLiteral("analyzeSubdirs"), 0), 1);
    CSettings::setAnalyzeSubdirs(false);
    EXPECT_FALSE(CSettings::analyzeSubdirs());
    EXPECT_TRUE(CSettings::reportNotes().isEmpty());
    CSettings::setReportCaseNumber(QStringLiteral("2026/17"));
    CSettings::setReportExaminer(QStringLiteral("A. Novak"));
    CSettings::setReportNotes(QStringLiteral("bag 4\nsealed"));
    EXPECT_EQ(CSettings::reportCaseNumber(), QStringLiteral("2026/17"));
    EXPECT_EQ(CSettings::reportExaminer(), QStringLiteral("A. Novak"));
    EXPECT_EQ(CSettings::reportNotes(), QStringLiteral("bag 4\nsealed"));
}
