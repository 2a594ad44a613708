#pragma once

#include <QString>

class QWidget;

namespace qcontrols
{

// Asks for a file to write or to read with the platform's own dialog. An empty
// answer means the user cancelled. Scripted like the other boxes of the kit in
// tests: the answer's text is the file, a rejected answer cancels; the record
// of what was shown holds the caption and "start folder|filter".
class CFileChooser
{
public:
    static QString getSaveFileName(QWidget* parent, const QString& caption, const QString& startFolder,
                                   const QString& filter);
    static QString getOpenFileName(QWidget* parent, const QString& caption, const QString& startFolder,
                                   const QString& filter);
};

} // namespace qcontrols
