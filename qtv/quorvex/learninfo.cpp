#include "learninfo.h"

#include "fingerprintinfo.h"
#include "mainwindow.h"
#include "settings.h"
#include "statisticsdlg.h"

#include <QHBoxLayout>
#include <QPushButton>
#include <QVBoxLayout>

CLearnInfo::CLearnInfo(CStatisticsDlg* statistics, QWidget* parent) : QWidget(parent), m_statistics(statistics)
{
    setObjectName(QStringLiteral("learnInfo"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);

    auto* top = new QHBoxLayout;
    auto* home = new QPushButton(QIcon(QStringLiteral(":/Quorvex/home.png")), QString(), this);
    home->setObjectName(QStringLiteral("btnNavigateHomeRight"));
    home->setToolTip(tr("Home"));
    top->addWidget(home);
    top->addStretch();
    layout->addLayout(top);
    connect(home, &QPushButton::clicked, this, [this] {
        if (CMainWindow* window = CMainWindow::of(this))
            window->showIntroPage();
    });

    auto* row = new QHBoxLayout;
    row->addSpacing(30);
    m_info = new CFingerprintInfo(this);
    row->addWidget(m_info, 1);
    row->addSpacing(30);
    if (m_statistics)
    {
        m_statistics->setParent(this);
        row->addWidget(m_statistics, 0, Qt::AlignTop);
        m_statistics->show();
    }
    row->addSpacing(25);
    layout->addLayout(row);
    layout->addSpacing(30);
    layout->addStretch();

    m_info->setFingerprintFile(CSettings::currentFingerprint().absoluteFilePath());
}
