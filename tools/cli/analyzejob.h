#pragma once

#include "fingerprint.h"
#include "resultformat.h"

#include <QEventLoop>
#include <QFileInfoList>
#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>

class CMultipleThreadAnalyzer;

namespace cli
{

class CProgressLine;

// One analysis from the command line: the analyzer pool of the program, its
// results handed out in list order, progress on standard error, and Ctrl-C
// turned into the analyzer's cancel. The pool matches against one
// fingerprint, or runs the caller's matcher (identification).
class CAnalyzeJob : public QObject
{
    Q_OBJECT

public:
    using OutcomeHandler = std::function<void(const SPhotoOutcome&)>;
    using SAnalysisResult = qutils::CQuorvexAPI::SAnalysisResult;

    // threadCount 0: one thread per core.
    CAnalyzeJob(const QFileInfoList& photos, std::shared_ptr<const CFingerprint> fingerprint,
                bool skipDifferentCamera, int threadCount, QObject* parent = nullptr);
    // The matcher runs on the pool's threads, several at once.
    CAnalyzeJob(const QFileInfoList& photos, std::function<SAnalysisResult(const QFileInfo&)> matcher,
                int threadCount, QObject* parent = nullptr);
    ~CAnalyzeJob() override;

    // Gets every photo exactly once, in list order: each as soon as it and
    // all photos before it are done, at the end the ones never reached.
    void setOutcomeHandler(OutcomeHandler handler) { m_handler = std::move(handler); }
    // Whether each photo's SHA-256 is computed, on the analyzer's worker right
    // after its match, so the main thread's progress never waits for it (off
    // by default); set before run().
    void setHashFiles(bool hash);
    // Whether progress goes to standard error (on by default).
    void setShowProgress(bool show) { m_showProgress = show; }

    // Interrupts counted after this count stop the run; by default those
    // after run() begins. A caller with earlier steps passes its own start, so
    // a Ctrl-C just before the run is not lost.
    void setInterruptBaseline(int count) { m_interruptBaseline = count; }

    // Runs until every photo is done or the run is stopped; the outcomes in list order.
    QList<SPhotoOutcome> run();

    int threadCount() const;
    double seconds() const { return m_seconds; }
    bool interrupted() const { return m_interrupted; }
    // The engine refused the fingerprint itself: the run was stopped at once
    // and no photo was handed out.
    bool fingerprintUnreadable() const { return m_fingerprintUnreadable; }

private:
    CAnalyzeJob(const QFileInfoList& photos, CMultipleThreadAnalyzer* analyzer, bool singleFingerprint,
                QObject* parent);
    void onImageFinished(int index);
    void onFinished();
    void onTick();
    void deliverReady();
    void deliver(int index);

    QList<SPhotoOutcome> m_outcomes;
    QList<bool> m_done;
    int m_nextToDeliver = 0;
    int m_doneCount = 0;
    CMultipleThreadAnalyzer* m_analyzer;
    OutcomeHandler m_handler;
    bool m_showProgress = true;
    std::unique_ptr<CProgressLine> m_progress;
    QEventLoop m_loop;
    QTimer m_tick;
    int m_interruptsSeen = 0;
    int m_interruptBaseline = -1;
    bool m_interrupted = false;
    bool m_fingerprintUnreadable = false;
    // Only one fingerprint's refusal stops the whole run.
    bool m_singleFingerprint = true;
    double m_seconds = 0.0;
};

} // namespace cli
