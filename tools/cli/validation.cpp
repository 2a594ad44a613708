#include "validation.h"

#include "resultformat.h"

#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <array>
#include <cmath>

using qutils::CQuorvexAPI;

namespace cli
{

namespace
{

const QString Original = QStringLiteral("original");

QString fraction(int part, int whole)
{
    return QStringLiteral("%1/%2").arg(part).arg(whole);
}

QString percent(int part, int whole)
{
    return whole > 0 ? QStringLiteral("%1 %").arg(100.0 * part / whole, 0, 'f', 1) : QStringLiteral("-");
}

QString oneDecimal(double value)
{
    return QString::number(value, 'f', 1);
}

QString padded(const QString& text, int width)
{
    return text.leftJustified(width);
}

} // namespace

QString SValidationPair::whyNotCompared() const
{
    if (!processed)
        return reason;
    QStringList why;
    if (result.status != CQuorvexAPI::Success)
        why << CQuorvexAPI::statusText(result.status);
    if (!result.reason.isEmpty())
        why << result.reason;
    return why.join(QStringLiteral(": "));
}

double quantile(QList<double> values, double q)
{
    if (values.isEmpty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const double at = qBound(0.0, q, 1.0) * (values.size() - 1);
    const int below = static_cast<int>(std::floor(at));
    const int above = qMin(below + 1, values.size() - 1);
    return values.at(below) + (at - below) * (values.at(above) - values.at(below));
}

SPceSpread pceSpread(const QList<double>& values)
{
    SPceSpread spread;
    spread.count = values.size();
    if (values.isEmpty())
        return spread;
    spread.minimum = *std::min_element(values.begin(), values.end());
    spread.maximum = *std::max_element(values.begin(), values.end());
    spread.p10 = quantile(values, 0.1);
    spread.median = quantile(values, 0.5);
    spread.p90 = quantile(values, 0.9);
    return spread;
}

double areaUnderCurve(const QList<double>& truePces, const QList<double>& falsePces)
{
    if (truePces.isEmpty() || falsePces.isEmpty())
        return -1.0;
    double wins = 0.0;
    for (const double t : truePces)
        for (const double f : falsePces)
            wins += t > f ? 1.0 : (t == f ? 0.5 : 0.0);
    return wins / (static_cast<double>(truePces.size()) * falsePces.size());
}

SPairCounts countPairs(const QList<SValidationPair>& pairs, const QString& variant)
{
    SPairCounts c;
    for (int i = 0; i < pairs.size(); ++i)
    {
        const SValidationPair& pair = pairs.at(i);
        if (!variant.isEmpty() && pair.variant != variant)
            continue;
        const double pce = pair.result.pce;
        if (pair.truePair())
        {
            if (!pair.compared())
            {
                ++c.trueNotCompared;
                continue;
            }
            ++c.trueCompared;
            c.trueMatched += pair.matched() ? 1 : 0;
            c.truePces.append(pce);
            if (c.weakestTrue < 0 || pce < pairs.at(c.weakestTrue).result.pce)
                c.weakestTrue = i;
        }
        else
        {
            if (!pair.compared())
            {
                ++c.falseNotCompared;
                continue;
            }
            ++c.falseCompared;
            c.falseMatched += pair.matched() ? 1 : 0;
            c.falsePces.append(pce);
            if (c.strongestFalse < 0 || pce > pairs.at(c.strongestFalse).result.pce)
                c.strongestFalse = i;
        }
    }
    return c;
}

QString pceText(const SPairCounts& counts, const QList<SValidationPair>& pairs, bool weakestTrue)
{
    const int index = weakestTrue ? counts.weakestTrue : counts.strongestFalse;
    return index < 0 ? QStringLiteral("-") : oneDecimal(pairs.at(index).result.pce);
}

QString summaryLine(const QList<SValidationPair>& pairs)
{
    const SPairCounts c = countPairs(pairs, Original);
    return QStringLiteral("true pairs matched %1, false pairs matched %2, weakest true PCE %3, "
                          "strongest false PCE %4")
        .arg(fraction(c.trueMatched, c.trueCompared), fraction(c.falseMatched, c.falseCompared),
             pceText(c, pairs, true), pceText(c, pairs, false));
}

QStringList confusionTable(const QList<SValidationPair>& pairs, const QStringList& fingerprints,
                           const QStringList& photoDevices)
{
    // matched, compared, not compared per cell.
    QHash<QString, std::array<int, 3>> cells;
    for (const SValidationPair& pair : pairs)
    {
        if (pair.variant != Original)
            continue;
        auto& cell = cells[pair.fingerprintDevice + QLatin1Char('\n') + pair.photoDevice];
        if (pair.compared())
        {
            cell[0] += pair.matched() ? 1 : 0;
            ++cell[1];
        }
        else
        {
            ++cell[2];
        }
    }
    int firstWidth = QStringLiteral("fingerprint").size();
    for (const QString& name : fingerprints)
        firstWidth = qMax(firstWidth, name.size());
    QList<int> widths;
    QStringList header = {padded(QStringLiteral("fingerprint"), firstWidth)};
    for (const QString& device : photoDevices)
    {
        int width = device.size();
        for (const QString& fingerprint : fingerprints)
        {
            const auto cell = cells.value(fingerprint + QLatin1Char('\n') + device);
            QString text = fraction(cell[0], cell[1]);
            if (cell[2] > 0)
                text += QStringLiteral(" +%1nc").arg(cell[2]);
            width = qMax(width, text.size());
        }
        widths.append(width);
        header << padded(device, width);
    }
    QStringList table = {header.join(QStringLiteral("  ")).trimmed()};
    for (const QString& fingerprint : fingerprints)
    {
        QStringList row = {padded(fingerprint, firstWidth)};
        for (int i = 0; i < photoDevices.size(); ++i)
        {
            const auto cell = cells.value(fingerprint + QLatin1Char('\n') + photoDevices.at(i));
            QString text = fraction(cell[0], cell[1]);
            if (cell[2] > 0)
                text += QStringLiteral(" +%1nc").arg(cell[2]);
            row << padded(text, widths.at(i));
        }
        table << row.join(QStringLiteral("  ")).trimmed();
    }
    return table;
}

QStringList statisticsLines(const QList<SValidationPair>& pairs)
{
    const SPairCounts c = countPairs(pairs, Original);
    QStringList lines;
    lines << QStringLiteral("True-positive rate at PCE >= 60: %1 = %2")
                 .arg(fraction(c.trueMatched, c.trueCompared), percent(c.trueMatched, c.trueCompared));
    lines << QStringLiteral("False-positive rate at PCE >= 60: %1 = %2")
                 .arg(fraction(c.falseMatched, c.falseCompared), percent(c.falseMatched, c.falseCompared));
    lines << QStringLiteral("Not compared: %1 true pairs, %2 false pairs")
                 .arg(c.trueNotCompared)
                 .arg(c.falseNotCompared);
    lines << QString();
    lines << QStringLiteral("PCE          pairs        min        10%     median        90%        max");
    const auto spreadLine = [](const QString& name, const QList<double>& values)
    {
        const SPceSpread s = pceSpread(values);
        QString line = QStringLiteral("%1 %2").arg(name, -12).arg(s.count, 5);
        for (const double v : {s.minimum, s.p10, s.median, s.p90, s.maximum})
            line += QStringLiteral(" %1").arg(s.count > 0 ? oneDecimal(v) : QStringLiteral("-"), 10);
        return line;
    };
    lines << spreadLine(QStringLiteral("true pairs"), c.truePces);
    lines << spreadLine(QStringLiteral("false pairs"), c.falsePces);
    lines << QString();
    const double auc = areaUnderCurve(c.truePces, c.falsePces);
    lines << QStringLiteral("AUC (a true pair scores above a false one): %1")
                 .arg(auc < 0 ? QStringLiteral("-") : QString::number(auc, 'f', 4));
    if (c.weakestTrue >= 0)
    {
        const SValidationPair& p = pairs.at(c.weakestTrue);
        lines << QStringLiteral("Weakest true pair: PCE %1, fingerprint %2, photo %3")
                     .arg(oneDecimal(p.result.pce), p.fingerprintDevice, p.photoPath);
    }
    if (c.strongestFalse >= 0)
    {
        const SValidationPair& p = pairs.at(c.strongestFalse);
        lines << QStringLiteral("Strongest false pair: PCE %1, fingerprint %2, photo %3 (of %4)")
                     .arg(oneDecimal(p.result.pce), p.fingerprintDevice, p.photoPath, p.photoDevice);
    }
    return lines;
}

QStringList variantTable(const QList<SValidationPair>& pairs, const QStringList& variants)
{
    QStringList lines = {
        QStringLiteral("variant           true matched  not compared  false matched  not compared"
                       "  weakest true PCE  strongest false PCE")};
    for (const QString& variant : variants)
    {
        const SPairCounts c = countPairs(pairs, variant);
        lines << QStringLiteral("%1 %2 %3 %4 %5 %6 %7")
                     .arg(variant, -17)
                     .arg(fraction(c.trueMatched, c.trueCompared), 12)
                     .arg(c.trueNotCompared, 13)
                     .arg(fraction(c.falseMatched, c.falseCompared), 14)
                     .arg(c.falseNotCompared, 13)
                     .arg(pceText(c, pairs, true), 17)
                     .arg(pceText(c, pairs, false), 20);
    }
    return lines;
}

QStringList validationText(const SValidationReport& report)
{
    QStringList lines;
    lines << QStringLiteral("Validation of %1: %2 devices, %3 learned")
                 .arg(report.setPath)
                 .arg(report.deviceLines.size())
                 .arg(report.fingerprints.size());
    lines << report.deviceLines;
    lines << QString();
    lines << QStringLiteral(
        "Original photos, matched/compared (+N nc: N pairs not compared); rows: fingerprint, "
        "columns: the photos' device");
    lines << confusionTable(report.pairs, report.fingerprints, report.photoDevices);
    lines << QString();
    lines << statisticsLines(report.pairs);
    if (report.variants.size() > 1)
    {
        lines << QString();
        lines << QStringLiteral("Changed copies of the questioned photos (matched/compared):");
        lines << variantTable(report.pairs, report.variants);
    }
    QStringList notCompared;
    for (const SValidationPair& pair : report.pairs)
        if (!pair.compared())
            notCompared << QStringLiteral("  %1 x %2 (%3): %4")
                               .arg(pair.fingerprintDevice, pair.photoPath, pair.variant,
                                    pair.whyNotCompared());
    if (!notCompared.isEmpty())
    {
        lines << QString();
        lines << QStringLiteral("Pairs not compared (%1), fingerprint x photo (variant): reason:")
                     .arg(notCompared.size());
        lines << notCompared;
    }
    return lines;
}

QString validationJsonLine(const SValidationPair& pair)
{
    const bool answered = pair.processed;
    const auto& r = pair.result;
    return QStringLiteral("{\"fingerprint\":%1,\"photo\":%2,\"variant\":%3,\"true_pair\":%4,\"pce\":%5,"
                          "\"probability\":%6,\"matched\":%7,\"status\":%8,\"reason\":%9}")
        .arg(jsonString(pair.fingerprintDevice), jsonString(QFileInfo(pair.photoPath).absoluteFilePath()),
             jsonString(pair.variant), pair.truePair() ? QStringLiteral("true") : QStringLiteral("false"),
             jsonNumber(answered ? r.pce : 0.0), jsonNumber(answered ? r.probability : 0.0),
             answered && r.matched ? QStringLiteral("true") : QStringLiteral("false"),
             jsonString(CQuorvexAPI::statusKey(answered ? r.status : CQuorvexAPI::Invalid)),
             jsonString(answered ? r.reason : pair.reason));
}

} // namespace cli
