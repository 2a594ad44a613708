#include "logcapture.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/genericwaiter.h"
#include "qutils/taskrunner.h"
#include "qutils/tasks.h"
#include "qutils/threadsync.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <thread>
#include <vector>

using namespace qutils;

namespace
{

// Records what a task emits, on the emitting thread.
struct SProgressLog
{
    explicit SProgressLog(CTask* task)
    {
        QObject::connect(task, &CTask::progressRange,
                         [this](qint64 a, qint64 b) { ranges.emplace_back(a, b); });
        QObject::connect(task, &CTask::progressPos, [this](qint64 p) { positions.push_back(p); });
    }
    std::vector<std::pair<qint64, qint64>> ranges;
    std::vector<qint64> positions;
};

using Positions = std::vector<qint64>;

// A child that announces [min, max] when hasRange, reports `positions`, and
// cancels itself (failing) unless `result`.
std::shared_ptr<CTask> makeReportingChild(Positions positions, bool hasRange = false, qint64 min = 0,
                                          qint64 max = 0, bool result = true)
{
    return makeTask<CFunctionTask>(
        [=](CTask* self)
        {
            if (hasRange)
                self->setProgressRange(min, max);
            for (qint64 pos : positions)
                self->setProgressPos(pos);
            if (!result)
                self->cancel();
        });
}

} // namespace

TEST(TaskRangeAdapter, MapsChildPositionsIntoTheParentsInterval)
{
    const struct
    {
        const char* what;
        Positions child;
        bool hasRange;
        qint64 min, max, from, to;
        bool result;
        Positions expected;
    } cases[] = {
        {"plain", {0, 50, 200}, true, 0, 200, 100, 300, true, {100, 150, 300, 300}},
        {"the child's minimum is the origin", {100}, true, 50, 150, 0, 1000, true, {500, 1000}},
        {"empty range", {0, 5, 10}, true, 0, 0, 100, 300, true, {100, 100, 100, 300}},
        {"reversed range", {7}, true, 10, 5, 100, 300, true, {100, 300}},
        {"positions before any range", {3, 999}, false, 0, 0, 40, 60, true, {40, 40, 60}},
        // 1/3 and 2/3 of 10, and of -10: truncation, not rounding or flooring.
        {"truncation", {1, 2}, true, 0, 3, 0, 10, true, {3, 6, 10}},
        {"truncation toward zero", {1, 2}, true, 0, 3, 0, -10, true, {-3, -6, -10}},
        {"failing child", {}, false, 0, 0, 0, 10, false, {10}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.what);
        auto parent = makeTask<CFunctionTask>([](CTask*) {});
        SProgressLog log(parent.get());
        EXPECT_EQ(
            parent->runSubTask(makeReportingChild(c.child, c.hasRange, c.min, c.max, c.result), c.from, c.to),
            c.result);
        EXPECT_TRUE(log.ranges.empty()) << "the range adapter must not announce a range";
        EXPECT_EQ(log.positions, c.expected);
    }
}

TEST(TaskOffsetAdapter, ForwardsRangeAndPositionUnchanged)
{
    auto parent = makeTask<CFunctionTask>([](CTask*) {});
    SProgressLog log(parent.get());
    EXPECT_TRUE(parent->runSubTaskWithOffset(makeReportingChild({3, 7}, true, 0, 10), 1000));
    EXPECT_EQ(log.ranges, (std::vector<std::pair<qint64, qint64>>{{0, 10}}));
    EXPECT_EQ(log.positions, (Positions{3, 7}));
}

namespace
{

// A parent that overrides the position setter: sub-task progress must reach it.
class CRecordingParent : public CTask
{
public:
    void setProgressPos(qint64 pos) override { positions.push_back(pos); }
    bool run() override { return true; }
    Positions positions;
};

} // namespace

TEST(TaskSubTasks, ProgressGoesThroughTheVirtualSettersAndTheChildIsDropped)
{
    auto parent = makeTask<CRecordingParent>();
    std::shared_ptr<CTask> child = makeReportingChild({4, 8}, true, 0, 10);
    const std::weak_ptr<CTask> weak = child;
    EXPECT_TRUE(parent->runSubTaskWithProgress(std::move(child)));
    EXPECT_TRUE(weak.expired()) << "the parent keeps no reference after the call";
    parent->runSubTask(makeReportingChild({5}, true, 0, 10), 0, 100);
    parent->runSubTaskNoProgress(makeReportingChild({9}, true, 0, 10));
    EXPECT_EQ(parent->positions, (Positions{4, 8, 50, 100}));
}

