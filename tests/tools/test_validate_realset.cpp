// 'validate' on the real development set: photos of six real cameras. No
// photo of one camera may match another's fingerprint, and every unchanged
// photo must match its own.
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <iostream>

TEST(ValidateRealSet, NoFalseMatchAndNoMissedPhoto)
{
    const QString set = QStringLiteral(QUORVEX_REALSET);
    if (!QFileInfo(set).isDir())
        GTEST_SKIP() << "the real development set is not at " << set.toStdString()
                     << " (set QUORVEX_REALSET to its folder)";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString json = dir.filePath(QStringLiteral("pairs.jsonl"));
    QProcess process;
    // The tool's log and settings stay in the test's folder.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_DATA_HOME"), dir.filePath(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(dir.path());
    process.start(QStringLiteral(QUORVEX_CLI_PATH),
                  {QStringLiteral("validate"), QStringLiteral("--json"), json, set});
    ASSERT_TRUE(process.waitForFinished(1700000));
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    ASSERT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    std::cout << out.toStdString();

    QFile file(json);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    int pairs = 0;
    while (!file.atEnd())
    {
        const QJsonObject o = QJsonDocument::fromJson(file.readLine()).object();
        ++pairs;
        const bool compared = o.value(QStringLiteral("status")).toString() == QStringLiteral("success") &&
                              o.value(QStringLiteral("reason")).toString().isEmpty();
        const bool matched = o.value(QStringLiteral("matched")).toBool();
        const std::string pair = QString(o.value(QStringLiteral("fingerprint")).toString() +
                                         QStringLiteral(" x ") + o.value(QStringLiteral("photo")).toString())
                                     .toStdString();
        if (o.value(QStringLiteral("true_pair")).toBool())
            EXPECT_TRUE(compared && matched) << "missed: " << pair;
        else
            EXPECT_FALSE(matched) << "false match: " << pair;
    }
    EXPECT_GT(pairs, 0);
}
