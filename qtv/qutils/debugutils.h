#pragma once

#include <QIODevice>
#include <QString>
#include <QTextStream>

#include <memory>

namespace qutils
{

enum ELogLevel
{
    LogFatal = 1,
    LogError = 2,
    LogWarning = 3,
    LogInfo = 4,
    LogDebug = 5,
};

// Write-only sink for records that the level filter drops.
class CEmptyDevice : public QIODevice
{
public:
    CEmptyDevice() = default;

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 maxSize) override;
};

class CLogger;

// One log line. Holds the logger's lock from creation until destruction,
// when the line is written; never keep one alive across a wait.
class CLogRecord : public QTextStream
{
public:
    ~CLogRecord() override;

    CLogRecord(const CLogRecord&) = delete;
    CLogRecord& operator=(const CLogRecord&) = delete;

private:
    friend class CLogger;
    CLogRecord(CLogger& logger, QIODevice* device, const QString& header);

    CLogger& m_logger;
    QIODevice* m_device;
    QString m_header;
    QString m_message;
};

class CLogger
{
public:
    static constexpr qint64 DefaultMaxLogSize = 10485760;

    static CLogger& instance();

    // Takes the lock; the caller streams the message into the record and
    // destroys it. Throws CException (1287) when the log file cannot be
    // opened or rotated; the lock is released then.
    std::unique_ptr<CLogRecord> createRecord(int level, const char* file, int line);

    // Moves the current log (with what it already holds) to newPath.
    void setLogFile(const QString& newPath);
    void closeFile();
    QString fileName() const;

    int level() const;
    // Values outside 0..5 are ignored.
    void setLevel(int level);

    qint64 maxLogSize() const;
    void setMaxLogSize(qint64 bytes);

    // Installs the crash writer: a fatal signal writes a backtrace file
    // "<folder>/crash_<name>_<number>_<arch>.dmp", then the process dies as it would have.
    static bool installCrashDumps(const QString& folder, const QString& name, int number);
    static QString crashDumpPath(const QString& folder, const QString& name, int number);

    // Builds the header of a record; exposed for tests.
    static QString makeHeader(int level, const char* file, int line, quint64 threadId);

private:
    CLogger();
    ~CLogger() = delete;
    friend class CLogRecord;
    struct SPrivate;
    SPrivate* d;
};

} // namespace qutils

#define QX_LOG(level) (*::qutils::CLogger::instance().createRecord((level), __FILE__, __LINE__))
#define QX_FATAL QX_LOG(::qutils::LogFatal)
#define QX_ERROR QX_LOG(::qutils::LogError)
#define QX_WARNING QX_LOG(::qutils::LogWarning)
#define QX_INFO QX_LOG(::qutils::LogInfo)
#define QX_DEBUG QX_LOG(::qutils::LogDebug)
// A self-check failure: a Debug record carrying the source file and line.
#define QX_SELFCHECK(what) (QX_DEBUG << "Self-check failed: " << (what))
