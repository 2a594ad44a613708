#include "multiplethreadanalyzer.h"

#include "qutils/debugutils.h"
#include "qutils/fileutils.h"
#include "qutils/threadsync.h"

CMultipleThreadAnalyzer::CAnalyzerThread::CAnalyzerThread(CWorkQueue& queue, Matcher matcher, bool hashFiles,
                                                          QObject* parent)
    : QThread(parent), m_queue(queue), m_matcher(std::move(matcher)), m_hashFiles(hashFiles)
{
}

void CMultipleThreadAnalyzer::CAnalyzerThread::run()
{
    for (;;)
    {
        QFileInfo photo;
        const int index = m_queue.takeNext(photo);
        if (index < 0)
            return;
        m_queue.photoStarted(index);
        // No lock while matching: every worker matches on the one shared fingerprint.
        const SAnalysisResult result = m_matcher(photo);
        const QString sha256 = m_hashFiles ? qutils::fileSha256(photo.absoluteFilePath()) : QString();
        m_queue.photoDone(index, result, sha256);
    }
}

void CMultipleThreadAnalyzer::CQueue::photoDone(int index, const SAnalysisResult& result, const QString& sha256)
{
    m_analyzer.store(index, result, sha256);
    emit m_analyzer.imageFinished(index);
}

CMultipleThreadAnalyzer::CMultipleThreadAnalyzer(const QFileInfoList& files,
                                                 std::shared_ptr<const CFingerprint> fingerprint,
                                                 bool skipDifferentCamera, QObject* parent, int threadCount)
    : CMultipleThreadAnalyzer(
          files,
          [fingerprint = std::move(fingerprint), skipDifferentCamera](const QFileInfo& photo)
          {
              return fingerprint ? fingerprint->match(photo, skipDifferentCamera)
                                 : SAnalysisResult{false, 0.0, 0.0, qutils::CQuorvexAPI::CannotOpenFingerprint};
          },
          parent, threadCount)
{
}

CMultipleThreadAnalyzer::CMultipleThreadAnalyzer(const QFileInfoList& files, Matcher matcher, QObject* parent,
                                                 int threadCount)
    : QObject(parent), m_matcher(std::move(matcher))
{
    m_slotOfIndex.reserve(files.size());
    m_slots.reserve(files.size());
    m_slotOfPath.reserve(files.size());
    for (const QFileInfo& file : files)
    {
        const QString path = file.absoluteFilePath();
        const auto found = m_slotOfPath.constFind(path);
        int slot = 0;
        if (found == m_slotOfPath.constEnd())
        {
            slot = m_slots.size();
            m_slotOfPath.insert(path, slot);
            m_slots.append(SSlot{path, SAnalysisResult(), false});
        }
        else
        {
            slot = found.value();
        }
        m_slotOfIndex.append(slot);
    }
    m_threadCount = threadCount > 0 ? threadCount : poolSize(QThread::idealThreadCount());
}

CMultipleThreadAnalyzer::~CMultipleThreadAnalyzer()
{
    m_cancelled = true;
    for (CAnalyzerThread* thread : qAsConst(m_threads))
        qutils::joinThread(thread);
}

int CMultipleThreadAnalyzer::poolSize(int idealThreadCount)
{
    return idealThreadCount < 1 ? 1 : idealThreadCount;
}

void CMultipleThreadAnalyzer::start()
{
    if (!m_threads.isEmpty())
        return;
    for (int i = 0; i < m_threadCount; ++i)
    {
        auto* thread = new CAnalyzerThread(m_queue, m_matcher, m_hashFiles, this);
        m_threads.append(thread);
        qutils::announceThreadEnd(thread);
        connect(thread, &QThread::finished, this, &CMultipleThreadAnalyzer::finishThread);
    }
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
    if (m_finishedThreads == m_threadCount)
        emit finished();
}

int CMultipleThreadAnalyzer::takeNext(QFileInfo& photo)
{
    if (m_cancelled.load())
        return -1;
    std::lock_guard<std::mutex> lock(m_indexMutex);
    const int index = m_nextIndex++;
    if (index >= m_slotOfIndex.size())
        return -1;
    // A photo of its own from the shared path text: whatever the match caches
    // in it goes with it, not into a list that lives on.
    photo = QFileInfo(m_slots.at(m_slotOfIndex.at(index)).path);
    return index;
}

void CMultipleThreadAnalyzer::store(int index, const SAnalysisResult& result, const QString& sha256)
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    SSlot& slot = m_slots[m_slotOfIndex.at(index)];
    slot.result = result;
    slot.hashed = sha256.size() == static_cast<int>(slot.sha256.size());
    for (int i = 0; slot.hashed && i < sha256.size(); ++i)
        slot.sha256[static_cast<size_t>(i)] = sha256.at(i).toLatin1();
    if (!slot.done)
    {
        slot.done = true;
        ++m_analyzedCount;
    }
}

QString CMultipleThreadAnalyzer::sha256(const QString& absolutePath) const
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    const auto found = m_slotOfPath.constFind(absolutePath);
    if (found == m_slotOfPath.constEnd() || !m_slots.at(found.value()).hashed)
        return QString();
    const SSlot& slot = m_slots.at(found.value());
    return QString::fromLatin1(slot.sha256.data(), static_cast<int>(slot.sha256.size()));
}

int CMultipleThreadAnalyzer::analyzedCount() const
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    return m_analyzedCount;
}

CMultipleThreadAnalyzer::SAnalysisResult CMultipleThreadAnalyzer::result(const QString& absolutePath) const
{
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    const auto found = m_slotOfPath.constFind(absolutePath);
    if (found == m_slotOfPath.constEnd() || !m_slots.at(found.value()).done)
        return SAnalysisResult();
    return m_slots.at(found.value()).result;
}

QMap<QString, CMultipleThreadAnalyzer::SAnalysisResult> CMultipleThreadAnalyzer::results() const
{
    if (m_finishedThreads != m_threadCount)
        QX_ERROR << "Cannot be called while analyze still running.";
    std::lock_guard<std::mutex> lock(m_resultsMutex);
    QMap<QString, SAnalysisResult> results;
    for (const SSlot& slot : m_slots)
        if (slot.done)
            results.insert(slot.path, slot.result);
    return results;
}
