#include "learnscr.h"

#include "fingerprint.h"
#include "gallerywidget.h"
#include "imagemodel.h"
#include "learninfo.h"
#include "mainwindow.h"
#include "settings.h"
#include "statisticsdlg.h"

#include "qcontrols/messageboxfactory.h"
#include "qcontrols/navigationbutton.h"
#include "qutils/quorvexapi.h"
#include "qutils/threadsync.h"

#include <QHBoxLayout>
#include <QImageReader>
#include <QLabel>
#include <QPushButton>
#include <QThread>
#include <QVBoxLayout>

CLearnWorker::CLearnWorker(const QFileInfoList& files, const QFileInfo& destination)
    : m_files(files), m_destination(destination)
{
}

void CLearnWorker::onWork()
{
    lumicrest_error_code engineCode = LUMICREST_OK;
    const CFingerprint::EStatus status = CFingerprint::createFingerprint(
        m_files, m_destination, [this](int code, float nmse, float seconds) { progress(code, nmse, seconds); },
        &engineCode);
    if (status == qutils::CQuorvexAPI::Success)
        emit finished(m_currentIndex.load(), true, QString());
    else if (engineCode == LUMICREST_OUT_OF_MEMORY)
        emit finished(m_currentIndex.load(), false,
                      tr("The computer ran out of memory for learning. The photos are not at fault: close other "
                         "programs or learn from smaller photos."));
    else
    {
        const bool sizeRefused = status == qutils::CQuorvexAPI::InconsistentImagesSize ||
                                 status == qutils::CQuorvexAPI::VariousResolution;
        emit finished(m_currentIndex.load(), false,
                      refusalMessage(qutils::CQuorvexAPI::statusText(status), m_files, m_currentIndex.load(),
                                     sizeRefused));
    }
    m_done.store(true);
}

QString CLearnWorker::refusalMessage(const QString& engineText, const QFileInfoList& files, int index,
                                    bool sizeRefused)
{
    if (index < 0 || index >= files.size())
        return engineText;
    QString message = engineText + QLatin1Char('\n') + tr("Refused photo: %1").arg(files.at(index).fileName());
    if (!sizeRefused || index == 0)
        return message;
    // Header reads only: the sizes say which photo breaks the series.
    const QSize size = QImageReader(files.at(index).absoluteFilePath()).size();
    const QSize first = QImageReader(files.at(0).absoluteFilePath()).size();
    if (size.isValid() && first.isValid())
        message += QLatin1Char('\n') + tr("It is %1 × %2 pixels; %3 is %4 × %5 pixels.")
                                          .arg(size.width())
                                          .arg(size.height())
                                          .arg(files.at(0).fileName())
                                          .arg(first.width())
                                          .arg(first.height());
    return message;
}

void CLearnWorker::progress(int code, float nmse, float seconds)
{
    // The engine's closing call is not a photo.
    if (code == 100 && nmse == 0.0f && seconds == 0.0f)
        return;
    const int finishedIndex = m_currentIndex.load();
    if (finishedIndex != -1)
        emit imageProcessed(finishedIndex, nmse);
    const int next = ++m_currentIndex;
    if (next != m_files.size())
        emit imageProcessingStarted(next);
}

CLearnScr::CLearnScr(const QFileInfoList& files, const QFileInfo& destination, QWidget* parent)
    : QWidget(parent), m_files(files), m_destination(destination)
{
    setObjectName(QStringLiteral("learnScr"));
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout;
    // Shown only after a refusal: back to the reference page to change the folder.
    m_back = new qcontrols::CNavigationButton(tr("Back"), QString(), QIcon(QStringLiteral(":/Quorvex/back.png")),
                                              QStringLiteral("btnNavigateBackLeft"), this);
    m_back->setSizePolicy(QSizePolicy::Fixed, m_back->sizePolicy().verticalPolicy());
    m_back->hide();
    top->addWidget(m_back);
    m_title = new QLabel(tr("Creating fingerprint %1").arg(destination.fileName()), this);
    m_title->setObjectName(QStringLiteral("learnScrTitle"));
    top->addWidget(m_title);
    top->addStretch();
    m_home = new QPushButton(QIcon(QStringLiteral(":/Quorvex/home.png")), QString(), this);
    m_home->setObjectName(QStringLiteral("btnNavigateHomeRight"));
    m_home->setToolTip(tr("Home"));
    m_home->hide();
    top->addWidget(m_home);
    layout->addLayout(top);
    // The refusal stays readable on the page once its message box is closed.
    m_refusal = new QLabel(this);
    m_refusal->setObjectName(QStringLiteral("learnRefusal"));
    m_refusal->setTextFormat(Qt::PlainText);
    m_refusal->setWordWrap(true);
    m_refusal->hide();
    layout->addWidget(m_refusal);
    connect(m_home, &QPushButton::clicked, this, [this] {
        if (CMainWindow* window = CMainWindow::of(this))
            window->showIntroPage();
    });
    connect(m_back, &QPushButton::clicked, this, [this] {
        if (CMainWindow* window = CMainWindow::of(this))
            window->popPage();
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
    connect(m_worker, &CLearnWorker::imageProcessed, this, &CLearnScr::onImageProcessFinished);
    connect(m_worker, &CLearnWorker::imageProcessingStarted, this, &CLearnScr::onImageProcessingStarted);
    connect(m_worker, &CLearnWorker::finished, this, &CLearnScr::onTeachingFinished);
    connect(this, &CLearnScr::startTeaching, m_worker, &CLearnWorker::onWork);
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
    m_back->show();
    m_title->setText(tr("Fingerprint %1 not created").arg(m_destination.fileName()));
    m_refusal->setText(errorMessage);
    m_refusal->show();
    m_gallery->imageModel()->setDescription(
        index, QStringLiteral("<br />") + errorMessage.toHtmlEscaped().replace(QLatin1Char('\n'), QStringLiteral("<br />")));
    m_gallery->imageModel()->setState(index, CImageModel::Fail);
    qcontrols::CMessageBoxFactory::warning(this, tr("Error"), errorMessage);
}
