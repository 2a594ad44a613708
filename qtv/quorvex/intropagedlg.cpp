#include "intropagedlg.h"

#include "appinfo.h"
#include "qcontrols/messageboxfactory.h"
#include "qcontrols/navigationbutton.h"
#include "qutils/appsettings.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace
{

QPushButton* smallButton(const QString& objectName, const QString& icon, const QString& text, QWidget* parent)
{
    auto* button = new QPushButton(QIcon(icon), text, parent);
    button->setObjectName(objectName);
    return button;
}

} // namespace

CIntroPageDlg::CIntroPageDlg(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("introPage"));
    auto* analyze = new qcontrols::CNavigationButton(tr("Analyze"), tr("Process supplied photos<br />for a fingerprint match"),
                                                     QIcon(QStringLiteral(":/Quorvex/next.png")),
                                                     QStringLiteral("btnAnalyze"), this);
    auto* learn = new qcontrols::CNavigationButton(tr("Learn"), tr("Create a fingerprint<br />from reference photos"),
                                                   QIcon(QStringLiteral(":/Quorvex/next.png")), QStringLiteral("btnLearn"),
                                                   this);
    auto* help = smallButton(QStringLiteral("btnHelp"), QStringLiteral(":/Quorvex/help.png"), tr("Help"), this);
    auto* activation =
        smallButton(QStringLiteral("btnReactivate"), QStringLiteral(":/Quorvex/reactivate.png"), tr("Activation"), this);
    m_update = smallButton(QStringLiteral("btnUpdate"), QStringLiteral(":/Quorvex/update.png"), tr("Update"), this);

    auto* image = new QLabel(this);
    image->setObjectName(QStringLiteral("introImage"));
    image->setPixmap(QPixmap(QStringLiteral(":/Quorvex/introImage2.png")));
    image->setAlignment(Qt::AlignCenter);
    auto* version = new QLabel(SAppInfo::forMode(ERunMode::Windowed).version + QStringLiteral(" - 64-bit"), this);
    version->setObjectName(QStringLiteral("versionLabel"));

    auto* actions = new QVBoxLayout;
    actions->addStretch();
    actions->addWidget(analyze);
    actions->addWidget(learn);
    actions->addStretch();
    auto* tools = new QHBoxLayout;
    tools->addWidget(help);
    tools->addWidget(activation);
    tools->addWidget(m_update);
    tools->addStretch();
    tools->addWidget(version);
    auto* top = new QHBoxLayout;
    top->addWidget(image, 3);
    top->addLayout(actions, 2);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top, 1);
    layout->addLayout(tools);

    connect(analyze, &QPushButton::clicked, this, &CIntroPageDlg::analyzeRequested);
    connect(learn, &QPushButton::clicked, this, &CIntroPageDlg::learnRequested);
    connect(help, &QPushButton::clicked, this, &CIntroPageDlg::helpRequested);
    connect(activation, &QPushButton::clicked, this, &CIntroPageDlg::onActivation);
    connect(m_update, &QPushButton::clicked, this, &CIntroPageDlg::onUpdate);
}

void CIntroPageDlg::onUpdate()
{
    const QString address = qutils::CAppSettings::textOption(qutils::CAppSettings::EOption::UpdateParameters);
    // This build has no network client: say so rather than pretend to look.
    if (address.isEmpty())
        qcontrols::CMessageBoxFactory::information(
            this, tr("Update"), tr("No update address is configured (Options/UpdateParameters in settings.ini)."));
    else
        qcontrols::CMessageBoxFactory::information(
            this, tr("Update"),
            tr("This build cannot check for updates over the network; %1 could not be reached.").arg(address));
}

void CIntroPageDlg::onUpdatesAvailabilityChanged(bool available)
{
    m_update->setProperty("updateAvailable", available);
    m_update->setToolTip(available ? tr("A newer version is available") : QString());
}

void CIntroPageDlg::onActivation()
{
    qcontrols::CMessageBoxFactory::information(
        this, tr("Activation"),
        tr("This is the community build of Quorvex: its licence is always active and needs no activation."));
}
