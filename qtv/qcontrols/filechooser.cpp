#include "filechooser.h"

#include "dialogscript.h"

#include <QDialog>
#include <QFileDialog>

namespace qcontrols
{

namespace
{

bool scripted(const QString& kind, const QString& caption, const QString& startFolder, const QString& filter,
              QString& result)
{
    if (!CDialogScript::isActive())
        return false;
    CDialogScript::recordShown(kind, caption, startFolder + QLatin1Char('|') + filter);
    CDialogScript::SAnswer answer;
    if (CDialogScript::takeAnswer(answer) && answer.button == QDialog::Accepted)
        result = answer.text;
    return true;
}

} // namespace

QString CFileChooser::getSaveFileName(QWidget* parent, const QString& caption, const QString& startFolder,
                                      const QString& filter)
{
    QString result;
    if (scripted(QStringLiteral("save"), caption, startFolder, filter, result))
        return result;
    return QFileDialog::getSaveFileName(parent, caption, startFolder, filter);
}

QString CFileChooser::getOpenFileName(QWidget* parent, const QString& caption, const QString& startFolder,
                                      const QString& filter)
{
    QString result;
    if (scripted(QStringLiteral("open"), caption, startFolder, filter, result))
        return result;
    return QFileDialog::getOpenFileName(parent, caption, startFolder, filter);
}

} // namespace qcontrols
