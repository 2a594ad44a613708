#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>

#include <cstdlib>
#include <thread>
#include <vector>

using qutils::CException;
using qutils::CLogger;

namespace
{

QStringList lines(const QString& path)
{
    QStringList all = testutils::readText(path).split(QLatin1Char('\n'));
    if (!all.isEmpty() && all.last().isEmpty())
        all.removeLast();
    return all;
}

// Runs f, expecting the logger's CException with this text.
template <typename F> void expectLogError(F f, const char* message)
{
    try
    {
        f();
        ADD_FAILURE() << "expected an exception: " << message;
    }
    catch (const CException& e)
    {
        EXPECT_STREQ(e.what(), message);
        EXPECT_EQ(e.message().toStdString(), message);
        EXPECT_EQ(e.code(), 1287);
    }
}

// Each test logs into a file of its own and leaves the logger as it found it.
class LoggingTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        m_path = m_dir.filePath(QStringLiteral("test.log"));
        CLogger::instance().setLogFile(m_path);
        CLogger::instance().setLevel(3);
    }
    void TearDown() override
    {
        CLogger& logger = CLogger::instance();
        logger.setLevel(3);
        logger.setMaxLogSize(CLogger::DefaultMaxLogSize);
        logger.setLogFile(m_dir.filePath(QStringLiteral("teardown.log")));
    }

    // Identical records fold only within one second; start early in a fresh one.
    static void waitForFreshSecond()
    {
        while (QTime::currentTime().msec() > 300)
            QThread::msleep(20);
    }

    QTemporaryDir m_dir;
    QString m_path;
};

} // namespace

