// The conversion task against stand-in converters: shell scripts that print
// what a converter prints, stay idle, burn processor time or exit with the
// codes the task must translate.
#include "qutils/exception.h"
#include "qutils/htmltopdftask.h"
#include "qutils/tasks.h"

#include "logcapture.h"
#include "testutils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QUrl>

#include <gtest/gtest.h>

using qutils::CException;
using qutils::CHtmlToPdfTask;

namespace
{

class HtmlToPdfTaskTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        CHtmlToPdfTask::setConverterPath(QString());
        CHtmlToPdfTask::setIdleTimeout(0);
    }

    // A converter standing in for the real one; its arguments are written
    // one per line to args.txt beside it.
    QString converter(const QString& body)
    {
        const QString path = m_dir.filePath(QStringLiteral("converter.sh"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(
            "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$(dirname \"$0\")/args.txt\"\n");
        file.write(body.toUtf8());
        file.write("\n");
        file.close();
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        CHtmlToPdfTask::setConverterPath(path);
        return path;
    }

    // Runs a task to its end; the thrown failure, or an empty one.
    static CException runTask(const std::shared_ptr<CHtmlToPdfTask>& task)
    {
        try
        {
            EXPECT_TRUE(task->run());
        }
        catch (const CException& e)
        {
            return e;
        }
        return CException();
    }

    QTemporaryDir m_dir;
};

} // namespace

TEST_F(HtmlToPdfTaskTest, CommandLineOrderAndEncodedUrls)
{
    const QString html = m_dir.filePath(QStringLiteral("Bericht #1 für Fall.html"));
    const QString pdf = m_dir.filePath(QStringLiteral("out 100%.pdf"));
    auto task = qutils::makeTask<CHtmlToPdfTask>(html, pdf);
    task->setFooterLeft(QStringLiteral("Generated\t\tby"));
    task->setHeaderCenter(QStringLiteral("Case 17"));
    task->setHeaderHtml(QStringLiteral("<b>héader</b>"));
    task->setCover(m_dir.filePath(QStringLiteral("cover.html")));
    task->setTocStyleSheet(QStringLiteral("<xsl/>"));
    const QStringList args = task->arguments();
    ASSERT_EQ(args.size(), 15) << args.join(QLatin1Char('|')).toStdString();
    QStringList fixed = args;
    for (const int variable : {3, 7, 9, 13, 14})
        fixed[variable] = QStringLiteral("*");
    EXPECT_EQ(
        fixed.join(QLatin1Char('|')).toStdString(),
        "--header-text-center|Case 17|--header-text-html|*|--footer-text-left|Generated\t\tby|--cover-url|*|"
        "--toc-xsl|*|--javascript-delay|0|-o|*|*");
    EXPECT_TRUE(args.at(3).startsWith(QStringLiteral("file://")));
    EXPECT_TRUE(args.at(3).contains(QStringLiteral("CasewrightHeader")));
    QFile header(QUrl(args.at(3)).toLocalFile());
    ASSERT_TRUE(header.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(header.readAll()), QStringLiteral("<b>héader</b>"));
    EXPECT_TRUE(QFileInfo(args.at(9)).fileName().startsWith(QStringLiteral("CasewrightToc")));
    // Fully encoded: no space, '#', '%' or non-ASCII letter survives as itself.
    EXPECT_TRUE(args.at(13).endsWith(QStringLiteral("/out%20100%25.pdf"))) << args.at(13).toStdString();
    EXPECT_TRUE(args.at(14).endsWith(QStringLiteral("/Bericht%20%231%20f%C3%BCr%20Fall.html")))
        << args.at(14).toStdString();
    EXPECT_EQ(QUrl(args.at(14)).toLocalFile(), html);
    const QString headerFile = header.fileName();
    header.close();
    // Tasks are released on their own thread, a moment later.
    task.reset();
    EXPECT_TRUE(testutils::waitFor([&] { return !QFileInfo::exists(headerFile); }))
        << "temporary files go with the task";
}

