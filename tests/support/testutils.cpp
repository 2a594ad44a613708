#include "testutils.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

namespace testutils
{

bool waitFor(const std::function<bool()>& pred, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!pred())
    {
        if (timer.elapsed() > timeoutMs)
            return pred();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

QString readText(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

} // namespace testutils
