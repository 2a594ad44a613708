#include "commands.h"

#include "console.h"
#include "fingerprintproperties.h"
#include "learnjob.h"
#include "photoinputs.h"

#include <QDir>

using qutils::CQuorvexAPI;

namespace cli
{

int learnFingerprint(const QFileInfoList& photos, const QString& target)
{
    CConsole::note(QStringLiteral("learning a fingerprint from %1 photos").arg(photos.size()));
    CLearnJob job(photos);
    const CQuorvexAPI::EStatus status = job.run(QFileInfo(target));
    if (status != CQuorvexAPI::Success)
    {
        const int failing = job.reportedPhotos();
        if (job.ranOutOfMemory())
            CConsole::error(QStringLiteral("learning stopped: the computer ran out of memory for learning from "
                                           "photos of this size (at photo %1/%2; the photos are not at fault)")
                                .arg(failing + 1)
                                .arg(photos.size()));
        else if (status == CQuorvexAPI::CannotStoreFingerprint)
            CConsole::error(QStringLiteral("cannot write the fingerprint file %1: %2")
                                .arg(target, CQuorvexAPI::statusText(status)));
        else if (failing < photos.size())
            CConsole::error(QStringLiteral("learning refused photo %1/%2 %3: %4")
                                .arg(failing + 1)
                                .arg(photos.size())
                                .arg(photos.at(failing).filePath(), CQuorvexAPI::statusText(status)));
        else
            CConsole::error(QStringLiteral("learning failed: %1").arg(CQuorvexAPI::statusText(status)));
        return ExitFailure;
    }

    CQuorvexAPI::EStatus loaded = CQuorvexAPI::Invalid;
    const auto fingerprint = CFingerprint::load(QFileInfo(target), &loaded);
    if (!fingerprint)
    {
        CConsole::error(QStringLiteral("the fingerprint was saved to %1 but cannot be read back: %2")
                            .arg(target, CQuorvexAPI::statusText(loaded)));
        return ExitFailure;
    }
    CConsole::out(QStringLiteral("Fingerprint saved to %1").arg(target));
    for (const QString& line : propertyLines(*fingerprint))
        CConsole::out(line);
    return ExitDone;
}

int runLearn(const SCommandLine& commandLine)
{
    const SPhotoInputs inputs = collectPhotos(commandLine.paths, commandLine.recursive);
    if (!reportInputProblems(inputs))
        return ExitFailure;

    QFileInfoList photos = inputs.photos;
    if (commandLine.limit > 0 && photos.size() > commandLine.limit)
    {
        photos = photos.mid(0, commandLine.limit);
    }
    else if (photos.size() > MaximumReferencePhotos)
    {
        CConsole::warning(QStringLiteral("Too many images: %1 found, only the first %2 are used for learning "
                                         "(--limit N sets the number without this warning)")
                              .arg(photos.size())
                              .arg(MaximumReferencePhotos));
        photos = photos.mid(0, MaximumReferencePhotos);
    }
    if (photos.size() < MinimumReferencePhotos)
    {
        CConsole::error(
            QStringLiteral("Not enough images: at least %1 images from the camera are needed, %2 found")
                .arg(MinimumReferencePhotos)
                .arg(photos.size()));
        return ExitFailure;
    }

    // Checked before the long part, so a typo does not cost the whole learning.
    const QString duplicate = CFingerprint::duplicatePhotoMessage(photos);
    if (!duplicate.isEmpty())
    {
        CConsole::error(duplicate);
        return ExitFailure;
    }
    const QFileInfo target(commandLine.fingerprintFile);
    if (!target.absoluteDir().exists())
    {
        CConsole::error(QStringLiteral("cannot write the fingerprint file %1: its folder does not exist")
                            .arg(commandLine.fingerprintFile));
        return ExitFailure;
    }
    if (target.isDir())
    {
        CConsole::error(QStringLiteral("cannot write the fingerprint file %1: it is a folder")
                            .arg(commandLine.fingerprintFile));
        return ExitFailure;
    }
    QStringList inputPaths;
    for (const QFileInfo& photo : inputs.photos)
        inputPaths.append(photo.filePath());
    QString outputError = outputProblem({{QStringLiteral("-o"), commandLine.fingerprintFile}}, inputPaths);
    // Saving replaces the file: only an older fingerprint may be replaced.
    if (outputError.isEmpty() && target.exists() && !CFingerprint::load(target, nullptr))
        outputError = QStringLiteral("-o %1: it exists and is not a fingerprint file; refusing to replace it")
                          .arg(commandLine.fingerprintFile);
    if (!outputError.isEmpty())
    {
        CConsole::error(outputError + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    }
    return learnFingerprint(photos, commandLine.fingerprintFile);
}

} // namespace cli
