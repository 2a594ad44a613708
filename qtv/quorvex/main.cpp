#include "appinfo.h"
#include "englishtexts.h"
#include "helpdlg.h"
#include "integrationserver.h"
#include "licence.h"
#include "mainwindow.h"
#include "resources.h"
#include "startup.h"
#include "windowedstartup.h"

#include "qcontrols/stylesheetmanager.h"

#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/htmltopdftask.h"
#include "qutils/platform.h"
#include "qutils/quorvexapi.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QScreen>
#include <QStringList>
#include <QTextStream>

#include <iostream>

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

int selfTest(const CMainWindow& window)
{
    QCoreApplication::processEvents();
    QTextStream err(stderr);
    bool ok = window.isVisible();
    err << "window: " << (window.isVisible() ? "shown" : "not shown") << '\n';
    const QString help = QDir(CHelpDlg::helpFolder()).filePath(QStringLiteral("index.html"));
    const bool helpFound = QFileInfo::exists(help);
    ok = ok && helpFound;
    err << "help: " << QDir::toNativeSeparators(help) << (helpFound ? " (found)" : " (missing)") << '\n';
    try
    {
        err << "report converter: " << QDir::toNativeSeparators(qutils::CHtmlToPdfTask::findConverter()) << " (found)\n";
    }
    catch (const qutils::CException& e)
    {
        err << "report converter: " << e.message() << '\n';
        ok = false;
    }
    err.flush();
    return ok ? 0 : 1;
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
    CEnglishTexts english;
    QCoreApplication::installTranslator(&english);

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
    // An installation check: the window came up; are its help pages and the
    // report converter where the program looks for them?
    if (qEnvironmentVariableIsSet("QUORVEX_SELF_TEST"))
        return selfTest(window);

    // A fingerprint file given on the command line (a double-click on it in
    // the file manager) opens on its properties.
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    for (const QString& argument : arguments)
    {
        if (argument.endsWith(QStringLiteral(".fnp"), Qt::CaseInsensitive))
        {
            window.showFingerprintProperties(argument);
            break;
        }
    }
    return app.exec();
}

} // namespace

int main(int argc, char** argv)
{
    qutils::platform::suppressErrorDialogs();
    qutils::platform::reportFileSizeLimitAsError();
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);

    if (runModeFor(arguments) == ERunMode::Integration)
        return runIntegrationMode(argc, argv);
    return runWindowedMode(argc, argv);
}
