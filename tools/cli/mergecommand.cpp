#include "commands.h"
#include "console.h"
#include "identifyformat.h"
#include "photoinputs.h"
#include "resultfile.h"
#include "resultformat.h"

#include "qutils/platform.h"
#include "qutils/quorvexapi.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>

using qutils::CQuorvexAPI;

namespace cli
{

namespace
{

// What a shard's lines are results of. Each kind has its own line format and
// writers; the position checks are shared.
enum class ELineKind
{
    Analyze,  // one photo against one fingerprint: "matched"
    Identify, // one photo against a library: "matches"
};

QString kindName(ELineKind kind)
{
    return kind == ELineKind::Analyze ? QStringLiteral("analyze") : QStringLiteral("identify");
}

// One line of a shard file and where it came from.
struct SShardLine
{
    QByteArray text;
    QString where; // "FILE line N"
    int index = 0;
    int total = 0;
    QString source;         // what the photo was compared with: fingerprint file or library folder
    SPhotoOutcome outcome;  // analyze lines
    SIdentifiedPhoto photo; // identify lines
};

// Reads the line as its kind has it, keeping what it was compared with.
bool readLine(ELineKind kind, SShardLine* line, QString* error)
{
    if (kind == ELineKind::Analyze)
    {
        if (!readJsonLine(line->text, &line->outcome, error))
            return false;
        line->source = line->outcome.fingerprint;
        return true;
    }
    if (!readIdentifyJsonLine(line->text, &line->photo, error))
        return false;
    line->source = line->photo.library;
    return true;
}

// The kind of a line by the key only that kind has, or an error text.
bool lineKind(const QByteArray& text, ELineKind* kind, QJsonObject* object, QString* error)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
    {
        *error = QStringLiteral("not a JSON object");
        return false;
    }
    *object = document.object();
    const bool analyze = object->contains(QStringLiteral("matched"));
    const bool identify = object->contains(QStringLiteral("matches"));
    if (analyze == identify)
    {
        *error = QStringLiteral("neither an 'analyze' nor an 'identify' result line");
        return false;
    }
    *kind = analyze ? ELineKind::Analyze : ELineKind::Identify;
    return true;
}

// The index and total every kind carries, as whole numbers with index < total.
bool readPosition(const QJsonObject& object, SShardLine* line, QString* error)
{
    const QJsonValue index = object.value(QStringLiteral("index"));
    const QJsonValue total = object.value(QStringLiteral("total"));
    const double i = index.toDouble(-1.0);
    const double t = total.toDouble(-1.0);
    if (!index.isDouble() || !total.isDouble() || i != std::floor(i) || t != std::floor(t) || i < 0 ||
        t < 1 || i >= t || t > std::numeric_limits<int>::max())
    {
        *error = QStringLiteral("no whole index below a whole total");
        return false;
    }
    line->index = static_cast<int>(i);
    line->total = static_cast<int>(t);
    return true;
}

// Reads every line of the files; all of one kind.
bool readShards(const QStringList& files, ELineKind* kind, QList<SShardLine>* lines, QString* error)
{
    bool kindKnown = false;
    for (const QString& path : files)
    {
        QFile file;
        if (!qutils::platform::openRegularFile(path, file))
        {
            *error = QFileInfo::exists(path) ? QStringLiteral("cannot read %1: not a readable file").arg(path)
                                             : QStringLiteral("no such file: %1").arg(path);
            return false;
        }
        for (int number = 1; !file.atEnd(); ++number)
        {
            const QString where = QStringLiteral("%1 line %2").arg(path).arg(number);
            // One byte more than allowed tells a long line from one just long enough.
            QByteArray text = file.readLine(MaximumJsonLineBytes + 2);
            if (text.endsWith('\n'))
                text.chop(1);
            else if (text.size() > MaximumJsonLineBytes)
            {
                *error = QStringLiteral("%1: the line is too long for a result line").arg(where);
                return false;
            }
            if (text.isEmpty())
                continue;
            SShardLine line;
            line.text = text;
            line.where = where;
            ELineKind lineKindRead = ELineKind::Analyze;
            QJsonObject object;
            QString why;
            if (!lineKind(text, &lineKindRead, &object, &why) || !readPosition(object, &line, &why))
            {
                *error = QStringLiteral("%1: %2").arg(where, why);
                return false;
            }
            // Named as what it is, before it is read as a line of its kind.
            if (kindKnown && lineKindRead != *kind)
            {
                *error = QStringLiteral("%1: an '%2' result among '%3' results; merge the shards of one run")
                             .arg(where, kindName(lineKindRead), kindName(*kind));
                return false;
            }
            if (!readLine(lineKindRead, &line, &why))
            {
                *error = QStringLiteral("%1: %2").arg(where, why);
                return false;
            }
            *kind = lineKindRead;
            kindKnown = true;
            lines->append(line);
        }
        if (file.error() != QFileDevice::NoError)
        {
            *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
            return false;
        }
    }
    if (!kindKnown)
    {
        *error = QStringLiteral("the files hold no result lines");
        return false;
    }
    return true;
}

// The lines in whole-run order, one per position, or why they are not one
// whole run: another total, a position twice with different results, or
// positions no file has.
bool orderLines(const QList<SShardLine>& lines, QList<SShardLine>* ordered, QString* error)
{
    const SShardLine& first = lines.first();
    QMap<int, int> byIndex; // sorted by index
    for (int i = 0; i < lines.size(); ++i)
    {
        const SShardLine& line = lines.at(i);
        if (line.total != first.total)
        {
            *error = QStringLiteral("%1: a run of %2 photos, but %3 is of %4; merge the shards of one run")
                         .arg(line.where)
                         .arg(line.total)
                         .arg(first.where)
                         .arg(first.total);
            return false;
        }
        const auto earlier = byIndex.constFind(line.index);
        if (earlier == byIndex.constEnd())
        {
            byIndex.insert(line.index, i);
            continue;
        }
        // A shard merged twice is harmless; two different results for one photo are not.
        if (lines.at(earlier.value()).text != line.text)
        {
            *error = QStringLiteral("%1 and %2 give different results for index %3")
                         .arg(lines.at(earlier.value()).where, line.where)
                         .arg(line.index);
            return false;
        }
    }
    if (byIndex.size() != first.total)
    {
        QStringList missing;
        for (int index = 0; index < first.total && missing.size() < 20; ++index)
            if (!byIndex.contains(index))
                missing << QString::number(index);
        const int count = first.total - byIndex.size();
        *error = QStringLiteral("%1 of the run's %2 photos are in none of the files (index %3%4); "
                                "merge the files of every shard")
                     .arg(count)
                     .arg(first.total)
                     .arg(missing.join(QStringLiteral(", ")),
                          count > missing.size() ? QStringLiteral(", ...") : QString());
        return false;
    }
    for (const int i : byIndex)
        ordered->append(lines.at(i));
    return true;
}

// How the table shows a photo: as a run from the working folder most likely
// named it, relative when below it; absolute otherwise.
QString tablePath(const QString& absolutePath)
{
    const QString relative = QDir::current().relativeFilePath(absolutePath);
    return relative.startsWith(QLatin1String("../")) || QDir::isAbsolutePath(relative) ? absolutePath
                                                                                       : relative;
}

// The folder holding every photo, for the report's heading.
QString commonFolder(const QList<SPhotoOutcome>& outcomes)
{
    QString folder = QFileInfo(outcomes.first().absolutePath).absolutePath();
    for (const SPhotoOutcome& outcome : outcomes)
    {
        while (!outcome.absolutePath.startsWith(
            folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/')))
        {
            const QString parent = QFileInfo(folder).absolutePath();
            if (parent == folder)
                break;
            folder = parent;
        }
    }
    return folder;
}

// Every line of one run was compared with the same fingerprint or library.
bool oneSource(ELineKind kind, const QList<SShardLine>& lines, QString* error)
{
    const SShardLine& first = lines.first();
    for (const SShardLine& line : lines)
    {
        if (line.source != first.source)
        {
            *error = QStringLiteral("%1: %2 against %3, but %4 against %5; merge the shards of one run")
                         .arg(line.where,
                              kind == ELineKind::Analyze ? QStringLiteral("matched")
                                                         : QStringLiteral("identified"),
                              line.source, first.where, first.source);
            return false;
        }
    }
    return true;
}

// What the whole run would have written, in each output's form and in
// whole-run order. The summary leaves out the times: no line carries them.
struct SMergedRun
{
    QStringList jsonLines;
    QString csvHeader;
    QList<QStringList> csvRows; // per photo
    QString tableHeader;
    QStringList tableLines;
    QStringList summary;
};

// Writes the run as the command itself would; report, when set, once every
// file is written. Whatever a report needs has been read before: a merge
// that cannot finish writes nothing.
int writeMerged(const SCommandLine& commandLine, const SMergedRun& run, const std::function<int()>& report)
{
    CResultOutputs results(commandLine);
    if (!results.open(run.csvHeader))
        return ExitFailure;
    for (int i = 0; i < run.jsonLines.size(); ++i)
        results.write(run.jsonLines.at(i), run.csvRows.at(i), run.tableHeader, run.tableLines.at(i));
    results.summary(run.summary);
    int exitCode = results.close();
    if (report && exitCode == ExitDone)
        exitCode = report();
    exitCode = checkStandardOutput(exitCode);
    return exitCode;
}

int mergeAnalyze(const SCommandLine& commandLine, const QList<SShardLine>& lines)
{
    const QString fingerprintPath = lines.first().source;
    std::shared_ptr<const CFingerprint> fingerprint;
    if (!commandLine.reportFile.isEmpty())
    {
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        fingerprint = CFingerprint::load(QFileInfo(fingerprintPath), &status);
        if (!fingerprint)
        {
            CConsole::error(
                QStringLiteral("cannot write the report: the fingerprint file %1 the results name "
                               "cannot be read (%2)")
                    .arg(fingerprintPath, CQuorvexAPI::statusText(status)));
            return ExitFailure;
        }
    }

    QList<SPhotoOutcome> outcomes;
    SMergedRun run;
    run.csvHeader = csvHeader();
    run.tableHeader = tableHeader();
    for (const SShardLine& line : lines)
    {
        outcomes.append(line.outcome);
        outcomes.last().path = tablePath(line.outcome.absolutePath);
        run.jsonLines << jsonLine(outcomes.last());
        run.csvRows.append({csvLine(outcomes.last())});
        run.tableLines << tableLine(outcomes.last());
    }
    run.summary = summaryLines(summarize(outcomes, 0.0)).mid(0, 4);
    std::function<int()> report;
    if (fingerprint)
        report = [&]
        {
            return writeReport(outcomes, fingerprintPath, fingerprint->properties(), commonFolder(outcomes),
                               commandLine.reportFile, commandLine.caseNumber, commandLine.examiner,
                               commandLine.notes);
        };
    return writeMerged(commandLine, run, report);
}

int mergeIdentify(const SCommandLine& commandLine, const QList<SShardLine>& lines)
{
    const QString folder = lines.first().source;
    std::shared_ptr<const CFingerprintLibrary> library;
    if (!commandLine.reportFile.isEmpty())
    {
        QString error;
        library = CFingerprintLibrary::open(folder, &error);
        if (!library || library->usableCount() == 0)
        {
            CConsole::error(QStringLiteral("cannot write the report: the fingerprint library %1 the results "
                                           "name %2")
                                .arg(folder, library ? QStringLiteral("has no usable fingerprint file (.fnp)")
                                                     : QStringLiteral("cannot be read (%1)").arg(error)));
            return ExitFailure;
        }
    }

    QList<SIdentifiedPhoto> photos;
    SMergedRun run;
    run.csvHeader = identifyCsvHeader();
    run.tableHeader = identifyTableHeader();
    for (const SShardLine& line : lines)
    {
        photos.append(line.photo);
        photos.last().outcome.path = tablePath(line.photo.outcome.absolutePath);
        run.jsonLines << identifyJsonLine(photos.last());
        run.csvRows.append(identifyCsvRows(photos.last()));
        run.tableLines << identifyTableLine(photos.last());
    }
    run.summary = identifySummaryLines(photos, 0.0).mid(0, 5);
    std::function<int()> report;
    if (library)
        report = [&]
        {
            return writeIdentifyReport(photos, *library, commandLine.reportFile, commandLine.caseNumber,
                                       commandLine.examiner, commandLine.notes);
        };
    return writeMerged(commandLine, run, report);
}

} // namespace

int runMerge(const SCommandLine& commandLine)
{
    // Checked before anything is read or written: a shard must never be overwritten.
    const QString outputError = outputProblem(namedOutputs(commandLine), commandLine.paths);
    if (!outputError.isEmpty())
    {
        CConsole::error(outputError + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    }

    ELineKind kind = ELineKind::Analyze;
    QList<SShardLine> lines;
    QList<SShardLine> ordered;
    QString error;
    if (!readShards(commandLine.paths, &kind, &lines, &error) || !orderLines(lines, &ordered, &error) ||
        !oneSource(kind, ordered, &error))
    {
        CConsole::error(error);
        return ExitFailure;
    }
    CConsole::note(QStringLiteral("merging %1 '%2' results from %3 files")
                       .arg(ordered.size())
                       .arg(kindName(kind))
                       .arg(commandLine.paths.size()));
    return kind == ELineKind::Analyze ? mergeAnalyze(commandLine, ordered)
                                      : mergeIdentify(commandLine, ordered);
}

} // namespace cli
