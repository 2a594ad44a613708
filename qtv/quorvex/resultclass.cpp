#include "resultclass.h"

#include <QCoreApplication>

using qutils::CQuorvexAPI;

EResultClass classifyResult(const CQuorvexAPI::SAnalysisResult& result)
{
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
