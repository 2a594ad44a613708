// What the user saved survives a disk that fills up or a target that cannot be
// written: fingerprints, settings and reports are written aside and renamed,
// so a failed write leaves the old file exactly as it was, and says so.
#include "fingerprint.h"
#include "generatortask.h"

#include "qutils/appsettings.h"
#include "qutils/exception.h"
#include "qutils/htmltopdftask.h"
#include "qutils/quorvexapi.h"
#include "qutils/tasks.h"
#include "simcamera.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <unistd.h>

using qutils::CQuorvexAPI;

namespace
{

// While it lives, this process may not write files larger than the limit: the
// write that would pass it fails as on a full disk (the signal is ignored).
class CFileSizeLimit
{
public:
    explicit CFileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_old);
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~CFileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }

private:
    rlimit m_old{};
    void (*m_oldHandler)(int) = nullptr;
};

// Runs a report task; the text of the exception it threw, or empty.
QString reportError(const SReportInput& input)
{
    auto task = qutils::makeTask<CGeneratorTask>(input);
    try
    {
        task->run();
    }
    catch (const qutils::CException& e)
    {
        return e.message();
    }
    return QString();
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

class NothingLostTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new QTemporaryDir;
        s_photos = testutils::shootSeries(camsim::Camera(testutils::simCamera(31)), 900, 3, s_dir->path());
    }
    static void TearDownTestSuite()
    {
        delete s_dir;
        s_dir = nullptr;
    }

    QString saved(const QString& name)
    {
        const QString path = m_dir.filePath(name);
        EXPECT_EQ(CFingerprint::createFingerprint(s_photos, QFileInfo(path), nullptr), CQuorvexAPI::Success);
        return path;
    }

    static QTemporaryDir* s_dir;
    static QFileInfoList s_photos;
    QTemporaryDir m_dir;
};

QTemporaryDir* NothingLostTest::s_dir = nullptr;
QFileInfoList NothingLostTest::s_photos;

} // namespace

TEST_F(NothingLostTest, AFingerprintThatCannotBeWrittenLeavesTheOldOne)
{
    const QString path = saved(QStringLiteral("camera.fnp"));
    const QByteArray before = readAll(path);
    ASSERT_GT(before.size(), 100000);
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto record = CFingerprint::load(QFileInfo(path), &status);
    ASSERT_TRUE(record);
    record->setProperty(CFingerprint::Description, QStringLiteral("edited"));
    {
        CFileSizeLimit full(4096);
        EXPECT_FALSE(record->save(QFileInfo(path), record->fingerprint()));
        // Learning anew into the same file fails the same way, with its status.
        EXPECT_EQ(CFingerprint::createFingerprint(s_photos, QFileInfo(path), nullptr), CQuorvexAPI::CannotStoreFingerprint);
    }
    EXPECT_EQ(readAll(path), before);
    EXPECT_EQ(entries(m_dir.path()), QStringList{QStringLiteral("camera.fnp")}) << "no half-written file left beside it";

    // The command-line tool says so and exits with its failure code.
    QProcess cli;
    cli.start(QStringLiteral("/bin/sh"),
              {QStringLiteral("-c"), QStringLiteral("ulimit -f 8; exec \"$0\" learn -o \"$1\" \"$2\" \"$3\" \"$4\""),
               QStringLiteral(QUORVEX_CLI_PATH), path, s_photos.at(0).filePath(), s_photos.at(1).filePath(),
               s_photos.at(2).filePath()});
    ASSERT_TRUE(cli.waitForFinished(120000));
    EXPECT_EQ(cli.exitCode(), 2);
    EXPECT_TRUE(QString::fromUtf8(cli.readAllStandardError()).contains(QStringLiteral("cannot write the fingerprint file")));
    EXPECT_EQ(readAll(path), before);
}

