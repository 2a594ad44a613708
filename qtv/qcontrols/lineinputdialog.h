#pragma once

#include "modaldialogtemplate.h"

class QLineEdit;

namespace qcontrols
{

// One line of text asked in the program's modal frame, with OK and Cancel.
class CLineInputDialog : public CModalDialogTemplate
{
    Q_OBJECT

public:
    CLineInputDialog(QWidget* parent, const QString& caption, const QString& prompt,
                     const QString& initial = QString());

    QString textValue() const;
    void setTextValue(const QString& text);
    QString prompt() const;

    // Blocks until answered. *ok (when given) tells whether OK was pressed;
    // a cancelled box returns an empty string. Under an active CDialogScript
    // the scripted answer is returned without showing anything.
    static QString getText(QWidget* parent, const QString& caption, const QString& prompt,
                           const QString& initial = QString(), bool* ok = nullptr);

private:
    QLineEdit* m_edit = nullptr;
    QString m_prompt;
};

} // namespace qcontrols
