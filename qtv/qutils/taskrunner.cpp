#include "taskrunner.h"

#include "debugutils.h"
#include "tasks.h"
#include "threadsync.h"

#include <QEvent>
#include <QThread>

#include <atomic>

namespace qutils
{

CWorker::CWorker(std::function<void()> function) : m_function(std::move(function)) {}

bool CWorker::event(QEvent* event)
{
    if (event->type() == QEvent::DeferredDelete)
        takeOver(static_cast<const QObject*>(this));
    return QObject::event(event);
}

void CWorker::wait()
{
    std::unique_lock<std::mutex> lock(m_doneMutex);
    m_doneChanged.wait(lock, [this] { return m_done; });
}

bool CWorker::isFinished(std::exception_ptr& exception) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    exception = m_exception;
    return m_finished;
}

void CWorker::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_finished = false;
    m_exception = nullptr;
    std::lock_guard<std::mutex> doneLock(m_doneMutex);
    m_done = false;
}

void CWorker::onWork()
{
    {
        // Held for the whole run: a finished query waits until the work is over.
        std::lock_guard<std::mutex> lock(m_mutex);
        try
        {
            m_function();
        }
        catch (...)
        {
            // Exceptions must not cross into Qt's event code; the caller collects it.
            m_exception = std::current_exception();
        }
        m_finished = true;
    }
    {
        std::lock_guard<std::mutex> lock(m_doneMutex);
        m_done = true;
    }
    m_doneChanged.notify_all();
    emit finished();
}

namespace
{

// Marks the connection made below while the thread may be running.
const char g_releaseConnected = 0;

std::function<void()> workOfTask(CTask* task)
{
    // A plain pointer: the runner keeps the task alive until its thread is
    // joined, and the worker must not extend the task's life.
    return [task]
    {
        if (task)
            task->run();
    };
}

} // namespace

CTaskRunner::CTaskRunner(std::function<void()> function, QObject* parent)
    : QObject(parent), m_thread(new QThread(), VQThread::CThreadLaterDeleter()),
      m_function(std::move(function))
{
    m_thread->setObjectName(QStringLiteral("QuorvexTaskRunner"));
    announceThreadEnd(m_thread.get());
    m_worker.reset(new CWorker(m_function));
    connect(m_thread.get(), &QThread::started, m_worker.get(), &CWorker::onWork);
    connect(m_worker.get(), &CWorker::finished, this, &CTaskRunner::onWorkerFinished);
    // started() is emitted on the new thread, so the work runs there.
    m_worker->moveToThread(m_thread.get());
}

CTaskRunner::CTaskRunner(std::shared_ptr<CTask> task, QObject* parent)
    : CTaskRunner(workOfTask(task.get()), parent)
{
    if (!task)
        QX_SELFCHECK(QStringLiteral("CTaskRunner without a task"));
    m_task = std::move(task);
}

CTaskRunner::~CTaskRunner()
{
    // A deferred delete posted to a thread that has already ended is never
    // delivered, so the worker is released on its own thread as that thread
    // finishes (after the work has returned), where deleteLater() still works.
    CWorker* worker = m_worker.release();
    const auto released = std::make_shared<std::atomic<bool>>(false);
    connect(
        m_thread.get(), &QThread::finished, worker,
        [worker, released]
        {
            takeOver(&g_releaseConnected);
            CLaterDeleter<CWorker>()(worker);
            *released = true;
        },
        Qt::DirectConnection);
    // Qt's connection lists are guarded by its own mutex; the slot runs only after quit().
    handOff(&g_releaseConnected);
    m_thread->quit();
    joinThread(m_thread.get());
    m_function = nullptr;
    // The thread never ran or had ended before: it is joined, nothing else can reach the worker.
    if (!*released)
        delete worker;
    m_task.reset();
    m_thread.reset();
}

void CTaskRunner::wait()
{
    m_worker->wait();
}

bool CTaskRunner::isFinished(std::exception_ptr& exception) const
{
    return m_worker->isFinished(exception);
}

bool CTaskRunner::isRunning() const
{
    return m_thread->isRunning();
}

bool CTaskRunner::runTaskAsync()
{
    if (m_thread->isRunning())
    {
        QX_SELFCHECK(QStringLiteral("runTaskAsync while the runner is running"));
        return false;
    }
    if (m_thread->isFinished())
    {
        // A restart: the previous run's result must not satisfy waits for this one.
        m_worker->reset();
        m_finished = false;
    }
    m_thread->start();
    return true;
}

void CTaskRunner::onWorkerFinished()
{
    m_finished = true;
    emit finished();
}

} // namespace qutils
