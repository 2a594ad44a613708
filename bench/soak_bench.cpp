// Soak: long runs must not leak. Two loads, each with the resident memory
// sampled along the way and every answer checked against the truth.
//
//   integration  one client sends N match requests to one "quorvex /integration"
//                server, cycling over a few small photos of the fingerprint's
//                camera and of another unit of its model; the server's and the
//                client's resident memory every 500 requests.
//   analyzer     CMultipleThreadAnalyzer on all threads over N distinct photo
//                paths (hard links to 100 simulated photos); this process's
//                resident memory every 100 finished photos.
//
//   bench_soak [--requests 10000] [--photos 2000] [--only integration|analyzer] [--size 800x600] [--cache DIR]
//
// Photos and the fingerprint are made once in the cache folder and reused.
// The server is found as the client finds it: QUORVEX_PROGRAM, then beside
// this program (the build puts both in bin/), then PATH.
#include "fingerprint.h"
#include "multiplethreadanalyzer.h"

#include "camsim/camera.h"
#include "qutils/quorvexapi.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

using qutils::CQuorvexAPI;

namespace
{

// Photo size: small, so a long run is quick; learning needs a short side of 512 or more.
int Width = 800;
int Height = 600;
constexpr int References = 10;
constexpr int SameQuestions = 6; // of the fingerprint's camera
constexpr int OtherQuestions = 4; // of another unit of the same model
constexpr int AnalyzerSources = 100;
constexpr int IntegrationSampleEvery = 500;
constexpr int AnalyzerSampleEvery = 100;

// The rule for "flat", stated once and printed with every verdict. The first
// tenth of the run is warm-up (allocator arenas, FFT plans, the fingerprint's
// spectrum, page cache); from the first sample after it, resident memory must
// grow by less than FlatGrowthMiB to the last sample, and the least-squares
// line through the second half of those samples must rise by less than
// FlatTailRiseMiB across that half, so a slow leak cannot hide under a
// generous total.
constexpr double WarmUpFraction = 0.1;
constexpr double FlatGrowthMiB = 4.0;
constexpr double FlatTailRiseMiB = 1.0;

struct SMemory
{
    double rss = -1; // MiB
    double peak = -1;
};

// Resident and peak resident memory of a process, from the kernel's own accounting.
SMemory memoryOf(const QString& statusPath)
{
    QFile status(statusPath);
    SMemory memory;
    if (!status.open(QIODevice::ReadOnly))
        return memory;
    for (const QByteArray& line : status.readAll().split('\n'))
    {
        const QList<QByteArray> parts = line.simplified().split(' ');
        if (parts.size() >= 2 && parts.at(0) == "VmRSS:")
            memory.rss = parts.at(1).toDouble() / 1024.0;
        if (parts.size() >= 2 && parts.at(0) == "VmHWM:")
            memory.peak = parts.at(1).toDouble() / 1024.0;
    }
    return memory;
}

SMemory ownMemory()
{
    return memoryOf(QStringLiteral("/proc/self/status"));
}

// What the allocator has handed out and not got back, against what it holds
// from the system: a growing first number is a leak, a growing second with a
// flat first is memory the allocator keeps.
struct SHeap
{
    double inUse = 0; // MiB
    double held = 0;
};

SHeap heapOfThisProcess()
{
    const struct mallinfo2 info = mallinfo2();
    return {(info.uordblks + info.hblkhd) / 1048576.0, (info.arena + info.hblkhd) / 1048576.0};
}

// The client does not tell its server's process id: the server is our child
// whose only argument is "/integration".
qint64 findServerPid()
{
    const qint64 self = getpid();
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries)
    {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // "pid (comm) state ppid ...": comm may hold spaces, so split after its ')'.
        const QByteArray text = stat.readAll();
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (fields.size() < 2 || fields.at(1).toLongLong() != self)
            continue;
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (!cmdline.open(QIODevice::ReadOnly))
            continue;
        const QList<QByteArray> args = cmdline.readAll().split('\0');
        if (args.size() >= 2 && args.at(1) == "/integration")
            return pid;
    }
    return -1;
}

