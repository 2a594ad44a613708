// The analyzer pool with a scripted fingerprint, the probability classes and
// the photo listing.
#include "multiplethreadanalyzer.h"
#include "photolisting.h"
#include "resultclass.h"

#include "logcapture.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QSemaphore>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

using qutils::CQuorvexAPI;
using Result = CQuorvexAPI::SAnalysisResult;

namespace
{

// A fingerprint whose match answers from a script, optionally holding each
// call until the test lets it go.
class CScriptedFingerprint : public CFingerprint
{
public:
    std::function<Result(const QFileInfo&)> answer = [](const QFileInfo&) {
        return Result{true, 0.9995, 0.02, CQuorvexAPI::Success, 500.0};
    };
    QSemaphore* gate = nullptr;
    mutable std::atomic<int> running{0};
    mutable std::atomic<int> mostAtOnce{0};
    mutable std::atomic<int> calls{0};

    Result match(const QFileInfo& photo, bool skip) const override
    {
        EXPECT_TRUE(skip) << "the option reaches every call";
        const int now = ++running;
        int seen = mostAtOnce.load();
        while (now > seen && !mostAtOnce.compare_exchange_weak(seen, now))
        {
        }
        ++calls;
        if (gate)
            gate->acquire();
        const Result r = answer(photo);
        --running;
        return r;
    }
};

// Records the analyzer's signals on the test's thread: they are emitted from
// the workers and, as in the program, arrive queued.
struct SSignals : QObject
{
    explicit SSignals(CMultipleThreadAnalyzer& analyzer)
    {
        connect(&analyzer, &CMultipleThreadAnalyzer::imageStarted, this, [this](int i) { started.append(i); },
                Qt::QueuedConnection);
        connect(&analyzer, &CMultipleThreadAnalyzer::imageFinished, this, [this](int i) { done.append(i); },
                Qt::QueuedConnection);
        connect(&analyzer, &CMultipleThreadAnalyzer::finished, this, [this] { ++finished; });
    }
    QList<int> started;
    QList<int> done;
    int finished = 0;
};

QFileInfoList photos(int n, const QString& folder = QStringLiteral("/cases/1"))
{
    QFileInfoList list;
    for (int i = 0; i < n; ++i)
        list.append(QFileInfo(QStringLiteral("%1/photo%2.jpg").arg(folder).arg(i)));
    return list;
}

class Analyzer : public ::testing::Test
{
protected:
    std::shared_ptr<CScriptedFingerprint> fp = std::make_shared<CScriptedFingerprint>();
    QSemaphore gate;
};

} // namespace

TEST_F(Analyzer, MatchesEveryPhotoOnAllThreadsAtOnce)
{
    fp->gate = &gate;
    CMultipleThreadAnalyzer analyzer(photos(12), fp, true, nullptr, 4);
    ASSERT_EQ(analyzer.threadCount(), 4);
    SSignals sig(analyzer);
    analyzer.start();
    // Four photos are held in four threads at the same time.
    ASSERT_TRUE(testutils::waitFor([&] { return fp->running.load() == 4; }));
    gate.release(100);
    ASSERT_TRUE(testutils::waitFor([&] { return sig.finished == 1; }));
    EXPECT_EQ(fp->mostAtOnce.load(), 4);
    EXPECT_EQ(sig.started.size(), 12);
    EXPECT_EQ(sig.done.size(), 12);
    EXPECT_EQ(analyzer.analyzedCount(), 12);
    std::sort(sig.started.begin(), sig.started.end());
    EXPECT_EQ(sig.started, (QList<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})) << "each photo handed out once";
    EXPECT_EQ(analyzer.results().size(), 12);
    EXPECT_EQ(analyzer.result(QStringLiteral("/cases/1/photo3.jpg")).pce, 500.0);
    EXPECT_EQ(analyzer.result(QStringLiteral("/elsewhere.jpg")).status, CQuorvexAPI::Invalid);
}

TEST_F(Analyzer, EmptyListAndCancelBeforeStartStillFinish)
{
    {
        CMultipleThreadAnalyzer empty(QFileInfoList(), fp, true, nullptr, 3);
        SSignals sig(empty);
        empty.start();
        ASSERT_TRUE(testutils::waitFor([&] { return sig.finished == 1; }));
        EXPECT_EQ(sig.started.size(), 0);
    }
    CMultipleThreadAnalyzer cancelled(photos(5), fp, true, nullptr, 2);
    SSignals sig(cancelled);
    cancelled.cancel();
    cancelled.start();
    ASSERT_TRUE(testutils::waitFor([&] { return sig.finished == 1; }));
    EXPECT_EQ(sig.started.size(), 0);
    EXPECT_TRUE(cancelled.isCancelled());
    EXPECT_EQ(fp->calls.load(), 0);
    // Nothing more arrives later.
    QCoreApplication::processEvents();
    EXPECT_EQ(sig.finished, 1);

    // An unknown number of cores gives one worker; the default pool follows the machine.
    EXPECT_EQ(CMultipleThreadAnalyzer::poolSize(-1), 1);
    EXPECT_EQ(CMultipleThreadAnalyzer::poolSize(6), 6);
    CMultipleThreadAnalyzer machine(photos(1), fp, false);
    EXPECT_EQ(machine.threadCount(), CMultipleThreadAnalyzer::poolSize(QThread::idealThreadCount()));
}

