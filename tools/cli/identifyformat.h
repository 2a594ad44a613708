#pragma once

#include "fingerprintlibrary.h"
#include "resultformat.h"

#include <QString>
#include <QStringList>

namespace cli
{

// One photo identified against a library: the outcome as analyze has it
// (path, processed, sha256; result carries the photo's status and reason),
// the engine's account, and the photo's place in the whole input.
struct SIdentifiedPhoto
{
    SPhotoOutcome outcome;
    CFingerprintLibrary::SIdentification identification;
    int index = 0;
    int total = 0;
    QString library; // the library's folder, absolute
};

enum class EVerdict
{
    Identified,
    NoCamera, // compared with at least one fingerprint, none matched
    NotCompared,
    Failed,
    NotProcessed,
};

EVerdict verdictOf(const SIdentifiedPhoto& photo);

// "camera-a.fnp (very high, PCE 812.4)", "no camera in the library",
// "not compared: <reason>", "failed: <status text> (<reason>)" or
// "not processed: <reason>".
QString verdictText(const SIdentifiedPhoto& photo);

// {"path":..,"sha256":..,"compared":..,"matches":[..],"status":..,"reason":..,"best":..,
//  "index":..,"total":..,"library":..}; each match and best: {"fingerprint":..,"pce":..,
// "probability":..,"class":..,"scale":..,"orientation":..}.
QString identifyJsonLine(const SIdentifiedPhoto& photo);

// The photo a line of identifyJsonLine stands for (path as given is the
// absolute path; the engine's correlations, which the line leaves out, are 0).
// False with the reason when the line is not such a line: not JSON, a key
// missing or of the wrong type, or a line identifyJsonLine would not write
// byte for byte.
bool readIdentifyJsonLine(const QByteArray& line, SIdentifiedPhoto* photo, QString* error);

// One row per matching fingerprint, or one with an empty fingerprint.
QString identifyCsvHeader();
QStringList identifyCsvRows(const SIdentifiedPhoto& photo);

QString identifyTableHeader();
QString identifyTableLine(const SIdentifiedPhoto& photo);

// "Photos identified: 3", "No camera in the library: 1", "Not compared: 1",
// "Failed: 0", "Not processed: 0", "Time elapsed: 1.20 s".
QStringList identifySummaryLines(const QList<SIdentifiedPhoto>& photos, double seconds);

} // namespace cli
