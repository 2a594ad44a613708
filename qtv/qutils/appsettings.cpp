#include "appsettings.h"

#include "debugutils.h"

#include <QDir>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>
#include <QStandardPaths>

namespace qutils
{

namespace
{

struct SOptionEntry
{
    CAppSettings::EOption option;
    const char* key;
    QVariant defaultValue;
};

const SOptionEntry& entry(CAppSettings::EOption option)
{
    using E = CAppSettings::EOption;
    static const SOptionEntry table[] = {
        {E::MainAppLogLevel, "Logging/MainAppLogLevel", 3},
        {E::ScaleFixed, "Options/ScaleFixed", 0.0},
        {E::ScaleFactor, "Options/ScaleFactor", 1.0},
        {E::FullScreenMode, "Options/FullScreenMode", false},
        {E::TempFolder, "Options/TempFolder", QString()},
        {E::UpdateParameters, "Options/UpdateParameters", QString()},
        {E::InvokeOnscreenKeyboard, "Options/InvokeOnscreenKeyboard", false},
        {E::BigButtons, "Options/BigButtons", false},
        {E::DisableShortcuts, "Options/DisableShortcuts", false},
        {E::DisableWebLinks, "Options/DisableWebLinks", false},
        {E::ScaleSearch, "Options/ScaleSearch", QStringLiteral("sized")},
    };
    for (const SOptionEntry& e : table)
        if (e.option == option)
            return e;
    Q_UNREACHABLE();
}

QMutex g_folderMutex;
QString g_configFolder;

} // namespace

QString CAppSettings::key(EOption option)
{
    return QString::fromLatin1(entry(option).key);
}

QVariant CAppSettings::defaultValue(EOption option)
{
    return entry(option).defaultValue;
}

QString CAppSettings::filePath()
{
    QString folder;
    {
        QMutexLocker lock(&g_folderMutex);
        folder = g_configFolder;
    }
    if (folder.isEmpty())
        folder = QStandardPaths::writableLocation(QStandardPaths::ConfigLocation) + QStringLiteral("/Quorvex");
    return QDir(folder).filePath(QStringLiteral("settings.ini"));
}

void CAppSettings::setConfigFolder(const QString& folder)
{
    QMutexLocker lock(&g_folderMutex);
    g_configFolder = folder;
}

int CAppSettings::value(const QString& key, int defaultValue)
{
    const QSettings settings(filePath(), QSettings::IniFormat);
    const QVariant stored = settings.value(key);
    if (!stored.isValid())
        return defaultValue;
    bool ok = false;
    const int number = stored.toString().trimmed().toInt(&ok);
    if (ok)
        return number;
    // A boolean written by hand as text still counts as on or off.
    const QString text = stored.toString().trimmed().toLower();
    if (text == QLatin1String("true"))
        return 1;
    if (text == QLatin1String("false"))
        return 0;
    return defaultValue;
}

double CAppSettings::doubleValue(const QString& key, double defaultValue)
{
    const QSettings settings(filePath(), QSettings::IniFormat);
    const QVariant stored = settings.value(key);
    bool ok = false;
    const double number = stored.toString().trimmed().toDouble(&ok);
    return ok ? number : defaultValue;
}

QString CAppSettings::textValue(const QString& key, const QString& defaultValue)
{
    const QSettings settings(filePath(), QSettings::IniFormat);
    return settings.value(key, defaultValue).toString();
}

void CAppSettings::setValue(const QString& key, const QVariant& value)
{
    QSettings settings(filePath(), QSettings::IniFormat);
    // Booleans go in as integers so every reader sees 0 or 1.
    if (value.type() == QVariant::Bool)
        settings.setValue(key, value.toBool() ? 1 : 0);
    else
        settings.setValue(key, value);
    settings.sync();
}

int CAppSettings::intOption(EOption option)
{
    return value(key(option), defaultValue(option).toInt());
}

bool CAppSettings::boolOption(EOption option)
{
    return value(key(option), defaultValue(option).toBool() ? 1 : 0) != 0;
}

double CAppSettings::doubleOption(EOption option)
{
    return doubleValue(key(option), defaultValue(option).toDouble());
}

QString CAppSettings::textOption(EOption option)
{
    return textValue(key(option), defaultValue(option).toString());
}

bool CAppSettings::isScaleSearchValue(const QString& value)
{
    return value == QLatin1String("full") || value == QLatin1String("sized") || value == QLatin1String("off");
}

QString CAppSettings::scaleSearch()
{
    const QString fallback = defaultValue(EOption::ScaleSearch).toString();
    const QString value = textOption(EOption::ScaleSearch).trimmed();
    if (isScaleSearchValue(value))
        return value;
    QX_WARNING << "Setting " << key(EOption::ScaleSearch) << " has the unknown value \"" << value << "\"; "
               << fallback << " is used";
    return fallback;
}

void CAppSettings::applyScaleSearch(const QString& value)
{
    qputenv("LUMICREST_SCALE_SEARCH", value.toUtf8());
}

void CAppSettings::setOption(EOption option, const QVariant& value)
{
    setValue(key(option), value);
}

} // namespace qutils
