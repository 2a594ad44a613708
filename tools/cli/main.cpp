#include "commands.h"

#include <QCoreApplication>

// Core only: the tool runs on servers without a display.
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    return cli::runCli(QCoreApplication::arguments().mid(1));
}
