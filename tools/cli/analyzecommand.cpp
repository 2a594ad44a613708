#include "analyzejob.h"
#include "commands.h"
#include "console.h"
#include "photoinputs.h"
#include "resultfile.h"
#include "resultformat.h"

#include "qutils/platform.h"

#include <QFile>

#include <memory>

using qutils::CQuorvexAPI;

namespace cli
{

int runAnalyze(const SCommandLine& commandLine)
{
    SPhotoInputs inputs = collectPhotos(commandLine.paths, commandLine.recursive);
    if (!reportInputProblems(inputs))
        return ExitFailure;
    if (inputs.photos.isEmpty())
    {
        CConsole::error(inputs.refused.isEmpty()
                            ? QStringLiteral("no photos found in the given paths")
                            : QStringLiteral("no photo in the given paths can be analyzed"));
        return ExitFailure;
    }
    // A shard may be empty (more shards than photos): it runs and writes no line.
    keepShard(inputs, commandLine.shardNumber, commandLine.shardCount);
    // Checked before anything is written: evidence must never be overwritten.
    QList<OutputOption> outputs;
    if (!commandLine.jsonFile.isEmpty() && commandLine.jsonFile != QLatin1String("-"))
        outputs.append({QStringLiteral("--json"), commandLine.jsonFile});
    if (!commandLine.csvFile.isEmpty())
        outputs.append({QStringLiteral("--csv"), commandLine.csvFile});
    if (!commandLine.reportFile.isEmpty())
        outputs.append({QStringLiteral("--report"), commandLine.reportFile});
    QStringList inputPaths = {commandLine.fingerprintFile};
    for (const QFileInfo& photo : inputs.photos)
        inputPaths.append(photo.filePath());
    const QString outputError = outputProblem(outputs, inputPaths);
    if (!outputError.isEmpty())
    {
        CConsole::error(outputError + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    }

    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const std::shared_ptr<const CFingerprint> fingerprint =
        CFingerprint::load(QFileInfo(commandLine.fingerprintFile), &status);
    if (!fingerprint)
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint file %1: %2")
                            .arg(commandLine.fingerprintFile, CQuorvexAPI::statusText(status)));
        return ExitFailure;
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

    qutils::platform::catchInterrupts();
    CAnalyzeJob job(inputs.photos, fingerprint, commandLine.skipDifferentCamera, commandLine.threads);
    // The files and the report name each photo by its hash too.
    job.setHashFiles(jsonToStdout || jsonFile || csvFile || !commandLine.reportFile.isEmpty());
    const QString shardText = commandLine.shardCount > 1 ? QStringLiteral(" (shard %1/%2 of %3)")
                                                               .arg(commandLine.shardNumber)
                                                               .arg(commandLine.shardCount)
                                                               .arg(inputs.total)
                                                         : QString();
    CConsole::note(QStringLiteral("analyzing %1 photos%2 against %3 on %4 %5")
                       .arg(inputs.photos.size())
                       .arg(shardText, commandLine.fingerprintFile)
                       .arg(job.threadCount())
                       .arg(job.threadCount() == 1 ? QStringLiteral("thread") : QStringLiteral("threads")));
    bool tableStarted = false;
    // Outcomes arrive in list order, the refused files last: their count is their place.
    int delivered = 0;
    const QString fingerprintPath = QFileInfo(commandLine.fingerprintFile).absoluteFilePath();
    const auto handle = [&](const SPhotoOutcome& given)
    {
        SPhotoOutcome outcome = given;
        outcome.index = inputs.indexes.at(delivered++);
        outcome.total = inputs.total;
        outcome.fingerprint = fingerprintPath;
        if (jsonToStdout)
        {
            CConsole::out(jsonLine(outcome));
        }
        else
        {
            if (!tableStarted)
                CConsole::out(tableHeader());
            tableStarted = true;
            CConsole::out(tableLine(outcome));
        }
        if (jsonFile)
            jsonFile->writeLine(jsonLine(outcome));
        if (csvFile)
            csvFile->writeLine(csvLine(outcome));
    };
    job.setOutcomeHandler(handle);
    // The job's pool is left idle for a shard with no photo to match.
    QList<SPhotoOutcome> outcomes = inputs.photos.isEmpty() ? QList<SPhotoOutcome>() : job.run();
    if (job.fingerprintUnreadable())
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint file %1: the engine refuses it (%2)")
                            .arg(commandLine.fingerprintFile,
                                 CQuorvexAPI::statusText(CQuorvexAPI::CannotOpenFingerprint)));
        return ExitFailure;
    }
    // The files that could not be analysed come last, each with its reason.
    for (const SRefusedFile& file : inputs.refused)
    {
        SPhotoOutcome outcome;
        outcome.path = file.path;
        outcome.absolutePath = QFileInfo(file.path).absoluteFilePath();
        outcome.reason = file.reason;
        outcomes.append(outcome);
        handle(outcome);
    }

    // With JSON on standard output the summary must not mix into it.
    const QStringList summary = summaryLines(summarize(outcomes, job.seconds()));
    if (jsonToStdout)
    {
        for (const QString& line : summary)
            CConsole::err(line);
    }
    else
    {
        CConsole::out(QString());
        for (const QString& line : summary)
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
    if (!commandLine.reportFile.isEmpty() && filesWritten)
    {
        // The folder of the first path given, or of the first photo.
        QString folder = commandLine.paths.isEmpty() ? QString() : commandLine.paths.first();
        if (!QFileInfo(folder).isDir() && !inputs.photos.isEmpty())
            folder = inputs.photos.first().absolutePath();
        exitCode = writeReport(outcomes, commandLine.fingerprintFile, fingerprint->properties(), folder,
                               commandLine.reportFile, commandLine.caseNumber, commandLine.examiner, commandLine.notes);
    }
    // Standard output may have gone (a reader that stopped early): the files
    // above were still finished, but the run did not deliver all it was asked.
    if (CConsole::outFailed())
    {
        CConsole::error(QStringLiteral("cannot write to standard output: its reader has gone"));
        exitCode = ExitFailure;
    }
    if (job.interrupted())
    {
        CConsole::note(
            QStringLiteral("analysis interrupted; the results of the photos analyzed were written"));
        return ExitInterrupted;
    }
    return exitCode;
}

} // namespace cli
