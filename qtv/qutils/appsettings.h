#pragma once

#include <QString>
#include <QVariant>

namespace qutils
{

// The utility layer's options in "settings.ini" ("Options/…", "Logging/…").
// Integers and booleans are read as integers (non-zero is on); an absent key,
// a missing file or an unreadable one gives the default.
class CAppSettings
{
public:
    enum class EOption
    {
        MainAppLogLevel,
        ScaleFixed,
        ScaleFactor,
        FullScreenMode,
        TempFolder,
        UpdateParameters,
        InvokeOnscreenKeyboard,
        BigButtons,
        DisableShortcuts,
        DisableWebLinks,
        ScaleSearch,
    };

    static QString key(EOption option);
    static QVariant defaultValue(EOption option);

    static int value(const QString& key, int defaultValue);
    static double doubleValue(const QString& key, double defaultValue);
    static QString textValue(const QString& key, const QString& defaultValue = QString());
    static void setValue(const QString& key, const QVariant& value);

    // Typed access through the table of keys and defaults.
    static int intOption(EOption option);
    static bool boolOption(EOption option);
    static double doubleOption(EOption option);
    static QString textOption(EOption option);
    static void setOption(EOption option, const QVariant& value);

    // How far the engine searches for a photo resized from the camera's
    // image: "full", "sized" or "off".
    static bool isScaleSearchValue(const QString& value);
    // "Options/ScaleSearch"; a value that is none of the three is "sized",
    // after a warning in the log.
    static QString scaleSearch();
    // Hands the limit to the engine, which reads it at each match: call it
    // only while no engine call runs.
    static void applyScaleSearch(const QString& value);

    // The one settings file both layers share.
    static QString filePath();
    // Points the file at another folder (tests); an empty folder restores the
    // standard configuration location.
    static void setConfigFolder(const QString& folder);
};

} // namespace qutils
