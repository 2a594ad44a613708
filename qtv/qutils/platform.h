#pragma once

#include <QByteArray>
#include <QString>

class QFile;

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

// Makes a write past the process's file-size limit fail like one on a full
// disk (and be reported) instead of ending the process.
void reportFileSizeLimitAsError();

// Processor time (user + system, in seconds) a running process has used so
// far; a negative value when it cannot be read.
double processCpuSeconds(qint64 pid);

// The folder of the loaded library or program that holds this address, with
// a trailing separator; empty when it cannot be told.
QString moduleDirectory(const void* address);

// Opens any input file for reading only if it is a regular file, without ever
// blocking: a FIFO or a device is refused, not waited on. False when the file
// cannot be opened or is not a regular file; file is then left closed.
bool openRegularInputFile(QFile& file, const QString& path);

} // namespace platform
} // namespace qutils
