#pragma once

#include <QString>

class QWidget;

namespace qcontrols
{

// Asks for a folder with the platform's own dialog. An empty answer means the
// user cancelled. Scripted like the other boxes of the kit in tests (the
// answer's text is the folder; a rejected answer cancels).
class CFolderChooser
{
public:
    static QString getDirectory(QWidget* parent, const QString& caption, const QString& startFolder);
};

} // namespace qcontrols
