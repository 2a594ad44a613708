#pragma once

#include "threadsync.h"

#include <QThread>

namespace qutils
{

// Deleter for smart pointers to QObjects that may live in another thread: the
// object dies in its own thread's event loop instead of under a running slot.
template <class T> struct CLaterDeleter
{
    void operator()(T* object) const
    {
        if (!object)
            return;
        // The deleting thread takes over in event() (CTask, CWorker).
        handOff(static_cast<const QObject*>(object));
        object->deleteLater();
    }
};

namespace VQThread
{

// Deleter for owned threads: a QThread destroyed while running aborts the
// process, so join first, then let the owner's event loop free the object.
struct CThreadLaterDeleter
{
    void operator()(QThread* thread) const
    {
        if (!thread)
            return;
        thread->wait();
        thread->deleteLater();
    }
};

} // namespace VQThread

} // namespace qutils
