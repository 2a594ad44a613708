#include "settings.h"

#include <QMutex>

#include "qutils/appsettings.h"

#include <QSettings>

namespace
{

QString text(const char* key, const QString& fallback)
{
    const QSettings settings(qutils::CAppSettings::filePath(), QSettings::IniFormat);
    const QString value = settings.value(QLatin1String(key)).toString();
    return value.isEmpty() ? fallback : value;
}

void store(const char* key, const QVariant& value)
{
    QSettings settings(qutils::CAppSettings::filePath(), QSettings::IniFormat);
    settings.setValue(QLatin1String(key), value);
    settings.sync();
}

} // namespace

QDir CSettings::lastAnalyzePath()
{
    return QDir(text("lastAnalyzePath", QDir::homePath()));
}

void CSettings::setLastAnalyzePath(const QDir& folder)
{
    store("lastAnalyzePath", folder.absolutePath());
}

QDir CSettings::lastTeachingPath()
{
    return QDir(text("lastTeachingPath", QDir::homePath()));
}

void CSettings::setLastTeachingPath(const QDir& folder)
{
    store("lastTeachingPath", folder.absolutePath());
}

QFileInfo CSettings::lastRecognizer()
{
    return QFileInfo(text("lastRecognizer", QDir::homePath()));
}

void CSettings::setLastRecognizer(const QFileInfo& file)
{
    store("lastRecognizer", file.absoluteFilePath());
}

bool CSettings::analyzeSubdirs()
{
    return qutils::CAppSettings::value(QStringLiteral("analyzeSubdirs"), 0) != 0;
}

void CSettings::setAnalyzeSubdirs(bool on)
{
    qutils::CAppSettings::setValue(QStringLiteral("analyzeSubdirs"), on);
}

QFileInfo CSettings::lastReport()
{
    return QFileInfo(text("lastReport", lastRecognizer().absoluteFilePath()));
}

void CSettings::setLastReport(const QFileInfo& file)
{
    store("lastReport", file.absoluteFilePath());
}

QString CSettings::reportCaseNumber()
{
    return text("reportCaseNumber", QString());
}

void CSettings::setReportCaseNumber(const QString& value)
{
    store("reportCaseNumber", value);
}

QString CSettings::reportExaminer()
{
    return text("reportExaminer", QString());
}

void CSettings::setReportExaminer(const QString& value)
{
    store("reportExaminer", value);
}

QString CSettings::reportNotes()
{
    return text("reportNotes", QString());
}

void CSettings::setReportNotes(const QString& value)
{
    store("reportNotes", value);
}

namespace
{
QMutex g_currentMutex;
QFileInfo g_currentFingerprint;
} // namespace

QFileInfo CSettings::currentFingerprint()
{
    QMutexLocker lock(&g_currentMutex);
    return g_currentFingerprint;
}

void CSettings::setCurrentFingerprint(const QFileInfo& file)
{
    QMutexLocker lock(&g_currentMutex);
    g_currentFingerprint = file;
}
