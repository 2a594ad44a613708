#include "resultclass.h"

#include <QCoreApplication>

#include <cmath>

using qutils::CQuorvexAPI;

bool isNotCompared(const CQuorvexAPI::SAnalysisResult& result)
{
    // Matching never gets status 7 from the engine: only the EXIF check sets it.
    return result.status == CQuorvexAPI::ImageFingerprintInconsistentSize ||
           result.status == CQuorvexAPI::InconsistentMetadata;
}

QString notComparedTitle(const CQuorvexAPI::SAnalysisResult& result)
{
    // The EXIF check's own status text says only that the metadata disagrees.
    const CQuorvexAPI::EStatus shown =
        result.status == CQuorvexAPI::InconsistentMetadata ? CQuorvexAPI::DifferentDeviceType : result.status;
    return QCoreApplication::translate("CAnalyzeDlg", "Not compared: %1").arg(CQuorvexAPI::statusText(shown));
}

QString notComparedText(const CQuorvexAPI::SAnalysisResult& result)
{
    if (result.reason.isEmpty())
        return notComparedTitle(result);
    return QStringLiteral("%1 (%2)").arg(notComparedTitle(result), result.reason);
}

QString scaleText(const CQuorvexAPI::SAnalysisResult& result)
{
    if (!std::isfinite(result.scale) || result.scale <= 0.0)
        return QString();
    const QString text = QString::number(result.scale, 'f', 2);
    return text == QLatin1String("1.00") ? QString() : text;
}

EResultClass classifyResult(const CQuorvexAPI::SAnalysisResult& result)
{
    if (isNotCompared(result))
        return EResultClass::NotCompared;
    if (result.status != CQuorvexAPI::Success || !result.matched)
        return EResultClass::NotFound;
    if (result.probability >= 0.999)
        return EResultClass::VeryHigh;
    if (result.probability >= 0.995)
        return EResultClass::High;
    if (result.probability >= 0.99)
        return EResultClass::Medium;
    return EResultClass::Low;
}

QString resultClassName(EResultClass resultClass)
{
    switch (resultClass)
    {
    case EResultClass::VeryHigh:
        return QCoreApplication::translate("CAnalyzeDlg", "very high");
    case EResultClass::High:
        return QCoreApplication::translate("CAnalyzeDlg", "high");
    case EResultClass::Medium:
        return QCoreApplication::translate("CAnalyzeDlg", "medium");
    case EResultClass::Low:
        return QCoreApplication::translate("CAnalyzeDlg", "low");
    case EResultClass::NotFound:
        return QCoreApplication::translate("CAnalyzeDlg", "not found");
    case EResultClass::NotCompared:
        return QCoreApplication::translate("CAnalyzeDlg", "not compared");
    case EResultClass::NotProcessed:
        break;
    }
    return QCoreApplication::translate("CAnalyzeDlg", "not processed");
}

int resultClassState(EResultClass resultClass)
{
    switch (resultClass)
    {
    case EResultClass::VeryHigh:
        return 16;
    case EResultClass::High:
        return 32;
    case EResultClass::Medium:
        return 64;
    case EResultClass::Low:
        return 128;
    case EResultClass::NotFound:
        return 256;
    case EResultClass::NotCompared:
        return 512;
    case EResultClass::NotProcessed:
        break;
    }
    return 8;
}

QString remainingTimeText(qint64 milliseconds)
{
    if (milliseconds < 0)
        return QCoreApplication::translate("CAnalyzeDlg", "unknown");
    qint64 rest = milliseconds / 1000;
    const qint64 seconds = rest % 60;
    rest /= 60;
    const qint64 minutes = rest % 60;
    rest /= 60;
    const qint64 hours = rest % 24;
    const qint64 days = rest / 24;
    const QString secondsText = QStringLiteral("%1").arg(seconds, 2, 10, QLatin1Char('0'));
    if (days < 1)
        return QStringLiteral("%1h %2m %3s").arg(hours).arg(minutes).arg(secondsText);
    return QStringLiteral("%1d %2h %3m %4s").arg(days).arg(hours).arg(minutes).arg(secondsText);
}
