// The gallery at scale: a folder of many small photos listed through the folder
// page (progress dialog, worker thread, live count) into the gallery, then
// every thumbnail made while the view is scrolled through, with the time each
// repaint of the view took and the process's memory along the way.
//
//   bench_gallery [--count 10000] [--dir FOLDER] [--size 800x600]
//
// Photos are made once in the folder and reused. Runs on the offscreen platform.
#include "chooseimagepathdlg.h"
#include "gallerywidget.h"
#include "imagemodel.h"
#include "photolisting.h"

#include "qutils/appsettings.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QRandomGenerator>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace
{

// Resident and peak resident memory in MiB, from the kernel's own accounting.
std::pair<double, double> memoryMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    double rss = -1, peak = -1;
    if (!status.open(QIODevice::ReadOnly))
        return {rss, peak};
    for (const QByteArray& line : status.readAll().split('\n'))
    {
        const QList<QByteArray> parts = line.simplified().split(' ');
        if (parts.size() >= 2 && parts.at(0) == "VmRSS:")
            rss = parts.at(1).toDouble() / 1024.0;
        if (parts.size() >= 2 && parts.at(0) == "VmHWM:")
            peak = parts.at(1).toDouble() / 1024.0;
    }
    return {rss, peak};
}

// A photo-like picture: a gradient, a few shapes and sensor-like noise, so the
// JPEG decoder has real work.
QImage makePhoto(const QSize& size, int seed)
{
    QImage image(size, QImage::Format_RGB32);
    QPainter painter(&image);
    QLinearGradient gradient(0, 0, size.width(), size.height());
    gradient.setColorAt(0, QColor::fromHsv(seed * 37 % 360, 120, 220));
    gradient.setColorAt(1, QColor::fromHsv(seed * 91 % 360, 200, 60));
    painter.fillRect(image.rect(), gradient);
    QRandomGenerator random(static_cast<quint32>(seed));
    for (int i = 0; i < 12; ++i)
    {
        painter.setBrush(QColor::fromHsv(random.bounded(360), 180, 200));
        painter.drawEllipse(QPoint(random.bounded(size.width()), random.bounded(size.height())),
                            random.bounded(20, 120), random.bounded(20, 120));
    }
    painter.end();
    for (int y = 0; y < size.height(); ++y)
    {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x)
        {
            const int n = random.bounded(-6, 7);
            const QRgb p = line[x];
            line[x] = qRgb(qBound(0, qRed(p) + n, 255), qBound(0, qGreen(p) + n, 255), qBound(0, qBlue(p) + n, 255));
        }
    }
    return image;
}

