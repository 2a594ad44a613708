#include "debugutils.h"

#include "appsettings.h"
#include "exception.h"
#include "platform.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

#include <atomic>
#include <mutex>

namespace qutils
{

qint64 CEmptyDevice::readData(char*, qint64)
{
    return 0;
}

qint64 CEmptyDevice::writeData(const char*, qint64 maxSize)
{
    return maxSize;
}

struct CLogger::SPrivate
{
    CEmptyDevice nullDevice;
    QFile file;
    QString fileName = QStringLiteral("default.log");
    std::recursive_mutex lock;
    std::atomic<int> level{LogWarning};
    std::atomic<qint64> maxSize{DefaultMaxLogSize};
    // Fold state: the last line written and how many identical ones were dropped since.
    QString lastLine;
    int suppressed = 0;

    void open()
    {
        file.setFileName(fileName);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text))
            throw CException(QStringLiteral("Could not open logging file"), CException::Unidentified);
    }

    // Returns false when pending data could not be flushed.
    bool close()
    {
        if (!file.isOpen())
            return true;
        const bool flushed = file.flush();
        file.close();
        return flushed;
    }

    void rotate()
    {
        close();
        const QString copy = fileName + QStringLiteral(".old");
        if (QFile::exists(copy) && !QFile::remove(copy))
            throw CException(QStringLiteral("Could not remove destination log file"), CException::Unidentified);
        if (QFile::exists(fileName) && !QFile::rename(fileName, copy))
            throw CException(QStringLiteral("Could not rename log file"), CException::Unidentified);
        open();
    }
};

namespace
{

std::atomic<CLogger*> g_logger{nullptr};
std::mutex g_loggerCreation;

int levelForQtType(QtMsgType type, const QString& message)
{
    switch (type)
    {
    case QtDebugMsg:
        return LogDebug;
    case QtWarningMsg:
        return LogWarning;
    case QtCriticalMsg:
        return LogError;
    case QtFatalMsg:
        // Failed Q_ASSERTs are developer diagnostics, not user-facing failures.
        return message.startsWith(QLatin1String("ASSERT")) ? LogDebug : LogFatal;
    case QtInfoMsg:
        return LogInfo;
    }
    return LogError;
}

void qtMessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    try
    {
        *CLogger::instance().createRecord(levelForQtType(type, message), context.file, context.line) << message;
    }
    catch (...)
    {
        // Qt's own output has nowhere else to go; losing it beats crashing here.
    }
}

} // namespace

CLogger& CLogger::instance()
{
    CLogger* logger = g_logger.load(std::memory_order_acquire);
    if (!logger)
    {
        std::lock_guard<std::mutex> guard(g_loggerCreation);
        logger = g_logger.load(std::memory_order_relaxed);
        if (!logger)
        {
            logger = new CLogger;
            g_logger.store(logger, std::memory_order_release);
            qInstallMessageHandler(&qtMessageHandler);
        }
    }
    return *logger;
}

CLogger::CLogger() : d(new SPrivate)
{
    d->nullDevice.open(QIODevice::WriteOnly);
    // Read before the message handler goes in, so nothing logged while reading
    // the settings can re-enter a logger that is still being built.
    const int configured = CAppSettings::intOption(CAppSettings::EOption::MainAppLogLevel);
    if (static_cast<unsigned>(configured) < 6u)
        d->level = configured;
}

std::unique_ptr<CLogRecord> CLogger::createRecord(int level, const char* file, int line)
{
    d->lock.lock();
    QIODevice* device = &d->nullDevice;
    try
    {
        if (d->level.load() >= level)
        {
            if (!d->file.isOpen())
                d->open();
            if (d->file.size() > d->maxSize.load())
                d->rotate();
            device = &d->file;
        }
    }
    catch (...)
    {
        d->lock.unlock();
        throw;
    }
    return std::unique_ptr<CLogRecord>(
        new CLogRecord(*this, device, makeHeader(level, file, line, platform::currentThreadId())));
}