TEST_F(NothingLostTest, ARealFullDiskLeavesTheOldFingerprint)
{
    // A tiny file system of its own, where this machine allows mounting one.
    const QString mountPoint = m_dir.filePath(QStringLiteral("small"));
    ASSERT_TRUE(QDir().mkpath(mountPoint));
    if (geteuid() != 0 ||
        mount("tmpfs", QFile::encodeName(mountPoint).constData(), "tmpfs", 0, "size=2m") != 0)
        GTEST_SKIP() << "no small file system can be mounted here; the file-size limit test covers the case";
    const QString path = QDir(mountPoint).filePath(QStringLiteral("camera.fnp"));
    ASSERT_EQ(CFingerprint::createFingerprint(s_photos, QFileInfo(path), nullptr), CQuorvexAPI::Success);
    const QByteArray before = readAll(path);
    // Fill what is left.
    {
        QFile filler(QDir(mountPoint).filePath(QStringLiteral("filler")));
        ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
        const QByteArray block(64 * 1024, 'x');
        while (filler.write(block) == block.size() && filler.flush())
        {
        }
    }
    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const auto record = CFingerprint::load(QFileInfo(path), &status);
    ASSERT_TRUE(record);
    record->setProperty(CFingerprint::Description, QStringLiteral("edited"));
    EXPECT_FALSE(record->save(QFileInfo(path), record->fingerprint()));
    EXPECT_EQ(readAll(path), before);
    EXPECT_EQ(entries(mountPoint), (QStringList{QStringLiteral("camera.fnp"), QStringLiteral("filler")}));
    umount(QFile::encodeName(mountPoint).constData());
}

TEST_F(NothingLostTest, SettingsThatCannotBeWrittenKeepTheOldFile)
{
    qutils::CAppSettings::setConfigFolder(m_dir.path());
    qutils::CAppSettings::setValue(QStringLiteral("lastReport"), QStringLiteral("/cases/17/report.pdf"));
    QString file;
    for (const QString& name : entries(m_dir.path()))
        file = m_dir.filePath(name);
    ASSERT_FALSE(file.isEmpty()) << "the settings were written";
    const QByteArray before = readAll(file);
    ASSERT_FALSE(before.isEmpty());
    {
        CFileSizeLimit full(16);
        qutils::CAppSettings::setValue(QStringLiteral("lastTeachingPath"), QString(5000, QLatin1Char('x')));
    }
    EXPECT_EQ(readAll(file), before);
    EXPECT_EQ(entries(m_dir.path()).size(), 1) << "no half-written file left beside it";
    qutils::CAppSettings::setConfigFolder(QString());
}

TEST_F(NothingLostTest, AReportThatCannotBeWrittenLeavesTheOldOneAndSaysSo)
{
    // The real converter, run with a file-size limit below the report's size.
    const QString wrapper = m_dir.filePath(QStringLiteral("limited.sh"));
    {
        QFile script(wrapper);
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write(QStringLiteral("#!/bin/sh\nulimit -f 4\nexec \"%1\" \"$@\"\n").arg(QStringLiteral(HTMLTOPDF_PATH)).toUtf8());
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    const QString report = m_dir.filePath(QStringLiteral("report.pdf"));
    {
        QFile old(report);
        ASSERT_TRUE(old.open(QIODevice::WriteOnly));
        old.write("%PDF-1.4 the report of yesterday");
    }
    const QByteArray before = readAll(report);
    SReportInput input;
    input.photos = s_photos;
    input.fingerprintPath = m_dir.filePath(QStringLiteral("camera.fnp"));
    input.photosFolder = s_dir->path();
    input.reportPath = report;
    qutils::CHtmlToPdfTask::setConverterPath(wrapper);
    const QString error = reportError(input);
    qutils::CHtmlToPdfTask::setConverterPath(QString());
    EXPECT_EQ(error, QStringLiteral("Cannot store pdf"));
    EXPECT_EQ(readAll(report), before);
    EXPECT_EQ(entries(m_dir.path()), (QStringList{QStringLiteral("limited.sh"), QStringLiteral("report.pdf")}));
}

TEST_F(NothingLostTest, DevicesPipesAndFoldersAreNeverReplacedBySaving)
{
    const auto record = CFingerprint::load(QFileInfo(saved(QStringLiteral("camera.fnp"))), nullptr);
    ASSERT_TRUE(record);
    const QString pipe = m_dir.filePath(QStringLiteral("pipe"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(pipe, m_dir.filePath(QStringLiteral("to-pipe.pdf"))));
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("folder.pdf")));
    for (const QString& target : {pipe, m_dir.filePath(QStringLiteral("to-pipe.pdf")),
                                  m_dir.filePath(QStringLiteral("folder.pdf")), QStringLiteral("/dev/null")})
    {
        SCOPED_TRACE(target.toStdString());
        EXPECT_FALSE(record->save(QFileInfo(target), record->fingerprint()));
        SReportInput input;
        input.photos = s_photos;
        input.reportPath = target;
        const QString error = reportError(input);
        EXPECT_TRUE(error.startsWith(QStringLiteral("The report cannot be created!"))) << error.toStdString();
        EXPECT_TRUE(QFileInfo(target).exists() && !QFileInfo(target).isFile()) << "still what it was";
    }
    EXPECT_FALSE(QFileInfo(pipe).isFile());
}