int ensurePhotos(const QDir& dir, int count, const QSize& size)
{
    dir.mkpath(QStringLiteral("."));
    int made = 0;
    for (int i = 0; i < count; ++i)
    {
        const QString path = dir.filePath(QStringLiteral("IMG_%1.jpg").arg(i, 5, 10, QLatin1Char('0')));
        if (QFileInfo::exists(path))
            continue;
        makePhoto(size, i).save(path, "JPEG", 90);
        ++made;
    }
    return made;
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOptions({{QStringLiteral("count"), QStringLiteral("photos"), QStringLiteral("n"), QStringLiteral("10000")},
                       {QStringLiteral("dir"), QStringLiteral("photo folder"), QStringLiteral("folder")},
                       {QStringLiteral("size"), QStringLiteral("photo size"), QStringLiteral("WxH"), QStringLiteral("800x600")}});
    parser.process(app);
    const int count = parser.value(QStringLiteral("count")).toInt();
    const QStringList wh = parser.value(QStringLiteral("size")).split(QLatin1Char('x'));
    const QSize size(wh.value(0).toInt(), wh.value(1).toInt());
    const QDir dir(parser.isSet(QStringLiteral("dir"))
                       ? parser.value(QStringLiteral("dir"))
                       : QDir::temp().filePath(QStringLiteral("quorvex-bench-gallery-%1").arg(count)));
    QTemporaryDir config;
    qutils::CAppSettings::setConfigFolder(config.path());

    QElapsedTimer timer;
    timer.start();
    const int made = ensurePhotos(dir, count, size);
    std::printf("photos: %d of %dx%d in %s (%d made in %.1f s)\n", count, size.width(), size.height(),
                qPrintable(dir.absolutePath()), made, timer.elapsed() / 1000.0);
    const auto [rssStart, peakStart] = memoryMiB();

    // Listing as the user does it: through the page, behind the progress dialog.
    CGalleryWidget gallery;
    gallery.resize(1280, 800);
    gallery.show();
    CChooseImagePathDlg page;
    page.setGallery(&gallery);
    auto* countLabel = page.findChild<QLabel*>(QStringLiteral("imagesCount"));
    int labelUpdates = 0;
    timer.restart();
    QString lastCount;
    QTimer poll;
    poll.setInterval(5);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (countLabel->text() != lastCount)
        {
            lastCount = countLabel->text();
            ++labelUpdates;
        }
    });
    poll.start();
    page.listFolder(dir, true);
    while (gallery.imageModel()->rowCount() < count && timer.elapsed() < 600000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    poll.stop();
    const double listSeconds = timer.elapsed() / 1000.0;
    const auto [rssListed, peakListed] = memoryMiB();
    std::printf("listing: %d photos in %.3f s (count label changed %d times while listing)\n",
                gallery.imageModel()->rowCount(), listSeconds, labelUpdates);

    // Thumbnails: scroll through the gallery a screen at a time, repainting
    // each position as the user would see it, until every thumbnail is made.
    int ready = 0;
    QObject::connect(gallery.imageModel(), &QAbstractItemModel::dataChanged,
                     [&](const QModelIndex&, const QModelIndex&, const QVector<int>& roles) {
                         if (roles.contains(CImageModel::ImageRole))
                             ++ready;
                     });
    std::vector<double> frames;
    QScrollBar* bar = gallery.verticalScrollBar();
    timer.restart();
    QElapsedTimer frame;
    // A slow scroll: about a screen per 250 ms, the pace of someone looking.
    while (ready < count && timer.elapsed() < 1800000)
    {
        const int target = std::min(bar->maximum(), static_cast<int>(timer.elapsed() / 250.0 * gallery.viewport()->height()));
        bar->setValue(target);
        frame.start();
        gallery.viewport()->repaint();
        frames.push_back(frame.nsecsElapsed() / 1e6);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 16);
        if (bar->value() == bar->maximum())
        {
            // The end is on screen; ask for whatever was scrolled past before it was made.
            for (int row = 0; row < gallery.imageModel()->rowCount(); ++row)
                gallery.imageModel()->index(row).data(CImageModel::ImageRole);
        }
    }
    const double thumbSeconds = timer.elapsed() / 1000.0;
    const auto [rssThumbs, peakThumbs] = memoryMiB();
    std::sort(frames.begin(), frames.end());
    const auto percentile = [&](double p) { return frames.empty() ? 0.0 : frames[static_cast<size_t>(p * (frames.size() - 1))]; };
    double sum = 0;
    for (double f : frames)
        sum += f;
    std::printf("thumbnails: %d in %.2f s = %.0f thumbnails/s (cache holds %d)\n", ready, thumbSeconds,
                ready / thumbSeconds, CImageModel::thumbnailCacheCount());
    std::printf("repaints while thumbnails arrived: %zu, mean %.2f ms, median %.2f ms, 99th %.2f ms, max %.2f ms\n",
                frames.size(), frames.empty() ? 0.0 : sum / frames.size(), percentile(0.5), percentile(0.99),
                frames.empty() ? 0.0 : frames.back());
    std::printf("memory (MiB): start %.0f, after listing %.0f, after thumbnails %.0f, peak %.0f\n", rssStart,
                rssListed, rssThumbs, peakThumbs);
    Q_UNUSED(peakStart)
    Q_UNUSED(peakListed)
    gallery.imageModel()->stopThread();
    return 0;
}
