// The client of the integration mode: finds the program, starts it with
// "/integration" and turns calls into request lines and answers into results.
#include "quorvexapi.h"

#include "debugutils.h"
#include "platform.h"
#include "threadsync.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

#include <atomic>

namespace qutils
{

namespace
{

std::atomic<int> g_lineTimeout{30000};

const QString ProgramFileName = platform::programFileName(platform::EProgram::Quorvex);

// Failures of the client end as states, never as exceptions; a log that
// cannot be written must not change that.
void logWarning(const QString& text) noexcept
{
    try
    {
        QX_WARNING << text;
    }
    catch (...)
    {
    }
}

QString executableAt(const QString& path)
{
    const QFileInfo file(path);
    return file.isFile() && file.isExecutable() ? file.absoluteFilePath() : QString();
}


} // namespace

// Runs the calling thread's work on the I/O thread. Invoked by name, so Qt
// builds the call from nothing of ours: what the work needs is handed over in
// `work`, which the sanitizer's marks then cover.
class CQuorvexAPI::CIoContext : public QObject
{
    Q_OBJECT

public:
    // Set only while a caller waits for the call (callers take turns).
    const std::function<void()>* work = nullptr;

    Q_INVOKABLE void runWork()
    {
        takeOver(this);
        (*work)();
        handOff(this);
    }
};

CQuorvexAPI::CQuorvexAPI(QObject* parent) : QObject(parent)
{
    m_ioThread = new QThread;
    m_ioThread->setObjectName(QStringLiteral("CQuorvexAPI I/O"));
    m_ioContext = new CIoContext;
    m_ioContext->moveToThread(m_ioThread);
    announceThreadEnd(m_ioThread);
    m_ioThread->start();

    m_program = findProgram();
    QString failure;
    runOnIoThread([this, &failure] { failure = startServer(); });
    if (!failure.isEmpty())
        logWarning(failure);
}

CQuorvexAPI::~CQuorvexAPI()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        runOnIoThread(
            [this]
            {
                if (m_process && m_process->state() != QProcess::NotRunning)
                {
                    m_process->write("quitQuorvex\n");
                    m_process->waitForBytesWritten(lineTimeout());
                    if (!m_process->waitForFinished(lineTimeout()))
                        killServer(QStringLiteral("The integration server did not end"));
                }
                delete m_process;
                m_process = nullptr;
            });
    }
    m_ioThread->quit();
    joinThread(m_ioThread);
    // The thread has ended, so nothing of it can touch the context any more.
    delete m_ioContext;
    delete m_ioThread;
}

QString CQuorvexAPI::startServer()
{
    // A fresh process object: nothing the previous server wrote can be read.
    delete m_process;
    m_process = new QProcess;
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    if (m_program.isEmpty())
    {
        m_state = NotInstalled;
        return QStringLiteral("The Quorvex program was not found");
    }
    m_process->start(m_program, {QStringLiteral("/integration")}, QIODevice::ReadWrite);
    if (!m_process->waitForStarted(lineTimeout()))
    {
        m_state = NotInstalled;
        return QStringLiteral("%1 did not start: %2").arg(m_program, m_process->errorString());
    }
    QStringList greeting;
    if (!readAnswer(&greeting) || greeting.isEmpty())
    {
        m_state = Fatal;
        // A greeting that comes late must not be read as the first answer.
        m_process->kill();
        m_process->waitForFinished(lineTimeout());
        return QStringLiteral("%1 did not greet; it is killed").arg(m_program);
    }
    m_state = statusFromKey(greeting.first());
    if (m_state != Success)
        return QStringLiteral("%1 greeted with \"%2\"").arg(m_program, greeting.first());
    return QString();
}

void CQuorvexAPI::killServer(const QString& why)
{
    if (m_process->state() != QProcess::NotRunning)
    {
        logWarning(why + QStringLiteral("; the integration server is killed"));
        m_process->kill();
        m_process->waitForFinished(lineTimeout());
    }
    else
    {
        logWarning(why + QStringLiteral("; the integration server has ended"));
    }
}

