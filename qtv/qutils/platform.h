#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

#include <functional>

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

// Makes a write to a pipe whose reader has gone fail with an error instead of
// ending the process, so the other outputs can still be finished.
void ignoreBrokenPipe();

// What a folder entry is, symbolic links followed.
enum class EEntryKind
{
    Regular,
    Directory,
    Special, // device, pipe, socket
    Broken,  // a link to nothing, or an entry that cannot be examined
};

struct SFolderEntry
{
    QByteArray path; // the folder's path, '/', the entry's name: the exact bytes
    EEntryKind kind;
};

// Visits the entries of a folder (and of its subfolders when recursive) in the
// system's order. Each entry is reached relative to its folder's open handle,
// so names that are not valid text and paths beyond the system's path limit
// are still seen. Hidden entries (a leading dot) are left out; links to
// folders are not descended into; a subfolder that cannot be read is skipped.
// visit returns false to stop the walk.
void walkFolder(const QByteArray& folder, bool recursive,
                const std::function<bool(const SFolderEntry&)>& visit);

// The longest path the system opens by name, terminating zero included.
int maxPathLength();

// The device and file number of what a path names, links followed; false when
// it names nothing.
bool fileIdentity(const QString& path, quint64& device, quint64& inode);

// Processor time (user + system, in seconds) a running process has used so
// far; a negative value when it cannot be read.
double processCpuSeconds(qint64 pid);

// The folder of the loaded library or program that holds this address, with
// a trailing separator; empty when it cannot be told.
QString moduleDirectory(const void* address);

// Opens the file read-only into `file` only if it is a regular file, checked
// without blocking (opening a FIFO would wait for a writer forever); false
// for anything else or when it cannot be opened.
bool openRegularFile(const QString& path, QFile& file);

// The file names of the programs of the suite, as found on disk.
enum class EProgram
{
    Quorvex,
    HtmlToPdf,
};
QString programFileName(EProgram program);

// The main program where its installer registered it, from a version with
// the integration mode; empty when none is registered (or the system keeps
// no such record).
QString installedProgram();

// The URL of a local file from its absolute path, percent-encoded with '/'
// separators.
QString fileUrl(const QByteArray& encodedPath);

// A photo path the engine can open: where the system limits path lengths,
// a long path is replaced by its short form when there is one.
QString engineOpenablePath(const QString& nativePath);

// No system message boxes for critical errors: nobody may be there to close them.
void suppressErrorDialogs();

// Shows the file in the system's file manager with the file selected; false
// when there is no such way, and the caller opens the folder instead.
bool showFileInFolder(const QString& path);

// The program's arguments without the program name. Texts such as "©" come
// through whatever the locale: UTF-8 bytes here, the wide command line where
// the system has one. Needs the application object.
QStringList programArguments(int argc, char** argv);

// A program that shows nothing on screen runs without a display server,
// unless a platform plugin was chosen in QT_QPA_PLATFORM.
void preferOffscreenDisplay();

} // namespace platform
} // namespace qutils
