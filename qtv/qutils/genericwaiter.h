#pragma once

#include <QEventLoop>
#include <QMutex>
#include <QObject>

#include <functional>

namespace qutils
{

// Lets a thread wait, with an optional timeout, for stopWaiting() while its own
// event loop keeps running. Serves one wait; used on the thread that created it.
class CGenericWaiter : public QObject
{
    Q_OBJECT

public:
    // The loop's code on timeout (the system error value for a timeout).
    static constexpr int TimeoutCode = 1460;

    // timeoutMs <= 0 waits without limit.
    explicit CGenericWaiter(int timeoutMs, QObject* parent = nullptr);

    // Calls start (unless stopWaiting() came first), then runs the event loop.
    // True when stopWaiting() ended the wait or had already been called, false on
    // timeout. An empty start throws std::bad_function_call.
    bool wait(std::function<void()> start);

public slots:
    void stopWaiting();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    QEventLoop m_loop;
    int m_timeout;
    QMutex m_mutex;
    bool m_armed = true;
};

} // namespace qutils
