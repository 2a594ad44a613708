#include "helpdlg.h"

#include "qcontrols/messageboxfactory.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QPushButton>
#include <QTextBrowser>
#include <QTextDocument>
#include <QVBoxLayout>

CHelpDlg::CHelpDlg(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("helpPage"));
    auto* back = new QPushButton(QIcon(QStringLiteral(":/Quorvex/back.png")), tr("Back"), this);
    back->setObjectName(QStringLiteral("btnNavigateBack"));
    auto* home = new QPushButton(QIcon(QStringLiteral(":/Quorvex/home.png")), tr("Home"), this);
    home->setObjectName(QStringLiteral("btnNavigateHome"));
    m_view = new QTextBrowser(this);
    m_view->setObjectName(QStringLiteral("helpView"));
    m_view->setOpenExternalLinks(true);
    QFile css(QStringLiteral(":/Quorvex/helpStyle.css"));
    if (css.open(QIODevice::ReadOnly))
        m_view->document()->setDefaultStyleSheet(QString::fromUtf8(css.readAll()));

    auto* bar = new QHBoxLayout;
    bar->addWidget(back);
    bar->addWidget(home);
    bar->addStretch();
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(bar);
    layout->addWidget(m_view, 1);
    // Home is the help's own index; Back leaves the help.
    connect(home, &QPushButton::clicked, this, &CHelpDlg::navigateHome);
    connect(back, &QPushButton::clicked, this, &CHelpDlg::homeRequested);

    m_index = QUrl::fromLocalFile(QDir(helpFolder()).filePath(QStringLiteral("index.html")));
    const bool ok = QFileInfo::exists(m_index.toLocalFile());
    if (ok)
        m_view->setSource(m_index);
    // After construction, so the message box has a page to stand over.
    QMetaObject::invokeMethod(this, "onHelpLoaded", Qt::QueuedConnection, Q_ARG(bool, ok));
}

namespace
{
QString g_helpFolder;
}

QString CHelpDlg::helpFolder()
{
    if (!g_helpFolder.isEmpty())
        return g_helpFolder;
    // Beside the program in a build; under share/quorvex when installed.
    const QDir programFolder(QCoreApplication::applicationDirPath());
    const QString beside = programFolder.filePath(QStringLiteral("Help"));
    if (QFileInfo::exists(QDir(beside).filePath(QStringLiteral("index.html"))))
        return beside;
    const QString installed = programFolder.filePath(QStringLiteral("../share/quorvex/Help"));
    if (QFileInfo::exists(QDir(installed).filePath(QStringLiteral("index.html"))))
        return QDir::cleanPath(installed);
    return beside;
}

void CHelpDlg::setHelpFolder(const QString& folder)
{
    g_helpFolder = folder;
}

void CHelpDlg::onHelpLoaded(bool ok)
{
    if (!ok)
        qcontrols::CMessageBoxFactory::error(this, tr("Error"), tr("Help file cannot be loaded."));
}

void CHelpDlg::navigateHome()
{
    if (QFileInfo::exists(m_index.toLocalFile()))
        m_view->setSource(m_index);
}
