#include "qutils/tasks.h"

#include <QCoreApplication>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>

using namespace qutils;

namespace
{

// A task whose destructor takes a while, like one removing its temporary folder.
class CSlowToDelete : public CTask
{
public:
    explicit CSlowToDelete(std::atomic<int>* deleted) : m_deleted(deleted) {}
    ~CSlowToDelete() override
    {
        QThread::msleep(300);
        m_deleted->fetch_add(1);
    }
    bool run() override { return true; }

private:
    std::atomic<int>* m_deleted;
};

} // namespace

// Runs in a binary of its own: it needs to create and end the application
// object itself, which the other task tests share for their whole run.
TEST(TaskThreadShutdown, TasksReleasedBeforeTheApplicationEndsAreDeletedBeforeItHasEnded)
{
    std::atomic<int> deleted{0};
    for (int round = 0; round < 2; ++round)
    {
        int argc = 1;
        char name[] = "test";
        char* argv[] = {name, nullptr};
        {
            QCoreApplication app(argc, argv);
            auto task = makeTask<CSlowToDelete>(&deleted);
            ASSERT_TRUE(task->run());
            task.reset(); // deleteLater on the task thread, still pending here
        }
        // A second application in the same process gets a working task thread again.
        EXPECT_EQ(deleted.load(), round + 1) << "round " << round;
    }
}
