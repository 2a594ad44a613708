#include "platform.h"

#include "debugutils.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QVariant>
#include <QVersionNumber>

#include <windows.h>

namespace qutils
{
namespace platform
{

namespace
{

// The installer's uninstall entries: the current product line, then the older
// one, which was installed as a 32-bit program.
const QString CurrentProductKey = QStringLiteral("{4F2A9C1E-7B3D-4E58-A6C2-9D1E5B7F3A20}_is1");
const QString OlderProductKey = QStringLiteral("{B83E6D41-2C97-4A1F-8E5B-0C6A7D9F2E14}_is1");

// Beyond this the engine's older builds cannot open a path.
const int LongPathLength = 251;
const int MaxPathLength = 261;

} // namespace

QString programFileName(EProgram program)
{
    switch (program)
    {
    case EProgram::Quorvex:
        return QStringLiteral("Quorvex.exe");
    case EProgram::HtmlToPdf:
        return QStringLiteral("HtmlToPdf.exe");
    }
    return QString();
}

QString installedProgram()
{
    const QString uninstall =
        QStringLiteral("HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\");
    const QString olderUninstall = QStringLiteral(
        "HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\");
    struct SKey
    {
        QString path;
        QSettings::Format view;
    };
    const SKey keys[] = {
        {uninstall + CurrentProductKey, QSettings::NativeFormat},
        {olderUninstall + OlderProductKey, QSettings::Registry32Format},
        {uninstall + OlderProductKey, QSettings::NativeFormat},
    };
    for (const SKey& key : keys)
    {
        const QSettings entry(key.path, key.view);
        if (entry.childKeys().isEmpty())
            continue;

        const QVariant displayVersion = entry.value(QStringLiteral("DisplayVersion"));
        if (displayVersion.type() != QVariant::String)
            return QString();
        // Versions before 1.4 have no integration mode.
        const QVersionNumber version = QVersionNumber::fromString(displayVersion.toString());
        if (version.majorVersion() == 1 && version.minorVersion() < 4)
            return QString();

        const QVariant location = entry.value(QStringLiteral("InstallLocation"));
        if (location.type() != QVariant::String)
            return QString();
        QString path = location.toString();
        if (!path.endsWith(QLatin1Char('\\')))
            path += QLatin1Char('\\');
        return path + programFileName(EProgram::Quorvex);
    }
    return QString();
}

QString fileUrl(const QByteArray& encodedPath)
{
    // A drive letter comes first, so the URL needs the third slash itself.
    return QStringLiteral("file:///") + QString::fromLatin1(encodedPath);
}

QString engineOpenablePath(const QString& nativePath)
{
    if (nativePath.size() < LongPathLength)
        return nativePath;
    QString path = nativePath;
    wchar_t buffer[32768];
    const DWORD n = GetShortPathNameW(reinterpret_cast<const wchar_t*>(nativePath.utf16()), buffer, 32768);
    if (n > 0 && n < 32768)
        path = QString::fromWCharArray(buffer, static_cast<int>(n));
    if (path.size() >= MaxPathLength)
        QX_WARNING << "Photo path too long even in its short form: " << path;
    return path;
}

void suppressErrorDialogs()
{
    SetErrorMode(SEM_FAILCRITICALERRORS);
}

bool showFileInFolder(const QString& path)
{
    return QProcess::startDetached(QStringLiteral("explorer.exe"),
                                   {QStringLiteral("/select,") + QDir::toNativeSeparators(path)});
}

QStringList programArguments(int, char**)
{
    // The wide command line: argv holds it in the ANSI code page only.
    return QCoreApplication::arguments().mid(1);
}

void preferOffscreenDisplay()
{
    // The native platform plugin needs no display server.
}

} // namespace platform
} // namespace qutils
