#include "messageboxfactory.h"

#include "dialogscript.h"
#include "stylesheetmanager.h"

#include <QPushButton>

namespace qcontrols
{

namespace
{

QString kindName(QMessageBox::Icon icon, QMessageBox::StandardButtons buttons)
{
    switch (icon)
    {
    case QMessageBox::Information:
        return QStringLiteral("information");
    case QMessageBox::Warning:
        return QStringLiteral("warning");
    case QMessageBox::Critical:
        return QStringLiteral("error");
    case QMessageBox::Question:
        return buttons.testFlag(QMessageBox::Yes) ? QStringLiteral("question") : QStringLiteral("confirm");
    case QMessageBox::NoIcon:
        break;
    }
    return QStringLiteral("message");
}

} // namespace

QMessageBox::StandardButton CMessageBoxFactory::show(QWidget* parent, QMessageBox::Icon icon,
                                                     const QString& title, const QString& text,
                                                     QMessageBox::StandardButtons buttons,
                                                     QMessageBox::StandardButton defaultButton,
                                                     QMessageBox::StandardButton escapeButton)
{
    if (CDialogScript::isActive())
    {
        CDialogScript::recordShown(kindName(icon, buttons), title, text);
        CDialogScript::SAnswer answer;
        if (!CDialogScript::takeAnswer(answer))
            return escapeButton;
        return static_cast<QMessageBox::StandardButton>(answer.button);
    }

    QMessageBox box(icon, title, text, buttons, parent);
    box.setObjectName(QStringLiteral("messageBox"));
    box.setTextFormat(Qt::AutoText);
    if (!parent && CStyleSheetManager::hasStyleSheet())
        box.setStyleSheet(CStyleSheetManager::styleSheet());
    box.setDefaultButton(defaultButton);
    box.setEscapeButton(escapeButton);
    if (QAbstractButton* ok = box.button(QMessageBox::Ok); ok && buttons.testFlag(QMessageBox::Cancel))
        ok->setText(QObject::tr("Confirm"));
    box.exec();
    const QMessageBox::StandardButton pressed = box.standardButton(box.clickedButton());
    return pressed == QMessageBox::NoButton ? escapeButton : pressed;
}

void CMessageBoxFactory::information(QWidget* parent, const QString& title, const QString& text)
{
    show(parent, QMessageBox::Information, title, text, QMessageBox::Ok, QMessageBox::Ok, QMessageBox::Ok);
}

void CMessageBoxFactory::warning(QWidget* parent, const QString& title, const QString& text)
{
    show(parent, QMessageBox::Warning, title, text, QMessageBox::Ok, QMessageBox::Ok, QMessageBox::Ok);
}

void CMessageBoxFactory::error(QWidget* parent, const QString& title, const QString& text)
{
    show(parent, QMessageBox::Critical, title, text, QMessageBox::Ok, QMessageBox::Ok, QMessageBox::Ok);
}

bool CMessageBoxFactory::question(QWidget* parent, const QString& title, const QString& text)
{
    return show(parent, QMessageBox::Question, title, text, QMessageBox::Yes | QMessageBox::No,
                QMessageBox::Yes, QMessageBox::No) == QMessageBox::Yes;
}

bool CMessageBoxFactory::confirm(QWidget* parent, const QString& title, const QString& text)
{
    return show(parent, QMessageBox::Question, title, text, QMessageBox::Ok | QMessageBox::Cancel,
                QMessageBox::Ok, QMessageBox::Cancel) == QMessageBox::Ok;
}

} // namespace qcontrols