namespace
{
// The protocol has no quoting, and the server refuses control characters
// (a NUL would cut a path short on the way to a file): such a path cannot be
// sent as it is. Nor can one that does not survive the trip to UTF-8.
bool sendable(const QString& path)
{
    if (path.contains(QLatin1Char(';')))
        return false;
    for (const QChar c : path)
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return false;
    return QString::fromUtf8(path.toUtf8()) == path;
}

bool isInteger(const QString& field)
{
    bool ok = false;
    field.toInt(&ok, 10);
    return ok;
}

bool isNumber(const QString& field)
{
    bool ok = false;
    field.toDouble(&ok);
    return ok;
}
} // namespace

CQuorvexAPI::SAnalysisResult CQuorvexAPI::analysisRequest(const QString& command, const QString& first,
                                                         const QString& photo, int extraFields, QStringList* extra)
{
    SAnalysisResult result;
    if (!sendable(first) || !sendable(photo))
    {
        QX_WARNING << "Not sent: a path with ';' or a control character cannot travel in a request ("
                   << (sendable(first) ? photo : first) << ")";
        result.status = sendable(first) ? BrokenImage : CannotOpenFingerprint;
        return result;
    }
    // A shorter or longer answer, or one whose numbers are not numbers, may
    // belong to another request: it is not taken.
    const QStringList answer =
        request(command + QLatin1Char(';') + first + QLatin1Char(';') + photo + QLatin1Char('\n'),
                [extraFields, extra](const QStringList& fields)
                {
                    const bool sized = extra ? fields.size() >= 4 + extraFields : fields.size() == 4;
                    return sized && isInteger(fields[0]) && isNumber(fields[1]) && isNumber(fields[2]);
                });
    if (answer.isEmpty())
    {
        result.status = Fatal;
        return result;
    }
    result.matched = answer.value(0).toInt(nullptr, 10) != 0;
    result.probability = answer.value(1).toDouble();
    result.correlation = answer.value(2).toDouble();
    result.status = statusFromKey(answer.value(3));
    if (extra)
        *extra = answer.mid(4);
    return result;
}

CQuorvexAPI::SAnalysisResult CQuorvexAPI::match(const QString& fingerprintPath, const QString& photoPath)
{
    return analysisRequest(QStringLiteral("match"), fingerprintPath, photoPath, 0);
}

CQuorvexAPI::SAnalysisResult CQuorvexAPI::identify(const QString& libraryFolder, const QString& photoPath,
                                                  QString* fingerprintPath)
{
    QStringList extra;
    const SAnalysisResult result =
        analysisRequest(QStringLiteral("identify"), libraryFolder, photoPath, 1, &extra);
    // The fingerprint's path comes last, so a ';' in it stays in it.
    if (fingerprintPath)
        *fingerprintPath = extra.join(QLatin1Char(';'));
    return result;
}

CQuorvexAPI::EStatus CQuorvexAPI::fingerprintStatus(const QString& fingerprintPath)
{
    if (!sendable(fingerprintPath))
    {
        QX_WARNING << "Not sent: a path with ';' or a control character cannot travel in a request ("
                   << fingerprintPath << ")";
        return CannotOpenFingerprint;
    }
    const QStringList answer =
        request(QStringLiteral("fingerprintStatus;") + fingerprintPath + QLatin1Char('\n'),
                [](const QStringList& fields) { return fields.size() == 1; });
    return answer.isEmpty() ? Fatal : statusFromKey(answer.first());
}

