#include "resultformat.h"

#include "jsonfields.h"
#include "resultclass.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

using qutils::CQuorvexAPI;

namespace cli
{

SPhotoOutcome refusedOutcome(const QString& path, const QString& reason)
{
    SPhotoOutcome outcome;
    outcome.path = path;
    outcome.absolutePath = QFileInfo(path).absoluteFilePath();
    outcome.reason = reason;
    return outcome;
}

namespace
{

// Why the photo was not processed, or the engine's account of a failure.
QString reason(const SPhotoOutcome& outcome)
{
    return outcome.processed ? outcome.result.reason : outcome.reason;
}

QString statusKey(const SPhotoOutcome& outcome)
{
    return CQuorvexAPI::statusKey(outcome.processed ? outcome.result.status : CQuorvexAPI::Invalid);
}

// The engine correlated the photo with the fingerprint: it has a verdict.
bool compared(const SPhotoOutcome& outcome)
{
    return outcome.processed && outcome.result.status == CQuorvexAPI::Success;
}

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

} // namespace

QString jsonString(const QString& text)
{
    // QJsonDocument does the escaping; the array brackets are cut off.
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

QString jsonNumber(double value)
{
    return std::isfinite(value) ? QString::number(value, 'g', 12) : QStringLiteral("null");
}

QString className(const SPhotoOutcome& outcome)
{
    return resultClassName(outcome.processed ? classifyResult(outcome.result) : EResultClass::NotProcessed);
}

QString jsonLine(const SPhotoOutcome& outcome)
{
    const auto& r = outcome.result;
    // Two texts, each filled by one arg(): a second arg() on the whole line
    // would also replace a "%1" in a path the first one put in.
    return QStringLiteral("{\"path\":%1,\"matched\":%2,\"compared\":%3,\"probability\":%4,\"correlation\":%5,"
                          "\"pce\":%6,\"scale\":%7,\"status\":%8,\"class\":%9")
               .arg(jsonString(outcome.absolutePath), boolText(outcome.processed && r.matched),
                    boolText(compared(outcome)), jsonNumber(outcome.processed ? r.probability : 0.0),
                    jsonNumber(outcome.processed ? r.correlation : 0.0),
                    jsonNumber(outcome.processed ? r.pce : 0.0),
                    jsonNumber(outcome.processed ? r.scale : 1.0), jsonString(statusKey(outcome)),
                    jsonString(className(outcome))) +
           QStringLiteral(",\"reason\":%1,\"sha256\":%2,\"index\":%3,\"total\":%4,\"fingerprint\":%5,"
                          "\"orientation\":%6}")
               .arg(jsonString(reason(outcome)),
                    outcome.sha256.isEmpty() ? QStringLiteral("null") : jsonString(outcome.sha256),
                    QString::number(outcome.index), QString::number(outcome.total),
                    jsonString(outcome.fingerprint), QString::number(outcome.processed ? r.orientation : 0));
}

bool readJsonLine(const QByteArray& line, SPhotoOutcome* outcome, QString* error)
{
    QJsonObject object;
    if (!CJsonFields::parse(line, &object, error))
        return false;
    CJsonFields fields(object);
    SPhotoOutcome read;
    read.absolutePath = fields.text("path");
    read.path = read.absolutePath;
    auto& r = read.result;
    r.matched = fields.flag("matched");
    fields.flag("compared");
    r.probability = fields.number("probability");
    r.correlation = fields.number("correlation");
    r.pce = fields.number("pce");
    r.scale = fields.number("scale");
    bool known = false;
    r.status = CQuorvexAPI::statusFromKey(fields.text("status"), &known);
    if (!known)
        fields.addProblem(QStringLiteral("status"));
    read.processed = fields.text("class") != resultClassName(EResultClass::NotProcessed);
    const QString why = fields.text("reason");
    (read.processed ? r.reason : read.reason) = why;
    read.sha256 = fields.text("sha256", true);
    read.index = fields.whole("index", 0);
    read.total = fields.whole("total", 1);
    read.fingerprint = fields.text("fingerprint");
    r.orientation = fields.whole("orientation", 0);
    *error = fields.problemText();
    if (!error->isEmpty())
        return false;
    if (read.index >= read.total)
    {
        *error = QStringLiteral("index %1 is not below total %2").arg(read.index).arg(read.total);
        return false;
    }
    // Every value above is also checked against the others (a class that
    // does not fit the numbers, a changed key order, an edited number).
    if (jsonLine(read).toUtf8() != line)
    {
        *error = QStringLiteral("not a line as 'analyze' writes it (edited, or from another version?)");
        return false;
    }
    *outcome = read;
    return true;
}

QString csvHeader()
{
    return QStringLiteral("path,matched,compared,probability,correlation,pce,scale,status,class,reason,sha256,"
                          "index,total,fingerprint,orientation");
}

QString csvField(const QString& text)
{
    if (!text.contains(QLatin1Char(',')) && !text.contains(QLatin1Char('"')) &&
        !text.contains(QLatin1Char('\n')) && !text.contains(QLatin1Char('\r')))
        return text;
    QString quoted = text;
    quoted.replace(QLatin1Char('"'), QStringLiteral("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

QString csvLine(const SPhotoOutcome& outcome)
{
    const auto& r = outcome.result;
    const QStringList fields = {
        csvField(outcome.absolutePath),
        boolText(outcome.processed && r.matched),
        boolText(compared(outcome)),
        jsonNumber(outcome.processed ? r.probability : 0.0),
        jsonNumber(outcome.processed ? r.correlation : 0.0),
        jsonNumber(outcome.processed ? r.pce : 0.0),
        jsonNumber(outcome.processed ? r.scale : 1.0),
        statusKey(outcome),
        className(outcome),
        csvField(reason(outcome)),
        outcome.sha256,
        QString::number(outcome.index),
        QString::number(outcome.total),
        csvField(outcome.fingerprint),
        QString::number(outcome.processed ? r.orientation : 0),
    };
    return fields.join(QLatin1Char(','));
}

QString tableHeader()
{
    return QStringLiteral("%1 %2 %3  %4")
        .arg(QStringLiteral("class"), -13)
        .arg(QStringLiteral("probability"), 11)
        .arg(QStringLiteral("PCE"), 10)
        .arg(QStringLiteral("path"));
}

QString tableLine(const SPhotoOutcome& outcome)
{
    const auto& r = outcome.result;
    // No numbers where no comparison made any.
    const bool numbers = outcome.processed && !isNotCompared(r);
    QString line =
        QStringLiteral("%1 %2 %3  %4")
            .arg(className(outcome), -13)
            .arg(numbers ? QString::number(r.probability, 'f', 6) : QStringLiteral("-"), 11)
            .arg(numbers ? QString::number(r.pce, 'f', 1) : QStringLiteral("-"), 10)
            .arg(outcome.path);
    if (outcome.processed && isNotCompared(r))
        return line + QStringLiteral("  ") + notComparedText(r);
    if (outcome.processed && !scaleText(r).isEmpty())
        line += QStringLiteral("  (scale %1)").arg(scaleText(r));
    QStringList why;
    if (outcome.processed && r.status != CQuorvexAPI::Success)
        why << CQuorvexAPI::statusText(r.status);
    if (!reason(outcome).isEmpty())
        why << reason(outcome);
    if (!why.isEmpty())
        line += QStringLiteral("  (%1)").arg(why.join(QStringLiteral(": ")));
    return line;
}

SSummary summarize(const QList<SPhotoOutcome>& outcomes, double seconds)
{
    SSummary summary;
    summary.total = outcomes.size();
    summary.seconds = seconds;
    for (const SPhotoOutcome& outcome : outcomes)
    {
        if (!outcome.processed)
            continue;
        ++summary.analyzed;
        const EResultClass resultClass = classifyResult(outcome.result);
        if (resultClass == EResultClass::NotCompared)
            ++summary.notCompared;
        else if (resultClass == EResultClass::NotFound)
            ++summary.notFound;
        else
            ++summary.found;
    }
    return summary;
}

QStringList summaryLines(const SSummary& summary)
{
    const QString average = summary.analyzed > 0 ? QString::number(summary.seconds / summary.analyzed, 'f', 2)
                                                 : QStringLiteral("-");
    return {
        QStringLiteral("Photos analyzed: %1/%2").arg(summary.analyzed).arg(summary.total),
        QStringLiteral("Fingerprints found: %1").arg(summary.found),
        QStringLiteral("Fingerprints not found: %1").arg(summary.notFound),
        QStringLiteral("Not compared: %1").arg(summary.notCompared),
        QStringLiteral("Time elapsed: %1 s").arg(summary.seconds, 0, 'f', 2),
        QStringLiteral("Average time per image: %1 s").arg(average),
    };
}

} // namespace cli
