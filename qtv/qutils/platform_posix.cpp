#include "platform.h"

#include <QSysInfo>

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qutils
{
namespace platform
{

quint64 currentThreadId()
{
    return static_cast<quint64>(::syscall(SYS_gettid));
}

QString architectureName()
{
    const QString arch = QSysInfo::buildCpuArchitecture();
    if (arch == QLatin1String("x86_64"))
        return QStringLiteral("x64");
    if (arch == QLatin1String("i386"))
        return QStringLiteral("x86");
    return arch;
}

namespace
{

// Everything the handler touches is prepared before a crash: a fixed buffer for
// the path and a stack of its own, so a stack overflow can still be reported.
constexpr size_t MaxPath = 4096;
char g_dumpPath[MaxPath] = {};
const int g_signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
char g_altStack[64 * 1024];

void writeText(int fd, const char* text)
{
    size_t left = std::strlen(text);
    while (left > 0)
    {
        const ssize_t n = ::write(fd, text, left);
        if (n <= 0)
        {
            if (n < 0 && errno == EINTR)
                continue;
            return;
        }
        text += n;
        left -= static_cast<size_t>(n);
    }
}

void writeNumber(int fd, long value)
{
    char buffer[32];
    char* p = buffer + sizeof(buffer) - 1;
    *p = '\0';
    const bool negative = value < 0;
    unsigned long v = negative ? static_cast<unsigned long>(-value) : static_cast<unsigned long>(value);
    do
    {
        *--p = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    if (negative)
        *--p = '-';
    writeText(fd, p);
}

void onFatalSignal(int sig, siginfo_t* info, void*)
{
    const int savedErrno = errno;
    const int fd = ::open(g_dumpPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0)
    {
        writeText(fd, "Fatal signal ");
        writeNumber(fd, sig);
        writeText(fd, " (");
        writeText(fd, sigdescr_np(sig) ? sigdescr_np(sig) : "unknown");
        writeText(fd, ") in process ");
        writeNumber(fd, static_cast<long>(::getpid()));
        writeText(fd, ", thread ");
        writeNumber(fd, static_cast<long>(::syscall(SYS_gettid)));
        if (info)
        {
            writeText(fd, ", address 0x");
            char hex[2 * sizeof(void*) + 1];
            auto addr = reinterpret_cast<uintptr_t>(info->si_addr);
            for (int i = static_cast<int>(sizeof(hex)) - 2; i >= 0; --i, addr >>= 4)
                hex[i] = "0123456789abcdef"[addr & 0xF];
            hex[sizeof(hex) - 1] = '\0';
            writeText(fd, hex);
        }
        writeText(fd, "\nBacktrace:\n");
        void* frames[128];
        const int count = ::backtrace(frames, 128);
        ::backtrace_symbols_fd(frames, count, fd);
        ::close(fd);
    }
    errno = savedErrno;
    // The handler was installed with SA_RESETHAND: re-raising ends the process
    // the way the signal would have, core dump and exit status included.
    ::raise(sig);
}

} // namespace

bool installCrashWriter(const QByteArray& dumpPath)
{
    if (dumpPath.isEmpty() || static_cast<size_t>(dumpPath.size()) >= MaxPath)
        return false;
    std::memcpy(g_dumpPath, dumpPath.constData(), static_cast<size_t>(dumpPath.size()) + 1);

    // The first backtrace() call loads libgcc; do it now, not inside the handler.
    void* warmUp[2];
    ::backtrace(warmUp, 2);

    stack_t stack{};
    stack.ss_sp = g_altStack;
    stack.ss_size = sizeof(g_altStack);
    ::sigaltstack(&stack, nullptr);

    struct sigaction action{};
    action.sa_sigaction = &onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_RESETHAND | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    bool ok = true;
    for (int sig : g_signals)
        ok = ::sigaction(sig, &action, nullptr) == 0 && ok;
    return ok;
}

bool isTerminal(int stream)
{
    return ::isatty(stream) == 1;
}

namespace
{
volatile sig_atomic_t g_interrupts = 0;

void onInterrupt(int)
{
    g_interrupts = g_interrupts + 1;
}
} // namespace

void catchInterrupts()
{
    struct sigaction action{};
    action.sa_handler = &onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

int interruptCount()
{
    return static_cast<int>(g_interrupts);
}

void reportFileSizeLimitAsError()
{
    ::signal(SIGXFSZ, SIG_IGN);
}

void ignoreBrokenPipe()
{
    ::signal(SIGPIPE, SIG_IGN);
}

namespace
{

EEntryKind entryKind(int dirFd, const char* name, bool& isRealDirectory)
{
    struct stat linkStat
    {
    };
    isRealDirectory =
        ::fstatat(dirFd, name, &linkStat, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(linkStat.st_mode);
    struct stat target
    {
    };
    if (::fstatat(dirFd, name, &target, 0) != 0)
        return EEntryKind::Broken;
    if (S_ISREG(target.st_mode))
        return EEntryKind::Regular;
    if (S_ISDIR(target.st_mode))
        return EEntryKind::Directory;
    return EEntryKind::Special;
}

// Takes over dirFd. False when the walk was stopped.
bool walkOpenFolder(int dirFd, const QByteArray& path, bool recursive,
                    const std::function<bool(const SFolderEntry&)>& visit)
{
    DIR* dir = ::fdopendir(dirFd);
    if (!dir)
    {
        ::close(dirFd);
        return true;
    }
    bool go = true;
    while (go)
    {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (!entry)
            break;
        const char* name = entry->d_name;
        if (name[0] == '.')
            continue;
        bool isRealDirectory = false;
        const SFolderEntry found{path + '/' + QByteArray(name),
                                 entryKind(::dirfd(dir), name, isRealDirectory)};
        go = visit(found);
        if (go && recursive && isRealDirectory)
        {
            // Opened without following a link, so a swapped-in link cannot lead the walk astray.
            const int child = ::openat(::dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0)
                go = walkOpenFolder(child, found.path, recursive, visit);
        }
    }
    ::closedir(dir);
    return go;
}

} // namespace

void walkFolder(const QByteArray& folder, bool recursive,
                const std::function<bool(const SFolderEntry&)>& visit)
{
    const int fd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    QByteArray path = folder;
    while (path.size() > 1 && path.endsWith('/'))
        path.chop(1);
    walkOpenFolder(fd, path == "/" ? QByteArray() : path, recursive, visit);
}

int maxPathLength()
{
    return PATH_MAX;
}

bool fileIdentity(const QString& path, quint64& device, quint64& inode)
{
    struct stat st
    {
    };
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return false;
    device = static_cast<quint64>(st.st_dev);
    inode = static_cast<quint64>(st.st_ino);
    return true;
}

double processCpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1.0;
    const QByteArray line = stat.readAll();
    // The command name is in parentheses and may hold spaces: count fields after it.
    const int close = line.lastIndexOf(')');
    if (close < 0)
        return -1.0;
    const QList<QByteArray> fields = line.mid(close + 2).split(' ');
    // After the name: state is field 3 of the whole line, utime 14 and stime 15.
    if (fields.size() < 13)
        return -1.0;
    const long ticks = sysconf(_SC_CLK_TCK);
    if (ticks <= 0)
        return -1.0;
    return (fields.at(11).toDouble() + fields.at(12).toDouble()) / static_cast<double>(ticks);
}

QString moduleDirectory(const void* address)
{
    Dl_info info{};
    if (dladdr(address, &info) == 0 || !info.dli_fname || !*info.dli_fname)
        return QString();
    return QFileInfo(QFile::decodeName(info.dli_fname)).absolutePath() + QLatin1Char('/');
}

bool openRegularFile(const QString& path, QFile& file)
{
    const QByteArray name = QFile::encodeName(path);
    if (name.isEmpty())
        return false;
    const int fd = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return false;
    struct stat st;
    const int flags = ::fcntl(fd, F_GETFL);
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
    {
        ::close(fd);
        return false;
    }
    if (!file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
    {
        ::close(fd);
        return false;
    }
    return true;
}

QString programFileName(EProgram program)
{
    switch (program)
    {
    case EProgram::Quorvex:
        return QStringLiteral("quorvex");
    case EProgram::HtmlToPdf:
        return QStringLiteral("HtmlToPdf");
    }
    return QString();
}

QString installedProgram()
{
    // Installed programs are found on PATH.
    return QString();
}

QString fileUrl(const QByteArray& encodedPath)
{
    return QStringLiteral("file://") + QString::fromLatin1(encodedPath);
}

QString engineOpenablePath(const QString& nativePath)
{
    return nativePath;
}

void suppressErrorDialogs() {}

bool showFileInFolder(const QString&)
{
    return false;
}

QStringList programArguments(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
    return arguments;
}

void preferOffscreenDisplay()
{
#ifndef Q_OS_MACOS
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
#endif
}

} // namespace platform
} // namespace qutils
