#pragma once

#include <QLabel>

namespace qcontrols
{

// A wrapping label that always reads its text as rich text; links are reported
// through linkActivated() and, when openExternalLinks() is on, opened.
class CRichTextLabel : public QLabel
{
    Q_OBJECT

public:
    explicit CRichTextLabel(const QString& text = QString(), QWidget* parent = nullptr);
};

} // namespace qcontrols
