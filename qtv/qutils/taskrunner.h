#pragma once

#include "laterdeleter.h"

#include <QObject>

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

class QThread;

namespace qutils
{

class CTask;

// Runs the work once its thread has started; lives on the runner's thread.
class CWorker : public QObject
{
    Q_OBJECT

public:
    explicit CWorker(std::function<void()> function);

    // Blocks until the work has returned; any number of callers pass afterwards.
    void wait();
    // Copies out what the work threw (empty if nothing) and returns whether it
    // has returned. Blocks while the work runs.
    bool isFinished(std::exception_ptr& exception) const;
    // Forgets a previous run before a restart; only while no work runs.
    void reset();

protected:
    // Takes over from the releasing thread before a deferred delete.
    bool event(QEvent* event) override;

signals:
    void finished();

public slots:
    void onWork();

private:
    // Standard locks rather than Qt's: ThreadSanitizer checks these.
    std::mutex m_doneMutex;
    std::condition_variable m_doneChanged;
    bool m_done = false;
    std::function<void()> m_function;
    bool m_finished = false;
    mutable std::mutex m_mutex;
    std::exception_ptr m_exception;
};

// Runs one piece of work on a thread of its own. The caller waits for it or
// listens to finished(), then collects an escaped exception with isFinished().
class CTaskRunner : public QObject
{
    Q_OBJECT

public:
    explicit CTaskRunner(std::function<void()> function, QObject* parent = nullptr);
    // The work calls task->run(); the runner keeps the task until it is destroyed.
    explicit CTaskRunner(std::shared_ptr<CTask> task, QObject* parent = nullptr);
    // Quits and joins the thread, so it waits for work that is still running.
    ~CTaskRunner() override;

    // Blocks until the work has returned; later calls return at once.
    // Never returns if the runner was not started.
    void wait();
    // True once the work has returned; `exception` receives what it threw, if anything.
    bool isFinished(std::exception_ptr& exception) const;
    // True while the runner's thread runs (which outlasts the work until destruction).
    bool isRunning() const;
    const std::shared_ptr<CTask>& task() const { return m_task; }

signals:
    // Emitted in the runner's own thread after the work has returned.
    void finished();

public slots:
    // Starts the thread; false (and a self-check record) while it is still running.
    bool runTaskAsync();
    void onWorkerFinished();

private:
    std::shared_ptr<QThread> m_thread;
    std::unique_ptr<CWorker, CLaterDeleter<CWorker>> m_worker;
    std::function<void()> m_function;
    std::shared_ptr<CTask> m_task;
    bool m_finished = false;
};

} // namespace qutils
