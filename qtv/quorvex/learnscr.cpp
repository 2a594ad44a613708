#include "learnscr.h"

#include "fingerprint.h"
#include "gallerywidget.h"
#include "imagemodel.h"
#include "learninfo.h"
#include "mainwindow.h"
#include "settings.h"
#include "statisticsdlg.h"

#include "qcontrols/messageboxfactory.h"
#include "qutils/debugutils.h"
#include "qutils/quorvexapi.h"
#include "qutils/threadsync.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMutex>
#include <QPushButton>
#include <QThread>
#include <QVBoxLayout>

namespace
{
std::atomic<CLearnWorker*> g_currentWorker{nullptr};
// One learning at a time: the engine's callback finds its worker through the
// one pointer above.
QMutex g_runMutex;
} // namespace

CLearnWorker::CLearnWorker(const QFileInfoList& files, const QFileInfo& destination)
    : m_files(files), m_destination(destination)
{
}

void CLearnWorker::onWork()
{
    QMutexLocker run(&g_runMutex);
    g_currentWorker.store(this);
    lumicrest_error_code engineCode = LUMICREST_OK;
    const CFingerprint::EStatus status =
        CFingerprint::createFingerprint(m_files, m_destination, &CLearnWorker::progress, &engineCode);
    g_currentWorker.store(nullptr);
    if (status == qutils::CQuorvexAPI::Success)
        emit finished(m_currentIndex.load(), true, QString());
    else if (engineCode == LUMICREST_OUT_OF_MEMORY)
        emit finished(m_currentIndex.load(), false,
                      tr("The computer ran out of memory for learning. The photos are not at fault: close other "
                         "programs or learn from smaller photos."));
    else
        emit finished(m_currentIndex.load(), false, qutils::CQuorvexAPI::statusText(status));
    m_done.store(true);
}

void CLearnWorker::progress(int code, float nmse, float seconds)
{
    CLearnWorker* worker = g_currentWorker.load();
    if (!worker)
    {
        QX_SELFCHECK(QStringLiteral("learning progress without a current worker"));
        return;
    }
    // The engine's closing call is not a photo.
    if (code == 100 && nmse == 0.0f && seconds == 0.0f)
        return;
    const int finishedIndex = worker->m_currentIndex.load();
    if (finishedIndex != -1)
        emit worker->imageProcessed(finishedIndex, nmse);
    const int next = ++worker->m_currentIndex;
    if (next != worker->m_files.size())
        emit worker->imageProcessingStarted(next);
}

CLearnScr::CLearnScr(const QFileInfoList& files, const QFileInfo& destination, QWidget* parent)
    : QWidget(parent), m_files(files), m_destination(destination)
{
    setObjectName(QStringLiteral("learnScr"));
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout;
    auto* title = new QLabel(tr("Creating fingerprint %1").arg(destination.fileName()), this);
    title->setObjectName(QStringLiteral("learnScrTitle"));
    top->addWidget(title);
    top->addStretch();
    m_home = new QPushButton(QIcon(QStringLiteral(":/Quorvex/home.png")), QString(), this);
    m_home->setObjectName(QStringLiteral("btnNavigateHomeRight"));
    m_home->setToolTip(tr("Home"));
    m_home->hide();
    top->addWidget(m_home);
    layout->addLayout(top);
    connect(m_home, &QPushButton::clicked, this, [this] {
        if (CMainWindow* window = CMainWindow::of(this))
            window->showIntroPage();
    });

    auto* row = new QHBoxLayout;
    m_gallery = new CGalleryWidget(this);
    m_gallery->setFiles(m_files);
    row->addWidget(m_gallery, 1);
    layout->addLayout(row, 1);

    m_thread = new QThread(this);
    m_thread->setObjectName(QStringLiteral("learnWorkerThread"));
    m_worker = new CLearnWorker(m_files, m_destination);
    m_worker->moveToThread(m_thread);
    if (!connect(m_worker, &CLearnWorker::imageProcessed, this, &CLearnScr::onImageProcessFinished))
        QX_SELFCHECK(QStringLiteral("connect imageProcessed"));
    if (!connect(m_worker, &CLearnWorker::imageProcessingStarted, this, &CLearnScr::onImageProcessingStarted))
        QX_SELFCHECK(QStringLiteral("connect imageProcessingStarted"));
    if (!connect(m_worker, &CLearnWorker::finished, this, &CLearnScr::onTeachingFinished))
        QX_SELFCHECK(QStringLiteral("connect finished"));
    if (!connect(this, &CLearnScr::startTeaching, m_worker, &CLearnWorker::onWork))
        QX_SELFCHECK(QStringLiteral("connect startTeaching"));
    // The thread has nothing more to do once the engine has returned.
    connect(m_worker, &CLearnWorker::finished, m_thread, &QThread::quit);
    qutils::announceThreadEnd(m_thread);
    m_thread->start(QThread::InheritPriority);
    emit startTeaching();

    m_statistics = new CStatisticsDlg(m_files.size(), this);
    row->addWidget(m_statistics, 0, Qt::AlignTop);
    m_statistics->show();
}

CLearnScr::~CLearnScr()
{
    // Learning cannot be interrupted; the window's close guard waits for it,
    // so this wait is short or empty.
    m_thread->quit();
    qutils::joinThread(m_thread);
    delete m_worker;
}

bool CLearnScr::isWorking() const
{
    return !m_worker->isDone();
}

void CLearnScr::onImageProcessingStarted(int index)
{
    if (index < m_files.size())
        m_gallery->imageModel()->setState(index, CImageModel::Processing);
}

void CLearnScr::onImageProcessFinished(int index, float nmse)
{
    m_gallery->imageModel()->setState(index, CImageModel::SuccessVeryHigh);
    qutils::CQuorvexAPI::SAnalysisResult result;
    result.probability = 100.0;
    m_gallery->imageModel()->setResult(index, QVariant::fromValue(result));
    m_statistics->addValue(nmse);
}

void CLearnScr::onTeachingFinished(int index, bool success, QString errorMessage)
{
    CMainWindow* window = CMainWindow::of(this);
    if (window && window->isClosing())
        return;
    m_statistics->hide();
    if (success)
    {
        CSettings::setCurrentFingerprint(QFileInfo(m_destination.absoluteFilePath()));
        m_statistics->show();
        auto* info = new CLearnInfo(m_statistics, this);
        if (window)
            window->pushPage(info);
        else
            info->show();
        return;
    }
    m_home->show();
    m_gallery->imageModel()->setDescription(index, QStringLiteral("<br />") + errorMessage);
    m_gallery->imageModel()->setState(index, CImageModel::Fail);
    qcontrols::CMessageBoxFactory::warning(this, tr("Error"), errorMessage);
}
