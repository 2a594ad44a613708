#pragma once

#include <QDir>
#include <QFileInfo>
#include <QString>

// The application's own choices in "settings.ini": the folders and files the
// user picked last and the include-subfolders choice. Shares the file with
// qutils::CAppSettings.
class CSettings
{
public:
    static QDir lastAnalyzePath();
    static void setLastAnalyzePath(const QDir& folder);

    static QDir lastTeachingPath();
    static void setLastTeachingPath(const QDir& folder);

    static QFileInfo lastRecognizer();
    static void setLastRecognizer(const QFileInfo& file);

    static bool analyzeSubdirs();
    static void setAnalyzeSubdirs(bool on);

    // The fingerprint this run of the program last created (kept in memory
    // only; empty until a learn succeeds). The Analyze workflow offers it.
    static QFileInfo currentFingerprint();
    static void setCurrentFingerprint(const QFileInfo& file);

    // Falls back to the fingerprint's path, so a first report lands beside it.
    static QFileInfo lastReport();
    static void setLastReport(const QFileInfo& file);

    // The case details put at the top of reports; empty until given.
    static QString reportCaseNumber();
    static void setReportCaseNumber(const QString& text);
    static QString reportExaminer();
    static void setReportExaminer(const QString& text);
    static QString reportNotes();
    static void setReportNotes(const QString& text);
};
