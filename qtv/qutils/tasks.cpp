#include "tasks.h"

#include "debugutils.h"
#include "threadsync.h"

#include <QCoreApplication>
#include <QEvent>
#include <QMetaType>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>

namespace qutils
{

namespace
{

// The one thread every task object lives on. Created on first use and stopped
// when the application object goes: a task released just before the end is
// deleted on it (its destructor may still be removing files), and that must be
// over before the process tears down what the destructor uses.
class CThreadForAllTasks : public QThread
{
public:
    static CThreadForAllTasks* instance();

private:
    CThreadForAllTasks() { setObjectName(QStringLiteral("QuorvexTasks")); }
    static void stopAtApplicationEnd();
};

std::atomic<CThreadForAllTasks*> g_threadForAllTasks{nullptr};
QBasicMutex g_threadForAllTasksMutex;

void CThreadForAllTasks::stopAtApplicationEnd()
{
    // No lock while waiting: a destructor running on the thread may create a task.
    CThreadForAllTasks* thread = g_threadForAllTasks.exchange(nullptr, std::memory_order_acq_rel);
    if (!thread)
        return;
    // A thread that ends delivers the deferred deletions still posted to it,
    // so every task released before this point is destroyed by the wait.
    thread->quit();
    joinThread(thread);
    delete thread;
}

CThreadForAllTasks* CThreadForAllTasks::instance()
{
    // Double-checked: the common path takes no lock once the thread exists.
    CThreadForAllTasks* thread = g_threadForAllTasks.load(std::memory_order_acquire);
    if (thread)
        return thread;
    QMutexLocker locker(&g_threadForAllTasksMutex);
    thread = g_threadForAllTasks.load(std::memory_order_relaxed);
    if (!thread)
    {
        // Progress values cross threads in queued connections of observers.
        qRegisterMetaType<qint64>("qint64");
        thread = new CThreadForAllTasks();
        announceThreadEnd(thread);
        thread->start(QThread::InheritPriority);
        g_threadForAllTasks.store(thread, std::memory_order_release);
        // Without an application object nothing calls it and the thread lives
        // until the process ends.
        qAddPostRoutine(&CThreadForAllTasks::stopAtApplicationEnd);
    }
    return thread;
}

} // namespace

CTask::CTask() : QObject(nullptr)
{
    moveToThread(CThreadForAllTasks::instance());
}

CTask::~CTask() = default;

bool CTask::event(QEvent* event)
{
    takeOver(static_cast<const QObject*>(this));
    return QObject::event(event);
}

void CTask::cancel()
{
    m_cancelled = true;
    onCancel();
    emit cancelled();
}

void CTask::setProgressRange(qint64 min, qint64 max)
{
    emit progressRange(min, max);
}

void CTask::setProgressPos(qint64 pos)
{
    emit progressPos(pos);
}

void CTask::setProgressText(const QString& text)
{
    emit progressText(text);
}

// All connections below are direct: progress and cancellation travel
// synchronously on the emitting thread, whatever thread the objects live on.
// They are not removed afterwards; they die with the objects.

namespace
{

void linkChild(CTask* parent, CTask* child, bool progress)
{
    if (progress)
    {
        QObject::connect(child, &CTask::progressRange, parent, &CTask::setProgressRange, Qt::DirectConnection);
        QObject::connect(child, &CTask::progressPos, parent, &CTask::setProgressPos, Qt::DirectConnection);
    }
    QObject::connect(parent, &CTask::cancelled, child, &CTask::cancel, Qt::DirectConnection);
    // A sub-task started after the cancel would otherwise miss it and run whole.
    if (parent->isCancelled() && !child->isCancelled())
        child->cancel();
}

bool present(const std::shared_ptr<CTask>& task, const char* operation)
{
    if (!task)
        QX_SELFCHECK(QStringLiteral("%1 without a sub-task").arg(QLatin1String(operation)));
    return task != nullptr;
}

} // namespace

bool CTask::runSubTask(std::shared_ptr<CTask> task, qint64 from, qint64 to)
{
    if (!present(task, "runSubTask"))
        return false;
    // Cancelling us cancels the adapter, which passes it on to the sub-task.
    const auto adapter = makeTask<CTaskRangeAdapter>(std::move(task), from, to);
    linkChild(this, adapter.get(), true);
    return adapter->run();
}

bool CTask::runSubTaskWithProgress(std::shared_ptr<CTask> task)
{
    if (!present(task, "runSubTaskWithProgress"))
        return false;
    linkChild(this, task.get(), true);
    return task->run();
}

bool CTask::runSubTaskWithOffset(std::shared_ptr<CTask> task, qint64 offset)
{
    if (!present(task, "runSubTaskWithOffset"))
        return false;
    const auto adapter = makeTask<CTaskOffsetAdapter>(std::move(task), offset);
    linkChild(this, adapter.get(), true);
    return adapter->run();
}

bool CTask::runSubTaskNoProgress(std::shared_ptr<CTask> task)
{
    if (!present(task, "runSubTaskNoProgress"))
        return false;
    linkChild(this, task.get(), false);
    return task->run();
}

void CTask::onCancel() {}

void CTask::onCustomHook() {}

CTaskRangeAdapter::CTaskRangeAdapter(std::shared_ptr<CTask> task, qint64 from, qint64 to)
    : m_task(std::move(task)), m_from(from), m_span(to - from)
{
}

bool CTaskRangeAdapter::run()
{
    if (!m_task)
    {
        QX_SELFCHECK(QStringLiteral("CTaskRangeAdapter without a sub-task"));
        return false;
    }
    connect(m_task.get(), &CTask::progressRange, this, &CTaskRangeAdapter::onProgressRange,
            Qt::DirectConnection);
    connect(m_task.get(), &CTask::progressPos, this, &CTaskRangeAdapter::onProgressPos,
            Qt::DirectConnection);
    connect(this, &CTask::cancelled, m_task.get(), &CTask::cancel, Qt::DirectConnection);
    if (isCancelled() && !m_task->isCancelled())
        m_task->cancel();
    const bool result = m_task->run();
    // The parent's bar ends exactly at the end of the interval, whatever the child said.
    emit progressPos(m_from + m_span);
    return result;
}

void CTaskRangeAdapter::onProgressRange(qint64 min, qint64 max)
{
    m_childMin = min;
    if (max > min)
        m_scale = (1.0 / static_cast<double>(max - min)) * static_cast<double>(m_span);
    else
        m_scale = 0.0; // an empty child range keeps every position at `from`
}

void CTaskRangeAdapter::onProgressPos(qint64 pos)
{
    const double mapped = static_cast<double>(pos - m_childMin) * m_scale + static_cast<double>(m_from);
    // The conversion truncates toward zero.
    emit progressPos(static_cast<qint64>(mapped));
}

CTaskOffsetAdapter::CTaskOffsetAdapter(std::shared_ptr<CTask> task, qint64 offset)
    : m_task(std::move(task)), m_offset(offset)
{
}

bool CTaskOffsetAdapter::run()
{
    if (!m_task)
    {
        QX_SELFCHECK(QStringLiteral("CTaskOffsetAdapter without a sub-task"));
        return false;
    }
    connect(m_task.get(), &CTask::progressRange, this, &CTask::progressRange, Qt::DirectConnection);
    connect(m_task.get(), &CTask::progressPos, this, &CTask::progressPos, Qt::DirectConnection);
    connect(this, &CTask::cancelled, m_task.get(), &CTask::cancel, Qt::DirectConnection);
    if (isCancelled() && !m_task->isCancelled())
        m_task->cancel();
    return m_task->run();
}

CFunctionTask::CFunctionTask(std::function<void(CTask*)> function) : m_function(std::move(function)) {}

bool CFunctionTask::run()
{
    if (!m_function)
    {
        QX_SELFCHECK(QStringLiteral("CFunctionTask without a callable"));
        return false;
    }
    m_function(this);
    return !isCancelled();
}

} // namespace qutils
