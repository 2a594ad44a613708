#pragma once

#include <QList>
#include <QString>

namespace qcontrols
{

// Test seam for the kit's blocking boxes (message boxes, the line-input box).
// While a script is active each box takes the next scripted answer instead of
// being shown, and what it would have shown is recorded. GUI thread only.
class CDialogScript
{
public:
    struct SAnswer
    {
        // A QMessageBox::StandardButton for message boxes; QDialog::Accepted or
        // QDialog::Rejected for the line-input box.
        int button = 0;
        // The text the line-input box returns.
        QString text;
    };

    struct SShown
    {
        QString kind;
        QString title;
        QString text;
    };

    CDialogScript() = delete;

    // Enters scripted mode with these answers, forgetting earlier ones.
    static void start(const QList<SAnswer>& answers);
    static void stop();
    static bool isActive();

    // Next answer; false when the script has run out (logged as a warning,
    // the caller then answers as if the user had cancelled).
    static bool takeAnswer(SAnswer& answer);
    static void recordShown(const QString& kind, const QString& title, const QString& text);
    static QList<SShown> shown();
    static int remaining();
};

// Keeps a script active for one scope.
class CScriptedDialogs
{
public:
    explicit CScriptedDialogs(const QList<CDialogScript::SAnswer>& answers) { CDialogScript::start(answers); }
    ~CScriptedDialogs() { CDialogScript::stop(); }
    CScriptedDialogs(const CScriptedDialogs&) = delete;
    CScriptedDialogs& operator=(const CScriptedDialogs&) = delete;
};

} // namespace qcontrols
