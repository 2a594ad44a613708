#include "commandline.h"
#include "commands.h"
#include "console.h"
#include "photolisting.h"

#include "qutils/platform.h"

#include <QCoreApplication>
#include <QFile>
#include <QGuiApplication>

#include <memory>

// Core only, as the tool runs on servers without a display; 'validate' draws
// text into its plots, which needs a GUI application object, so it gets one
// that never needs a display.
int main(int argc, char** argv)
{
    std::unique_ptr<QCoreApplication> app;
    if (argc > 1 && qstrcmp(argv[1], "validate") == 0)
    {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        // Setting up the platform remarks on the environment ("XDG_RUNTIME_DIR not
        // set"), which would only mix into the tool's own messages.
        const QtMessageHandler previous =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        app = std::make_unique<QGuiApplication>(argc, argv);
        qInstallMessageHandler(previous);
    }
    else
    {
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    qutils::platform::reportFileSizeLimitAsError();
    // A reader that stops early (| head) must not end the run before its files are written.
    qutils::platform::ignoreBrokenPipe();
    // Arguments arrive as text: a name that is not valid UTF-8 would silently
    // become another name, so it is refused instead.
    for (int i = 1; i < argc; ++i)
    {
        const QByteArray raw(argv[i]);
        if (QFile::decodeName(raw).toUtf8() != raw)
        {
            cli::CConsole::error(
                QStringLiteral("argument %1 is not valid UTF-8 (%2); name its folder instead, "
                               "whose listing reports such files (see quorvex-cli --help)")
                    .arg(i)
                    .arg(displayPath(raw)));
            return cli::ExitUsage;
        }
    }
    return cli::runCli(QCoreApplication::arguments().mid(1));
}
