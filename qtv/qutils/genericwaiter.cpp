#include "genericwaiter.h"

#include "debugutils.h"

#include <QMetaObject>
#include <QMutexLocker>
#include <QThread>

namespace qutils
{

CGenericWaiter::CGenericWaiter(int timeoutMs, QObject* parent) : QObject(parent), m_timeout(timeoutMs) {}

bool CGenericWaiter::wait(std::function<void()> start)
{
    if (thread() != QThread::currentThread())
        QX_SELFCHECK(QStringLiteral("CGenericWaiter::wait called from a foreign thread"));
    {
        QMutexLocker locker(&m_mutex);
        if (!m_armed)
            return true; // stopped before the wait began: start is not called
    }
    start();
    if (m_timeout > 0)
        startTimer(m_timeout, Qt::CoarseTimer);
    // QEventLoop::exit() before exec() is lost, so a stopWaiting() that came from
    // start (or from a foreign thread just now) is looked at again once the loop runs.
    QMetaObject::invokeMethod(
        this,
        [this]
        {
            QMutexLocker locker(&m_mutex);
            if (!m_armed)
                m_loop.exit(0);
        },
        Qt::QueuedConnection);
    return m_loop.exec() == 0;
}

void CGenericWaiter::stopWaiting()
{
    if (thread() != QThread::currentThread())
        QX_SELFCHECK(QStringLiteral("CGenericWaiter::stopWaiting called from a foreign thread"));
    QMutexLocker locker(&m_mutex);
    m_armed = false;
    m_loop.exit(0);
}

void CGenericWaiter::timerEvent(QTimerEvent* event)
{
    Q_UNUSED(event)
    QMutexLocker locker(&m_mutex);
    // The timer keeps ticking after the wait; only a running, unstopped wait times out.
    if (m_armed && m_loop.isRunning())
        m_loop.exit(TimeoutCode);
}

} // namespace qutils