TEST_F(HtmlToPdfTaskTest, PercentLinesAreProgressAndOtherLinesAreLogged)
{
    converter(QStringLiteral("echo 'Loading pages'\necho '10%'\necho '45%'\necho 'done writing'\nexit 0"));
    auto task = qutils::makeTask<CHtmlToPdfTask>(m_dir.filePath(QStringLiteral("in.html")),
                                                 m_dir.filePath(QStringLiteral("out.pdf")));
    task->setFooterLeft(QStringLiteral("footer"));
    QList<qint64> positions;
    QList<qint64> ranges;
    QObject::connect(task.get(), &qutils::CTask::progressPos, [&](qint64 pos) { positions << pos; });
    QObject::connect(task.get(), &qutils::CTask::progressRange, [&](qint64, qint64 max) { ranges << max; });
    testutils::CLogCapture log;
    EXPECT_TRUE(runTask(task).isEmpty());
    EXPECT_EQ(positions, (QList<qint64>{10, 45}));
    EXPECT_EQ(ranges, (QList<qint64>{500}));
    EXPECT_TRUE(log.text().contains(QStringLiteral("Loading pages")));
    EXPECT_TRUE(log.text().contains(QStringLiteral("done writing")));
    EXPECT_FALSE(log.text().contains(QStringLiteral("45%")));
    // The converter got the task's command line.
    const QStringList got = testutils::readText(m_dir.filePath(QStringLiteral("args.txt")))
                                .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(got, task->arguments());
}

TEST_F(HtmlToPdfTaskTest, ExitCodesBecomeTheirErrors)
{
    const auto failure = [&](const QString& body)
    {
        converter(body);
        return runTask(qutils::makeTask<CHtmlToPdfTask>(m_dir.filePath(QStringLiteral("in.html")),
                                                        m_dir.filePath(QStringLiteral("out.pdf"))));
    };
    CException e = failure(QStringLiteral("exit 2"));
    EXPECT_EQ(e.message(), QStringLiteral("Cannot store pdf"));
    EXPECT_EQ(e.code(), 112);
    // 62097 does not fit an eight-bit exit status; what arrives is 62097 & 255.
    e = failure(QStringLiteral("exit 62097"));
    EXPECT_EQ(e.message(), QStringLiteral("User abort"));
    EXPECT_EQ(e.code(), 1223);
    e = failure(QStringLiteral("exit 5"));
    EXPECT_EQ(e.message(), QStringLiteral("Unknown converting error, exit code: 5, exit status 0"));
    EXPECT_EQ(e.code(), 1287);
    e = failure(QStringLiteral("kill -9 $$"));
    EXPECT_TRUE(e.message().startsWith(QStringLiteral("Unknown converting error, exit code: "))) << e.what();
    EXPECT_TRUE(e.message().endsWith(QStringLiteral("exit status 1"))) << e.what();

    CHtmlToPdfTask::setConverterPath(m_dir.filePath(QStringLiteral("no-such-converter")));
    e = runTask(qutils::makeTask<CHtmlToPdfTask>(QStringLiteral("a.html"), QStringLiteral("b.pdf")));
    EXPECT_EQ(e.message(), QStringLiteral("Unable to start pdf converting process"));

    // Neither beside this test program nor beside the Qt library.
    CHtmlToPdfTask::setConverterPath(QString());
    try
    {
        CHtmlToPdfTask::findConverter();
        ADD_FAILURE() << "a converter was found";
    }
    catch (const CException& missing)
    {
        EXPECT_EQ(missing.message(), QStringLiteral("Missing application files"));
        EXPECT_EQ(missing.code(), 1287);
    }
}

TEST_F(HtmlToPdfTaskTest, WatchdogKillsAnIdleConverterButNotABusyOne)
{
    CHtmlToPdfTask::setIdleTimeout(1500);
    converter(QStringLiteral("echo '5%'\nsleep 60\nexit 0"));
    QElapsedTimer clock;
    clock.start();
    CException e = runTask(qutils::makeTask<CHtmlToPdfTask>(m_dir.filePath(QStringLiteral("in.html")),
                                                            m_dir.filePath(QStringLiteral("out.pdf"))));
    EXPECT_EQ(e.message(), QStringLiteral("Pdf converter stopped working"));
    EXPECT_EQ(e.code(), 1287);
    EXPECT_LT(clock.elapsed(), 30000) << "killed long before the script would end";

    // Three seconds of work with a 1.5-second idle limit: never idle, never killed.
    converter(
        QStringLiteral("end=$(( $(date +%s) + 3 ))\nwhile [ $(date +%s) -lt $end ]; do :; done\nexit 0"));
    e = runTask(qutils::makeTask<CHtmlToPdfTask>(m_dir.filePath(QStringLiteral("in.html")),
                                                 m_dir.filePath(QStringLiteral("out.pdf"))));
    EXPECT_TRUE(e.isEmpty()) << e.what();
}
