#include "richtextlabel.h"

namespace qcontrols
{

CRichTextLabel::CRichTextLabel(const QString& text, QWidget* parent) : QLabel(parent)
{
    setObjectName(QStringLiteral("richTextLabel"));
    // Plain-looking texts with a stray "<" must not flip to plain text.
    setTextFormat(Qt::RichText);
    setWordWrap(true);
    setTextInteractionFlags(Qt::TextBrowserInteraction);
    setOpenExternalLinks(false);
    setText(text);
}

} // namespace qcontrols
