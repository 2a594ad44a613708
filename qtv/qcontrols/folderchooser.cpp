#include "folderchooser.h"

#include "dialogscript.h"

#include <QDialog>
#include <QFileDialog>

namespace qcontrols
{

QString CFolderChooser::getDirectory(QWidget* parent, const QString& caption, const QString& startFolder)
{
    if (CDialogScript::isActive())
    {
        CDialogScript::recordShown(QStringLiteral("folder"), caption, startFolder);
        CDialogScript::SAnswer answer;
        if (!CDialogScript::takeAnswer(answer) || answer.button != QDialog::Accepted)
            return QString();
        return answer.text;
    }
    return QFileDialog::getExistingDirectory(parent, caption, startFolder, QFileDialog::ShowDirsOnly);
}

} // namespace qcontrols