struct SPhoto
{
    QString path;
    bool sameCamera;
};

struct SPhotoSet
{
    QString fingerprint;
    QList<SPhoto> questions;
};

// Learning photos, questioned photos of both units and the fingerprint, made
// once in dir.
SPhotoSet ensurePhotoSet(const QDir& dir)
{
    dir.mkpath(QStringLiteral("."));
    camsim::CameraConfig config;
    config.width = Width;
    config.height = Height;
    config.unitSeed = 1;
    const camsim::Camera unit1(config);
    config.unitSeed = 2;
    const camsim::Camera unit2(config);
    const auto shoot = [&](const camsim::Camera& camera, camsim::SceneKind scene, uint64_t seed,
                           const QString& name) {
        const QString path = dir.absoluteFilePath(name);
        if (!QFileInfo::exists(path))
        {
            camsim::ShotConfig shot;
            shot.scene = scene;
            shot.sceneSeed = seed;
            camera.shoot(shot, path.toStdString());
        }
        return path;
    };

    SPhotoSet set;
    QFileInfoList references;
    for (int i = 0; i < References; ++i)
    {
        const camsim::SceneKind scene =
            i % 3 == 0 ? camsim::SceneKind::Flat : (i % 3 == 1 ? camsim::SceneKind::Gradient : camsim::SceneKind::Natural);
        references.append(QFileInfo(shoot(unit1, scene, 100 + i, QStringLiteral("ref_%1.jpg").arg(i))));
    }
    for (int i = 0; i < SameQuestions + OtherQuestions; ++i)
    {
        const bool same = i < SameQuestions;
        const camsim::SceneKind scene = i % 2 ? camsim::SceneKind::Edges : camsim::SceneKind::Natural;
        set.questions.append({shoot(same ? unit1 : unit2, scene, 500 + i,
                                    QStringLiteral("%1_%2.jpg").arg(same ? QStringLiteral("same") : QStringLiteral("other")).arg(i)),
                              same});
    }
    set.fingerprint = dir.absoluteFilePath(QStringLiteral("unit1.fnp"));
    if (!QFileInfo::exists(set.fingerprint))
    {
        const CQuorvexAPI::EStatus status =
            CFingerprint::createFingerprint(references, QFileInfo(set.fingerprint), nullptr);
        if (status != CQuorvexAPI::Success)
        {
            std::fprintf(stderr, "learning failed: %s\n", qPrintable(CQuorvexAPI::statusKey(status)));
            set.fingerprint.clear();
        }
    }
    return set;
}

bool expected(const CQuorvexAPI::SAnalysisResult& result, bool sameCamera)
{
    return result.status == CQuorvexAPI::Success && result.matched == sameCamera;
}

// One memory curve and what it says.
struct SVerdict
{
    bool flat = false;
    double baseline = 0;
    long baselineOps = 0;
    double last = 0;
    long lastOps = 0;
    double growth = 0;
    double growthPerThousand = 0;
    double tailRise = 0;
};

