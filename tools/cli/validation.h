#pragma once

#include "qutils/quorvexapi.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace cli
{

// One questioned photo matched against one device's fingerprint, possibly
// through a changed copy of the photo.
struct SValidationPair
{
    QString fingerprintDevice;
    QString photoDevice;
    QString photoPath;      // the original photo, as listed
    QString variant;        // "original", "rotated-90", ...
    bool processed = false; // the engine gave an answer
    QString reason;         // why the pair was not sent to the engine (a copy that could not be made)
    qutils::CQuorvexAPI::SAnalysisResult result;

    bool truePair() const { return fingerprintDevice == photoDevice; }
    // The engine compared the two: a failed photo or one it could not place
    // on the fingerprint ("size") is neither a match nor a miss.
    bool compared() const
    {
        return processed && result.status == qutils::CQuorvexAPI::Success && result.reason.isEmpty();
    }
    bool matched() const { return compared() && result.matched; }
    // The engine's reason, or ours when the engine never saw the pair.
    QString whyNotCompared() const;
};

// The five-number summary of a set of PCE values.
struct SPceSpread
{
    int count = 0;
    double minimum = 0.0;
    double p10 = 0.0;
    double median = 0.0;
    double p90 = 0.0;
    double maximum = 0.0;
};

// Quantile q (0..1) by linear interpolation between the order statistics;
// values need not be sorted. 0 for an empty list.
double quantile(QList<double> values, double q);
SPceSpread pceSpread(const QList<double>& values);
// The probability that a true pair scores above a false one, ties counting
// half; -1 when either list is empty.
double areaUnderCurve(const QList<double>& truePces, const QList<double>& falsePces);

// The counts of one set of pairs (one variant, or one cell of the table).
struct SPairCounts
{
    int trueMatched = 0;
    int trueCompared = 0;
    int trueNotCompared = 0;
    int falseMatched = 0;
    int falseCompared = 0;
    int falseNotCompared = 0;
    QList<double> truePces;  // compared pairs only
    QList<double> falsePces; // compared pairs only
    int weakestTrue = -1;    // index into the pairs given, -1 when none
    int strongestFalse = -1;
};

// Counts the pairs of one variant ("" for all).
SPairCounts countPairs(const QList<SValidationPair>& pairs, const QString& variant);

// One decimal, or "-" when there is no such pair.
QString pceText(const SPairCounts& counts, const QList<SValidationPair>& pairs, bool weakestTrue);

// "true pairs matched 15/15, false pairs matched 0/75, weakest true PCE 139.2, strongest false PCE 4.6"
QString summaryLine(const QList<SValidationPair>& pairs);

// The confusion table of the original photos: rows are fingerprints, columns
// the photos' devices, cells matched/compared and the pairs not compared.
QStringList confusionTable(const QList<SValidationPair>& pairs, const QStringList& fingerprints,
                           const QStringList& photoDevices);

// The rates, spreads, AUC and extreme pairs of the original photos.
QStringList statisticsLines(const QList<SValidationPair>& pairs);

// One line per variant present, in the order given.
QStringList variantTable(const QList<SValidationPair>& pairs, const QStringList& variants);

// What a study found, for the console and the report.
struct SValidationReport
{
    QString setPath;
    QStringList deviceLines;  // one per device: learned, or left out with the reason
    QStringList fingerprints; // the devices learned
    QStringList photoDevices; // the devices whose photos were matched
    QStringList variants;     // "original" first
    QList<SValidationPair> pairs;
};

// Everything but the summary line: devices, confusion table, statistics,
// variants and the pairs not compared.
QStringList validationText(const SValidationReport& report);

// One JSON object on a line: fingerprint, photo (absolute), variant,
// true_pair, pce, probability, matched, status, reason.
QString validationJsonLine(const SValidationPair& pair);

} // namespace cli