QString CLogger::makeHeader(int level, const char* file, int line, quint64 threadId)
{
    QString header = QDateTime::currentDateTime().toString(Qt::ISODate);
    if (header.size() >= 19 && header.at(10) == QLatin1Char('T'))
        header[10] = QLatin1Char(' ');
    header += QStringLiteral("  ");

    // Ids below 65536 print with four digits, like the short form of a Windows thread id.
    const int digits = (threadId >> 16) == 0 ? 4 : 8;
    header += QStringLiteral("(0x") + QString::number(threadId, 16).toUpper().rightJustified(digits, QLatin1Char('0')) +
              QStringLiteral(") ");

    switch (level)
    {
    case LogFatal:
        header += QStringLiteral("FATAL    ");
        break;
    case LogError:
        header += QStringLiteral("ERROR    ");
        break;
    case LogWarning:
        header += QStringLiteral("Warning  ");
        break;
    case LogInfo:
        header += QStringLiteral("Info     ");
        break;
    case LogDebug:
        header += QStringLiteral("Debug    ");
        break;
    default:
        break;
    }

    if (file && *file)
    {
        QString source = QString::fromLocal8Bit(file);
        // Only the part from our source tree's root on: build-machine prefixes vanish.
        int marker = source.indexOf(QLatin1String("/qtv/"));
        if (marker < 0)
            marker = source.indexOf(QLatin1String("\\qtv\\"));
        if (marker >= 0)
            source = source.mid(marker + 1);
        header += source + QLatin1Char('(') + QString::number(line) + QStringLiteral("): ");
    }
    return header;
}

void CLogger::setLogFile(const QString& newPath)
{
    std::lock_guard<std::recursive_mutex> guard(d->lock);
    const bool flushed = d->close();
    if (newPath != d->fileName && QFile::exists(d->fileName))
    {
        if (QFile::exists(newPath) && !QFile::remove(newPath))
            throw CException(QStringLiteral("Could not remove destination log file"), CException::Unidentified);
        if (!QFile::rename(d->fileName, newPath))
            throw CException(QStringLiteral("Could not rename log file"), CException::Unidentified);
    }
    d->fileName = newPath;
    d->open();
    if (!flushed)
        *createRecord(LogDebug, __FILE__, __LINE__) << "Could not flush the log file while closing it";
}

void CLogger::closeFile()
{
    std::lock_guard<std::recursive_mutex> guard(d->lock);
    if (!d->close())
        *createRecord(LogDebug, __FILE__, __LINE__) << "Could not flush the log file while closing it";
}

QString CLogger::fileName() const
{
    std::lock_guard<std::recursive_mutex> guard(d->lock);
    return d->fileName;
}

int CLogger::level() const
{
    return d->level.load();
}

void CLogger::setLevel(int level)
{
    if (static_cast<unsigned>(level) < 6u)
        d->level = level;
}

qint64 CLogger::maxLogSize() const
{
    return d->maxSize.load();
}

void CLogger::setMaxLogSize(qint64 bytes)
{
    if (bytes > 0)
        d->maxSize = bytes;
}

QString CLogger::crashDumpPath(const QString& folder, const QString& name, int number)
{
    return QDir(folder).filePath(QStringLiteral("crash_%1_%2_%3.dmp")
                                     .arg(name, QString::number(number), platform::architectureName()));
}

bool CLogger::installCrashDumps(const QString& folder, const QString& name, int number)
{
    return platform::installCrashWriter(QFile::encodeName(crashDumpPath(folder, name, number)));
}

CLogRecord::CLogRecord(CLogger& logger, QIODevice* device, const QString& header)
    : m_logger(logger), m_device(device), m_header(header)
{
    setString(&m_message, QIODevice::WriteOnly);
}

CLogRecord::~CLogRecord()
{
    flush();
    CLogger::SPrivate& d = *m_logger.d;
    const QString line = m_header + m_message;
    if (!m_message.isEmpty() && d.lastLine == line)
    {
        ++d.suppressed;
    }
    else
    {
        QByteArray out;
        if (d.suppressed == 1)
            out += d.lastLine.toUtf8() + '\n';
        else if (d.suppressed >= 2)
            out += QStringLiteral("        **** Previous message repeated additional %1 times ****\n")
                       .arg(d.suppressed)
                       .toUtf8();
        d.suppressed = 0;
        d.lastLine.clear();
        out += line.toUtf8() + '\n';
        m_device->write(out);
        if (auto* file = qobject_cast<QFile*>(m_device))
            file->flush();
        d.lastLine = line;
    }
    d.lock.unlock();
}

} // namespace qutils
