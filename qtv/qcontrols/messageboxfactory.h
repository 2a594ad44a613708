#pragma once

#include <QMessageBox>
#include <QString>

class QWidget;

namespace qcontrols
{

// The program's message and question boxes. Each blocks until answered; under
// an active CDialogScript it takes the scripted answer instead of showing.
class CMessageBoxFactory
{
public:
    CMessageBoxFactory() = delete;

    static void information(QWidget* parent, const QString& title, const QString& text);
    static void warning(QWidget* parent, const QString& title, const QString& text);
    static void error(QWidget* parent, const QString& title, const QString& text);
    // Yes/No; true for Yes. Escape answers No.
    static bool question(QWidget* parent, const QString& title, const QString& text);
    // Confirm/Cancel; true for Confirm (QMessageBox::Ok). Escape answers Cancel.
    static bool confirm(QWidget* parent, const QString& title, const QString& text);

    // The general form the others use: shows a box of this icon with these
    // buttons and returns the button pressed (escapeButton when the script ran
    // out or the box was closed).
    static QMessageBox::StandardButton show(QWidget* parent, QMessageBox::Icon icon, const QString& title,
                                            const QString& text, QMessageBox::StandardButtons buttons,
                                            QMessageBox::StandardButton defaultButton,
                                            QMessageBox::StandardButton escapeButton);
};

} // namespace qcontrols