SVerdict judge(const std::vector<long>& ops, const std::vector<double>& rss, long total)
{
    SVerdict v;
    if (ops.empty())
        return v;
    const long warmUp = static_cast<long>(total * WarmUpFraction);
    size_t first = 0;
    while (first + 1 < ops.size() && ops[first] < warmUp)
        ++first;
    v.baseline = rss[first];
    v.baselineOps = ops[first];
    v.last = rss.back();
    v.lastOps = ops.back();
    v.growth = v.last - v.baseline;
    v.growthPerThousand = v.lastOps > v.baselineOps ? v.growth * 1000.0 / (v.lastOps - v.baselineOps) : 0.0;

    // Least-squares slope through the second half of the samples after warm-up.
    const size_t tail = first + (ops.size() - first) / 2;
    const size_t n = ops.size() - tail;
    if (n >= 2)
    {
        double mx = 0, my = 0;
        for (size_t i = tail; i < ops.size(); ++i)
        {
            mx += ops[i];
            my += rss[i];
        }
        mx /= n;
        my /= n;
        double sxy = 0, sxx = 0;
        for (size_t i = tail; i < ops.size(); ++i)
        {
            sxy += (ops[i] - mx) * (rss[i] - my);
            sxx += (ops[i] - mx) * (ops[i] - mx);
        }
        v.tailRise = sxx > 0 ? sxy / sxx * (ops.back() - ops[tail]) : 0.0;
    }
    v.flat = v.growth < FlatGrowthMiB && v.tailRise < FlatTailRiseMiB;
    return v;
}

void printVerdict(const char* what, const char* unit, const SVerdict& v)
{
    std::printf("verdict %s: RSS %.1f MiB at %ld %s -> %.1f MiB at %ld: growth %+.2f MiB (%+.3f MiB per 1,000 %s), "
                "trend over the last half %+.2f MiB: %s\n",
                what, v.baseline, v.baselineOps, unit, v.last, v.lastOps, v.growth, v.growthPerThousand, unit,
                v.tailRise, v.flat ? "FLAT" : "NOT FLAT");
}

void printRule()
{
    std::printf("rule: flat when, after warm-up (the first %.0f %% of the run), RSS grows by less than %.0f MiB from the "
                "first sample to the last and the least-squares trend through the last half of those samples rises by "
                "less than %.0f MiB\n",
                WarmUpFraction * 100, FlatGrowthMiB, FlatTailRiseMiB);
}

bool runIntegration(const SPhotoSet& set, int requests)
{
    std::printf("\n== integration: %d match requests from one client ==\n", requests);
    const QString program = CQuorvexAPI::findProgram();
    std::printf("server: %s /integration; fingerprint from %d photos of %dx%d; questioned photos: %d same camera, %d "
                "other unit, cycled\n",
                qPrintable(program), References, Width, Height, SameQuestions, OtherQuestions);
    QElapsedTimer timer;
    timer.start();
    CQuorvexAPI client;
    if (client.state() != CQuorvexAPI::Success)
    {
        std::printf("the server did not start: %s\n", qPrintable(CQuorvexAPI::statusKey(client.state())));
        return false;
    }
    const qint64 pid = findServerPid();
    if (pid < 0)
    {
        std::printf("the server's process was not found\n");
        return false;
    }
    const QString serverStatus = QStringLiteral("/proc/%1/status").arg(pid);
    const SMemory serverStart = memoryOf(serverStatus);
    const SMemory clientStart = ownMemory();
    std::printf("server pid %lld started in %.2f s; RSS before the first request: server %.1f MiB, client %.1f MiB\n",
                static_cast<long long>(pid), timer.elapsed() / 1000.0, serverStart.rss, clientStart.rss);

    std::vector<long> ops;
    std::vector<double> serverRss, clientRss;
    int wrong = 0;
    int sameMatched = 0, otherRejected = 0;
    double minSameProbability = 1.0, maxOtherProbability = 0.0;
    std::printf("%9s %12s %12s %10s %7s\n", "requests", "server MiB", "client MiB", "req/s", "wrong");
    QElapsedTimer window;
    QElapsedTimer whole;
    whole.start();
    window.start();
    for (int i = 1; i <= requests; ++i)
    {
        const SPhoto& photo = set.questions.at((i - 1) % set.questions.size());
        const CQuorvexAPI::SAnalysisResult result = client.match(set.fingerprint, photo.path);
        if (!expected(result, photo.sameCamera))
        {
            if (++wrong <= 5)
                std::printf("wrong answer at request %d for %s: matched %d, probability %g, status %s\n", i,
                            qPrintable(photo.path), result.matched, result.probability,
                            qPrintable(CQuorvexAPI::statusKey(result.status)));
        }
        else if (photo.sameCamera)
        {
            ++sameMatched;
            minSameProbability = std::min(minSameProbability, result.probability);
        }
        else
        {
            ++otherRejected;
            maxOtherProbability = std::max(maxOtherProbability, result.probability);
        }
        if (i % IntegrationSampleEvery == 0 || i == requests)
        {
            const double seconds = window.nsecsElapsed() / 1e9;
            const int inWindow = i % IntegrationSampleEvery == 0 ? IntegrationSampleEvery : i % IntegrationSampleEvery;
            const SMemory server = memoryOf(serverStatus);
            const SMemory own = ownMemory();
            ops.push_back(i);
            serverRss.push_back(server.rss);
            clientRss.push_back(own.rss);
            std::printf("%9d %12.1f %12.1f %10.1f %7d\n", i, server.rss, own.rss, inWindow / seconds, wrong);
            std::fflush(stdout);
            window.restart();
        }
    }
    const double seconds = whole.nsecsElapsed() / 1e9;
    const SMemory serverEnd = memoryOf(serverStatus);
    const SMemory clientEnd = ownMemory();
    std::printf("%d requests in %.1f s = %.1f requests/s (%.2f ms each)\n", requests, seconds, requests / seconds,
                seconds * 1000.0 / requests);
    std::printf("answers: %d same-camera matched (lowest probability %g), %d other-unit not matched (highest "
                "probability %g), %d wrong\n",
                sameMatched, minSameProbability, otherRejected, maxOtherProbability, wrong);
    std::printf("peak RSS: server %.1f MiB, client %.1f MiB\n", serverEnd.peak, clientEnd.peak);
    printRule();
    const SVerdict server = judge(ops, serverRss, requests);
    const SVerdict own = judge(ops, clientRss, requests);
    printVerdict("integration server", "requests", server);
    printVerdict("integration client", "requests", own);
    return wrong == 0 && server.flat && own.flat;
}