TEST(TaskSubTasks, SubTaskStartedAfterTheCancelStartsCancelled)
{
    // A job cancelled before it reaches its sub-task must not run that one whole.
    auto parent = makeTask<CFunctionTask>([](CTask*) {});
    parent->cancel();
    std::vector<bool> seen;
    auto child = [&seen]
    { return makeTask<CFunctionTask>([&seen](CTask* task) { seen.push_back(task->isCancelled()); }); };
    parent->runSubTaskNoProgress(child());
    parent->runSubTaskWithProgress(child());
    parent->runSubTask(child(), 0, 10);
    parent->runSubTaskWithOffset(child(), 5);
    EXPECT_EQ(seen, (std::vector<bool>{true, true, true, true}));
}

TEST(TaskCancel, HookRunsBeforeSignalAndEveryCallEmits)
{
    struct CHookTask : public CTask
    {
        bool run() override { return true; }
        void onCancel() override { order.push_back(isCancelled() ? "hook-after-flag" : "hook-before-flag"); }
        std::vector<std::string> order;
    };
    auto task = makeTask<CHookTask>();
    QObject::connect(task.get(), &CTask::cancelled, [&] { task->order.push_back("signal"); });
    EXPECT_FALSE(task->isCancelled());
    task->cancel();
    task->cancel();
    EXPECT_TRUE(task->isCancelled());
    EXPECT_EQ(task->order,
              (std::vector<std::string>{"hook-after-flag", "signal", "hook-after-flag", "signal"}));
}

TEST(TaskCancel, TasksLiveOnOneSharedThreadThatRunsQueuedCancel)
{
    auto a = makeTask<CFunctionTask>([](CTask*) {});
    auto b = makeTask<CFunctionTask>([](CTask*) {});
    EXPECT_EQ(a->thread(), b->thread());
    EXPECT_NE(a->thread(), QThread::currentThread());
    EXPECT_EQ(a->parent(), nullptr);
    std::atomic<QThread*> cancelThread{nullptr};
    QObject::connect(a.get(), &CTask::cancelled, [&] { cancelThread = QThread::currentThread(); });
    // The connection was made after the task: hand it over with the queued call.
    handOff(static_cast<const QObject*>(a.get()));
    QMetaObject::invokeMethod(a.get(), "cancel", Qt::QueuedConnection);
    ASSERT_TRUE(testutils::waitFor([&] { return a->isCancelled(); }));
    ASSERT_TRUE(testutils::waitFor([&] { return cancelThread != nullptr; }));
    EXPECT_EQ(cancelThread.load(), a->thread());
}

TEST(TaskCancel, CancellingParentCancelsRunningSubTaskOnRunnerThread)
{
    using Op = std::function<bool(CTask*, std::shared_ptr<CTask>)>;
    const std::vector<std::pair<const char*, Op>> ops = {
        {"range", [](CTask* p, std::shared_ptr<CTask> c) { return p->runSubTask(c, 0, 100); }},
        {"progress", [](CTask* p, std::shared_ptr<CTask> c) { return p->runSubTaskWithProgress(c); }},
        {"offset", [](CTask* p, std::shared_ptr<CTask> c) { return p->runSubTaskWithOffset(c, 5); }},
        {"none", [](CTask* p, std::shared_ptr<CTask> c) { return p->runSubTaskNoProgress(c); }},
    };
    for (const auto& op : ops)
    {
        SCOPED_TRACE(op.first);
        std::atomic<bool> started{false};
        auto child = makeTask<CFunctionTask>(
            [&](CTask* self)
            {
                started = true;
                QElapsedTimer guard; // a broken cancel path fails the test instead of hanging it
                guard.start();
                while (!self->isCancelled() && guard.elapsed() < 10000)
                    QThread::msleep(1);
            });
        std::atomic<bool> subResult{true};
        auto parent = makeTask<CFunctionTask>([&](CTask* self) { subResult = op.second(self, child); });
        CTaskRunner runner(parent);
        ASSERT_TRUE(runner.runTaskAsync());
        ASSERT_TRUE(testutils::waitFor([&] { return started.load(); }));
        parent->cancel();
        runner.wait();
        EXPECT_TRUE(child->isCancelled());
        EXPECT_FALSE(subResult.load());
    }
}

