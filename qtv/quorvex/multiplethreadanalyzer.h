#pragma once

#include "fingerprint.h"

#include <QFileInfoList>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QThread>
#include <QVector>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

// Matches every photo of a list against one fingerprint (or runs another
// matcher on it) on a fixed pool of threads that take photos in list order
// from a shared index. Owns the results, keyed by absolute path.
//
// Their storage is laid out once by the constructor, so a worker allocates
// nothing per photo that outlives the photo: small long-lived allocations made
// on the workers, among each match's large temporary ones, kept the allocator
// from reusing freed memory (the process grew by about 3 KiB per photo, over
// ten times what the results take).
class CMultipleThreadAnalyzer : public QObject
{
    Q_OBJECT

public:
    using SAnalysisResult = qutils::CQuorvexAPI::SAnalysisResult;
    // Called on the pool's threads, several at once.
    using Matcher = std::function<SAnalysisResult(const QFileInfo&)>;

    // What a worker sees of the run: where the next photo comes from and where
    // its result goes. Called from several workers at once.
    class CWorkQueue
    {
    public:
        virtual ~CWorkQueue() = default;
        // The list index of the next photo and the photo, or -1 when there is
        // none left or the run is cancelled.
        virtual int takeNext(QFileInfo& photo) = 0;
        virtual void photoStarted(int index) = 0;
        virtual void photoDone(int index, const SAnalysisResult& result, const QString& sha256) = 0;
    };

    // One worker: takes photos from the queue until it is empty and matches
    // each with its own copy of the matcher.
    class CAnalyzerThread : public QThread
    {
    public:
        CAnalyzerThread(CWorkQueue& queue, Matcher matcher, bool hashFiles, QObject* parent);

    protected:
        void run() override;

    private:
        CWorkQueue& m_queue;
        const Matcher m_matcher;
        const bool m_hashFiles;
    };

    // threadCount 0: as many threads as the machine runs at once.
    CMultipleThreadAnalyzer(const QFileInfoList& files, std::shared_ptr<const CFingerprint> fingerprint,
                            bool skipDifferentCamera, QObject* parent = nullptr, int threadCount = 0);
    CMultipleThreadAnalyzer(const QFileInfoList& files, Matcher matcher, QObject* parent = nullptr,
                            int threadCount = 0);
    // Cancels and joins the pool: workers never outlive the analyzer.
    ~CMultipleThreadAnalyzer() override;

    // Whether each photo's SHA-256 is computed on its worker after the match
    // (off by default); set before start(), which hands it to the workers.
    void setHashFiles(bool hash) { m_hashFiles = hash; }
    // The photo's SHA-256 in hex; empty when not hashed (off, not yet done,
    // or the file could not be read).
    QString sha256(const QString& absolutePath) const;
    int analyzedCount() const;
    SAnalysisResult result(const QString& absolutePath) const;
    QMap<QString, SAnalysisResult> results() const;
    bool isCancelled() const { return m_cancelled.load(); }
    int threadCount() const { return m_threadCount; }
    // The pool for what QThread::idealThreadCount() reports: -1 (unknown) gives one thread.
    static int poolSize(int idealThreadCount);

public slots:
    void start();
    void cancel();
    void finishThread();

signals:
    void imageStarted(int index);
    void imageFinished(int index);
    void finished();

private:
    // The workers' view of the run; its calls come from the pool's threads.
    class CQueue final : public CWorkQueue
    {
    public:
        explicit CQueue(CMultipleThreadAnalyzer& analyzer) : m_analyzer(analyzer) {}
        int takeNext(QFileInfo& photo) override { return m_analyzer.takeNext(photo); }
        void photoStarted(int index) override { emit m_analyzer.imageStarted(index); }
        void photoDone(int index, const SAnalysisResult& result, const QString& sha256) override;

    private:
        CMultipleThreadAnalyzer& m_analyzer;
    };

    int takeNext(QFileInfo& photo);
    void store(int index, const SAnalysisResult& result, const QString& sha256);

    // Per distinct absolute path (a path listed twice has one entry).
    struct SSlot
    {
        QString path;
        SAnalysisResult result;
        bool done = false;
        // Fixed storage, so a worker allocates nothing for it that outlives the photo.
        std::array<char, 64> sha256{};
        bool hashed = false;
    };

    std::atomic<bool> m_cancelled{false};
    int m_threadCount = 0;
    CQueue m_queue{*this};
    QList<CAnalyzerThread*> m_threads; // made by start()
    QVector<int> m_slotOfIndex; // the slot of each listed photo
    QVector<SSlot> m_slots;
    QHash<QString, int> m_slotOfPath;
    int m_analyzedCount = 0;
    Matcher m_matcher;
    bool m_hashFiles = false;
    mutable std::mutex m_resultsMutex;
    int m_finishedThreads = 0;
    int m_nextIndex = 0;
    std::mutex m_indexMutex;
};