TEST_F(Analyzer, CancelLetsRunningPhotosFinishAndStartsNoOther)
{
    fp->gate = &gate;
    CMultipleThreadAnalyzer analyzer(photos(10), fp, true, nullptr, 2);
    SSignals sig(analyzer);
    analyzer.start();
    ASSERT_TRUE(testutils::waitFor([&] { return fp->running.load() == 2; }));
    analyzer.cancel();
    gate.release(2);
    ASSERT_TRUE(testutils::waitFor([&] { return sig.finished == 1; }));
    EXPECT_EQ(fp->calls.load(), 2);
    EXPECT_EQ(sig.started.size(), 2);
    EXPECT_EQ(sig.done.size(), 2) << "the photos being matched complete after the cancel";
    EXPECT_EQ(analyzer.analyzedCount(), 2);
}

// Two spellings of one photo are one result, the later one; the engine gets
// the absolute path either way.
TEST_F(Analyzer, ResultsAreKeyedByAbsolutePathAndTheLaterOneStays)
{
    QStringList seen;
    QMutex seenMutex;
    fp->answer = [&](const QFileInfo& photo) {
        QMutexLocker lock(&seenMutex);
        seen.append(photo.filePath());
        const bool second = seen.size() == 2;
        return Result{second, second ? 0.999 : 0.0, 0.0, CQuorvexAPI::Success, 500.0};
    };
    const QString absolute = QDir::current().absoluteFilePath(QStringLiteral("relative.jpg"));
    const QFileInfoList list = {QFileInfo(QStringLiteral("relative.jpg")), QFileInfo(absolute),
                                QFileInfo(QStringLiteral("/cases/other.jpg"))};
    // One thread, so the second entry is matched second.
    CMultipleThreadAnalyzer analyzer(list, fp, true, nullptr, 1);
    EXPECT_EQ(analyzer.analyzedCount(), 0);
    EXPECT_EQ(analyzer.result(absolute).status, CQuorvexAPI::Invalid) << "nothing before its match";
    {
        testutils::CLogCapture log;
        analyzer.results();
        EXPECT_TRUE(log.text().contains(QStringLiteral("Cannot be called while analyze still running.")));
        EXPECT_TRUE(log.hasRecord(QStringLiteral("ERROR"), QStringLiteral("quorvex/multiplethreadanalyzer.cpp")));
    }
    SSignals sig(analyzer);
    analyzer.start();
    ASSERT_TRUE(testutils::waitFor([&] { return sig.finished == 1; }));
    EXPECT_EQ(sig.done.size(), 3) << "every entry of the list is matched";
    EXPECT_EQ(analyzer.analyzedCount(), 2);
    EXPECT_EQ(analyzer.results().keys(), QStringList({QStringLiteral("/cases/other.jpg"), absolute}));
    EXPECT_TRUE(analyzer.result(absolute).matched);
    EXPECT_EQ(analyzer.result(absolute).pce, 500.0);
    EXPECT_EQ(seen, (QStringList{absolute, absolute, QStringLiteral("/cases/other.jpg")}));
}

TEST_F(Analyzer, DestroyedWhileRunningJoinsItsThreads)
{
    fp->gate = &gate;
    auto analyzer = std::make_unique<CMultipleThreadAnalyzer>(photos(50), fp, true, nullptr, 2);
    analyzer->start();
    ASSERT_TRUE(testutils::waitFor([&] { return fp->running.load() == 2; }));
    std::thread release([&] {
        QThread::msleep(50);
        gate.release(2);
    });
    analyzer.reset(); // must wait for the two running photos, then stop
    release.join();
    EXPECT_EQ(fp->running.load(), 0);
    EXPECT_EQ(fp->calls.load(), 2);
}

