#include "converter.h"
#include "exitcode.h"
#include "interruption.h"
#include "options.h"

#include <QGuiApplication>

#include <cstdio>

// The converter run by the application for its PDF reports; see README.md.
int main(int argc, char** argv)
{
    htmltopdf::catchInterrupts();
#if defined(Q_OS_UNIX) && !defined(Q_OS_MACOS)
    // Nothing is shown on screen, so no display server is needed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
#endif
    // Qt scales image sizes and table widths given in pixels by the screen's
    // resolution over its own default; with the default fixed at 96, one CSS
    // pixel is 1/96 inch on paper, whatever screen (or none) there is.
    QCoreApplication::setAttribute(Qt::AA_Use96Dpi);
    QGuiApplication app(argc, argv);

#ifdef Q_OS_WIN
    const QStringList arguments = QCoreApplication::arguments().mid(1);
#else
    // UTF-8 whatever the locale: the caller passes footer texts such as "©".
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
#endif
    const htmltopdf::SOptions options = htmltopdf::parseOptions(arguments);
    if (!options.error.isEmpty())
    {
        std::fprintf(stderr, "HtmlToPdf: %s\n%s\n", qUtf8Printable(options.error),
                     qUtf8Printable(htmltopdf::usageText()));
        return htmltopdf::ExitUsage;
    }
    return htmltopdf::CConverter(options).run();
}
