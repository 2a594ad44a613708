#include "commands.h"
#include "console.h"

#include "appinfo.h"
#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/quorvexapi.h"

#include <QDir>
#include <QFile>

namespace cli
{

namespace
{

// The tool logs to a file of its own beside the program's logs. The logger
// starts on "default.log" in the working folder and adopts such a file when
// moved, so a working folder that already holds one is left alone and the
// run goes without a log.
void setUpLogging()
{
    qutils::CLogger& logger = qutils::CLogger::instance();
    try
    {
        const QString folder = SAppInfo::dataFolder();
        if (folder.isEmpty() || QFile::exists(logger.fileName()))
            throw qutils::CException(QStringLiteral("No place for the log"));
        logger.setLogFile(QDir(folder).filePath(QStringLiteral("main_cli.log")));
        logger.setLevel(qutils::CAppSettings::intOption(qutils::CAppSettings::EOption::MainAppLogLevel));
    }
    catch (const qutils::CException&)
    {
        logger.setLevel(0);
    }
}

} // namespace

int runCli(const QStringList& arguments)
{
    const SCommandLine commandLine = parseCommandLine(arguments);
    switch (commandLine.command)
    {
    case ECommand::None:
        CConsole::error(commandLine.error + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    case ECommand::Help:
        CConsole::out(helpText().trimmed());
        return ExitDone;
    case ECommand::Version:
        CConsole::out(versionText());
        return ExitDone;
    default:
        break;
    }

    SAppInfo::forMode(ERunMode::Windowed).applyToApplication();
    setUpLogging();
    // Results travel from the analyzer's threads in queued signals.
    qRegisterMetaType<qutils::CQuorvexAPI::SAnalysisResult>("qutils::CQuorvexAPI::SAnalysisResult");

    switch (commandLine.command)
    {
    case ECommand::Learn:
        return runLearn(commandLine);
    case ECommand::Analyze:
        return runAnalyze(commandLine);
    case ECommand::Info:
        return runInfo(commandLine);
    case ECommand::Demo:
        return runDemo(commandLine);
    case ECommand::Validate:
        return runValidate(commandLine);
    case ECommand::Merge:
        return runMerge(commandLine);
    case ECommand::Identify:
        return runIdentify(commandLine);
    default:
        break;
    }
    return ExitUsage;
}

} // namespace cli
