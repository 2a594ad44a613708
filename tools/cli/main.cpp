#include "commands.h"

#include "qutils/platform.h"

#include <QCoreApplication>

// Core only: the tool runs on servers without a display.
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qutils::platform::reportFileSizeLimitAsError();
    return cli::runCli(QCoreApplication::arguments().mid(1));
}
