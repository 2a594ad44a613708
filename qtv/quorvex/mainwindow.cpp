#include "mainwindow.h"

#include "choosepathanalyze.h"
#include "choosepathlearn.h"
#include "fingerprintinfo.h"
#include "helpdlg.h"
#include "intropagedlg.h"
#include "workingpage.h"

#include "qcontrols/messageboxfactory.h"
#include "qcontrols/modaldialogtemplate.h"
#include "qdialogs/progressdlg.h"
#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/tasks.h"

#include <QApplication>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QPushButton>
#include <QStackedWidget>
#include <QThread>
#include <QVBoxLayout>

using qutils::CAppSettings;

CMainWindow::CMainWindow(double scale, QWidget* parent) : QMainWindow(parent), m_scale(scale)
{
    setObjectName(QStringLiteral("mainWindow"));
    setWindowTitle(QStringLiteral("Quorvex"));
    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* bar = new QHBoxLayout;
    bar->addStretch();
    m_fullScreenButton = new QPushButton(central);
    m_fullScreenButton->setObjectName(QStringLiteral("btnFullScreen"));
    m_fullScreenButton->setFlat(true);
    bar->addWidget(m_fullScreenButton);
    layout->addLayout(bar);
    m_pages = new QStackedWidget(central);
    layout->addWidget(m_pages, 1);
    setCentralWidget(central);

    m_intro = new CIntroPageDlg(m_pages);
    m_pages->addWidget(m_intro);
    connect(m_intro, &CIntroPageDlg::helpRequested, this, &CMainWindow::onShowHelp);
    connect(m_intro, &CIntroPageDlg::learnRequested, this, &CMainWindow::onShowLearn);
    connect(m_intro, &CIntroPageDlg::analyzeRequested, this, &CMainWindow::onShowAnalyze);
    connect(m_fullScreenButton, &QPushButton::clicked, this, &CMainWindow::onBtnFullScreen);
    updateFullScreenIcon();
}

CMainWindow* CMainWindow::instance()
{
    for (QWidget* widget : QApplication::topLevelWidgets())
    {
        if (auto* window = qobject_cast<CMainWindow*>(widget))
            return window;
    }
    return nullptr;
}

double CMainWindow::currentScale()
{
    const CMainWindow* window = instance();
    return window ? window->scale() : 1.0;
}

CMainWindow* CMainWindow::of(const QWidget* widget)
{
    return widget ? qobject_cast<CMainWindow*>(widget->window()) : nullptr;
}

void CMainWindow::pushPage(QWidget* page)
{
    m_pages->addWidget(page);
    m_pages->setCurrentWidget(page);
}

void CMainWindow::popPage()
{
    QWidget* page = m_pages->currentWidget();
    if (page == m_intro)
        return;
    m_pages->removeWidget(page);
    page->deleteLater();
    m_pages->setCurrentIndex(m_pages->count() - 1);
}

void CMainWindow::showIntroPage()
{
    while (m_pages->currentWidget() != m_intro)
        popPage();
}

QWidget* CMainWindow::currentPage() const
{
    return m_pages->currentWidget();
}

void CMainWindow::onShowLearn()
{
    auto* page = new CChoosePathLearn(m_pages);
    connect(page, &CChooseImagePathDlg::homeRequested, this, &CMainWindow::showIntroPage);
    pushPage(page);
}

void CMainWindow::onShowAnalyze()
{
    auto* page = new CChoosePathAnalyze(m_pages);
    connect(page, &CChooseImagePathDlg::homeRequested, this, &CMainWindow::showIntroPage);
    pushPage(page);
}

void CMainWindow::showFingerprintProperties(const QString& path)
{
    auto* page = new QWidget(m_pages);
    page->setObjectName(QStringLiteral("fingerprintPropertiesPage"));
    auto* layout = new QVBoxLayout(page);
    auto* top = new QHBoxLayout;
    auto* home = new QPushButton(QIcon(QStringLiteral(":/Quorvex/home.png")), QString(), page);
    home->setObjectName(QStringLiteral("btnNavigateHomeRight"));
    home->setToolTip(tr("Home"));
    top->addWidget(home);
    top->addStretch();
    layout->addLayout(top);
    auto* info = new CFingerprintInfo(page);
    layout->addWidget(info);
    layout->addStretch();
    connect(home, &QPushButton::clicked, this, &CMainWindow::showIntroPage);
    pushPage(page);
    // A file that cannot be loaded says so; the intro page stays below.
    if (!info->setFingerprintFile(path))
        showIntroPage();
}

void CMainWindow::onShowHelp()
{
    auto* help = new CHelpDlg(m_pages);
    connect(help, &CHelpDlg::homeRequested, this, &CMainWindow::showIntroPage);
    pushPage(help);
}

void CMainWindow::onBtnFullScreen()
{
    if (isFullScreen())
        showNormal();
    else
        showFullScreen();
    CAppSettings::setOption(CAppSettings::EOption::FullScreenMode, isFullScreen());
    updateFullScreenIcon();
}

void CMainWindow::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::WindowStateChange)
        updateFullScreenIcon();
    QMainWindow::changeEvent(event);
}

void CMainWindow::updateFullScreenIcon()
{
    m_fullScreenButton->setIcon(QIcon(isFullScreen() ? QStringLiteral(":/Quorvex/restorewin.png")
                                                     : QStringLiteral(":/Quorvex/maximize.png")));
}

void CMainWindow::closeEvent(QCloseEvent* event)
{
    if (m_closing)
    {
        event->accept();
        return;
    }
    auto* working = dynamic_cast<CWorkingPage*>(m_pages->currentWidget());
    if (!working || !working->isWorking())
    {
        event->accept();
        return;
    }
    if (!qcontrols::CMessageBoxFactory::confirm(this, tr("Please confirm"),
                                                tr("Images are still being processed.\nAre you sure you want to quit?")))
    {
        event->ignore();
        return;
    }
    m_closing = true;
    working->cancelWork();
    // Work is never killed: wait for it behind a progress dialog.
    auto waiter = qutils::makeTask<qutils::CFunctionTask>([working](qutils::CTask* task) {
        while (working->isWorking() && !task->isCancelled())
            QThread::msleep(20);
    });
    const auto dialog = qdialogs::CProgressWidget::createDialog(this, QString(),
                                                                tr("Waiting for current operation to finish..."),
                                                                waiter);
    dialog->exec();
    hide();
    event->accept();
}
