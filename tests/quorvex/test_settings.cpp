#include "settings.h"

#include "qutils/appsettings.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

TEST(Settings, FallBackAtFirstStartThenRoundTripThroughTheSharedFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    qutils::CAppSettings::setConfigFolder(dir.path());
    EXPECT_EQ(CSettings::lastAnalyzePath().absolutePath(), QDir::homePath());
    EXPECT_EQ(CSettings::lastTeachingPath().absolutePath(), QDir::homePath());
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), QDir::homePath());
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), QDir::homePath());
    EXPECT_FALSE(CSettings::analyzeSubdirs());
    EXPECT_TRUE(CSettings::reportNotes().isEmpty());

    const QString fingerprint = dir.filePath(QStringLiteral("cams/canon.fnp"));
    CSettings::setLastRecognizer(QFileInfo(fingerprint));
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), fingerprint);
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), fingerprint) << "the report follows the fingerprint";
    const QString report = dir.filePath(QStringLiteral("out/report.pdf"));
    CSettings::setLastReport(QFileInfo(report));
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), report);

    CSettings::setLastAnalyzePath(QDir(dir.path()));
    CSettings::setLastTeachingPath(QDir(QStringLiteral("/tmp")));
    CSettings::setAnalyzeSubdirs(true);
    CSettings::setReportCaseNumber(QStringLiteral("2026/17"));
    CSettings::setReportExaminer(QStringLiteral("A. Novak"));
    CSettings::setReportNotes(QStringLiteral("bag 4\nsealed"));
    EXPECT_EQ(CSettings::lastAnalyzePath().absolutePath(), QDir(dir.path()).absolutePath());
    EXPECT_EQ(CSettings::lastTeachingPath().absolutePath(), QStringLiteral("/tmp"));
    EXPECT_TRUE(CSettings::analyzeSubdirs());
    EXPECT_EQ(qutils::CAppSettings::value(QStringLiteral("analyzeSubdirs"), 0), 1) << "the general section";
    EXPECT_EQ(CSettings::reportCaseNumber(), QStringLiteral("2026/17"));
    EXPECT_EQ(CSettings::reportExaminer(), QStringLiteral("A. Novak"));
    EXPECT_EQ(CSettings::reportNotes(), QStringLiteral("bag 4\nsealed"));
    CSettings::setAnalyzeSubdirs(false);
    EXPECT_FALSE(CSettings::analyzeSubdirs());
    qutils::CAppSettings::setConfigFolder(QString());
}