// dir holds AnalyzerSources photos (the first 60 of the fingerprint's camera)
// and count hard links to them under distinct names, so every path is a new
// photo to the analyzer while the folder stays small.
QList<SPhoto> ensureAnalyzerPhotos(const QDir& dir, int count)
{
    dir.mkpath(QStringLiteral("sources"));
    camsim::CameraConfig config;
    config.width = Width;
    config.height = Height;
    config.unitSeed = 1;
    const camsim::Camera unit1(config);
    config.unitSeed = 2;
    const camsim::Camera unit2(config);
    const int sameSources = AnalyzerSources * 6 / 10;
    QStringList sources;
    for (int i = 0; i < AnalyzerSources; ++i)
    {
        const QString path = dir.absoluteFilePath(QStringLiteral("sources/src_%1.jpg").arg(i, 3, 10, QLatin1Char('0')));
        if (!QFileInfo::exists(path))
        {
            camsim::ShotConfig shot;
            shot.scene = i % 2 ? camsim::SceneKind::Edges : camsim::SceneKind::Natural;
            shot.sceneSeed = 1000 + i;
            (i < sameSources ? unit1 : unit2).shoot(shot, path.toStdString());
        }
        sources.append(path);
    }
    QList<SPhoto> photos;
    for (int i = 0; i < count; ++i)
    {
        const int source = i % AnalyzerSources;
        const QString path = dir.absoluteFilePath(QStringLiteral("IMG_%1.jpg").arg(i, 5, 10, QLatin1Char('0')));
        if (!QFileInfo::exists(path) && link(QFile::encodeName(sources.at(source)).constData(),
                                             QFile::encodeName(path).constData()) != 0)
            QFile::copy(sources.at(source), path); // a file system without hard links
        photos.append({path, source < sameSources});
    }
    return photos;
}

