#pragma once

#include <QByteArray>
#include <QString>

// The few operating-system calls the utility layer needs; everything else stays
// portable Qt. One implementation file per platform.
namespace qutils
{
namespace platform
{

// The kernel's id of the calling thread (what a debugger or `top -H` shows).
quint64 currentThreadId();

// Name of the processor architecture as it goes into crash file names ("x64").
QString architectureName();

// Installs handlers for fatal signals that write a backtrace to dumpPath and
// then let the process die as it would have. The path is fixed now, so a later
// crash overwrites the same file. False when the path is unusable.
bool installCrashWriter(const QByteArray& dumpPath);

// True when the stream (0 standard input, 1 output, 2 error) is a terminal.
bool isTerminal(int stream);

// Counts interrupt requests (Ctrl-C, SIGINT/SIGTERM) from now on instead of
// ending the process; the caller polls interruptCount() and winds down.
void catchInterrupts();
int interruptCount();

} // namespace platform
} // namespace qutils
