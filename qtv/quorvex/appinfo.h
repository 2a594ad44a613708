#pragma once

#include <QString>
#include <QStringList>

// How the program was asked to run.
enum class ERunMode
{
    Windowed,
    Integration,
};

// "/integration" as the only argument (exact case) selects the headless mode;
// every other command line, including none, the windowed one. arguments
// excludes the program's own name.
ERunMode runModeFor(const QStringList& arguments);

// The application information record: names, version and the per-mode names of
// the single-instance lock and the log file. Filled once at start.
struct SAppInfo
{
    static constexpr int BuildNumber = 9325;
    // Read only by the update check and the licence activation.
    static constexpr int UpdateProductId = 4102;
    static constexpr int LicenceProductId = 4103;

    ERunMode mode = ERunMode::Windowed;
    QString internalName;
    QString displayName;
    QString mutexName;
    QString whatsNewAddress;
    QString version;
    int buildNumber = BuildNumber;

    static SAppInfo forMode(ERunMode mode);

    // Gives the application object the names the standard locations are built from.
    void applyToApplication() const;

    // The per-user data folder (log files, crash files), created when missing.
    // Empty when it cannot be created.
    static QString dataFolder();
    // "<data folder>/main.log" or "<data folder>/main_integration.log".
    QString logFilePath() const;
    // Where the windowed mode keeps its single-instance lock: a file named
    // after the mutex in the data folder.
    QString lockFilePath() const;
    // "2.0.0 (build 9325)".
    QString versionText() const;

    // The settings key that overrides the what's-new address, and its default.
    static QString whatsNewSettingsKey();
    static QString defaultWhatsNewAddress();
};
