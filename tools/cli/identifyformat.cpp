#include "identifyformat.h"

#include "resultclass.h"

#include <QFileInfo>

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

QString candidateText(const SCandidate& candidate)
{
    return QStringLiteral("%1 (%2, PCE %3)")
        .arg(QFileInfo(candidate.fingerprintPath).fileName(), candidateClass(candidate))
        .arg(candidate.result.pce, 0, 'f', 1);
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
                .arg(QFileInfo(id.best.fingerprintPath).fileName())
                .arg(id.best.result.pce, 0, 'f', 1);
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
    return QStringLiteral("{\"path\":%1,\"sha256\":%2,\"compared\":%3,\"matches\":[%4],\"status\":%5,"
                          "\"reason\":%6,\"best\":%7,\"index\":%8,\"total\":%9}")
        .arg(jsonString(photo.outcome.absolutePath),
             photo.outcome.sha256.isEmpty() ? QStringLiteral("null") : jsonString(photo.outcome.sha256),
             QString::number(processed ? id.compared : 0), matches.join(QLatin1Char(',')),
             jsonString(statusKeyOf(photo)), jsonString(reasonOf(photo)),
             processed && id.hasBest ? candidateJson(id.best) : QStringLiteral("null"),
             QString::number(photo.index), QString::number(photo.total));
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
