#include "commands.h"

#include "console.h"
#include "generatortask.h"
#include "identifyformat.h"

#include "qutils/exception.h"
#include "qutils/tasks.h"

#include <QDir>

namespace cli
{

namespace
{

// reportPath as the user gave it, for the messages.
int runReportTask(const SReportInput& input, const QString& reportPath)
{
    auto task = qutils::makeTask<CGeneratorTask>(input);
    qint64 maximum = 1;
    int lastTenth = -1;
    QObject::connect(task.get(), &qutils::CTask::progressRange, [&](qint64, qint64 max) { maximum = qMax<qint64>(max, 1); });
    QObject::connect(task.get(), &qutils::CTask::progressPos, [&](qint64 pos) {
        const int tenth = static_cast<int>(qBound<qint64>(0, pos, maximum) * 10 / maximum);
        if (tenth > lastTenth)
        {
            lastTenth = tenth;
            CConsole::note(QStringLiteral("report %1 %").arg(tenth * 10));
        }
    });
    CConsole::note(QStringLiteral("writing the PDF report of %1 photos to %2").arg(input.photos.size()).arg(reportPath));
    try
    {
        task->run();
    }
    catch (const qutils::CException& e)
    {
        CConsole::error(QStringLiteral("cannot write the report %1: %2").arg(reportPath, e.message()));
        return ExitFailure;
    }
    CConsole::out(QStringLiteral("Report: %1").arg(QDir::toNativeSeparators(input.reportPath)));
    return ExitDone;
}

} // namespace

int writeReport(const QList<SPhotoOutcome>& outcomes, const QString& fingerprintPath,
                const CFingerprint::Properties& properties, const QString& photosFolder, const QString& reportPath,
                const QString& caseNumber, const QString& examiner, const QString& notes)
{
    SReportInput input;
    input.caseNumber = caseNumber;
    input.examiner = examiner;
    input.notes = notes;
    input.filterType = 0;
    input.fingerprintPath = QFileInfo(fingerprintPath).absoluteFilePath();
    input.fingerprintProperties = properties;
    input.photosFolder = photosFolder;
    input.reportPath = QFileInfo(reportPath).absoluteFilePath();
    for (const SPhotoOutcome& outcome : outcomes)
    {
        input.photos.append(QFileInfo(outcome.absolutePath));
        // Photos never reached stay out of the results, as in the program's report.
        if (outcome.processed)
            input.results.insert(outcome.absolutePath, outcome.result);
        // Hashed by the analysis already; the report task hashes the rest.
        if (!outcome.sha256.isEmpty())
            input.sha256.insert(outcome.absolutePath, outcome.sha256);
    }

    return runReportTask(input, reportPath);
}


int writeIdentifyReport(const QList<SIdentifiedPhoto>& photos, const CFingerprintLibrary& library,
                        const QString& reportPath, const QString& caseNumber, const QString& examiner,
                        const QString& notes)
{
    SReportInput input;
    input.caseNumber = caseNumber;
    input.examiner = examiner;
    input.notes = notes;
    input.photosFolder = library.folder();
    input.reportPath = QFileInfo(reportPath).absoluteFilePath();
    for (const CFingerprintLibrary::SFile& file : library.files())
    {
        SReportInput::SLibraryFile row;
        row.path = file.path;
        row.status = file.reason;
        if (file.width > 0 && file.height > 0)
            row.size = QStringLiteral("%1 x %2 pixels").arg(file.width).arg(file.height);
        if (file.status == qutils::CQuorvexAPI::Success)
        {
            // One at a time: the camera's name is in the file's properties.
            qutils::CQuorvexAPI::EStatus status = qutils::CQuorvexAPI::Invalid;
            if (const auto fingerprint = CFingerprint::load(QFileInfo(file.path), &status))
                row.camera = QStringLiteral("%1 %2")
                                 .arg(fingerprint->property(CFingerprint::Manufacturer).toString(),
                                      fingerprint->property(CFingerprint::Model).toString())
                                 .trimmed();
        }
        input.library.append(row);
    }
    int counts[5] = {};
    for (const SIdentifiedPhoto& photo : photos)
    {
        ++counts[static_cast<int>(verdictOf(photo))];
        input.photos.append(QFileInfo(photo.outcome.absolutePath));
        input.verdicts.insert(photo.outcome.absolutePath, verdictText(photo));
        if (!photo.outcome.sha256.isEmpty())
            input.sha256.insert(photo.outcome.absolutePath, photo.outcome.sha256);
    }
    input.summary = {
        {QStringLiteral("Fingerprints used"), QString::number(library.usableCount())},
        {QStringLiteral("Photos identified"), QString::number(counts[static_cast<int>(EVerdict::Identified)])},
        {QStringLiteral("No camera in the library"), QString::number(counts[static_cast<int>(EVerdict::NoCamera)])},
        {QStringLiteral("Not compared"), QString::number(counts[static_cast<int>(EVerdict::NotCompared)])},
        {QStringLiteral("Failed"), QString::number(counts[static_cast<int>(EVerdict::Failed)])},
        {QStringLiteral("Not processed"), QString::number(counts[static_cast<int>(EVerdict::NotProcessed)])},
    };
    return runReportTask(input, reportPath);
}

} // namespace cli
