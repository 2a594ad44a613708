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
    SPhotoInputs inputs;
    if (!collectShard(commandLine.paths, commandLine.recursive, commandLine.shardNumber, commandLine.shardCount,
                      inputs))
        return ExitFailure;
    // Checked before anything is written: evidence must never be overwritten.
    QStringList inputPaths = {commandLine.fingerprintFile};
    for (const QFileInfo& photo : inputs.photos)
        inputPaths.append(photo.filePath());
    const QString outputError = outputProblem(namedOutputs(commandLine), inputPaths);
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

    CResultOutputs results(commandLine);
    if (!results.open(csvHeader()))
        return ExitFailure;

    qutils::platform::catchInterrupts();
    CAnalyzeJob job(inputs.photos, fingerprint, commandLine.skipDifferentCamera, commandLine.threads);
    // The files and the report name each photo by its hash too.
    job.setHashFiles(!commandLine.jsonFile.isEmpty() || !commandLine.csvFile.isEmpty() ||
                     !commandLine.reportFile.isEmpty());
    CConsole::note(QStringLiteral("analyzing %1 photos%2 against %3 on %4 %5")
                       .arg(inputs.photos.size())
                       .arg(shardNote(commandLine.shardNumber, commandLine.shardCount, inputs.total),
                            commandLine.fingerprintFile)
                       .arg(job.threadCount())
                       .arg(job.threadCount() == 1 ? QStringLiteral("thread") : QStringLiteral("threads")));
    // Outcomes arrive in list order, the refused files last: their count is their place.
    int delivered = 0;
    const QString fingerprintPath = QFileInfo(commandLine.fingerprintFile).absoluteFilePath();
    const auto handle = [&](const SPhotoOutcome& given)
    {
        SPhotoOutcome outcome = given;
        outcome.index = inputs.indexes.at(delivered++);
        outcome.total = inputs.total;
        outcome.fingerprint = fingerprintPath;
        results.write(jsonLine(outcome), {csvLine(outcome)}, tableHeader(), tableLine(outcome));
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
        outcomes.append(refusedOutcome(file.path, file.reason));
        handle(outcomes.last());
    }

    results.summary(summaryLines(summarize(outcomes, job.seconds())));
    int exitCode = results.close();
    if (!commandLine.reportFile.isEmpty() && exitCode == ExitDone)
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
    exitCode = checkStandardOutput(exitCode);
    if (job.interrupted())
    {
        CConsole::note(
            QStringLiteral("analysis interrupted; the results of the photos analyzed were written"));
        return ExitInterrupted;
    }
    return exitCode;
}

} // namespace cli
