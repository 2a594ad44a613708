#include "testutils.h"

#include <QApplication>
#include <QStandardPaths>

#include <gtest/gtest.h>

// Every Qt test runs inside a QApplication with the offscreen platform and with
// the standard locations redirected, so no test touches the user's real files.
int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QStandardPaths::setTestModeEnabled(true);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("QuorvexTests"));
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
