#include "converter.h"
#include "exitcode.h"
#include "interruption.h"
#include "options.h"

#include "qutils/platform.h"

#include <QGuiApplication>

#include <cstdio>

// The converter run by the application for its PDF reports; see README.md.
int main(int argc, char** argv)
{
    htmltopdf::catchInterrupts();
    // Nothing is shown on screen, so no display server is needed.
    qutils::platform::preferOffscreenDisplay();
    // Qt scales image sizes and table widths given in pixels by the screen's
    // resolution over its own default; with the default fixed at 96, one CSS
    // pixel is 1/96 inch on paper, whatever screen (or none) there is.
    QCoreApplication::setAttribute(Qt::AA_Use96Dpi);
    QGuiApplication app(argc, argv);

    // The caller passes footer texts such as "©".
    const QStringList arguments = qutils::platform::programArguments(argc, argv);
    const htmltopdf::SOptions options = htmltopdf::parseOptions(arguments);
    if (!options.error.isEmpty())
    {
        std::fprintf(stderr, "HtmlToPdf: %s\n%s\n", qUtf8Printable(options.error),
                     qUtf8Printable(htmltopdf::usageText()));
        return htmltopdf::ExitUsage;
    }
    return htmltopdf::CConverter(options).run();
}
