#include "analyzejob.h"
#include "commands.h"
#include "console.h"

#include "camsim/camera.h"
#include "camsim/profiles.h"

#include <QDir>
#include <QElapsedTimer>
#include <QMutex>
#include <QRunnable>
#include <QTemporaryDir>
#include <QThreadPool>

#include <memory>
#include <vector>

namespace cli
{

namespace
{

enum ECamera
{
    CameraA, // the fingerprint's camera
    CameraB, // another unit of A's make and model
    CameraC, // another make
};

// One photo of the sample case and how it was made.
struct SDemoPhoto
{
    QString path;
    ECamera camera;
    QString note;
    camsim::ShotConfig shot;
    int recompressQuality = 0; // 0: as the camera wrote it
};

// The calibrated DSLR profile shrunk to 1600 pixels wide: its photos score as
// real ones do, from the highest class down to below the threshold.
constexpr double DemoScale = 1600.0 / 3008.0;
const camsim::profiles::Profile DemoProfile = camsim::profiles::Profile::Dslr;

camsim::CameraConfig cameraConfig(ECamera camera)
{
    switch (camera)
    {
    case CameraA:
        return camsim::profiles::camera(DemoProfile, 1, DemoScale);
    case CameraB:
        return camsim::profiles::camera(DemoProfile, 2, DemoScale);
    case CameraC:
        break;
    }
    camsim::CameraConfig config = camsim::profiles::camera(DemoProfile, 7, DemoScale);
    config.make = "Orvanti";
    config.model = "LX-5";
    config.lens.clear();
    return config;
}

QString cameraName(ECamera camera)
{
    const camsim::CameraConfig config = cameraConfig(camera);
    return QString::fromStdString(config.make + " " + config.model);
}

QString truthText(ECamera camera)
{
    switch (camera)
    {
    case CameraA:
        return QStringLiteral("camera A");
    case CameraB:
        return QStringLiteral("camera B (same model)");
    case CameraC:
        break;
    }
    return QStringLiteral("camera C");
}

// What makes the shot easy or hard, in a few words.
QString shotNote(const camsim::ShotConfig& shot)
{
    QString scene = QString::fromLatin1(camsim::sceneKindName(shot.scene));
    if (shot.exposure < 0.05)
        scene = QStringLiteral("dark ") + scene;
    else if (shot.scene == camsim::SceneKind::Sky)
        scene = QStringLiteral("clipped sky");
    return QStringLiteral("%1, JPEG q%2").arg(scene).arg(shot.quality);
}

// Flat shots of camera A (walls, an overcast sky), as an examiner takes them.
std::vector<SDemoPhoto> referencePhotos(const QDir& dir)
{
    std::vector<SDemoPhoto> photos;
    for (int i = 0; i < 12; ++i)
    {
        SDemoPhoto p;
        p.camera = CameraA;
        p.path = dir.filePath(QStringLiteral("ref-%1.jpg").arg(i + 1, 2, 10, QLatin1Char('0')));
        p.shot = camsim::profiles::referenceShot(DemoProfile, 100 + static_cast<uint64_t>(i));
        p.note = QStringLiteral("flat");
        photos.push_back(p);
    }
    return photos;
}

// The questioned folder, mixed so the cameras do not come in blocks. The
// shots are drawn from the profile's mix; the seeds pick photos of camera A
// in every class, easy and hard. B sees some of A's scenes: the same picture
// from another sensor must not match.
std::vector<SDemoPhoto> questionedPhotos(const QDir& dir)
{
    struct SPlan
    {
        ECamera camera;
        uint64_t seed;
        int rotation;
        bool crop;
        int quality; // recompression, 0: none
    };
    const SPlan plan[] = {
        {CameraA, 2001, 0, false, 0},   {CameraB, 2001, 0, false, 0}, {CameraA, 2002, 0, false, 0},
        {CameraC, 2003, 0, false, 0},   {CameraA, 2014, 90, false, 0}, {CameraB, 2002, 0, false, 0},
        {CameraA, 2005, 0, false, 70},  {CameraC, 2006, 0, false, 0}, {CameraA, 2007, 180, false, 0},
        {CameraA, 2008, 0, true, 0},    {CameraB, 2009, 0, false, 0}, {CameraA, 2010, 270, false, 0},
        {CameraC, 2011, 0, false, 0},   {CameraA, 2012, 0, false, 0},
    };
    std::vector<SDemoPhoto> photos;
    int number = 0;
    for (const SPlan& step : plan)
    {
        SDemoPhoto p;
        p.camera = step.camera;
        p.path = dir.filePath(QStringLiteral("photo-%1.jpg").arg(++number, 2, 10, QLatin1Char('0')));
        p.shot = camsim::profiles::naturalShot(DemoProfile, step.seed);
        p.note = shotNote(p.shot);
        p.shot.rotation = step.rotation;
        if (step.rotation != 0)
            p.note += QStringLiteral(", turned %1").arg(step.rotation);
        if (step.crop)
        {
            const camsim::CameraConfig config = cameraConfig(step.camera);
            p.shot.cropWidth = config.width / 2;
            p.shot.cropHeight = config.height / 2;
            p.note += QStringLiteral(", crop");
        }
        p.recompressQuality = step.quality;
        if (step.quality > 0)
            p.note += QStringLiteral(", resaved q%1").arg(step.quality);
        photos.push_back(p);
    }
    return photos;
}

// Renders the photos on every core; the cameras are read-only while they shoot.
QString shootAll(const std::vector<SDemoPhoto>& photos)
{
    std::vector<std::unique_ptr<camsim::Camera>> cameras;
    try
    {
        for (ECamera camera : {CameraA, CameraB, CameraC})
            cameras.push_back(std::make_unique<camsim::Camera>(cameraConfig(camera)));
    }
    catch (const camsim::Error& e)
    {
        return QString::fromStdString(e.what());
    }

    QMutex mutex;
    QString firstError;
    QThreadPool pool;
    for (const SDemoPhoto& photo : photos)
    {
        const camsim::Camera* camera = cameras.at(static_cast<size_t>(photo.camera)).get();
        pool.start(QRunnable::create(
            [camera, photo, &mutex, &firstError]
            {
                try
                {
                    const std::string path = QDir::toNativeSeparators(photo.path).toStdString();
                    camera->shoot(photo.shot, path);
                    if (photo.recompressQuality > 0)
                        camsim::recompressJpeg(path, path, photo.recompressQuality);
                }
                catch (const camsim::Error& e)
                {
                    QMutexLocker lock(&mutex);
                    if (firstError.isEmpty())
                        firstError =
                            QStringLiteral("%1: %2").arg(photo.path, QString::fromStdString(e.what()));
                }
            }));
    }
    pool.waitForDone();
    return firstError;
}

enum EVerdict
{
    Right,
    Missed, // camera A's photo below the threshold: too hard to tell, but no wrong claim
    Wrong,
};

EVerdict verdict(ECamera camera, const SPhotoOutcome& outcome)
{
    if (!outcome.processed || outcome.result.status != qutils::CQuorvexAPI::Success)
        return Wrong;
    if (camera == CameraA)
        return outcome.result.matched ? Right : Missed;
    return outcome.result.matched ? Wrong : Right;
}

} // namespace

int runDemo(const SCommandLine& commandLine)
{
    QElapsedTimer total;
    total.start();

    QString root;
    if (commandLine.outDir.isEmpty())
    {
        QTemporaryDir temporary(QDir(QDir::tempPath()).filePath(QStringLiteral("quorvex-demo-XXXXXX")));
        if (!temporary.isValid())
        {
            CConsole::error(QStringLiteral("cannot make a folder in %1: %2")
                                .arg(QDir::tempPath(), temporary.errorString()));
            return ExitFailure;
        }
        // Kept: the sample case is there to be looked at afterwards.
        temporary.setAutoRemove(false);
        root = temporary.path();
    }
    else
    {
        root = commandLine.outDir;
        const QDir dir(root);
        // Never mixes the sample case into someone's files, nor deletes any.
        if (dir.exists() && !dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty())
        {
            CConsole::error(QStringLiteral("%1 is not empty; give a new or empty folder to --out").arg(root));
            return ExitFailure;
        }
    }
    const QDir dir(root);
    const QString referenceFolder = dir.filePath(QStringLiteral("reference"));
    const QString questionedFolder = dir.filePath(QStringLiteral("questioned"));
    const QString fingerprintFile = dir.filePath(QStringLiteral("camera-a.fnp"));
    if (!QDir().mkpath(referenceFolder) || !QDir().mkpath(questionedFolder))
    {
        CConsole::error(QStringLiteral("cannot make the folders of the sample case in %1").arg(root));
        return ExitFailure;
    }

    const std::vector<SDemoPhoto> references = referencePhotos(QDir(referenceFolder));
    const std::vector<SDemoPhoto> questioned = questionedPhotos(QDir(questionedFolder));
    CConsole::out(QStringLiteral("Sample case in %1").arg(root));
    CConsole::out(QStringLiteral("  camera A: %1, the camera to identify").arg(cameraName(CameraA)));
    CConsole::out(
        QStringLiteral("  camera B: %1, another unit of the same make and model").arg(cameraName(CameraB)));
    CConsole::out(QStringLiteral("  camera C: %1, another make").arg(cameraName(CameraC)));
    CConsole::note(
        QStringLiteral("simulating %1 reference photos of camera A and %2 questioned photos (%3x%4)")
            .arg(references.size())
            .arg(questioned.size())
            .arg(cameraConfig(CameraA).width)
            .arg(cameraConfig(CameraA).height));
    std::vector<SDemoPhoto> all = references;
    all.insert(all.end(), questioned.begin(), questioned.end());
    const QString shootError = shootAll(all);
    if (!shootError.isEmpty())
    {
        CConsole::error(QStringLiteral("cannot make the sample photos: %1").arg(shootError));
        return ExitFailure;
    }

    CConsole::out(QString());
    CConsole::out(
        QStringLiteral("Learning camera A from %1 flat reference photos (walls, overcast skies)")
            .arg(references.size()));
    QFileInfoList referenceFiles;
    for (const SDemoPhoto& photo : references)
        referenceFiles.append(QFileInfo(photo.path));
    const int learned = learnFingerprint(referenceFiles, fingerprintFile);
    if (learned != ExitDone)
        return learned;

    qutils::CQuorvexAPI::EStatus status = qutils::CQuorvexAPI::Invalid;
    const std::shared_ptr<const CFingerprint> fingerprint =
        CFingerprint::load(QFileInfo(fingerprintFile), &status);
    if (!fingerprint)
    {
        CConsole::error(QStringLiteral("cannot read the fingerprint file %1: %2")
                            .arg(fingerprintFile, qutils::CQuorvexAPI::statusText(status)));
        return ExitFailure;
    }
    QFileInfoList questionedFiles;
    for (const SDemoPhoto& photo : questioned)
        questionedFiles.append(QFileInfo(photo.path));
    CAnalyzeJob job(questionedFiles, fingerprint, false, 0);
    CConsole::out(QString());
    CConsole::out(QStringLiteral("Analyzing %1 questioned photos on %2 threads")
                      .arg(questioned.size())
                      .arg(job.threadCount()));
    const QList<SPhotoOutcome> outcomes = job.run();

    CConsole::out(QString());
    const QString row = QStringLiteral("%1  %2  %3  %4  %5  %6");
    CConsole::out(row.arg(QStringLiteral("photo"), -12)
                      .arg(QStringLiteral("truth"), -21)
                      .arg(QStringLiteral("how it was taken"), -32)
                      .arg(QStringLiteral("class"), -13)
                      .arg(QStringLiteral("PCE"), 9)
                      .arg(QStringLiteral("verdict")));
    int wrong = 0;
    int missed = 0;
    for (size_t i = 0; i < questioned.size(); ++i)
    {
        const SDemoPhoto& photo = questioned.at(i);
        const SPhotoOutcome& outcome = outcomes.at(static_cast<int>(i));
        const EVerdict v = verdict(photo.camera, outcome);
        wrong += v == Wrong;
        missed += v == Missed;
        CConsole::out(row.arg(QFileInfo(photo.path).fileName(), -12)
                          .arg(truthText(photo.camera), -21)
                          .arg(photo.note, -32)
                          .arg(className(outcome), -13)
                          .arg(QString::number(outcome.result.pce, 'f', 1), 9)
                          .arg(v == Right ? QStringLiteral("right")
                                          : (v == Missed ? QStringLiteral("missed") : QStringLiteral("WRONG"))));
    }
    CConsole::out(QString());
    for (const QString& line : summaryLines(summarize(outcomes, job.seconds())))
        CConsole::out(line);
    CConsole::out(QString());
    if (wrong == 0 && missed > 0)
        CConsole::out(QStringLiteral("No photo classified wrong: every match is camera A's, cameras B and C's "
                                     "are not found; %1 of camera A's photos scored below the threshold, too "
                                     "hard to tell, as some real photos are.")
                          .arg(missed));
    else if (wrong == 0)
        CConsole::out(
            QStringLiteral("All %1 photos classified right: camera A's photos match, cameras B and C's "
                           "are not found.")
                .arg(questioned.size()));
    else
        CConsole::out(QStringLiteral("%1 of %2 photos classified WRONG.").arg(wrong).arg(questioned.size()));
    const QString reportFile = dir.filePath(QStringLiteral("report.pdf"));
    CConsole::out(QString());
    const int reported = writeReport(outcomes, fingerprintFile, fingerprint->properties(), questionedFolder, reportFile);
    CConsole::out(QStringLiteral("Files: reference photos in %1, questioned photos in %2, fingerprint %3")
                      .arg(referenceFolder, questionedFolder, fingerprintFile));
    if (reported != ExitDone)
        return reported;
    CConsole::note(QStringLiteral("demo finished in %1 s").arg(total.elapsed() / 1000.0, 0, 'f', 1));
    return wrong == 0 ? ExitDone : ExitFailure;
}

} // namespace cli
