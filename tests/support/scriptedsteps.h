#pragma once

#include "qcontrols/dialogscript.h"

#include <QStringList>

#include <ostream>

// Failed comparisons of texts and lists of texts print them readably.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace testutils
{

// Runs step() with these answers scripted for the boxes and file dialogs it
// opens, and returns what they would have shown as "kind|title|text" lines,
// so one assertion compares them all.
template <typename Step>
QStringList shownWhile(const QList<qcontrols::CDialogScript::SAnswer>& answers, Step&& step)
{
    qcontrols::CScriptedDialogs script(answers);
    step();
    QStringList shown;
    for (const qcontrols::CDialogScript::SShown& box : qcontrols::CDialogScript::shown())
        shown << QStringList{box.kind, box.title, box.text}.join(QLatin1Char('|'));
    return shown;
}

} // namespace testutils
