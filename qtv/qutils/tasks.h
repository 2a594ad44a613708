#pragma once

#include "exception.h"
#include "laterdeleter.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

namespace qutils
{

// A long piece of work done in one blocking run(), reporting progress through
// signals and polling isCancelled(). Every task lives on one shared thread so
// queued calls to it (cancel() from a widget) always find an event loop; it has
// no parent and is released with CLaterDeleter (see makeTask()).
class CTask : public QObject
{
    Q_OBJECT

public:
    CTask();
    ~CTask() override;

    bool isCancelled() const { return m_cancelled.load(); }
    const CException& error() const { return m_error; }

signals:
    void cancelled();
    void progressRange(qint64 min, qint64 max);
    void progressPos(qint64 pos);
    void progressText(const QString& text);

public slots:
    // Sets the flag, runs onCancel(), emits cancelled(); every call emits again.
    void cancel();

public:
    // The order of these virtuals is part of the class's shape; keep it.
    virtual void setProgressRange(qint64 min, qint64 max);
    virtual void setProgressPos(qint64 pos);
    virtual void setProgressText(const QString& text);

    // Runs the sub-task with its progress mapped into [from, to] of ours.
    virtual bool runSubTask(std::shared_ptr<CTask> task, qint64 from, qint64 to);
    // Runs the sub-task with its range and position passed to us as they are.
    virtual bool runSubTaskWithProgress(std::shared_ptr<CTask> task);
    // Runs the sub-task through an offset adapter; its values pass unchanged.
    virtual bool runSubTaskWithOffset(std::shared_ptr<CTask> task, qint64 offset);
    // Runs the sub-task passing only cancellation down.
    virtual bool runSubTaskNoProgress(std::shared_ptr<CTask> task);

    // The work; blocking. The sub-task operations hand its result back as is.
    virtual bool run() = 0;

protected:
    // Every event reaches a task on the tasks' thread: it first takes over
    // what the thread that made or released the task did (see makeTask()).
    bool event(QEvent* event) override;

    // Called by cancel() before cancelled() is emitted; stop external work here.
    virtual void onCancel();
    // Spare overridable no-op for derived tasks; the task code never calls it.
    virtual void onCustomHook();

    CException m_error;

private:
    std::atomic<bool> m_cancelled{false};
};

// Creates a task owned by a shared pointer that releases it with deleteLater().
template <class T, class... Args> std::shared_ptr<T> makeTask(Args&&... args)
{
    T* task = new T(std::forward<Args>(args)...);
    // Made here, used by queued calls on the tasks' thread (see CTask::event()).
    handOff(static_cast<const QObject*>(task));
    return std::shared_ptr<T>(task, CLaterDeleter<CTask>());
}

// Maps a child's progress into the interval [from, to] of the parent's range.
// It never announces a range of its own: the parent's range stays the parent's.
class CTaskRangeAdapter : public CTask
{
    Q_OBJECT

public:
    CTaskRangeAdapter(std::shared_ptr<CTask> task, qint64 from, qint64 to);

    // Runs the child, then reports `to` whatever the child reported last.
    bool run() override;

public slots:
    void onProgressRange(qint64 min, qint64 max);
    void onProgressPos(qint64 pos);

private:
    std::shared_ptr<CTask> m_task;
    qint64 m_from;
    qint64 m_span;
    qint64 m_childMin = 0;
    double m_scale = 0.0;
};

// Forwards a child's range and position unchanged. The offset is kept but not
// applied; callers that need shifted positions use the range adapter.
class CTaskOffsetAdapter : public CTask
{
    Q_OBJECT

public:
    CTaskOffsetAdapter(std::shared_ptr<CTask> task, qint64 offset);

    qint64 offset() const { return m_offset; }
    bool run() override;

private:
    std::shared_ptr<CTask> m_task;
    qint64 m_offset;
};

// Turns a callable into a task; the callable gets the task to report progress
// and poll cancellation.
class CFunctionTask : public CTask
{
    Q_OBJECT

public:
    explicit CFunctionTask(std::function<void(CTask*)> function);

    // False when the callable is empty (logged) or the task was cancelled.
    bool run() override;

private:
    std::function<void(CTask*)> m_function;
};

} // namespace qutils
