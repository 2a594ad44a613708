#include "commands.h"
#include "console.h"
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
    SPhotoOutcome outcome; // analyze lines
};

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
            if (!lineKind(text, &lineKindRead, &object, &why) || !readPosition(object, &line, &why) ||
                (lineKindRead == ELineKind::Analyze && !readJsonLine(text, &line.outcome, &why)))
            {
                *error = QStringLiteral("%1: %2").arg(where, why);
                return false;
            }
            if (kindKnown && lineKindRead != *kind)
            {
                *error = QStringLiteral("%1: an '%2' result among '%3' results; merge the shards of one run")
                             .arg(where, kindName(lineKindRead), kindName(*kind));
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

int mergeAnalyze(const SCommandLine& commandLine, const QList<SShardLine>& lines)
{
    const QString fingerprintPath = lines.first().outcome.fingerprint;
    QList<SPhotoOutcome> outcomes;
    for (const SShardLine& line : lines)
    {
        if (line.outcome.fingerprint != fingerprintPath)
        {
            CConsole::error(
                QStringLiteral("%1: matched against %2, but %3 against %4; merge the shards of one run")
                    .arg(line.where, line.outcome.fingerprint, lines.first().where, fingerprintPath));
            return ExitFailure;
        }
        outcomes.append(line.outcome);
        outcomes.last().path = tablePath(line.outcome.absolutePath);
    }

    // The report needs the fingerprint's properties: read before anything is written.
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

    const bool jsonToStdout = commandLine.jsonFile == QLatin1String("-");
    std::unique_ptr<CResultFile> jsonFile;
    std::unique_ptr<CResultFile> csvFile;
    if (!commandLine.jsonFile.isEmpty() && !jsonToStdout)
        jsonFile = std::make_unique<CResultFile>(commandLine.jsonFile);
    if (!commandLine.csvFile.isEmpty())
        csvFile = std::make_unique<CResultFile>(commandLine.csvFile);
    for (CResultFile* file : {jsonFile.get(), csvFile.get()})
    {
        if (file && !file->open())
        {
            CConsole::error(QStringLiteral("cannot write %1: %2").arg(file->path(), file->errorString()));
            return ExitFailure;
        }
    }
    if (csvFile)
        csvFile->writeLine(csvHeader());
    if (!jsonToStdout)
        CConsole::out(tableHeader());
    for (const SPhotoOutcome& outcome : outcomes)
    {
        if (jsonToStdout)
            CConsole::out(jsonLine(outcome));
        else
            CConsole::out(tableLine(outcome));
        if (jsonFile)
            jsonFile->writeLine(jsonLine(outcome));
        if (csvFile)
            csvFile->writeLine(csvLine(outcome));
    }

    // The shards' times are not in their lines: the summary leaves them out.
    const QStringList summary = summaryLines(summarize(outcomes, 0.0)).mid(0, 4);
    if (!jsonToStdout)
        CConsole::out(QString());
    for (const QString& line : summary)
    {
        if (jsonToStdout)
            CConsole::err(line);
        else
            CConsole::out(line);
    }

    bool filesWritten = true;
    for (CResultFile* file : {jsonFile.get(), csvFile.get()})
    {
        if (!file)
            continue;
        const QString error = file->close();
        if (!error.isEmpty())
        {
            CConsole::error(QStringLiteral("cannot write %1: %2").arg(file->path(), error));
            filesWritten = false;
        }
    }
    int exitCode = filesWritten ? ExitDone : ExitFailure;
    if (fingerprint && filesWritten)
        exitCode = writeReport(outcomes, fingerprintPath, fingerprint->properties(), commonFolder(outcomes),
                               commandLine.reportFile, commandLine.caseNumber, commandLine.examiner,
                               commandLine.notes);
    if (CConsole::outFailed())
    {
        CConsole::error(QStringLiteral("cannot write to standard output: its reader has gone"));
        exitCode = ExitFailure;
    }
    return exitCode;
}

// Identification results are recognised and their positions checked like
// any other; what remains is to turn the ordered lines back into the
// identify command's outcomes and write them with its writers.
int mergeIdentify(const SCommandLine&, const QList<SShardLine>&)
{
    CConsole::error(QStringLiteral("merging 'identify' results is not available in this version"));
    return ExitFailure;
}

} // namespace

int runMerge(const SCommandLine& commandLine)
{
    // Checked before anything is read or written: a shard must never be overwritten.
    QList<OutputOption> outputs;
    if (!commandLine.jsonFile.isEmpty() && commandLine.jsonFile != QLatin1String("-"))
        outputs.append({QStringLiteral("--json"), commandLine.jsonFile});
    if (!commandLine.csvFile.isEmpty())
        outputs.append({QStringLiteral("--csv"), commandLine.csvFile});
    if (!commandLine.reportFile.isEmpty())
        outputs.append({QStringLiteral("--report"), commandLine.reportFile});
    const QString outputError = outputProblem(outputs, commandLine.paths);
    if (!outputError.isEmpty())
    {
        CConsole::error(outputError + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    }

    ELineKind kind = ELineKind::Analyze;
    QList<SShardLine> lines;
    QList<SShardLine> ordered;
    QString error;
    if (!readShards(commandLine.paths, &kind, &lines, &error) || !orderLines(lines, &ordered, &error))
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