TEST(LoggerHeader, ThreadLevelAndSourceFormats)
{
    const auto header = [](int level, const char* file, int line, quint64 thread)
    { return CLogger::makeHeader(level, file, line, thread).toStdString(); };
    const std::pair<std::string, const char*> cases[] = {
        {header(3, nullptr, 0, 0x1A2C), "  (0x1A2C) Warning  "},
        {header(1, nullptr, 0, 0x11A2C), "  (0x00011A2C) FATAL    "},
        {header(2, nullptr, 0, 1), "(0x0001) ERROR    "},
        {header(4, nullptr, 0, 1), "Info     "},
        {header(5, nullptr, 0, 1), "Debug    "},
        {header(9, nullptr, 0, 1), "(0x0001) "}, // no level name
        {header(3, "/home/ci/build/src/qtv/qutils/tasks.cpp", 42, 1), "Warning  qtv/qutils/tasks.cpp(42): "},
        {header(3, "C:\\work\\qtv\\qutils\\tasks.cpp", 5, 1), "qtv\\qutils\\tasks.cpp(5): "},
        // Without the marker the path is written whole.
        {header(3, "/usr/include/other.h", 9, 1), "/usr/include/other.h(9): "},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(QString::fromStdString(c.first).endsWith(QLatin1String(c.second)))
            << c.first << " / " << c.second;
    // An empty source name writes no place.
    const QString date = CLogger::makeHeader(3, "", 7, 1);
    EXPECT_TRUE(QRegularExpression(
                    QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  \\(0x0001\\) Warning  $"))
                    .match(date)
                    .hasMatch())
        << date.toStdString();
}

TEST_F(LoggingTest, LevelsFilterAndOutOfRangeSettingsAreIgnored)
{
    CLogger& logger = CLogger::instance();
    QX_DEBUG << "hidden debug";
    QX_WARNING << "shown warning";
    logger.setLevel(7);
    EXPECT_EQ(logger.level(), 3);
    logger.setLevel(-1);
    EXPECT_EQ(logger.level(), 3);
    logger.setLevel(5);
    QX_DEBUG << "shown debug";
    logger.setLevel(0);
    QX_FATAL << "nothing at level 0";

    const QString text = testutils::readText(m_path);
    EXPECT_FALSE(text.contains(QStringLiteral("hidden debug")));
    EXPECT_TRUE(text.contains(QStringLiteral("Warning  qtv/")) == false) << "tests live outside the qtv tree";
    EXPECT_TRUE(text.contains(QStringLiteral("Warning  ")) && text.contains(QStringLiteral("shown warning")));
    EXPECT_TRUE(text.contains(QStringLiteral("Debug    ")) && text.contains(QStringLiteral("shown debug")));
    EXPECT_FALSE(text.contains(QStringLiteral("nothing at level 0")));
}

TEST_F(LoggingTest, RepeatedLinesFold)
{
    waitForFreshSecond();
    for (int i = 0; i < 3; ++i)
        QX_WARNING << "same";
    QX_WARNING << "next";
    QStringList got = lines(m_path);
    ASSERT_EQ(got.size(), 3) << testutils::readText(m_path).toStdString();
    EXPECT_TRUE(got[0].endsWith(QStringLiteral("): same")));
    EXPECT_EQ(got[1], QStringLiteral("        **** Previous message repeated additional 2 times ****"));
    EXPECT_TRUE(got[2].endsWith(QStringLiteral("): next")));

    // Two identical lines: the second is written once more instead of a notice.
    waitForFreshSecond();
    for (int i = 0; i < 2; ++i)
        QX_WARNING << "twice";
    QX_WARNING << "after";
    got = lines(m_path);
    ASSERT_EQ(got.size(), 6);
    EXPECT_TRUE(got[3].endsWith(QStringLiteral("): twice")));
    EXPECT_EQ(got[4], got[3]);
    EXPECT_TRUE(got[5].endsWith(QStringLiteral("): after")));

    // Empty messages never fold.
    waitForFreshSecond();
    for (int i = 0; i < 2; ++i)
        QX_WARNING << "";
    EXPECT_EQ(lines(m_path).size(), 8);
}

TEST_F(LoggingTest, FilteredRecordResetsTheFoldAndItsNoticeIsLost)
{
    waitForFreshSecond();
    for (int i = 0; i < 3; ++i)
        QX_WARNING << "folded";
    QX_DEBUG << "filtered";
    QX_WARNING << "visible";
    const QStringList got = lines(m_path);
    ASSERT_EQ(got.size(), 2) << testutils::readText(m_path).toStdString();
    EXPECT_TRUE(got[0].endsWith(QStringLiteral("): folded")));
    EXPECT_TRUE(got[1].endsWith(QStringLiteral("): visible")));
}

TEST_F(LoggingTest, RotatesToOldPastTheLimit)
{
    CLogger::instance().setMaxLogSize(2000);
    for (int i = 0; i < 60; ++i)
        QX_WARNING << "line number " << i << " with some padding to grow the file";
    const QString old = m_path + QStringLiteral(".old");
    ASSERT_TRUE(QFile::exists(old));
    EXPECT_LE(QFileInfo(m_path).size(), 2000 + 200) << "limit exceeded by at most one record";
    EXPECT_GT(QFileInfo(old).size(), 2000);
    // Nothing is lost across the last rotation: the newest lines continue where .old ended.
    const QStringList recent = lines(m_path);
    ASSERT_FALSE(recent.isEmpty());
    EXPECT_TRUE(recent.last().contains(QStringLiteral("line number 59 ")));
    const QStringList previous = lines(old);
    const int firstNew =
        recent.first().section(QStringLiteral("line number "), 1).section(QLatin1Char(' '), 0, 0).toInt();
    const int lastOld =
        previous.last().section(QStringLiteral("line number "), 1).section(QLatin1Char(' '), 0, 0).toInt();
    EXPECT_EQ(firstNew, lastOld + 1);
}

TEST_F(LoggingTest, MovingTheLogKeepsEarlierLinesAtTheHead)
{
    QX_WARNING << "before the move";
    const QString target = m_dir.filePath(QStringLiteral("main.log"));
    {
        QFile existing(target);
        ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
        existing.write("stale content\n");
    }
    CLogger::instance().setLogFile(target);
    QX_WARNING << "after the move";
    EXPECT_FALSE(QFile::exists(m_path));
    const QStringList got = lines(target);
    ASSERT_EQ(got.size(), 2);
    EXPECT_TRUE(got[0].endsWith(QStringLiteral("before the move")));
    EXPECT_TRUE(got[1].endsWith(QStringLiteral("after the move")));
    EXPECT_EQ(CLogger::instance().fileName(), target);
}

TEST_F(LoggingTest, FileErrorsThrowAndReleaseTheLock)
{
    QX_WARNING << "content";
    // A non-empty folder at the destination cannot be removed, not even by root.
    const QString blocked = m_dir.filePath(QStringLiteral("blocked.log"));
    ASSERT_TRUE(QDir().mkpath(blocked + QStringLiteral("/inner")));
    expectLogError([&] { CLogger::instance().setLogFile(blocked); }, "Could not remove destination log file");

    // An unreachable log file: the logging call itself throws, from any thread, and never hangs.
    // Moving an existing log there fails at the rename and logging stays where it was...
    const QString unreachable = m_dir.filePath(QStringLiteral("no/such/folder/x.log"));
    expectLogError([&] { CLogger::instance().setLogFile(unreachable); }, "Could not rename log file");
    EXPECT_EQ(CLogger::instance().fileName(), m_path);
    // ...with nothing to move, the logger takes the new name and every record fails to open it.
    ASSERT_TRUE(QFile::remove(m_path));
    EXPECT_THROW(CLogger::instance().setLogFile(unreachable), CException);
    EXPECT_EQ(CLogger::instance().fileName(), unreachable);
    for (int attempt = 0; attempt < 2; ++attempt)
        expectLogError([] { QX_WARNING << "cannot be written"; }, "Could not open logging file");
    bool threwInThread = false;
    std::thread other(
        [&]
        {
            try
            {
                QX_ERROR << "from another thread";
            }
            catch (const CException&)
            {
                threwInThread = true;
            }
        });
    other.join();
    EXPECT_TRUE(threwInThread);

    // Filtered records never touch the file, so they do not throw.
    EXPECT_NO_THROW(QX_DEBUG << "filtered");
    CLogger::instance().setLogFile(m_path);
    EXPECT_NO_THROW(QX_WARNING << "works again");
}

TEST_F(LoggingTest, ConcurrentRecordsStayWholeLines)
{
    constexpr int Threads = 6;
    constexpr int PerThread = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t)
        threads.emplace_back(
            [t]
            {
                for (int i = 0; i < PerThread; ++i)
                    QX_WARNING << "thread " << t << " record " << i << " end";
            });
    for (std::thread& thread : threads)
        thread.join();
    const QStringList got = lines(m_path);
    ASSERT_EQ(got.size(), Threads * PerThread);
    const QRegularExpression whole(
        QStringLiteral("^\\S+ \\S+  \\(0x[0-9A-F]{4,}\\) Warning  .*test_debugutils\\.cpp\\(\\d+\\): "
                       "thread \\d record \\d+ end$"));
    for (const QString& line : got)
        ASSERT_TRUE(whole.match(line).hasMatch()) << line.toStdString();
}

TEST_F(LoggingTest, QtMessagesGoToTheLog)
{
    CLogger::instance().setLevel(5);
    qWarning("qt warning text");
    qDebug("qt debug text");
    qCritical("qt critical text");
    qInfo("qt info text");
    const QString text = testutils::readText(m_path);
    for (const char* record : {"Warning  .*qt warning text", "Debug    .*qt debug text",
                               "ERROR    .*qt critical text", "Info     .*qt info text"})
        EXPECT_TRUE(QRegularExpression(QString::fromLatin1(record)).match(text).hasMatch())
            << record << "\n"
            << text.toStdString();
}

// Runs only inside the child process started by CrashWritesABacktraceFile.
TEST(LoggingChild, DISABLED_CrashOnPurpose)
{
    const QString folder = qEnvironmentVariable("QX_CRASH_FOLDER");
    ASSERT_TRUE(CLogger::installCrashDumps(folder, QStringLiteral("QX"), 7));
    // The signal itself rather than a write through a null pointer, which the
    // undefined-behaviour sanitizer would stop before any signal is sent.
    std::raise(SIGSEGV);
}

TEST_F(LoggingTest, CrashWritesABacktraceFile)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QX_CRASH_FOLDER"), m_dir.path());
    // In sanitizer builds the sanitizer would take the signal first; the
    // program's own handler is what is tested here.
    env.insert(
        QStringLiteral("ASAN_OPTIONS"),
        QStringLiteral(
            "handle_segv=0:handle_sigbus=0:handle_sigill=0:handle_sigfpe=0:handle_abort=0:detect_leaks=0"));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("--gtest_also_run_disabled_tests"),
                 QStringLiteral("--gtest_filter=LoggingChild.DISABLED_CrashOnPurpose")});
    ASSERT_TRUE(child.waitForFinished(60000));
    EXPECT_EQ(child.exitStatus(), QProcess::CrashExit) << "the process must still die of its signal";

    const QString dump = CLogger::crashDumpPath(m_dir.path(), QStringLiteral("QX"), 7);
    EXPECT_TRUE(dump.endsWith(QStringLiteral("/crash_QX_7_x64.dmp")) ||
                !dump.contains(QStringLiteral("x64")));
    ASSERT_TRUE(QFile::exists(dump));
    const QString text = testutils::readText(dump);
    EXPECT_TRUE(text.startsWith(QStringLiteral("Fatal signal 11"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("Backtrace:")));
    EXPECT_GT(text.count(QLatin1Char('\n')), 3) << "frames expected";

    EXPECT_FALSE(
        CLogger::installCrashDumps(QString(1000, QLatin1Char('x')).repeated(5), QStringLiteral("QX"), 1))
        << "a path too long for the fixed buffer is refused";
}
