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
    if (!QFileInfo(commandLine.libraryFolder).isDir())
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint library %1: no such folder")
                            .arg(commandLine.libraryFolder));
        return ExitFailure;
    }
    // Checked before anything is written: evidence must never be overwritten.
    QList<OutputOption> outputs;
    if (!commandLine.jsonFile.isEmpty() && commandLine.jsonFile != QLatin1String("-"))
        outputs.append({QStringLiteral("--json"), commandLine.jsonFile});
    if (!commandLine.csvFile.isEmpty())
        outputs.append({QStringLiteral("--csv"), commandLine.csvFile});
    if (!commandLine.reportFile.isEmpty())
        outputs.append({QStringLiteral("--report"), commandLine.reportFile});
    QStringList inputPaths = CFingerprintLibrary::listFiles(commandLine.libraryFolder);
    for (const QFileInfo& photo : inputs.photos)
        inputPaths.append(photo.filePath());
    const QString outputError = outputProblem(outputs, inputPaths);
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
        csvFile->writeLine(identifyCsvHeader());

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
    job.setHashFiles(jsonToStdout || jsonFile || csvFile || !commandLine.reportFile.isEmpty());
    const QString shardText = commandLine.shardCount > 1 ? QStringLiteral(" (shard %1/%2 of %3)")
                                                               .arg(commandLine.shardNumber)
                                                               .arg(commandLine.shardCount)
                                                               .arg(inputs.total)
                                                         : QString();
    CConsole::note(QStringLiteral("identifying %1 photos%2 against %3 fingerprints in %4 on %5 %6")
                       .arg(inputs.photos.size())
                       .arg(shardText)
                       .arg(library->usableCount())
                       .arg(commandLine.libraryFolder)
                       .arg(job.threadCount())
                       .arg(job.threadCount() == 1 ? QStringLiteral("thread") : QStringLiteral("threads")));

    QList<SIdentifiedPhoto> photos;
    QSet<QString> damagedNamed;
    bool tableStarted = false;
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
        if (jsonToStdout)
        {
            CConsole::out(identifyJsonLine(photo));
        }
        else
        {
            if (!tableStarted)
                CConsole::out(identifyTableHeader());
            tableStarted = true;
            CConsole::out(identifyTableLine(photo));
        }
        if (jsonFile)
            jsonFile->writeLine(identifyJsonLine(photo));
        if (csvFile)
            for (const QString& row : identifyCsvRows(photo))
                csvFile->writeLine(row);
    };
    job.setOutcomeHandler(handle);
    job.run();
    // The files that could not be analysed come last, each with its reason.
    for (const SRefusedFile& file : inputs.refused)
    {
        SPhotoOutcome outcome;
        outcome.path = file.path;
        outcome.absolutePath = QFileInfo(file.path).absoluteFilePath();
        outcome.reason = file.reason;
        handle(outcome);
    }

    // With JSON on standard output the summary must not mix into it.
    const QStringList summary = identifySummaryLines(photos, job.seconds());
    if (!jsonToStdout)
        CConsole::out(QString());
    for (const QString& line : summary)
        jsonToStdout ? CConsole::err(line) : CConsole::out(line);

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
        exitCode = writeIdentifyReport(photos, *library, commandLine.reportFile, commandLine.caseNumber,
                                       commandLine.examiner, commandLine.notes);
    if (CConsole::outFailed())
    {
        CConsole::error(QStringLiteral("cannot write to standard output: its reader has gone"));
        exitCode = ExitFailure;
    }
    if (job.interrupted())
    {
        CConsole::note(
            QStringLiteral("identification interrupted; the results of the photos analyzed were written"));
        return ExitInterrupted;
    }
    return exitCode;
}

} // namespace cli
