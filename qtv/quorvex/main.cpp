#include "appinfo.h"
#include "integrationserver.h"
#include "licence.h"
#include "mainwindow.h"
#include "resources.h"
#include "startup.h"
#include "windowedstartup.h"

#include "qcontrols/stylesheetmanager.h"

#include "qutils/platform.h"
#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/quorvexapi.h"

#include <QApplication>
#include <QCoreApplication>
#include <QScreen>
#include <QStringList>

#include <iostream>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

namespace
{

// Moves the log into the mode's own file and arms the crash writer. When the
// log cannot be set up the program runs without one rather than not at all.
void setUpLogging(const SAppInfo& info, bool windowed)
{
    qutils::CLogger& logger = qutils::CLogger::instance();
    try
    {
        const QString folder = SAppInfo::dataFolder();
        if (folder.isEmpty())
            throw qutils::CException(QStringLiteral("No data folder"));
        logger.setLogFile(info.logFilePath());
        logger.setLevel(qutils::CAppSettings::intOption(qutils::CAppSettings::EOption::MainAppLogLevel));
        if (!qutils::CLogger::installCrashDumps(folder, QStringLiteral("QX"), info.buildNumber))
            QX_WARNING << "Crash files cannot be written to " << folder;
        if (windowed)
        {
            // The start line is written whenever logging is on at all.
            const int level = logger.level();
            if (level != 0)
            {
                logger.setLevel(qutils::LogInfo);
                QX_INFO << "----- Application " << info.internalName << " " << info.version << " has started -----";
                logger.setLevel(level);
            }
        }
        else
        {
            QX_INFO << "----- " << info.internalName << " " << info.versionText()
                    << " serves the integration mode -----";
        }
    }
    catch (const qutils::CException&)
    {
        logger.setLevel(0);
    }
}

int runIntegrationMode(int& argc, char** argv)
{
    // Core only: this mode never shows a window and must not need a display.
    QCoreApplication app(argc, argv);
    const SAppInfo info = SAppInfo::forMode(ERunMode::Integration);
    info.applyToApplication();
    setUpLogging(info, false);
    qRegisterMetaType<qutils::CQuorvexAPI::SAnalysisResult>("qutils::CQuorvexAPI::SAnalysisResult");

    // Standard output carries the protocol and nothing else.
    CIntegrationServer server(CLicence::isActive());
    return server.run(std::cin, std::cout);
}

int runWindowedMode(int& argc, char** argv)
{
    QApplication app(argc, argv);
    const SAppInfo info = SAppInfo::forMode(ERunMode::Windowed);
    info.applyToApplication();

    CInstanceLock lock(info.lockFilePath());
    if (!acquireSingleInstance(lock, info.displayName))
        return 1;
    setUpLogging(info, true);
    qRegisterMetaType<qutils::CQuorvexAPI::SAnalysisResult>("qutils::CQuorvexAPI::SAnalysisResult");
    quorvex::initResources();

    using qutils::CAppSettings;
    const QScreen* screen = QGuiApplication::primaryScreen();
    const double scale = interfaceScale(CAppSettings::doubleOption(CAppSettings::EOption::ScaleFixed),
                                        CAppSettings::doubleOption(CAppSettings::EOption::ScaleFactor),
                                        screen ? screen->logicalDotsPerInch() : 96.0,
                                        screen ? screen->availableGeometry().size() : QSize());
    CMainWindow window(scale);
    try
    {
        window.setStyleSheet(qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                                                 quorvex::styleConstantsResourcePath(), scale));
    }
    catch (const qutils::CException& e)
    {
        // A broken sheet leaves the program usable in the platform's own look.
        QX_ERROR << "Style sheet not applied: " << e.message();
    }
    window.setMinimumSize(minimumWindowSize(scale));
    if (CAppSettings::boolOption(CAppSettings::EOption::FullScreenMode))
        window.showFullScreen();
    else
        window.show();
    return app.exec();
}

} // namespace

int main(int argc, char** argv)
{
#ifdef Q_OS_WIN
    // No system message boxes for critical errors: nobody may be there to close them.
    SetErrorMode(SEM_FAILCRITICALERRORS);
#endif
    qutils::platform::reportFileSizeLimitAsError();
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);

    if (runModeFor(arguments) == ERunMode::Integration)
        return runIntegrationMode(argc, argv);
    return runWindowedMode(argc, argv);
}