TEST(ResultClasses, BoundariesAndTexts)
{
    const struct
    {
        bool matched;
        double probability;
        CQuorvexAPI::EStatus status;
        EResultClass expected;
    } cases[] = {
        {true, 0.999, CQuorvexAPI::Success, EResultClass::VeryHigh},
        {true, 0.9989999, CQuorvexAPI::Success, EResultClass::High},
        {true, 0.995, CQuorvexAPI::Success, EResultClass::High},
        {true, 0.99, CQuorvexAPI::Success, EResultClass::Medium},
        {true, 0.9899, CQuorvexAPI::Success, EResultClass::Low},
        {true, 0.2, CQuorvexAPI::Success, EResultClass::Low}, // a match below 0.99 is still a match
        {false, 0.9999, CQuorvexAPI::Success, EResultClass::NotFound},
        {true, 0.9999, CQuorvexAPI::BrokenImage, EResultClass::NotFound},
        {false, 0.0, CQuorvexAPI::ImageFingerprintInconsistentSize, EResultClass::NotCompared},
        {false, 0.0, CQuorvexAPI::InconsistentMetadata, EResultClass::NotCompared},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(classifyResult(Result{c.matched, c.probability, 0.0, c.status, 0.0}), c.expected)
            << c.matched << " " << c.probability << " " << CQuorvexAPI::statusKey(c.status).toStdString();
    }
    EXPECT_EQ(resultClassState(EResultClass::Low), 128);
    EXPECT_EQ(resultClassState(EResultClass::NotFound), 256);
    EXPECT_EQ(resultClassState(EResultClass::NotCompared), 512);
    EXPECT_EQ(resultClassName(EResultClass::VeryHigh), QStringLiteral("very high"));
    EXPECT_EQ(resultClassName(EResultClass::NotProcessed), QStringLiteral("not processed"));

    const std::pair<qint64, QString> times[] = {{-1, "unknown"},
                                                {0, "0h 0m 00s"},
                                                {247999, "0h 4m 07s"},
                                                {86399999, "23h 59m 59s"},
                                                {90061000, "1d 1h 1m 01s"}};
    for (const auto& t : times)
        EXPECT_EQ(remainingTimeText(t.first), t.second) << t.first;
}

TEST(PhotoListing, PatternsSubfoldersAndCancel)
{
    EXPECT_TRUE(isPhotoFileName(QStringLiteral("IMG_0001.JPEG")));
    EXPECT_TRUE(isPhotoFileName(QStringLiteral("scan.tif")));
    EXPECT_FALSE(isPhotoFileName(QStringLiteral("notes.txt")));
    EXPECT_FALSE(isPhotoFileName(QStringLiteral("raw.cr2")));

    QTemporaryDir dir;
    const QStringList names = {QStringLiteral("IMG_10.jpg"), QStringLiteral("a.jpg"),  QStringLiteral("b.PNG"),
                               QStringLiteral("c.txt"),      QStringLiteral("d.tiff"), QStringLiteral(".hidden.jpg"),
                               QStringLiteral("img_2.JPG"),  QStringLiteral("sub/e.bmp"),
                               QStringLiteral("sub/deeper/f.jpe")};
    for (const QString& name : names)
    {
        QDir().mkpath(QFileInfo(dir.filePath(name)).absolutePath());
        QFile file(dir.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    QDir().mkpath(dir.filePath(QStringLiteral("folder.jpg")));

    // Whatever order the file system keeps: by name, numbers by value, case aside.
    auto names_of = [](const QFileInfoList& list) {
        QStringList out;
        for (const QFileInfo& f : list)
            out.append(f.fileName());
        return out;
    };
    EXPECT_EQ(names_of(listPhotos(QDir(dir.path()), false)),
              (QStringList{QStringLiteral("a.jpg"), QStringLiteral("b.PNG"), QStringLiteral("d.tiff"),
                           QStringLiteral("img_2.JPG"), QStringLiteral("IMG_10.jpg")}));
    int lastCount = 0;
    const QFileInfoList all = listPhotos(QDir(dir.path()), true, nullptr, [&](int n) { lastCount = n; });
    EXPECT_EQ(names_of(all), (QStringList{QStringLiteral("a.jpg"), QStringLiteral("b.PNG"), QStringLiteral("d.tiff"),
                                          QStringLiteral("img_2.JPG"), QStringLiteral("IMG_10.jpg"),
                                          QStringLiteral("f.jpe"), QStringLiteral("e.bmp")}));
    EXPECT_EQ(lastCount, 7);
    // Ten and more digits, and names alike but for case, in a repeatable order.
    QFileInfoList mixed{QFileInfo(QStringLiteral("/p/x100.jpg")), QFileInfo(QStringLiteral("/p/X9.jpg")),
                        QFileInfo(QStringLiteral("/p/x9.jpg")), QFileInfo(QStringLiteral("/p/x99999999999.jpg")),
                        QFileInfo(QStringLiteral("/p/x0010.jpg"))};
    sortPhotosNaturally(mixed, QDir(QStringLiteral("/p")));
    EXPECT_EQ(names_of(mixed), (QStringList{QStringLiteral("X9.jpg"), QStringLiteral("x9.jpg"),
                                            QStringLiteral("x0010.jpg"), QStringLiteral("x100.jpg"),
                                            QStringLiteral("x99999999999.jpg")}));
    int polls = 0;
    EXPECT_TRUE(listPhotos(QDir(dir.path()), true, [&] { return ++polls > 2; }).isEmpty())
        << "a cancelled listing is empty";
}
