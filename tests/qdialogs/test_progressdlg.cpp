#include "qdialogs/progressdlg.h"

#include "qcontrols/modaldialogtemplate.h"
#include "qutils/taskrunner.h"
#include "qutils/tasks.h"

#include "logcapture.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QLabel>
#include <QLayout>
#include <QProgressBar>
#include <QPushButton>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

using qcontrols::CModalDialogTemplate;
using qdialogs::CProgressWidget;
using qdialogs::CProgressWidgetSimple;
using testutils::waitFor;

namespace
{

// A task that blocks until the test lets it go; what it does before blocking
// and whether it listens to cancellation are up to the test.
struct SGate
{
    std::atomic<bool> release{false};
    std::atomic<bool> reported{false};
    std::atomic<bool> returned{false};
};

std::shared_ptr<qutils::CTask> gatedTask(const std::shared_ptr<SGate>& gate, bool honourCancel,
                                         std::function<void(qutils::CTask*)> before = {})
{
    return qutils::makeTask<qutils::CFunctionTask>(
        [gate, honourCancel, before](qutils::CTask* task)
        {
            if (before)
                before(task);
            gate->reported = true;
            while (!gate->release && !(honourCancel && task->isCancelled()))
                QThread::msleep(1);
            gate->returned = true;
        });
}

struct SDialogFixture
{
    explicit SDialogFixture(std::shared_ptr<qutils::CTask> task, bool download = false,
                            const QString& text = QStringLiteral("Working..."))
    {
        parent.resize(600, 400);
        parent.show();
        dialog = download
                     ? CProgressWidget::createDownloadDialog(&parent, QStringLiteral("Title"), text, task)
                     : CProgressWidget::createDialog(&parent, QStringLiteral("Title"), text, task);
        widget = CProgressWidget::fromDialog(dialog.get());
        bar = dialog->findChild<QProgressBar*>(QStringLiteral("progressBar"));
        textLabel = dialog->findChild<QLabel*>(QStringLiteral("textLabel"));
    }
    ~SDialogFixture()
    {
        // Let the runner's later-deleter and the frame's go before the parent.
        dialog.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    QWidget parent;
    std::shared_ptr<CModalDialogTemplate> dialog;
    CProgressWidget* widget = nullptr;
    QProgressBar* bar = nullptr;
    QLabel* textLabel = nullptr;
};

std::vector<int> barState(const QProgressBar* bar)
{
    return {bar->minimum(), bar->maximum(), bar->value()};
}

} // namespace

TEST(ProgressWidget, FormStartsWithTheBarAtZeroOfOneAndTheGivenTexts)
{
    auto gate = std::make_shared<SGate>();
    gate->release = true;
    CProgressWidget widget(QStringLiteral("Listing"), QStringLiteral("Reading folder"),
                           gatedTask(gate, true));
    auto* bar = widget.findChild<QProgressBar*>(QStringLiteral("progressBar"));
    ASSERT_NE(bar, nullptr);
    EXPECT_EQ(barState(bar), (std::vector<int>{0, 1, 0}));
    EXPECT_FALSE(bar->isTextVisible());
    EXPECT_EQ(widget.findChild<QLabel*>(QStringLiteral("titleLabel"))->text(), QStringLiteral("Listing"));
    EXPECT_EQ(widget.findChild<QLabel*>(QStringLiteral("textLabel"))->text(),
              QStringLiteral("Reading folder"));
    EXPECT_FALSE(widget.isStarted());
    // A close request before the start cancels the task and may close at once.
    EXPECT_TRUE(widget.onCloseRequest());
    EXPECT_TRUE(widget.task()->isCancelled());
}

TEST(ProgressDialog, FrameWithCancelOptionAndATaskWithoutRangeLeavesTheBarAtZeroOfOne)
{
    auto gate = std::make_shared<SGate>();
    SDialogFixture f(gatedTask(gate, false));
    ASSERT_NE(f.widget, nullptr);
    EXPECT_EQ(f.dialog->options(), CModalDialogTemplate::CancelButton);
    EXPECT_EQ(f.dialog->windowTitle(), QStringLiteral("Title"));
    EXPECT_EQ(f.dialog->parentWidget(), &f.parent);
    EXPECT_NE(f.dialog->findChild<QPushButton*>(QStringLiteral("cancelButton")), nullptr);
    EXPECT_TRUE(f.dialog->isModal());
    f.dialog->open();
    ASSERT_TRUE(f.widget->isStarted());
    ASSERT_TRUE(waitFor([&] { return gate->reported.load(); }));
    QCoreApplication::processEvents();
    EXPECT_TRUE(f.dialog->isVisible());
    EXPECT_EQ(barState(f.bar), (std::vector<int>{0, 1, 0}));

    gate->release = true;
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
    EXPECT_EQ(f.dialog->result(), CProgressWidget::ThreadFinishedResult);
    EXPECT_EQ(barState(f.bar), (std::vector<int>{0, 1, 0}));
    EXPECT_FALSE(f.widget->task()->isCancelled());
}

TEST(ProgressDialog, CancelTwiceCancelsTwiceAndClosesOnlyWhenTheThreadEnds)
{
    auto gate = std::make_shared<SGate>();
    auto task = gatedTask(gate, false); // ignores cancellation on purpose
    std::atomic<int> cancelled{0};
    QObject listener;
    QObject::connect(
        task.get(), &qutils::CTask::cancelled, &listener, [&] { ++cancelled; }, Qt::DirectConnection);
    SDialogFixture f(task);
    f.dialog->open();
    ASSERT_TRUE(waitFor([&] { return gate->reported.load(); }));

    auto* cancel = f.dialog->findChild<QPushButton*>(QStringLiteral("cancelButton"));
    ASSERT_NE(cancel, nullptr);
    cancel->click();
    QCoreApplication::processEvents();
    EXPECT_TRUE(f.dialog->isVisible());
    cancel->click();
    QCoreApplication::processEvents();
    EXPECT_EQ(cancelled.load(), 2);
    EXPECT_TRUE(task->isCancelled());
    EXPECT_TRUE(f.dialog->isVisible());
    EXPECT_FALSE(gate->returned.load());

    // Closing the window is a close request too.
    EXPECT_FALSE(f.dialog->close());
    EXPECT_TRUE(f.dialog->isVisible());
    EXPECT_EQ(cancelled.load(), 3);

    gate->release = true;
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
    EXPECT_TRUE(gate->returned.load());
    EXPECT_EQ(f.dialog->result(), CProgressWidget::ThreadFinishedResult);
}

TEST(ProgressDialog, CancelOfATaskThatPollsEndsItAndClosesWithResultThree)
{
    auto gate = std::make_shared<SGate>();
    SDialogFixture f(gatedTask(gate, true));
    int finishedWith = -1;
    QObject::connect(f.dialog.get(), &QDialog::finished, [&](int code) { finishedWith = code; });
    f.dialog->open();
    ASSERT_TRUE(waitFor([&] { return gate->reported.load(); }));
    f.dialog->reject();
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
    EXPECT_TRUE(gate->returned.load());
    EXPECT_EQ(f.dialog->result(), 3);
    EXPECT_EQ(finishedWith, 3);
    EXPECT_TRUE(f.widget->task()->isCancelled());
}

TEST(ProgressDialog, TaskThatEndsAtOnceRunsOnceAndClosesWhenTheQueuedFinishedArrives)
{
    std::atomic<int> runs{0};
    auto task = qutils::makeTask<qutils::CFunctionTask>([&runs](qutils::CTask*) { ++runs; });
    SDialogFixture f(task);
    testutils::CLogCapture log;
    f.dialog->open();
    // The runner's finished() is queued to this thread, so the frame is still up.
    EXPECT_TRUE(f.dialog->isVisible());
    // A second start is a self-check failure and does not run the task again.
    f.widget->start();
    EXPECT_TRUE(log.hasSelfCheck(QStringLiteral("qdialogs/progressdlg.cpp"))) << log.text().toStdString();
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(f.dialog->result(), CProgressWidget::ThreadFinishedResult);
    EXPECT_TRUE(f.widget->isThreadFinished());
    // After the thread ended a close request no longer has to wait.
    EXPECT_TRUE(f.widget->onCloseRequest());
}

TEST(ProgressDialog, ExecReturnsResultThreeAndLeavesThePlainText)
{
    auto task = qutils::makeTask<qutils::CFunctionTask>(
        [](qutils::CTask* t)
        {
            t->setProgressRange(0, 4);
            for (int i = 1; i <= 4; ++i)
                t->setProgressPos(i);
        });
    SDialogFixture f(task, false, QStringLiteral("%1 of %2 MB"));
    EXPECT_EQ(f.dialog->exec(), 3);
    EXPECT_EQ(barState(f.bar), (std::vector<int>{0, 4, 4}));
    EXPECT_EQ(f.textLabel->text(), QStringLiteral("%1 of %2 MB"))
        << "only the download dialog fills the text in";
}

TEST(ProgressDialog, ProgressFromTheWorkerThreadIsQueuedToTheBar)
{
    auto gate = std::make_shared<SGate>();
    std::atomic<Qt::HANDLE> workerThread{nullptr};
    auto task = gatedTask(gate, true,
                          [&workerThread](qutils::CTask* t)
                          {
                              workerThread = QThread::currentThreadId();
                              t->setProgressRange(0, 10);
                              t->setProgressPos(7);
                          });
    SDialogFixture f(task);
    f.dialog->open();
    // Without this thread's event loop nothing may have reached the bar yet.
    while (!gate->reported)
        QThread::msleep(1);
    EXPECT_NE(workerThread.load(), QThread::currentThreadId());
    EXPECT_EQ(barState(f.bar), (std::vector<int>{0, 1, 0}));
    ASSERT_TRUE(waitFor([&] { return f.bar->value() == 7; }));
    EXPECT_EQ(barState(f.bar), (std::vector<int>{0, 10, 7}));
    gate->release = true;
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
}

TEST(ProgressDialog, DownloadTextShowsMegabytesWithOneDecimal)
{
    auto gate = std::make_shared<SGate>();
    CProgressWidget widget(QStringLiteral("Download"), QStringLiteral("%1 of %2 MB"), gatedTask(gate, true));
    auto* label = widget.findChild<QLabel*>(QStringLiteral("textLabel"));
    widget.onProgressRange(0, 3145728);
    widget.onDownloadProgressPos(1572864);
    EXPECT_EQ(label->text(), QStringLiteral("1.5 of 3.0 MB"));
    // The bar's own value is the position connection's job, not this slot's.
    EXPECT_EQ(widget.findChild<QProgressBar*>(QStringLiteral("progressBar"))->value(), 0);
    // The format is kept, so later positions replace the text again.
    widget.onDownloadProgressPos(3145728);
    EXPECT_EQ(label->text(), QStringLiteral("3.0 of 3.0 MB"));
    widget.onDownloadProgressPos(52429); // 0.05 MiB rounds to one decimal
    EXPECT_EQ(label->text(), QStringLiteral("0.1 of 3.0 MB"));
    gate->release = true;
}

TEST(ProgressDialog, DownloadDialogFollowsTheTask)
{
    auto gate = std::make_shared<SGate>();
    auto task = gatedTask(gate, true,
                          [](qutils::CTask* t)
                          {
                              t->setProgressRange(0, 3145728);
                              t->setProgressPos(1572864);
                          });
    SDialogFixture f(task, true, QStringLiteral("%1 of %2 MB"));
    f.dialog->open();
    ASSERT_TRUE(waitFor([&] { return f.textLabel->text() == QStringLiteral("1.5 of 3.0 MB"); }))
        << f.textLabel->text().toStdString();
    EXPECT_EQ(f.bar->value(), 1572864);
    gate->release = true;
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
}

TEST(ProgressDialog, ExceptionStaysInTheRunnerAndTheDialogStillCloses)
{
    auto task = qutils::makeTask<qutils::CFunctionTask>(
        [](qutils::CTask*) { throw qutils::CException(QStringLiteral("disk full"), 112); });
    SDialogFixture f(task);
    f.dialog->open();
    ASSERT_TRUE(waitFor([&] { return !f.dialog->isVisible(); }));
    EXPECT_EQ(f.dialog->result(), 3);
    std::exception_ptr error;
    EXPECT_TRUE(f.widget->runner()->isFinished(error));
    ASSERT_TRUE(error);
    EXPECT_THROW(std::rethrow_exception(error), qutils::CException);
}

TEST(ProgressWidgetSimple, BarStylesShowTheBarWithOrWithoutText)
{
    const struct
    {
        int style;
        bool bar;
        bool barText;
    } cases[] = {{0, true, true}, {1, true, false}, {7, false, false}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.style);
        CProgressWidgetSimple w(QStringLiteral("T"), QStringLiteral("x"), c.style);
        w.show();
        auto* bar = w.findChild<QProgressBar*>(QStringLiteral("progressBar"));
        EXPECT_EQ(bar->isVisible(), c.bar);
        EXPECT_TRUE(!c.bar || bar->isTextVisible() == c.barText);
        EXPECT_EQ(w.findChild<QLabel*>(QStringLiteral("loadingIcon")), nullptr);
        EXPECT_EQ(w.loadingFrame(), -1);
    }
}

