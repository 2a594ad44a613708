#include "analyzejob.h"
#include "commands.h"
#include "console.h"
#include "photoinputs.h"
#include "progressline.h"
#include "resultfile.h"
#include "validation.h"
#include "validationreport.h"

#include "qutils/platform.h"
#include "qutils/tempfolder.h"

#include <QDir>
#include <QFile>
#include <QImageReader>
#include <QImageWriter>
#include <QTransform>

#include <exiv2/exiv2.hpp>

#include <memory>

using qutils::CQuorvexAPI;

namespace cli
{

namespace
{

// Geometric copies are saved as an editing program would, at high quality.
constexpr int CopyQuality = 95;
constexpr int RecompressQuality = 75;

struct SDevice
{
    QString name;
    QFileInfoList references;
    QList<QPair<QString, QString>> questioned; // path, and why it cannot be analysed (else empty)
    QString failure;                           // why learning failed
    std::shared_ptr<const CFingerprint> fingerprint;
};

// One questioned photo or one of its copies, as matched against every fingerprint.
struct SEntry
{
    QString device;
    QString originalPath;
    QString variant;
    QString file;   // what the engine reads; empty when there is none
    QString reason; // why there is none
};

const QStringList& variantNames()
{
    static const QStringList names = {
        QStringLiteral("original"),       QStringLiteral("rotated-90"),    QStringLiteral("exif-rotated"),
        QStringLiteral("crop-1600x1200"), QStringLiteral("crop-1024x768"), QStringLiteral("jpeg-75"),
        QStringLiteral("scaled-80"),      QStringLiteral("scaled-50"),
    };
    return names;
}

bool interruptedSince(int count)
{
    return qutils::platform::interruptCount() > count;
}

// ---- the set -----------------------------------------------------------------

// The devices of the set in name order; an error text when the set cannot be read.
QString readSet(const QString& setPath, QList<SDevice>& devices)
{
    const QFileInfo info(setPath);
    if (!info.exists())
        return QStringLiteral("no such folder: %1").arg(setPath);
    if (!info.isDir() || !info.isReadable() || !info.isExecutable())
        return QStringLiteral("cannot read the set %1: not a readable folder").arg(setPath);
    const QDir set(setPath);
    for (const QFileInfo& folder : set.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
    {
        const QDir device(folder.filePath());
        const QString reference = device.filePath(QStringLiteral("reference"));
        const QString questioned = device.filePath(QStringLiteral("questioned"));
        if (!QFileInfo(reference).isDir() || !QFileInfo(questioned).isDir())
        {
            CConsole::warning(
                QStringLiteral("%1: no reference/ and questioned/ folders; left out").arg(folder.filePath()));
            continue;
        }
        SDevice entry;
        entry.name = folder.fileName();
        const SPhotoInputs references = collectPhotos({reference}, false);
        reportInputProblems(references);
        entry.references = references.photos;
        const SPhotoInputs photos = collectPhotos({questioned}, false);
        reportInputProblems(photos);
        for (const QFileInfo& photo : photos.photos)
            entry.questioned.append({photo.filePath(), QString()});
        for (const SRefusedFile& refused : photos.refused)
            entry.questioned.append({refused.path, refused.reason});
        devices.append(entry);
    }
    if (devices.isEmpty())
        return QStringLiteral("no device in %1: each needs DEVICE/reference/ and DEVICE/questioned/")
            .arg(setPath);
    return QString();
}

// ---- learning ------------------------------------------------------------------

// Learns the device into target; the reason when it cannot.
QString learnDevice(SDevice& device, const QString& target)
{
    QFileInfoList photos = device.references;
    if (photos.size() > MaximumReferencePhotos)
        photos = photos.mid(0, MaximumReferencePhotos);
    if (photos.size() < MinimumReferencePhotos)
        return QStringLiteral("not enough reference photos: at least %1 are needed, %2 found")
            .arg(MinimumReferencePhotos)
            .arg(photos.size());
    const QString duplicate = CFingerprint::duplicatePhotoMessage(photos);
    if (!duplicate.isEmpty())
        return duplicate;

    CConsole::note(QStringLiteral("learning %1 from %2 photos").arg(device.name).arg(photos.size()));
    CProgressLine progress(QStringLiteral("Learned"), photos.size(), CConsole::errIsTerminal());
    int done = 0;
    lumicrest_error_code engineCode = LUMICREST_OK;
    const CQuorvexAPI::EStatus status = CFingerprint::createFingerprint(
        photos, QFileInfo(target),
        [&](int, float nmse, float seconds) {
            // The opening and closing calls carry no photo: both floats are zero only there.
            if (nmse == 0.0f && seconds == 0.0f)
                return;
            progress.update(++done);
        },
        &engineCode);
    progress.finish();
    if (status != CQuorvexAPI::Success)
    {
        if (engineCode == LUMICREST_OUT_OF_MEMORY)
            return QStringLiteral("the computer ran out of memory for learning from photos of this size");
        if (done < photos.size() && status != CQuorvexAPI::CannotStoreFingerprint)
            return QStringLiteral("learning refused photo %1: %2")
                .arg(photos.at(done).filePath(), CQuorvexAPI::statusText(status));
        return CQuorvexAPI::statusText(status);
    }
    CQuorvexAPI::EStatus loaded = CQuorvexAPI::Invalid;
    device.fingerprint = CFingerprint::load(QFileInfo(target), &loaded);
    if (!device.fingerprint)
        return QStringLiteral("the fingerprint cannot be read back: %1").arg(CQuorvexAPI::statusText(loaded));
    return QString();
}

// ---- changed copies ----------------------------------------------------------------

QString saveJpeg(const QImage& image, const QString& path, int quality)
{
    QImageWriter writer(path, "jpeg");
    writer.setQuality(quality);
    return writer.write(image) ? QString()
                               : QStringLiteral("the copy cannot be written: %1").arg(writer.errorString());
}

// A copy whose only change is the EXIF orientation tag: shown turned by 90°,
// the pixels untouched.
QString writeOrientationCopy(const QString& original, const QString& path)
{
    if (!QFile::copy(original, path))
        return QStringLiteral("the copy cannot be written");
    try
    {
        auto image = Exiv2::ImageFactory::open(QFile::encodeName(path).toStdString());
        image->readMetadata();
        Exiv2::ExifData& exif = image->exifData();
        const auto it = exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
        const bool alreadySix = it != exif.end() && it->count() > 0 && it->toLong() == 6;
        // 6: shown turned clockwise; a photo already tagged so is turned the other way.
        exif["Exif.Image.Orientation"] = static_cast<uint16_t>(alreadySix ? 8 : 6);
        image->writeMetadata();
    }
    catch (const std::exception& e)
    {
        return QStringLiteral("the EXIF tag cannot be written: %1").arg(QString::fromLocal8Bit(e.what()));
    }
    return QString();
}

// The copies of one photo, in the order of variantNames() after "original".
QList<SEntry> makeCopies(const QString& device, const QString& original, const QString& folder, int number)
{
    QList<SEntry> entries;
    const auto entry = [&](const QString& variant)
    {
        SEntry e;
        e.device = device;
        e.originalPath = original;
        e.variant = variant;
        e.file = QDir(folder).filePath(QStringLiteral("%1-%2.jpg").arg(number).arg(variant));
        return e;
    };
    QImageReader reader(original);
    reader.setAutoTransform(false);
    const QImage image = reader.read();
    const QString readError =
        image.isNull() ? QStringLiteral("the photo cannot be read for a copy: %1").arg(reader.errorString())
                       : QString();

    const auto finish = [&](SEntry e, const std::function<QString()>& make)
    {
        e.reason = make();
        if (!e.reason.isEmpty())
        {
            QFile::remove(e.file);
            e.file.clear();
        }
        entries.append(e);
    };
    const auto pixels = [&](const QString& variant, const std::function<QImage()>& change, int quality)
    {
        finish(entry(variant),
               [&]() -> QString
               {
                   if (!readError.isEmpty())
                       return readError;
                   const QImage changed = change();
                   if (changed.isNull())
                       return QStringLiteral("the photo is smaller than the crop");
                   return saveJpeg(changed, entry(variant).file, quality);
               });
    };
    const auto crop = [&](int w, int h) -> QImage
    {
        if (image.width() < w || image.height() < h)
            return QImage();
        return image.copy((image.width() - w) / 4, (image.height() - h) / 3, w, h);
    };
    const auto scaled = [&](double factor)
    {
        return image.scaled(qRound(image.width() * factor), qRound(image.height() * factor),
                            Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    };
    pixels(
        QStringLiteral("rotated-90"), [&] { return image.transformed(QTransform().rotate(90)); },
        CopyQuality);
    finish(entry(QStringLiteral("exif-rotated")),
           [&] { return writeOrientationCopy(original, entry(QStringLiteral("exif-rotated")).file); });
    pixels(
        QStringLiteral("crop-1600x1200"), [&] { return crop(1600, 1200); }, CopyQuality);
    pixels(
        QStringLiteral("crop-1024x768"), [&] { return crop(1024, 768); }, CopyQuality);
    pixels(
        QStringLiteral("jpeg-75"), [&] { return image; }, RecompressQuality);
    pixels(
        QStringLiteral("scaled-80"), [&] { return scaled(0.8); }, CopyQuality);
    pixels(
        QStringLiteral("scaled-50"), [&] { return scaled(0.5); }, CopyQuality);
    return entries;
}

} // namespace

int runValidate(const SCommandLine& commandLine)
{
    const QString setPath = commandLine.paths.first();
    QList<SDevice> devices;
    const QString setError = readSet(setPath, devices);
    if (!setError.isEmpty())
    {
        CConsole::error(setError);
        return ExitFailure;
    }

    // Checked before anything is written: evidence must never be overwritten.
    QList<OutputOption> outputs;
    if (!commandLine.jsonFile.isEmpty())
        outputs.append({QStringLiteral("--json"), commandLine.jsonFile});
    if (!commandLine.reportFile.isEmpty())
        outputs.append({QStringLiteral("--report"), commandLine.reportFile});
    QStringList inputPaths;
    for (const SDevice& device : devices)
    {
        for (const QFileInfo& photo : device.references)
            inputPaths.append(photo.filePath());
        for (const auto& photo : device.questioned)
            inputPaths.append(photo.first);
    }
    const QString outputError = outputProblem(outputs, inputPaths);
    if (!outputError.isEmpty())
    {
        CConsole::error(outputError + QStringLiteral(" (see quorvex-cli --help)"));
        return ExitUsage;
    }
    CResultFile json(commandLine.jsonFile);
    if (!commandLine.jsonFile.isEmpty() && !json.open())
    {
        CConsole::error(QStringLiteral("cannot write %1: %2").arg(commandLine.jsonFile, json.errorString()));
        return ExitFailure;
    }

    // Fingerprints and copies live here and go with it on every way out.
    const qutils::CTempFolder temp;
    if (!temp.isValid())
    {
        CConsole::error(QStringLiteral("cannot make a temporary folder for the fingerprints"));
        return ExitFailure;
    }
    qutils::platform::catchInterrupts();
    const int interruptsAtStart = qutils::platform::interruptCount();
    const auto stop = [&]()
    {
        CConsole::note(QStringLiteral("validation interrupted; the temporary files were removed"));
        return ExitInterrupted;
    };

    QStringList learned;
    for (int i = 0; i < devices.size(); ++i)
    {
        SDevice& device = devices[i];
        device.failure = learnDevice(device, temp.filePath(QStringLiteral("device-%1.fnp").arg(i)));
        if (interruptedSince(interruptsAtStart))
            return stop();
        if (!device.failure.isEmpty())
            CConsole::warning(
                QStringLiteral("%1 cannot be learned and is left out: %2").arg(device.name, device.failure));
        else
            learned.append(device.name);
    }
    if (learned.isEmpty())
    {
        CConsole::error(QStringLiteral("no device of %1 could be learned").arg(setPath));
        return ExitFailure;
    }

    QList<SEntry> entries;
    int photoCount = 0;
    for (const SDevice& device : devices)
        if (device.failure.isEmpty())
            photoCount += device.questioned.size();
    std::unique_ptr<CProgressLine> copying;
    if (commandLine.variants)
    {
        CConsole::note(QStringLiteral("making changed copies of %1 photos").arg(photoCount));
        copying =
            std::make_unique<CProgressLine>(QStringLiteral("Copied"), photoCount, CConsole::errIsTerminal());
    }
    int copied = 0;
    for (const SDevice& device : devices)
    {
        if (!device.failure.isEmpty())
            continue;
        for (const auto& photo : device.questioned)
        {
            entries.append({device.name, photo.first, variantNames().first(),
                            photo.second.isEmpty() ? photo.first : QString(), photo.second});
            if (!commandLine.variants)
                continue;
            QList<SEntry> copies;
            if (photo.second.isEmpty())
                copies = makeCopies(device.name, photo.first, temp.path(), entries.size());
            else
                for (const QString& variant : variantNames().mid(1))
                    copies.append({device.name, photo.first, variant, QString(), photo.second});
            entries.append(copies);
            copying->update(++copied);
            if (interruptedSince(interruptsAtStart))
                return stop();
        }
    }
    if (copying)
        copying->finish();

    QFileInfoList files;
    QList<int> fileEntry; // the entry of each file
    for (int i = 0; i < entries.size(); ++i)
        if (!entries.at(i).file.isEmpty())
        {
            files.append(QFileInfo(entries.at(i).file));
            fileEntry.append(i);
        }

    QList<SValidationPair> pairs;
    for (const SDevice& device : devices)
    {
        if (!device.failure.isEmpty())
            continue;
        QList<SValidationPair> own;
        for (const SEntry& entry : entries)
        {
            SValidationPair pair;
            pair.fingerprintDevice = device.name;
            pair.photoDevice = entry.device;
            pair.photoPath = entry.originalPath;
            pair.variant = entry.variant;
            pair.reason = entry.reason;
            own.append(pair);
        }
        if (!files.isEmpty())
        {
            CAnalyzeJob job(files, device.fingerprint, false, commandLine.threads);
            job.setInterruptBaseline(interruptsAtStart);
            CConsole::note(
                QStringLiteral("matching %1 photos against %2 on %3 %4")
                    .arg(files.size())
                    .arg(device.name)
                    .arg(job.threadCount())
                    .arg(job.threadCount() == 1 ? QStringLiteral("thread") : QStringLiteral("threads")));
            const QList<SPhotoOutcome> outcomes = job.run();
            if (job.interrupted() || interruptedSince(interruptsAtStart))
                return stop();
            if (job.fingerprintUnreadable())
            {
                CConsole::error(QStringLiteral("the engine refuses the fingerprint of %1").arg(device.name));
                return ExitFailure;
            }
            for (int i = 0; i < outcomes.size(); ++i)
            {
                SValidationPair& pair = own[fileEntry.at(i)];
                pair.processed = outcomes.at(i).processed;
                pair.result = outcomes.at(i).result;
                if (!pair.processed)
                    pair.reason = outcomes.at(i).reason;
            }
        }
        if (json.isOpen())
            for (const SValidationPair& pair : own)
                json.writeLine(validationJsonLine(pair));
        pairs.append(own);
    }

    int exitCode = ExitDone;
    if (json.isOpen())
    {
        const QString error = json.close();
        if (!error.isEmpty())
        {
            CConsole::error(QStringLiteral("cannot write %1: %2").arg(commandLine.jsonFile, error));
            exitCode = ExitFailure;
        }
    }

    QStringList photoDevices;
    QStringList deviceLines;
    for (const SDevice& device : devices)
    {
        if (device.failure.isEmpty())
        {
            photoDevices.append(device.name);
            const auto p = device.fingerprint->properties();
            deviceLines << QStringLiteral("  %1: %2 reference photos, %3 questioned, fingerprint %4 x %5")
                               .arg(device.name)
                               .arg(qMin(device.references.size(), MaximumReferencePhotos))
                               .arg(device.questioned.size())
                               .arg(p.value(CFingerprint::Width).toInt())
                               .arg(p.value(CFingerprint::Height).toInt());
        }
        else
        {
            deviceLines
                << QStringLiteral("  %1: left out, learning failed: %2").arg(device.name, device.failure);
        }
    }
    const QStringList variants =
        commandLine.variants ? variantNames() : QStringList(variantNames().mid(0, 1));

    SValidationReport report;
    report.setPath = QFileInfo(setPath).absoluteFilePath();
    report.deviceLines = deviceLines;
    report.fingerprints = learned;
    report.photoDevices = photoDevices;
    report.variants = variants;
    report.pairs = pairs;
    QString reportLine;
    if (!commandLine.reportFile.isEmpty())
    {
        CConsole::note(QStringLiteral("writing the validation report to %1").arg(commandLine.reportFile));
        const QString error = writeValidationReport(report, commandLine.reportFile, temp.path());
        if (!error.isEmpty())
        {
            CConsole::error(
                QStringLiteral("cannot write the report %1: %2").arg(commandLine.reportFile, error));
            exitCode = ExitFailure;
        }
        else
        {
            reportLine =
                QStringLiteral("Report: %1")
                    .arg(QDir::toNativeSeparators(QFileInfo(commandLine.reportFile).absoluteFilePath()));
        }
        if (interruptedSince(interruptsAtStart))
            return stop();
    }

    for (const QString& line : validationText(report))
        CConsole::out(line);
    if (!reportLine.isEmpty())
        CConsole::out(reportLine);
    CConsole::out(QString());
    CConsole::out(summaryLine(pairs));
    if (CConsole::outFailed())
        exitCode = ExitFailure;
    return exitCode;
}

} // namespace cli
