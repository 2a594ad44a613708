#include "lineinputdialog.h"

#include "dialogscript.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace qcontrols
{

CLineInputDialog::CLineInputDialog(QWidget* parent, const QString& caption, const QString& prompt,
                                   const QString& initial)
    : CModalDialogTemplate(new QWidget, caption, parent), m_prompt(prompt)
{
    setObjectName(QStringLiteral("lineInputDialog"));
    auto* layout = new QVBoxLayout(contentWidget());
    layout->setContentsMargins(0, 0, 0, 0);
    auto* label = new QLabel(prompt, contentWidget());
    label->setObjectName(QStringLiteral("promptLabel"));
    label->setWordWrap(true);
    m_edit = new QLineEdit(initial, contentWidget());
    m_edit->setObjectName(QStringLiteral("lineEdit"));
    label->setBuddy(m_edit);
    layout->addWidget(label);
    layout->addWidget(m_edit);

    QPushButton* ok = addButton(tr("OK"), QDialog::Accepted, QStringLiteral("okButton"));
    addButton(tr("Cancel"), QDialog::Rejected, QStringLiteral("cancelButton"));
    // Return in the line edit accepts.
    ok->setDefault(true);
    m_edit->selectAll();
    m_edit->setFocus();
}

QString CLineInputDialog::textValue() const
{
    return m_edit->text();
}

void CLineInputDialog::setTextValue(const QString& text)
{
    m_edit->setText(text);
}

QString CLineInputDialog::prompt() const
{
    return m_prompt;
}

QString CLineInputDialog::getText(QWidget* parent, const QString& caption, const QString& prompt,
                                  const QString& initial, bool* ok)
{
    if (CDialogScript::isActive())
    {
        CDialogScript::recordShown(QStringLiteral("input"), caption, prompt);
        CDialogScript::SAnswer answer;
        const bool accepted = CDialogScript::takeAnswer(answer) && answer.button == QDialog::Accepted;
        if (ok)
            *ok = accepted;
        return accepted ? answer.text : QString();
    }

    CLineInputDialog dialog(parent, caption, prompt, initial);
    const bool accepted = dialog.exec() == QDialog::Accepted;
    if (ok)
        *ok = accepted;
    return accepted ? dialog.textValue() : QString();
}

} // namespace qcontrols