TEST(FunctionTask, CallableGetsTheTaskAndAnEmptyOneIsLogged)
{
    CTask* seen = nullptr;
    auto task = makeTask<CFunctionTask>(
        [&](CTask* self)
        {
            seen = self;
            self->setProgressText(QStringLiteral("working"));
        });
    QString text;
    QObject::connect(task.get(), &CTask::progressText, [&](const QString& t) { text = t; });
    EXPECT_TRUE(task->run());
    EXPECT_EQ(seen, task.get());
    EXPECT_EQ(text, QStringLiteral("working"));

    testutils::CLogCapture log;
    EXPECT_FALSE(makeTask<CFunctionTask>(std::function<void(CTask*)>())->run());
    EXPECT_TRUE(log.hasSelfCheck(QStringLiteral("qutils/tasks.cpp"))) << log.text().toStdString();
}

TEST(TaskRunner, RunsOnItsOwnThreadAndSignalsTheGuiThread)
{
    std::atomic<QThread*> workThread{nullptr};
    CTaskRunner runner([&] { workThread = QThread::currentThread(); });
    QObject context;
    QThread* signalThread = nullptr;
    QObject::connect(&runner, &CTaskRunner::finished, &context,
                     [&] { signalThread = QThread::currentThread(); });
    std::exception_ptr error;
    EXPECT_FALSE(runner.isFinished(error));
    ASSERT_TRUE(runner.runTaskAsync());
    ASSERT_TRUE(testutils::waitFor([&] { return signalThread != nullptr; }));
    EXPECT_EQ(signalThread, QThread::currentThread());
    EXPECT_NE(workThread.load(), QThread::currentThread());
    EXPECT_NE(workThread.load(), nullptr);
    // Every later wait passes at once.
    runner.wait();
    runner.wait();
    EXPECT_TRUE(runner.isFinished(error));
    EXPECT_FALSE(error);
}

TEST(TaskRunner, SecondStartWhileRunningIsRefusedAndTheThrownExceptionIsHandedOut)
{
    testutils::CLogCapture log;
    QSemaphore gate;
    CTaskRunner runner(
        [&]
        {
            gate.acquire();
            throw CException(QStringLiteral("disk full"), CException::TargetFull);
        });
    EXPECT_TRUE(runner.runTaskAsync());
    EXPECT_FALSE(runner.runTaskAsync());
    EXPECT_TRUE(log.hasSelfCheck(QStringLiteral("qutils/taskrunner.cpp"))) << log.text().toStdString();
    gate.release();
    runner.wait();
    std::exception_ptr error;
    EXPECT_TRUE(runner.isFinished(error));
    ASSERT_TRUE(error);
    // Anything but the CException thrown escapes and fails the test.
    try
    {
        std::rethrow_exception(error);
    }
    catch (const CException& e)
    {
        EXPECT_EQ(e.message(), QStringLiteral("disk full"));
        EXPECT_EQ(e.code(), 112);
    }
}

TEST(TaskRunner, DestructorJoinsRunningWork)
{
    std::atomic<bool> done{false};
    {
        CTaskRunner runner(
            [&]
            {
                QThread::msleep(50);
                done = true;
            });
        ASSERT_TRUE(runner.runTaskAsync());
    }
    EXPECT_TRUE(done.load());
}

TEST(TaskRunner, DestructionReleasesTheWorkInEveryState)
{
    // Never started, finished with its thread still running, and with its thread
    // ended by the work itself, which lets the runner start (and run) it again.
    for (int state = 0; state < 3; ++state)
    {
        SCOPED_TRACE(state);
        auto token = std::make_shared<int>(0);
        std::atomic<int> runs{0};
        {
            CTaskRunner runner(
                [token, state, &runs]
                {
                    ++runs;
                    if (state == 2)
                        QThread::currentThread()->quit();
                });
            for (int start = 0; start < state; ++start)
            {
                ASSERT_TRUE(runner.runTaskAsync());
                runner.wait();
                if (state == 2)
                {
                    ASSERT_TRUE(testutils::waitFor([&] { return !runner.isRunning(); }));
                }
            }
        }
        EXPECT_EQ(runs.load(), state);
        EXPECT_EQ(token.use_count(), 1);
    }
}

