#include "multiplethreadanalyzer.h"

#include "qutils/debugutils.h"

CMultipleThreadAnalyzer::CAnalyzerThread::CAnalyzerThread(CMultipleThreadAnalyzer* analyzer)
    : QThread(analyzer), m_analyzer(analyzer)
{
}

void CMultipleThreadAnalyzer::CAnalyzerThread::run()
{
    for (;;)
    {
        if (m_analyzer->m_cancelled.load())
            return;
        QFileInfo photo;
        const int index = m_analyzer->takeNext(photo);
        if (index < 0)
            return;
        emit m_analyzer->imageStarted(index);
        // No lock while matching: every worker matches on the one shared fingerprint.
        const SAnalysisResult result = m_analyzer->m_fingerprint
                                           ? m_analyzer->m_fingerprint->match(photo, m_analyzer->m_skipDifferentCamera)
                                           : SAnalysisResult{false, 0.0, 0.0, qutils::CQuorvexAPI::CannotOpenFingerprint};
        m_analyzer->store(photo, result);
        emit m_analyzer->imageFinished(index);
    }
}

CMultipleThreadAnalyzer::CMultipleThreadAnalyzer(const QFileInfoList& files,
                                                 std::shared_ptr<const CFingerprint> fingerprint,
                                                 bool skipDifferentCamera, QObject* parent, int threadCount)
    : QObject(parent), m_files(files), m_fingerprint(std::move(fingerprint)),
      m_skipDifferentCamera(skipDifferentCamera)
{
    const int n = threadCount > 0 ? threadCount : poolSize(QThread::idealThreadCount());
    for (int i = 0; i < n; ++i)
    {
        auto* thread = new CAnalyzerThread(this);
        m_threads.append(thread);
        if (!connect(thread, &QThread::finished, this, &CMultipleThreadAnalyzer::finishThread))
            QX_ERROR << "Cannot connect the end of analyzer thread " << i;
    }
}

CMultipleThreadAnalyzer::~CMultipleThreadAnalyzer()
{
    m_cancelled = true;
    for (CAnalyzerThread* thread : qAsConst(m_threads))
        thread->wait();
}

int CMultipleThreadAnalyzer::poolSize(int idealThreadCount)
{
    return idealThreadCount < 1 ? 1 : idealThreadCount;
}

void CMultipleThreadAnalyzer::start()
{
    for (CAnalyzerThread* thread : qAsConst(m_threads))
        thread->start(QThread::InheritPriority);
}

void CMultipleThreadAnalyzer::cancel()
{
    m_cancelled = true;
}

void CMultipleThreadAnalyzer::finishThread()
{
    ++m_finishedThreads;
    if (m_finishedThreads == m_threads.size())
        emit finished();
}

int CMultipleThreadAnalyzer::takeNext(QFileInfo& photo)
{
    std::lock_guard<std::mutex> lock(m_indexMutex);
    const int index = m_nextIndex++;
    if (index >= m_files.size())
        return -1;
    photo = m_files.at(index);
    return index;
}

void CMultipleThreadAnalyzer::store(const QFileInfo& photo, const SAnalysisResult& result)
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    m_results.insert(photo.absoluteFilePath(), result);
}

int CMultipleThreadAnalyzer::analyzedCount() const
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    return m_results.size();
}

CMultipleThreadAnalyzer::SAnalysisResult CMultipleThreadAnalyzer::result(const QString& absolutePath) const
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    return m_results.value(absolutePath);
}

QMap<QString, CMultipleThreadAnalyzer::SAnalysisResult> CMultipleThreadAnalyzer::results() const
{
    if (m_finishedThreads != m_threads.size())
        QX_ERROR << "Cannot be called while analyze still running.";
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    return m_results;
}
