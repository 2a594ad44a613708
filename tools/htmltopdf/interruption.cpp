#include "interruption.h"

#include <QtGlobal>

#include <csignal>

#ifdef Q_OS_UNIX
#include <signal.h>
#endif

namespace htmltopdf
{

namespace
{

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void onInterrupt(int)
{
    g_interrupted = 1;
}

#ifdef Q_OS_UNIX
// sigaction rather than signal(): the handler stays installed and system
// calls resume, so a signal never breaks a file write half-way.
void installPosixHandlers()
{
    struct sigaction action
    {
    };
    action.sa_handler = &onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // Past a file-size limit a write fails like one on a full disk and is
    // reported (exit 2) instead of the process being killed.
    ::signal(SIGXFSZ, SIG_IGN);
}
#endif

} // namespace

void catchInterrupts()
{
#ifdef Q_OS_UNIX
    installPosixHandlers();
#else
    std::signal(SIGINT, &onInterrupt);
    std::signal(SIGTERM, &onInterrupt);
#endif
}

bool interruptRequested()
{
    return g_interrupted != 0;
}

} // namespace htmltopdf
