#include "appinfo.h"

#include "qutils/appsettings.h"

#include <QCoreApplication>
#include <QDir>
#include <QStandardPaths>

ERunMode runModeFor(const QStringList& arguments)
{
    if (arguments.size() == 1 && arguments.first() == QLatin1String("/integration"))
        return ERunMode::Integration;
    return ERunMode::Windowed;
}

SAppInfo SAppInfo::forMode(ERunMode mode)
{
    SAppInfo info;
    info.mode = mode;
    info.internalName = QStringLiteral("Quorvex");
    info.displayName = QStringLiteral("Quorvex");
    // Separate names, so integration servers can run beside the windowed program.
    info.mutexName = mode == ERunMode::Integration ? QStringLiteral("Global\\VeltranoQuorvexIntegration.mtx")
                                                   : QStringLiteral("Global\\VeltranoQuorvex.mtx");
    info.whatsNewAddress = qutils::CAppSettings::textValue(whatsNewSettingsKey(), defaultWhatsNewAddress());
    info.version = QStringLiteral("2.0.0");
    return info;
}

void SAppInfo::applyToApplication() const
{
    QCoreApplication::setApplicationName(internalName);
    QCoreApplication::setApplicationVersion(version);
}

QString SAppInfo::dataFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    if (folder.isEmpty() || !QDir().mkpath(folder))
        return QString();
    return folder;
}

QString SAppInfo::logFilePath() const
{
    const QString name =
        mode == ERunMode::Integration ? QStringLiteral("main_integration.log") : QStringLiteral("main.log");
    const QString folder = dataFolder();
    return folder.isEmpty() ? QString() : QDir(folder).filePath(name);
}

QString SAppInfo::lockFilePath() const
{
    // "Global\" is a Windows namespace prefix, not part of a file name.
    QString name = mutexName;
    const int separator = name.lastIndexOf(QLatin1Char('\\'));
    if (separator >= 0)
        name = name.mid(separator + 1);
    const QString folder = dataFolder();
    return folder.isEmpty() ? QString() : QDir(folder).filePath(name + QStringLiteral(".lock"));
}

QString SAppInfo::versionText() const
{
    return QStringLiteral("%1 (build %2)").arg(version).arg(buildNumber);
}

QString SAppInfo::whatsNewSettingsKey()
{
    return QStringLiteral("Options/WhatsNewAddress");
}

QString SAppInfo::defaultWhatsNewAddress()
{
    return QStringLiteral("https://www.quorvex.example/whats-new");
}
