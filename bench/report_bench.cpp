// A PDF report of many photos, made the way the analysis page makes it:
// simulated photos with EXIF data, results of every class, the report task
// with the real converter. Prints the time of each phase and the PDF's size.
//
//   bench_report [--count 500] [--dir FOLDER]
//
// Photos are made once in the folder and reused.
#include "generatortask.h"

#include "camsim/camera.h"
#include "qutils/exception.h"
#include "qutils/tasks.h"

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QProcess>

#include <cstdio>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOptions({{QStringLiteral("count"), QStringLiteral("photos"), QStringLiteral("n"), QStringLiteral("500")},
                       {QStringLiteral("dir"), QStringLiteral("photo folder"), QStringLiteral("folder")}});
    parser.process(app);
    const int count = parser.value(QStringLiteral("count")).toInt();
    const QDir dir(parser.isSet(QStringLiteral("dir"))
                       ? parser.value(QStringLiteral("dir"))
                       : QDir::temp().filePath(QStringLiteral("quorvex-bench-report-%1").arg(count)));
    dir.mkpath(QStringLiteral("."));

    QElapsedTimer clock;
    clock.start();
    camsim::CameraConfig config;
    config.width = 1024;
    config.height = 768;
    config.unitSeed = 3;
    const camsim::Camera camera(config);
    SReportInput input;
    int made = 0;
    for (int i = 0; i < count; ++i)
    {
        const QString path = dir.filePath(QStringLiteral("IMG_%1.jpg").arg(i, 4, 10, QLatin1Char('0')));
        if (!QFileInfo::exists(path))
        {
            camsim::ShotConfig shot;
            shot.sceneSeed = static_cast<uint64_t>(i);
            shot.scene = i % 3 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
            camera.shoot(shot, path.toStdString());
            ++made;
        }
        input.photos << QFileInfo(path);
        // Every class represented, a few photos never processed.
        qutils::CQuorvexAPI::SAnalysisResult result;
        result.status = qutils::CQuorvexAPI::Success;
        switch (i % 6)
        {
        case 0: result = {true, 0.9995, 0.041, qutils::CQuorvexAPI::Success, 900.0}; break;
        case 1: result = {true, 0.996, 0.02, qutils::CQuorvexAPI::Success, 300.0}; break;
        case 2: result = {true, 0.991, 0.01, qutils::CQuorvexAPI::Success, 120.0}; break;
        case 3: result = {false, 0.0, 0.001, qutils::CQuorvexAPI::Success, 3.0}; break;
        case 4: result = {false, 0.0, 0.0, qutils::CQuorvexAPI::BrokenImage, 0.0}; break;
        default: continue;
        }
        input.results.insert(QFileInfo(path).absoluteFilePath(), result);
    }
    std::printf("photos: %d of 1024x768 in %s (%d made in %.1f s)\n", count, qPrintable(dir.absolutePath()), made,
                clock.elapsed() / 1000.0);

    input.fingerprintPath = dir.filePath(QStringLiteral("camera.fnp"));
    input.fingerprintProperties = {{CFingerprint::Width, 1024}, {CFingerprint::Height, 768},
                                   {CFingerprint::TrainingImagesCount, 30}, {CFingerprint::NMSE, 0.041},
                                   {CFingerprint::Manufacturer, QStringLiteral("Veltrano")},
                                   {CFingerprint::Model, QStringLiteral("QX-1")}};
    input.photosFolder = dir.absolutePath();
    input.reportPath = QDir::temp().filePath(QStringLiteral("quorvex-bench-report-%1.pdf").arg(count));

    auto task = qutils::makeTask<CGeneratorTask>(input);
    qint64 thumbnailsDoneMs = -1;
    QObject::connect(task.get(), &qutils::CTask::progressPos, [&](qint64 pos) {
        if (pos >= count && thumbnailsDoneMs < 0)
            thumbnailsDoneMs = clock.elapsed();
    });
    clock.restart();
    try
    {
        task->run();
    }
    catch (const qutils::CException& e)
    {
        std::printf("report failed: %s\n", e.what());
        return 1;
    }
    const qint64 totalMs = clock.elapsed();
    QProcess info;
    info.start(QStringLiteral("pdfinfo"), {input.reportPath});
    info.waitForFinished(30000);
    QString pages = QStringLiteral("?");
    for (const QString& line : QString::fromUtf8(info.readAllStandardOutput()).split(QLatin1Char('\n')))
        if (line.startsWith(QStringLiteral("Pages:")))
            pages = line.mid(6).trimmed();
    std::printf("report: %s\n", qPrintable(input.reportPath));
    std::printf("time: %.2f s in all (thumbnails and document %.2f s, conversion %.2f s)\n", totalMs / 1000.0,
                (thumbnailsDoneMs < 0 ? totalMs : thumbnailsDoneMs) / 1000.0,
                (totalMs - (thumbnailsDoneMs < 0 ? totalMs : thumbnailsDoneMs)) / 1000.0);
    std::printf("size: %.2f MB (%lld bytes), %s pages\n", QFileInfo(input.reportPath).size() / 1e6,
                static_cast<long long>(QFileInfo(input.reportPath).size()), qPrintable(pages));
    return 0;
}
