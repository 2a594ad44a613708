#include "analyzejob.h"

#include "console.h"
#include "multiplethreadanalyzer.h"
#include "progressline.h"

#include "qutils/platform.h"

#include <QElapsedTimer>

using qutils::CQuorvexAPI;

namespace cli
{

namespace
{

// How often Ctrl-C and the progress line are looked at.
constexpr int TickMs = 100;

} // namespace

CAnalyzeJob::CAnalyzeJob(const QFileInfoList& photos, std::shared_ptr<const CFingerprint> fingerprint,
                         bool skipDifferentCamera, int threadCount, QObject* parent)
    : CAnalyzeJob(photos,
                  new CMultipleThreadAnalyzer(photos, std::move(fingerprint), skipDifferentCamera, nullptr, threadCount),
                  true, parent)
{
}

CAnalyzeJob::CAnalyzeJob(const QFileInfoList& photos, std::function<SAnalysisResult(const QFileInfo&)> matcher,
                         int threadCount, QObject* parent)
    : CAnalyzeJob(photos, new CMultipleThreadAnalyzer(photos, std::move(matcher), nullptr, threadCount), false,
                  parent)
{
}

CAnalyzeJob::CAnalyzeJob(const QFileInfoList& photos, CMultipleThreadAnalyzer* analyzer, bool singleFingerprint,
                         QObject* parent)
    : QObject(parent), m_analyzer(analyzer), m_singleFingerprint(singleFingerprint)
{
    m_analyzer->setParent(this);
    for (const QFileInfo& photo : photos)
    {
        SPhotoOutcome outcome;
        outcome.path = photo.filePath();
        outcome.absolutePath = photo.absoluteFilePath();
        m_outcomes.append(outcome);
        m_done.append(false);
    }
    // The analyzer signals from its threads; queued, every handler runs here.
    connect(m_analyzer, &CMultipleThreadAnalyzer::imageFinished, this, &CAnalyzeJob::onImageFinished,
            Qt::QueuedConnection);
    connect(m_analyzer, &CMultipleThreadAnalyzer::finished, this, &CAnalyzeJob::onFinished,
            Qt::QueuedConnection);
    connect(&m_tick, &QTimer::timeout, this, &CAnalyzeJob::onTick);
}

CAnalyzeJob::~CAnalyzeJob() = default;

void CAnalyzeJob::setHashFiles(bool hash)
{
    m_analyzer->setHashFiles(hash);
}

int CAnalyzeJob::threadCount() const
{
    return m_analyzer->threadCount();
}

QList<SPhotoOutcome> CAnalyzeJob::run()
{
    m_interruptsSeen = m_interruptBaseline >= 0 ? m_interruptBaseline : qutils::platform::interruptCount();
    if (m_showProgress)
        m_progress = std::make_unique<CProgressLine>(QStringLiteral("Analyzed"), m_outcomes.size(),
                                                     CConsole::errIsTerminal());
    QElapsedTimer timer;
    timer.start();
    m_tick.start(TickMs);
    m_analyzer->start();
    m_loop.exec();
    m_tick.stop();
    m_seconds = timer.elapsed() / 1000.0;
    if (m_progress)
        m_progress->finish();

    // Whatever was finished after a gap, then the photos never reached.
    if (!m_fingerprintUnreadable)
        for (int i = m_nextToDeliver; i < m_outcomes.size(); ++i)
        {
            if (!m_outcomes.at(i).processed)
                m_outcomes[i].reason = tr("the analysis was interrupted");
            deliver(i);
        }
    m_nextToDeliver = m_outcomes.size();
    return m_outcomes;
}

void CAnalyzeJob::onImageFinished(int index)
{
    if (m_fingerprintUnreadable || index < 0 || index >= m_outcomes.size() || m_done.at(index))
        return;
    SPhotoOutcome& outcome = m_outcomes[index];
    outcome.result = m_analyzer->result(outcome.absolutePath);
    // The engine refuses fingerprint bytes it cannot read for every photo
    // alike: the run stops, and no photo is reported as if it had been judged.
    if (m_singleFingerprint && outcome.result.status == CQuorvexAPI::CannotOpenFingerprint)
    {
        m_fingerprintUnreadable = true;
        m_analyzer->cancel();
        return;
    }
    outcome.sha256 = m_analyzer->sha256(outcome.absolutePath);
    outcome.processed = true;
    m_done[index] = true;
    ++m_doneCount;
    // Results first: printing them clears the terminal line, which the update draws again.
    deliverReady();
    if (m_progress)
        m_progress->update(m_doneCount);
}

void CAnalyzeJob::deliverReady()
{
    while (m_nextToDeliver < m_outcomes.size() && m_done.at(m_nextToDeliver))
        deliver(m_nextToDeliver++);
}

void CAnalyzeJob::deliver(int index)
{
    if (!m_handler)
        return;
    if (m_progress)
        m_progress->clear();
    m_handler(m_outcomes.at(index));
}

void CAnalyzeJob::onFinished()
{
    m_loop.quit();
}

void CAnalyzeJob::onTick()
{
    const int interrupts = qutils::platform::interruptCount();
    if (interrupts > m_interruptsSeen)
    {
        m_interruptsSeen = interrupts;
        if (!m_interrupted)
        {
            m_interrupted = true;
            m_analyzer->cancel();
            if (m_progress)
                m_progress->clear();
            CConsole::note(QStringLiteral("interrupted: finishing the photos being analyzed, then stopping"));
        }
    }
    if (m_progress)
        m_progress->tick();
}

} // namespace cli
