#include "identifyformat.h"

#include "jsonfields.h"
#include "resultclass.h"

#include <QFileInfo>
#include <QJsonArray>

using qutils::CQuorvexAPI;

namespace cli
{

namespace
{

using SCandidate = CFingerprintLibrary::SCandidate;

QString candidateClass(const SCandidate& candidate)
{
    return resultClassName(classifyResult(candidate.result));
}

QString candidateJson(const SCandidate& candidate)
{
    const auto& r = candidate.result;
    return QStringLiteral("{\"fingerprint\":%1,\"pce\":%2,\"probability\":%3,\"class\":%4,\"scale\":%5,"
                          "\"orientation\":%6}")
        .arg(jsonString(candidate.fingerprintPath), jsonNumber(r.pce), jsonNumber(r.probability),
             jsonString(candidateClass(candidate)), jsonNumber(r.scale), QString::number(r.orientation));
}

// A match or the nearest fingerprint as candidateJson writes it. The class is
// all the line keeps of the engine's verdict on it.
SCandidate readCandidate(const QJsonValue& value, const QString& name, CJsonFields* line)
{
    SCandidate candidate;
    if (!value.isObject())
    {
        line->addProblem(name);
        return candidate;
    }
    CJsonFields fields(value.toObject(), name + QLatin1Char('.'));
    candidate.fingerprintPath = fields.text("fingerprint");
    auto& r = candidate.result;
    r.status = CQuorvexAPI::Success;
    r.pce = fields.number("pce");
    r.probability = fields.number("probability");
    r.matched = fields.text("class") != resultClassName(EResultClass::NotFound);
    r.scale = fields.number("scale");
    r.orientation = fields.whole("orientation", 0);
    line->addProblems(fields.problems());
    return candidate;
}

QString candidateText(const SCandidate& candidate)
{
    // One arg() for all: a second would also replace a "%1" in the file name.
    return QStringLiteral("%1 (%2, PCE %3)")
        .arg(QFileInfo(candidate.fingerprintPath).fileName(), candidateClass(candidate),
             QString::number(candidate.result.pce, 'f', 1));
}

QString statusKeyOf(const SIdentifiedPhoto& photo)
{
    return CQuorvexAPI::statusKey(photo.outcome.processed ? photo.identification.status
                                                          : CQuorvexAPI::Invalid);
}

QString reasonOf(const SIdentifiedPhoto& photo)
{
    return photo.outcome.processed ? photo.identification.reason : photo.outcome.reason;
}

} // namespace

EVerdict verdictOf(const SIdentifiedPhoto& photo)
{
    if (!photo.outcome.processed)
        return EVerdict::NotProcessed;
    const auto& id = photo.identification;
    if (id.status == CQuorvexAPI::ImageFingerprintInconsistentSize)
        return EVerdict::NotCompared;
    if (id.status != CQuorvexAPI::Success)
        return EVerdict::Failed;
    if (id.compared < 1)
        return EVerdict::NotCompared;
    return id.matches.isEmpty() ? EVerdict::NoCamera : EVerdict::Identified;
}

QString verdictText(const SIdentifiedPhoto& photo)
{
    const auto& id = photo.identification;
    switch (verdictOf(photo))
    {
    case EVerdict::Identified:
    {
        QStringList cameras;
        for (const SCandidate& match : id.matches)
            cameras << candidateText(match);
        return cameras.join(QStringLiteral(", "));
    }
    case EVerdict::NoCamera:
        // How close the nearest camera came is part of the finding.
        if (id.hasBest)
            return QStringLiteral("no camera in the library (nearest %1, PCE %2)")
                .arg(QFileInfo(id.best.fingerprintPath).fileName(),
                     QString::number(id.best.result.pce, 'f', 1));
        return QStringLiteral("no camera in the library");
    case EVerdict::NotCompared:
        return QStringLiteral("not compared: %1").arg(id.reason);
    case EVerdict::Failed:
        return id.reason.isEmpty()
                   ? QStringLiteral("failed: %1").arg(CQuorvexAPI::statusText(id.status))
                   : QStringLiteral("failed: %1 (%2)").arg(CQuorvexAPI::statusText(id.status), id.reason);
    case EVerdict::NotProcessed:
        return QStringLiteral("not processed: %1").arg(photo.outcome.reason);
    }
    return QString();
}

QString identifyJsonLine(const SIdentifiedPhoto& photo)
{
    const auto& id = photo.identification;
    const bool processed = photo.outcome.processed;
    QStringList matches;
    for (const SCandidate& match : id.matches)
        if (processed)
            matches << candidateJson(match);
    // The library is appended, not put in by arg(): a second arg() would also
    // replace a "%1" in the text the first one put in.
    return QStringLiteral("{\"path\":%1,\"sha256\":%2,\"compared\":%3,\"matches\":[%4],\"status\":%5,"
                          "\"reason\":%6,\"best\":%7,\"index\":%8,\"total\":%9")
               .arg(jsonString(photo.outcome.absolutePath),
                    photo.outcome.sha256.isEmpty() ? QStringLiteral("null")
                                                   : jsonString(photo.outcome.sha256),
                    QString::number(processed ? id.compared : 0), matches.join(QLatin1Char(',')),
                    jsonString(statusKeyOf(photo)), jsonString(reasonOf(photo)),
                    processed && id.hasBest ? candidateJson(id.best) : QStringLiteral("null"),
                    QString::number(photo.index), QString::number(photo.total)) +
           QStringLiteral(",\"library\":") + jsonString(photo.library) + QLatin1Char('}');
}

bool readIdentifyJsonLine(const QByteArray& line, SIdentifiedPhoto* photo, QString* error)
{
    QJsonObject object;
    if (!CJsonFields::parse(line, &object, error))
        return false;
    CJsonFields fields(object);
    SIdentifiedPhoto read;
    read.outcome.absolutePath = fields.text("path");
    read.outcome.path = read.outcome.absolutePath;
    read.outcome.sha256 = fields.text("sha256", true);
    auto& id = read.identification;
    id.compared = fields.whole("compared", 0);
    const QJsonValue matches = fields.value("matches");
    if (!matches.isArray())
        fields.addProblem(QStringLiteral("matches"));
    for (const QJsonValue& match : matches.toArray())
        id.matches.append(readCandidate(match, QStringLiteral("matches"), &fields));
    bool known = false;
    id.status = CQuorvexAPI::statusFromKey(fields.text("status"), &known);
    if (!known)
        fields.addProblem(QStringLiteral("status"));
    // The engine never answers "invalid": only a photo it never reached has it.
    read.outcome.processed = id.status != CQuorvexAPI::Invalid;
    (read.outcome.processed ? id.reason : read.outcome.reason) = fields.text("reason");
    const QJsonValue best = fields.value("best");
    id.hasBest = !best.isNull();
    if (id.hasBest)
        id.best = readCandidate(best, QStringLiteral("best"), &fields);
    read.index = fields.whole("index", 0);
    read.total = fields.whole("total", 1);
    read.library = fields.text("library");
    *error = fields.problemText();
    if (!error->isEmpty())
        return false;
    if (read.index >= read.total)
    {
        *error = QStringLiteral("index %1 is not below total %2").arg(read.index).arg(read.total);
        return false;
    }
    // Also checks the values against each other (a class that does not fit
    // the probability, matches on a photo never compared, a changed key order).
    if (identifyJsonLine(read).toUtf8() != line)
    {
        *error = QStringLiteral("not a line as 'identify' writes it (edited, or from another version?)");
        return false;
    }
    *photo = read;
    return true;
}

QString identifyCsvHeader()
{
    return QStringLiteral(
        "path,sha256,compared,fingerprint,pce,probability,class,scale,orientation,status,reason,index,total");
}

QStringList identifyCsvRows(const SIdentifiedPhoto& photo)
{
    const auto& id = photo.identification;
    const auto row = [&photo](const SCandidate* match)
    {
        const QStringList fields = {
            csvField(photo.outcome.absolutePath),
            photo.outcome.sha256,
            QString::number(photo.outcome.processed ? photo.identification.compared : 0),
            match ? csvField(match->fingerprintPath) : QString(),
            match ? jsonNumber(match->result.pce) : QString(),
            match ? jsonNumber(match->result.probability) : QString(),
            match ? candidateClass(*match) : QString(),
            match ? jsonNumber(match->result.scale) : QString(),
            match ? QString::number(match->result.orientation) : QString(),
            statusKeyOf(photo),
            csvField(reasonOf(photo)),
            QString::number(photo.index),
            QString::number(photo.total),
        };
        return fields.join(QLatin1Char(','));
    };
    QStringList rows;
    if (photo.outcome.processed)
        for (const SCandidate& match : id.matches)
            rows << row(&match);
    if (rows.isEmpty())
        rows << row(nullptr);
    return rows;
}

QString identifyTableHeader()
{
    return QStringLiteral("photo: camera (class, PCE)");
}

QString identifyTableLine(const SIdentifiedPhoto& photo)
{
    return QStringLiteral("%1: %2").arg(photo.outcome.path, verdictText(photo));
}

QStringList identifySummaryLines(const QList<SIdentifiedPhoto>& photos, double seconds)
{
    int counts[5] = {};
    for (const SIdentifiedPhoto& photo : photos)
        ++counts[static_cast<int>(verdictOf(photo))];
    return {
        QStringLiteral("Photos identified: %1").arg(counts[static_cast<int>(EVerdict::Identified)]),
        QStringLiteral("No camera in the library: %1").arg(counts[static_cast<int>(EVerdict::NoCamera)]),
        QStringLiteral("Not compared: %1").arg(counts[static_cast<int>(EVerdict::NotCompared)]),
        QStringLiteral("Failed: %1").arg(counts[static_cast<int>(EVerdict::Failed)]),
        QStringLiteral("Not processed: %1").arg(counts[static_cast<int>(EVerdict::NotProcessed)]),
        QStringLiteral("Time elapsed: %1 s").arg(seconds, 0, 'f', 2),
    };
}

} // namespace cli
