#include "htmltopdftask.h"

#include "debugutils.h"
#include "exception.h"
#include "platform.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QProcess>
#include <QTemporaryFile>
#include <QTextStream>
#include <QUrl>

#include <atomic>

namespace qutils
{

namespace
{

QMutex g_converterMutex;
QString g_converterPath;
std::atomic<int> g_idleTimeoutMs{CHtmlToPdfTask::DefaultIdleTimeoutMs};

QString converterName()
{
    return platform::programFileName(platform::EProgram::HtmlToPdf);
}

// Every character outside the unreserved set encoded, so spaces, '#', '%' and
// non-ASCII names survive the trip through the converter's command line.
QString encodedFileUrl(const QString& path)
{
    return platform::fileUrl(
        QUrl::toPercentEncoding(QDir::fromNativeSeparators(QFileInfo(path).absoluteFilePath()), "/"));
}

} // namespace

CHtmlToPdfTask::CHtmlToPdfTask(const QString& htmlFile, const QString& pdfFile) : m_html(htmlFile), m_pdf(pdfFile) {}

CHtmlToPdfTask::~CHtmlToPdfTask()
{
    for (const QString& file : qAsConst(m_temporaryFiles))
        QFile::remove(file);
}

void CHtmlToPdfTask::setConverterPath(const QString& path)
{
    QMutexLocker lock(&g_converterMutex);
    g_converterPath = path;
}

void CHtmlToPdfTask::setIdleTimeout(int milliseconds)
{
    g_idleTimeoutMs.store(milliseconds > 0 ? milliseconds : DefaultIdleTimeoutMs);
}

QString CHtmlToPdfTask::findConverter()
{
    {
        QMutexLocker lock(&g_converterMutex);
        if (!g_converterPath.isEmpty())
            return g_converterPath;
    }
    const QString besideProgram = QCoreApplication::applicationDirPath() + QLatin1Char('/') + converterName();
    if (QFileInfo::exists(besideProgram))
        return besideProgram;
    // An installation may keep the program and the Qt libraries apart.
    const QString qtFolder = platform::moduleDirectory(reinterpret_cast<const void*>(&qVersion));
    if (qtFolder.isEmpty())
        throw CException(QStringLiteral("Cannot get module filename"), CException::Unidentified);
    const QString besideQt = qtFolder + converterName();
    if (!QFileInfo::exists(besideQt))
    {
        QX_ERROR << "The PDF converter is missing: neither " << besideProgram << " nor " << besideQt;
        throw CException(QStringLiteral("Missing application files"), CException::Unidentified);
    }
    return besideQt;
}

QString CHtmlToPdfTask::writeTemporary(const QString& nameTemplate, const QString& text)
{
    QTemporaryFile file(QDir::tempPath() + nameTemplate);
    file.setAutoRemove(false);
    if (!file.open())
        throw CException(QStringLiteral("Cannot create temporary file %1").arg(file.fileTemplate()));
    file.write(text.toUtf8());
    file.close();
    m_temporaryFiles << file.fileName();
    return file.fileName();
}

QStringList CHtmlToPdfTask::arguments()
{
    QStringList args;
    const auto add = [&args](const char* option, const QString& value) {
        if (!value.isEmpty())
            args << QString::fromLatin1(option) << value;
    };
    add("--header-text-left", m_headerLeft);
    add("--header-text-center", m_headerCenter);
    add("--header-text-right", m_headerRight);
    if (!m_headerHtml.isEmpty())
        args << QStringLiteral("--header-text-html")
             << encodedFileUrl(writeTemporary(QStringLiteral("/CasewrightHeaderXXXXXX.html"), m_headerHtml));
    add("--footer-text-left", m_footerLeft);
    add("--footer-text-center", m_footerCenter);
    add("--footer-text-right", m_footerRight);
    if (!m_footerHtml.isEmpty())
        args << QStringLiteral("--footer-text-html")
             << encodedFileUrl(writeTemporary(QStringLiteral("/CasewrightFooterXXXXXX.html"), m_footerHtml));
    if (!m_cover.isEmpty())
        args << QStringLiteral("--cover-url") << encodedFileUrl(m_cover);
    if (!m_tocStyleSheet.isEmpty())
        args << QStringLiteral("--toc-xsl") << writeTemporary(QStringLiteral("/CasewrightTocXXXXXX.xsl"), m_tocStyleSheet);
    args << QStringLiteral("--javascript-delay") << QStringLiteral("0");
    args << QStringLiteral("-o") << encodedFileUrl(m_pdf) << encodedFileUrl(m_html);
    return args;
}

void CHtmlToPdfTask::readProgress(QProcess& process)
{
    while (process.canReadLine())
    {
        const QString line = QString::fromUtf8(process.readLine()).trimmed();
        if (line.contains(QLatin1Char('%')))
        {
            bool ok = false;
            const qint64 value = QString(line).remove(QLatin1Char('%')).trimmed().toLongLong(&ok, 10);
            if (ok)
                setProgressPos(value);
        }
        else if (!line.isEmpty())
            QX_INFO << "PDF converter: " << line;
    }
}

bool CHtmlToPdfTask::run()
{
    const QString converter = findConverter();
    const QStringList args = arguments();
    setProgressRange(0, m_tocStyleSheet.isEmpty() ? 500 : 600);

    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    // Called from inside the waits below, on this thread.
    connect(&process, &QProcess::readyReadStandardOutput, this, [this, &process] { readProgress(process); },
            Qt::DirectConnection);
    QElapsedTimer clock;
    clock.start();
    process.start(converter, args, QIODevice::ReadWrite);
    if (!process.waitForStarted(30000))
        throw CException(QStringLiteral("Unable to start pdf converting process"), CException::Unidentified);

    // A converter that works uses processor time; one that has stopped does not.
    QElapsedTimer idle;
    idle.start();
    double lastCpu = platform::processCpuSeconds(process.processId());
    bool terminated = false;
    while (!process.waitForFinished(1000))
    {
        if (process.state() == QProcess::NotRunning)
            break;
        if (isCancelled() && !terminated)
        {
            // The converter removes what it started and reports a user abort.
            process.terminate();
            terminated = true;
        }
        const double cpu = platform::processCpuSeconds(process.processId());
        if (cpu >= 0.0 && lastCpu >= 0.0 && cpu - lastCpu >= 1e-7)
            idle.restart();
        lastCpu = cpu;
        if (idle.elapsed() > g_idleTimeoutMs.load())
        {
            process.kill();
            process.waitForFinished(5000);
            throw CException(QStringLiteral("Pdf converter stopped working"), CException::Unidentified);
        }
    }
    readProgress(process);
    m_conversionTimeMs = clock.elapsed();

    const int code = process.exitCode();
    if (process.exitStatus() == QProcess::NormalExit && code == 0)
        return true;
    if (process.exitStatus() == QProcess::NormalExit && code == 2)
        throw CException(QStringLiteral("Cannot store pdf"), CException::TargetFull);
    // Exit codes are eight bits wide on POSIX systems: 62097 arrives as 145.
    if (process.exitStatus() == QProcess::NormalExit && (code == UserAbortExitCode || code == (UserAbortExitCode & 0xFF)))
        throw CException(QStringLiteral("User abort"), CException::Cancelled);
    throw CException(QStringLiteral("Unknown converting error, exit code: %1, exit status %2")
                         .arg(code)
                         .arg(static_cast<int>(process.exitStatus())),
                     CException::Unidentified);
}

} // namespace qutils