TEST(TaskRunner, RunsTaskAndReleasesItOnItsThread)
{
    auto task = makeTask<CFunctionTask>([](CTask* self) { self->setProgressPos(1); });
    QPointer<CTask> guard = task.get();
    std::atomic<int> reported{0};
    QObject::connect(task.get(), &CTask::progressPos, [&](qint64) { ++reported; });
    {
        CTaskRunner runner(std::move(task));
        ASSERT_TRUE(runner.runTaskAsync());
        runner.wait();
        EXPECT_EQ(reported.load(), 1);
        EXPECT_FALSE(guard.isNull());
    }
    EXPECT_TRUE(testutils::waitFor([&] { return guard.isNull(); }));
}

TEST(TaskSignals, QueuedObserverInGuiThreadGetsProgressInOrder)
{
    auto task = makeTask<CFunctionTask>(
        [](CTask* self)
        {
            self->setProgressRange(0, 99);
            for (qint64 i = 0; i < 100; ++i)
                self->setProgressPos(i);
            self->setProgressText(QStringLiteral("done"));
        });
    QObject observer;
    std::vector<qint64> seen;
    QString text;
    bool offThread = false;
    QObject::connect(
        task.get(), &CTask::progressPos, &observer,
        [&](qint64 p)
        {
            offThread |= QThread::currentThread() != observer.thread();
            seen.push_back(p);
        },
        Qt::QueuedConnection);
    QObject::connect(
        task.get(), &CTask::progressText, &observer, [&](const QString& t) { text = t; },
        Qt::QueuedConnection);
    CTaskRunner runner(task);
    ASSERT_TRUE(runner.runTaskAsync());
    ASSERT_TRUE(testutils::waitFor([&] { return text == QStringLiteral("done"); }));
    std::vector<qint64> expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(seen, expected);
    EXPECT_FALSE(offThread);
}

TEST(GenericWaiter, StopBeforeOrInsideStartIsNotLost)
{
    CGenericWaiter before(0);
    before.stopWaiting();
    bool started = false;
    EXPECT_TRUE(before.wait([&] { started = true; }));
    EXPECT_FALSE(started) << "stopped before the wait: start is not called";
    EXPECT_THROW(CGenericWaiter(0).wait(std::function<void()>()), std::bad_function_call);

    CGenericWaiter inside(0);
    bool rescued = false;
    // A second stop far later, only so that a lost first one fails instead of hanging.
    QTimer::singleShot(5000, &inside,
                       [&]
                       {
                           rescued = true;
                           inside.stopWaiting();
                       });
    EXPECT_TRUE(inside.wait([&] { inside.stopWaiting(); }));
    EXPECT_FALSE(rescued);
}

TEST(GenericWaiter, NoTimeoutWaitsForStopWhileEventsRun)
{
    CGenericWaiter waiter(0);
    bool otherEvent = false;
    bool stopped = false;
    EXPECT_TRUE(waiter.wait(
        [&]
        {
            QTimer::singleShot(10, &waiter, [&] { otherEvent = true; });
            QTimer::singleShot(60, &waiter,
                               [&]
                               {
                                   stopped = true;
                                   waiter.stopWaiting();
                               });
        }));
    EXPECT_TRUE(stopped);
    EXPECT_TRUE(otherEvent);
}

TEST(GenericWaiter, QueuedStopFromAnotherThreadEndsTheWait)
{
    CGenericWaiter waiter(0);
    std::thread other;
    EXPECT_TRUE(waiter.wait(
        [&]
        {
            other = std::thread(
                [&]
                {
                    QThread::msleep(20);
                    QMetaObject::invokeMethod(&waiter, &CGenericWaiter::stopWaiting, Qt::QueuedConnection);
                });
        }));
    other.join();
}

TEST(GenericWaiter, PositiveTimeoutReturnsFalse)
{
    CGenericWaiter waiter(100);
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(waiter.wait([] {}));
    // Coarse timers may fire a little early; only guard against returning at once.
    EXPECT_GE(timer.elapsed(), 80);
}

TEST(GenericWaiter, StopFromForeignThreadIsLoggedAndStillCounts)
{
    testutils::CLogCapture log;
    CGenericWaiter waiter(10000);
    std::thread([&] { waiter.stopWaiting(); }).join();
    EXPECT_TRUE(waiter.wait([] {}));
    EXPECT_TRUE(log.hasSelfCheck(QStringLiteral("qutils/genericwaiter.cpp"))) << log.text().toStdString();
}