QString CQuorvexAPI::findProgram()
{
    // An explicit choice is the only candidate: a wrong one should fail, not be
    // replaced quietly by another installation.
    const QString chosen = qEnvironmentVariable("QUORVEX_PROGRAM");
    if (!chosen.isEmpty())
        return chosen;

    if (QCoreApplication::instance())
    {
        const QString beside =
            executableAt(QCoreApplication::applicationDirPath() + QLatin1Char('/') + ProgramFileName);
        if (!beside.isEmpty())
            return beside;
    }
    const QString installed = platform::installedProgram();
    if (!installed.isEmpty())
        return installed;
    return QStandardPaths::findExecutable(ProgramFileName);
}

void CQuorvexAPI::setLineTimeout(int milliseconds)
{
    if (milliseconds > 0)
        g_lineTimeout = milliseconds;
}

int CQuorvexAPI::lineTimeout()
{
    return g_lineTimeout.load();
}

QStringList CQuorvexAPI::request(const QString& line, const std::function<bool(const QStringList&)>& fits)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    QStringList answer;
    runOnIoThread(
        [this, &line, &fits, &answer]
        {
            if (!m_process || m_process->state() != QProcess::Running)
            {
                // A server that never greeted well cannot answer; one that did
                // and has gone since is replaced.
                if (m_state != Success)
                    return;
                const QString failure = startServer();
                if (!failure.isEmpty())
                {
                    logWarning(failure);
                    return;
                }
            }
            // An answer already waiting was not asked for (a server that
            // answered twice): it would be taken for this one.
            if (staleAnswerPending())
            {
                killServer(QStringLiteral("An answer came without a request"));
                const QString failure = startServer();
                if (!failure.isEmpty())
                {
                    logWarning(failure);
                    return;
                }
            }
            m_process->write(line.toUtf8());
            m_process->waitForBytesWritten(lineTimeout());
            QStringList fields;
            if (!readAnswer(&fields))
            {
                killServer(QStringLiteral("No answer to a request"));
                return;
            }
            if (!fits(fields))
            {
                killServer(QStringLiteral("An answer that does not fit the request (%1)")
                               .arg(fields.join(QLatin1Char(';'))));
                return;
            }
            answer = fields;
        });
    return answer;
}

bool CQuorvexAPI::staleAnswerPending()
{
    m_process->waitForReadyRead(0);
    bool pending = false;
    while (m_process->canReadLine())
    {
        const QString line = QString::fromUtf8(m_process->readLine()).trimmed();
        pending = line.section(QLatin1Char(';'), 0, 0) == QLatin1String(AnswerMarker) || pending;
    }
    return pending;
}

bool CQuorvexAPI::readAnswer(QStringList* fields)
{
    const QString marker = QString::fromLatin1(AnswerMarker);
    for (;;)
    {
        // The wait starts anew for every line, so other output delays the
        // answer but never turns a slow answer into a lost one.
        QElapsedTimer timer;
        timer.start();
        while (!m_process->canReadLine())
        {
            const qint64 left = lineTimeout() - timer.elapsed();
            if (left <= 0 || !m_process->waitForReadyRead(static_cast<int>(left)))
                break;
        }
        // No whole line in time, or the server ended: a line cut short is no answer.
        if (!m_process->canReadLine())
            return false;

        *fields =
            QString::fromUtf8(m_process->readLine()).trimmed().split(QLatin1Char(';'), Qt::KeepEmptyParts);
        // Anything else on the merged channel (log text, library messages) is not an answer.
        if (fields->first() == marker)
        {
            fields->removeFirst();
            return true;
        }
    }
}

void CQuorvexAPI::runOnIoThread(const std::function<void()>& work)
{
    // The call blocks on Qt's own semaphore, which the sanitizer cannot see.
    m_ioContext->work = &work;
    handOff(m_ioContext);
    if (!QMetaObject::invokeMethod(m_ioContext, "runWork", Qt::BlockingQueuedConnection))
        logWarning(QStringLiteral("Cannot call the integration client's I/O thread"));
    takeOver(m_ioContext);
    m_ioContext->work = nullptr;
}

} // namespace qutils

#include "quorvexapi.moc"