bool runAnalyzer(const SPhotoSet& set, const QDir& dir, int count)
{
    std::printf("\n== analyzer: %d photos ==\n", count);
    QElapsedTimer timer;
    timer.start();
    const QList<SPhoto> photos = ensureAnalyzerPhotos(dir, count);
    std::printf("photos: %d paths of %dx%d in %s (%d sources, 60 %% of the fingerprint's camera; ready in %.1f s)\n",
                count, Width, Height, qPrintable(dir.absolutePath()), AnalyzerSources, timer.elapsed() / 1000.0);

    CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
    const std::shared_ptr<CFingerprint> fingerprint = CFingerprint::load(QFileInfo(set.fingerprint), &status);
    if (!fingerprint)
    {
        std::printf("the fingerprint cannot be read: %s\n", qPrintable(CQuorvexAPI::statusKey(status)));
        return false;
    }
    QFileInfoList files;
    for (const SPhoto& photo : photos)
        files.append(QFileInfo(photo.path));

    const SMemory start = ownMemory();
    // The EXIF check is on, as in the program: both units carry the same make and model.
    CMultipleThreadAnalyzer analyzer(files, fingerprint, true);
    std::printf("threads: %d; RSS before the start: %.1f MiB\n", analyzer.threadCount(), start.rss);
    // Two workers are always inside a match, whose buffers come and go with it,
    // so one reading swings by the size of a match. The lowest reading of each
    // window is what stays between matches; a leak lifts it, so it is judged.
    std::printf("%9s %12s %12s %12s %12s %12s %10s\n", "photos", "RSS MiB", "window min", "window max", "heap in use",
                "heap held", "photos/s");

    std::vector<long> ops;
    std::vector<double> rss;
    int finished = 0;
    double windowMin = 1e300, windowMax = 0;
    QElapsedTimer window;
    QElapsedTimer whole;
    QObject::connect(&analyzer, &CMultipleThreadAnalyzer::imageFinished, &analyzer, [&](int) {
        ++finished;
        const SMemory now = ownMemory();
        windowMin = std::min(windowMin, now.rss);
        windowMax = std::max(windowMax, now.rss);
        if (finished % AnalyzerSampleEvery == 0 || finished == count)
        {
            const double seconds = window.nsecsElapsed() / 1e9;
            const int inWindow = finished % AnalyzerSampleEvery == 0 ? AnalyzerSampleEvery : finished % AnalyzerSampleEvery;
            ops.push_back(finished);
            rss.push_back(windowMin);
            const SHeap heap = heapOfThisProcess();
            std::printf("%9d %12.1f %12.1f %12.1f %12.1f %12.1f %10.1f\n", finished, now.rss, windowMin, windowMax,
                        heap.inUse, heap.held, inWindow / seconds);
            std::fflush(stdout);
            windowMin = 1e300;
            windowMax = 0;
            window.restart();
        }
    });
    QObject::connect(&analyzer, &CMultipleThreadAnalyzer::finished, QCoreApplication::instance(),
                     &QCoreApplication::quit, Qt::QueuedConnection);
    whole.start();
    window.start();
    analyzer.start();
    QCoreApplication::exec();
    const double seconds = whole.nsecsElapsed() / 1e9;
    const SMemory end = ownMemory();

    int wrong = 0, missing = 0, sameMatched = 0, otherRejected = 0;
    const QMap<QString, CQuorvexAPI::SAnalysisResult> results = analyzer.results();
    for (const SPhoto& photo : photos)
    {
        const auto found = results.constFind(QFileInfo(photo.path).absoluteFilePath());
        if (found == results.constEnd())
        {
            ++missing;
            continue;
        }
        if (!expected(found.value(), photo.sameCamera))
        {
            if (++wrong <= 5)
                std::printf("wrong answer for %s: matched %d, probability %g, status %s\n", qPrintable(photo.path),
                            found.value().matched, found.value().probability,
                            qPrintable(CQuorvexAPI::statusKey(found.value().status)));
        }
        else
            ++(photo.sameCamera ? sameMatched : otherRejected);
    }
    std::printf("%d photos in %.1f s = %.2f photos/s\n", finished, seconds, finished / seconds);
    std::printf("results: %d of %d photos; %d same-camera matched, %d other-unit not matched, %d wrong, %d missing\n",
                results.size(), count, sameMatched, otherRejected, wrong, missing);
    std::printf("peak RSS %.1f MiB\n", end.peak);
    printRule();
    const SVerdict verdict = judge(ops, rss, count);
    printVerdict("analyzer (window minimum)", "photos", verdict);
    return wrong == 0 && missing == 0 && finished == count && verdict.flat;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOptions({{QStringLiteral("requests"), QStringLiteral("match requests to the server"), QStringLiteral("n"),
                        QStringLiteral("10000")},
                       {QStringLiteral("photos"), QStringLiteral("photos for the analyzer"), QStringLiteral("n"),
                        QStringLiteral("2000")},
                       {QStringLiteral("only"), QStringLiteral("integration or analyzer"), QStringLiteral("part")},
                       {QStringLiteral("size"), QStringLiteral("photo size"), QStringLiteral("WxH"), QStringLiteral("800x600")},
                       {QStringLiteral("cache"), QStringLiteral("photo folder"), QStringLiteral("folder")}});
    parser.process(app);
    const int requests = parser.value(QStringLiteral("requests")).toInt();
    const int photos = parser.value(QStringLiteral("photos")).toInt();
    const QString only = parser.value(QStringLiteral("only"));
    if (!only.isEmpty() && only != QLatin1String("integration") && only != QLatin1String("analyzer"))
    {
        std::fprintf(stderr, "--only takes integration or analyzer\n");
        return 2;
    }
    const QStringList wh = parser.value(QStringLiteral("size")).split(QLatin1Char('x'));
    Width = wh.value(0).toInt();
    Height = wh.value(1).toInt();
    if (std::min(Width, Height) < 512)
    {
        std::fprintf(stderr, "--size: both sides 512 or more (learning needs it)\n");
        return 2;
    }
    const QString size = QStringLiteral("%1x%2").arg(Width).arg(Height);
    const QDir cache(parser.isSet(QStringLiteral("cache")) ? parser.value(QStringLiteral("cache"))
                                                           : QDir::temp().filePath(QStringLiteral("quorvex-bench-soak")));

    // The server's log and settings go to a folder of this run, not the user's.
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral("data"))));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));

    QElapsedTimer timer;
    timer.start();
    const SPhotoSet set = ensurePhotoSet(QDir(cache.filePath(QStringLiteral("set-") + size)));
    if (set.fingerprint.isEmpty())
        return 1;
    std::printf("photo set and fingerprint ready in %.1f s (%s)\n", timer.elapsed() / 1000.0,
                qPrintable(QFileInfo(set.fingerprint).absolutePath()));

    bool ok = true;
    if (only.isEmpty() || only == QLatin1String("integration"))
    {
        ok = runIntegration(set, requests) && ok;
        // The log's folder is named by the program; look for the file by its name.
        QDirIterator logs(home.path(), {QStringLiteral("main_integration.log*")}, QDir::Files,
                          QDirIterator::Subdirectories);
        while (logs.hasNext())
        {
            const QFileInfo log(logs.next());
            std::printf("server log %s: %lld bytes\n", qPrintable(log.fileName()), static_cast<long long>(log.size()));
        }
    }
    if (only.isEmpty() || only == QLatin1String("analyzer"))
        ok = runAnalyzer(set, QDir(cache.filePath(QStringLiteral("analyzer-%1-%2").arg(size).arg(photos))), photos) && ok;
    return ok ? 0 : 1;
}
