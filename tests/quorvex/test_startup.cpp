// The windowed mode's start-up rules: one instance at a time, and the scale.
#include "startup.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

// Runs only in the child started below: takes the lock, says so, then dies
// without releasing it, as a crashed program would.
TEST(StartupChild, DISABLED_HoldLockAndDie)
{
    CInstanceLock lock(qEnvironmentVariable("QX_LOCK_PATH"));
    ASSERT_TRUE(lock.tryLock());
    std::fputs("locked\n", stdout);
    std::fflush(stdout);
    if (qEnvironmentVariableIsSet("QX_LOCK_CRASH"))
        std::abort();
    QThread::sleep(30);
}

TEST(InstanceLock, SecondInstanceRefusedAndACrashedOnesLockTakenOver)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("VeltranoQuorvex.mtx.lock"));
    auto startChild = [&](bool crash) {
        auto child = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QX_LOCK_PATH"), path);
        if (crash)
            env.insert(QStringLiteral("QX_LOCK_CRASH"), QStringLiteral("1"));
        child->setProcessEnvironment(env);
        child->start(QCoreApplication::applicationFilePath(),
                     {QStringLiteral("--gtest_also_run_disabled_tests"),
                      QStringLiteral("--gtest_filter=StartupChild.DISABLED_HoldLockAndDie")});
        QByteArray output;
        while (!output.contains("locked") && child->waitForReadyRead(30000))
            output += child->readAll();
        EXPECT_TRUE(output.contains("locked")) << output.toStdString();
        return child;
    };

    {
        auto running = startChild(false);
        CInstanceLock second(path);
        EXPECT_FALSE(second.tryLock()) << "another instance is running";
        running->kill();
        running->waitForFinished();
    }
    auto crashed = startChild(true);
    crashed->waitForFinished(30000);
    CInstanceLock after(path);
    EXPECT_TRUE(after.tryLock()) << "the lock of a process that died is taken over";
    EXPECT_TRUE(after.isLocked());
    CInstanceLock third(path);
    EXPECT_FALSE(third.tryLock());
}

TEST(InterfaceScale, FixedFactorAndFit)
{
    const QSize big(3840, 2160);
    EXPECT_DOUBLE_EQ(interfaceScale(0.0, 1.0, 96.0, big), 1.0) << "no settings at 96 dpi";
    EXPECT_EQ(minimumWindowSize(1.0), QSize(1200, 740));
    EXPECT_DOUBLE_EQ(interfaceScale(1.5, 1.0, 96.0, big), 1.5);
    EXPECT_DOUBLE_EQ(interfaceScale(0.0, 1.25, 144.0, big), 1.875) << "factor times dpi / 96";
    // 1800 x 1110 does not fit 1600 x 900: the scale shrinks to fit.
    EXPECT_DOUBLE_EQ(interfaceScale(1.5, 1.0, 96.0, QSize(1600, 900)), 900.0 / 740.0);
    EXPECT_DOUBLE_EQ(interfaceScale(1.5, 1.0, 96.0, QSize(1500, 1200)), 1.25);
    EXPECT_EQ(minimumWindowSize(1.5), QSize(1800, 1110));
    EXPECT_EQ(minimumWindowSize(1.2162), QSize(1459, 899)) << "truncated, not rounded";
}
