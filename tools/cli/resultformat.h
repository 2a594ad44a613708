#pragma once

#include "qutils/quorvexapi.h"

#include <QString>
#include <QStringList>

namespace cli
{

// One photo's outcome as the tool reports it. processed is false for a photo
// the analysis never reached (it was interrupted).
struct SPhotoOutcome
{
    QString path;         // as given
    QString absolutePath; // for the machine-readable files
    bool processed = false;
    QString reason; // why a photo was not processed (the result carries the reason of a failed one)
    qutils::CQuorvexAPI::SAnalysisResult result;
    QString sha256; // of the file as analysed, in hex; empty when not hashed
    int index = 0;       // position in the whole input list, before any shard was taken
    int total = 0;       // the whole input list's length
    QString fingerprint; // the fingerprint file, absolute
};

// The outcome of a file the run could not analyse at all (it is listed,
// never dropped).
SPhotoOutcome refusedOutcome(const QString& path, const QString& reason);

// A JSON string literal, quotes included.
QString jsonString(const QString& text);
// Enough digits to tell results apart; null for NaN and infinity, which JSON lacks.
QString jsonNumber(double value);

// "very high", ..., "not found", "not compared", or "not processed".
QString className(const SPhotoOutcome& outcome);

// {"path":..,"matched":..,"compared":..,"probability":..,"correlation":..,"pce":..,"scale":..,
//  "status":..,"class":..,"reason":..,"sha256":..,"index":..,"total":..,"fingerprint":..,
//  "orientation":..} in this key order, on one line (sha256 null when the file was not hashed).
// compared is true only for a photo the engine correlated with the fingerprint.
QString jsonLine(const SPhotoOutcome& outcome);

// The longest line readJsonLine takes: far above any real one, low enough
// that a file that is no result file is not read whole into memory.
constexpr int MaximumJsonLineBytes = 1 << 20;

// The outcome a line of jsonLine stands for (path as given is the absolute
// path). False with the reason when the line is not such a line: not JSON, a
// key missing or of the wrong type, or a line that jsonLine would not write
// byte for byte.
bool readJsonLine(const QByteArray& line, SPhotoOutcome* outcome, QString* error);

// The CSV columns, the same as the JSON keys.
QString csvHeader();
QString csvLine(const SPhotoOutcome& outcome);
// A field quoted when it holds a comma, a quote or a line break; quotes doubled.
QString csvField(const QString& text);

// The human table: a header and one line per photo (class, probability, PCE,
// path, and the status text of a failed photo or why one was not compared).
QString tableHeader();
QString tableLine(const SPhotoOutcome& outcome);

// Counts of a finished or interrupted analysis.
struct SSummary
{
    int analyzed = 0; // entries of the list with a result
    int total = 0;
    int found = 0;
    int notFound = 0;
    int notCompared = 0; // read but never compared with the fingerprint; not in notFound
    double seconds = 0.0;
};

SSummary summarize(const QList<SPhotoOutcome>& outcomes, double seconds);
// "Photos analyzed: 12/14", "Fingerprints found: 5", "Fingerprints not found: 6", "Not compared: 1",
// "Time elapsed: 3.21 s", "Average time per image: 0.27 s".
QStringList summaryLines(const SSummary& summary);

} // namespace cli
