#include "threadsync.h"

#include <QThread>

#if defined(__SANITIZE_THREAD__)
#define QUORVEX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUORVEX_THREAD_SANITIZER 1
#endif
#endif

#ifdef QUORVEX_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace qutils
{

void announceThreadEnd(QThread* thread)
{
#ifdef QUORVEX_THREAD_SANITIZER
    // finished() is emitted on the ending thread itself, after run() has returned.
    QObject::connect(thread, &QThread::finished, thread, [thread] { handOff(thread); }, Qt::DirectConnection);
#else
    Q_UNUSED(thread)
#endif
}

void joinThread(QThread* thread)
{
    thread->wait();
    takeOver(thread);
}

void handOff(const void* token)
{
#ifdef QUORVEX_THREAD_SANITIZER
    __tsan_release(const_cast<void*>(token));
#else
    Q_UNUSED(token)
#endif
}

void takeOver(const void* token)
{
#ifdef QUORVEX_THREAD_SANITIZER
    __tsan_acquire(const_cast<void*>(token));
#else
    Q_UNUSED(token)
#endif
}

} // namespace qutils
