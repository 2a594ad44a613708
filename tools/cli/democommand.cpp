#include "analyzejob.h"
#include "commands.h"
#include "console.h"

#include "camsim/camera.h"

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

constexpr int DemoWidth = 1600;
constexpr int DemoHeight = 1200;

camsim::CameraConfig cameraConfig(ECamera camera)
{
    camsim::CameraConfig config;
    config.width = DemoWidth;
    config.height = DemoHeight;
    switch (camera)
    {
    case CameraA:
        config.make = "Veltrano";
        config.model = "QX-1";
        config.unitSeed = 1001;
        break;
    case CameraB:
        config.make = "Veltrano";
        config.model = "QX-1";
        config.unitSeed = 1002;
        break;
    case CameraC:
        config.make = "Orvanti";
        config.model = "LX-5";
        config.unitSeed = 7;
        break;
    }
    return config;
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

camsim::ShotConfig shot(camsim::SceneKind scene, uint64_t seed)
{
    camsim::ShotConfig s;
    s.scene = scene;
    s.sceneSeed = seed;
    return s;
}

// Walls, skies and ordinary scenes of camera A, as an examiner would take them.
std::vector<SDemoPhoto> referencePhotos(const QDir& dir)
{
    std::vector<SDemoPhoto> photos;
    for (int i = 0; i < 12; ++i)
    {
        SDemoPhoto p;
        p.camera = CameraA;
        p.path = dir.filePath(QStringLiteral("ref-%1.jpg").arg(i + 1, 2, 10, QLatin1Char('0')));
        const uint64_t seed = 100 + static_cast<uint64_t>(i);
        if (i < 4)
        {
            p.shot = shot(camsim::SceneKind::Flat, seed);
            p.shot.exposure = 0.3 + 0.05 * i;
            p.note = QStringLiteral("flat");
        }
        else if (i < 8)
        {
            p.shot = shot(camsim::SceneKind::Gradient, seed);
            p.note = QStringLiteral("gradient");
        }
        else
        {
            p.shot = shot(camsim::SceneKind::Natural, seed);
            p.note = QStringLiteral("natural");
        }
        photos.push_back(p);
    }
    return photos;
}

// The questioned folder, mixed so the cameras do not come in blocks. B sees
// some of A's scenes: the same picture from another sensor must not match.
std::vector<SDemoPhoto> questionedPhotos(const QDir& dir)
{
    using camsim::SceneKind;
    struct SPlan
    {
        ECamera camera;
        SceneKind scene;
        uint64_t seed;
        int rotation;
        bool crop;
        int quality;
        const char* note;
    };
    const SPlan plan[] = {
        {CameraA, SceneKind::Natural, 201, 0, false, 0, "natural scene"},
        {CameraB, SceneKind::Natural, 201, 0, false, 0, "natural scene (same as photo-01)"},
        {CameraA, SceneKind::Edges, 202, 0, false, 0, "edges scene"},
        {CameraC, SceneKind::Natural, 203, 0, false, 0, "natural scene"},
        {CameraA, SceneKind::Natural, 204, 90, false, 0, "rotated 90"},
        {CameraB, SceneKind::Edges, 202, 0, false, 0, "edges scene (same as photo-03)"},
        {CameraA, SceneKind::Natural, 205, 0, false, 70, "recompressed at quality 70"},
        {CameraC, SceneKind::Edges, 206, 0, false, 0, "edges scene"},
        {CameraA, SceneKind::Edges, 207, 180, false, 0, "rotated 180"},
        {CameraA, SceneKind::Natural, 208, 0, true, 0, "centre crop 800x600"},
        {CameraB, SceneKind::Natural, 209, 0, false, 0, "natural scene"},
        {CameraA, SceneKind::Natural, 210, 270, false, 0, "rotated 270"},
        {CameraC, SceneKind::Gradient, 211, 0, false, 0, "gradient"},
        {CameraA, SceneKind::Natural, 212, 0, false, 0, "natural scene"},
    };
    std::vector<SDemoPhoto> photos;
    int number = 0;
    for (const SPlan& step : plan)
    {
        SDemoPhoto p;
        p.camera = step.camera;
        p.path = dir.filePath(QStringLiteral("photo-%1.jpg").arg(++number, 2, 10, QLatin1Char('0')));
        p.note = QString::fromLatin1(step.note);
        p.shot = shot(step.scene, step.seed);
        p.shot.rotation = step.rotation;
        if (step.crop)
        {
            p.shot.cropWidth = DemoWidth / 2;
            p.shot.cropHeight = DemoHeight / 2;
        }
        p.recompressQuality = step.quality;
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

bool isRight(ECamera camera, const SPhotoOutcome& outcome)
{
    if (!outcome.processed || outcome.result.status != qutils::CQuorvexAPI::Success)
        return false;
    return camera == CameraA ? outcome.result.matched : !outcome.result.matched;
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
    CConsole::out(QStringLiteral("  camera A: Veltrano QX-1, the camera to identify"));
    CConsole::out(QStringLiteral("  camera B: Veltrano QX-1, another unit of the same make and model"));
    CConsole::out(QStringLiteral("  camera C: Orvanti LX-5, another make"));
    CConsole::note(
        QStringLiteral("simulating %1 reference photos of camera A and %2 questioned photos (%3x%4)")
            .arg(references.size())
            .arg(questioned.size())
            .arg(DemoWidth)
            .arg(DemoHeight));
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
        QStringLiteral("Learning camera A from %1 reference photos (flat, gradient and natural scenes)")
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
    for (size_t i = 0; i < questioned.size(); ++i)
    {
        const SDemoPhoto& photo = questioned.at(i);
        const SPhotoOutcome& outcome = outcomes.at(static_cast<int>(i));
        const bool right = isRight(photo.camera, outcome);
        if (!right)
            ++wrong;
        CConsole::out(row.arg(QFileInfo(photo.path).fileName(), -12)
                          .arg(truthText(photo.camera), -21)
                          .arg(photo.note, -32)
                          .arg(className(outcome), -13)
                          .arg(QString::number(outcome.result.pce, 'f', 1), 9)
                          .arg(right ? QStringLiteral("right") : QStringLiteral("WRONG")));
    }
    CConsole::out(QString());
    for (const QString& line : summaryLines(summarize(outcomes, job.seconds())))
        CConsole::out(line);
    CConsole::out(QString());
    if (wrong == 0)
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