TEST(ProgressWidgetSimple, SlotsDriveTextRangeAndPosition)
{
    CProgressWidgetSimple w(QStringLiteral("Title"), QStringLiteral("first"), 0);
    auto* bar = w.findChild<QProgressBar*>(QStringLiteral("progressBar"));
    auto* text = w.findChild<QLabel*>(QStringLiteral("textLabel"));
    EXPECT_EQ(w.findChild<QLabel*>(QStringLiteral("titleLabel"))->text(), QStringLiteral("Title"));
    EXPECT_EQ(barState(bar), (std::vector<int>{0, 1, 0}));
    w.onProgressText(QStringLiteral("second"));
    w.onProgressRange(10, 20);
    w.onProgressPos(15);
    EXPECT_EQ(text->text(), QStringLiteral("second"));
    EXPECT_EQ(barState(bar), (std::vector<int>{10, 20, 15}));
}

TEST(ProgressWidgetSimple, LoadingStyleAnimatesAnIconFirstInTheLayout)
{
    CProgressWidgetSimple w(QStringLiteral("Title"), QStringLiteral("Please wait"), 2);
    w.show();
    auto* icon = w.findChild<QLabel*>(QStringLiteral("loadingIcon"));
    ASSERT_NE(icon, nullptr);
    EXPECT_FALSE(w.findChild<QProgressBar*>(QStringLiteral("progressBar"))->isVisible());
    ASSERT_NE(w.layout(), nullptr);
    EXPECT_EQ(w.layout()->itemAt(0)->widget(), icon) << "the icon leads the form";

    // Runs at once and keeps cycling, with or without the frame images.
    const int first = w.loadingFrame();
    EXPECT_EQ(first, 0);
    ASSERT_TRUE(waitFor([&] { return w.loadingFrame() != first; }));
    ASSERT_TRUE(waitFor([&] { return w.loadingFrame() == CProgressWidgetSimple::LoadingFrameCount - 1; }));
    ASSERT_TRUE(waitFor([&] { return w.loadingFrame() == 0; }));
}
