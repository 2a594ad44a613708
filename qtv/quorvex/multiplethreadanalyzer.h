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
    class CAnalyzerThread : public QThread
    {
    public:
        explicit CAnalyzerThread(CMultipleThreadAnalyzer* analyzer);

    protected:
        void run() override;

    private:
        CMultipleThreadAnalyzer* m_analyzer;
    };

    using SAnalysisResult = qutils::CQuorvexAPI::SAnalysisResult;
    // Called on the pool's threads, several at once.
    using Matcher = std::function<SAnalysisResult(const QFileInfo&)>;

    // threadCount 0: as many threads as the machine runs at once.
    CMultipleThreadAnalyzer(const QFileInfoList& files, std::shared_ptr<const CFingerprint> fingerprint,
                            bool skipDifferentCamera, QObject* parent = nullptr, int threadCount = 0);
    CMultipleThreadAnalyzer(const QFileInfoList& files, Matcher matcher, QObject* parent = nullptr,
                            int threadCount = 0);
    // Cancels and joins the pool: workers never outlive the analyzer.
    ~CMultipleThreadAnalyzer() override;

    // Whether each photo's SHA-256 is computed on its worker after the match
    // (off by default); set before start().
    void setHashFiles(bool hash) { m_hashFiles = hash; }
    // The photo's SHA-256 in hex; empty when not hashed (off, not yet done,
    // or the file could not be read).
    QString sha256(const QString& absolutePath) const;
    int analyzedCount() const;
    SAnalysisResult result(const QString& absolutePath) const;
    QMap<QString, SAnalysisResult> results() const;
    bool isCancelled() const { return m_cancelled.load(); }
    int threadCount() const { return m_threads.size(); }
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
    friend class CAnalyzerThread;
    // The next photo to match, or -1 when there is none.
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
    QList<CAnalyzerThread*> m_threads;
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
