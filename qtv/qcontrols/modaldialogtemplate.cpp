#include "modaldialogtemplate.h"

#include "stylesheetmanager.h"

#include "qutils/debugutils.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QShowEvent>
#include <QVBoxLayout>

namespace qcontrols
{

CModalDialogTemplate::CModalDialogTemplate(QWidget* content, const QString& title, QWidget* parent,
                                           int options)
    : QDialog(parent), m_content(content), m_options(options)
{
    setObjectName(QStringLiteral("modalDialogTemplate"));
    setModal(true);
    setWindowTitle(title);
    if (m_options & NoWindowCloseButton)
        setWindowFlags((windowFlags() | Qt::CustomizeWindowHint | Qt::WindowTitleHint) &
                       ~Qt::WindowCloseButtonHint);
    if (CStyleSheetManager::hasStyleSheet() && !parent)
        setStyleSheet(CStyleSheetManager::styleSheet());

    auto* layout = new QVBoxLayout(this);

    m_titleLabel = new QLabel(title, this);
    m_titleLabel->setObjectName(QStringLiteral("modalTitleLabel"));
    m_titleLabel->setVisible(!title.isEmpty());
    layout->addWidget(m_titleLabel);

    if (m_content)
    {
        m_content->setParent(this);
        layout->addWidget(m_content, 1);
    }

    m_buttonRow = new QWidget(this);
    m_buttonRow->setObjectName(QStringLiteral("modalButtonRow"));
    m_buttonLayout = new QHBoxLayout(m_buttonRow);
    m_buttonLayout->setContentsMargins(0, 0, 0, 0);
    m_buttonLayout->addStretch(1);
    layout->addWidget(m_buttonRow);
    m_buttonRow->setVisible(false);

    if (m_options & CancelButton)
    {
        auto* cancel = new QPushButton(tr("Cancel"), m_buttonRow);
        cancel->setObjectName(QStringLiteral("cancelButton"));
        cancel->setAutoDefault(false);
        m_buttonLayout->addWidget(cancel);
        m_buttonRow->setVisible(true);
        connect(cancel, &QPushButton::clicked, this, &CModalDialogTemplate::reject);
    }

    if (m_options & FixedSize)
        layout->setSizeConstraint(QLayout::SetFixedSize);
}

CModalDialogTemplate::~CModalDialogTemplate() = default;

QString CModalDialogTemplate::title() const
{
    return m_titleLabel->text();
}

void CModalDialogTemplate::setTitle(const QString& title)
{
    setWindowTitle(title);
    m_titleLabel->setText(title);
    m_titleLabel->setVisible(!title.isEmpty());
}

QPushButton* CModalDialogTemplate::addButton(const QString& text, int resultCode, const QString& objectName)
{
    auto* button = new QPushButton(text, m_buttonRow);
    button->setObjectName(objectName);
    button->setAutoDefault(false);
    m_buttonLayout->addWidget(button);
    m_buttonRow->setVisible(true);
    connect(button, &QPushButton::clicked, this, [this, resultCode]() { closeWithResult(resultCode); });
    return button;
}

QPushButton* CModalDialogTemplate::button(const QString& objectName) const
{
    return m_buttonRow->findChild<QPushButton*>(objectName);
}

void CModalDialogTemplate::closeWithResult(int resultCode)
{
    m_pendingResult = resultCode;
    m_hasPendingResult = true;
    setResult(resultCode);
    // By name, through the same close path a window close takes; reject()
    // then keeps the pending result instead of Rejected.
    if (!QMetaObject::invokeMethod(this, "close"))
        QX_SELFCHECK(QStringLiteral("invoke close on the modal dialog"));
    if (!isVisible())
        m_hasPendingResult = false;
}

bool CModalDialogTemplate::requestClose()
{
    auto* content = dynamic_cast<CModalDialogContent*>(m_content);
    return !content || content->onCloseRequest();
}

void CModalDialogTemplate::reject()
{
    // Escape, the window's close button and the Cancel button all land here.
    if (!m_hasPendingResult && !requestClose())
        return;
    QDialog::reject();
}

void CModalDialogTemplate::done(int resultCode)
{
    if (m_hasPendingResult)
    {
        resultCode = m_pendingResult;
        m_hasPendingResult = false;
    }
    QDialog::done(resultCode);
}

void CModalDialogTemplate::showEvent(QShowEvent* event)
{
    QDialog::showEvent(event);
    if (event->spontaneous())
        return;
    placeOverParent();
    if (!m_started)
    {
        m_started = true;
        if (auto* content = dynamic_cast<CModalDialogContent*>(m_content))
            content->onDialogStart();
    }
}

void CModalDialogTemplate::placeOverParent()
{
    QWidget* over = parentWidget() ? parentWidget()->window() : nullptr;
    if (!over)
        return;
    const QSize size = sizeHint().expandedTo(minimumSize());
    QRect frame(QPoint(), size);
    frame.moveCenter(over->geometry().center());
    move(frame.topLeft());
}

} // namespace qcontrols
