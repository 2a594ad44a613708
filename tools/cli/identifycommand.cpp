#include "analyzejob.h"
#include "commands.h"
#include "console.h"
#include "identifyformat.h"
#include "photoinputs.h"
#include "resultfile.h"

#include "qutils/platform.h"

#include <QDir>
#include <QHash>
#include <QSet>

#include <memory>
#include <mutex>

using qutils::CQuorvexAPI;

namespace cli
{

namespace
{

// The full identifications, written by the pool's threads and read on the
// main thread as each photo is handed out.
struct SIdentificationStore
{
    std::mutex mutex;
    QHash<QString, CFingerprintLibrary::SIdentification> byPath;
};

} // namespace

int runIdentify(const SCommandLine& commandLine)
{
    SPhotoInputs inputs;
    if (!collectShard(commandLine.paths, commandLine.recursive, commandLine.shardNumber, commandLine.shardCount,
                      inputs))
        return ExitFailure;
    if (!QFileInfo(commandLine.libraryFolder).isDir())
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint library %1: no such folder")
                            .arg(commandLine.libraryFolder));
        return ExitFailure;
    }
    // Checked before anything is written: evidence must never be overwritten.
    QStringList inputPaths = CFingerprintLibrary::listFiles(commandLine.libraryFolder);
    for (const QFileInfo& photo : inputs.photos)
        inputPaths.append(photo.filePath());
    const QString outputError = outputProblem(namedOutputs(commandLine), inputPaths);
    if (!outputError.isEmpty())
    {
        CConsole::error(outputError + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    }

    QString libraryError;
    const std::shared_ptr<const CFingerprintLibrary> library =
        CFingerprintLibrary::open(commandLine.libraryFolder, &libraryError);
    if (!library)
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint library %1: %2")
                            .arg(commandLine.libraryFolder, libraryError));
        return ExitFailure;
    }
    for (const CFingerprintLibrary::SFile& file : library->files())
        if (file.status != CQuorvexAPI::Success)
            CConsole::warning(QStringLiteral("cannot use the fingerprint file %1: %2; it is left out")
                                  .arg(QDir::toNativeSeparators(file.path), file.reason));
    if (library->usableCount() == 0)
    {
        CConsole::error(
            QStringLiteral("no usable fingerprint file (.fnp) in %1").arg(commandLine.libraryFolder));
        return ExitFailure;
    }

    CResultOutputs results(commandLine);
    if (!results.open(identifyCsvHeader()))
        return ExitFailure;

    qutils::platform::catchInterrupts();
    const auto store = std::make_shared<SIdentificationStore>();
    CAnalyzeJob job(
        inputs.photos,
        [library, store](const QFileInfo& photo)
        {
            const CFingerprintLibrary::SIdentification identification = library->identify(photo);
            CQuorvexAPI::SAnalysisResult summary = identification.best.result;
            summary.matched = !identification.matches.isEmpty();
            summary.status = identification.status;
            summary.reason = identification.reason;
            std::lock_guard<std::mutex> lock(store->mutex);
            store->byPath.insert(photo.absoluteFilePath(), identification);
            return summary;
        },
        commandLine.threads);
    job.setHashFiles(!commandLine.jsonFile.isEmpty() || !commandLine.csvFile.isEmpty() ||
                     !commandLine.reportFile.isEmpty());
    CConsole::note(QStringLiteral("identifying %1 photos%2 against %3 fingerprints in %4 on %5 %6")
                       .arg(inputs.photos.size())
                       .arg(shardNote(commandLine.shardNumber, commandLine.shardCount, inputs.total))
                       .arg(library->usableCount())
                       .arg(commandLine.libraryFolder)
                       .arg(job.threadCount())
                       .arg(job.threadCount() == 1 ? QStringLiteral("thread") : QStringLiteral("threads")));

    QList<SIdentifiedPhoto> photos;
    QSet<QString> damagedNamed;
    const auto handle = [&](const SPhotoOutcome& outcome)
    {
        SIdentifiedPhoto photo;
        photo.outcome = outcome;
        photo.index = inputs.indexes.at(photos.size());
        photo.total = inputs.total;
        photo.library = library->folder();
        if (outcome.processed)
        {
            std::lock_guard<std::mutex> lock(store->mutex);
            photo.identification = store->byPath.value(outcome.absolutePath);
        }
        // A fingerprint is verified whole only when first needed, so its
        // damage can come to light mid-run: the examiner must hear of it.
        for (const QString& damaged : photo.identification.damaged)
            if (!damagedNamed.contains(damaged))
            {
                damagedNamed.insert(damaged);
                CConsole::warning(QStringLiteral("the fingerprint file %1 is damaged (its checksum failed when it "
                                                 "was first needed, for %2); no photo is compared with it")
                                      .arg(QDir::toNativeSeparators(damaged), outcome.path));
            }
        photos.append(photo);
        results.write(identifyJsonLine(photo), identifyCsvRows(photo), identifyTableHeader(),
                      identifyTableLine(photo));
    };
    job.setOutcomeHandler(handle);
    // The job's pool is left idle for a shard with no photo to match.
    if (!inputs.photos.isEmpty())
        job.run();
    // The files that could not be analysed come last, each with its reason.
    for (const SRefusedFile& file : inputs.refused)
        handle(refusedOutcome(file.path, file.reason));

    results.summary(identifySummaryLines(photos, job.seconds()));
    int exitCode = results.close();
    if (!commandLine.reportFile.isEmpty() && exitCode == ExitDone)
        exitCode = writeIdentifyReport(photos, *library, commandLine.reportFile, commandLine.caseNumber,
                                       commandLine.examiner, commandLine.notes);
    exitCode = checkStandardOutput(exitCode);
    if (job.interrupted())
    {
        CConsole::note(
            QStringLiteral("identification interrupted; the results of the photos analyzed were written"));
        return ExitInterrupted;
    }
    return exitCode;
}

} // namespace cli
