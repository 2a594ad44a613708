#include "interruption.h"

#include "exitcode.h"

#include <QtGlobal>

#include <csignal>
#include <cstdlib>

#ifdef Q_OS_UNIX
#include <signal.h>
#include <unistd.h>
#endif

namespace htmltopdf
{

namespace
{

volatile std::sig_atomic_t g_interrupted = 0;
volatile std::sig_atomic_t g_endAtOnce = 0;

// Called from the signal handler: only async-signal-safe calls.
void endInterrupted()
{
#ifdef Q_OS_UNIX
    static const char text[] = "HtmlToPdf: interrupted; no file written\n";
    const ssize_t written = ::write(STDERR_FILENO, text, sizeof text - 1);
    static_cast<void>(written);
#endif
    std::_Exit(ExitInterrupted);
}

extern "C" void onInterrupt(int)
{
    g_interrupted = 1;
    if (g_endAtOnce)
        endInterrupted();
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

CInterruptsEndAtOnce::CInterruptsEndAtOnce()
{
    // Flag first: a signal arriving between the two lines is not missed.
    g_endAtOnce = 1;
    if (g_interrupted)
        endInterrupted();
}

CInterruptsEndAtOnce::~CInterruptsEndAtOnce()
{
    g_endAtOnce = 0;
}

} // namespace htmltopdf
