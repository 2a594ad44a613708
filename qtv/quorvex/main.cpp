#include "appinfo.h"
#include "integrationserver.h"
#include "licence.h"

#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/quorvexapi.h"

#include <QCoreApplication>
#include <QStringList>

#include <iostream>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

namespace
{

// Moves the log into the mode's own file and arms the crash writer. When the
// log cannot be set up the program runs without one rather than not at all.
void setUpLogging(const SAppInfo& info)
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
        QX_INFO << "----- " << info.internalName << " " << info.versionText()
                << " serves the integration mode -----";
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
    setUpLogging(info);
    qRegisterMetaType<qutils::CQuorvexAPI::SAnalysisResult>("qutils::CQuorvexAPI::SAnalysisResult");

    // Standard output carries the protocol and nothing else.
    CIntegrationServer server(CLicence::isActive());
    return server.run(std::cin, std::cout);
}

int runWindowedMode()
{
    const SAppInfo info = SAppInfo::forMode(ERunMode::Windowed);
    std::cout << info.displayName.toStdString() << ' ' << info.versionText().toStdString()
              << ": the windowed program comes with a later version; \"quorvex /integration\" runs the "
                 "integration mode."
              << std::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
#ifdef Q_OS_WIN
    // No system message boxes for critical errors: nobody may be there to close them.
    SetErrorMode(SEM_FAILCRITICALERRORS);
#endif
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);

    if (runModeFor(arguments) == ERunMode::Integration)
        return runIntegrationMode(argc, argv);
    return runWindowedMode();
}
